// The resources the development front end serves itself, not a plug-in:
// the OData documents ($metadata, the service document), the SessionService
// with its Sessions, and the AccountService with the users file's accounts
// and the predefined roles (docs/frontend.md, "The front end's own
// resources").
//
// Threads: const after construction but for the session table, which locks
// itself; used from any number of HTTP worker threads.
#ifndef ORBEL_FRONTEND_SERVICERESOURCES_H
#define ORBEL_FRONTEND_SERVICERESOURCES_H

#include <nlohmann/json.hpp>

#include <set>
#include <string>
#include <vector>

#include "SessionTable.h"
#include "UserTable.h"

namespace OrbelFrontEnd {

enum class eOwn {
    kNone,
    kMetadata,
    kOData,
    kSchemaFile,  // a CSDL file of --schemas, under /redfish/v1/Schemas/
    kSessionService,
    kSessions,
    kSession,
    kAccountService,
    kAccounts,
    kAccount,
    kRoles,
    kRole,
};

class ServiceResources {
public:
    // `schemaDir`: the CSDL files of the plug-ins' OEM namespaces ("" for
    // none); each is served open under /redfish/v1/Schemas/ and referenced
    // from $metadata.
    ServiceResources(const UserTable& users, SessionTable& sessions, const LoginGuard& guard,
                     const std::string& schemaDir);

    // Which own resource `uri` (normalized) names, and the id of a member.
    static eOwn Classify(const std::string& uri, std::string* id);
    // The methods an own resource answers ("GET, HEAD", ...).
    static const char* Allow(eOwn kind);
    // Open without credentials (the OData documents and schema files).
    static bool Open(eOwn kind) {
        return kind == eOwn::kMetadata || kind == eOwn::kOData || kind == eOwn::kSchemaFile;
    }

    // The document of an own JSON resource; false when the member does not
    // exist.
    bool Document(eOwn kind, const std::string& id, nlohmann::json* doc);
    nlohmann::json SessionDocument(const sSession& s) const;

    // $metadata for the given "@odata.type" values, the own resources' and
    // the OEM namespaces of the schema files.
    std::string Metadata(const std::set<std::string>& odataTypes) const;
    // The OData service document of the service root's document.
    static nlohmann::json ServiceDocument(const nlohmann::json& root);
    // A CSDL file's text; false when there is none of that name.
    bool SchemaFile(const std::string& name, std::string* text) const;

    // What the root gets from the front end: links to the own services and
    // the protocol features the front end implements.
    void AddToRoot(nlohmann::json* root) const;

private:
    const UserTable& mUsers;
    SessionTable& mSessions;
    const LoginGuard& mGuard;
    struct sSchemaFile {
        std::string name;
        std::string text;
        std::vector<std::string> namespaces;
    };
    std::vector<sSchemaFile> mSchemaFiles;
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_SERVICERESOURCES_H
