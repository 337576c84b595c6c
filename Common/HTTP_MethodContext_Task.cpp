// The request context: running the rest of a request as a task.
#include <string>

#include "HTTP_MethodContext.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"
#include "ZTask.h"

namespace Orbel {

namespace {

const char kApplyTime[] = "@Redfish.OperationApplyTime";
const char kWindowDuration[] =
    "@Redfish.MaintenanceWindow/@Redfish.MaintenanceWindowDurationInSeconds";
const char kWindowStart[] = "@Redfish.MaintenanceWindow/@Redfish.MaintenanceWindowStartTime";

}  // namespace

void HTTP_MethodContext::_DropUnstartedTask(ZTask* task) {
    task->Destory();
    // The task named its own message array in the request hash; the answer
    // is ours again.
    if (!mExtInfoJPath.empty()) {
        RedisHashSet(mRedisCtx, mReqData->reqKey.c_str(), "&&ExtendedInfo",
                     mExtInfoJPath.c_str());
    }
}

void HTTP_MethodContext::_ReadAsyncUploadParams(ZTask* task) {
    sAsyncUploadParams params;
    params.asyncUpload = true;
    if (GetUserInputData("/FileReady", params.filePath) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to get user input data [%s]\n", "/FileReady");
    }
    ZLOG(eZLogInfo, "AsyncUpload filePath[%s].\n", params.filePath.c_str());

    // The optional parameters are looked for first: their absence is normal.
    auto read = [this](const char* name, auto& out) {
        const std::string jpath = std::string("/") + name;
        return HasUserInputData(jpath) && GetUserInputData(jpath, out) == RT_SUCCESS;
    };
    if (!read(kApplyTime, params.operationApplyTime)) {
        ZLOG(eZLogWarning, "AsyncUpload %s is not found.\n", kApplyTime);
    }
    ZLOG(eZLogInfo, "AsyncUpload @Redfish.OperationApplyTime[%s].\n",
         params.operationApplyTime.c_str());

    int duration = -1;
    if (!read(kWindowDuration, duration)) {
        ZLOG(eZLogWarning, "AsyncUpload %s is not found.\n", kWindowDuration);
        duration = -1;
    }
    params.maintenanceWindowDurationSec = duration;
    ZLOG(eZLogInfo, "AsyncUpload @Redfish.MaintenanceWindowDurationInSeconds[%d].\n", duration);

    if (!read(kWindowStart, params.maintenanceWindowStartTime)) {
        ZLOG(eZLogWarning, "AsyncUpload %s is not found.\n", kWindowStart);
    }
    ZLOG(eZLogInfo, "AsyncUpload @Redfish.MaintenanceWindowStartTime[%s].\n",
         params.maintenanceWindowStartTime.c_str());

    unsigned int count = 0;
    if (HasUserInputData("/Targets") && GetUserInputListSize("/Targets", count) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to get list size of user input data [%s]\n", "/Targets");
        count = 0;
    }
    for (unsigned int i = 0; i < count; ++i) {
        const std::string jpath = "/Targets/" + std::to_string(i);
        const sUsrInCacheItem* item = _FindUserInput(jpath);
        if (item == nullptr || item->type == USRIN_NULL) {
            ZLOG(eZLogWarning, "AsyncUpload target%d is null.\n", static_cast<int>(i));
            continue;
        }
        std::string target;
        const eRtCode res = item->type == USRIN_STRING || item->type == USRIN_RAWSTR
                                ? GetUserInputData(jpath, target)
                                : RT_INVALID_ARG;
        if (res != RT_SUCCESS) {
            ZLOG(eZLogWarning, "AsyncUpload target%d is unexpected. res[%d]\n", static_cast<int>(i),
                 static_cast<int>(res));
            continue;
        }
        ZLOG(eZLogInfo, "AsyncUpload target%d[%s].\n", static_cast<int>(i), target.c_str());
        params.targets.push_back(target);
    }
    task->AssignAsyncUploadParams(params);
}

eRtCode HTTP_MethodContext::CreateTask(eRtCode (*run)(ZTask*), void* arg, bool autoRecycle) {
    auto refuse = [this]() {
        SetReturnStatus(HTTP_RT_EXCEPTION, NewExtendedInfo(RESP_Base_InternalError));
        return RT_FAILURE;
    };
    if (mReqData == nullptr) {
        ZLOG(eZLogError, "Request Data Is Empty\n");
        return refuse();
    }
    if (mReqData->taskMonitorUrl.empty()) {
        ZLOG(eZLogError, "No Task Monitor URL In Request Data\n");
        return refuse();
    }
    if (mTaskStarted || mTargetSchema == nullptr || mTargetResource == nullptr || run == nullptr) {
        ZLOG(eZLogError, "Cannot create a task: %s. schema[%s]\n",
             mTaskStarted ? "one runs already" : "no target or no work function", _OwnerName());
        return refuse();
    }

    // 1. The task, with the channel its monitor's reads come on.
    const std::string appName = zApp != nullptr ? zApp->AppName() : std::string("Orbel");
    const std::string channel = appName + ":Task:" + mReqData->reqKey;
    auto* task = new ZTask(mReqData->reqKey, channel, mTargetSchema, mTargetResource, run, arg);
    task->AssignUserID(GetUserName());
    task->SetAutoRecycleSelf(autoRecycle);
    if (!task->IsValid()) {
        _DropUnstartedTask(task);
        return refuse();
    }

    // 2. The body, against the target's template.
    const eRtCode verified =
        VerifyUserInputData(mTargetSchema->GetUserInputTemplate(mTargetResource));
    if (verified != RT_SUCCESS) {
        _DropUnstartedTask(task);
        return verified;
    }

    // 3. An upload's parameters.
    if (GetAsyncUploadMethod()) _ReadAsyncUploadParams(task);

    // 4. Start.
    if (mReturnStatus > HTTP_RT_OK_EMPTY) {
        _DropUnstartedTask(task);
        return RT_FAILURE;
    }
    SetReturnStatus(HTTP_RT_PROCESSING);
    // The work waits for the "PROCESSING" answer (SendResponseToCorvel):
    // a work that returns at once must not write its final answer first.
    task->_HoldWork();
    if (task->RunTask() != RT_SUCCESS) {
        _DropUnstartedTask(task);
        return refuse();
    }
    mTaskStarted = true;
    mTask = task;
    return RT_SUCCESS;
}

}  // namespace Orbel
