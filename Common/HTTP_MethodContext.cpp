// The request context: construction, assignments and response data.
#include "HTTP_MethodContext.h"

#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"
#include "ZTask.h"

namespace Orbel {

namespace {

struct sStatusRow {
    const char* word;
    int code;
};
const sStatusRow kStatusRows[] = {
    {"OK", 200},         {"OK_RES", 201},        {"OK_EMPTY", 204},      {"PROCESSING", 202},
    {"AUTH_FAILED", 401}, {"FORBIDDEN", 403},    {"NOT_FOUND", 404},     {"NOT_ALLOWED", 405},
    {"CONFLICT", 409},   {"FAILURE", 400},       {"EXCEPTION", 500},     {"NOT_SUPPORTED", 501},
    {"UNAVAILABLE", 503}, {"IGNORE", 0},
};
constexpr int kStatusNum = sizeof(kStatusRows) / sizeof(kStatusRows[0]);

}  // namespace

const char* HttpRtStatusWord(eHttpRtStatus status) {
    int v = static_cast<int>(status);
    return v >= 0 && v < kStatusNum ? kStatusRows[v].word : "";
}

int HttpRtStatusCode(eHttpRtStatus status) {
    int v = static_cast<int>(status);
    return v >= 0 && v < kStatusNum ? kStatusRows[v].code : 0;
}

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

HTTP_MethodContext::HTTP_MethodContext(ZSchema* owner, redisContext* ctx, sCRUD_ReqData* req)
    : ResponseExtendedInfo(nullptr, nullptr, ctx), mRedisCtx(ctx), mReqData(req),
      mOwnerSchema(owner) {
    if (mReqData == nullptr) {
        ZLOG(eZLogError, "Request data is NULL! schema[%s]\n", _OwnerName());
        return;
    }
    // A request of an unknown method still gets its messages, under the
    // channel it came on.
    std::string channel = mReqData->channel;
    if (mOwnerSchema != nullptr && mReqData->method >= 0 && mReqData->method < eReqMethodNum) {
        channel = mOwnerSchema->GetCRUDqChannel(static_cast<eReqMethod>(mReqData->method));
    }
    if (!channel.empty()) {
        NewExtInfoObj(mReqData->reqKey, mReqData->targetUri + "/" + channel + "/ExtendedInfo");
    }
    mAsyncUploadMethod = mReqData->transferMethod != eReqTransferNone;
    if (!mReqData->requestDataKey.empty()) _ParserUserInputData();
    if (!mReqData->checklistKey.empty()) _ParserChecklistData();
}

HTTP_MethodContext::~HTTP_MethodContext() {
    // A context that never answered still lets its task's work go.
    if (mTask != nullptr) mTask->_ReleaseWork(std::string());
    mTask = nullptr;
    // The front end reads the response data after the context is gone: its
    // keys stay; the next response data under the same JPath replaces them.
    if (mResponseData != nullptr) mResponseData->ObjDestroy(ZObject::eDestroyDelete, false);
    mResponseData = nullptr;
}

const char* HTTP_MethodContext::_OwnerName() const {
    return mOwnerSchema != nullptr ? mOwnerSchema->GetName().c_str() : "NULL";
}

// ---------------------------------------------------------------------------
// Assignments and getters
// ---------------------------------------------------------------------------

void HTTP_MethodContext::AssignTargetSchema(ZSchema* schema) {
    if (schema == nullptr) {
        ZLOG(eZLogError, "Assign a NULL pointer! schema[%s]\n", _OwnerName());
        return;
    }
    mTargetSchema = schema;
    mSchema = schema;
}

void HTTP_MethodContext::AssignTargetResource(ZResource* resource) {
    if (resource == nullptr) {
        ZLOG(eZLogError, "Assign a NULL pointer! schema[%s]\n", _OwnerName());
        return;
    }
    mTargetResource = resource;
    mTgtResource = resource;
}

void HTTP_MethodContext::AssignUserInputTemplate(ZObject* tmpl) {
    if (tmpl == nullptr) {
        ZLOG(eZLogError, "Assign a NULL pointer! schema[%s]\n", _OwnerName());
        return;
    }
    mUserInputTemplate = tmpl;
}

void HTTP_MethodContext::AssignNewInstance(ZResource* instance) {
    if (GetReqMethod() != eReqCreate) {
        ZLOG(eZLogError, "This is not a CREATE request! schema[%s]\n", _OwnerName());
        return;
    }
    mNewInstance = instance;
}

int32_t HTTP_MethodContext::GetReqMethod() const {
    return mReqData != nullptr ? mReqData->method : -1;
}
std::string HTTP_MethodContext::GetTargetActionName() const {
    return mReqData != nullptr ? mReqData->targetAction : std::string();
}
std::string HTTP_MethodContext::GetSessionId() const {
    return mReqData != nullptr ? mReqData->authSessionId : std::string();
}
std::string HTTP_MethodContext::GetOrigin() const {
    return mReqData != nullptr ? mReqData->origin : std::string();
}
std::string HTTP_MethodContext::GetRemoteIP() const {
    return mReqData != nullptr ? mReqData->remoteIp : std::string();
}
std::string HTTP_MethodContext::GetUserName() const {
    return mReqData != nullptr ? mReqData->userName : std::string();
}
uint32_t HTTP_MethodContext::GetPrivileges() const {
    return mReqData != nullptr ? mReqData->userPrivileges : 0;
}

ZBackendImpl* HTTP_MethodContext::GetBackendImpl() {
    if (mTargetSchema == nullptr) {
        ZLOG(eZLogError, "Target schema is NULL! schema[%s]\n", _OwnerName());
        return nullptr;
    }
    return mTargetSchema->GetBackendImpl();
}

void HTTP_MethodContext::SetReturnStatus(eHttpRtStatus status, sExtendedInfo* info) {
    mReturnStatus = status;
    if (info != nullptr) InsertReturnExtendedInfo(info);
}

void HTTP_MethodContext::RegisterResponsedCallback(ResponsedCallback_t fn, void* arg) {
    mResponsedCallback = fn;
    mResponsedCallbackArg = arg;
}

void HTTP_MethodContext::AppendAdditionalReturnData(const std::string& name,
                                                    const std::string& value) {
    mAdditionalReturnData[name] = value;
}

void HTTP_MethodContext::AppendRequestDataFieldToDelete(const std::string& name) {
    mRequestDataFieldsToDelete.insert(name);
}

ZObject* HTTP_MethodContext::NewResponseDataObject(unsigned char type) {
    if (GetReqMethod() != eReqAction) {
        ZLOG(eZLogError, "Only Action request can create response data.\n");
        return nullptr;
    }
    if (mResponseData != nullptr) {
        ZLOG(eZLogWarning, "Shouldn't new response data object twice.\n");
        return mResponseData;
    }
    const std::string jpath = mReqData->targetUri + "/ResponseData";
    ZObject* node = nullptr;
    switch (type) {
        case ZObject::eJsonObject:
            node = new ZJsonObject(nullptr, jpath);
            break;
        case ZObject::eJsonArray:
            node = new ZJsonArray(nullptr, jpath);
            break;
        case ZObject::eResource:
        case ZObject::eResourceCollection:
            ZLOG(eZLogError, "Shouldn't create a resource for HTTP response data object.\n");
            return nullptr;
        default:
            ZLOG(eZLogError, "Unknown type[%d].\n", static_cast<int>(type));
            return nullptr;
    }
    if (node->GetJPath().empty() || node->IsDied()) {
        ZLOG(eZLogError, "Failed to create response data[%s].\n", jpath.c_str());
        node->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    mResponseData = node;
    return node;
}

}  // namespace Orbel
