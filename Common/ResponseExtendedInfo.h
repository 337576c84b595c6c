// Redfish extended-info messages of a response or a task, and the message
// registry they are drawn from.
//
// A ResponseExtendedInfo collects the messages ("@Message.ExtendedInfo"
// entries) of one response as a small tree of nodes mirrored into the store,
// where the front end reads them: a JSON array without parent (mExtInfosObj)
// whose list holds the JPaths of the message nodes, one JSON object per
// message with its MessageId and two child arrays, MessageArgs and
// RelatedProperties. docs/wire-protocol.md ("Extended info") gives the exact
// layout. The text of a message is not built here: the front end expands the
// MessageId with the arguments.
//
// The request context (HTTP_MethodContext) and tasks (ZTask) derive from this
// class; the members they need are protected.
//
// Every message is one row of the fixed registry eRespMsg; its row gives the
// MessageId and the number and kinds of the arguments (_sMsgAttribute,
// GetRespMsgAttribute, RespMsgID2Str).
//
// Threads. An instance is used by one thread at a time: the request's
// dispatcher thread, or the task's thread (a task is built on one thread and
// then handed to its own; the hand-over is the only change of thread). It
// takes no locks of its own. Its store connection belongs to whichever thread
// uses the instance at the moment. The registry is a constant table: any
// thread may read it at any time.
//
// Ownership. The instance owns mExtInfosObj (and through it every message
// node) and every sExtendedInfo record. An sExtendedInfo* handed out by
// NewExtendedInfo stays valid until its message is removed
// (RemoveExtendedInfo, CleanAllExtendedInfos) or the instance is destroyed.
//
// Misuse (no message array yet, a null or foreign message, an empty JPath, no
// target resource) is logged at ERROR with a fixed text and the call returns
// without changing anything.
#ifndef ORBEL_RESPONSEEXTENDEDINFO_H
#define ORBEL_RESPONSEEXTENDEDINFO_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "OrbelDefs.h"

namespace Orbel {

class ZJsonArray;
class ZJsonObject;
class ZObject;
class ZResource;
class ZSchema;

// ---------------------------------------------------------------------------
// The message registry
// ---------------------------------------------------------------------------

// Index of a registry row. Values 95 to 98 have no row.
enum eRespMsg : int32_t {
    RESP_Base_Created = 0,
    RESP_Base_CreateLimitReachedForResource = 1,
    RESP_Base_EmptyJSON = 2,
    RESP_Base_InternalError = 3,
    RESP_Base_InsufficientPrivilege = 4,
    RESP_Base_NoOperation = 5,
    RESP_Base_NoValidSession = 6,
    RESP_Base_ResourceCannotBeDeleted = 7,
    RESP_Base_ResourceInUse = 8,
    RESP_Base_SessionLimitExceeded = 9,
    RESP_Base_Success = 10,
    RESP_Base_ActionNotSupported = 11,
    RESP_Base_CreateFailedMissingReqProperties = 12,
    RESP_Base_InvalidIndex = 13,
    RESP_Base_InvalidObject = 14,
    RESP_Base_PasswordChangeRequired = 15,
    RESP_Base_PropertyDuplicate = 16,
    RESP_Base_PropertyUnknown = 17,
    RESP_Base_PropertyValueError = 18,
    RESP_Base_PropertyNotWritable = 19,
    RESP_Base_PropertyMissing = 20,
    RESP_Base_CouldNotEstablishConnection = 21,
    RESP_Base_ResourceMissingAtURI = 22,
    RESP_Base_ChassisPowerStateOnRequired = 23,
    RESP_Base_ChassisPowerStateOffRequired = 24,
    RESP_Base_ResourceExhaustion = 25,
    RESP_Base_ResourceCreationConflict = 26,
    RESP_Base_ActionParameterMissing = 27,
    RESP_Base_ActionParameterDuplicate = 28,
    RESP_Base_ActionParameterUnknown = 29,
    RESP_Base_ActionParameterNotSupported = 30,
    RESP_Base_PropertyValueTypeError = 31,
    RESP_Base_PropertyValueFormatError = 32,
    RESP_Base_PropertyValueNotInList = 33,
    RESP_Base_PropertyValueConflict = 34,
    RESP_Base_ResourceNotFound = 35,
    RESP_Base_SourceDoesNotSupportProtocol = 36,
    RESP_Base_StringValueTooLong = 37,
    RESP_Base_ActionParameterValueTypeError = 38,
    RESP_Base_ActionParameterValueFormatError = 39,
    RESP_Base_ActionParameterValueNotInList = 40,
    RESP_Base_ResourceAlreadyExists = 41,
    RESP_Base_PropertyValueResourceConflict = 42,
    RESP_ExtErr_AccountLockout = 43,
    RESP_ExtErr_BadRequest = 44,
    RESP_ExtErr_Conflict = 45,
    RESP_ExtErr_ContentTypeHeaderNotSatisfied = 46,
    RESP_ExtErr_CancelAsyncTaskFailed = 47,
    RESP_ExtErr_CancelAsyncTaskTimeout = 48,
    RESP_ExtErr_InvalidCredentials = 49,
    RESP_ExtErr_InvalidLoginBody = 50,
    RESP_ExtErr_InvalidBasicAuthorizationString = 51,
    RESP_ExtErr_MissingUsername = 52,
    RESP_ExtErr_MissingPassword = 53,
    RESP_ExtErr_ModuleError = 54,
    RESP_ExtErr_NoContent = 55,
    RESP_ExtErr_NotImplementedHttpMethod = 56,
    RESP_ExtErr_Processing = 57,
    RESP_ExtErr_PhysicalPresenceError = 58,
    RESP_ExtErr_RebootRequired = 59,
    RESP_ExtErr_RequestUriNotFound = 60,
    RESP_ExtErr_SessionFull = 61,
    RESP_ExtErr_SessionNotExist = 62,
    RESP_ExtErr_ServiceUnavailable = 63,
    RESP_ExtErr_ServiceDisabled = 64,
    RESP_ExtErr_TaskCreationLimitExceeded = 65,
    RESP_ExtErr_Unauthorized = 66,
    RESP_ExtErr_TooManyRequests = 67,
    RESP_ExtErr_SystemWillReboot = 68,
    RESP_ExtErr_QueryParameterUnknown = 69,
    RESP_ExtErr_ServiceTemporarilyUnavailable = 70,
    RESP_ExtErr_MethodNotAllowed = 71,
    RESP_ExtErr_ScheduledPowerActionStartedSuccessfully = 72,
    RESP_ExtErr_ScheduledPowerActionStartedFailed = 73,
    RESP_Base_ResetRequired = 74,
    RESP_ExtErr_DownloadingFailure = 75,
    RESP_ExtErr_TransferringTimeout = 76,
    RESP_ExtErr_FirmwareImageInvalid = 77,
    RESP_ExtErr_FirmwareUpdateNeedHostPowerOn = 78,
    RESP_ExtErr_FirmwareUpdateNeedHostPowerOff = 79,
    RESP_ExtErr_FirmwareMinVersionViolation = 80,
    RESP_ExtErr_FirmwareRollbackNotAllowed = 81,
    RESP_ExtErr_TargetInvalid = 82,
    RESP_ExtErr_FirmwareUpdateNeedRedundantMode = 83,
    RESP_ExtErr_ResourceTransferInProgress = 84,
    RESP_ExtErr_ResourceTransferComplete = 85,
    RESP_ExtErr_ResourceTransferStarted = 86,
    RESP_ExtErr_ResourceTransferFailed = 87,
    RESP_ExtErr_FirmwareUpdateIntention = 88,
    RESP_ExtErr_FirmwareImageNotMatchTarget = 89,
    RESP_Task_TaskStarted = 90,
    RESP_Task_TaskCompletedOK = 91,
    RESP_Task_TaskCompletedWarning = 92,
    RESP_Task_TaskAborted = 93,
    RESP_Task_TaskProgressChanged = 94,
    RESP_LogSvc_DiagnosticDataCollected = 99,
    RESP_FwUpd_UpdateTransferCompleted = 100,
    RESP_FwUpd_UpdateVerifyCompleted = 101,
    RESP_FwUpd_UpdateTransferInProgress = 102,
    RESP_FwUpd_UpdateVerifyInProgress = 103,
    RESP_FwUpd_PayloadTransferCompleted = 104,
    RESP_FwUpd_PayloadVerifyCompleted = 105,
    RESP_FwUpd_PayloadApplyCompleted = 106,
    RESP_FwUpd_PayloadActivationCompleted = 107,
    RESP_FwUpd_NoApplicableDevice = 108,
    RESP_FwUpd_UpdateVerifyFailed = 109,
    RESP_FwUpd_PayloadTransferInProgress = 110,
    RESP_FwUpd_PayloadVerifyInProgress = 111,
    RESP_FwUpd_PayloadApplyInProgress = 112,
    RESP_FwUpd_PayloadActivationRequired = 113,
    RESP_FwUpd_UpdateTransferFailed = 114,
    RESP_FwUpd_PayloadVerifyFailed = 115,
    RESP_FwUpd_PayloadApplyFailed = 116,
    RESP_FwUpd_PayloadActivationFailed = 117,
    RESP_FwUpd_PayloadTransferFailed = 118,
    RESP_FwUpd_UpdateAssignment = 119,
    RESP_ExtWarn_AccountAccessIPMIDenied = 120,
    RESP_ExtWarn_LocalFileInvalidSize = 121,
    RESP_ExtWarn_MissingSNMPv3Settings = 122,
    RESP_ExtWarn_UpdateSNMPv3Settings = 123,
    RESP_ExtWarn_UnencryptStorageNotAllowed = 124,
    RESP_ExtWarn_ReceivedUntrustedCertificate = 125,
    RESP_ExtWarn_LocalFileNotFound = 126,
    RESP_ExtWarn_LocalFileLocked = 127,
    RESP_ExtWarn_CertificateMissing = 128,
    RESP_ExtWarn_CertificateInvalid = 129,
    RESP_ExtWarn_PropertyValueLengthViolation = 130,
    RESP_ExtWarn_ResourceChangeRequried = 131,

    RESP_MSG_NUM = 132,  // one past the last value; the size of the registry
};

// Kind of one message argument.
enum eArgType : uint8_t {
    ARG_NONE = 0,
    ARG_STRING = 1,
    ARG_NUMBER = 2,
};

// Most arguments a message takes.
constexpr unsigned kMaxMsgArgs = 6;

// One registry row: the MessageId and the kinds of the arguments in order.
struct _sMsgAttribute {
    const char* msgId = nullptr;  // null for a value without a row
    uint32_t argNum = 0;          // the leading kinds that are not ARG_NONE
    eArgType argType[kMaxMsgArgs] = {ARG_NONE, ARG_NONE, ARG_NONE, ARG_NONE, ARG_NONE, ARG_NONE};

    constexpr _sMsgAttribute() = default;
    // Counts the leading kinds that are not ARG_NONE: a kind after the first
    // ARG_NONE does not make an argument.
    constexpr _sMsgAttribute(const char* id, eArgType a1, eArgType a2, eArgType a3, eArgType a4,
                             eArgType a5, eArgType a6)
        : msgId(id), argNum(0), argType{a1, a2, a3, a4, a5, a6} {
        while (argNum < kMaxMsgArgs && argType[argNum] != ARG_NONE) ++argNum;
    }
};

// The row of `msg`, or null (logged) for a value without a row. The table is
// constant: built at compile time, it exists before any code of the process
// runs and is never written.
const _sMsgAttribute* GetRespMsgAttribute(eRespMsg msg);

// The MessageId text of `msg`; "" (logged "Unknown eRespMsg[%d].\n") for a
// value without a row.
std::string RespMsgID2Str(eRespMsg msg);

// ---------------------------------------------------------------------------
// Messages
// ---------------------------------------------------------------------------

// One message. Both pointers belong to the ResponseExtendedInfo that made it.
struct sExtendedInfo {
    eRespMsg msgId;
    ZJsonObject* msgObj;  // the message node, a child of mExtInfosObj
};

class ResponseExtendedInfo {
public:
    // Opens the instance's own store connection; on failure logs "Failed to
    // connect to Redis.\n" and works on with connections opened per write.
    // `schema` (used in log texts) and `tgtResource` (the base of related
    // property pointers) may be null.
    ResponseExtendedInfo(ZSchema* schema, ZResource* tgtResource);
    // As above, but writes on `borrowed` (the caller's connection, which must
    // outlive this instance and belong to the same thread) instead of opening
    // one: a request context writes on its dispatcher's connection. A
    // borrowed connection that fails is replaced by one of the instance's own.
    ResponseExtendedInfo(ZSchema* schema, ZResource* tgtResource, redisContext* borrowed);
    // Retires every message node and the message array without touching the
    // store (the front end may still be reading the response), frees the
    // records and closes the connection.
    virtual ~ResponseExtendedInfo();

    ResponseExtendedInfo(const ResponseExtendedInfo&) = delete;
    ResponseExtendedInfo& operator=(const ResponseExtendedInfo&) = delete;

    // Opens the message array under `extInfoObjJPath` (any data left under
    // that key is removed) and sets field "&&ExtendedInfo" of hash `reqKey`
    // to that JPath, at once. The array's node is made with the first
    // message (most answers have none). Returns 0 on success (also when the array
    // exists already: a second call does nothing), 13 for an empty JPath
    // (logged) or an empty `reqKey` (silently: there is no request to name
    // the array in), 2 when the array cannot be made (its JPath is taken,
    // no application) or the hash field cannot be written (logged; the
    // array stays).
    eRtCode NewExtInfoObj(const std::string& reqKey, const std::string& extInfoObjJPath);

    // Adds one message of row `msg` (node named by the message counter) and
    // returns its record, owned by this instance. Null, logged, without a
    // message array ("mExtInfosObj is NULL.\n") or for a value without a row.
    sExtendedInfo* NewExtendedInfo(eRespMsg msg);
    // As above, then appends each argument, in order, as a JSON string. The
    // arguments are C strings (char arrays, const char*, char*).
    template <typename... Args>
    sExtendedInfo* NewExtendedInfo(eRespMsg msg, const Args&... args) {
        static_assert((std::is_convertible<const Args&, const char*>::value && ...),
                      "the arguments of this form are C strings");
        sExtendedInfo* info = NewExtendedInfo(msg);
        if (info != nullptr) (ExtendedInfo_AppendMsgArg(info, static_cast<const char*>(args)), ...);
        return info;
    }

    // Append one argument to the message's "MessageArgs", in its JSON form:
    // no value and a null C string give null; strings are JSON strings
    // (quote, backslash and control characters escaped, kept byte for byte
    // otherwise, trailing blanks included); bool gives true/false; integers
    // are decimal; a double is the shortest "%g" text that reads back as the
    // same value, null when it is not finite. Each returns 0, or 2 (logged)
    // for a null record ("extInfo is NULL pointer.\n") or a record that is
    // not a message of this instance.
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, const char* value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, char* value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, bool value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, unsigned short value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, unsigned int value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, short value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, int value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, unsigned long value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, long value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, unsigned long long value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, long long value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, double value);
    eRtCode ExtendedInfo_AppendMsgArg(sExtendedInfo* info, const std::string& value);
    // Appends `rawJson` as it is: the caller vouches that it is one JSON value.
    eRtCode ExtendedInfo_AppendMsgArgOfString(sExtendedInfo* info, const std::string& rawJson);
    // Appends each text as a JSON string, in order.
    eRtCode ExtendedInfo_AppendMsgArgs(sExtendedInfo* info, const std::vector<std::string>& args);

    // Appends the JSON pointer of `property` of `node` to the message's
    // "RelatedProperties": "#/" + property for a null node; otherwise the
    // node's JPath whose part up to and including the last occurrence of the
    // target resource's JPath is replaced by "#", a "/" unless it ends with
    // one, and the property. A node outside the target resource keeps its
    // whole JPath. Returns 0, or 2 (logged) for a null or foreign record, no
    // target resource ("Schema[%s] tgtResource is NULL.\n") or a message whose
    // related properties are gone (ApplyExtInfoToRedis retires them).
    // The pointers never reach a client: the message writer retires the list
    // before it writes (docs/extended-info.md, "Related properties").
    eRtCode ExtendedInfo_AppendRelatedProperty(sExtendedInfo* info, ZObject* node,
                                               const std::string& property);
    eRtCode ExtendedInfo_AppendRelatedProperties(sExtendedInfo* info, ZObject* node,
                                                 const std::vector<std::string>& properties);

    // Removes every message of row `msg`: its JPath from the array's list
    // (queued, written by the next ApplyExtInfoToRedis), its node and its
    // child arrays at once (store keys included), its record. No message of
    // that row (or no array) changes nothing.
    void RemoveExtendedInfo(eRespMsg msg);
    // Removes every message the same way. The message counter is kept, so
    // later messages still get fresh node names.
    void CleanAllExtendedInfos();

    size_t GetExtendedInfoNum() const;
    size_t GetExtendedInfoNum(eRespMsg msg) const;
    // The MessageId texts of all messages, in list order.
    std::vector<std::string> GetAllExtInfoMsgIDs() const;

    // Makes `info` the response's leading message (a response names its main
    // reason first): it moves to the front of the list, in the store with the
    // next ApplyExtInfoToRedis. Returns 0, or 2 (logged) for a null or
    // foreign record or without a message array.
    eRtCode InsertReturnExtendedInfo(sExtendedInfo* info);
    // Adds, as the leading message, "ExtendedError.1.2.MethodNotAllowed" with
    // the HTTP method of the request word ("Create" and "Action": "POST",
    // "Update": "PATCH", "Delete": "DELETE") and the target resource's URI.
    // Returns the new message, or null (logged): for any other word
    // ("Unknown method[%s].\n"), without a target resource, without a
    // message array.
    sExtendedInfo* InsertReturnExtendedInfo_NotAllowMethod(const std::string& method);

    // Writes the messages into the store: first every message's
    // "RelatedProperties" array is retired with its store key (destroy mode
    // delete), then every pending change of the message array and its
    // nodes is written in one pass. So related properties never reach the
    // store; docs/wire-protocol.md says what a reader finds instead.
    // Every key of the messages then expires kExtInfoSeconds later: the
    // front end reads them at once, and a refused request (a POST to any
    // action name, a 403) must not grow the store for good.
    // Returns the apply's result, or 2 (logged) without a message array.
    eRtCode ApplyExtInfoToRedis();
    static constexpr unsigned kExtInfoSeconds = 60;

protected:
    // The instance's store connection, reopened when it has failed. May be
    // null (then each write opens its own).
    redisContext* _ExtInfoContext();
    // True when `info` is one of this instance's messages; logs otherwise.
    bool _CheckExtInfo(const sExtendedInfo* info);
    // The child array `name` of a message node, or null (logged).
    ZJsonArray* _MessageChild(const sExtendedInfo* info, const char* name);
    eRtCode _AppendArgText(sExtendedInfo* info, const std::string& jsonText);
    // Retires one message (node and record); the caller erases it from mExtInfos.
    void _DropMessage(sExtendedInfo* info);
    // Queues the array's list rewritten in the order of mExtInfos.
    void _RewriteMessageList();
    // The message array's node, made on first use; null (logged) when it
    // cannot be made.
    ZJsonArray* _ExtInfosArray();
    std::string _SchemaName() const;

    ZSchema* mSchema;                       // may be null; set again by the request context
    ZResource* mTgtResource;                // may be null
    ZJsonArray* mExtInfosObj = nullptr;     // owned; null until the first message
    std::string mExtInfoJPath;              // set by NewExtInfoObj
    std::vector<sExtendedInfo*> mExtInfos;  // owned, in creation (list) order
    uint32_t mExtInfoCounter = 0;           // messages made so far; names the nodes
    redisContext* mExtInfoCtx = nullptr;    // see _ExtInfoContext
    bool mExtInfoCtxOwned = true;           // false while mExtInfoCtx is borrowed
};

}  // namespace Orbel

#endif  // ORBEL_RESPONSEEXTENDEDINFO_H
