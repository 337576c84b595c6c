// ZSchema: construction, registration with the application, the staged
// initialisation hooks and the resource map. The request paths and the
// resource lifecycle join this file with the object model.
#include "ZSchema.h"

#include "ZApplication.h"
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
    // A resource keeps a pointer to its schema until it is retired.
    _RetireOwnedResources();
    // The application deletes its schemas in list order; a schema deleted
    // any other way must not stay listed as a dangling pointer.
    if (mOwnerApp != nullptr) mOwnerApp->SchemaListRemove(this);
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
    return RT_SUCCESS;
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
    std::lock_guard<std::mutex> lock(mMutex);
    return mOdataPrintName.empty() ? mName : mOdataPrintName;
}

void ZSchema::SetOdataPrintName(const std::string& printName) {
    std::lock_guard<std::mutex> lock(mMutex);
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
    std::string appName = app != nullptr ? app->AppName() : std::string();
    return appName + ":" + mName + ":" + word;
}

std::map<std::string, ZResource*> ZSchema::GetResourceList() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mResources;
}

size_t ZSchema::GetResourceNum() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mResources.size();
}

void ZSchema::WaitThreadsExit() {
    // No dispatcher threads exist yet: they come with the request queues,
    // which will publish "QUIT" on the schema's channels and join them here.
}

}  // namespace Orbel
