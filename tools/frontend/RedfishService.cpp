// Request handling of the development front end.
#include "RedfishService.h"

#include <cinttypes>
#include <cstdio>

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

}  // namespace

struct RedfishService::sCall {
    const httplib::Request& req;
    httplib::Response& res;
    std::string method;  // HTTP method
    std::string uri;     // normalized target
    sUser user;
};

RedfishService::RedfishService(sServiceConfig config, const UserTable& users,
                               const MessageRegistry& registry)
    : mConfig(std::move(config)),
      mUsers(users),
      mRegistry(registry),
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
        sCall call{req, res, req.method, req.path, {}};
        const int status = res.status;
        _Error(call, status, "Base.1.12.GeneralError");
    });
    server.set_exception_handler(
        [this](const httplib::Request& req, httplib::Response& res, std::exception_ptr) {
            sCall call{req, res, req.method, req.path, {}};
            _Error(call, 500, "Base.1.12.InternalError");
        });
}

void RedfishService::_Serve(const httplib::Request& req, httplib::Response& res) {
    sCall call{req, res, req.method, req.path, {}};
    res.set_header("OData-Version", "4.0");
    if (!PathIsClean(req.path)) {
        _Error(call, 400, "Base.1.12.InvalidURI", {req.path});
    } else if (call.uri == "/redfish" || call.uri == "/redfish/") {
        if (call.method == "GET" || call.method == "HEAD") {
            res.set_content(R"({"v1":"/redfish/v1/"})", "application/json");
        } else {
            res.set_header("Allow", "GET, HEAD");
            _Error(call, 405, "Base.1.12.GeneralError");
        }
    } else if (call.uri.compare(0, 11, "/redfish/v1") != 0 ||
               (call.uri.size() > 11 && call.uri[11] != '/')) {
        _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    } else if (mEvents != nullptr && EventService::Owns(call.uri)) {
        call.user.name = mEvents->Serve(req, res);
    } else if (req.target.find('?') != std::string::npos) {
        _Error(call, 400, "Base.1.12.QueryNotSupported");
    } else {
        // "/redfish/v1" is the root; every other resource has no final "/".
        if (call.uri == "/redfish/v1") call.uri = kServiceRoot;
        if (call.uri.size() > 12 && call.uri.back() == '/') call.uri.pop_back();
        const bool open =
            call.uri == kServiceRoot && (call.method == "GET" || call.method == "HEAD");
        if (!open && !mUsers.Authenticate(req.get_header_value("Authorization"), &call.user)) {
            res.set_header("WWW-Authenticate", "Basic realm=\"orbel\"");
            _Error(call, 401, "Base.1.12.NoValidSession");
        } else if (call.method == "GET" || call.method == "HEAD") {
            _Read(call);
        } else if (call.method == "PATCH" || call.method == "POST" || call.method == "DELETE") {
            _Write(call);
        } else {
            res.set_header("Allow", "GET, HEAD, PATCH, POST, DELETE");
            _Error(call, 405, "Base.1.12.GeneralError");
        }
    }
    if (!mConfig.quiet) {
        // Never a header or a body: they may carry a password.
        fprintf(stderr, "orbel-frontend: %s %s %d user[%s]\n", call.method.c_str(),
                call.uri.c_str(), res.status, call.user.name.c_str());
    }
}

void RedfishService::_Read(sCall& call) {
    StoreRequest store(mConfig.socketPath);
    if (!store.Connected())
        return _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
    if (!store.IsResource(call.uri)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    const std::string channel = store.Channel(call.uri, "GETQ");
    nlohmann::json messages = nlohmann::json::array();
    if (!channel.empty() && !store.Fresh(call.uri)) {
        // A dynamic resource: its plug-in refreshes it (and checks the user).
        std::map<std::string, std::string> fields = {
            {"&&RequestMethod", call.method},
            {"&&TargetURI", call.uri},
            {"&&RemoteIP", call.req.remote_addr},
            {"&&AuthHeader", "BasicAuth"},
            {"&&Username", call.user.name},
            {"&&UserPrivNumber", "0x" +
                                     [&] {
                                         char b[16];
                                         snprintf(b, sizeof b, "%" PRIX32, call.user.privileges);
                                         return std::string(b);
                                     }()},
            {"&&Privileges", PrivilegeNames(call.user.privileges)},
            {"&&OperationPrivileges", call.uri == kServiceRoot ? "" : "Login"},
        };
        if (call.user.name.empty()) {
            // The unauthenticated service root.
            fields.erase("&&Username");
            fields.erase("&&AuthHeader");
        }
        if (call.req.has_header("Origin")) fields["&&Origin"] = call.req.get_header_value("Origin");
        if (fields["&&OperationPrivileges"].empty()) fields.erase("&&OperationPrivileges");
        StoreRequest::sAnswer answer =
            store.Send(channel, fields, nullptr, mConfig.answerTimeoutMs);
        if (!answer.answered) {
            return _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
        }
        if (answer.status != "OK" && answer.status != "IGNORE") return _Answer(call, answer);
        messages = mRegistry.ExpandAll(answer.messages);
    } else {
        // Served from the store alone: the common privilege check is ours.
        if (call.uri != kServiceRoot && (call.user.privileges & 0x8) == 0) {
            return _Error(call, 403, "Base.1.12.InsufficientPrivilege");
        }
        if (!store.WaitUnlocked(call.uri, mConfig.lockWaitMs)) {
            return _Error(call, 503, "Base.1.12.ResourceInUse");
        }
    }
    nlohmann::json doc;
    if (!_Document(call, call.uri, &doc)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    if (!messages.empty()) doc["@Message.ExtendedInfo"] = messages;
    if (mEvents != nullptr && call.uri == kServiceRoot) EventService::LinkFromRoot(&doc);
    const std::string etag = call.res.get_header_value("ETag");
    if (!etag.empty() && call.req.get_header_value("If-None-Match") == etag) {
        call.res.status = 304;
        return;
    }
    call.res.status = 200;
    call.res.set_content(doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                         "application/json");
}

// Reads `uri`'s document and sets the ETag header from "@odata.etag".
bool RedfishService::_Document(sCall& call, const std::string& uri, nlohmann::json* doc) {
    StoreRequest store(mConfig.socketPath);
    std::string text;
    if (!store.ReadDoc(uri, &text)) return false;
    *doc = nlohmann::json::parse(text, nullptr, false);
    if (doc->is_discarded()) return false;
    // A task's messages are stored as MessageId and arguments, like the
    // messages of an answer.
    if (doc->is_object() && doc->contains("Messages") && (*doc)["Messages"].is_array() &&
        doc->value("@odata.type", std::string()).compare(0, 6, "#Task.") == 0) {
        (*doc)["Messages"] = mRegistry.ExpandAll((*doc)["Messages"]);
    }
    if (doc->is_object() && doc->contains("@odata.etag") && (*doc)["@odata.etag"].is_string()) {
        std::string etag = (*doc)["@odata.etag"].get<std::string>();
        if (!etag.empty()) {
            if (etag[0] != '"' && etag.compare(0, 3, "W/\"") != 0) etag = "\"" + etag + "\"";
            call.res.set_header("ETag", etag);
        }
    }
    return true;
}

void RedfishService::_Write(sCall& call) {
    StoreRequest store(mConfig.socketPath);
    if (!store.Connected())
        return _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
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
    if (!store.IsResource(resource)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    const std::string channel = store.Channel(resource, queue);
    if (channel.empty() || (method == "POSTACTION" && action.empty())) {
        if (method == "POSTACTION")
            return _Error(call, 405, "Base.1.12.ActionNotSupported", {action});
        if (method == "DELETE") return _Error(call, 405, "Base.1.12.ResourceCannotBeDeleted");
        return _Error(call, 405, "Base.1.12.GeneralError");
    }
    // A client that names the version it read must still find it.
    const std::string ifMatch = call.req.get_header_value("If-Match");
    if (!ifMatch.empty() && ifMatch != "*") {
        nlohmann::json doc;
        if (_Document(call, resource, &doc) && call.res.get_header_value("ETag") != ifMatch) {
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
    char mask[16];
    snprintf(mask, sizeof mask, "0x%" PRIX32, call.user.privileges);
    std::map<std::string, std::string> fields = {
        {"&&RequestMethod", method},
        {"&&TargetURI", call.uri},
        {"&&RemoteIP", call.req.remote_addr},
        {"&&AuthHeader", "BasicAuth"},
        {"&&Username", call.user.name},
        {"&&UserPrivNumber", mask},
        {"&&Privileges", PrivilegeNames(call.user.privileges)},
        {"&&OperationPrivileges", needs},
    };
    if (call.req.has_header("Origin")) fields["&&Origin"] = call.req.get_header_value("Origin");
    if (fields["&&Privileges"].empty()) fields.erase("&&Privileges");
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
    if (!answer.answered)
        return _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
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
        // The task monitor: the client polls it.
        call.res.set_header("Location", location());
        if (!_Document(call, location(), &doc)) doc = nlohmann::json::object();
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
    if (!_Document(call, target, &doc)) doc = nlohmann::json::object();
    if (doc.is_object() && !messages.empty()) doc["@Message.ExtendedInfo"] = messages;
    send(created ? 201 : 200, doc);
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
