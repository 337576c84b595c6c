// The tree node core: construction, JPaths, children, references and
// retirement. The change queue lives in ZObject_RedisCache.cpp.
#include "ZObject.h"

#include <algorithm>

#include <utility>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"
#include "ZResourceCollection.h"

namespace Orbel {

namespace {

// The JPath rules: a resource-like child drops the "&&" of a nested parent,
// any other child gets one unless the first or the second character of the
// base is already '&' (the front end relies on exactly this test); one "/"
// between the parts.
std::string JoinJPath(const std::string& base, const std::string& tail, bool resourceChild) {
    // Put together in one allocation: every node's JPath is made here.
    std::string_view head(base);
    std::string_view mark;
    if (resourceChild) {
        if (head.compare(0, 2, "&&") == 0) head.remove_prefix(2);
    } else {
        bool marked = (!head.empty() && head[0] == '&') || (head.size() > 1 && head[1] == '&');
        if (!marked) mark = "&&";
    }
    const bool slash = head.empty() || head.back() != '/';
    std::string_view rest;
    const size_t start = tail.find_first_not_of('/');
    if (start != std::string::npos) rest = std::string_view(tail).substr(start);
    std::string path;
    path.reserve(mark.size() + head.size() + 1 + rest.size());
    path.append(mark).append(head);
    if (slash) path += '/';
    path.append(rest);
    return path;
}

uint32_t InheritAttribute(ZObject* parent, ZObject::eType type, unsigned long attribute) {
    uint32_t attr = static_cast<uint32_t>(attribute);
    if (parent != nullptr) {
        uint32_t pattr = parent->GetAttribute();
        if ((pattr & ZObject::ATTR_RawJson) != 0) attr |= ZObject::ATTR_RawJson;
        // Several backends may fill one resource's content, but a resource
        // below it is served by its own schema alone.
        bool resourceLike = type == ZObject::eResource || type == ZObject::eResourceCollection;
        if (!resourceLike && (pattr & ZObject::ATTR_MultiBackend) != 0) {
            attr |= ZObject::ATTR_MultiBackend;
        }
    }
    return attr;
}

// Frees the lists made on first use, pending commands included.
void FreeNodeLists(std::vector<sRedisCmdItem*>* queue, std::vector<ZObject*>* children,
                   std::set<ZObject*>* refTo) {
    if (queue != nullptr) {
        for (sRedisCmdItem* item : *queue) delete item;
    }
    delete queue;
    delete children;
    delete refTo;
}

using ReferrerList = std::vector<std::pair<ZObject*, std::string>>;

ReferrerList::iterator FindReferrer(ReferrerList& list, ZObject* referrer) {
    auto it = list.begin();
    while (it != list.end() && it->first != referrer) ++it;
    return it;
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

bool Use(ZObject* obj) {
    ZApplication* app = zApp;
    return app != nullptr && obj != nullptr && app->UseIfValid(obj);
}

ZObject::ZObject(ZObject* parent, eType type, const std::string& id, const std::string& name,
                 unsigned long attribute)
    : mLiveMark(kAliveMark),
      mAttribute(InheritAttribute(parent, type, attribute)),
      mOID(ZApplication::kInvalidOID),
      mType(type),
      mParent(parent),
      mId(id),
      mName(name),
      mIsRawJson((mAttribute & ATTR_RawJson) != 0) {
    ZApplication* app = zApp;
    if (app != nullptr) {
        mOID = app->NewOID(this);
    } else {
        ZLOG(eZLogError, "Object[%s]: no application to register with.\n", mName.c_str());
    }
    if (!IsPureString(mName, true) || !IsPureString(mId, true)) {
        ZLOG(eZLogError, "Object: some input parameters name[%s] id[%s] is not pure string.\n",
             mName.c_str(), mId.c_str());
    }
}

ZObject::~ZObject() {
    if (mLiveMark.load() == kAliveMark) {
        ZLOG(eZLogError,
             "! WARNING ! : Shall call ObjDestroy() function to delete this ZObject[%s].\n",
             mJPath.c_str());
        // Whoever deleted a live node bypassed the recycler: keep the
        // registry and the parent from holding a dangling pointer.
        mLiveMark.store(kDiedMark);
        ZObject* parent = mParent.load();
        if (parent != nullptr && Use(parent)) {
            if (!parent->IsDied()) parent->RemoveChildObj(this);
            parent->DecreaseUsingCount();
        }
        ZApplication* app = zApp;
        if (app != nullptr) {
            app->ObjectListRemove(this);
            app->_ForgetObject(this);
        }
    }
    FreeNodeLists(mRedisCmdQueue, mChildList, mReferenceTo);
    delete mRawJson;
    delete mWritten.load();
    delete mTextLinks;
}

eRtCode ZObject::Initial() {
    if ((mAttribute & ATTR_RawJson) != 0 && (mAttribute & ATTR_MultiBackend) != 0) {
        ZLOG(eZLogError,
             "Object[%s] shouldn't have attributes of RawJson and MultiBackend at the same "
             "time.\n",
             mName.c_str());
        return RT_FAILURE;
    }
    if (mId.empty()) {
        ZLOG(eZLogError, "Object[%s] initial failed. The ID shoundn't be a empty string.\n",
             mName.c_str());
        return RT_FAILURE;
    }
    if (!IsKeySafeId(mId, mParent == nullptr)) {
        ZLOG(eZLogError, "Object[%s] initial failed. The ID[%s] would break the store key.\n",
             mName.c_str(), SanitizedText(mId, 64).c_str());
        return RT_FAILURE;
    }
    if (mListsOpen.exchange(true)) {
        ZLOG(eZLogError, "Object[%s] is already initialised.\n", mJPath.c_str());
        return RT_FAILURE;
    }
    if (mIsRawJson) {
        MutexLock lock(mQueueMutex);
        if (mRawJson == nullptr) mRawJson = new sRawJsonData();
    }
    if (_SetId(mId) != RT_SUCCESS) {
        // The JPath belongs to another node (or the parent is gone): leave
        // this one as constructed, so that retiring it touches nothing of
        // the other node, in the registry or in the store.
        mListsOpen.store(false);
        ChildList* children = nullptr;
        std::vector<sRedisCmdItem*>* queue = nullptr;
        ReferrerList refBy;
        std::set<ZObject*>* refTo = nullptr;
        {
            MutexLock lock(mTreeMutex);
            std::swap(children, mChildList);
        }
        {
            MutexLock lock(mQueueMutex);
            std::swap(queue, mRedisCmdQueue);
        }
        {
            MutexLock lock(mTreeMutex);
            refBy.swap(mReferencedBy);
            std::swap(refTo, mReferenceTo);
        }
        FreeNodeLists(queue, children, refTo);
        return RT_FAILURE;
    }
    _ClearRedisCache();
    return RT_SUCCESS;
}

eRtCode ZObject::CollectionAddMember(ZResource*) {
    ZLOG(eZLogWarning, "Should not run this function.\n");
    return RT_FAILURE;
}

eRtCode ZObject::CollectionRemoveMember(ZResource*) {
    ZLOG(eZLogWarning, "Should not run this function.\n");
    return RT_FAILURE;
}

// ---------------------------------------------------------------------------
// Naming and paths
// ---------------------------------------------------------------------------

eRtCode ZObject::_SetId(const std::string& id) {
    ZApplication* app = zApp;
    if (app == nullptr) return RT_FAILURE;
    ZObject* parent = mParent.load();
    // Held for the whole joining: registered, then entered in the parent.
    if (parent != nullptr && !Use(parent)) return RT_FAILURE;
    UseRelease release(parent);
    if (parent != nullptr) {
        if (parent->IsDied()) {
            ZLOG(eZLogError, "Object[%s] cannot join the died parent[%s].\n", id.c_str(),
                 parent->mJPath.c_str());
            return RT_FAILURE;
        }
        mJPath = JoinJPath(parent->mJPath, id, IsResourceType());
    } else {
        mJPath = id;
    }

    if (IsResourceType()) {
        // A resource made without a name is known by its URI.
        if (mName.empty()) mName = mJPath;
        static_cast<ZResource*>(this)->SetOdataId(mJPath);
    }
    // Registered by JPath before joining the parent: a refused duplicate
    // must leave the parent (and a collection's member list) untouched.
    if (app->ObjectListAppend(this) != RT_SUCCESS) {
        mJPath.clear();
        return RT_FAILURE;
    }

    if (parent != nullptr) {
        ZObject* holder = parent;
        if (parent->GetType() == eResourceCollection && mType == eResource) {
            parent->CollectionAddMember(static_cast<ZResource*>(this));
            ZObject* members = parent->_GetChild("Members", true);
            if (members != nullptr) {
                holder = members;
                mParent.store(members);
            } else {
                ZLOG(eZLogError, "Undefined list Members in collection[%s].\n",
                     parent->mJPath.c_str());
            }
        }
        holder->AppendChildObj(this);
    }
    return RT_SUCCESS;
}

// The id, name and JPath are fixed once Initial() has run, so reading them
// needs no lock; the caller's own hold on the node keeps it alive.
std::string ZObject::GetId() {
    return mId;
}

std::string ZObject::GetName() {
    return mName;
}

std::string ZObject::GetJPath() {
    return mJPath;
}

std::string ZObject::_LogName() {
    return mJPath.empty() ? mName : mJPath;
}

std::string ZObject::CombineJPath(ZObject* base, ZObject* child) {
    if (base == nullptr || child == nullptr) return std::string();
    return JoinJPath(base->GetJPath(), child->GetId(), child->IsResourceType());
}

std::string ZObject::CombineJPath(ZObject* base, const std::string& relativePath) {
    if (base == nullptr) return std::string();
    return JoinJPath(base->GetJPath(), relativePath, false);
}

ZResource* ZObject::GetOwnedByResource() {
    if (IsResourceType()) return static_cast<ZResource*>(this);
    return GetParentResource();
}

ZResource* ZObject::GetParentResource() {
    // Parents outlive their children (a parent retires its children before it
    // is recycled), so the chain can be walked without taking counts.
    for (ZObject* node = mParent.load(); node != nullptr; node = node->mParent.load()) {
        if (node->IsResourceType()) return static_cast<ZResource*>(node);
    }
    return nullptr;
}

ZSchema* ZObject::GetOwnedBySchema() {
    ZResource* res = GetOwnedByResource();
    return res != nullptr ? res->OwnedBySchema() : nullptr;
}

// ---------------------------------------------------------------------------
// Children
// ---------------------------------------------------------------------------

eRtCode ZObject::AppendChildObj(ZObject* child) {
    if (child == nullptr) return RT_INVALID_ARG;
    std::string key = child->GetId();
    MutexLock lock(mTreeMutex);
    if (!_ListsOpen()) {
        ZLOG(eZLogError, "Obj[%s] try to append child[%s] but ChildList is NULL\n",
             _LogName().c_str(), key.c_str());
        return RT_FAILURE;
    }
    if (mChildList == nullptr) mChildList = new ChildList();
    auto slot = _ChildSlot(*mChildList, key);
    if (slot != mChildList->end() && (*slot)->mId == key) {
        ZLOG(eZLogError, "Try to overwrite an existing child object[%s].\n",
             child->GetJPath().c_str());
        return RT_FAILURE;
    }
    mChildList->insert(slot, child);
    return RT_SUCCESS;
}

ZObject::ChildList::iterator ZObject::_ChildSlot(ChildList& list, const std::string& id) {
    return std::lower_bound(list.begin(), list.end(), id,
                            [](const ZObject* child, const std::string& key) {
                                return child->mId < key;
                            });
}

ZObject* ZObject::_FindChildLocked(const std::string& id) {
    if (mChildList == nullptr) return nullptr;
    auto slot = _ChildSlot(*mChildList, id);
    return slot != mChildList->end() && (*slot)->mId == id ? *slot : nullptr;
}

ZObject* ZObject::_GetChild(const std::string& id, bool silent) {
    MutexLock lock(mTreeMutex);
    if (mChildList == nullptr && !_ListsOpen()) {
        ZLOG(eZLogError, "Obj[%s] try to get child[%s] but ChildList is NULL\n", _LogName().c_str(),
             id.c_str());
        return nullptr;
    }
    ZObject* child = _FindChildLocked(id);
    if (child == nullptr) {
        if (!silent) {
            ZLOG(eZLogError, "Object[%s] doesn't have this child[%s]\n", _LogName().c_str(),
                 id.c_str());
        }
        return nullptr;
    }
    if (child->IsDied()) {
        if (!silent) {
            ZLOG(eZLogError, "The child[%s] is died for this Object[%s]\n", id.c_str(),
                 _LogName().c_str());
        }
        return nullptr;
    }
    return child;
}

ZObject* ZObject::GetChild(const std::string& id, bool silent) {
    // Held while the child list is read: a retirement on another thread
    // then cannot hand the node to the recycler meanwhile.
    IncreaseUsingCount();
    UseRelease release(this);
    return _GetChild(id, silent);
}

ZObject* ZObject::GetChild(int id, bool silent) {
    return GetChild(std::to_string(id), silent);
}

ZObject* ZObject::GetChildByJPath(const std::string& relativePath) {
    ZObject* node = this;
    bool any = false;
    size_t pos = 0;
    while (pos <= relativePath.size()) {
        size_t slash = relativePath.find('/', pos);
        if (slash == std::string::npos) slash = relativePath.size();
        if (slash > pos) {
            any = true;
            node = node->GetChild(relativePath.substr(pos, slash - pos), true);
            if (node == nullptr) return nullptr;
        }
        pos = slash + 1;
    }
    return any ? node : nullptr;
}

std::vector<std::string> ZObject::GetChildIDs() {
    std::vector<std::string> ids;
    MutexLock lock(mTreeMutex);
    if (mChildList == nullptr) return ids;
    ids.reserve(mChildList->size());
    for (const ZObject* child : *mChildList) ids.push_back(child->mId);
    return ids;
}

size_t ZObject::GetChildNum() {
    MutexLock lock(mTreeMutex);
    return mChildList != nullptr ? mChildList->size() : 0;
}

void ZObject::DumpChildObj() {
    MutexLock lock(mTreeMutex);
    ZLOGM("ZComLib", eZLogRaw, "Dump Resource[%s] childs ===>\n", _LogName().c_str());
    if (mChildList == nullptr) return;
    for (ZObject* child : *mChildList) {
        ZLOGM("ZComLib", eZLogRaw, "  Child[%p] : %s\n", static_cast<void*>(child),
              child->mId.c_str());
    }
}

eRtCode ZObject::RemoveChildObj(ZObject* child) {
    if (child == nullptr) return RT_INVALID_ARG;
    MutexLock lock(mTreeMutex);
    if (mChildList != nullptr) {
        // By identity: a refused duplicate with the same id is not the child.
        auto slot = _ChildSlot(*mChildList, child->mId);
        if (slot != mChildList->end() && *slot == child) {
            mChildList->erase(slot);
            return RT_SUCCESS;
        }
    }
    ZLOG(eZLogError, "Obj[%s] wants to remove a sub-Obj[%s] but not found!\n", _LogName().c_str(),
         child->mJPath.c_str());
    return RT_FAILURE;
}

std::vector<ZObject*> ZObject::_UsedChildren() {
    std::vector<ZObject*> children;
    MutexLock lock(mTreeMutex);
    if (mChildList == nullptr) return children;
    children.reserve(mChildList->size());
    for (ZObject* child : *mChildList) {
        if (Use(child)) children.push_back(child);
    }
    return children;
}

void ZObject::DeleteAllChildObjs() {
    // Each child takes itself off the list while it is retired.
    for (ZObject* child : _UsedChildren()) {
        child->ObjDestroy(eDestroyDelete, true);
        child->DecreaseUsingCount();
    }
}

// ---------------------------------------------------------------------------
// References
// ---------------------------------------------------------------------------

void ZObject::AppendReferencedBy(ZObject* referrer, const std::string& metaKey) {
    if (referrer == nullptr) return;
    MutexLock lock(mTreeMutex);
    if (!_ListsOpen()) return;
    auto it = FindReferrer(mReferencedBy, referrer);
    if (it != mReferencedBy.end()) {
        it->second = metaKey;
    } else {
        mReferencedBy.emplace_back(referrer, metaKey);
    }
}

void ZObject::RemoveReferencedBy(ZObject* referrer) {
    MutexLock lock(mTreeMutex);
    auto it = FindReferrer(mReferencedBy, referrer);
    if (it != mReferencedBy.end()) mReferencedBy.erase(it);
    // A node that lost its last referrer gives the storage back.
    if (mReferencedBy.empty()) ReferrerList().swap(mReferencedBy);
}

bool ZObject::_MetaKeyOf(ZObject* referrer, std::string* metaKey) {
    MutexLock lock(mTreeMutex);
    auto it = FindReferrer(mReferencedBy, referrer);
    if (it == mReferencedBy.end()) return false;
    if (metaKey != nullptr) *metaKey = it->second;
    return true;
}

std::string ZObject::GetMetaKeyInReferencedBy(ZObject* referrer) {
    std::string key;
    if (!_MetaKeyOf(referrer, &key)) {
        ZLOG(eZLogError, "Cannot find obj[%s] in my[%s] referencedBy list.\n",
             referrer != nullptr ? referrer->_LogName().c_str() : "(null)", _LogName().c_str());
        return std::string();
    }
    return key;
}

void ZObject::DumpReferencedBy() {
    MutexLock lock(mTreeMutex);
    ZLOGM("ZComLib", eZLogRaw, "Dump Resource[%s] is ReferencedBy ===>\n", _LogName().c_str());
    for (const auto& entry : mReferencedBy) {
        ZLOGM("ZComLib", eZLogRaw, "  ReferencedBy[%s], MetaKey[%s]\n",
              entry.first->_LogName().c_str(), entry.second.c_str());
    }
}

void ZObject::AppendReferenceTo(ZObject* target) {
    if (target == nullptr) return;
    MutexLock lock(mTreeMutex);
    if (!_ListsOpen()) return;
    if (mReferenceTo == nullptr) mReferenceTo = new std::set<ZObject*>();
    mReferenceTo->insert(target);
}

size_t ZObject::GetPendingChangeNum() {
    MutexLock lock(mQueueMutex);
    return mRedisCmdQueue != nullptr ? mRedisCmdQueue->size() : 0;
}

void ZObject::RemoveReferenceTo(ZObject* target) {
    MutexLock lock(mTreeMutex);
    if (mReferenceTo != nullptr) mReferenceTo->erase(target);
}

void ZObject::DumpReferenceTo() {
    MutexLock lock(mTreeMutex);
    ZLOGM("ZComLib", eZLogRaw, "Dump Resource[%s] is ReferencedTo ===>\n", _LogName().c_str());
    if (mReferenceTo == nullptr) return;
    for (ZObject* target : *mReferenceTo) {
        ZLOGM("ZComLib", eZLogRaw, "  ReferencedTo[%s]\n", target->_LogName().c_str());
    }
}

void ZObject::UpdateReferencedBy(eDestroyMode mode) {
    std::vector<std::pair<ZObject*, std::string>> referrers;
    {
        MutexLock lock(mTreeMutex);
        if (mReferencedBy.empty()) return;
        referrers = mReferencedBy;
    }

    std::vector<ZObject*> collections;  // each held by a using count
    for (auto& entry : referrers) {
        ZObject* referrer = entry.first;
        const std::string& metaKey = entry.second;
        if (!Use(referrer)) continue;
        UseRelease release(referrer);
        if (referrer->IsDied()) continue;

        ZObject* owner = referrer->GetParent();
        bool isMemberList = IsResourceType() && referrer->GetType() == eJsonArray &&
                            owner != nullptr && owner->GetType() == eResourceCollection &&
                            referrer->mId == "Members";
        if (isMemberList) {
            // A member leaves its collection whatever the mode: the
            // collection removes the link and shrinks its count below.
            if (Use(owner)) collections.push_back(owner);
        } else if (mode == eDestroyDelete || mode == eDestroyUnlink) {
            bool isLink = false;
            if (IsACorvelMetaKey(metaKey, nullptr, nullptr, &isLink) &&
                (mode == eDestroyDelete || isLink)) {
                if (referrer->GetType() == eJsonArray) {
                    referrer->ListRemove(metaKey, false);
                } else {
                    referrer->HashRemove(metaKey);
                }
            }
        } else if (mode == eDestroyRelink) {
            bool isLink = false;
            if (IsACorvelMetaKey(metaKey, nullptr, nullptr, &isLink) && isLink) {
                _RelinkInStore(referrer, metaKey);
            }
        } else {
            ZLOG(eZLogError, "Unknown destroyMode[%d].\n", static_cast<int>(mode));
        }
        referrer->RemoveReferenceTo(this);
    }

    for (ZObject* collection : collections) {
        collection->CollectionRemoveMember(static_cast<ZResource*>(this));
        collection->ApplyRedisChanges(true, nullptr);
        collection->DecreaseUsingCount();
    }
}

void ZObject::_RelinkInStore(ZObject* referrer, const std::string& metaKey) {
    std::string name;
    IsACorvelMetaKey(metaKey, &name, nullptr, nullptr);
    bool isArray = referrer->GetType() == eJsonArray;

    sObjectChange change;
    change.action = isArray ? eObjChgCreate : eObjChgUpdate;
    change.tableKind = isArray ? eObjTableList : eObjTableHash;
    change.isLink = true;
    change.key = name;
    change.dataKind = eObjDataObject;
    change.objValue = this;
    sRedisCmdItem item;
    item.action = change.action;
    if (referrer->_ObjChg2RedisCmd(&change, &item) != RT_SUCCESS) return;

    RedisCallConnection conn;
    redisContext* c = conn.get();
    if (c == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect().\n");
        return;
    }
    const std::string key = referrer->GetJPath();
    if (isArray) {
        RedisListDel(c, key.c_str(), metaKey);
        RedisListPushBack(c, key.c_str(), item.value.c_str());
    } else {
        if (item.key != metaKey) RedisHashDel(c, key.c_str(), metaKey.c_str());
        RedisHashSet(c, key.c_str(), item.key.c_str(), item.value.c_str());
    }
    // The referrer's bookkeeping follows the text now in the store.
    AppendReferencedBy(referrer, isArray ? item.value : item.key);
}

// ---------------------------------------------------------------------------
// Retirement
// ---------------------------------------------------------------------------

void ZObject::ObjDestroy(eDestroyMode mode, bool clearStore) {
    if (!Use(this)) return;
    UseRelease release(this);
    // Only one caller gets past this exchange: a second ObjDestroy, from this
    // thread or another, returns here.
    uint32_t alive = kAliveMark;
    if (!mLiveMark.compare_exchange_strong(alive, kDiedMark)) return;

    {
        MutexLock lock(mQueueMutex);
        if (mRedisCmdQueue != nullptr) {
            for (sRedisCmdItem* item : *mRedisCmdQueue) delete item;
            delete mRedisCmdQueue;
            mRedisCmdQueue = nullptr;
        }
    }

    UpdateReferencedBy(mode);

    std::set<ZObject*>* refTo = nullptr;
    ReferrerList refBy;  // freed at the end of this function
    {
        MutexLock lock(mTreeMutex);
        std::swap(refTo, mReferenceTo);
        refBy.swap(mReferencedBy);
    }
    if (refTo != nullptr) {
        for (ZObject* target : *refTo) {
            if (!Use(target)) continue;
            target->RemoveReferencedBy(this);
            target->DecreaseUsingCount();
        }
    }
    delete refTo;

    ChildList* children = nullptr;
    {
        MutexLock lock(mTreeMutex);
        std::swap(children, mChildList);
    }
    if (children != nullptr) {
        for (ZObject* child : *children) {
            if (!Use(child)) continue;
            if (child->GetType() == eResourceCollection) {
                static_cast<ZResourceCollection*>(child)->_Destroy(mode, clearStore);
            } else {
                child->ObjDestroy(mode, clearStore);
            }
            child->DecreaseUsingCount();
        }
        delete children;
    }

    ZObject* parent = mParent.load();
    if (parent != nullptr && Use(parent)) {
        if (!parent->IsDied()) parent->RemoveChildObj(this);
        parent->DecreaseUsingCount();
    }

    zApp->ObjectListRemove(this);
    zApp->RecycledListAppend(this);

    if (clearStore) _ClearRedisCache();
    if (IsResourceType()) static_cast<ZResource*>(this)->ResourceDestroy();
}

void ZObject::_ClearRedisCache() {
    // The service root is shared by every plug-in: never cleared.
    if (mId == "/redfish/v1/" || mJPath.empty()) return;
    // Below a RawJson root nothing has a key of its own: the root's text
    // holds it all.
    if (mIsRawJson && !IsRawJsonRoot()) return;
    // The thread's scoped connection when there is one: every node made
    // clears its key, and a connection of its own would cost more than that.
    RedisCallConnection conn;
    redisContext* c = conn.get();
    if (c == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect().\n");
        return;
    }
    switch (mType) {
        case eJsonArray:
            static_cast<ZJsonArray*>(this)->CleanItemsFromRedis(c);
            break;
        case eJsonObject:
            static_cast<ZJsonObject*>(this)->CleanPropertiesFromRedis(c);
            break;
        case eResource:
        case eResourceCollection:
            static_cast<ZResource*>(this)->CleanPropertiesFromRedis(c);
            break;
    }
}

}  // namespace Orbel
