// A Redfish resource collection: a resource whose "Members" array links its
// member resources. A resource created with a collection as parent becomes a
// member: it is placed below "Members", gets the URI <collection>/<id>, and
// its link is written into "Members" (with Members@odata.count kept equal to
// the stored member count).
//
// Threads: as ZResource.
#ifndef ORBEL_ZRESOURCECOLLECTION_H
#define ORBEL_ZRESOURCECOLLECTION_H

#include <string>
#include <vector>

#include "ZResource.h"

namespace Orbel {

class ZResourceCollection : public ZResource {
public:
    ZResourceCollection(ZObject* parent, ZSchema* schema, const std::string& id,
                        const std::string& name = std::string(), uint32_t attributes = 0);
    ~ZResourceCollection() override;

    // Write or remove the member's link in "Members".
    eRtCode CollectionAddMember(ZResource* member) override;
    eRtCode CollectionRemoveMember(ZResource* member) override;

    unsigned int GetMemberCount();
    std::vector<std::string> GetMemberObjIDs();
    // The smallest free member id from 1 up; -1 for a died collection.
    int GetFreeMemberId();
    void DeleteAllMemberResources();
    eRtCode UpdateMemberCount();

    // Retires the collection (the path ObjDestroy takes for collection children).
    void _Destroy(eDestroyMode mode, bool clearStore);

private:
    void _InitFillDefaultContents();
};

}  // namespace Orbel

#endif  // ORBEL_ZRESOURCECOLLECTION_H
