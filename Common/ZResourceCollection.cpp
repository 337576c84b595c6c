// A resource collection: a resource whose "Members" array links its members.
#include "ZResourceCollection.h"

#include <cstdlib>

#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

namespace Orbel {

namespace {
constexpr const char* kMembers = "Members";
}  // namespace

ZResourceCollection::ZResourceCollection(ZObject* parent, ZSchema* schema, const std::string& id,
                                         const std::string& name, uint32_t attributes)
    : ZResource(parent, schema, eResourceCollection, id, name, attributes) {
    RedisConnectionScope storeScope;  // one connection for the whole construction
    if (!_InitResource()) return;
    _WarnIfMemberSchemaUnfit();
    _InitFillDefaultContents();
    ApplyRedisChanges(true, nullptr);
}

ZResourceCollection::~ZResourceCollection() = default;

void ZResourceCollection::_WarnIfMemberSchemaUnfit() {
    ZSchema* schema = OwnedBySchema();
    if (schema == nullptr) return;
    // Members are served by their own schema, found by this name; the
    // collection's own type name would otherwise end up on its members (or
    // theirs on the collection).
    const std::string& memberSchema = schema->GetMemberSchemaName();
    if (memberSchema.empty()) {
        ZLOG(eZLogWarning,
             "Collection[%s]: schema[%s] names no member schema; requests to its members "
             "have no schema to go to.\n",
             GetJPath().c_str(), schema->GetName().c_str());
    } else if (memberSchema == schema->GetName()) {
        ZLOG(eZLogWarning,
             "Collection[%s]: schema[%s] names itself as member schema; give the members a "
             "schema of their own.\n",
             GetJPath().c_str(), schema->GetName().c_str());
    }
}

void ZResourceCollection::_InitFillDefaultContents() {
    if (IsDataFmtRawJson()) return;
    // Writes Members@odata.count = 0 into this collection at once.
    auto* members = new ZJsonArray(this, kMembers, ZJsonArray::ARRAY_ATTR_OdataCount);
    if (members->GetJPath().empty()) {
        members->ObjDestroy(eDestroyDelete, false);
        return;
    }
    HashWrite(kMembers, members);
}

ZObject* ZResourceCollection::_MembersFor(ZResource* member) {
    if (!Use(member)) {
        ZLOG(eZLogError, "Members[%s] is not a local object.\n", GetJPath().c_str());
        return nullptr;
    }
    ZObject* members = GetChild(kMembers, true);
    if (members == nullptr) {
        member->DecreaseUsingCount();
        ZLOG(eZLogError, "Failed to get Members object.\n");
    }
    return members;
}

eRtCode ZResourceCollection::CollectionAddMember(ZResource* member) {
    ZObject* members = _MembersFor(member);
    if (members == nullptr) return RT_FAILURE;
    UseRelease release(member);
    eRtCode rt = members->ListWrite(-1, static_cast<ZObject*>(member), true);
    if (rt != RT_SUCCESS) return rt;
    // The member list and its count reach the store with the member itself.
    return members->ApplyRedisChanges(false, nullptr);
}

eRtCode ZResourceCollection::CollectionRemoveMember(ZResource* member) {
    ZObject* members = _MembersFor(member);
    if (members == nullptr) return RT_FAILURE;
    UseRelease release(member);
    std::string text = "&&ObjectRef " + member->GetOdataId();
    return members->ListRemove(text, false);
}

unsigned int ZResourceCollection::GetMemberCount() {
    ZObject* members = GetChild(kMembers, true);
    return members != nullptr ? static_cast<unsigned int>(members->GetChildNum()) : 0;
}

std::vector<std::string> ZResourceCollection::GetMemberObjIDs() {
    ZObject* members = GetChild(kMembers, true);
    return members != nullptr ? members->GetChildIDs() : std::vector<std::string>();
}

int ZResourceCollection::GetFreeMemberId() {
    if (!Use(this)) return -1;
    UseRelease release(this);
    if (IsDied()) return -1;
    ZObject* members = GetChild(kMembers, true);
    if (members == nullptr) {
        ZLOG(eZLogError, "Cannot get child[%s] from object[%s].\n", kMembers, mJPath.c_str());
        return 1;
    }
    // The stored count alone misses members built while the store was away
    // (or before it was emptied): the live members count as well, so an id
    // never collides with one of them, store or no store.
    const unsigned int stored = static_cast<ZJsonArray*>(members)->ItemNum();
    const unsigned int live = static_cast<unsigned int>(members->GetChildNum());
    const unsigned int count = stored > live ? stored : live;
    unsigned int n;
    uint32_t epoch;
    {
        std::lock_guard<std::mutex> lock(mFreeIdMutex);
        n = mFreeIdHint;
        epoch = mFreeIdEpoch;
    }
    // No lock of this node is held while the member list is asked.
    while (n <= count && members->GetChild(static_cast<int>(n), true) != nullptr) ++n;
    {
        std::lock_guard<std::mutex> lock(mFreeIdMutex);
        if (epoch == mFreeIdEpoch && n > mFreeIdHint) mFreeIdHint = n;
    }
    // Ids below the hint are all taken: when the hint lies beyond the stored
    // count, the count + 1 is the answer.
    return static_cast<int>(n <= count ? n : count + 1);
}

void ZResourceCollection::_MemberIdReleased(const std::string& id) {
    // Only decimal ids are ever handed out; others cannot move the hint.
    if (id.empty() || id.size() > 9 || id.find_first_not_of("0123456789") != std::string::npos) {
        return;
    }
    const unsigned int n = static_cast<unsigned int>(std::strtoul(id.c_str(), nullptr, 10));
    std::lock_guard<std::mutex> lock(mFreeIdMutex);
    ++mFreeIdEpoch;
    if (n >= 1 && n < mFreeIdHint) mFreeIdHint = n;
}

void ZResourceCollection::DeleteAllMemberResources() {
    ZObject* members = GetChild(kMembers, true);
    if (members == nullptr) return;
    members->DeleteAllChildObjs();
}

eRtCode ZResourceCollection::UpdateMemberCount() {
    ZObject* members = GetChild(kMembers, true);
    if (members == nullptr) {
        ZLOG(eZLogError, "Cannot get child[%s] from object[%s].\n", kMembers, mJPath.c_str());
        return RT_FAILURE;
    }
    return static_cast<ZJsonArray*>(members)->UpdateParentOdataCount(nullptr);
}

void ZResourceCollection::_Destroy(eDestroyMode mode, bool clearStore) {
    ObjDestroy(mode, clearStore);
}

}  // namespace Orbel
