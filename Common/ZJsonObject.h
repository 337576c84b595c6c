// A nested JSON object of the resource tree, stored as one Redis hash under
// its JPath ("&&" + owning path + "/" + name).
//
// A ZJsonObject is usually created below a resource or another object and
// linked into its parent with HashWrite(name, obj); it is removed through its
// parent (HashRemove/ListRemove), never with Destroy. A ZJsonObject without a
// parent (response data, extended-info lists, events) is the root of its own
// tree and is retired with Destroy.
//
// Threads: as ZObject.
#ifndef ORBEL_ZJSONOBJECT_H
#define ORBEL_ZJSONOBJECT_H

#include <cstdint>
#include <string>

#include "ZObject.h"

namespace Orbel {

class ZJsonObject : public ZObject {
public:
    // id = name = `name`; runs Initial(). Check IsDied()/GetJPath() for a
    // failed Initial (logged).
    ZJsonObject(ZObject* parent, const std::string& name, uint32_t attributes = 0);
    ~ZJsonObject() override;

    uint32_t Attributes() const { return mClassAttributes; }

    // "@odata.type" = "#<a>.<b>".
    eRtCode SetOdataType(const std::string& a, const std::string& b);
    std::string GetOdataType();

    // Only for a node without a parent: ObjDestroy in destroy mode delete.
    eRtCode Destroy(bool clearStore);
    void _Destroy(eDestroyMode mode, bool clearStore);

    // Store side of the change queue (called while applying): ZObject's
    // hash commands, shared with ZResource.
    eRtCode AppendProperty(redisContext* c, const std::string& key, const std::string& value);
    eRtCode RemoveProperty(redisContext* c, const std::string& key);
    // Deletes the hash; on a MultiBackend node only the fields this process wrote.
    eRtCode CleanPropertiesFromRedis(redisContext* c);

private:
    const uint32_t mClassAttributes;
    std::string mOdataType GUARDED_BY(mQueueMutex);
};

}  // namespace Orbel

#endif  // ORBEL_ZJSONOBJECT_H
