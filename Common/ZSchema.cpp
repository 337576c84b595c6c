// ZSchema: construction, registration with the application, the staged
// initialisation hooks and the resource map. The request paths and the
// resource lifecycle join this file with the object model.
#include "ZSchema.h"

#include <string>
#include <string_view>

#include "CRUDRequest.h"
#include "HTTP_MethodContext.h"
#include "ZApplication.h"
#include "ZBackendImpl.h"
#include "ZLogPrint.h"

namespace Orbel {

namespace {

// The word that ends a CRUD queue's channel name, by method.
const char* QueueWord(eReqMethod method) {
    switch (method) {
        case eReqCreate:
            return "POSTCREATEQ";
        case eReqRead:
            return "GETQ";
        case eReqUpdate:
            return "PATCHQ";
        case eReqDelete:
            return "DELETEQ";
        case eReqAction:
            return "POSTACTIONQ";
        default:
            return nullptr;
    }
}

}  // namespace

ZSchema::ZSchema(const std::string& name, const std::string& version, uint32_t crudqFlag,
                 const std::string& memberSchemaName)
    : mName(name), mVersion(version), mMemberSchemaName(memberSchemaName), mCRUDqFlag(crudqFlag) {}

ZSchema::~ZSchema() {
    // No dispatcher may serve a request of a schema that is going.
    WaitThreadsExit();
    // A resource keeps a pointer to its schema until it is retired.
    _RetireOwnedResources();
    // The application deletes its schemas in list order; a schema deleted
    // any other way must not stay listed as a dangling pointer.
    if (mOwnerApp != nullptr) mOwnerApp->SchemaListRemove(this);
    delete mBackendImpl.exchange(nullptr);
}

eRtCode ZSchema::Init() {
    ZApplication* app = zApp;
    if (app == nullptr) {
        ZLOG(eZLogError, "Schema[%s]: no application to register with.\n", mName.c_str());
        return RT_FAILURE;
    }
    eRtCode rt = app->SchemaListAppend(this);
    if (rt == RT_SUCCESS) mOwnerApp = app;
    return rt;
}

eRtCode ZSchema::InitialBackendImpl() {
    if (mBackendImpl.load() == nullptr) SetBackendImpl(new ZBackendImpl(this));
    return RT_SUCCESS;
}

void ZSchema::SetBackendImpl(ZBackendImpl* impl) {
    ZBackendImpl* old = mBackendImpl.exchange(impl);
    if (old != impl) delete old;
}
eRtCode ZSchema::PreCorvelReady_InitialResources() {
    return RT_SUCCESS;
}
eRtCode ZSchema::PostCorvelReady_InitialResources() {
    return RT_SUCCESS;
}
eRtCode ZSchema::PreCorvelReady_InitResourceData(ZResource*) {
    return RT_SUCCESS;
}
eRtCode ZSchema::PostCorvelReady_InitResourceData(ZResource*) {
    return RT_SUCCESS;
}
eRtCode ZSchema::PostCorvelReady_AfterTreatment() {
    return RT_SUCCESS;
}

std::string ZSchema::GetOdataPrintName() {
    MutexLock lock(mMutex);
    return mOdataPrintName.empty() ? mName : mOdataPrintName;
}

void ZSchema::SetOdataPrintName(const std::string& printName) {
    MutexLock lock(mMutex);
    mOdataPrintName = printName;
}

std::string ZSchema::GetCRUDqChannel(eReqMethod method) {
    const char* word = QueueWord(method);
    if (word == nullptr) {
        ZLOG(eZLogError, "Schema[%s]: invalid method[%d].\n", mName.c_str(),
             static_cast<int>(method));
        return std::string();
    }
    ZApplication* app = zApp;
    const std::string_view appName = app != nullptr ? std::string_view(app->AppName()) : "";
    const std::string_view queue(word);
    std::string channel;
    channel.reserve(appName.size() + mName.size() + queue.size() + 2);
    channel.append(appName).append(1, ':').append(mName).append(1, ':').append(queue);
    return channel;
}

std::map<std::string, ZResource*> ZSchema::GetResourceList() {
    MutexLock lock(mMutex);
    return std::map<std::string, ZResource*>(mResources.begin(), mResources.end());
}

size_t ZSchema::GetResourceNum() {
    MutexLock lock(mMutex);
    return mResources.size();
}

// ---------------------------------------------------------------------------
// Handlers' defaults
// ---------------------------------------------------------------------------

eRtCode ZSchema::HttpMethod_CREATE_CheckPrivileges(HTTP_MethodContext* ctx) {
    return CRUDPrivilegesGranted(*ctx->GetReqData()) ? RT_SUCCESS : RT_FAILURE;
}
eRtCode ZSchema::HttpMethod_READ_CheckPrivileges(HTTP_MethodContext* ctx) {
    return CRUDPrivilegesGranted(*ctx->GetReqData()) ? RT_SUCCESS : RT_FAILURE;
}
eRtCode ZSchema::HttpMethod_UPDATE_CheckPrivileges(HTTP_MethodContext* ctx) {
    return CRUDPrivilegesGranted(*ctx->GetReqData()) ? RT_SUCCESS : RT_FAILURE;
}
eRtCode ZSchema::HttpMethod_DELETE_CheckPrivileges(HTTP_MethodContext* ctx) {
    return CRUDPrivilegesGranted(*ctx->GetReqData()) ? RT_SUCCESS : RT_FAILURE;
}
eRtCode ZSchema::HttpMethod_ACTION_CheckPrivileges(HTTP_MethodContext* ctx) {
    return CRUDPrivilegesGranted(*ctx->GetReqData()) ? RT_SUCCESS : RT_FAILURE;
}

// The common validation has nothing to add yet to what the template checks.
eRtCode ZSchema::HttpMethod_CREATE_Validation(HTTP_MethodContext*) {
    ZLOGM("ZComLib", eZLogDebug, "Schema[%s] is using common validation function for CREATE method !!\n",
          mName.c_str());
    return RT_SUCCESS;
}
eRtCode ZSchema::HttpMethod_UPDATE_Validation(HTTP_MethodContext*) {
    ZLOGM("ZComLib", eZLogDebug, "Schema[%s] is using common validation function for PATCH method !!\n",
          mName.c_str());
    return RT_SUCCESS;
}

namespace {
eRtCode NotAllowed(HTTP_MethodContext* ctx, const char* word) {
    ctx->SetReturnStatus(HTTP_RT_NOT_ALLOWED, ctx->InsertReturnExtendedInfo_NotAllowMethod(word));
    return RT_FAILURE;
}
}  // namespace

eRtCode ZSchema::HttpMethod_CREATE(HTTP_MethodContext* ctx) {
    return NotAllowed(ctx, "Create");
}
// The stored content is the answer of a read; a schema with dynamic content
// refreshes it here.
eRtCode ZSchema::HttpMethod_READ(HTTP_MethodContext*) {
    return RT_SUCCESS;
}
eRtCode ZSchema::HttpMethod_UPDATE(HTTP_MethodContext* ctx) {
    return NotAllowed(ctx, "Update");
}
eRtCode ZSchema::HttpMethod_DELETE(HTTP_MethodContext* ctx) {
    return NotAllowed(ctx, "Delete");
}

ZSchema::FillRetStatusWhenLocked_t ZSchema::GetCallBack_FillRetStatusWhenLocked(ZResource*,
                                                                                int& waitBudgetMs) {
    waitBudgetMs = kLockWaitBudgetMs;
    return &ZSchema::FillRetStatusWhenLocked;
}

void ZSchema::FillRetStatusWhenLocked(HTTP_MethodContext* ctx, ZResource*) {
    ctx->SetReturnStatus(HTTP_RT_UNAVAILABLE, ctx->NewExtendedInfo(RESP_Base_ResourceInUse));
}

}  // namespace Orbel
