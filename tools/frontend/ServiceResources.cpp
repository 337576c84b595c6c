// The front end's own resources: OData documents, sessions, accounts, roles.
#include "ServiceResources.h"

#include "Query.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

namespace OrbelFrontEnd {

namespace {

using nlohmann::json;

constexpr const char* kSessionService = "/redfish/v1/SessionService";
constexpr const char* kAccountService = "/redfish/v1/AccountService";
constexpr const char* kAccounts = "/redfish/v1/AccountService/Accounts";
constexpr const char* kRoles = "/redfish/v1/AccountService/Roles";
constexpr const char* kSchemas = "/redfish/v1/Schemas/";

// The types of the own resources (schema versions the front end fills).
constexpr const char* kOwnTypes[] = {
    "#SessionService.v1_1_8.SessionService", "#SessionCollection.SessionCollection",
    "#Session.v1_7_0.Session",               "#AccountService.v1_13_0.AccountService",
    "#ManagerAccountCollection.ManagerAccountCollection",
    "#ManagerAccount.v1_10_0.ManagerAccount", "#RoleCollection.RoleCollection",
    "#Role.v1_3_1.Role",
};

struct sRole {
    const char* id;
    std::vector<const char*> privileges;  // the Redfish privileges of the role
};
// The roles of the users file, with the Redfish privileges they stand for;
// their plug-in privileges (docs/frontend.md) are listed as OemPrivileges.
const std::vector<sRole>& Roles() {
    static const std::vector<sRole> kRoles = {
        {"Administrator",
         {"Login", "ConfigureManager", "ConfigureUsers", "ConfigureComponents", "ConfigureSelf"}},
        {"Operator", {"Login", "ConfigureComponents", "ConfigureSelf"}},
        {"ReadOnly", {"Login", "ConfigureSelf"}},
        {"NoAccess", {}},
    };
    return kRoles;
}

json Link(const std::string& uri) { return json{{"@odata.id", uri}}; }

json Collection(const char* type, const std::string& uri, const char* name,
                const std::vector<std::string>& members) {
    json list = json::array();
    for (const auto& m : members) list.push_back(Link(m));
    return json{{"@odata.id", uri},
                {"@odata.type", type},
                {"Name", name},
                {"Members", list},
                {"Members@odata.count", members.size()}};
}

// "#ComputerSystem.v1_20_0.ComputerSystem" -> {"ComputerSystem",
// "ComputerSystem.v1_20_0"}; an unversioned type gives its one namespace.
bool Namespaces(const std::string& type, std::string* base, std::string* versioned) {
    if (type.size() < 2 || type[0] != '#') return false;
    const std::string t = type.substr(1);
    const size_t dot = t.find('.');
    if (dot == std::string::npos || dot == 0) return false;
    *base = t.substr(0, dot);
    const size_t last = t.rfind('.');
    versioned->clear();
    if (last != dot) *versioned = t.substr(0, last);
    for (char c : t) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_') return false;
    }
    return true;
}

std::string XmlAttr(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

}  // namespace

ServiceResources::ServiceResources(const UserTable& users, SessionTable& sessions,
                                   const LoginGuard& guard, const std::string& schemaDir)
    : mUsers(users), mSessions(sessions), mGuard(guard) {
    if (schemaDir.empty()) return;
    DIR* d = opendir(schemaDir.c_str());
    if (d == nullptr) return;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() < 5 || name.compare(name.size() - 4, 4, ".xml") != 0) continue;
        std::ifstream in(schemaDir + "/" + name);
        std::stringstream text;
        text << in.rdbuf();
        sSchemaFile f{name, text.str(), {}};
        // The namespaces the file defines (its <Schema Namespace="...">).
        for (size_t at = f.text.find("<Schema "); at != std::string::npos;
             at = f.text.find("<Schema ", at + 1)) {
            const size_t ns = f.text.find("Namespace=\"", at);
            const size_t close = f.text.find('>', at);
            if (ns == std::string::npos || ns > close) continue;
            const size_t end = f.text.find('"', ns + 11);
            f.namespaces.push_back(f.text.substr(ns + 11, end - ns - 11));
        }
        if (!f.namespaces.empty()) mSchemaFiles.push_back(f);
    }
    closedir(d);
}

eOwn ServiceResources::Classify(const std::string& uri, std::string* id) {
    auto member = [&uri, id](const std::string& parent) {
        if (uri.compare(0, parent.size() + 1, parent + "/") != 0) return false;
        *id = uri.substr(parent.size() + 1);
        return !id->empty() && id->find('/') == std::string::npos;
    };
    if (uri == "/redfish/v1/$metadata") return eOwn::kMetadata;
    if (uri == "/redfish/v1/odata") return eOwn::kOData;
    if (uri == kSessionService) return eOwn::kSessionService;
    if (uri == kSessionsUri) return eOwn::kSessions;
    if (member(kSessionsUri)) return eOwn::kSession;
    if (uri == kAccountService) return eOwn::kAccountService;
    if (uri == kAccounts) return eOwn::kAccounts;
    if (member(kAccounts)) return eOwn::kAccount;
    if (uri == kRoles) return eOwn::kRoles;
    if (member(kRoles)) return eOwn::kRole;
    if (member("/redfish/v1/Schemas")) return eOwn::kSchemaFile;
    return eOwn::kNone;
}

const char* ServiceResources::Allow(eOwn kind) {
    switch (kind) {
        case eOwn::kSessions:
            return "GET, HEAD, POST";
        case eOwn::kSession:
            return "GET, HEAD, DELETE";
        default:
            return "GET, HEAD";
    }
}

json ServiceResources::SessionDocument(const sSession& s) const {
    return json{{"@odata.id", std::string(kSessionsUri) + "/" + s.id},
                {"@odata.type", "#Session.v1_7_0.Session"},
                {"Id", s.id},
                {"Name", "User Session"},
                {"UserName", s.user.name},
                {"Password", nullptr},
                {"SessionType", "Redfish"},
                {"ClientOriginIPAddress", s.remoteIp},
                {"CreatedTime", s.created}};
}

bool ServiceResources::Document(eOwn kind, const std::string& id, json* doc) {
    switch (kind) {
        case eOwn::kSessionService:
            *doc = {{"@odata.id", kSessionService},
                    {"@odata.type", "#SessionService.v1_1_8.SessionService"},
                    {"Id", "SessionService"},
                    {"Name", "Session Service"},
                    {"ServiceEnabled", true},
                    {"SessionTimeout", mSessions.IdleSeconds()},
                    {"Status", {{"State", "Enabled"}, {"Health", "OK"}}},
                    {"Sessions", Link(kSessionsUri)}};
            return true;
        case eOwn::kSessions: {
            std::vector<std::string> members;
            for (const auto& s : mSessions.List())
                members.push_back(std::string(kSessionsUri) + "/" + s.id);
            *doc = Collection("#SessionCollection.SessionCollection", kSessionsUri,
                              "Session Collection", members);
            return true;
        }
        case eOwn::kSession: {
            sSession s;
            if (!mSessions.Find(id, &s)) return false;
            *doc = SessionDocument(s);
            return true;
        }
        case eOwn::kAccountService:
            *doc = {{"@odata.id", kAccountService},
                    {"@odata.type", "#AccountService.v1_13_0.AccountService"},
                    {"Id", "AccountService"},
                    {"Name", "Account Service"},
                    {"Description", "Accounts of the users file; read-only over HTTP"},
                    {"ServiceEnabled", true},
                    {"Status", {{"State", "Enabled"}, {"Health", "OK"}}},
                    {"AuthFailureLoggingThreshold", 1},
                    {"MinPasswordLength", 1},
                    {"AccountLockoutThreshold", mGuard.Threshold()},
                    {"AccountLockoutDuration", mGuard.LockSeconds()},
                    {"AccountLockoutCounterResetAfter", mGuard.LockSeconds()},
                    {"AccountLockoutCounterResetEnabled", false},
                    {"LocalAccountAuth", "Enabled"},
                    {"Accounts", Link(kAccounts)},
                    {"Roles", Link(kRoles)}};
            return true;
        case eOwn::kAccounts: {
            std::vector<std::string> members;
            for (const auto& u : mUsers.Users()) members.push_back(std::string(kAccounts) + "/" + u.name);
            *doc = Collection("#ManagerAccountCollection.ManagerAccountCollection", kAccounts,
                              "Accounts Collection", members);
            return true;
        }
        case eOwn::kAccount:
            for (const auto& u : mUsers.Users()) {
                if (u.name != id) continue;
                // Never the password: the schema makes it write-only.
                *doc = {{"@odata.id", std::string(kAccounts) + "/" + u.name},
                        {"@odata.type", "#ManagerAccount.v1_10_0.ManagerAccount"},
                        {"Id", u.name},
                        {"Name", "User Account"},
                        {"UserName", u.name},
                        {"Password", nullptr},
                        {"RoleId", u.role},
                        {"Enabled", true},
                        {"Locked", false},
                        {"AccountTypes", {"Redfish"}},
                        {"Links", {{"Role", Link(std::string(kRoles) + "/" + u.role)}}}};
                return true;
            }
            return false;
        case eOwn::kRoles: {
            std::vector<std::string> members;
            for (const auto& r : Roles()) members.push_back(std::string(kRoles) + "/" + r.id);
            *doc = Collection("#RoleCollection.RoleCollection", kRoles, "Roles Collection",
                              members);
            return true;
        }
        case eOwn::kRole:
            for (const auto& r : Roles()) {
                if (id != r.id) continue;
                uint32_t mask = 0;
                RoleMask(r.id, &mask);
                json oem = json::array();
                const std::string names = PrivilegeNames(mask);
                for (size_t at = 0; at < names.size();) {
                    const size_t comma = names.find(',', at);
                    oem.push_back(names.substr(at, comma - at));
                    at = comma == std::string::npos ? names.size() : comma + 1;
                }
                *doc = {{"@odata.id", std::string(kRoles) + "/" + r.id},
                        {"@odata.type", "#Role.v1_3_1.Role"},
                        {"Id", r.id},
                        {"Name", std::string(r.id) + " Role"},
                        {"RoleId", r.id},
                        {"IsPredefined", true},
                        {"AssignedPrivileges", r.privileges},
                        {"OemPrivileges", oem}};
                return true;
            }
            return false;
        default:
            return false;
    }
}

std::string ServiceResources::Metadata(const std::set<std::string>& odataTypes) const {
    std::map<std::string, std::set<std::string>> refs;  // schema file base -> namespaces
    std::set<std::string> types = odataTypes;
    types.insert(std::begin(kOwnTypes), std::end(kOwnTypes));
    std::string rootNs = "ServiceRoot.v1_15_0";
    for (const auto& t : types) {
        std::string base;
        std::string versioned;
        if (!Namespaces(t, &base, &versioned)) continue;
        bool oem = false;
        for (const auto& f : mSchemaFiles) {
            for (const auto& ns : f.namespaces) oem = oem || ns == base;
        }
        if (oem) continue;
        refs[base].insert(base);
        if (!versioned.empty()) refs[base].insert(versioned);
        if (base == "ServiceRoot" && !versioned.empty()) rootNs = versioned;
    }
    std::string x =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<edmx:Edmx xmlns:edmx=\"http://docs.oasis-open.org/odata/ns/edmx\" Version=\"4.0\">\n";
    for (const auto& r : refs) {
        x += "  <edmx:Reference Uri=\"http://redfish.dmtf.org/schemas/v1/" + XmlAttr(r.first) +
             "_v1.xml\">\n";
        for (const auto& ns : r.second)
            x += "    <edmx:Include Namespace=\"" + XmlAttr(ns) + "\"/>\n";
        x += "  </edmx:Reference>\n";
    }
    for (const auto& f : mSchemaFiles) {
        x += "  <edmx:Reference Uri=\"" + std::string(kSchemas) + XmlAttr(f.name) + "\">\n";
        for (const auto& ns : f.namespaces)
            x += "    <edmx:Include Namespace=\"" + XmlAttr(ns) + "\"/>\n";
        x += "  </edmx:Reference>\n";
    }
    x += "  <edmx:DataServices>\n"
         "    <Schema xmlns=\"http://docs.oasis-open.org/odata/ns/edm\" Namespace=\"Service\">\n"
         "      <EntityContainer Name=\"Service\" Extends=\"" +
         XmlAttr(rootNs) +
         ".ServiceContainer\"/>\n"
         "    </Schema>\n"
         "  </edmx:DataServices>\n"
         "</edmx:Edmx>\n";
    return x;
}

json ServiceResources::ServiceDocument(const json& root) {
    json value = json::array();
    if (root.is_object()) {
        for (auto it = root.begin(); it != root.end(); ++it) {
            if (!it->is_object() || !it->contains("@odata.id") || it.key() == "Links") continue;
            value.push_back({{"name", it.key()}, {"kind", "Singleton"}, {"url", (*it)["@odata.id"]}});
        }
    }
    return json{{"@odata.context", "/redfish/v1/$metadata"}, {"value", value}};
}

bool ServiceResources::SchemaFile(const std::string& name, std::string* text) const {
    for (const auto& f : mSchemaFiles) {
        if (f.name != name) continue;
        *text = f.text;
        return true;
    }
    return false;
}

void ServiceResources::AddToRoot(json* root) const {
    if (!root->is_object()) return;
    json& r = *root;
    if (!r.contains("Links") || !r["Links"].is_object()) r["Links"] = json::object();
    r["Links"]["Sessions"] = Link(kSessionsUri);
    r["SessionService"] = Link(kSessionService);
    r["AccountService"] = Link(kAccountService);
    // Only what the root's schema version defines: a property of a later
    // version fails the schema check.
    int minor = 0;
    const std::string type = r.value("@odata.type", std::string());
    const size_t v = type.find(".v1_");
    if (v != std::string::npos) minor = atoi(type.c_str() + v + 4);
    if (minor < 3) return;
    json features = {
        {"ExpandQuery", {{"ExpandAll", true}, {"Levels", true}, {"Links", true},
                         {"NoLinks", true}, {"MaxLevels", kExpandMaxLevels}}},
        {"FilterQuery", false},
        {"SelectQuery", true},
    };
    if (minor >= 4) {
        features["ExcerptQuery"] = false;
        features["OnlyMemberQuery"] = false;
    }
    if (minor >= 17) features["TopSkipQuery"] = true;
    r["ProtocolFeaturesSupported"] = features;
}

}  // namespace OrbelFrontEnd
