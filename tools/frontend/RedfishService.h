// The HTTP side of the development front end: Redfish requests from curl or
// redfishtool turned into store reads and plug-in requests, and the
// plug-ins' answers turned into HTTP statuses, headers and bodies.
//
// What the front end decides on its own (docs/frontend.md): Basic
// authentication and the privileges an operation needs, 405 for a method a
// resource does not serve, 4xx for input the request-data layout cannot
// carry, and reads served from the store when no plug-in asks to be called.
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
};

class RedfishService {
public:
    RedfishService(sServiceConfig config, const UserTable& users, const MessageRegistry& registry);
    // Registers the handlers and limits on `server`.
    void Install(httplib::Server& server);
    // Hands the EventService's URIs to `events` and links it from the root
    // (before Install; `events` outlives the server).
    void SetEventService(EventService* events) { mEvents = events; }

private:
    struct sCall;  // one request's state (RedfishService.cpp)

    void _Serve(const httplib::Request& req, httplib::Response& res);
    void _Read(sCall& call);
    void _Write(sCall& call);
    void _Answer(sCall& call, const StoreRequest::sAnswer& answer);
    void _Error(sCall& call, int status, const std::string& messageId,
                const nlohmann::json& args = nlohmann::json::array());
    void _ErrorWith(sCall& call, int status, nlohmann::json messages);
    bool _Document(sCall& call, const std::string& uri, nlohmann::json* doc);

    const sServiceConfig mConfig;
    const UserTable& mUsers;
    const MessageRegistry& mRegistry;
    // Follows "TASK_STATE_CHANGE" into the Task resources, from the
    // construction on.
    std::unique_ptr<TaskFollower> mTasks;
    EventService* mEvents = nullptr;
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_REDFISHSERVICE_H
