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
#include <functional>
#include <string>
#include <vector>

#include "Orbel_Mutex.h"
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
    // reads the count from the store. An id whose URI still names a member
    // on its way out is not free. Between this call and the new member's
    // constructor another thread may take the id: use CreateMember.
    int GetFreeMemberId();

    // Builds a new member in one step that no other CreateMember (request
    // or backend thread) interleaves: picks an id that no member of this
    // collection has had since the process started (nor, with
    // KeepMemberIdsIn, before a restart), and builds the member with it.
    // `make(id)` must construct the member with this collection as parent;
    // the plain form builds `new ZResource(this, schema, id, "", attributes)`.
    // Returns the member, in the store as its constructor left it; null,
    // logged, when it could not be built or added (the node, if any, is
    // retired: nothing leaks). The caller fills, locks or retires the member
    // as it would one made with `new`.
    ZResource* CreateMember(ZSchema* schema, uint32_t attributes = 0);
    ZResource* CreateMember(const std::function<ZResource*(const std::string& id)>& make);
    // Keeps the highest member id handed out in the KOBA setting `name`
    // (unsigned), so ids are not handed out again after the plug-in or the
    // store restarts. Reads the setting now (a missing one counts as 0);
    // every CreateMember then writes the new id there before the member is
    // built, and refuses to build one when the write fails. Call it before
    // the first member is made.
    eRtCode KeepMemberIdsIn(const std::string& name);
    // The highest numeric member id seen or handed out (0: none).
    unsigned int MemberIdHighWater();
    void DeleteAllMemberResources();
    eRtCode UpdateMemberCount();

    // Retires the collection (the path ObjDestroy takes for collection children).
    void _Destroy(eDestroyMode mode, bool clearStore);

    // Called by a member resource that leaves "Members" (retired, or deleted
    // while alive): its id may be free again.
    void _MemberIdReleased(const std::string& id);
    // Called for every member that joins: its id counts for the high-water
    // mark.
    void _MemberIdTaken(const std::string& id);

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
    Mutex mFreeIdMutex;  // taken after mCreateMutex when both are held
    unsigned int mFreeIdHint GUARDED_BY(mFreeIdMutex) = 1;
    uint32_t mFreeIdEpoch GUARDED_BY(mFreeIdMutex) = 0;
    unsigned int mIdHighWater GUARDED_BY(mFreeIdMutex) = 0;
    std::string mIdSetting GUARDED_BY(mFreeIdMutex);
    // Held while one CreateMember chooses its id and moves the high-water
    // mark past it; not while the member is built (no node lock is held
    // while it is taken).
    Mutex mCreateMutex;
};

}  // namespace Orbel

#endif  // ORBEL_ZRESOURCECOLLECTION_H
