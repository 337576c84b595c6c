// Loading DMTF registry files and filling message texts.
#include "MessageRegistry.h"

#include <dirent.h>

#include <fstream>
#include <sstream>
#include <vector>

namespace OrbelFrontEnd {

namespace {

// "1.12.3" -> "1.12"; "" when the text has no second part.
std::string MajorMinor(const std::string& version) {
    const size_t dot1 = version.find('.');
    if (dot1 == std::string::npos) return std::string();
    const size_t dot2 = version.find('.', dot1 + 1);
    return version.substr(0, dot2);
}

// An argument as it reads inside a message text: strings without quotes,
// everything else as its JSON text.
std::string ArgText(const nlohmann::json& arg) {
    if (arg.is_string()) return arg.get<std::string>();
    return arg.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

int MessageRegistry::Load(const std::string& dir, std::string* error) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        if (error != nullptr) *error = "cannot open " + dir;
        return 0;
    }
    std::vector<std::string> files;
    while (const dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) {
            files.push_back(dir + "/" + name);
        }
    }
    closedir(d);
    int loaded = 0;
    for (const auto& path : files) {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        nlohmann::json reg = nlohmann::json::parse(text.str(), nullptr, false);
        if (reg.is_discarded() || !reg.is_object() || !reg.contains("RegistryPrefix") ||
            !reg["RegistryPrefix"].is_string() || !reg.contains("RegistryVersion") ||
            !reg["RegistryVersion"].is_string() || !reg.contains("Messages") ||
            !reg["Messages"].is_object()) {
            if (error != nullptr && error->empty()) *error = "not a message registry: " + path;
            continue;
        }
        const std::string key = reg["RegistryPrefix"].get<std::string>() + "." +
                                MajorMinor(reg["RegistryVersion"].get<std::string>());
        mRegistries[key] = std::move(reg["Messages"]);
        ++loaded;
    }
    return loaded;
}

nlohmann::json MessageRegistry::Expand(const std::string& messageId, const nlohmann::json& args,
                                       const nlohmann::json& related) const {
    nlohmann::json msg = {
        {"@odata.type", "#Message.v1_1_1.Message"},
        {"MessageId", messageId},
        {"MessageArgs", args.is_array() ? args : nlohmann::json::array()},
        {"RelatedProperties", related.is_array() ? related : nlohmann::json::array()}};
    // "Prefix.Major.Minor.Key": the registry is everything before the last dot.
    const size_t last = messageId.rfind('.');
    if (last == std::string::npos) return msg;
    auto reg = mRegistries.find(messageId.substr(0, last));
    if (reg == mRegistries.end()) return msg;
    auto entry = reg->second.find(messageId.substr(last + 1));
    if (entry == reg->second.end() || !entry->is_object()) return msg;
    const auto found = entry->find("Message");
    const std::string pattern =
        (found != entry->end() && found->is_string()) ? found->get<std::string>() : std::string();
    std::string text;
    for (size_t i = 0; i < pattern.size(); ++i) {
        // %1..%9 and beyond: the digits after "%" number the argument.
        if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] >= '1' &&
            pattern[i + 1] <= '9') {
            size_t n = 0;
            size_t j = i + 1;
            while (j < pattern.size() && pattern[j] >= '0' && pattern[j] <= '9' && n < 1000) {
                n = n * 10 + static_cast<size_t>(pattern[j] - '0');
                ++j;
            }
            if (msg["MessageArgs"].size() >= n) {
                text += ArgText(msg["MessageArgs"][n - 1]);
            } else {
                text += pattern.substr(i, j - i);  // a missing argument stays visible
            }
            i = j - 1;
            continue;
        }
        text += pattern[i];
    }
    msg["Message"] = text;
    // "Severity" is deprecated beside "MessageSeverity": clients get the latter.
    for (const char* member : {"MessageSeverity", "Resolution"}) {
        if (entry->contains(member)) msg[member] = (*entry)[member];
    }
    return msg;
}

nlohmann::json MessageRegistry::ExpandAll(const nlohmann::json& stored) const {
    nlohmann::json out = nlohmann::json::array();
    if (!stored.is_array()) return out;
    for (const auto& m : stored) {
        if (!m.is_object() || !m.contains("MessageId") || !m["MessageId"].is_string()) continue;
        out.push_back(Expand(m["MessageId"].get<std::string>(),
                             m.value("MessageArgs", nlohmann::json::array()),
                             m.value("RelatedProperties", nlohmann::json::array())));
    }
    return out;
}

}  // namespace OrbelFrontEnd
