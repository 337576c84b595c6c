// Message registries of the development front end: the DMTF registry files
// (Base, TaskEvent, ...) loaded once, so that a MessageId and its arguments
// become the Redfish message object a client reads, text and severity
// included.
//
// Threads: Load() runs before the server starts; afterwards the registry is
// only read, from any number of HTTP worker threads at once.
#ifndef ORBEL_FRONTEND_MESSAGEREGISTRY_H
#define ORBEL_FRONTEND_MESSAGEREGISTRY_H

#include <nlohmann/json.hpp>

#include <map>
#include <string>

namespace OrbelFrontEnd {

class MessageRegistry {
public:
    // Loads every "*.json" file of `dir` that is a message registry (has
    // "RegistryPrefix", "RegistryVersion" and "Messages"). Returns the number
    // of registries loaded; `error` names the first file that could not be
    // read or parsed (such a file is skipped).
    int Load(const std::string& dir, std::string* error = nullptr);

    // The message object for `messageId` ("Base.1.12.PropertyUnknown"):
    // "@odata.type", "MessageId", "MessageArgs", "RelatedProperties" and,
    // when the registry and its entry are known (prefix and major.minor
    // version match), "Message" with %1..%n filled in, "MessageSeverity"
    // and "Resolution". An unknown id keeps the other
    // members: a client still sees what the plug-in said.
    nlohmann::json Expand(const std::string& messageId, const nlohmann::json& args,
                          const nlohmann::json& related = nlohmann::json::array()) const;

    // A whole message list as read from the store (objects with "MessageId",
    // "MessageArgs" and "RelatedProperties"), each expanded; elements that are
    // not such objects are left out.
    nlohmann::json ExpandAll(const nlohmann::json& stored) const;

private:
    // Key: prefix + "." + major + "." + minor, e.g. "Base.1.12".
    std::map<std::string, nlohmann::json> mRegistries;
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_MESSAGEREGISTRY_H
