// The development front end's task service: the TaskService resource, the
// Tasks collection, each Task, and each Task's monitor (docs/frontend.md,
// "Tasks").
//
// A Task is the front end's resource (TaskFollower prepares it and follows
// its changes); its monitor, <Task>/Monitor, is what a client polls:
// 202 while the task runs, then the operation's own final answer, as the
// request would have been answered at once. Whether the task has ended is
// read from the Task itself, where the follower writes the final state and
// the final answer in one command, so the two can never disagree.

#include "RedfishService.h"

namespace OrbelFrontEnd {

namespace {

const std::string kTaskService = "/redfish/v1/TaskService";
const std::string kTasks = TaskFollower::kTasksURI;
const std::string kMonitor = TaskFollower::kMonitorSuffix;

// The Task of `uri` (a Task or its monitor), "" when `uri` is neither.
std::string TaskOf(const std::string& uri, bool* monitor) {
    std::string rest = uri.compare(0, kTasks.size() + 1, kTasks + "/") == 0
                           ? uri.substr(kTasks.size() + 1)
                           : std::string();
    *monitor = rest.size() > kMonitor.size() &&
               rest.compare(rest.size() - kMonitor.size(), kMonitor.size(), kMonitor) == 0;
    if (*monitor) rest.resize(rest.size() - kMonitor.size());
    if (rest.empty() || rest.size() > 10) return std::string();
    for (char c : rest) {
        if (c < '0' || c > '9') return std::string();
    }
    return kTasks + "/" + rest;
}

bool IsFinalState(const nlohmann::json& doc) {
    const std::string state = doc.value("TaskState", std::string());
    return state == "Completed" || state == "Killed" || state == "Exception" ||
           state == "Cancelled";
}

}  // namespace

std::string RedfishService::_MonitorOf(const std::string& location) {
    bool monitor = false;
    return !TaskOf(location, &monitor).empty() && !monitor ? location + kMonitor : location;
}

bool RedfishService::_ServeTasks(sCall& call) {
    const bool read = call.method == "GET" || call.method == "HEAD";
    bool monitor = false;
    const std::string task = TaskOf(call.uri, &monitor);
    if (call.uri != kTaskService && call.uri != kTasks && task.empty()) return false;
    if ((call.user.privileges & 0x8) == 0) {
        _Error(call, 403, "Base.1.12.InsufficientPrivilege");
        return true;
    }
    StoreRequest store(mConfig.socketPath);
    if (!store.Connected()) {
        _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
        return true;
    }
    auto send = [&call](int status, const nlohmann::json& doc) {
        call.res.status = status;
        call.res.set_content(doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                             "application/json");
    };
    if (!task.empty() && !store.IsResource(task)) {
        _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
        return true;
    }
    if (!read && !(call.method == "DELETE" && !task.empty())) {
        call.res.set_header("Allow", task.empty() ? "GET, HEAD" : "GET, HEAD, DELETE");
        _Error(call, 405, "Base.1.12.GeneralError");
        return true;
    }
    if (call.uri == kTaskService) {
        send(200, {{"@odata.id", kTaskService},
                   {"@odata.type", "#TaskService.v1_2_0.TaskService"},
                   {"Id", "TaskService"},
                   {"Name", "Task Service"},
                   {"CompletedTaskOverWritePolicy", "Oldest"},
                   {"LifeCycleEventOnTaskStateChange", false},
                   {"ServiceEnabled", true},
                   {"DateTime", TaskFollower::Now()},
                   {"Status", {{"State", "Enabled"}, {"Health", "OK"}}},
                   {"Tasks", {{"@odata.id", kTasks}}}});
        return true;
    }
    redisContext* c = redisConnectUnix(mConfig.socketPath.c_str());
    if (c == nullptr || c->err != 0) {
        if (c != nullptr) redisFree(c);
        _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
        return true;
    }
    if (call.uri == kTasks) {
        nlohmann::json members = nlohmann::json::array();
        for (const std::string& t : TaskFollower::List(c)) members.push_back({{"@odata.id", t}});
        send(200, {{"@odata.id", kTasks},
                   {"@odata.type", "#TaskCollection.TaskCollection"},
                   {"Name", "Task Collection"},
                   {"Members", members},
                   {"Members@odata.count", members.size()}});
    } else if (call.method == "DELETE") {
        _TaskDelete(call, store, c, task);
    } else {
        _TaskRead(call, store, c, task, monitor);
    }
    redisFree(c);
    return true;
}

void RedfishService::_TaskRead(sCall& call, StoreRequest& store, redisContext* c,
                               const std::string& task, bool monitor) {
    // While the task runs its plug-in may refresh the Task first (the read
    // thread's read callback); its answer word is not the monitor's.
    const std::string channel = store.Channel(task, "GETQ");
    if (!channel.empty()) {
        StoreRequest forward(mConfig.socketPath);
        forward.Send(channel,
                     {{"&&RequestMethod", "GET"},
                      {"&&TargetURI", task},
                      {"&&RemoteIP", call.req.remote_addr},
                      {"&&AuthHeader", "BasicAuth"},
                      {"&&Username", call.user.name},
                      {"&&OperationPrivileges", "Login"}},
                     nullptr, mConfig.answerTimeoutMs);
    }
    nlohmann::json doc;
    std::string etag;
    if (!_Resource(task, &doc, &etag)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    if (monitor && TaskFollower::IsFinished(c, task) && IsFinalState(doc)) {
        return _TaskFinalAnswer(call, store, task);
    }
    call.res.status = monitor && !IsFinalState(doc) ? 202 : 200;
    if (call.res.status == 200) call.res.set_header("ETag", etag);
    if (call.res.status == 202) {
        call.res.set_header("Location", task + kMonitor);
        call.res.set_header("Retry-After", "1");
    }
    call.res.set_content(doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                         "application/json");
}

void RedfishService::_TaskFinalAnswer(sCall& call, StoreRequest& store, const std::string& task) {
    // The request's own answer, kept by the follower when the task ended.
    StoreRequest::sAnswer answer;
    answer.answered = true;
    answer.status = store.Field(task, "&&FinalStatus");
    if (answer.status == "FAIL") {
        // A failed task says which error ("CONFLICT", "FAILURE") beside.
        answer.status = store.Field(task, "&&FinalFailureStatus");
        if (answer.status != "CONFLICT") answer.status = "FAILURE";
    }
    const std::string location = store.Field(task, "&&FinalLocation");
    if (!location.empty()) answer.hash["&&Location"] = location;
    std::string text;
    const std::string infos = store.Field(task, "&&FinalExtendedInfo");
    if (!infos.empty() && store.ReadDoc(infos, &text)) {
        answer.messages = nlohmann::json::parse(text, nullptr, false);
        if (!answer.messages.is_array()) answer.messages = nlohmann::json::array();
    }
    const std::string data = store.Field(task, "&&FinalResponseData");
    if (!data.empty()) store.ReadDoc(data, &answer.responseData);
    // "OK" answers with the target resource as it is now.
    std::string target = store.Field(task, "&&FinalTargetURI");
    const size_t actions = target.find("/Actions/");
    if (actions != std::string::npos) target.resize(actions);
    sCall original(call.req, call.res);
    original.method = "POST";
    original.uri = target.empty() ? task : target;
    original.user = call.user;
    _Answer(original, answer);
}

void RedfishService::_TaskDelete(sCall& call, StoreRequest& store, redisContext* c,
                                 const std::string& task) {
    if (TaskFollower::IsFinished(c, task)) {
        TaskFollower::Remove(c, task);
        call.res.status = 204;
        return;
    }
    // A running task is asked to cancel through its read thread, when it
    // says it can.
    const std::string channel = store.Channel(task, "GETQ");
    if (channel.empty() || store.Field(task + "/ExtraInfo", "IsCancelSupported") != "true") {
        return _Error(call, 409, "Base.1.12.ResourceInUse");
    }
    StoreRequest forward(mConfig.socketPath);
    const StoreRequest::sAnswer answer = forward.Send(channel,
                                                      {{"&&RequestMethod", "DELETE"},
                                                       {"&&TargetURI", task},
                                                       {"&&RemoteIP", call.req.remote_addr},
                                                       {"&&AuthHeader", "BasicAuth"},
                                                       {"&&Username", call.user.name}},
                                                      nullptr, mConfig.answerTimeoutMs);
    if (!answer.answered || answer.status != "OK_EMPTY") {
        return _Error(call, 409, "Base.1.12.ResourceInUse");
    }
    nlohmann::json doc;
    std::string etag;
    if (!_Resource(task, &doc, &etag)) doc = nlohmann::json::object();
    call.res.status = 202;
    call.res.set_header("Location", task + kMonitor);
    call.res.set_content(doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                         "application/json");
}

}  // namespace OrbelFrontEnd
