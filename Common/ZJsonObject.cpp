// A nested JSON object: one Redis hash under its JPath.
#include "ZJsonObject.h"

#include "ZLogPrint.h"

namespace Orbel {

ZJsonObject::ZJsonObject(ZObject* parent, const std::string& name, uint32_t attributes)
    : ZObject(parent, eJsonObject, name, name, 0), mClassAttributes(attributes) {
    // Within a connection scope, clearing the key rides with the next round
    // trip (the owner's apply, as a rule) instead of taking one of its own.
    ZObjectBuildWrites build;
    Initial();
}

ZJsonObject::~ZJsonObject() = default;

eRtCode ZJsonObject::SetOdataType(const std::string& a, const std::string& b) {
    std::string type = "#" + a + "." + b;
    eRtCode rt = HashWrite("@odata.type", type);
    if (rt == RT_SUCCESS) {
        MutexLock lock(mQueueMutex);
        mOdataType = std::move(type);
    }
    return rt;
}

std::string ZJsonObject::GetOdataType() {
    MutexLock lock(mQueueMutex);
    return mOdataType;
}

eRtCode ZJsonObject::Destroy(bool clearStore) {
    if (GetParent() != nullptr) {
        // Nested content leaves through its owner's property, so that the
        // owner's field goes with it.
        ZLOG(eZLogError, "Should use HashRemove() or ListRemove() to destroy this object.\n");
        return RT_FAILURE;
    }
    ObjDestroy(eDestroyDelete, clearStore);
    return RT_SUCCESS;
}

void ZJsonObject::_Destroy(eDestroyMode mode, bool clearStore) {
    ObjDestroy(mode, clearStore);
}

eRtCode ZJsonObject::AppendProperty(redisContext* c, const std::string& key,
                                    const std::string& value) {
    return _HashFieldSet(c, key, value);
}

eRtCode ZJsonObject::RemoveProperty(redisContext* c, const std::string& key) {
    return _HashFieldDel(c, key);
}

eRtCode ZJsonObject::CleanPropertiesFromRedis(redisContext* c) {
    return _HashClean(c);
}

}  // namespace Orbel
