// The context one front-end request lives in while a plug-in serves it.
//
// The dispatcher (ZSchema_Dispatcher.cpp) builds one per request hash it
// takes off a channel, finds and assigns the target, hands it to the
// schema's handler, and finally calls SendResponseToCorvel, which writes the
// answer into the request hash in a fixed order and announces it on the
// request's return channel (docs/wire-protocol.md, "Requests").
//
// It carries the parsed request (sCRUD_ReqData, not owned), the request body
// read into the user-input cache, the handler's choices (target schema and
// resource, new instance, response data), the return status, and through
// its base ResponseExtendedInfo the Redfish messages of the answer.
//
// Defined in: HTTP_MethodContext.cpp (construction, assignments, response
// data), HTTP_MethodContext_UserInput.cpp (the body, its verification and
// the typed getters), HTTP_MethodContext_Response.cpp (the answer).
//
// Threads: used only by the dispatcher thread that made it, with that
// thread's store connection; it takes no locks of its own. Misuse (a null
// assignment, a wrong method, a second response data object) is logged and
// leaves the context as it was.
#ifndef ORBEL_HTTP_METHODCONTEXT_H
#define ORBEL_HTTP_METHODCONTEXT_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "CRUDRequest.h"
#include "ResponseExtendedInfo.h"
#include "ZUserInputTemplate.h"

namespace Orbel {

class ZBackendImpl;
class ZObject;
class ZResource;
class ZSchema;
class ZTask;

// The status of an answer: the word written into "&&ReturnStatus" and the
// HTTP code a caller may want. 0 to 2 are successes, above 2 errors.
enum eHttpRtStatus : int32_t {
    HTTP_RT_OK = 0,              // "OK", 200
    HTTP_RT_OK_RES = 1,          // "OK_RES", 201
    HTTP_RT_OK_EMPTY = 2,        // "OK_EMPTY", 204
    HTTP_RT_PROCESSING = 3,      // "PROCESSING", 202
    HTTP_RT_AUTH_FAILED = 4,     // "AUTH_FAILED", 401
    HTTP_RT_FORBIDDEN = 5,       // "FORBIDDEN", 403
    HTTP_RT_NOT_FOUND = 6,       // "NOT_FOUND", 404
    HTTP_RT_NOT_ALLOWED = 7,     // "NOT_ALLOWED", 405
    HTTP_RT_CONFLICT = 8,        // "CONFLICT", 409
    HTTP_RT_FAILURE = 9,         // "FAILURE", 400
    HTTP_RT_EXCEPTION = 10,      // "EXCEPTION", 500
    HTTP_RT_NOT_SUPPORTED = 11,  // "NOT_SUPPORTED", 501
    HTTP_RT_UNAVAILABLE = 12,    // "UNAVAILABLE", 503
    HTTP_RT_IGNORE = 13,         // "IGNORE", no HTTP code (0)
};
// The status word ("" for a value outside the table) and the HTTP code (0
// for "IGNORE" and for values outside the table).
const char* HttpRtStatusWord(eHttpRtStatus status);
int HttpRtStatusCode(eHttpRtStatus status);

class HTTP_MethodContext : public ResponseExtendedInfo {
public:
    typedef void (*ResponsedCallback_t)(void* arg);

    // Opens the answer's message array under <target URI>/<owner's channel
    // for the method>/ExtendedInfo (naming it in the request hash at once),
    // then reads the request body and the checklist when the request names
    // them. `ctx` is the dispatcher thread's connection (not owned, used for
    // every write of the context); `req` must outlive the context.
    HTTP_MethodContext(ZSchema* owner, redisContext* ctx, sCRUD_ReqData* req);
    // Retires the response data node (its store keys stay for the front
    // end) and the messages.
    ~HTTP_MethodContext() override;

    // Null is refused ("Assign a NULL pointer! schema[%s]\n").
    void AssignTargetSchema(ZSchema* schema);
    void AssignTargetResource(ZResource* resource);
    void AssignUserInputTemplate(ZObject* tmpl);
    // Only for a create request ("This is not a CREATE request! schema[%s]\n");
    // null clears.
    void AssignNewInstance(ZResource* instance);

    ZResource* GetNewInstance() const { return mNewInstance; }
    redisContext* GetRedisContext() const { return mRedisCtx; }
    ZSchema* GetOwnerSchema() const { return mOwnerSchema; }
    ZSchema* GetTargetSchema() const { return mTargetSchema; }
    ZResource* GetTargetResource() const { return mTargetResource; }
    ZObject* GetUserInputTemplate() const { return mUserInputTemplate; }
    ZObject* GetResponseDataObject() const { return mResponseData; }
    const sCRUD_ReqData* GetReqData() const { return mReqData; }
    int32_t GetReqMethod() const;
    std::string GetTargetActionName() const;  // the part of the URI behind "/Actions/"
    std::string GetSessionId() const;
    std::string GetOrigin() const;
    std::string GetRemoteIP() const;
    std::string GetUserName() const;
    uint32_t GetPrivileges() const;
    bool GetAsyncUploadMethod() const { return mAsyncUploadMethod; }
    // The target schema's backend; null (logged) without a target schema.
    ZBackendImpl* GetBackendImpl();

    eHttpRtStatus GetReturnStatus() const { return mReturnStatus; }
    // Sets the status; a non-null `info` (one of this context's messages)
    // becomes the answer's leading message.
    void SetReturnStatus(eHttpRtStatus status, sExtendedInfo* info = nullptr);
    int GetHttpRtCode() const { return HttpRtStatusCode(mReturnStatus); }

    void RegisterResponsedCallback(ResponsedCallback_t fn, void* arg);
    // Written into the request hash with the answer, in name order.
    void AppendAdditionalReturnData(const std::string& name, const std::string& value);
    // Deleted from the request-data hash when the answer is sent.
    void AppendRequestDataFieldToDelete(const std::string& name);

    // The response data of an action: type 0 a JSON object, 1 a JSON array,
    // under <target URI>/ResponseData, owned by the context. Null (logged)
    // for other methods, resource types and unknown types; a second call
    // returns the first node (warning).
    ZObject* NewResponseDataObject(unsigned char type);

    // Every user value as "<JPath>:<value>" joined by ",", objects and arrays
    // left out, secret-like values (by flag or by name) as "******".
    std::string GetAllUsrParams() const;

    // ---------------------------------------------------------------------
    // User input (HTTP_MethodContext_UserInput.cpp): the request body read
    // into one cache at construction (ZUserInputTemplate::ParserUserInputData;
    // keys "/Boot/BootSourceOverrideTarget", "/Names/0"), checked against a
    // template, and read back by the handler.
    // ---------------------------------------------------------------------
    const UsrInCache& GetUserInCache() const { return mUserInCache; }
    const std::map<std::string, std::string>& GetChecklist() const { return mChecklist; }
    // Checks the body against `tmpl` for this request's method (an action's
    // parameters under "/Actions/#<action>"), after copying the template's
    // property flags into the cache. Every fault becomes a message of this
    // context; a refused body sets "FAILURE", a template that did not load
    // "EXCEPTION". Returns 0 when the body passes (or the template asks for no
    // verification), else the verifier's code (2, 13, or AttachCache's).
    eRtCode VerifyUserInputData(ZUserInputTemplate* tmpl);
    // Copies the template's property flags (SecureProperty, LifeCycleEvent)
    // into the cache, so that GetAllUsrParams masks SecureProperty values.
    void AssignUsrInPptFlagFromUsrInTemplate(ZUserInputTemplate* tmpl);

    // Typed reads of one user value. 0; 5 when the JPath is not in the
    // cache ("Cannot find [%s] in user input cache.\n"); 13 when the value
    // does not fit the type asked for (a negative number into an unsigned
    // type, a number out of the type's range, a container into a scalar).
    // `out` is unchanged on failure. A string may be read from any scalar
    // (numbers and booleans as written, null as "null").
    eRtCode GetUserInputData(const std::string& jpath, bool& out) const;
    eRtCode GetUserInputData(const std::string& jpath, int& out) const;
    eRtCode GetUserInputData(const std::string& jpath, long& out) const;
    eRtCode GetUserInputData(const std::string& jpath, long long& out) const;
    eRtCode GetUserInputData(const std::string& jpath, unsigned int& out) const;
    eRtCode GetUserInputData(const std::string& jpath, unsigned long& out) const;
    eRtCode GetUserInputData(const std::string& jpath, unsigned long long& out) const;
    eRtCode GetUserInputData(const std::string& jpath, double& out) const;
    eRtCode GetUserInputData(const std::string& jpath, std::string& out) const;
    // Into a caller's buffer of `size` bytes, always terminated; 13 when the
    // text (with its terminator) does not fit (nothing is written then).
    eRtCode GetUserInputData(const std::string& jpath, char* buf, unsigned int size) const;
    bool HasUserInputData(const std::string& jpath) const { return mUserInCache.count(jpath) != 0; }
    // The item count of an array value; 13 for any other type.
    eRtCode GetUserInputListSize(const std::string& jpath, unsigned int& size) const;
    // The bytes of a string value in a new[] buffer the caller frees with
    // delete[] (`*len` its length; a string may hold any byte the client
    // escaped, "\u0000" included). 13 for any other type.
    eRtCode GetUserInputBinData(const std::string& jpath, unsigned char** data,
                                unsigned int* len) const;
    // The direct members of an object (or the items of an array) by their
    // last JPath component. 13 for a scalar.
    eRtCode GetUserInputDatas(const std::string& jpath, UsrInCache& out) const;
    // The items of an array as texts: scalars as their value, a link object
    // as its "@odata.id". A container item without a link fails the call
    // ("Item jPath[%s] is not found in the user input cache.\n"); so does a
    // missing or non-array `jpath` (logged). `out` is replaced on success.
    eRtCode TranslateArray(const std::string& jpath, std::vector<std::string>& out) const;

    // A user value as the argument of a message: strings as text (masked
    // for a SecureProperty or secret-like name), numbers and booleans as
    // numbers and booleans, null "null", an object "{}", an array "[]".
    // 5 when the JPath is not in the cache ("Cannot find [%s] in mUserInCache!.\n").
    eRtCode ExtendedInfo_AppendMsgArgOfUserInData(sExtendedInfo* info, const std::string& jpath);
    // The same value as text ("" when not in the cache, logged).
    std::string GetExtInfoArgByUserInDataJPath(const std::string& jpath) const;

    // Log text of the cache (values masked as in GetAllUsrParams), of one
    // object's members, and of the checklist; raw lines under "ZComLib",
    // returned as well.
    std::string DumpUserInputCache() const;
    std::string DumpUserInputDatas(const std::string& jpath) const;
    std::string DumpChecklistDatas() const;

    // Runs the rest of the request as a task (HTTP_MethodContext_Task.cpp):
    // builds a ZTask for the target schema and resource with `run` and
    // `arg`, verifies the body against the target's template, reads the
    // upload parameters of an asynchronous upload, then answers
    // "PROCESSING" with the task monitor and starts the task. `autoRecycle`
    // lets the task end itself after its work (ZTask::SetAutoRecycleSelf).
    // Needs the target schema and resource and the request's "&&Task"
    // (prepared by the front end); without them, or when the task cannot
    // start, the answer is "EXCEPTION" with "Base.1.12.InternalError" and no
    // task is left. Returns 0 when the task runs.
    eRtCode CreateTask(eRtCode (*run)(ZTask*), void* arg, bool autoRecycle = true);

    // Writes the answer into the request hash and publishes it (see
    // HTTP_MethodContext_Response.cpp for the order). Called once, by the
    // dispatcher, after the handler. Returns 0, or 2 when the publish failed.
    eRtCode SendResponseToCorvel();

private:
    // Reads the request-data tree into mUserInCache. A body that could not
    // be read whole leaves mUserInFault filled: VerifyUserInputData then
    // refuses it, so no handler sees a part of a body.
    void _ParserUserInputData();
    // Reads the request's checklist hash into mChecklist.
    void _ParserChecklistData();
    const sUsrInCacheItem* _FindUserInput(const std::string& jpath) const;
    // The value text of an item as logs and arguments show it (masked).
    std::string _ShownValue(const std::string& jpath, const sUsrInCacheItem& item) const;
    // Step 2 of the answer: error answers drop "not writable" notes that are
    // not their only messages.
    void _DropNotWritableNotes();
    // Step 9 of the answer: waits for the front end to release `lockKey`.
    void _WaitLockReleaseThenCallback(const std::string& lockKey);
    // CreateTask's reading of the upload parameters into `task`.
    void _ReadAsyncUploadParams(ZTask* task);
    // A task that will not run: its messages array gives way to ours again.
    void _DropUnstartedTask(ZTask* task);
    const char* _OwnerName() const;

    redisContext* const mRedisCtx;
    sCRUD_ReqData* const mReqData;
    ZSchema* const mOwnerSchema;
    ZSchema* mTargetSchema = nullptr;
    ZResource* mTargetResource = nullptr;
    ZResource* mNewInstance = nullptr;
    ZObject* mUserInputTemplate = nullptr;
    ZObject* mResponseData = nullptr;  // owned
    eHttpRtStatus mReturnStatus = HTTP_RT_OK;
    UsrInCache mUserInCache;
    sUsrInReadFault mUserInFault;
    std::map<std::string, std::string> mChecklist;
    std::set<std::string> mRequestDataFieldsToDelete;
    std::map<std::string, std::string> mAdditionalReturnData;
    ResponsedCallback_t mResponsedCallback = nullptr;
    void* mResponsedCallbackArg = nullptr;
    bool mAsyncUploadMethod = false;
    bool mTaskStarted = false;
    // The started task, held until the answer is published (then null).
    ZTask* mTask = nullptr;
};

}  // namespace Orbel

#endif  // ORBEL_HTTP_METHODCONTEXT_H
