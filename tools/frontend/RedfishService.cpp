// Request handling of the development front end.
#include "RedfishService.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "HttpServer.h"

namespace OrbelFrontEnd {

namespace {

constexpr const char* kServiceRoot = "/redfish/v1/";

// The HTTP code of each status word (the plug-ins' table; a create and an
// action are adjusted where the answer is built).
int HttpCode(const std::string& word) {
    static const std::map<std::string, int> kCodes = {
        {"OK", 200},          {"OK_RES", 201},    {"OK_EMPTY", 204},  {"PROCESSING", 202},
        {"AUTH_FAILED", 401}, {"FORBIDDEN", 403}, {"NOT_FOUND", 404}, {"NOT_ALLOWED", 405},
        {"CONFLICT", 409},    {"FAILURE", 400},   {"EXCEPTION", 500}, {"NOT_SUPPORTED", 501},
        {"FAIL", 400},  // a task's failure
        {"UNAVAILABLE", 503}, {"IGNORE", 0},
    };
    auto it = kCodes.find(word);
    return it == kCodes.end() ? -1 : it->second;
}

// The message an error answer without messages of its own gets.
const char* DefaultMessage(int status) {
    switch (status) {
        case 401:
            return "Base.1.12.NoValidSession";
        case 403:
            return "Base.1.12.InsufficientPrivilege";
        case 404:
            return "Base.1.12.ResourceMissingAtURI";
        case 500:
            return "Base.1.12.InternalError";
        case 503:
            return "Base.1.12.ResourceInUse";
        default:
            return "Base.1.12.GeneralError";
    }
}

// A path the store can name: printable ASCII without the bytes that are
// glob characters, quotes or escapes in the store's key texts.
bool PathIsClean(const std::string& path) {
    if (path.empty() || path[0] != '/' || path.size() > 1024) return false;
    if (path.find("//") != std::string::npos) return false;
    for (unsigned char c : path) {
        if (c <= 0x20 || c >= 0x7F) return false;
        if (c == '"' || c == '\\' || c == '\'' || c == '*' || c == '?' || c == '[' || c == ']') {
            return false;
        }
    }
    return true;
}

// The methods a client may use, as cpp-httplib knows them; anything else
// is a method the service does not implement (501).
bool KnownMethod(const std::string& m) {
    static const char* const kMethods[] = {"GET",     "HEAD",  "POST",  "PUT", "DELETE",
                                           "CONNECT", "OPTIONS", "TRACE", "PATCH"};
    for (const char* k : kMethods) {
        if (m == k) return true;
    }
    return false;
}

// A body's media type: JSON, with or without parameters.
bool IsJsonType(std::string type) {
    type = type.substr(0, type.find(';'));
    while (!type.empty() && type.back() == ' ') type.pop_back();
    for (auto& c : type) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return type == "application/json";
}

std::string Dump(const nlohmann::json& doc) {
    return doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// A weak ETag of a document's text (FNV-1a, 64 bits).
std::string EtagOfText(const std::string& text) {
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : text) {
        h ^= c;
        h *= 1099511628211ull;
    }
    char out[32];
    snprintf(out, sizeof out, "W/\"%016" PRIx64 "\"", h);
    return out;
}

std::string EtagOf(const nlohmann::json& doc) { return EtagOfText(Dump(doc)); }

std::string Mask(uint32_t privileges) {
    char b[16];
    snprintf(b, sizeof b, "0x%" PRIX32, privileges);
    return b;
}

// The last plain resource body a worker thread sent (no query, no
// messages), with the stored document it was made of.
struct sLastBody {
    std::string uri;
    std::string stored;  // the stored document's text
    std::string etag;
    std::string body;
    std::string type;  // its "@odata.type"
};
thread_local sLastBody tLastBody;

}  // namespace

RedfishService::RedfishService(sServiceConfig config, const UserTable& users,
                               const MessageRegistry& registry)
    : mConfig(std::move(config)),
      mUsers(users),
      mRegistry(registry),
      mSessions(mConfig.maxSessions, mConfig.sessionIdleSeconds),
      mGuard(mConfig.lockoutThreshold, mConfig.lockoutSeconds),
      mOwn(users, mSessions, mGuard, mConfig.schemaDir),
      mTasks(new TaskFollower(mConfig.socketPath)) {}

void RedfishService::Install(httplib::Server& server) {
    auto serve = [this](const httplib::Request& req, httplib::Response& res) { _Serve(req, res); };
    server.Get(".*", serve);
    server.Patch(".*", serve);
    server.Post(".*", serve);
    server.Delete(".*", serve);
    server.Put(".*", serve);
    server.Options(".*", serve);
    server.set_payload_max_length(mConfig.maxBodyBytes);
    // Errors the HTTP layer finds itself (a request line it cannot parse, a
    // body over the limit) get a Redfish error body too.
    server.set_error_handler([this](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return;
        sCall call(req, res);
        res.set_header("OData-Version", "4.0");
        res.set_header("Cache-Control", "no-cache");
        // The connection layer's own refusals: a header past its bounds, a
        // request that did not arrive in time.
        const std::string fault = ConnectionFault();
        EndConnectionAfterAnswer();
        if (fault == "header") res.status = 431;
        if (fault == "slow") res.status = 408;
        if (!fault.empty()) res.set_header("Connection", "close");
        const bool token = !req.method.empty() &&
                           strspn(req.method.c_str(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ-_") ==
                               req.method.size();
        if (fault.empty() && token && !KnownMethod(req.method)) {
            res.status = 501;  // a method nobody here implements
        } else if (fault.empty() && (req.method == "TRACE" || req.method == "CONNECT")) {
            res.status = 405;
            res.set_header("Allow", "GET, HEAD, PATCH, POST, DELETE");
        }
        const int status = res.status;
        _Error(call, status, "Base.1.12.GeneralError");
    });
    server.set_exception_handler(
        [this](const httplib::Request& req, httplib::Response& res, std::exception_ptr) {
            sCall call(req, res);
            _Error(call, 500, "Base.1.12.InternalError");
        });
}

void RedfishService::_Serve(const httplib::Request& req, httplib::Response& res) {
    sCall call(req, res);
    res.set_header("OData-Version", "4.0");
    res.set_header("Cache-Control", "no-cache");
    const bool read = call.method == "GET" || call.method == "HEAD";
    sQueryFault queryFault;
    // A body the HTTP layer does not read for this method (a GET's) would be
    // taken for the next request: the connection ends with this answer.
    if (req.body.empty() && req.has_header("Content-Length") &&
        req.get_header_value("Content-Length") != "0") {
        EndConnectionAfterAnswer();
        res.set_header("Connection", "close");
    }
    if (!PathIsClean(req.path)) {
        _Error(call, 400, "Base.1.12.InvalidURI", {req.path});
    } else if (call.uri == "/redfish" || call.uri == "/redfish/") {
        if (read) {
            res.set_content(R"({"v1":"/redfish/v1/"})", "application/json");
        } else {
            res.set_header("Allow", "GET, HEAD");
            _Error(call, 405, "Base.1.12.GeneralError");
        }
    } else if (call.uri.compare(0, 11, "/redfish/v1") != 0 ||
               (call.uri.size() > 11 && call.uri[11] != '/')) {
        _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    } else if (req.has_header("OData-Version") && req.get_header_value("OData-Version") != "4.0") {
        // The one protocol version served.
        _Error(call, 412, "Base.1.12.PreconditionFailed");
    } else if (mEvents != nullptr && EventService::Owns(call.uri)) {
        call.user.name = mEvents->Serve(req, res);
    } else if (read && !ParseQuery(QueryParams(req.target), &call.query, &queryFault)) {
        _Error(call, queryFault.status, queryFault.messageId, queryFault.args);
    } else {
        // "/redfish/v1" is the root; every other resource has no final "/".
        if (call.uri == "/redfish/v1") call.uri = kServiceRoot;
        if (call.uri.size() > 12 && call.uri.back() == '/') call.uri.pop_back();
        // A POST to a collection's Members is a POST to the collection.
        if (call.method == "POST" && call.uri.size() > 20 &&
            call.uri.compare(call.uri.size() - 8, 8, "/Members") == 0) {
            call.uri.resize(call.uri.size() - 8);
        }
        call.own = ServiceResources::Classify(call.uri, &call.ownId);
        // Open: the service root and the OData documents to read, and the
        // login itself.
        const bool open = (read && (call.uri == kServiceRoot || ServiceResources::Open(call.own))) ||
                          (call.own == eOwn::kSessions && call.method == "POST");
        const bool hasBody = !req.body.empty() && (call.method == "PATCH" || call.method == "POST");
        if (!open && !_Authenticate(call)) {
            res.set_header("WWW-Authenticate", "Basic realm=\"orbel\"");
            _Error(call, 401, "Base.1.12.NoValidSession");
        } else if (hasBody && req.has_header("Content-Type") &&
                   !IsJsonType(req.get_header_value("Content-Type"))) {
            _Error(call, 415, "Base.1.12.GeneralError");
        } else if (_ServeTasks(call)) {
            // the task service's own resources
        } else if (read) {
            call.own != eOwn::kNone ? _ReadOwn(call) : _Read(call);
        } else if (call.own != eOwn::kNone) {
            _WriteOwn(call);
        } else if (call.method == "PATCH" || call.method == "POST" || call.method == "DELETE") {
            _Write(call);
        } else {
            StoreRequest store(mConfig.socketPath);
            StoreRequest::sResourceInfo info;
            if (!store.Describe(call.uri, &info)) {
                _Unavailable(call);
            } else if (!info.resource) {
                _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
            } else {
                res.set_header("Allow", _AllowOf(info));
                _Error(call, 405, "Base.1.12.GeneralError");
            }
        }
    }
    if (!mConfig.quiet) {
        // Never a header or a body: they may carry a password or a token.
        fprintf(stderr, "orbel-frontend: %s %s %d user[%s]\n", LogText(call.method).c_str(),
                LogText(call.uri).c_str(), res.status, LogText(call.user.name).c_str());
    }
}

bool RedfishService::Authenticate(const httplib::Request& req, sUser* user) {
    httplib::Response unused;
    sCall call(req, unused);
    if (!_Authenticate(call)) return false;
    *user = call.user;
    return true;
}

bool RedfishService::_Authenticate(sCall& call) {
    const std::string token = call.req.get_header_value("X-Auth-Token");
    if (!token.empty()) {
        sSession s;
        if (!mSessions.Use(token, &s)) return false;
        call.user = s.user;
        call.session = std::string(kSessionsUri) + "/" + s.id;
        return true;
    }
    std::string name;
    std::string password;
    if (!ParseBasic(call.req.get_header_value("Authorization"), &name, &password)) return false;
    if (mGuard.Locked(name)) return false;
    if (!mUsers.Check(name, password, &call.user)) {
        mGuard.Failed(name, call.req.remote_addr);
        return false;
    }
    mGuard.Succeeded(name);
    return true;
}

std::string RedfishService::_AllowOf(const StoreRequest::sResourceInfo& info) {
    std::string allow = "GET, HEAD";
    if (info.channels.count("PATCHQ") != 0) allow += ", PATCH";
    if (info.channels.count("POSTCREATEQ") != 0) allow += ", POST";
    if (info.channels.count("DELETEQ") != 0) allow += ", DELETE";
    return allow;
}

std::map<std::string, std::string> RedfishService::_Fields(const sCall& call,
                                                           const std::string& method,
                                                           const std::string& needs) {
    std::map<std::string, std::string> fields = {
        {"&&RequestMethod", method},
        {"&&TargetURI", call.uri},
        {"&&RemoteIP", call.req.remote_addr},
        {"&&Username", call.user.name},
        {"&&UserPrivNumber", Mask(call.user.privileges)},
        {"&&Privileges", PrivilegeNames(call.user.privileges)},
        {"&&OperationPrivileges", needs},
    };
    // A session's requests name it; the plug-in then logs them as such.
    if (!call.session.empty()) {
        fields["&&AuthSession"] = call.session;
    } else if (!call.user.name.empty()) {
        fields["&&AuthHeader"] = "BasicAuth";
    }
    if (call.user.name.empty()) fields.erase("&&Username");  // the open service root
    if (call.req.has_header("Origin")) fields["&&Origin"] = call.req.get_header_value("Origin");
    if (fields["&&Privileges"].empty()) fields.erase("&&Privileges");
    if (needs.empty()) fields.erase("&&OperationPrivileges");
    return fields;
}

void RedfishService::_Read(sCall& call) {
    StoreRequest store(mConfig.socketPath);
    StoreRequest::sResourceInfo info;
    StoreRequest::sAnswer answer;
    bool forwarded = false;
    // A dynamic resource (a read channel, not fresh): its plug-in refreshes
    // it (and checks the user); the refreshed document comes with the
    // answer. The look at the resource and the forwarding share a round trip.
    if (!store.Read(call.uri, _Fields(call, call.method, call.uri == kServiceRoot ? "" : "Login"),
                    mConfig.answerTimeoutMs, &info, &answer, &forwarded)) {
        return _Unavailable(call);
    }
    if (!info.resource) return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    nlohmann::json messages = nlohmann::json::array();
    if (forwarded) {
        if (!answer.answered) return _Unavailable(call);
        if (answer.status != "OK" && answer.status != "IGNORE") return _Answer(call, answer);
        // A task's read thread says "finished" as soon as its work ends; the
        // final state reaches the Task resource through the task follower a
        // moment later: the client reads it once it is there.
        const std::string tasks = std::string(TaskFollower::kTasksURI) + "/";
        if (call.uri.compare(0, tasks.size(), tasks) == 0) {
            store.WaitField(call.uri, "EndTime", mConfig.lockWaitMs);
            answer.documentRead = false;  // read again, with its final state
        }
        messages = mRegistry.ExpandAll(answer.messages);
    } else {
        // Served from the store alone: the common privilege check is ours.
        if (call.uri != kServiceRoot && (call.user.privileges & 0x8) == 0) {
            return _Error(call, 403, "Base.1.12.InsufficientPrivilege");
        }
        if (info.locked && !store.WaitUnlocked(call.uri, mConfig.lockWaitMs)) {
            return _Error(call, 503, "Base.1.12.ResourceInUse");
        }
    }
    // A document read again unchanged is served as this thread made it last
    // time (the service root also shows the front end's own state: it is
    // made anew each time).
    const bool plain = answer.documentRead && call.uri != kServiceRoot && messages.empty() &&
                       !call.query.any;
    if (plain && tLastBody.uri == call.uri && tLastBody.stored == answer.document) {
        if (!_ReadHeaders(call, tLastBody.etag, _AllowOf(info), tLastBody.type)) {
            call.res.status = 200;
            call.res.set_content(tLastBody.body, "application/json");
        }
        return;
    }
    nlohmann::json doc;
    std::string etag;
    std::string text;
    if (!_Resource(call.uri, &doc, &etag, answer.documentRead ? &answer.document : nullptr,
                   &text)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    tLastBody = sLastBody();
    if (plain && !text.empty()) {
        tLastBody = {call.uri, answer.document, etag, text, doc.value("@odata.type", std::string())};
    }
    _SendResource(call, std::move(doc), etag, _AllowOf(info), messages, std::move(text));
}

void RedfishService::_ReadOwn(sCall& call) {
    const bool open = ServiceResources::Open(call.own);
    if (!open && (call.user.privileges & 0x8) == 0) {
        return _Error(call, 403, "Base.1.12.InsufficientPrivilege");
    }
    call.res.set_header("Allow", ServiceResources::Allow(call.own));
    std::string text;
    if (call.own == eOwn::kMetadata) {
        StoreRequest store(mConfig.socketPath);
        call.res.status = 200;
        call.res.set_content(mOwn.Metadata(store.ResourceTypes()), "application/xml");
        return;
    }
    if (call.own == eOwn::kSchemaFile) {
        if (!mOwn.SchemaFile(call.ownId, &text)) {
            return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
        }
        call.res.status = 200;
        call.res.set_content(text, "application/xml");
        return;
    }
    nlohmann::json doc;
    std::string etag;
    if (call.own == eOwn::kOData) {
        if (!_Resource(kServiceRoot, &doc, &etag)) doc = nlohmann::json::object();
        call.res.status = 200;
        call.res.set_content(Dump(ServiceResources::ServiceDocument(doc)), "application/json");
        return;
    }
    if (!_Resource(call.uri, &doc, &etag)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    _SendResource(call, std::move(doc), etag, ServiceResources::Allow(call.own),
                  nlohmann::json::array());
}

bool RedfishService::_Resource(const std::string& uri, nlohmann::json* doc, std::string* etag,
                               const std::string* read, std::string* text) {
    std::string id;
    const eOwn own = ServiceResources::Classify(uri, &id);
    if (own != eOwn::kNone) {
        if (ServiceResources::Open(own) || !mOwn.Document(own, id, doc)) return false;
    } else {
        std::string stored;
        if (read == nullptr) {
            if (!StoreRequest(mConfig.socketPath).ReadDoc(uri, &stored)) return false;
            read = &stored;
        }
        *doc = nlohmann::json::parse(*read, nullptr, false);
        if (doc->is_discarded() || !doc->is_object()) return false;
    }
    _Present(uri, doc);
    // The plug-in's own ETag when it keeps one, else one of the document.
    if (doc->contains("@odata.etag") && (*doc)["@odata.etag"].is_string() &&
        !(*doc)["@odata.etag"].get<std::string>().empty()) {
        *etag = (*doc)["@odata.etag"].get<std::string>();
        if ((*etag)[0] != '"' && etag->compare(0, 3, "W/\"") != 0) *etag = "\"" + *etag + "\"";
    } else {
        // The text the ETag is made of is the body, unless a query or
        // messages change the document.
        std::string dumped = Dump(*doc);
        *etag = EtagOfText(dumped);
        if (text != nullptr) *text = std::move(dumped);
    }
    return true;
}

void RedfishService::_Present(const std::string& uri, nlohmann::json* doc) {
    nlohmann::json& d = *doc;
    if (uri == kServiceRoot) {
        mOwn.AddToRoot(doc);
        if (d.is_object() && !d.contains("Tasks")) {
            d["Tasks"] = {{"@odata.id", "/redfish/v1/TaskService"}};
        }
        if (mEvents != nullptr) EventService::LinkFromRoot(doc);
    }
    // The task properties the library keeps in action objects are for the
    // front end; Redfish allows none of them there.
    if (d.contains("Actions") && d["Actions"].is_object()) {
        auto clean = [](nlohmann::json& actions) {
            for (auto it = actions.begin(); it != actions.end(); ++it) {
                if (it.key().empty() || it.key()[0] != '#' || !it->is_object()) continue;
                it->erase("PercentComplete");
                it->erase("HidePayload");
            }
        };
        clean(d["Actions"]);
        if (d["Actions"].contains("Oem") && d["Actions"]["Oem"].is_object()) {
            clean(d["Actions"]["Oem"]);
        }
    }
    // A task's messages are stored as MessageId and arguments, like the
    // messages of an answer.
    if (d.contains("Messages") && d["Messages"].is_array() &&
        d.value("@odata.type", std::string()).compare(0, 6, "#Task.") == 0) {
        d["Messages"] = mRegistry.ExpandAll(d["Messages"]);
    }
}

bool RedfishService::_ReadHeaders(sCall& call, const std::string& etag, const std::string& allow,
                                  const std::string& type) {
    call.res.set_header("Allow", allow);
    call.res.set_header("ETag", etag);
    if (type.size() > 1 && type[0] == '#') {
        // "#ComputerSystem.v1_20_0.ComputerSystem" is described by
        // ComputerSystem.v1_20_0.json; an unversioned type by its own name.
        const std::string t = type.substr(1);
        const std::string base = t.substr(0, t.rfind('.'));
        call.res.set_header("Link", "<http://redfish.dmtf.org/schemas/v1/" + base +
                                        ".json>; rel=describedby");
    }
    if (call.req.has_header("If-None-Match") && call.req.get_header_value("If-None-Match") == etag) {
        call.res.status = 304;
        return true;
    }
    return false;
}

void RedfishService::_SendResource(sCall& call, nlohmann::json doc, const std::string& etag,
                                   const std::string& allow, const nlohmann::json& messages,
                                   std::string text) {
    if (_ReadHeaders(call, etag, allow, doc.value("@odata.type", std::string()))) return;
    if (call.query.any) {
        ApplyQuery(call.query, call.uri, &doc, [this, &call](const std::string& uri,
                                                              nlohmann::json* linked) {
            // Expanded documents are reads of their own: they need Login
            // (the open service root expands nothing for a client without it).
            std::string ignored;
            return (call.user.privileges & 0x8) != 0 && PathIsClean(uri) &&
                   _Resource(uri, linked, &ignored);
        });
    }
    if (!messages.empty()) doc["@Message.ExtendedInfo"] = messages;
    if (call.query.any || !messages.empty() || text.empty()) text = Dump(doc);
    call.res.status = 200;
    call.res.set_content(std::move(text), "application/json");
}

void RedfishService::_WriteOwn(sCall& call) {
    if (call.own == eOwn::kSessions && call.method == "POST") return _Login(call);
    if (call.own == eOwn::kSession && call.method == "DELETE") {
        sSession s;
        if (!mSessions.Find(call.ownId, &s)) {
            return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
        }
        // One's own session, or any with the user-management privilege.
        if (s.user.name != call.user.name && (call.user.privileges & 0x20) == 0) {
            return _Error(call, 403, "Base.1.12.InsufficientPrivilege");
        }
        const std::string ifMatch = call.req.get_header_value("If-Match");
        nlohmann::json doc;
        std::string etag;
        if (!ifMatch.empty() && ifMatch != "*" && _Resource(call.uri, &doc, &etag) &&
            etag != ifMatch) {
            return _Error(call, 412, "Base.1.12.PreconditionFailed");
        }
        mSessions.Remove(call.ownId);
        call.res.status = 204;
        return;
    }
    // Accounts and roles come from the users file: read-only over HTTP.
    nlohmann::json doc;
    std::string etag;
    if (!ServiceResources::Open(call.own) && !_Resource(call.uri, &doc, &etag)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    call.res.set_header("Allow", ServiceResources::Allow(call.own));
    _Error(call, 405, "Base.1.12.GeneralError");
}

void RedfishService::_Login(sCall& call) {
    const nlohmann::json body = nlohmann::json::parse(call.req.body, nullptr, false);
    if (body.is_discarded() || !body.is_object()) return _Error(call, 400, "Base.1.12.MalformedJSON");
    for (const char* p : {"UserName", "Password"}) {
        if (!body.contains(p) || !body[p].is_string()) {
            return _Error(call, 400, "Base.1.12.PropertyMissing", {p});
        }
    }
    const std::string name = body["UserName"].get<std::string>();
    sUser user;
    if (mGuard.Locked(name)) return _Error(call, 401, "Base.1.12.NoValidSession");
    if (!mUsers.Check(name, body["Password"].get<std::string>(), &user)) {
        mGuard.Failed(name, call.req.remote_addr);
        return _Error(call, 401, "Base.1.12.NoValidSession");
    }
    mGuard.Succeeded(name);
    call.user = user;
    sSession s;
    if (!mSessions.Create(user, call.req.remote_addr, &s)) {
        return _Error(call, 503, "Base.1.12.SessionLimitExceeded");
    }
    const nlohmann::json doc = mOwn.SessionDocument(s);
    call.res.set_header("X-Auth-Token", s.token);
    call.res.set_header("Location", std::string(kSessionsUri) + "/" + s.id);
    call.res.set_header("ETag", EtagOf(doc));
    call.res.status = 201;
    call.res.set_content(Dump(doc), "application/json");
}

void RedfishService::_Write(sCall& call) {
    StoreRequest store(mConfig.socketPath);
    if (!store.Connected()) return _Unavailable(call);
    std::string resource = call.uri;
    std::string method;
    std::string queue;
    std::string action;
    const size_t actions = call.uri.find("/Actions/");
    if (call.method == "POST" && actions != std::string::npos) {
        resource = call.uri.substr(0, actions);
        action = call.uri.substr(actions + 9);
        method = "POSTACTION";
        queue = "POSTACTIONQ";
    } else if (call.method == "POST") {
        method = "POSTCREATE";
        queue = "POSTCREATEQ";
    } else {
        method = call.method;
        queue = call.method + "Q";
    }
    StoreRequest::sResourceInfo info;
    if (!store.Describe(resource, &info)) return _Unavailable(call);
    if (!info.resource) return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    const std::string channel = info.channels[queue];
    if (channel.empty() || (method == "POSTACTION" && action.empty())) {
        if (method == "POSTACTION")
            return _Error(call, 405, "Base.1.12.ActionNotSupported", {action});
        call.res.set_header("Allow", _AllowOf(info));
        if (method == "DELETE") return _Error(call, 405, "Base.1.12.ResourceCannotBeDeleted");
        return _Error(call, 405, "Base.1.12.GeneralError");
    }
    // A client that names the version it read must still find it; checked
    // before the plug-in sees the request.
    const std::string ifMatch = call.req.get_header_value("If-Match");
    if (!ifMatch.empty() && ifMatch != "*") {
        nlohmann::json doc;
        std::string etag;
        if (!_Resource(resource, &doc, &etag) || etag != ifMatch) {
            return _Error(call, 412, "Base.1.12.PreconditionFailed");
        }
    }
    sBodyTree tree;
    const bool hasBody = !call.req.body.empty() && method != "DELETE";
    if (method == "PATCH" && !hasBody) return _Error(call, 400, "Base.1.12.EmptyJSON");
    if (hasBody) {
        nlohmann::json body = nlohmann::json::parse(call.req.body, nullptr, false);
        if (body.is_discarded() || (method == "PATCH" && !body.is_object())) {
            return _Error(call, 400, "Base.1.12.MalformedJSON");
        }
        if (method == "PATCH" && body.empty()) return _Error(call, 400, "Base.1.12.EmptyJSON");
        sBodyFault fault;
        if (!BuildBodyTree(body, store.RequestDataKey(), &tree, &fault)) {
            return _Error(call, 400, fault.messageId, fault.args);
        }
    }
    // The privileges an operation needs (docs/frontend.md): a reset wants
    // the power privilege, account changes user management, the rest the
    // configuration privilege.
    std::string needs = "Login,ConfigurationNetworkingAndSecurity";
    if (action.find(".Reset") != std::string::npos) needs = "Login,RemoteServerPowerRestartAccess";
    if (resource.compare(0, 27, "/redfish/v1/AccountService") == 0) {
        needs = "Login,UserAccountManagement";
    }
    std::map<std::string, std::string> fields = _Fields(call, method, needs);
    // An action of a resource whose schema runs actions as tasks may be
    // answered with one: the task is prepared before the request goes out,
    // and dropped if unused.
    std::string task;
    if (method == "POSTACTION" && store.Field(resource, "&&Async") == "true") {
        task = store.PrepareTask();
        if (!task.empty()) fields["&&Task"] = task;
    }
    StoreRequest::sAnswer answer =
        store.Send(channel, fields, hasBody ? &tree : nullptr, mConfig.answerTimeoutMs);
    if (!task.empty()) {
        if (answer.status == "PROCESSING") {
            mTasks->Adopt(store.Key(), answer.keptKeys);
        } else {
            store.DiscardTask(task);
        }
    }
    if (!answer.answered) return _Unavailable(call);
    _Answer(call, answer);
}

void RedfishService::_Answer(sCall& call, const StoreRequest::sAnswer& answer) {
    const nlohmann::json messages = mRegistry.ExpandAll(answer.messages);
    const int code = HttpCode(answer.status);
    auto location = [&answer]() {
        auto it = answer.hash.find("&&Location");
        return it == answer.hash.end() ? std::string() : it->second;
    };
    auto send = [&call](int status, const nlohmann::json& doc) {
        call.res.status = status;
        call.res.set_content(doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                             "application/json");
    };
    nlohmann::json doc = nlohmann::json::object();
    if (code < 0) {
        fprintf(stderr, "orbel-frontend: unknown status word[%s] for %s\n", answer.status.c_str(),
                call.uri.c_str());
        return _Error(call, 500, "Base.1.12.InternalError");
    }
    if (code >= 400) return _ErrorWith(call, code, messages);
    if (answer.status == "PROCESSING") {
        // The task monitor: the client polls it; the body is the Task.
        call.res.set_header("Location", _MonitorOf(location()));
        std::string etag;
        if (!_Resource(location(), &doc, &etag)) doc = nlohmann::json::object();
        if (doc.is_object() && !messages.empty()) doc["@Message.ExtendedInfo"] = messages;
        return send(202, doc);
    }
    if (answer.status == "OK_EMPTY" || (answer.status == "OK" && call.method == "DELETE")) {
        if (messages.empty()) {
            call.res.status = 204;
            return;
        }
        return send(200, nlohmann::json{{"@Message.ExtendedInfo", messages}});
    }
    if (answer.status == "OK_RES") {
        if (!answer.responseData.empty()) {
            doc = nlohmann::json::parse(answer.responseData, nullptr, false);
            if (doc.is_discarded()) doc = nlohmann::json::object();
        }
        if (doc.is_object() && !messages.empty()) doc["@Message.ExtendedInfo"] = messages;
        return send(200, doc);
    }
    // OK (or IGNORE): the resource as it is now; a create answers with the
    // new member.
    const bool created = !location().empty() && answer.hash.count("&&RequestMethod") != 0 &&
                         answer.hash.at("&&RequestMethod") == "POSTCREATE";
    const std::string target = created ? location() : call.uri;
    if (created) call.res.set_header("Location", target);
    std::string etag;
    if (_Resource(target, &doc, &etag)) {
        call.res.set_header("ETag", etag);
    } else {
        doc = nlohmann::json::object();
    }
    if (doc.is_object() && !messages.empty()) doc["@Message.ExtendedInfo"] = messages;
    send(created ? 201 : 200, doc);
}

void RedfishService::_Unavailable(sCall& call) {
    call.res.set_header("Retry-After", "5");
    _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
}

void RedfishService::_Error(sCall& call, int status, const std::string& messageId,
                            const nlohmann::json& args) {
    _ErrorWith(call, status, nlohmann::json::array({mRegistry.Expand(messageId, args)}));
}

void RedfishService::_ErrorWith(sCall& call, int status, nlohmann::json messages) {
    if (messages.empty()) {
        nlohmann::json args = nlohmann::json::array();
        if (status == 404) args.push_back(call.uri);
        messages.push_back(mRegistry.Expand(DefaultMessage(status), args));
    }
    const nlohmann::json& first = messages[0];
    nlohmann::json error = {
        {"code", first.value("MessageId", std::string("Base.1.12.GeneralError"))},
        {"message", first.value("Message", std::string("See @Message.ExtendedInfo."))},
        {"@Message.ExtendedInfo", messages},
    };
    call.res.status = status;
    call.res.set_content(nlohmann::json{{"error", error}}.dump(
                             -1, ' ', false, nlohmann::json::error_handler_t::replace),
                         "application/json");
}

}  // namespace OrbelFrontEnd
