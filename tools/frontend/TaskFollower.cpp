// The front end's side of tasks: Task resources and "TASK_STATE_CHANGE".
#include "TaskFollower.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <sstream>

#include "StoreTreeReader.h"

namespace OrbelFrontEnd {

namespace {

const char kChannel[] = "TASK_STATE_CHANGE";
const char kMapping[] = "TaskMonitorAndResourceMapping";
const char kCounter[] = "&&TaskService:NextId";
const char kFreeIds[] = "&&TaskService:FreeIds";
const char kIndex[] = "&&TaskService:Tasks";

using Reply = Orbel::StoreReply;

Reply Cmd(redisContext* c, const std::vector<std::string>& args) {
    return Orbel::StoreCommand(c, args);
}

std::string Quoted(const std::string& s) {
    return "\"" + s + "\"";
}


bool IsFinal(const std::string& state) {
    return state == "Completed" || state == "Killed" || state == "Exception" ||
           state == "Cancelled";
}

}  // namespace

std::string TaskFollower::Now() {
    char buf[32];
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S+00:00", &tm);
    return buf;
}

// ---------------------------------------------------------------------------
// Before the request
// ---------------------------------------------------------------------------

std::string TaskFollower::Prepare(redisContext* c, const std::string& reqKey) {
    // An id that a synchronous answer gave back first: an action that did
    // not run as a task does not use one up.
    std::string n;
    Reply free = Cmd(c, {"LPOP", kFreeIds});
    if (free && free->type == REDIS_REPLY_STRING) n = free->str;
    if (n.empty()) {
        Reply id = Cmd(c, {"INCR", kCounter});
        if (!id || id->type != REDIS_REPLY_INTEGER) return std::string();
        n = std::to_string(id->integer);
    }
    const std::string url = std::string(kTasksURI) + "/" + n;
    Reply set = Cmd(c, {"HSET",
                        url,
                        "@odata.id",
                        Quoted(url),
                        "@odata.type",
                        Quoted("#Task.v1_7_0.Task"),
                        "Id",
                        Quoted(n),
                        "Name",
                        Quoted("Task " + n),
                        "TaskState",
                        Quoted("New"),
                        "TaskStatus",
                        Quoted("OK"),
                        "PercentComplete",
                        "0",
                        "StartTime",
                        Quoted(Now()),
                        "TaskMonitor",
                        Quoted(url + kMonitorSuffix)});
    Cmd(c, {"ZADD", kIndex, n, url});
    Reply map = Cmd(c, {"HSET", kMapping, reqKey, url});
    if (!set || set->type == REDIS_REPLY_ERROR || !map || map->type == REDIS_REPLY_ERROR) {
        return std::string();
    }
    return url;
}

void TaskFollower::_Trim(redisContext* c) {
    // The oldest finished tasks beyond the bound make room.
    std::vector<std::string> finished;
    for (const std::string& task : List(c)) {
        if (IsFinished(c, task)) finished.push_back(task);
    }
    for (size_t i = 0; i + kKeptFinishedTasks < finished.size(); ++i) Remove(c, finished[i]);
}

void TaskFollower::Discard(redisContext* c, const std::string& reqKey, const std::string& taskURL) {
    Cmd(c, {"HDEL", kMapping, reqKey});
    Cmd(c, {"DEL", taskURL});
    Reply gone = Cmd(c, {"ZREM", kIndex, taskURL});
    if (gone && gone->type == REDIS_REPLY_INTEGER && gone->integer == 1) {
        Cmd(c, {"RPUSH", kFreeIds, taskURL.substr(taskURL.rfind('/') + 1)});
    }
}

std::vector<std::string> TaskFollower::List(redisContext* c) {
    std::vector<std::string> tasks;
    Reply r = Cmd(c, {"ZRANGE", kIndex, "0", "-1"});
    for (size_t i = 0; r && r->type == REDIS_REPLY_ARRAY && i < r->elements; ++i) {
        if (r->element[i]->type == REDIS_REPLY_STRING) tasks.push_back(r->element[i]->str);
    }
    return tasks;
}

bool TaskFollower::IsFinished(redisContext* c, const std::string& taskURL) {
    Reply r = Cmd(c, {"HEXISTS", taskURL, "&&FinalStatus"});
    return r && r->type == REDIS_REPLY_INTEGER && r->integer == 1;
}

void TaskFollower::Remove(redisContext* c, const std::string& taskURL) {
    // Task URIs hold no glob characters (the library refuses them), so the
    // patterns match exactly the keys below the Task.
    std::vector<std::string> del = {"DEL", taskURL};
    for (const std::string& pattern : {taskURL + "/*", "&&" + taskURL + "/*"}) {
        std::string cursor = "0";
        do {
            Reply r = Cmd(c, {"SCAN", cursor, "MATCH", pattern, "COUNT", "200"});
            if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2) break;
            cursor = r->element[0]->str != nullptr ? r->element[0]->str : "0";
            const redisReply* keys = r->element[1];
            for (size_t i = 0; i < keys->elements; ++i) del.push_back(keys->element[i]->str);
        } while (cursor != "0");
    }
    Cmd(c, del);
    Cmd(c, {"ZREM", kIndex, taskURL});
}

// ---------------------------------------------------------------------------
// Following the changes
// ---------------------------------------------------------------------------

TaskFollower::TaskFollower(const std::string& socketPath)
    : mSocket(socketPath),
      mStopText("&&TaskFollowerStop:" + std::to_string(reinterpret_cast<uintptr_t>(this))) {
    mThread = std::thread(&TaskFollower::_Loop, this);
    MutexLock lock(mMutex);
    mCv.WaitFor(mMutex, std::chrono::seconds(5), [this]() REQUIRES(mMutex) { return mListening; });
}

TaskFollower::~TaskFollower() {
    {
        MutexLock lock(mMutex);
        mStop = true;
    }
    redisContext* c = redisConnectUnix(mSocket.c_str());
    // Repeated: a stop text sent while the loop was between connections is
    // lost.
    for (int i = 0; i < 50; ++i) {
        if (c != nullptr && c->err == 0) Cmd(c, {"PUBLISH", kChannel, mStopText});
        MutexLock lock(mMutex);
        if (mCv.WaitFor(mMutex, std::chrono::milliseconds(100), [this]() REQUIRES(mMutex) { return mEnded; })) break;
    }
    if (c != nullptr) redisFree(c);
    mThread.join();
}

bool TaskFollower::Listening() const {
    MutexLock lock(mMutex);
    return mListening;
}

void TaskFollower::SetTakeChanges(bool take) {
    MutexLock lock(mMutex);
    mTakeChanges = take;
}

void TaskFollower::_Loop() {
    auto stopping = [this]() {
        MutexLock lock(mMutex);
        return mStop;
    };
    // A store that restarts is listened to again, every 500 ms.
    bool stopSeen = false;
    while (!stopSeen && !stopping()) {
        redisContext* listen = redisConnectUnix(mSocket.c_str());
        redisContext* cmd = redisConnectUnix(mSocket.c_str());
        bool ok = listen != nullptr && listen->err == 0 && cmd != nullptr && cmd->err == 0;
        if (ok) {
            Reply sub = Cmd(listen, {"SUBSCRIBE", kChannel});
            ok = sub && sub->type == REDIS_REPLY_ARRAY;
        }
        {
            MutexLock lock(mMutex);
            mListening = ok;
            mCv.SignalAll();
        }
        while (ok) {
            void* raw = nullptr;
            if (redisGetReply(listen, &raw) != REDIS_OK) break;
            Reply msg(static_cast<redisReply*>(raw));
            if (!msg || msg->type != REDIS_REPLY_ARRAY || msg->elements != 3 ||
                msg->element[2]->type != REDIS_REPLY_STRING) {
                continue;
            }
            const std::string text(msg->element[2]->str, msg->element[2]->len);
            if (text == mStopText) {
                stopSeen = true;
                break;
            }
            _Apply(cmd, text);
        }
        if (listen != nullptr) redisFree(listen);
        if (cmd != nullptr) redisFree(cmd);
        {
            MutexLock lock(mMutex);
            mListening = false;
        }
        if (!stopSeen && !stopping()) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    MutexLock lock(mMutex);
    mEnded = true;
    mCv.SignalAll();
}

void TaskFollower::_Apply(redisContext* c, const std::string& text) {
    std::istringstream in(text);
    std::string key, percent, state, status, changeKey;
    in >> key >> percent >> state >> status >> changeKey;
    if (key.empty() || key.compare(0, 2, "&&") == 0) return;  // another follower's stop

    Reply url = Cmd(c, {"HGET", kMapping, key});
    const std::string task = url && url->type == REDIS_REPLY_STRING ? url->str : "";
    const bool final = IsFinal(state);
    std::string finalStatus;
    if (!task.empty()) {
        // One HSET: a reader sees the change whole, and a final state never
        // without the final answer kept beside it.
        std::vector<std::string> hset = {"HSET", task};
        auto add = [&hset](const char* field, const std::string& value) {
            hset.push_back(field);
            hset.push_back(value);
        };
        if (percent != "null") add("PercentComplete", percent);
        if (state != "null") add("TaskState", Quoted(state));
        if (status != "null") add("TaskStatus", Quoted(status));
        if (final) {
            add("EndTime", Quoted(Now()));
            // The monitor keeps the final answer once the request is gone.
            Reply fields = Cmd(c, {"HMGET", key, "&&ReturnStatus", "&&ResponseData", "&&Location",
                                   "&&ExtendedInfo", "&&TargetURI", "&&FailureStatus"});
            const char* names[] = {"&&FinalStatus",       "&&FinalResponseData",
                                   "&&FinalLocation",     "&&FinalExtendedInfo",
                                   "&&FinalTargetURI",    "&&FinalFailureStatus"};
            for (size_t i = 0;
                 fields && fields->type == REDIS_REPLY_ARRAY && i < fields->elements && i < 6; ++i) {
                if (fields->element[i]->type != REDIS_REPLY_STRING) continue;
                if (i == 0) finalStatus = fields->element[i]->str;
                add(names[i], fields->element[i]->str);
            }
        }
        if (hset.size() > 2) Cmd(c, hset);
        if (final) _Trim(c);
    }
    std::vector<std::string> cleanup;
    bool take = true;
    {
        MutexLock lock(mMutex);
        sTaskRecord& rec = mRecords[key];
        rec.changes.push_back(text);
        if (state != "null") rec.state = state;
        if (final) {
            rec.done = true;
            rec.finalStatus = finalStatus;
            auto it = mAdopted.find(key);
            if (it != mAdopted.end()) {
                cleanup = it->second;
                cleanup.push_back(key);
                mAdopted.erase(it);
            }
        }
        take = mTakeChanges;
        mCv.SignalAll();
    }
    for (const std::string& k : cleanup) Cmd(c, {"DEL", k});
    if (!cleanup.empty()) Cmd(c, {"HDEL", kMapping, key});
    if (take && changeKey != "null" && !changeKey.empty()) Cmd(c, {"DEL", changeKey});
}

void TaskFollower::Adopt(const std::string& reqKey, const std::vector<std::string>& keysToDelete) {
    bool doneAlready = false;
    {
        MutexLock lock(mMutex);
        auto it = mRecords.find(reqKey);
        doneAlready = it != mRecords.end() && it->second.done;
        if (!doneAlready) mAdopted[reqKey] = keysToDelete;
    }
    if (!doneAlready) return;
    redisContext* c = redisConnectUnix(mSocket.c_str());
    if (c == nullptr) return;
    if (c->err == 0) {
        for (const std::string& k : keysToDelete) Cmd(c, {"DEL", k});
        Cmd(c, {"DEL", reqKey});
        Cmd(c, {"HDEL", kMapping, reqKey});
    }
    redisFree(c);
}

TaskFollower::sTaskRecord TaskFollower::Wait(const std::string& reqKey, int timeoutMs) {
    MutexLock lock(mMutex);
    mCv.WaitFor(mMutex, std::chrono::milliseconds(timeoutMs),
                 [this, &reqKey]() REQUIRES(mMutex) { return mRecords[reqKey].done; });
    return mRecords[reqKey];
}

TaskFollower::sTaskRecord TaskFollower::Record(const std::string& reqKey) {
    MutexLock lock(mMutex);
    auto it = mRecords.find(reqKey);
    return it != mRecords.end() ? it->second : sTaskRecord();
}

}  // namespace OrbelFrontEnd
