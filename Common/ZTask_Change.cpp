// ZTask: state changes and their publication on "TASK_STATE_CHANGE".
//
// A change message is one line of five blank-separated fields:
//   <task key> <percent complete> <TaskState> <TaskStatus> <change key>
// each field "null" when it has no value (docs/wire-protocol.md, "Tasks").
// A full change (ApplyTaskChange) first writes the change key, a string key
// holding the message; the front end deletes it once it has taken the change
// into the task resource, and the task waits (bounded) for that, so that
// a client reading the task monitor after the work moved on never sees an
// older state than the one announced. A progress message alone does not wait.
//
// Both may be called from any thread. Every store command goes through the
// calling thread's connection (null context: its RedisConnectionScope, else
// one per call), so no hiredis context is ever shared between threads.
#include <atomic>
#include <chrono>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZTask.h"

namespace Orbel {

namespace {

const char kChangeChannel[] = "TASK_STATE_CHANGE";
constexpr uint32_t kChangePollMs = 10;
// A change key outlives a front end that never took it by this long.
constexpr unsigned kChangeKeyExpirySec = 60;
std::atomic<uint32_t> gChangeWaitMs{3000};

}  // namespace

uint32_t ZTask::GetChangeWaitMs() {
    return gChangeWaitMs.load();
}

void ZTask::SetChangeWaitMs(uint32_t ms) {
    gChangeWaitMs.store(ms);
}

std::string ZTask::_ChangeKey() const {
    return "&&TaskChange:" + mReqKey;
}

eRtCode ZTask::_publishToTask(const std::string& text, int64_t* receivers) {
    ZLOG(eZLogDebug, "PUBLISH TASK_STATE_CHANGE %s\n", text.c_str());
    if (RedisPublishToChannel(nullptr, kChangeChannel, text, receivers) != RT_SUCCESS) {
        ZLOG(eZLogError, "Publish %s To Channel %s Failed\n", text.c_str(), kChangeChannel);
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

void ZTask::UpdatePercentComplete(int percent) {
    if (percent < 0) percent = 0;
    if (percent > 100) percent = 100;
    MutexLock lock(mPublishMutex);
    mPercent.store(percent);
    _publishToTask(mReqKey + " " + std::to_string(percent) + " null null null");
}

void ZTask::_SetExtraInfo() {
    mExtraInfoObj->HashWrite("IsCancelSupported", mCancelSupport.load());
    mExtraInfoObj->HashWrite("TaskStatus", std::string(TaskStatusWord(GetTaskStatus())));
    mExtraInfoObj->ApplyRedisChanges(true, nullptr);
}

void ZTask::_WaitChangeTaken(const std::string& changeKey) {
    // On a connection of its own, opened per wait: a poll that stalls on a
    // dying store must not leave the task's connection in an error state.
    redisContext* c = RedisConnect();
    if (c == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect()!\n");
        return;
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(GetChangeWaitMs());
    for (;;) {
        const int type = RedisType(c, changeKey.c_str());
        if (type == REDIS_TABLE_NONE) break;
        if (type == REDIS_TABLE_UNSUPPORTED || std::chrono::steady_clock::now() >= deadline) {
            ZLOG(eZLogDebug, "Wait key[%s] been removed timeout.\n", changeKey.c_str());
            break;
        }
        MyMSleep(kChangePollMs);
    }
    RedisDisconnect(c);
}

eRtCode ZTask::ApplyTaskChange(bool wait) {
    if (!mValid) {
        ZLOG(eZLogError, "Task[%s] is not valid.\n", mReqKey.c_str());
        return RT_FAILURE;
    }
    MutexLock lock(mChangeMutex);
    ApplyTaskMsgsToRedis(nullptr);
    mOemObj->ApplyRedisChanges(true, nullptr);
    _SetExtraInfo();
    _LinkNodes();

    const std::string changeKey = _ChangeKey();
    int64_t receivers = 0;
    {
        // The line is made and sent under the publication lock, so that a
        // progress published from another thread meanwhile cannot be
        // followed by an older percentage.
        MutexLock order(mPublishMutex);
        const int percent = mPercent.load();
        const std::string text = mReqKey + " " +
                                 (percent < 0 ? std::string("null") : std::to_string(percent)) +
                                 " " + TaskStateWord(GetTaskState()) + " " +
                                 TaskStatusWord(GetTaskStatus()) + " " + changeKey;
        RedisSet(nullptr, changeKey.c_str(), text.c_str(), kChangeKeyExpirySec);
        if (_publishToTask(text, &receivers) != RT_SUCCESS) {
            RedisDelTable(nullptr, changeKey.c_str());
            return RT_FAILURE;
        }
    }
    if (receivers == 0) {
        // Nobody listens, so nobody will take the key: no reason to wait.
        RedisDelTable(nullptr, changeKey.c_str());
        return RT_SUCCESS;
    }
    if (wait) _WaitChangeTaken(changeKey);
    return RT_SUCCESS;
}

}  // namespace Orbel
