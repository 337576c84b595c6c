// ZTask: the work thread, the read thread of the task monitor, and the stop
// of every task when the application leaves.
#include <chrono>
#include <exception>
#include <vector>

#include "CRUDRequest.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZSchema.h"
#include "ZTask.h"

namespace Orbel {

namespace {

constexpr unsigned kRetrySleepMs = 500;
// RunTask waits this long for the read thread to listen, so that a read of
// the monitor sent right after the 202 answer finds it.
constexpr unsigned kListenWaitMs = 2000;
std::atomic<uint32_t> gExitWaitMs{10000};
// Tasks detached from a destroyed application: never freed (their nodes
// belonged to it), but kept reachable. Written only under ZTask::mTaskListMutex
// (a private member, which an annotation here cannot name).
std::vector<ZTask*>& gDetachedTasks = *new std::vector<ZTask*>;

}  // namespace

uint32_t ZTask::GetExitWaitMs() {
    return gExitWaitMs.load();
}

void ZTask::SetExitWaitMs(uint32_t ms) {
    gExitWaitMs.store(ms);
}

// ---------------------------------------------------------------------------
// The work thread
// ---------------------------------------------------------------------------

eRtCode ZTask::RunTask() {
    if (!mValid || mStarted) {
        ZLOG(eZLogError, "Task[%s] cannot run: %s.\n", mReqKey.c_str(),
             mStarted ? "it runs already" : "it is not valid");
        return RT_FAILURE;
    }
    mStarted = true;
    try {
        mReadThread = std::thread(ReadDispatcher, this);
    } catch (const std::exception& e) {
        ZLOG(eZLogError, "Task[%s]: failed to start its read thread: %s\n", mReqKey.c_str(),
             e.what());
        return RT_FAILURE;
    }
    for (unsigned waited = 0; !mReadListening.load() && waited < kListenWaitMs; waited += 5) {
        MyMSleep(5);
    }
    // The task is "Running" with its first message before the request is
    // answered: the "PROCESSING" answer's document is then a whole Task.
    // The task's own connection serves these writes: the work thread, the
    // next to use it, does not run yet.
    RedisConnectionScope scope(_ExtInfoContext());
    SetTaskState(TASK_STATE_Running);
    AddTaskMessage(RESP_Task_TaskStarted, {mTaskId});
    ApplyTaskChange(true);
    {
        MutexLock lock(mTaskListMutex);
        ++mRunningTasks;
    }
    mWorkRunning.store(true);
    try {
        std::thread(TaskThreadMain, this).detach();
    } catch (const std::exception& e) {
        ZLOG(eZLogError, "Task[%s]: failed to start its work thread: %s\n", mReqKey.c_str(),
             e.what());
        mWorkRunning.store(false);
        _ThreadEnded();
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

void ZTask::_HoldWork() {
    MutexLock lock(mGateMutex);
    mGateOpen = false;
}

void ZTask::_ReleaseWork(const std::string& lockKey) {
    MutexLock lock(mGateMutex);
    mGateOpen = true;
    mAnswerLockKey = lockKey;
    mGateCv.SignalAll();
}

void ZTask::_WaitReleased() {
    std::string lockKey;
    {
        MutexLock lock(mGateMutex);
        mGateCv.Wait(mGateMutex, [this]() REQUIRES(mGateMutex) { return mGateOpen; });
        lockKey = mAnswerLockKey;
    }
    if (lockKey.empty()) return;
    // The front end releases the lock once it has read the "PROCESSING"
    // answer; a work that ended before would overwrite the answer it reads.
    // Bounded, for a front end that has gone.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(GetChangeWaitMs());
    while (RedisType(nullptr, lockKey.c_str()) == REDIS_TABLE_STRING && !mStopRequested.load() &&
           std::chrono::steady_clock::now() < deadline) {
        MyMSleep(5);
    }
}

void ZTask::_ThreadEnded() {
    MutexLock lock(mTaskListMutex);
    --mRunningTasks;
    mTaskEndCv.SignalAll();
}

void ZTask::TaskThreadMain(ZTask* task) {
    {
        NameCurrentThread("Task");
        ZApplication* app = zApp;
        const std::string owner =
            task->mSchema != nullptr ? task->mSchema->GetName() : std::string("Task");
        if (app != nullptr) app->RegisterThreadInfo(owner, "Task");
        RedisConnectionScope scope;
        task->_WaitReleased();

        eRtCode rt = RT_FAILURE;
        bool threw = false;
        try {
            rt = task->mRun != nullptr ? task->mRun(task) : RT_FAILURE;
        } catch (const std::exception& e) {
            threw = true;
            ZLOG(eZLogError, "Task[%s]: the work function threw: %s\n", task->mReqKey.c_str(),
                 e.what());
        } catch (...) {
            threw = true;
            ZLOG(eZLogError, "Task[%s]: the work function threw.\n", task->mReqKey.c_str());
        }
        bool detached = false;
        {
            MutexLock lock(mTaskListMutex);
            detached = task->mDetached;
            if (!detached) {
                task->mFinishing = true;
                ++mFinishingTasks;
            }
        }
        if (detached) {
            // The application object is gone: nothing of it may be touched.
            task->_EndDetached(rt, threw);
        } else {
            task->_FinishRequest(rt, threw);
            if (app != nullptr) app->UnregisterThreadInfo();
            const bool recycle = task->mAutoRecycle.load();
            task->mWorkRunning.store(false);
            if (recycle) task->Destory();
            MutexLock lock(mTaskListMutex);
            --mFinishingTasks;
            mTaskEndCv.SignalAll();
        }
    }
    // Last: once counted out, the application may go away.
    _ThreadEnded();
}

void ZTask::_FinishRequest(eRtCode workResult, bool threw) {
    redisContext* c = nullptr;  // the work thread's scoped connection
    const char* key = mReqKey.c_str();
    std::string word;
    if (workResult != RT_FAILURE && !threw) {
        if (!IsFinalTaskState(GetTaskState())) SetTaskState(TASK_STATE_Completed);
        mPercent.store(100);
        AddTaskMessage(GetTaskStatus() == TASK_STATUS_OK ? RESP_Task_TaskCompletedOK
                                                         : RESP_Task_TaskCompletedWarning,
                       {mTaskId});
        mResponseDataObj->ApplyRedisChanges(true, c);
        const std::string dataPath = mResponseDataObj->GetJPath();
        const bool hasData = RedisType(c, dataPath.c_str()) != REDIS_TABLE_NONE;
        if (GetExtendedInfoNum() == 0 && !hasData) {
            // Like a request answered at once: an action or a delete has no
            // content, the others answer with the target's document.
            std::string method;
            RedisHashGet(c, key, "&&RequestMethod", method);
            word = method == "POSTACTION" || method == "DELETE" ? "OK_EMPTY" : "OK";
        } else {
            if (!mLocation.empty()) RedisHashSet(c, key, "&&Location", mLocation.c_str());
            if (hasData) RedisHashSet(c, key, "&&ResponseData", dataPath.c_str());
            word = "OK_RES";
        }
    } else {
        if (mReturnStatus != HTTP_RT_CONFLICT && mReturnStatus != HTTP_RT_FAILURE) {
            mReturnStatus = HTTP_RT_FAILURE;
        }
        if (GetExtendedInfoNum() == 0) NewExtendedInfo(RESP_Base_InternalError);
        word = threw ? "EXCEPTION" : "FAIL";
        // "FAIL" does not say which error: the status word does, for a front
        // end that answers the operation's own status.
        if (!threw) RedisHashSet(c, key, "&&FailureStatus", HttpRtStatusWord(mReturnStatus));
        if (!IsFinalTaskState(GetTaskState()) || GetTaskState() == TASK_STATE_Completed) {
            SetTaskState(mStopRequested.load()     ? TASK_STATE_Killed
                         : mCancelRequested.load() ? TASK_STATE_Cancelled
                                                   : TASK_STATE_Exception);
        }
        SetTaskStatus(TASK_STATUS_Critical);
        AddTaskMessage(RESP_Task_TaskAborted, {mTaskId});
    }
    ApplyExtInfoToRedis();
    // The status goes last: a reader that finds it finds the rest.
    if (RedisHashSet(c, key, "&&ReturnStatus", word.c_str()) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashSet( %s %s %s ).\n", key, "&&ReturnStatus",
             word.c_str());
    }
    ApplyTaskChange(true);
    // Only now may a read of the monitor answer the finished task: the front
    // end has taken the final state into the Task resource.
    mFinalTaken.store(true);
}

void ZTask::_EndDetached(eRtCode workResult, bool threw) {
    // Plain hiredis on a connection of its own: the store client, the nodes
    // and the log all belong to the application that has gone. The front end
    // still learns that the task ended.
    (void)workResult;
    (void)threw;
    redisContext* c = redisConnectUnix(mSocketPath.c_str());
    if (c != nullptr && c->err == 0) {
        const std::string text = mReqKey + " null " + TaskStateWord(TASK_STATE_Killed) + " " +
                                 TaskStatusWord(TASK_STATUS_Critical) + " null";
        const char* status[] = {"HSET", mReqKey.c_str(), "&&ReturnStatus", "EXCEPTION"};
        const char* publish[] = {"PUBLISH", "TASK_STATE_CHANGE", text.c_str()};
        for (auto* argv : {status, publish}) {
            const int argc = argv == status ? 4 : 3;
            void* reply = redisCommandArgv(c, argc, argv, nullptr);
            if (reply != nullptr) freeReplyObject(reply);
        }
    }
    if (c != nullptr) redisFree(c);
    mWorkRunning.store(false);
}

void ZTask::DetachLateTasks() {
    std::vector<ZTask*> late;
    {
        MutexLock lock(mTaskListMutex);
        // A task writing its final answer uses the nodes: it is let finish.
        mTaskEndCv.Wait(mTaskListMutex, []() REQUIRES(mTaskListMutex) { return mFinishingTasks == 0; });
        for (auto it = mTaskList.begin(); it != mTaskList.end();) {
            ZTask* task = it->second;
            if (task->mWorkRunning.load() && !task->mFinishing) {
                task->mDetached = true;
                late.push_back(task);
                gDetachedTasks.push_back(task);
                it = mTaskList.erase(it);
            } else {
                ++it;
            }
        }
    }
    // Their read threads go now, while the application still stands; the
    // task objects themselves are left to the ending process.
    for (ZTask* task : late) task->_StopReadThread();
}

// ---------------------------------------------------------------------------
// The read thread
// ---------------------------------------------------------------------------

void ZTask::ReadDispatcher(ZTask* task) {
    task->_ReadLoop();
}

void ZTask::_ReadLoop() {
    NameCurrentThread("TaskMonitor");
    ZLOG(eZLogInfo, "Create thread[%u] to listen channel[%s].\n",
         static_cast<unsigned>(CurrentThreadId()), mChannel.c_str());
    ZApplication* app = zApp;
    // The application outlives this thread: a late task's read thread is
    // ended by DetachLateTasks before the application object goes.
    auto stopping = [this, app]() {
        return mReadStop.load() || (app != nullptr && app->isExited());
    };
    RedisListenerPair pair;
    while (!stopping()) {
        if (!pair.IsOpen()) {
            const eRtCode opened = pair.Open({mChannel});
            if (opened != RT_SUCCESS) {
                MyMSleep(kRetrySleepMs);
                if (opened == RT_FAILURE) {
                    ZLOG(eZLogWarning, "Retry to connect Redis for task[%s].\n", mReqKey.c_str());
                } else {
                    ZLOG(eZLogWarning, "Retry to subscribe channel[%s].\n", mChannel.c_str());
                }
                continue;
            }
            mReadListening.store(true);
        }
        std::string channel, message;
        const eRtCode rt = RedisGetChannelMessage(pair.Listen(), channel, message);
        if (rt == RT_FAILURE) {
            pair.Close();
            continue;
        }
        if (rt != RT_SUCCESS) {
            ZLOG(eZLogError, "Channel[%s]: Get a nil reply.\n", mChannel.c_str());
            continue;
        }
        if (message.empty()) {
            ZLOG(eZLogError, "Channel[%s]: Received a 0 element message.\n", mChannel.c_str());
            continue;
        }
        if (message == "QUIT") break;
        _ServeRead(pair.Command(), message);
    }
    pair.Close();
    mReadListening.store(true);  // never leave RunTask waiting
    mReadEnded.store(true);
}

void ZTask::_ServeRead(redisContext* c, const std::string& key) {
    sCRUD_ReqData req;
    if (mSchema == nullptr || mSchema->CRUDParserReqMessage(c, key, req) != RT_SUCCESS ||
        req.returnChannel.empty()) {
        ZLOG(eZLogError, "Task[%s]: read[%s] is missing or names no return channel.\n",
             mReqKey.c_str(), key.c_str());
        return;
    }
    {
        MutexLock lock(mReadCbMutex);
        if (mReadCb != nullptr) mReadCb(this, mReadCbArg);
    }
    // The monitor answers "PROCESSING" (202) while the work goes on, then
    // the finished task's document. A delete asks the work to cancel.
    const char* word = mFinalTaken.load() ? "OK" : "PROCESSING";
    if (req.method == eReqDelete) {
        const bool accepted = mCancelSupport.load() && !mFinalTaken.load();
        if (accepted) mCancelRequested.store(true);
        word = accepted ? "OK_EMPTY" : "NOT_ALLOWED";
        ZLOG(eZLogInfo, "Task[%s]: cancel %s.\n", mReqKey.c_str(),
             accepted ? "requested" : "refused");
    }
    RedisHashSet(c, key.c_str(), "&&ReturnStatus", word);
    RedisHashSet(c, key.c_str(), "&&Location", mTaskURL.c_str());
    if (RedisPublishToChannel(c, req.returnChannel, key) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisPublishToChannel( %s, %s ).\n",
             req.returnChannel.c_str(), key.c_str());
    }
}

// ---------------------------------------------------------------------------
// The stop at exit
// ---------------------------------------------------------------------------

bool ZTask::WaitRunningTasks(uint32_t ms) {
    MutexLock lock(mTaskListMutex);
    return mTaskEndCv.WaitFor(mTaskListMutex, std::chrono::milliseconds(ms),
                               []() REQUIRES(mTaskListMutex) { return mRunningTasks == 0; });
}

bool ZTask::StopAllTasks(uint32_t ms) {
    std::vector<ZTask*> finished;
    std::vector<std::string> late;  // "<key>] at [<URL>" of each task still running
    bool allEnded = false;
    {
        MutexLock lock(mTaskListMutex);
        for (auto& kv : mTaskList) kv.second->mStopRequested.store(true);
        allEnded = mTaskEndCv.WaitFor(mTaskListMutex, std::chrono::milliseconds(ms),
                                       []() REQUIRES(mTaskListMutex) { return mRunningTasks == 0; });
        for (auto& kv : mTaskList) {
            ZTask* task = kv.second;
            if (task->mWorkRunning.load()) {
                late.push_back(task->mReqKey + "] at [" + task->mTaskURL);
            } else if (!task->mAutoRecycle.load()) {
                // Kept by the plug-in after its work: the application frees
                // the nodes it holds, so it goes first.
                finished.push_back(task);
            }
        }
    }
    for (const std::string& task : late) {
        ZLOG(eZLogError, "Task[%s] did not end within %u ms.\n", task.c_str(),
             static_cast<unsigned>(ms));
    }
    for (ZTask* task : finished) task->Destory();
    return allEnded;
}

}  // namespace Orbel
