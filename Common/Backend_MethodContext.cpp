// The backend context: its connection, its targets and the new instances.
#include "Backend_MethodContext.h"

#include "RedisCli.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

namespace Orbel {

Backend_MethodContext::Backend_MethodContext(ZSchema* schema, ZResource* resource)
    : mOwnerSchema(schema), mTargetSchema(schema), mTargetResource(resource) {
    mRedisCtx = RedisConnect();
    if (mRedisCtx == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect.\n");
    }
}

Backend_MethodContext::~Backend_MethodContext() {
    if (mRedisCtx != nullptr) RedisDisconnect(mRedisCtx);
}

const char* Backend_MethodContext::_OwnerName() const {
    return mOwnerSchema != nullptr ? mOwnerSchema->GetName().c_str() : "NULL";
}

ZBackendImpl* Backend_MethodContext::GetBackendImpl() {
    if (mTargetSchema == nullptr) {
        ZLOG(eZLogError, "Target schema is NULL! schema[%s]\n", _OwnerName());
        return nullptr;
    }
    return mTargetSchema->GetBackendImpl();
}

void Backend_MethodContext::AssignNewInstance(ZResource* instance) {
    if (instance == nullptr) {
        ZLOG(eZLogError, "Schema[%s] assign a NULL object.\n", _OwnerName());
        return;
    }
    if (!mNewInstances.empty()) {
        ZLOG(eZLogError,
             "Schema[%s] assign a new instance but the instance list is not empty. Please try "
             "AppendNewInstance() API.\n",
             _OwnerName());
        return;
    }
    mNewInstances.insert(instance);
}

void Backend_MethodContext::AppendNewInstance(ZResource* instance) {
    if (instance == nullptr) {
        ZLOG(eZLogError, "Schema[%s] append a NULL object.\n", _OwnerName());
        return;
    }
    mNewInstances.insert(instance);
}

}  // namespace Orbel
