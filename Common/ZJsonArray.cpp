// A JSON array: one Redis list under its JPath, with its member objects and
// the count it publishes in its parent.
#include "ZJsonArray.h"

#include <algorithm>
#include <memory>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResource.h"

namespace Orbel {

// A channel list's clearing waiting for the read of the list (held array),
// and the channel to put in once it is done.
struct ZJsonArray::sChannelClear {
    ZJsonArray* array;
    redisContext* c;
    std::string channel;
    bool hasChannel = false;
};

ZJsonArray::ZJsonArray(ZObject* parent, const std::string& name, uint32_t attributes)
    : ZObject(parent, eJsonArray, name, name, 0), mClassAttributes(attributes) {
    // Clearing the key, publishing the count or reading the other backends'
    // items: one connection for all of it.
    RedisConnectionScope storeScope;
    ZObjectBuildWrites build;  // its writes in one round trip
    if (Initial() != RT_SUCCESS) return;
    if ((GetAttribute() & ATTR_MultiBackend) == 0) {
        _InitFillDefaultContents();
    } else {
        _InitMultiBackendMembers();
    }
}

ZJsonArray::~ZJsonArray() = default;

void ZJsonArray::_InitFillDefaultContents() {
    if ((mClassAttributes & ARRAY_ATTR_OdataCount) == 0) return;
    ZObject* parent = GetParent();
    if (parent == nullptr || parent->GetType() == eJsonArray) return;
    // The front end shows the count before the first element arrives.
    if (parent->HashWrite(mId + "@odata.count", 0) != RT_SUCCESS) return;
    // In a RawJson text the count is part of the content, kept by the
    // root's apply.
    if (IsDataFmtRawJson()) return;
    if (parent->ApplyRedisChanges(false, nullptr) == RT_SUCCESS) {
        MutexLock lock(mMemberMutex);
        mPublishedCount = 0;
    }
}

void ZJsonArray::_InitMultiBackendMembers() {
    // Other backends may have filled the list already: the nodes of this
    // process that it links count as members; the rest belong to the others.
    std::vector<std::string> items;
    if (RedisListGetAll(nullptr, mJPath.c_str(), 0, -1, items) != RT_SUCCESS) return;
    ZApplication* app = zApp;
    if (app == nullptr) return;
    for (const std::string& item : items) {
        std::string target;
        if (item.compare(0, 12, "&&ObjectRef ") != 0 && item.compare(0, 9, "&&Object ") != 0) {
            continue;
        }
        if (!IsACorvelMetaKey(item, nullptr, &target, nullptr)) continue;
        ZObject* obj = app->GetObject(target);
        if (!Use(obj)) continue;
        UseRelease release(obj);
        if (!obj->IsDied()) {
            MutexLock lock(mMemberMutex);
            if (!_IsMemberLocked(obj)) _AddMemberLocked(obj);
        }
    }
}

// ---------------------------------------------------------------------------
// Member objects
// ---------------------------------------------------------------------------

bool ZJsonArray::_IsMemberLocked(ZObject* obj) const {
    if (mMemberIndex != nullptr) return mMemberIndex->count(obj) != 0;
    return std::find(mMembers.begin(), mMembers.end(), obj) != mMembers.end();
}

void ZJsonArray::_AddMemberLocked(ZObject* obj) {
    mMembers.push_back(obj);
    if (mMemberIndex != nullptr) {
        mMemberIndex->insert(obj);
    } else if (mMembers.size() >= kMemberIndexFrom) {
        mMemberIndex.reset(new std::unordered_set<ZObject*>(mMembers.begin(), mMembers.end()));
    }
}

eRtCode ZJsonArray::AddObjectItem(ZObject* obj) {
    if (obj == nullptr) return RT_INVALID_ARG;
    MutexLock lock(mMemberMutex);
    if (_IsMemberLocked(obj)) {
        ZLOG(eZLogWarning, "Add a duplicate object[%p][%s] to array[%s].\n",
             static_cast<void*>(obj), obj->GetJPath().c_str(), mJPath.c_str());
        return RT_FAILURE;
    }
    _AddMemberLocked(obj);
    return RT_SUCCESS;
}

eRtCode ZJsonArray::DelObjectItem(ZObject* obj) {
    if (obj == nullptr) return RT_SUCCESS;
    std::vector<ZObject*> shifted;  // members whose position changes
    {
        MutexLock lock(mMemberMutex);
        auto it = std::find(mMembers.begin(), mMembers.end(), obj);
        if (it == mMembers.end()) {
            ZLOG(eZLogError, "Object[%s] is not a member of collection[%s].\n",
                 obj->GetJPath().c_str(), mJPath.c_str());
            return RT_FAILURE;
        }
        it = mMembers.erase(it);
        if (mMemberIndex != nullptr) mMemberIndex->erase(obj);
        for (; it != mMembers.end(); ++it) {
            if ((*it)->IsResourceType() && Use(*it)) shifted.push_back(*it);
        }
    }
    // An embedded resource's "@odata.id" holds its position.
    if (obj->IsResourceType() && !obj->IsDied()) static_cast<ZResource*>(obj)->UpdateOdataId();
    for (ZObject* member : shifted) {
        if (!member->IsDied()) static_cast<ZResource*>(member)->UpdateOdataId();
        member->DecreaseUsingCount();
    }
    return RT_SUCCESS;
}

int ZJsonArray::GetIdxByObject(ZObject* obj) {
    MutexLock lock(mMemberMutex);
    auto it = std::find(mMembers.begin(), mMembers.end(), obj);
    return it == mMembers.end() ? -1 : static_cast<int>(it - mMembers.begin());
}

void ZJsonArray::GetMemberObjects(std::vector<ZObject*>& out) {
    MutexLock lock(mMemberMutex);
    out = mMembers;
}

void ZJsonArray::DumpMemberObjs() {
    MutexLock lock(mMemberMutex);
    ZLOGM("ZComLib", eZLogRaw, "Dump [%s] member objects ======>\n", mJPath.c_str());
    int idx = 0;
    for (ZObject* obj : mMembers) {
        ZLOGM("ZComLib", eZLogRaw, "  Idx[%03d]: Obj[%p][%s]\n", idx++, static_cast<void*>(obj),
              obj->GetJPath().c_str());
    }
}

void ZJsonArray::CleanObjectItem() {
    MutexLock lock(mMemberMutex);
    mMembers.clear();
    mMemberIndex.reset();
}

// ---------------------------------------------------------------------------
// Store side
// ---------------------------------------------------------------------------

unsigned int ZJsonArray::ItemNum() {
    RedisCallConnection conn;
    if (conn.get() == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect()\n");
        return 0;
    }
    int size = ListSize(conn.get());
    if (size < 0) {
        ZLOG(eZLogError, "ListSize() returned error! (%d)\n", size);
        return 0;
    }
    return static_cast<unsigned int>(size);
}

eRtCode ZJsonArray::AppendItem(redisContext* c, const std::string& value) {
    if ((GetAttribute() & ATTR_MultiBackend) != 0) _NoteWritten(value);
    eRtCode rt = RedisListPushBack(c, mJPath.c_str(), value.c_str());
    UpdateParentOdataCount(c);
    return rt;
}

eRtCode ZJsonArray::UpdateItem(redisContext* c, const std::string& index,
                               const std::string& value) {
    eRtCode rt = RedisListSet(c, mJPath.c_str(), index.c_str(), value.c_str());
    UpdateParentOdataCount(c);
    return rt;
}

eRtCode ZJsonArray::RemoveItem(redisContext* c, const std::string& text) {
    // Another backend's elements are not this process's to remove.
    if ((GetAttribute() & ATTR_MultiBackend) != 0 && !_ForgetWritten(text)) {
        ZLOG(eZLogError, "Unknown item[%s] in Object[%s].\n", text.c_str(), mJPath.c_str());
        return RT_FAILURE;
    }
    eRtCode rt = IsACorvelMetaKey(text) ? RedisListDelAll(c, mJPath.c_str(), text)
                                        : RedisListDel(c, mJPath.c_str(), text);
    UpdateParentOdataCount(c);
    return rt;
}

bool ZJsonArray::PublishesCount() {
    if ((mClassAttributes & ARRAY_ATTR_OdataCount) == 0) return false;
    ZObject* parent = GetParent();
    return parent != nullptr && parent->GetType() != eJsonArray;
}

eRtCode ZJsonArray::UpdateParentOdataCount(redisContext* c) {
    if (!PublishesCount()) return RT_SUCCESS;
    RedisCallConnection conn(c);
    if (conn.get() == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect()\n");
        return RT_FAILURE;
    }
    int size = ListSize(conn.get());
    if (size < 0) return RT_FAILURE;
    return PublishCount(conn.get(), size);
}

eRtCode ZJsonArray::PublishCount(redisContext* c, long long length) {
    ZObject* parent = GetParent();
    if (!PublishesCount() || parent == nullptr || length < 0) return RT_SUCCESS;
    // Held across the write, so two appliers never publish out of order.
    MutexLock lock(mMemberMutex);
    if (length == mPublishedCount) return RT_SUCCESS;
    const std::string field = mId + "@odata.count";
    eRtCode rt =
        RedisHashSet(c, parent->JPathText().c_str(), field.c_str(), std::to_string(length).c_str());
    if (rt == RT_SUCCESS) mPublishedCount = static_cast<int32_t>(length);
    return rt;
}

eRtCode ZJsonArray::CleanItemsFromRedis(redisContext* c) {
    ZApplication* app = zApp;
    if ((GetAttribute() & ATTR_MultiBackend) == 0 && (mClassAttributes & ARRAY_ATTR_ChannelList) != 0 &&
        app != nullptr && !app->AppName().empty()) {
        // Only this application's channels: the other elements name the
        // channels of other processes that serve the same resource.
        // In a constructor the list is read with the round trip that
        // carries the new node's other writes; the clearing ends when the
        // reply is there (_OnChannelsRead).
        auto* pending = new sChannelClear{this, c, std::string()};
        IncreaseUsingCount();  // released by the reply's handler
        if (RedisDeferCommand(c, {"LRANGE", mJPath, "0", "-1"}, _OnChannelsRead, pending)) {
            mPendingClear = pending;
            return RT_SUCCESS;
        }
        DecreaseUsingCount();
        delete pending;
        const std::string own = app->AppName() + ":";
        std::vector<std::string> items;
        eRtCode rt = RedisListGetAll(c, mJPath.c_str(), 0, -1, items);
        for (const std::string& item : items) {
            if (item.compare(0, own.size(), own) != 0) {
                mKeptForeignChannels = true;
                continue;
            }
            if (RedisListDelAll(c, mJPath.c_str(), item) != RT_SUCCESS) rt = RT_FAILURE;
        }
        return rt;
    }
    if ((GetAttribute() & ATTR_MultiBackend) == 0) return RedisDelTable(c, mJPath.c_str());
    eRtCode rt = RT_SUCCESS;
    for (const std::string& item : _TakeWritten()) {
        if (RedisListDelAll(c, mJPath.c_str(), item) != RT_SUCCESS) rt = RT_FAILURE;
    }
    return rt;
}

bool ZJsonArray::PushChannelAfterClear(const std::string& channel) {
    if (mPendingClear == nullptr) return false;
    mPendingClear->channel = channel;
    mPendingClear->hasChannel = true;
    return true;
}

void ZJsonArray::_OnChannelsRead(void* arg, const sRedisDeferredReply& reply) {
    std::unique_ptr<sChannelClear> pending(static_cast<sChannelClear*>(arg));
    ZJsonArray* self = pending->array;
    redisContext* c = pending->c;
    self->mPendingClear = nullptr;
    const std::string* channel = pending->hasChannel ? &pending->channel : nullptr;
    ZApplication* app = zApp;
    // Retired meanwhile: its list is gone (or going), and stays so.
    if (!self->IsDied() && app != nullptr) {
        // The commands the clearing sends without a constructor, in the
        // same order: this application's channels out, then its channel in,
        // first when other processes' channels stay.
        // This application's channels are "<application name>:...".
        const std::string& name = app->AppName();
        bool kept = false;
        for (const std::string& item : reply.items) {
            if (item.size() <= name.size() || item[name.size()] != ':' ||
                item.compare(0, name.size(), name) != 0) {
                kept = true;
            } else if (!RedisDeferCommand(c, {"LREM", self->mJPath, "0", item})) {
                RedisListDelAll(c, self->mJPath.c_str(), item);
            }
        }
        self->mKeptForeignChannels = kept;
        if (channel != nullptr) {
            const char* push = kept ? "LPUSH" : "RPUSH";
            if (!RedisDeferCommand(c, {push, self->mJPath, *channel})) {
                std::vector<eRtCode> results;
                if (RedisPipeline(c, {{push, self->mJPath, *channel}}, results) != RT_SUCCESS ||
                    results[0] != RT_SUCCESS) {
                    ZLOG(eZLogError, "Failed to put channel[%s] first in [%s].\n",
                         channel->c_str(), self->mJPath.c_str());
                }
            }
        }
    }
    self->DecreaseUsingCount();
}

void ZJsonArray::_Destroy(eDestroyMode mode, bool clearStore) {
    ZObject* parent = GetParent();
    if (parent != nullptr && !IsDied()) {
        RedisCallConnection conn;
        if (conn.get() == nullptr) {
            ZLOG(eZLogError, "Failed to call RedisConnect()\n");
        } else {
            const std::string key = parent->GetJPath();
            RedisHashDel(conn.get(), key.c_str(), (mId + "@odata.navigationLink").c_str());
            RedisHashDel(conn.get(), key.c_str(), (mId + "@odata.count").c_str());
        }
    }
    ObjDestroy(mode, clearStore);
}

}  // namespace Orbel
