// The HTTP side of the development front end: Redfish requests from curl or
// redfishtool turned into store reads and plug-in requests, and the
// plug-ins' answers turned into HTTP statuses, headers and bodies.
//
// What the front end decides on its own (docs/frontend.md): authentication
// (Basic and sessions) and the privileges an operation needs, the protocol
// rules (headers, methods, ETags, queries), 405 for a method a resource does
// not serve, 4xx for input the request-data layout cannot carry, its own
// resources (ServiceResources), and reads served from the store when no
// plug-in asks to be called.
//
// Threads: Install() once before the server listens; the handlers then run
// on the server's worker threads, each request with its own StoreRequest.
// The service's members are constant after construction.
#ifndef ORBEL_FRONTEND_REDFISHSERVICE_H
#define ORBEL_FRONTEND_REDFISHSERVICE_H

#include <httplib.h>

#include <cstddef>
#include <memory>
#include <string>

#include "EventService.h"
#include "MessageRegistry.h"
#include "Query.h"
#include "ServiceResources.h"
#include "SessionTable.h"
#include "StoreRequest.h"
#include "TaskFollower.h"
#include "UserTable.h"

namespace OrbelFrontEnd {

struct sServiceConfig {
    std::string socketPath;       // the store's Unix socket
    int answerTimeoutMs = 10000;  // how long a plug-in may take to answer
    int lockWaitMs = 3000;        // how long a read waits for a locked resource
    size_t maxBodyBytes = 64 * 1024;
    bool quiet = false;           // no access line per request
    size_t maxSessions = 64;
    int sessionIdleSeconds = 600;
    unsigned lockoutThreshold = 5;  // failed logins of one name in a row
    int lockoutSeconds = 60;
    std::string schemaDir;  // CSDL of the plug-ins' OEM namespaces
};

class RedfishService {
public:
    RedfishService(sServiceConfig config, const UserTable& users, const MessageRegistry& registry);
    // Registers the handlers and limits on `server`.
    void Install(httplib::Server& server);
    // Hands the EventService's URIs to `events` and links it from the root
    // (before Install; `events` outlives the server).
    void SetEventService(EventService* events) { mEvents = events; }
    // Checks a request's session token or Basic credentials (with the
    // lockout of repeated failures) and fills `user`.
    bool Authenticate(const httplib::Request& req, sUser* user);

private:
    // One request's state.
    struct sCall {
        sCall(const httplib::Request& q, httplib::Response& r)
            : req(q), res(r), method(q.method), uri(q.path) {}
        const httplib::Request& req;
        httplib::Response& res;
        std::string method;  // HTTP method
        std::string uri;     // normalized target
        sUser user;
        std::string session;  // the session's URI when the client used one
        eOwn own = eOwn::kNone;
        std::string ownId;
        sQuery query;
    };

    void _Serve(const httplib::Request& req, httplib::Response& res);
    bool _Authenticate(sCall& call);
    void _Read(sCall& call);
    void _ReadOwn(sCall& call);
    void _Write(sCall& call);
    void _WriteOwn(sCall& call);
    void _Login(sCall& call);
    // The document a client gets of `uri` (own or stored, presented) and its
    // ETag; false when there is none. `read`: its stored document, when
    // already read. `text`, when given, receives the document's text when
    // the ETag was made of it (else it is left empty).
    bool _Resource(const std::string& uri, nlohmann::json* doc, std::string* etag,
                   const std::string* read = nullptr, std::string* text = nullptr);
    void _Present(const std::string& uri, nlohmann::json* doc);
    // Sets the headers of a resource read (Allow, ETag, Link from the
    // document's `type`); true when If-None-Match names the ETag (304 set).
    bool _ReadHeaders(sCall& call, const std::string& etag, const std::string& allow,
                      const std::string& type);
    // Sends `doc` with the headers of a resource read (Allow, Link, ETag),
    // the query applied; 304 when If-None-Match names its ETag. `text`:
    // the document's text when already made (the body when neither a query
    // nor messages change it).
    void _SendResource(sCall& call, nlohmann::json doc, const std::string& etag,
                       const std::string& allow, const nlohmann::json& messages,
                       std::string text = std::string());
    static std::string _AllowOf(const StoreRequest::sResourceInfo& info);
    std::map<std::string, std::string> _Fields(const sCall& call, const std::string& method,
                                               const std::string& needs);
    void _Answer(sCall& call, const StoreRequest::sAnswer& answer);
    void _Unavailable(sCall& call);  // 503 with Retry-After
    void _Error(sCall& call, int status, const std::string& messageId,
                const nlohmann::json& args = nlohmann::json::array());
    void _ErrorWith(sCall& call, int status, nlohmann::json messages);

    // The task service (TaskService.cpp). _ServeTasks answers `call` and
    // returns true when its URI is the TaskService, the Tasks collection, a
    // Task or a Task's monitor.
    bool _ServeTasks(sCall& call);
    void _TaskRead(sCall& call, StoreRequest& store, redisContext* c, const std::string& task,
                   bool monitor);
    void _TaskFinalAnswer(sCall& call, StoreRequest& store, const std::string& task);
    void _TaskDelete(sCall& call, StoreRequest& store, redisContext* c, const std::string& task);
    // The client's monitor URI for a task's "&&Location" (any other location
    // as it is).
    static std::string _MonitorOf(const std::string& location);

    // No lock here: constant once the server listens (mEvents is set before);
    // the session table, the guard and the task follower lock inside.
    const sServiceConfig mConfig;
    const UserTable& mUsers;
    const MessageRegistry& mRegistry;
    SessionTable mSessions;
    LoginGuard mGuard;
    ServiceResources mOwn;
    // Follows "TASK_STATE_CHANGE" into the Task resources, from the
    // construction on.
    std::unique_ptr<TaskFollower> mTasks;
    EventService* mEvents = nullptr;
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_REDFISHSERVICE_H
