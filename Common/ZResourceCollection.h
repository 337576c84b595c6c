// A Redfish resource collection: a resource whose "Members" array links its
// member resources. A resource created with a collection as parent becomes a
// member: it is placed below "Members", gets the URI <collection>/<id>, and
// its link is written into "Members" (with Members@odata.count kept equal to
// the stored member count).
//
// Threads: as ZResource.
#ifndef ORBEL_ZRESOURCECOLLECTION_H
#define ORBEL_ZRESOURCECOLLECTION_H

#include <cstdint>
#include <mutex>
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
    // The smallest free member id from 1 up to the stored member count (the
    // count + 1 when all are taken); -1 for a died collection. Each call
    // reads the count from the store.
    int GetFreeMemberId();
    void DeleteAllMemberResources();
    eRtCode UpdateMemberCount();

    // Retires the collection (the path ObjDestroy takes for collection children).
    void _Destroy(eDestroyMode mode, bool clearStore);

    // Called by a member resource that leaves "Members" (retired, or deleted
    // while alive): its id may be free again.
    void _MemberIdReleased(const std::string& id);

private:
    void _InitFillDefaultContents();
    // A WARNING when the owning schema names no member schema, or itself.
    void _WarnIfMemberSchemaUnfit();
    // The "Members" array for adding or removing `member`, with a using
    // count held on `member` (the caller releases it); null, logged, when
    // `member` is not a live local object or there is no "Members".
    ZObject* _MembersFor(ZResource* member);

    // Where GetFreeMemberId starts looking. Every id below mFreeIdHint
    // belonged to a live member when the hint was raised, and a member that
    // leaves lowers the hint to its id, so no free id lies below it: a
    // collection filled in order finds the next id at once instead of trying
    // every id from 1 (which made filling a collection quadratic). A search
    // raises the hint only when no member left while it looked
    // (mFreeIdEpoch counts the departures).
    std::mutex mFreeIdMutex;  // guards mFreeIdHint, mFreeIdEpoch
    unsigned int mFreeIdHint = 1;
    uint32_t mFreeIdEpoch = 0;
};

}  // namespace Orbel

#endif  // ORBEL_ZRESOURCECOLLECTION_H
