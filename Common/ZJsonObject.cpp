// A nested JSON object: one Redis hash under its JPath.
#include "ZJsonObject.h"

#include "RedisCli.h"
#include "ZLogPrint.h"

namespace Orbel {

ZJsonObject::ZJsonObject(ZObject* parent, const std::string& name, uint32_t attributes)
    : ZObject(parent, eJsonObject, name, name, 0), mClassAttributes(attributes) {
    Initial();
}

ZJsonObject::~ZJsonObject() = default;

eRtCode ZJsonObject::SetOdataType(const std::string& a, const std::string& b) {
    std::string type = "#" + a + "." + b;
    eRtCode rt = HashWrite("@odata.type", type);
    if (rt == RT_SUCCESS) {
        std::lock_guard<std::mutex> lock(mWrittenMutex);
        mOdataType = std::move(type);
    }
    return rt;
}

std::string ZJsonObject::GetOdataType() {
    std::lock_guard<std::mutex> lock(mWrittenMutex);
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
    if ((GetAttribute() & ATTR_MultiBackend) != 0) {
        std::lock_guard<std::mutex> lock(mWrittenMutex);
        mWrittenFields.insert(key);
    }
    return RedisHashSet(c, mJPath.c_str(), key.c_str(), value.c_str());
}

eRtCode ZJsonObject::RemoveProperty(redisContext* c, const std::string& key) {
    if ((GetAttribute() & ATTR_MultiBackend) != 0) {
        std::lock_guard<std::mutex> lock(mWrittenMutex);
        mWrittenFields.erase(key);
    }
    return RedisHashDel(c, mJPath.c_str(), key.c_str());
}

eRtCode ZJsonObject::CleanPropertiesFromRedis(redisContext* c) {
    if ((GetAttribute() & ATTR_MultiBackend) == 0) return RedisDelTable(c, mJPath.c_str());
    // Other backends' fields in the same hash stay.
    std::set<std::string> fields;
    {
        std::lock_guard<std::mutex> lock(mWrittenMutex);
        fields.swap(mWrittenFields);
    }
    eRtCode rt = RT_SUCCESS;
    for (const std::string& field : fields) {
        if (RedisHashDel(c, mJPath.c_str(), field.c_str()) != RT_SUCCESS) rt = RT_FAILURE;
    }
    return rt;
}

}  // namespace Orbel
