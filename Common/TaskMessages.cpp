// The message list of a task (docs/wire-protocol.md, "Tasks").
#include "TaskMessages.h"

#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject_JsonStringTrans.h"

namespace Orbel {

TaskMessages::~TaskMessages() {
    // The task resource still names the list after the task is gone: the
    // keys stay, only the nodes go.
    if (mTaskMsgsObj != nullptr) mTaskMsgsObj->_Destroy(ZObject::eDestroyDelete, false);
    mTaskMsgsObj = nullptr;
    mTaskMsgs.clear();
}

eRtCode TaskMessages::TaskMsgsSetParentJPath(const std::string& taskJPath) {
    if (taskJPath.empty()) {
        ZLOG(eZLogError, "Task JPath is a empty string.\n");
        return RT_INVALID_ARG;
    }
    if (mTaskMsgsObj != nullptr) return RT_SUCCESS;
    if (zApp == nullptr) {
        ZLOG(eZLogError, "No application to hold the messages of task[%s].\n", taskJPath.c_str());
        return RT_FAILURE;
    }
    const std::string jpath = taskJPath + "/Messages_";
    auto* array = new ZJsonArray(nullptr, jpath);
    if (array->GetJPath().empty() || array->IsDied()) {
        ZLOG(eZLogError, "Failed to create task messages[%s].\n", jpath.c_str());
        array->ObjDestroy(ZObject::eDestroyDelete, false);
        return RT_FAILURE;
    }
    // A list left by an earlier task under the same URL would be read as
    // this task's messages.
    RedisDelTable(nullptr, jpath.c_str());
    mTaskMsgsObj = array;
    return RT_SUCCESS;
}

std::string TaskMessages::GetTaskMsgsJPath() const {
    return mTaskMsgsObj != nullptr ? mTaskMsgsObj->GetJPath() : std::string();
}

uint32_t TaskMessages::GetTaskMessageNum() const {
    MutexLock lock(mTaskMsgsMutex);
    return static_cast<uint32_t>(mTaskMsgs.size());
}

int32_t TaskMessages::AddTaskMessage(eRespMsg msg, const std::vector<std::string>& args) {
    if (mTaskMsgsObj == nullptr) {
        ZLOG(eZLogError, "mTaskMsgsObj is NULL.\n");
        return -1;
    }
    const _sMsgAttribute* row = GetRespMsgAttribute(msg);
    if (row == nullptr) return -1;
    MutexLock lock(mTaskMsgsMutex);
    const uint32_t number = mTaskMsgCounter++;
    auto* node = new ZJsonObject(mTaskMsgsObj, std::to_string(number));
    if (node->GetJPath().empty() || node->IsDied()) {
        ZLOG(eZLogError, "Failed to create message[%u] in task messages[%s].\n",
             static_cast<unsigned>(number), mTaskMsgsObj->GetJPath().c_str());
        node->ObjDestroy(ZObject::eDestroyDelete, false);
        return -1;
    }
    auto* argList = new ZJsonArray(node, "MessageArgs");
    node->HashWrite("MessageId", std::string(row->msgId));
    for (const std::string& arg : args) argList->ListWriteRawString(JsonQuoteString(arg));
    node->HashWrite("MessageArgs", argList);
    mTaskMsgsObj->ListWrite(-1, node);
    mTaskMsgs.push_back(sTaskMsg{msg, node});
    return static_cast<int32_t>(number);
}

void TaskMessages::_Drop(const sTaskMsg& m) {
    // ListRemove of the node's text retires the node; its keys go at once.
    mTaskMsgsObj->ListRemove(m.node);
}

void TaskMessages::RemoveTaskMessage(eRespMsg msg) {
    MutexLock lock(mTaskMsgsMutex);
    auto keep = mTaskMsgs.begin();
    for (const sTaskMsg& m : mTaskMsgs) {
        if (m.msgId == msg) {
            _Drop(m);
        } else {
            *keep++ = m;
        }
    }
    mTaskMsgs.erase(keep, mTaskMsgs.end());
}

void TaskMessages::CleanAllTaskMessages() {
    MutexLock lock(mTaskMsgsMutex);
    for (const sTaskMsg& m : mTaskMsgs) _Drop(m);
    mTaskMsgs.clear();
}

std::vector<std::string> TaskMessages::GetTaskMessageIDs() const {
    MutexLock lock(mTaskMsgsMutex);
    std::vector<std::string> ids;
    for (const sTaskMsg& m : mTaskMsgs) ids.push_back(RespMsgID2Str(m.msgId));
    return ids;
}

eRtCode TaskMessages::ApplyTaskMsgsToRedis(redisContext* c) {
    if (mTaskMsgsObj == nullptr) {
        ZLOG(eZLogError, "mTaskMsgsObj is NULL.\n");
        return RT_FAILURE;
    }
    // Each message (its hash and its arguments) before the array's entry
    // for it: the list only ever names whole messages.
    MutexLock lock(mTaskMsgsMutex);
    eRtCode rt = RT_SUCCESS;
    for (const sTaskMsg& m : mTaskMsgs) {
        if (m.node->ApplyRedisChanges(true, c) != RT_SUCCESS) rt = RT_FAILURE;
    }
    if (mTaskMsgsObj->ApplyRedisChanges(false, c) != RT_SUCCESS) rt = RT_FAILURE;
    return rt;
}

}  // namespace Orbel
