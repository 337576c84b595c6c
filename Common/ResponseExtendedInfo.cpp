// Extended-info messages: the registry table and the message tree of one
// response or task (docs/wire-protocol.md, "Extended info").
#include "ResponseExtendedInfo.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

// ---------------------------------------------------------------------------
// The registry
// ---------------------------------------------------------------------------

namespace {

struct sRegistryRow {
    eRespMsg id;
    _sMsgAttribute attr;
};

constexpr eArgType N = ARG_NONE;
constexpr eArgType S = ARG_STRING;
constexpr eArgType D = ARG_NUMBER;

// Rows 0-42 are the standard Base messages, 43-89 the service's own extended
// errors (and one Base row), 90-94 task events, 99 the log service, 100-119
// firmware update, 120-131 the service's own warnings. MessageIds are part
// of the wire format and are kept exactly, the misspelt
// "ResourceChangeRequried" included: the front end's registry knows it so.
constexpr sRegistryRow kRows[] = {
    {RESP_Base_Created, {"Base.1.12.Created", N, N, N, N, N, N}},
    {RESP_Base_CreateLimitReachedForResource,
     {"Base.1.12.CreateLimitReachedForResource", N, N, N, N, N, N}},
    {RESP_Base_EmptyJSON, {"Base.1.12.EmptyJSON", N, N, N, N, N, N}},
    {RESP_Base_InternalError, {"Base.1.12.InternalError", N, N, N, N, N, N}},
    {RESP_Base_InsufficientPrivilege, {"Base.1.12.InsufficientPrivilege", N, N, N, N, N, N}},
    {RESP_Base_NoOperation, {"Base.1.12.NoOperation", N, N, N, N, N, N}},
    {RESP_Base_NoValidSession, {"Base.1.12.NoValidSession", N, N, N, N, N, N}},
    {RESP_Base_ResourceCannotBeDeleted, {"Base.1.12.ResourceCannotBeDeleted", N, N, N, N, N, N}},
    {RESP_Base_ResourceInUse, {"Base.1.12.ResourceInUse", N, N, N, N, N, N}},
    {RESP_Base_SessionLimitExceeded, {"Base.1.12.SessionLimitExceeded", N, N, N, N, N, N}},
    {RESP_Base_Success, {"Base.1.12.Success", N, N, N, N, N, N}},
    {RESP_Base_ActionNotSupported, {"Base.1.12.ActionNotSupported", S, N, N, N, N, N}},
    {RESP_Base_CreateFailedMissingReqProperties,
     {"Base.1.12.CreateFailedMissingReqProperties", S, N, N, N, N, N}},
    {RESP_Base_InvalidIndex, {"Base.1.12.InvalidIndex", D, N, N, N, N, N}},
    {RESP_Base_InvalidObject, {"Base.1.12.InvalidObject", S, N, N, N, N, N}},
    {RESP_Base_PasswordChangeRequired, {"Base.1.12.PasswordChangeRequired", S, N, N, N, N, N}},
    {RESP_Base_PropertyDuplicate, {"Base.1.12.PropertyDuplicate", S, N, N, N, N, N}},
    {RESP_Base_PropertyUnknown, {"Base.1.12.PropertyUnknown", S, N, N, N, N, N}},
    {RESP_Base_PropertyValueError, {"Base.1.12.PropertyValueError", S, N, N, N, N, N}},
    {RESP_Base_PropertyNotWritable, {"Base.1.12.PropertyNotWritable", S, N, N, N, N, N}},
    {RESP_Base_PropertyMissing, {"Base.1.12.PropertyMissing", S, N, N, N, N, N}},
    {RESP_Base_CouldNotEstablishConnection,
     {"Base.1.12.CouldNotEstablishConnection", S, N, N, N, N, N}},
    {RESP_Base_ResourceMissingAtURI, {"Base.1.12.ResourceMissingAtURI", S, N, N, N, N, N}},
    {RESP_Base_ChassisPowerStateOnRequired,
     {"Base.1.12.ChassisPowerStateOnRequired", S, N, N, N, N, N}},
    {RESP_Base_ChassisPowerStateOffRequired,
     {"Base.1.12.ChassisPowerStateOffRequired", S, N, N, N, N, N}},
    {RESP_Base_ResourceExhaustion, {"Base.1.12.ResourceExhaustion", S, N, N, N, N, N}},
    {RESP_Base_ResourceCreationConflict, {"Base.1.12.ResourceCreationConflict", S, N, N, N, N, N}},
    {RESP_Base_ActionParameterMissing, {"Base.1.12.ActionParameterMissing", S, S, N, N, N, N}},
    {RESP_Base_ActionParameterDuplicate, {"Base.1.12.ActionParameterDuplicate", S, S, N, N, N, N}},
    {RESP_Base_ActionParameterUnknown, {"Base.1.12.ActionParameterUnknown", S, S, N, N, N, N}},
    {RESP_Base_ActionParameterNotSupported,
     {"Base.1.12.ActionParameterNotSupported", S, S, N, N, N, N}},
    {RESP_Base_PropertyValueTypeError, {"Base.1.12.PropertyValueTypeError", S, S, N, N, N, N}},
    {RESP_Base_PropertyValueFormatError, {"Base.1.12.PropertyValueFormatError", S, S, N, N, N, N}},
    {RESP_Base_PropertyValueNotInList, {"Base.1.12.PropertyValueNotInList", S, S, N, N, N, N}},
    {RESP_Base_PropertyValueConflict, {"Base.1.12.PropertyValueConflict", S, S, N, N, N, N}},
    {RESP_Base_ResourceNotFound, {"Base.1.12.ResourceNotFound", S, S, N, N, N, N}},
    {RESP_Base_SourceDoesNotSupportProtocol,
     {"Base.1.12.SourceDoesNotSupportProtocol", S, S, N, N, N, N}},
    {RESP_Base_StringValueTooLong, {"Base.1.12.StringValueTooLong", S, D, N, N, N, N}},
    {RESP_Base_ActionParameterValueTypeError,
     {"Base.1.12.ActionParameterValueTypeError", S, S, D, N, N, N}},
    {RESP_Base_ActionParameterValueFormatError,
     {"Base.1.12.ActionParameterValueFormatError", S, S, D, N, N, N}},
    {RESP_Base_ActionParameterValueNotInList,
     {"Base.1.12.ActionParameterValueNotInList", S, S, D, N, N, N}},
    {RESP_Base_ResourceAlreadyExists, {"Base.1.12.ResourceAlreadyExists", S, S, D, N, N, N}},
    {RESP_Base_PropertyValueResourceConflict,
     {"Base.1.12.PropertyValueResourceConflict", S, S, S, N, N, N}},
    {RESP_ExtErr_AccountLockout, {"ExtendedError.1.2.AccountLockout", N, N, N, N, N, N}},
    {RESP_ExtErr_BadRequest, {"ExtendedError.1.2.BadRequest", N, N, N, N, N, N}},
    {RESP_ExtErr_Conflict, {"ExtendedError.1.2.Conflict", N, N, N, N, N, N}},
    {RESP_ExtErr_ContentTypeHeaderNotSatisfied,
     {"ExtendedError.1.2.ContentTypeHeaderNotSatisfied", N, N, N, N, N, N}},
    {RESP_ExtErr_CancelAsyncTaskFailed,
     {"ExtendedError.1.2.CancelAsyncTaskFailed", N, N, N, N, N, N}},
    {RESP_ExtErr_CancelAsyncTaskTimeout,
     {"ExtendedError.1.2.CancelAsyncTaskTimeout", N, N, N, N, N, N}},
    {RESP_ExtErr_InvalidCredentials, {"ExtendedError.1.2.InvalidCredentials", N, N, N, N, N, N}},
    {RESP_ExtErr_InvalidLoginBody, {"ExtendedError.1.2.InvalidLoginBody", N, N, N, N, N, N}},
    {RESP_ExtErr_InvalidBasicAuthorizationString,
     {"ExtendedError.1.2.InvalidBasicAuthorizationString", N, N, N, N, N, N}},
    {RESP_ExtErr_MissingUsername, {"ExtendedError.1.2.MissingUsername", N, N, N, N, N, N}},
    {RESP_ExtErr_MissingPassword, {"ExtendedError.1.2.MissingPassword", N, N, N, N, N, N}},
    {RESP_ExtErr_ModuleError, {"ExtendedError.1.2.ModuleError", N, N, N, N, N, N}},
    {RESP_ExtErr_NoContent, {"ExtendedError.1.2.NoContent", N, N, N, N, N, N}},
    {RESP_ExtErr_NotImplementedHttpMethod,
     {"ExtendedError.1.2.NotImplementedHttpMethod", N, N, N, N, N, N}},
    {RESP_ExtErr_Processing, {"ExtendedError.1.2.Processing", N, N, N, N, N, N}},
    {RESP_ExtErr_PhysicalPresenceError,
     {"ExtendedError.1.2.PhysicalPresenceError", N, N, N, N, N, N}},
    {RESP_ExtErr_RebootRequired, {"ExtendedError.1.2.RebootRequired", N, N, N, N, N, N}},
    {RESP_ExtErr_RequestUriNotFound, {"ExtendedError.1.2.RequestUriNotFound", N, N, N, N, N, N}},
    {RESP_ExtErr_SessionFull, {"ExtendedError.1.2.SessionFull", N, N, N, N, N, N}},
    {RESP_ExtErr_SessionNotExist, {"ExtendedError.1.2.SessionNotExist", N, N, N, N, N, N}},
    {RESP_ExtErr_ServiceUnavailable, {"ExtendedError.1.2.ServiceUnavailable", N, N, N, N, N, N}},
    {RESP_ExtErr_ServiceDisabled, {"ExtendedError.1.2.ServiceDisabled", N, N, N, N, N, N}},
    {RESP_ExtErr_TaskCreationLimitExceeded,
     {"ExtendedError.1.2.TaskCreationLimitExceeded", N, N, N, N, N, N}},
    {RESP_ExtErr_Unauthorized, {"ExtendedError.1.2.Unauthorized", N, N, N, N, N, N}},
    {RESP_ExtErr_TooManyRequests, {"ExtendedError.1.2.TooManyRequests", N, N, N, N, N, N}},
    {RESP_ExtErr_SystemWillReboot, {"ExtendedError.1.2.SystemWillReboot", N, N, N, N, N, N}},
    {RESP_ExtErr_QueryParameterUnknown,
     {"ExtendedError.1.2.QueryParameterUnknown", S, N, N, N, N, N}},
    {RESP_ExtErr_ServiceTemporarilyUnavailable,
     {"ExtendedError.1.2.ServiceTemporarilyUnavailable", S, N, N, N, N, N}},
    {RESP_ExtErr_MethodNotAllowed, {"ExtendedError.1.2.MethodNotAllowed", S, S, N, N, N, N}},
    {RESP_ExtErr_ScheduledPowerActionStartedSuccessfully,
     {"ExtendedError.1.2.ScheduledPowerActionStartedSuccessfully", S, S, N, N, N, N}},
    {RESP_ExtErr_ScheduledPowerActionStartedFailed,
     {"ExtendedError.1.2.ScheduledPowerActionStartedFailed", S, S, N, N, N, N}},
    {RESP_Base_ResetRequired, {"Base.1.12.ResetRequired", S, S, N, N, N, N}},
    {RESP_ExtErr_DownloadingFailure, {"ExtendedError.1.2.DownloadingFailure", S, S, N, N, N, N}},
    {RESP_ExtErr_TransferringTimeout, {"ExtendedError.1.2.TransferringTimeout", S, S, S, N, N, N}},
    {RESP_ExtErr_FirmwareImageInvalid,
     {"ExtendedError.1.2.FirmwareImageInvalid", S, S, S, N, N, N}},
    {RESP_ExtErr_FirmwareUpdateNeedHostPowerOn,
     {"ExtendedError.1.2.FirmwareUpdateNeedHostPowerOn", S, S, S, N, N, N}},
    {RESP_ExtErr_FirmwareUpdateNeedHostPowerOff,
     {"ExtendedError.1.2.FirmwareUpdateNeedHostPowerOff", S, S, S, N, N, N}},
    {RESP_ExtErr_FirmwareMinVersionViolation,
     {"ExtendedError.1.2.FirmwareMinVersionViolation", S, S, S, N, N, N}},
    {RESP_ExtErr_FirmwareRollbackNotAllowed,
     {"ExtendedError.1.2.FirmwareRollbackNotAllowed", S, S, S, N, N, N}},
    {RESP_ExtErr_TargetInvalid, {"ExtendedError.1.2.TargetInvalid", S, S, S, N, N, N}},
    {RESP_ExtErr_FirmwareUpdateNeedRedundantMode,
     {"ExtendedError.1.2.FirmwareUpdateNeedRedundantMode", S, S, S, N, N, N}},
    {RESP_ExtErr_ResourceTransferInProgress,
     {"ExtendedError.1.2.ResourceTransferInProgress", S, S, S, N, N, N}},
    {RESP_ExtErr_ResourceTransferComplete,
     {"ExtendedError.1.2.ResourceTransferComplete", S, S, S, N, N, N}},
    {RESP_ExtErr_ResourceTransferStarted,
     {"ExtendedError.1.2.ResourceTransferStarted", S, S, S, N, N, N}},
    {RESP_ExtErr_ResourceTransferFailed,
     {"ExtendedError.1.2.ResourceTransferFailed", S, S, S, N, N, N}},
    {RESP_ExtErr_FirmwareUpdateIntention,
     {"ExtendedError.1.2.FirmwareUpdateIntention", S, S, S, S, N, N}},
    {RESP_ExtErr_FirmwareImageNotMatchTarget,
     {"ExtendedError.1.2.FirmwareImageNotMatchTarget", S, S, S, S, S, N}},
    {RESP_Task_TaskStarted, {"TaskEvent.1.0.TaskStarted", S, N, N, N, N, N}},
    {RESP_Task_TaskCompletedOK, {"TaskEvent.1.0.TaskCompletedOK", S, N, N, N, N, N}},
    {RESP_Task_TaskCompletedWarning, {"TaskEvent.1.0.TaskCompletedWarning", S, N, N, N, N, N}},
    {RESP_Task_TaskAborted, {"TaskEvent.1.0.TaskAborted", S, N, N, N, N, N}},
    {RESP_Task_TaskProgressChanged, {"TaskEvent.1.0.TaskProgressChanged", S, D, N, N, N, N}},
    {RESP_LogSvc_DiagnosticDataCollected,
     {"LogService.1.0.DiagnosticDataCollected", S, N, N, N, N, N}},
    {RESP_FwUpd_UpdateTransferCompleted,
     {"VeltraFirmwareUpdateRegistry.1.0.UpdateTransferCompleted", N, N, N, N, N, N}},
    {RESP_FwUpd_UpdateVerifyCompleted,
     {"VeltraFirmwareUpdateRegistry.1.0.UpdateVerifyCompleted", N, N, N, N, N, N}},
    {RESP_FwUpd_UpdateTransferInProgress,
     {"VeltraFirmwareUpdateRegistry.1.0.UpdateTransferInProgress", D, N, N, N, N, N}},
    {RESP_FwUpd_UpdateVerifyInProgress,
     {"VeltraFirmwareUpdateRegistry.1.0.UpdateVerifyInProgress", D, N, N, N, N, N}},
    {RESP_FwUpd_PayloadTransferCompleted,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadTransferCompleted", S, N, N, N, N, N}},
    {RESP_FwUpd_PayloadVerifyCompleted,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadVerifyCompleted", S, N, N, N, N, N}},
    {RESP_FwUpd_PayloadApplyCompleted,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadApplyCompleted", S, N, N, N, N, N}},
    {RESP_FwUpd_PayloadActivationCompleted,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadActivationCompleted", S, N, N, N, N, N}},
    {RESP_FwUpd_NoApplicableDevice,
     {"VeltraFirmwareUpdateRegistry.1.0.NoApplicableDevice", S, N, N, N, N, N}},
    {RESP_FwUpd_UpdateVerifyFailed,
     {"VeltraFirmwareUpdateRegistry.1.0.UpdateVerifyFailed", D, S, N, N, N, N}},
    {RESP_FwUpd_PayloadTransferInProgress,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadTransferInProgress", S, D, N, N, N, N}},
    {RESP_FwUpd_PayloadVerifyInProgress,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadVerifyInProgress", S, D, N, N, N, N}},
    {RESP_FwUpd_PayloadApplyInProgress,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadApplyInProgress", S, D, N, N, N, N}},
    {RESP_FwUpd_PayloadActivationRequired,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadActivationRequired", S, S, N, N, N, N}},
    {RESP_FwUpd_UpdateTransferFailed,
     {"VeltraFirmwareUpdateRegistry.1.0.UpdateTransferFailed", S, D, S, N, N, N}},
    {RESP_FwUpd_PayloadVerifyFailed,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadVerifyFailed", S, D, S, N, N, N}},
    {RESP_FwUpd_PayloadApplyFailed,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadApplyFailed", S, D, S, N, N, N}},
    {RESP_FwUpd_PayloadActivationFailed,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadActivationFailed", S, D, S, N, N, N}},
    {RESP_FwUpd_PayloadTransferFailed,
     {"VeltraFirmwareUpdateRegistry.1.0.PayloadTransferFailed", S, S, D, S, N, N}},
    {RESP_FwUpd_UpdateAssignment,
     {"VeltraFirmwareUpdateRegistry.1.0.UpdateAssignment", S, S, S, S, N, N}},
    {RESP_ExtWarn_AccountAccessIPMIDenied,
     {"VeltraExtendedWarning.1.0.AccountAccessIPMIDenied", N, N, N, N, N, N}},
    {RESP_ExtWarn_LocalFileInvalidSize,
     {"VeltraExtendedWarning.1.0.LocalFileInvalidSize", N, N, N, N, N, N}},
    {RESP_ExtWarn_MissingSNMPv3Settings,
     {"VeltraExtendedWarning.1.0.MissingSNMPv3Settings", N, N, N, N, N, N}},
    {RESP_ExtWarn_UpdateSNMPv3Settings,
     {"VeltraExtendedWarning.1.0.UpdateSNMPv3Settings", N, N, N, N, N, N}},
    {RESP_ExtWarn_UnencryptStorageNotAllowed,
     {"VeltraExtendedWarning.1.0.UnencryptStorageNotAllowed", N, N, N, N, N, N}},
    {RESP_ExtWarn_ReceivedUntrustedCertificate,
     {"VeltraExtendedWarning.1.0.ReceivedUntrustedCertificate", S, N, N, N, N, N}},
    {RESP_ExtWarn_LocalFileNotFound,
     {"VeltraExtendedWarning.1.0.LocalFileNotFound", S, N, N, N, N, N}},
    {RESP_ExtWarn_LocalFileLocked, {"VeltraExtendedWarning.1.0.LocalFileLocked", S, N, N, N, N, N}},
    {RESP_ExtWarn_CertificateMissing,
     {"VeltraExtendedWarning.1.0.CertificateMissing", S, S, N, N, N, N}},
    {RESP_ExtWarn_CertificateInvalid,
     {"VeltraExtendedWarning.1.0.CertificateInvalid", S, S, N, N, N, N}},
    {RESP_ExtWarn_PropertyValueLengthViolation,
     {"VeltraExtendedWarning.1.0.PropertyValueLengthViolation", S, S, N, N, N, N}},
    {RESP_ExtWarn_ResourceChangeRequried,
     {"VeltraExtendedWarning.1.0.ResourceChangeRequried", S, S, S, N, N, N}},
};

using Registry = std::array<_sMsgAttribute, RESP_MSG_NUM>;

constexpr Registry BuildRegistry() {
    Registry table{};
    for (const sRegistryRow& row : kRows) table[static_cast<size_t>(row.id)] = row.attr;
    return table;
}

// Every row lands in its own slot inside the table: a duplicated or
// out-of-range value in kRows is a compile error, not a silently lost row.
constexpr bool RowsAreDistinctAndInRange() {
    bool seen[RESP_MSG_NUM] = {};
    for (const sRegistryRow& row : kRows) {
        if (row.id < 0 || row.id >= RESP_MSG_NUM || seen[row.id]) return false;
        seen[row.id] = true;
    }
    return true;
}
static_assert(RowsAreDistinctAndInRange(), "registry rows must be distinct and in range");
static_assert(sizeof(kRows) / sizeof(kRows[0]) == RESP_MSG_NUM - 4,
              "every value but 95..98 has a row");

constexpr Registry kRegistry = BuildRegistry();

}  // namespace

const _sMsgAttribute* GetRespMsgAttribute(eRespMsg msg) {
    const int32_t value = static_cast<int32_t>(msg);
    if (value < 0 || value >= RESP_MSG_NUM ||
        kRegistry[static_cast<size_t>(value)].msgId == nullptr) {
        ZLOG(eZLogError, "Unknown eRespMsg[%d].\n", static_cast<int>(value));
        return nullptr;
    }
    return &kRegistry[static_cast<size_t>(value)];
}

std::string RespMsgID2Str(eRespMsg msg) {
    const _sMsgAttribute* row = GetRespMsgAttribute(msg);
    return row == nullptr ? std::string() : std::string(row->msgId);
}

// ---------------------------------------------------------------------------
// JSON forms of message arguments
// ---------------------------------------------------------------------------

namespace {

// The shortest "%g" text (15 to 17 digits) that reads back as `v`. JSON has
// no NaN or infinity: those give null.
std::string JsonDouble(double v) {
    if (!std::isfinite(v)) return "null";
    char buf[40];
    for (int precision = 15; precision <= 17; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, v);
        if (std::strtod(buf, nullptr) == v) break;
    }
    return buf;
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

ResponseExtendedInfo::ResponseExtendedInfo(ZSchema* schema, ZResource* tgtResource)
    : mSchema(schema), mTgtResource(tgtResource) {
    mExtInfoCtx = RedisConnect();
    if (mExtInfoCtx == nullptr) ZLOG(eZLogError, "Failed to connect to Redis.\n");
}

ResponseExtendedInfo::ResponseExtendedInfo(ZSchema* schema, ZResource* tgtResource,
                                           redisContext* borrowed)
    : mSchema(schema), mTgtResource(tgtResource), mExtInfoCtx(borrowed), mExtInfoCtxOwned(false) {}

ResponseExtendedInfo::~ResponseExtendedInfo() {
    // The store keeps the messages: the front end may read them after the
    // context that wrote them is gone. The next array made under the same
    // JPath clears what it reuses.
    if (mExtInfosObj != nullptr) mExtInfosObj->_Destroy(ZObject::eDestroyDelete, false);
    mExtInfosObj = nullptr;
    for (sExtendedInfo* info : mExtInfos) delete info;
    mExtInfos.clear();
    if (mExtInfoCtx != nullptr && mExtInfoCtxOwned) RedisDisconnect(mExtInfoCtx);
    mExtInfoCtx = nullptr;
}

redisContext* ResponseExtendedInfo::_ExtInfoContext() {
    // A context is never reused after an error; a fresh one is tried instead.
    if (mExtInfoCtx != nullptr && mExtInfoCtx->err != 0) {
        if (mExtInfoCtxOwned) RedisDisconnect(mExtInfoCtx);
        mExtInfoCtx = nullptr;
        mExtInfoCtxOwned = true;
    }
    if (mExtInfoCtx == nullptr) {
        mExtInfoCtx = RedisConnect();
        if (mExtInfoCtx == nullptr) ZLOG(eZLogError, "Failed to connect to Redis.\n");
    }
    return mExtInfoCtx;
}

std::string ResponseExtendedInfo::_SchemaName() const {
    return mSchema == nullptr ? std::string("NULL") : mSchema->GetName();
}

eRtCode ResponseExtendedInfo::NewExtInfoObj(const std::string& reqKey,
                                            const std::string& extInfoObjJPath) {
    if (extInfoObjJPath.empty()) {
        ZLOG(eZLogError, "extInfoObjJPath[%s] is a empty string.\n", extInfoObjJPath.c_str());
        return RT_INVALID_ARG;
    }
    if (reqKey.empty()) return RT_INVALID_ARG;
    if (!mExtInfoJPath.empty()) return RT_SUCCESS;
    ZApplication* app = zApp;
    if (app == nullptr) {
        ZLOG(eZLogError, "No application to hold extInfoObj[%s].\n", extInfoObjJPath.c_str());
        return RT_FAILURE;
    }
    // The array node is made with the first message: most answers carry
    // none, and a node costs a registration and its retirement. What the
    // store shows is the same from here on: the key cleared of an earlier
    // answer's messages, the request hash naming it.
    // Asked on every request, of a JPath that is normally free: no retry
    // line for the trailing "/".
    if (app->_FindObject(extInfoObjJPath, true) != nullptr) {
        ZLOG(eZLogError, "Failed to create extInfoObj[%s].\n", extInfoObjJPath.c_str());
        return RT_FAILURE;
    }
    mExtInfoJPath = extInfoObjJPath;
    redisContext* c = _ExtInfoContext();
    RedisDelTable(c, extInfoObjJPath.c_str());
    if (RedisHashSet(c, reqKey.c_str(), "&&ExtendedInfo", extInfoObjJPath.c_str()) !=
        RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashSet( %s, %s, %s ).\n", reqKey.c_str(),
             "&&ExtendedInfo", extInfoObjJPath.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

ZJsonArray* ResponseExtendedInfo::_ExtInfosArray() {
    if (mExtInfosObj != nullptr || mExtInfoJPath.empty()) return mExtInfosObj;
    auto* array = new ZJsonArray(nullptr, mExtInfoJPath);
    if (array->GetJPath().empty() || array->IsDied()) {
        // Another live node took this JPath meanwhile (refused and logged by
        // the registry); the refused node is still retired through the recycler.
        ZLOG(eZLogError, "Failed to create extInfoObj[%s].\n", mExtInfoJPath.c_str());
        array->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    mExtInfosObj = array;
    return array;
}

// ---------------------------------------------------------------------------
// Messages
// ---------------------------------------------------------------------------

sExtendedInfo* ResponseExtendedInfo::NewExtendedInfo(eRespMsg msg) {
    if (mExtInfoJPath.empty()) {
        ZLOG(eZLogError, "mExtInfosObj is NULL.\n");
        return nullptr;
    }
    const _sMsgAttribute* row = GetRespMsgAttribute(msg);
    if (row == nullptr || _ExtInfosArray() == nullptr) return nullptr;

    // Read, then counted: names stay unique after removals.
    const std::string name = std::to_string(mExtInfoCounter++);
    auto* node = new ZJsonObject(mExtInfosObj, name);
    const std::string nodePath = node->GetJPath();
    if (nodePath.empty() || node->IsDied()) {
        ZLOG(eZLogError, "Failed to create message[%s] in extInfoObj[%s].\n", name.c_str(),
             mExtInfosObj->GetJPath().c_str());
        node->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    auto* args = new ZJsonArray(node, "MessageArgs");
    auto* related = new ZJsonArray(node, "RelatedProperties");

    node->HashWrite("&&MessageId", std::string(row->msgId));
    node->HashWriteRawString("&&MessageArgs", args->GetJPath());
    node->HashWriteRawString("&&RelatedProperties", related->GetJPath());
    mExtInfosObj->ListWriteRawString(nodePath);

    auto* info = new sExtendedInfo{msg, node};
    mExtInfos.push_back(info);
    return info;
}

bool ResponseExtendedInfo::_CheckExtInfo(const sExtendedInfo* info) {
    if (info == nullptr) {
        ZLOG(eZLogError, "extInfo is NULL pointer.\n");
        return false;
    }
    // Pointers are only compared, never followed, until found: a record that
    // was removed (and freed) is refused rather than read.
    if (std::find(mExtInfos.begin(), mExtInfos.end(), info) == mExtInfos.end()) {
        ZLOG(eZLogError, "extInfo[%p] is not a message of Schema[%s].\n",
             static_cast<const void*>(info), _SchemaName().c_str());
        return false;
    }
    return true;
}

ZJsonArray* ResponseExtendedInfo::_MessageChild(const sExtendedInfo* info, const char* name) {
    ZObject* child = info->msgObj->GetChild(name, true);
    if (child == nullptr || child->GetType() != ZObject::eJsonArray) {
        ZLOG(eZLogError, "Message[%s] has no %s.\n", info->msgObj->GetJPath().c_str(), name);
        return nullptr;
    }
    return static_cast<ZJsonArray*>(child);
}

eRtCode ResponseExtendedInfo::_AppendArgText(sExtendedInfo* info, const std::string& jsonText) {
    if (!_CheckExtInfo(info)) return RT_FAILURE;
    ZJsonArray* args = _MessageChild(info, "MessageArgs");
    if (args == nullptr) return RT_FAILURE;
    return args->ListWriteRawString(jsonText);
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info) {
    return _AppendArgText(info, "null");
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, const char* value) {
    return _AppendArgText(info, value == nullptr ? std::string("null") : JsonQuoteString(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, char* value) {
    return ExtendedInfo_AppendMsgArg(info, static_cast<const char*>(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, bool value) {
    return _AppendArgText(info, value ? "true" : "false");
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, unsigned short value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, unsigned int value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, short value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, int value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, unsigned long value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, long value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info,
                                                        unsigned long long value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, long long value) {
    return _AppendArgText(info, std::to_string(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info, double value) {
    return _AppendArgText(info, JsonDouble(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArg(sExtendedInfo* info,
                                                        const std::string& value) {
    return _AppendArgText(info, JsonQuoteString(value));
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArgOfString(sExtendedInfo* info,
                                                                const std::string& rawJson) {
    return _AppendArgText(info, rawJson);
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendMsgArgs(sExtendedInfo* info,
                                                         const std::vector<std::string>& args) {
    if (!_CheckExtInfo(info)) return RT_FAILURE;
    eRtCode rt = RT_SUCCESS;
    for (const std::string& arg : args) {
        if (_AppendArgText(info, JsonQuoteString(arg)) != RT_SUCCESS) rt = RT_FAILURE;
    }
    return rt;
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendRelatedProperty(sExtendedInfo* info, ZObject* node,
                                                                 const std::string& property) {
    return ExtendedInfo_AppendRelatedProperties(info, node, {property});
}

eRtCode ResponseExtendedInfo::ExtendedInfo_AppendRelatedProperties(
    sExtendedInfo* info, ZObject* node, const std::vector<std::string>& properties) {
    if (!_CheckExtInfo(info)) return RT_FAILURE;
    if (mTgtResource == nullptr) {
        ZLOG(eZLogError, "Schema[%s] tgtResource is NULL.\n", _SchemaName().c_str());
        return RT_FAILURE;
    }
    ZJsonArray* related = _MessageChild(info, "RelatedProperties");
    if (related == nullptr) return RT_FAILURE;

    // The pointer is relative to the target resource's body, which the front
    // end calls "#".
    std::string base = "#/";
    if (node != nullptr) {
        base = node->GetJPath();
        const std::string target = mTgtResource->GetJPath();
        const size_t at = target.empty() ? std::string::npos : base.rfind(target);
        if (at != std::string::npos) base = "#" + base.substr(at + target.size());
        if (base.empty() || base.back() != '/') base += '/';
    }
    eRtCode rt = RT_SUCCESS;
    for (const std::string& property : properties) {
        if (related->ListWriteRawString(JsonQuoteString(base + property)) != RT_SUCCESS) {
            rt = RT_FAILURE;
        }
    }
    return rt;
}

void ResponseExtendedInfo::_DropMessage(sExtendedInfo* info) {
    ZJsonObject* node = info->msgObj;
    if (mExtInfosObj != nullptr) mExtInfosObj->ListRemove(node->GetJPath());
    // The node's keys go at once; the list entry naming it goes with the
    // array's next apply.
    node->_Destroy(ZObject::eDestroyDelete, true);
    delete info;
}

void ResponseExtendedInfo::RemoveExtendedInfo(eRespMsg msg) {
    auto keep = mExtInfos.begin();
    for (sExtendedInfo* info : mExtInfos) {
        if (info->msgId == msg) {
            _DropMessage(info);
        } else {
            *keep++ = info;
        }
    }
    mExtInfos.erase(keep, mExtInfos.end());
}

void ResponseExtendedInfo::CleanAllExtendedInfos() {
    for (sExtendedInfo* info : mExtInfos) _DropMessage(info);
    mExtInfos.clear();
}

size_t ResponseExtendedInfo::GetExtendedInfoNum() const {
    return mExtInfos.size();
}

size_t ResponseExtendedInfo::GetExtendedInfoNum(eRespMsg msg) const {
    return static_cast<size_t>(
        std::count_if(mExtInfos.begin(), mExtInfos.end(),
                      [msg](const sExtendedInfo* info) { return info->msgId == msg; }));
}

std::vector<std::string> ResponseExtendedInfo::GetAllExtInfoMsgIDs() const {
    std::vector<std::string> ids;
    ids.reserve(mExtInfos.size());
    for (const sExtendedInfo* info : mExtInfos) {
        const _sMsgAttribute* row = GetRespMsgAttribute(info->msgId);
        ids.push_back(row == nullptr ? std::string() : std::string(row->msgId));
    }
    return ids;
}

void ResponseExtendedInfo::_RewriteMessageList() {
    // Lists can only be appended to or overwritten by position, and a
    // position may not be in the store yet: take every entry out and append
    // them again in order. Applied in queue order, this gives the new order
    // whether or not the old entries had been written.
    std::vector<std::string> paths;
    paths.reserve(mExtInfos.size());
    for (const sExtendedInfo* info : mExtInfos) paths.push_back(info->msgObj->GetJPath());
    for (const std::string& path : paths) mExtInfosObj->ListRemove(path);
    for (const std::string& path : paths) mExtInfosObj->ListWriteRawString(path);
}

eRtCode ResponseExtendedInfo::InsertReturnExtendedInfo(sExtendedInfo* info) {
    if (mExtInfoJPath.empty()) {
        ZLOG(eZLogError, "mExtInfosObj is NULL.\n");
        return RT_FAILURE;
    }
    if (!_CheckExtInfo(info)) return RT_FAILURE;
    if (mExtInfos.front() == info) return RT_SUCCESS;
    mExtInfos.erase(std::find(mExtInfos.begin(), mExtInfos.end(), info));
    mExtInfos.insert(mExtInfos.begin(), info);
    _RewriteMessageList();
    return RT_SUCCESS;
}

sExtendedInfo* ResponseExtendedInfo::InsertReturnExtendedInfo_NotAllowMethod(
    const std::string& method) {
    const char* httpMethod = nullptr;
    if (method == "Create" || method == "Action") {
        httpMethod = "POST";
    } else if (method == "Update") {
        httpMethod = "PATCH";
    } else if (method == "Delete") {
        httpMethod = "DELETE";
    } else {
        ZLOG(eZLogError, "Unknown method[%s].\n", method.c_str());
        return nullptr;
    }
    if (mTgtResource == nullptr) {
        ZLOG(eZLogError, "Schema[%s] tgtResource is NULL.\n", _SchemaName().c_str());
        return nullptr;
    }
    sExtendedInfo* info =
        NewExtendedInfo(RESP_ExtErr_MethodNotAllowed, httpMethod, mTgtResource->GetJPath().c_str());
    if (info != nullptr) InsertReturnExtendedInfo(info);
    return info;
}

eRtCode ResponseExtendedInfo::ApplyExtInfoToRedis() {
    if (mExtInfoJPath.empty()) {
        ZLOG(eZLogError, "mExtInfosObj is NULL.\n");
        return RT_FAILURE;
    }
    // No message was ever made: the cleared key is all there is to show.
    if (mExtInfosObj == nullptr) return RT_SUCCESS;
    for (sExtendedInfo* info : mExtInfos) {
        ZObject* related = info->msgObj->GetChild("RelatedProperties", true);
        if (related != nullptr && related->GetType() == ZObject::eJsonArray) {
            static_cast<ZJsonArray*>(related)->_Destroy(ZObject::eDestroyDelete, true);
        }
    }
    redisContext* c = _ExtInfoContext();
    const eRtCode rt = mExtInfosObj->ApplyRedisChanges(true, c);
    if (c == nullptr) return rt;
    // Whatever the answer, nothing of it stays beyond its reading: the keys
    // are named after the target URI, which a client chooses.
    const std::string seconds = std::to_string(kExtInfoSeconds);
    std::vector<std::vector<std::string>> expire = {{"EXPIRE", mExtInfosObj->GetJPath(), seconds}};
    for (sExtendedInfo* info : mExtInfos) {
        expire.push_back({"EXPIRE", info->msgObj->GetJPath(), seconds});
        ZObject* args = info->msgObj->GetChild("MessageArgs", true);
        if (args != nullptr) expire.push_back({"EXPIRE", args->GetJPath(), seconds});
    }
    std::vector<eRtCode> results;
    if (RedisPipeline(c, expire, results) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to set the expiry of extInfoObj[%s].\n",
             mExtInfosObj->GetJPath().c_str());
    }
    return rt;
}

}  // namespace Orbel
