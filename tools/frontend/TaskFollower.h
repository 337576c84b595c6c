// The front end's side of tasks (docs/wire-protocol.md, "Tasks"): preparing
// a task before a request is forwarded, and following the plug-ins'
// "TASK_STATE_CHANGE" messages into the Task resources.
//
// Plain hiredis and the standard library, so that the tests' front-end
// driver (also on the cross-built target) and orbel-frontend share it.
//
// Threads: Prepare is a static function for any thread with its own
// connection. A TaskFollower runs one listening thread of its own; its other
// members may be called from any thread (one mutex guards the record of
// tasks).
#ifndef ORBEL_FRONTEND_TASKFOLLOWER_H
#define ORBEL_FRONTEND_TASKFOLLOWER_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Orbel_Mutex.h"

namespace OrbelFrontEnd {

using Orbel::CondVar;
using Orbel::Mutex;
using Orbel::MutexLock;

class TaskFollower {
public:
    // The collection the Task resources are made under.
    static constexpr const char* kTasksURI = "/redfish/v1/TaskService/Tasks";
    // The client's task monitor of a Task: <Task URI> + kMonitorSuffix.
    static constexpr const char* kMonitorSuffix = "/Monitor";
    // Finished tasks kept at most; the oldest finished one goes first.
    static constexpr size_t kKeptFinishedTasks = 128;

    // Makes the Task resource of a request about to be forwarded: an id
    // (one a synchronous answer gave back, else the next of the counter
    // "&&TaskService:NextId"), the hash <kTasksURI>/<id> (state "New"), its
    // entry in the index "&&TaskService:Tasks", and the request's entry in
    // "TaskMonitorAndResourceMapping". Returns the Task's URI for the request's
    // "&&Task", or "" when the store refused.
    static std::string Prepare(redisContext* c, const std::string& reqKey);
    // Removes what Prepare made, for a request that was not answered
    // "PROCESSING"; its id is given back for the next task.
    static void Discard(redisContext* c, const std::string& reqKey, const std::string& taskURL);
    // The Task URIs, in id order.
    static std::vector<std::string> List(redisContext* c);
    // True once the final answer is kept in the Task.
    static bool IsFinished(redisContext* c, const std::string& taskURL);
    // Removes a Task and every key below it (its nodes and messages).
    static void Remove(redisContext* c, const std::string& taskURL);
    // The current UTC time as a Task's StartTime, EndTime and message
    // DateTime give it.
    static std::string Now();

    // Subscribes on a connection of its own to `socketPath` (again after
    // the store restarted); Listening() tells when the subscription stands.
    explicit TaskFollower(const std::string& socketPath);
    ~TaskFollower();
    TaskFollower(const TaskFollower&) = delete;
    TaskFollower& operator=(const TaskFollower&) = delete;

    bool Listening() const;

    // A request answered "PROCESSING": once its task reaches a final state
    // the follower takes the final answer from the request hash into the
    // Task resource and deletes the request hash and `keysToDelete` (the
    // body's tree).
    void Adopt(const std::string& reqKey, const std::vector<std::string>& keysToDelete);

    // What the follower saw of a task.
    struct sTaskRecord {
        std::vector<std::string> changes;  // the messages, as published
        std::string state;                 // the last state word
        std::string finalStatus;           // the request's final "&&ReturnStatus"
        bool done = false;                 // a final state was taken
    };
    // Waits up to `timeoutMs` for the task of `reqKey` to end; the record as
    // it is then.
    sTaskRecord Wait(const std::string& reqKey, int timeoutMs);
    sTaskRecord Record(const std::string& reqKey);
    // Test hook: stop deleting change keys (a front end that never takes a
    // change), so the plug-in's bounded wait can be seen.
    void SetTakeChanges(bool take);

private:
    void _Loop();
    void _Apply(redisContext* c, const std::string& text);
    // Removes the oldest finished tasks beyond kKeptFinishedTasks (when a
    // task ends).
    static void _Trim(redisContext* c);

    const std::string mSocket;
    const std::string mStopText;
    std::thread mThread;  // no lock: started by the constructor, joined by the destructor
    mutable Mutex mMutex;
    CondVar mCv;
    bool mListening GUARDED_BY(mMutex) = false;
    bool mStop GUARDED_BY(mMutex) = false;   // the destructor runs
    bool mEnded GUARDED_BY(mMutex) = false;  // the loop is done
    bool mTakeChanges GUARDED_BY(mMutex) = true;
    std::map<std::string, sTaskRecord> mRecords GUARDED_BY(mMutex);
    std::map<std::string, std::vector<std::string>> mAdopted GUARDED_BY(mMutex);
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_TASKFOLLOWER_H
