// A resource collection: a resource whose "Members" array links its members.
#include "ZResourceCollection.h"

#include <cstdlib>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

namespace Orbel {

namespace {
constexpr const char* kMembers = "Members";

// A member id as a number: only decimal ids of up to 9 digits (the ones
// this collection hands out) count; 0 for any other.
unsigned int NumericId(const std::string& id) {
    if (id.empty() || id.size() > 9 || id.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    return static_cast<unsigned int>(std::strtoul(id.c_str(), nullptr, 10));
}

// The URIs of member ids asked about one after another: "<collection>/<id>"
// in one text, the collection's part written once.
class MemberUris {
public:
    explicit MemberUris(const std::string& collection) {
        mUri.reserve(collection.size() + 11);
        mUri.append(collection).push_back('/');
        mBaseLen = mUri.size();
    }
    const std::string& Of(unsigned int id) {
        mUri.resize(mBaseLen);
        mUri += std::to_string(id);
        return mUri;
    }

private:
    std::string mUri;
    size_t mBaseLen = 0;
};
}  // namespace

ZResourceCollection::ZResourceCollection(ZObject* parent, ZSchema* schema, const std::string& id,
                                         const std::string& name, uint32_t attributes)
    : ZResource(parent, schema, eResourceCollection, id, name, attributes) {
    RedisConnectionScope storeScope;  // one connection for the whole construction
    ZObjectBuildWrites build;         // its writes in one round trip
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
    _MemberIdTaken(member->GetId());
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
        MutexLock lock(mFreeIdMutex);
        n = mFreeIdHint;
        epoch = mFreeIdEpoch;
    }
    // No lock of this node is held while the member list is asked. A member
    // already out of "Members" but still registered (retiring on another
    // thread) keeps its URI until it is gone: its id is not free yet.
    ZApplication* app = zApp;
    MemberUris uris(mJPath);
    const auto registered = [&](unsigned int id) {
        return app->_FindObject(uris.Of(id), true) != nullptr;
    };
    while (n <= count &&
           (members->GetChild(static_cast<int>(n), true) != nullptr || registered(n))) {
        ++n;
    }
    {
        MutexLock lock(mFreeIdMutex);
        if (epoch == mFreeIdEpoch && n > mFreeIdHint) mFreeIdHint = n;
    }
    // Ids below the hint are all taken: when the hint lies beyond the stored
    // count, the first id after it whose URI nobody holds.
    if (n > count) {
        n = count + 1;
        while (registered(n)) ++n;
    }
    return static_cast<int>(n);
}

ZResource* ZResourceCollection::CreateMember(ZSchema* schema, uint32_t attributes) {
    return CreateMember([this, schema, attributes](const std::string& id) -> ZResource* {
        return new ZResource(this, schema, id, std::string(), attributes);
    });
}

ZResource* ZResourceCollection::CreateMember(
    const std::function<ZResource*(const std::string& id)>& make) {
    if (!make || !Use(this)) return nullptr;
    UseRelease release(this);
    if (IsDied() || GetChild(kMembers, true) == nullptr) {
        ZLOG(eZLogError, "Collection[%s] takes no member.\n", mJPath.c_str());
        return nullptr;
    }
    // One id at a time: it is taken, and the high-water mark moved past it,
    // before the next creation looks for one. A retiring member keeps its
    // URI registered until it is gone, and its store keys are deleted after
    // it left the registry; an id is therefore never given twice, not even
    // the id of a member that left a moment ago: its old URI would name the
    // new member for a client that still holds it. The member is made after
    // the lock is given back: making it may wait for the apply order, which
    // a thread building resources (ZObjectBuildWrites) holds while it may
    // itself be creating a member here.
    ZApplication* app = zApp;
    MemberUris uris(mJPath);
    unsigned int id;
    {
        MutexLock creating(mCreateMutex);
        std::string setting;
        {
            MutexLock lock(mFreeIdMutex);
            id = mIdHighWater + 1;
            setting = mIdSetting;
        }
        // Made some other way (an explicit id, GetFreeMemberId) after the mark.
        while (app->_FindObject(uris.Of(id), true) != nullptr) ++id;
        // Kept before the member exists: a restart after this point cannot
        // give the id again.
        if (!setting.empty() && SetKOBA(setting, id) != RT_SUCCESS) {
            ZLOG(eZLogError,
                 "Collection[%s]: member id %u not kept in setting[%s]; no member made.\n",
                 mJPath.c_str(), id, setting.c_str());
            return nullptr;
        }
        MutexLock lock(mFreeIdMutex);
        if (id > mIdHighWater) mIdHighWater = id;
    }
    const std::string uri = uris.Of(id);
    ZResource* member = make(std::to_string(id));
    if (member == nullptr) {
        ZLOG(eZLogError, "Collection[%s]: no member[%s] was made.\n", mJPath.c_str(), uri.c_str());
        return nullptr;
    }
    const std::string jpath = member->GetJPath();
    if (jpath != uri || member->GetParent() != GetChild(kMembers, true)) {
        ZLOG(eZLogError, "Collection[%s]: member[%s] could not be added.\n", mJPath.c_str(),
             uri.c_str());
        // A node that never got its JPath owns nothing in the store.
        member->ObjDestroy(eDestroyDelete, !jpath.empty());
        return nullptr;
    }
    return member;
}

eRtCode ZResourceCollection::KeepMemberIdsIn(const std::string& name) {
    unsigned int stored = 0;
    eRtCode rt = GetKOBA(name, stored, true);
    if (rt != RT_SUCCESS && rt != RT_NO_SUCH_KEY) return rt;
    MutexLock lock(mFreeIdMutex);
    mIdSetting = name;
    if (stored > mIdHighWater) mIdHighWater = stored;
    return RT_SUCCESS;
}

unsigned int ZResourceCollection::MemberIdHighWater() {
    MutexLock lock(mFreeIdMutex);
    return mIdHighWater;
}

void ZResourceCollection::_MemberIdTaken(const std::string& id) {
    const unsigned int n = NumericId(id);
    MutexLock lock(mFreeIdMutex);
    if (n > mIdHighWater) mIdHighWater = n;
}

void ZResourceCollection::_MemberIdReleased(const std::string& id) {
    // Only decimal ids are ever handed out; others cannot move the hint.
    const unsigned int n = NumericId(id);
    if (n == 0) return;
    MutexLock lock(mFreeIdMutex);
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
