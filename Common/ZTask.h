// A Redfish task: a long request answered at once with "PROCESSING" and a
// task monitor, and carried to its end by the plug-in's work function on a
// thread of its own.
//
// The front end prepares the task before it forwards the request: it picks
// the task monitor URL (the Task resource, a hash holding at least "Id"),
// records it in the hash "TaskMonitorAndResourceMapping" under the request's
// key, and names it in the request's "&&Task". A handler that wants a task
// calls HTTP_MethodContext::CreateTask, which builds a ZTask and starts it.
// docs/wire-protocol.md ("Tasks") is the contract with the front end: the
// nodes below the task URL, the "TASK_STATE_CHANGE" messages and the change
// key, the task monitor's read channel, and the final answer written into the
// request hash.
//
// Defined in: ZTask.cpp (construction, accessors, the task list, Destory),
// ZTask_Change.cpp (state changes and their publication), ZTask_Threads.cpp
// (the work thread, the read thread, the stop at exit).
//
// Threads. The work function runs on the task's work thread (detached; it
// ends the task when auto-recycle is set). It starts only once the request's
// "PROCESSING" answer is out and taken, so no final answer can precede it.
// Reads of the task monitor are answered on the task's read thread, which
// only reads the state. State, status, progress and the stop request are
// atomics. UpdatePercentComplete, ApplyTaskChange and AddTaskMessage may be
// called from any thread: they use the calling thread's store connection
// (its RedisConnectionScope, else one per call), never a shared one;
// ApplyTaskChange is serialised by the task's mutex, and publications keep
// their call order. The class-wide task list has its own mutex. The task's
// nodes (Oem, ExtraInfo, Result, ResponseData) belong to the work function
// while it runs.
//
// Lifetime. A task lives from CreateTask until Destory: with auto-recycle (the
// default) the work thread calls it after the final answer. An application
// leaving Exec asks every running task to stop (IsStopRequested) and waits a
// bounded time for them (docs/plugin-guide.md, "Tasks"). A task whose work
// outlives the application object is detached from it: when its work returns
// it announces the end ("Killed", "EXCEPTION") with plain store writes and
// touches neither the application, the log service nor its nodes again.
#ifndef ORBEL_ZTASK_H
#define ORBEL_ZTASK_H

#include <hiredis/hiredis.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "HTTP_MethodContext.h"
#include "Orbel_Mutex.h"
#include "ResponseExtendedInfo.h"
#include "TaskMessages.h"

namespace Orbel {

class ZBackendImpl;
class ZJsonObject;
class ZResource;
class ZSchema;

// The task state, written as its word ("TaskState").
enum eTaskState : int32_t {
    TASK_STATE_New = 0,
    TASK_STATE_Starting = 1,
    TASK_STATE_Running = 2,
    TASK_STATE_Suspended = 3,
    TASK_STATE_Interrupted = 4,
    TASK_STATE_Pending = 5,
    TASK_STATE_Stopping = 6,
    TASK_STATE_Completed = 7,
    TASK_STATE_Killed = 8,
    TASK_STATE_Exception = 9,
    TASK_STATE_Service = 10,
    TASK_STATE_Cancelling = 11,
    TASK_STATE_Cancelled = 12,
};
// The task status, written as its word ("TaskStatus").
enum eTaskStatus : int32_t {
    TASK_STATUS_OK = 0,
    TASK_STATUS_Warning = 1,
    TASK_STATUS_Critical = 2,
};
// The words ("" for a value outside the tables).
const char* TaskStateWord(eTaskState state);
const char* TaskStatusWord(eTaskStatus status);
// Completed, Killed, Exception and Cancelled: the task's work is over.
bool IsFinalTaskState(eTaskState state);

// The parameters of an asynchronous upload (a firmware image pushed with
// "SimpleUpload" or "MultipartUpload"), read from the request body by
// CreateTask. Absent texts stay empty, an absent duration stays -1.
struct sAsyncUploadParams {
    bool asyncUpload = false;                   // the request was an upload
    std::string filePath;                       // "FileReady": the uploaded file
    std::string operationApplyTime;             // "@Redfish.OperationApplyTime"
    int32_t maintenanceWindowDurationSec = -1;  // "@Redfish.MaintenanceWindowDurationInSeconds"
    std::string maintenanceWindowStartTime;     // "@Redfish.MaintenanceWindowStartTime"
    std::vector<std::string> targets;           // "Targets"
};

class ZTask : public ResponseExtendedInfo, public TaskMessages {
public:
    typedef eRtCode (*TaskRun_t)(ZTask* task);
    // Called on the read thread before a read of the task monitor is
    // answered; it may refresh nodes it owns with their own locks.
    typedef void (*TaskReadCallback_t)(ZTask* task, void* arg);

    // `reqKey` is the request hash's key (also the task's key), `channel`
    // the channel on which the task monitor's reads reach the task. Reads the
    // task monitor URL and the id from the store and builds the task's nodes;
    // IsValid() tells whether that worked. The task enters the task list.
    ZTask(const std::string& reqKey, const std::string& channel, ZSchema* schema,
          ZResource* resource, TaskRun_t run, void* privData);

    // The URL and id were found and the nodes built: the task can run.
    bool IsValid() const { return mValid; }

    // Starts the read thread and the work thread (detached). 0; 2 (logged)
    // for an invalid task, a second call, or threads that cannot start.
    eRtCode RunTask();
    static void TaskThreadMain(ZTask* task);
    static void ReadDispatcher(ZTask* task);

    // Publishes the progress alone (no wait for the front end).
    void UpdatePercentComplete(int percent);
    // Writes the messages and the extra information, publishes the state,
    // status and progress on "TASK_STATE_CHANGE", and, with `wait`, waits (at
    // most GetChangeWaitMs) for the front end to take the change. 0, or 2
    // when the publication failed.
    eRtCode ApplyTaskChange(bool wait = true);

    // Ends the task: stops the read thread, retires the nodes (their keys
    // stay for the front end), leaves the task list and deletes the object.
    // Never call it while the work thread runs (auto-recycle does it after
    // the work).
    void Destory();

    void SetTaskState(eTaskState state) { mTaskState.store(state); }
    eTaskState GetTaskState() const { return mTaskState.load(); }
    void SetTaskStatus(eTaskStatus status) { mTaskStatus.store(status); }
    eTaskStatus GetTaskStatus() const { return mTaskStatus.load(); }
    int GetPercentComplete() const { return mPercent.load(); }
    void SetTaskCancelSupport(bool support) { mCancelSupport.store(support); }
    void SetAutoRecycleSelf(bool autoRecycle) { mAutoRecycle.store(autoRecycle); }
    // The status of the final answer when the work fails (8 "CONFLICT" or 9
    // "FAILURE"; any other value becomes 9).
    void SetReturnStatus(eHttpRtStatus status) { mReturnStatus = status; }
    eHttpRtStatus GetReturnStatus() const { return mReturnStatus; }
    // True once the application is leaving: a work function should end soon.
    bool IsStopRequested() const { return mStopRequested.load(); }
    // True once a client asked to cancel the task (a DELETE of the running
    // Task, accepted only after SetTaskCancelSupport(true)). A work function
    // that honours it returns 2: the task then ends "Cancelled".
    bool IsCancelRequested() const { return mCancelRequested.load(); }

    void RegisterReadCallback(TaskReadCallback_t fn, void* arg);
    void UnregisterReadCallback();

    void AssignUserID(const std::string& user) { mUserID = user; }
    const std::string& GetUserID() const { return mUserID; }
    void AssignPrivateData(void* data) { mPrivData = data; }
    void* GetPrivateData() const { return mPrivData; }
    void AssignAsyncUploadParams(const sAsyncUploadParams& params) { mAsyncUpload = params; }
    const sAsyncUploadParams& GetAsyncUploadParams() const { return mAsyncUpload; }
    const std::string& GetAsyncUploadFilePath() const { return mAsyncUpload.filePath; }
    bool GetAsyncUploadMethod() const { return mAsyncUpload.asyncUpload; }
    const std::string& GetAsyncUploadOperationApplyTime() const {
        return mAsyncUpload.operationApplyTime;
    }
    const std::vector<std::string>& GetAsyncUploadTargets() const { return mAsyncUpload.targets; }

    const std::string& GetTaskKey() const { return mReqKey; }
    const std::string& GetTaskChannel() const { return mChannel; }
    const std::string& GetTaskURL() const { return mTaskURL; }
    const std::string& GetTaskID() const { return mTaskId; }
    ZSchema* GetTargetSchema() const { return mSchema; }
    ZResource* GetTargetResource() const { return mTgtResource; }
    ZJsonObject* GetOemObject() const { return mOemObj; }
    ZJsonObject* GetExtraInfoObject() const { return mExtraInfoObj; }
    ZJsonObject* GetResultObject() const { return mResultObj; }
    ZJsonObject* GetTaskMonitorResponseDataObject() const { return mResponseDataObj; }
    // The target schema's backend, or null.
    ZBackendImpl* GetBackendImpl();
    // Where the final answer points ("&&Location"); by default nothing.
    void SetTaskMonitorLocation(const std::string& location) { mLocation = location; }
    const std::string& GetTaskMonitorLocation() const { return mLocation; }

    // The task of `key` in the task list, or null.
    static ZTask* GetTask(const std::string& key);
    // Tasks in the list, and tasks whose work thread is running.
    static size_t GetTaskNum();
    static size_t GetRunningTaskNum();
    // Asks every task to stop, waits up to `ms` for the running work
    // threads, logs each task still running, and ends the finished tasks the
    // plug-in kept (no auto-recycle). True when no work thread is left.
    static bool StopAllTasks(uint32_t ms);
    // Waits up to `ms` for the running tasks, without asking them anything.
    static bool WaitRunningTasks(uint32_t ms);

    // The bound of the wait for running tasks when the application leaves
    // (ms, 10000 by default).
    static uint32_t GetExitWaitMs();
    static void SetExitWaitMs(uint32_t ms);
    // The bound of the wait for the front end to take a change (ms, 3000 by
    // default).
    static uint32_t GetChangeWaitMs();
    static void SetChangeWaitMs(uint32_t ms);

    // Called by the application object's destructor once it has stopped the
    // tasks: waits for the tasks that are writing their final answer, and
    // detaches the ones whose work still runs (their read threads end here).
    static void DetachLateTasks();

protected:
    ~ZTask() override;

private:
    void _GetTaskURL();
    void _GetTaskId();
    bool _BuildNodes();
    void _SetExtraInfo();
    eRtCode _publishToTask(const std::string& text, int64_t* receivers = nullptr);
    std::string _ChangeKey() const;
    void _WaitChangeTaken(const std::string& changeKey);
    void _WriteTaskLinks();
    void _RemoveReadQueue();
    void _FinishRequest(eRtCode workResult, bool threw);
    void _ReadLoop();
    void _ServeRead(redisContext* c, const std::string& key);
    static void _ThreadEnded();
    void _StopReadThread();
    void _LinkNodes() REQUIRES(mChangeMutex);
    void _EndDetached(eRtCode workResult, bool threw);
    // The request context holds the work until its answer is published and
    // then lets it go with the lock key the front end releases once it has
    // taken the answer.
    friend class HTTP_MethodContext;
    void _HoldWork();
    void _ReleaseWork(const std::string& lockKey);
    void _WaitReleased();

    // No lock for the members up to mOemLinked but the atomics: the constructor
    // and the plug-in's setters write them before RunTask starts the threads;
    // afterwards only the work thread writes them, and the read thread reads
    // only mReqKey, mChannel, mTaskURL and mSchema, which never change.
    const std::string mReqKey;
    const std::string mChannel;
    TaskRun_t mRun;
    void* mPrivData;
    std::string mTaskURL;
    std::string mTaskId;
    std::string mLocation;
    std::string mUserID;
    sAsyncUploadParams mAsyncUpload;
    ZJsonObject* mOemObj = nullptr;           // owned, <URL>/Oem
    ZJsonObject* mExtraInfoObj = nullptr;     // owned, <URL>/ExtraInfo
    ZJsonObject* mResultObj = nullptr;        // owned, <URL>/Result
    ZJsonObject* mResponseDataObj = nullptr;  // owned, <URL>/ResponseData
    std::atomic<eTaskState> mTaskState{TASK_STATE_New};
    std::atomic<eTaskStatus> mTaskStatus{TASK_STATUS_OK};
    std::atomic<int> mPercent{-1};
    std::atomic<bool> mCancelSupport{false};
    std::atomic<bool> mAutoRecycle{true};
    std::atomic<bool> mStopRequested{false};
    std::atomic<bool> mCancelRequested{false};
    eHttpRtStatus mReturnStatus = HTTP_RT_OK;
    bool mValid = false;
    bool mStarted = false;

    Mutex mReadCbMutex;
    TaskReadCallback_t mReadCb GUARDED_BY(mReadCbMutex) = nullptr;
    void* mReadCbArg GUARDED_BY(mReadCbMutex) = nullptr;
    // Started by RunTask; joined once, by Destory or (for a task whose
    // application went, which is never destroyed) by DetachLateTasks.
    std::thread mReadThread;
    std::atomic<bool> mReadListening{false};
    std::atomic<bool> mReadStop{false};
    std::atomic<bool> mReadEnded{false};

    Mutex mChangeMutex;   // serialises ApplyTaskChange
    Mutex mPublishMutex;  // keeps the publications in call order
    bool mLinksWritten GUARDED_BY(mChangeMutex) = false;
    bool mOemLinked GUARDED_BY(mChangeMutex) = false;
    std::atomic<bool> mWorkRunning{false};
    // Set once the final change is published and taken: from then on the
    // read thread answers the finished task.
    std::atomic<bool> mFinalTaken{false};
    const std::string mSocketPath;  // for the plain writes of a detached task; constant

    Mutex mGateMutex;
    CondVar mGateCv;
    bool mGateOpen GUARDED_BY(mGateMutex) = true;
    std::string mAnswerLockKey GUARDED_BY(mGateMutex);

    bool mFinishing GUARDED_BY(mTaskListMutex) = false;  // writing the final answer
    bool mDetached GUARDED_BY(mTaskListMutex) = false;   // the application went while the work ran

    // Never destroyed: a detached task may end while the process exits.
    static Mutex& mTaskListMutex;
    static std::map<std::string, ZTask*>& mTaskList GUARDED_BY(mTaskListMutex);
    static size_t mRunningTasks GUARDED_BY(mTaskListMutex);
    static size_t mFinishingTasks GUARDED_BY(mTaskListMutex);
    static CondVar& mTaskEndCv;
};

}  // namespace Orbel

#endif  // ORBEL_ZTASK_H
