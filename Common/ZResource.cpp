// A Redfish resource: default contents, request channel lists, the request
// lock and the front end's lock key, time-to-live and private data.
#include "ZResource.h"

#include <pthread.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZLogPrint.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

namespace Orbel {

namespace {

constexpr const char* kTtlTable = "&&TTL";
constexpr const char* kLockKeyPrefix = "&&ResourceLock:";
constexpr int kLockPollMs = 100;

const char* QueueWord(int method) {
    static const char* const kWords[] = {"POSTCREATEQ", "GETQ", "PATCHQ", "DELETEQ", "POSTACTIONQ"};
    return method >= 0 && method < eReqMethodNum ? kWords[method] : nullptr;
}

unsigned long ThisThread() {
    return (unsigned long)pthread_self();
}

}  // namespace

ZResource::ZResource(ZObject* parent, ZSchema* schema, eType type, const std::string& id,
                     const std::string& name, uint32_t attributes)
    // Class attribute bits 0 and 1 are the node's RawJson and MultiBackend.
    : ZObject(parent, type, id, name, attributes & (ATTR_RawJson | ATTR_MultiBackend)),
      mSchema(schema),
      mClassAttributes(attributes) {
    if (!IsPureString(name, false)) {
        ZLOG(eZLogError, "Resource[%s]: input entityName is not pure string.\n", name.c_str());
    }
}

ZResource::ZResource(ZObject* parent, ZSchema* schema, const std::string& id,
                     const std::string& name, uint32_t attributes)
    : ZResource(parent, schema, eResource, id, name, attributes) {
    // Clearing its keys, its channel lists, the collection's member list and
    // the first apply share one connection.
    RedisConnectionScope storeScope;
    ZObjectBuildWrites build;  // its writes in one round trip
    if (_InitResource()) ApplyRedisChanges(true, nullptr);
}

ZResource::~ZResource() {
    // Deleted without ObjDestroy (logged by the node core): the schema must
    // not keep a pointer to it, and its collection may hand out its id again.
    if (!IsDied()) {
        if (mSchema != nullptr) mSchema->DelResource(mName, this);
        _ReleaseMemberId();
    }
}

bool ZResource::_InitResource() {
    if (Initial() != RT_SUCCESS) return false;
    if (mSchema != nullptr) mSchema->AddResource(this);
    _InitFillDefaultContents();
    return true;
}

void ZResource::_InitFillDefaultContents() {
    // A RawJson resource gets the same defaults inside its text (its "&&"
    // fields stay fields of its hash), but no request channel lists.
    _HashWriteText("@odata.id", GetOdataId(), false);
    if (mSchema != nullptr) {
        const std::string print = mSchema->GetOdataPrintName();
        const std::string& version = mSchema->GetVersion();
        const std::string& name = mSchema->GetName();
        std::string type;
        type.reserve(print.size() + version.size() + name.size() + 3);
        type.append(1, '#').append(print).append(1, '.');
        if (!version.empty()) type.append(version).append(1, '.');
        type.append(name);
        _HashWriteText("@odata.type", std::move(type), false);
        if (mSchema->IsEtagEnabled()) HashWrite("@odata.etag", std::string());
        static constexpr std::string_view kContext = "/redfish/v1/$metadata#";
        std::string context;
        context.reserve(kContext.size() + print.size());
        context.append(kContext).append(print);
        _HashWriteText("@odata.context", std::move(context), false);
    }
    if ((mClassAttributes & RES_ATTR_EnableChecklist) != 0) HashWrite("&&EnableChecklist", true);
    if (mSchema == nullptr) return;

    const uint32_t crudq = mSchema->GetCRUDqFlag();
    for (int method = 0; method < eReqMethodNum && !IsDataFmtRawJson(); ++method) {
        if ((crudq & (1u << method)) == 0) continue;
        auto* channels = new ZJsonArray(this, QueueWord(method), ZJsonArray::ARRAY_ATTR_ChannelList);
        if (channels->JPathText().empty()) {
            channels->ObjDestroy(eDestroyDelete, false);
            continue;
        }
        _InitFillCRUDChannel(channels, method);
        HashWrite(QueueWord(method), channels);
    }
    if (mSchema->GetTaskFlag() != 0) HashWriteRawString("&&Async", "true");
    ResetAllowMethod(crudq);
}

void ZResource::_InitFillCRUDChannel(ZJsonArray* channelArray, int method) {
    if (channelArray == nullptr || mSchema == nullptr) return;
    const std::string channel = mSchema->GetCRUDqChannel(static_cast<eReqMethod>(method));
    if ((channelArray->GetAttribute() & ATTR_MultiBackend) != 0) {
        // Several backends serve this resource, each on its own channel: add
        // ours once, next to theirs.
        std::vector<std::string> stored;
        const std::string key = channelArray->GetJPath();
        if (RedisListGetAll(nullptr, key.c_str(), 0, -1, stored) != RT_SUCCESS) {
            ZLOG(eZLogError, "Failed to call RedisListGetAll( %s )\n", key.c_str());
            return;
        }
        if (std::find(stored.begin(), stored.end(), channel) != stored.end()) return;
    } else if (channelArray->PushChannelAfterClear(channel)) {
        return;
    } else if (channelArray->KeptForeignChannels()) {
        // The resource's owner goes before the other processes' channels:
        // the front end sends a request to the first one.
        RedisCallConnection conn;
        std::vector<eRtCode> results;
        if (conn.get() != nullptr &&
            RedisPipeline(conn.get(), {{"LPUSH", channelArray->GetJPath(), channel}}, results) ==
                RT_SUCCESS &&
            results[0] == RT_SUCCESS) {
            return;
        }
        ZLOG(eZLogError, "Failed to put channel[%s] first in [%s].\n", channel.c_str(),
             channelArray->GetJPath().c_str());
    }
    channelArray->ListWriteRawString(channel);
}

// ---------------------------------------------------------------------------
// "@odata.id"
// ---------------------------------------------------------------------------

std::string ZResource::GetOdataId() {
    MutexLock lock(mLockMutex);
    return mOdataId.empty() ? mJPath : mOdataId;
}

void ZResource::SetOdataId(const std::string& odataId) {
    MutexLock lock(mLockMutex);
    if (odataId == mJPath) {
        mOdataId.clear();
    } else {
        mOdataId = odataId;
    }
}

void ZResource::UpdateOdataId() {
    if (IsDied()) return;
    std::string odataId = GetJPath();
    ZObject* parent = GetParent();
    if (parent != nullptr && parent->GetType() == eJsonObject) {
        ZLOG(eZLogError, "The parent[%s] of embedded resource[%s] should be a JArray.\n",
             parent->GetJPath().c_str(), odataId.c_str());
    } else if (parent != nullptr && parent->GetType() == eJsonArray) {
        ZObject* holder = parent->GetParent();
        bool memberList = holder != nullptr && holder->GetType() == eResourceCollection &&
                          parent->GetId() == "Members";
        ZResource* owner = parent->GetOwnedByResource();
        int idx = static_cast<ZJsonArray*>(parent)->GetIdxByObject(this);
        if (!memberList && owner != nullptr && idx >= 0) {
            // Embedded: addressed by its position in the owner's document.
            const std::string ownerUri = owner->GetJPath();
            std::string below = parent->GetJPath();
            if (below.compare(0, 2, "&&") == 0) below.erase(0, 2);
            if (below.compare(0, ownerUri.size(), ownerUri) == 0) below.erase(0, ownerUri.size());
            size_t start = below.find_first_not_of('/');
            below = start == std::string::npos ? std::string() : below.substr(start);
            odataId = ownerUri + "#/" + below + "/" + std::to_string(idx);
        }
    }
    bool changed = false;
    {
        MutexLock lock(mLockMutex);
        changed = odataId != (mOdataId.empty() ? mJPath : mOdataId);
        if (changed) mOdataId = odataId == mJPath ? std::string() : odataId;
    }
    if (changed) HashWrite("@odata.id", odataId);
}

// ---------------------------------------------------------------------------
// Lock
// ---------------------------------------------------------------------------

eRtCode ZResource::Lock(int timeoutMs, uint32_t flags) {
    if (!Use(this)) return RT_FAILURE;
    UseRelease release(this);
    ZApplication* app = zApp;
    const unsigned long self = ThisThread();
    const uint32_t start = MiniTimeTick();
    bool reportedCorvel = false;
    unsigned long holder = 0;
    for (;;) {
        if (IsDied()) return RT_FAILURE;
        {
            MutexLock lock(mLockMutex);
            if (mLockOwner == self) {
                ++mLockDepth;
                return RT_SUCCESS;
            }
            holder = mLockOwner;
        }
        bool corvelBusy = false;
        if (holder == 0 && (flags & LOCK_IGNORE_CORVEL_KEY) == 0) {
            // The front end still owes the previous response its read.
            corvelBusy = IsCorvelLockKeyExist();
            if (corvelBusy && !reportedCorvel) {
                ZLOG(eZLogInfo, "Resource[%s] is locked by Corvel-Orbel.\n", mJPath.c_str());
                reportedCorvel = true;
            }
        }
        if (holder == 0 && !corvelBusy) {
            MutexLock lock(mLockMutex);
            if (mLockOwner == 0) {
                mLockOwner = self;
                mLockDepth = 1;
                return RT_SUCCESS;
            }
            holder = mLockOwner;
        }
        uint32_t elapsed = MiniTimeTick() - start;
        if (timeoutMs <= 0 || elapsed >= static_cast<uint32_t>(timeoutMs) || app->isExited()) {
            break;
        }
        MyMSleep(kLockPollMs);
    }
    if (holder != 0) {
        ZLOG(eZLogWarning,
             "Thread[%ld] try to lock resource[%s] but failed due to is locked by[%ld]!\n",
             (long)self, mJPath.c_str(), (long)holder);
    }
    return RT_BUSY;
}

eRtCode ZResource::Unlock() {
    const unsigned long self = ThisThread();
    MutexLock lock(mLockMutex);
    if (mLockOwner != self) {
        ZLOG(eZLogError, "Thread[0x%lx] try to unlock resource[%s] but is owned by thread[%lx]!\n",
             self, mJPath.c_str(), mLockOwner);
        return RT_FAILURE;
    }
    if (--mLockDepth <= 0) {
        mLockDepth = 0;
        mLockOwner = 0;
    }
    return RT_SUCCESS;
}

unsigned long ZResource::LockOwner() {
    MutexLock lock(mLockMutex);
    return mLockOwner;
}

int ZResource::LockDepth() {
    MutexLock lock(mLockMutex);
    return mLockDepth;
}

void ZResource::GetStatus(eResStatus& status, bool& lockedByMe) {
    lockedByMe = false;
    if (IsDied()) {
        status = eResDied;
        return;
    }
    MutexLock lock(mLockMutex);
    if (mLockOwner == 0) {
        status = eResIdle;
    } else {
        status = eResBusy;
        lockedByMe = mLockOwner == ThisThread();
    }
}

// Made when needed rather than kept: only resources that take requests
// ever use it.
std::string ZResource::GetCorvelLockKey() const {
    return mJPath.empty() ? std::string() : kLockKeyPrefix + mJPath;
}

std::string ZResource::CreateCorvelLockKey(redisContext* c, const std::string& value) {
    const std::string lockKey = GetCorvelLockKey();
    if (lockKey.empty()) return std::string();
    if (RedisSet(c, lockKey.c_str(), value.c_str(), kCorvelLockKeySeconds) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisSet( %s %s ).\n", lockKey.c_str(), value.c_str());
        return std::string();
    }
    return lockKey;
}

bool ZResource::IsCorvelLockKeyExist() {
    const std::string lockKey = GetCorvelLockKey();
    if (lockKey.empty()) return false;
    static const unsigned int kRetrySleepMs[] = {100, 200};
    for (unsigned int attempt = 0;; ++attempt) {
        std::string value;
        eRtCode rt = RedisGet(nullptr, lockKey.c_str(), &value);
        if (rt == RT_SUCCESS) return true;
        if (rt == RT_NO_SUCH_KEY) return false;
        if (attempt >= sizeof(kRetrySleepMs) / sizeof(kRetrySleepMs[0])) break;
        MyMSleep(kRetrySleepMs[attempt]);
    }
    // An unreadable key must not wedge every request: treat it as absent.
    ZLOG(eZLogError, "Failed to call RedisGet( %s ).\n", lockKey.c_str());
    return false;
}

// ---------------------------------------------------------------------------
// Time-to-live, private data
// ---------------------------------------------------------------------------

eRtCode ZResource::UpdateTtlTable() {
    const std::string uri = GetJPath();
    if (uri.empty()) return RT_FAILURE;
    if (mTTL == 0) {
        if (!mTtlFieldMayExist.load()) return RT_SUCCESS;
        eRtCode rt = RedisHashDel(nullptr, kTtlTable, uri.c_str());
        if (rt == RT_FIELD_MISSING) rt = RT_SUCCESS;
        if (rt == RT_SUCCESS) mTtlFieldMayExist.store(false);
        return rt;
    }
    long long until = static_cast<long long>(time(nullptr)) + mTTL;
    mTtlFieldMayExist.store(true);
    return RedisHashSet(nullptr, kTtlTable, uri.c_str(), std::to_string(until).c_str());
}

eRtCode ZResource::SetPrivateData(void* data, RecyclePrivDataCallback_t recycle) {
    if (data == nullptr || recycle == nullptr) {
        ZLOG(eZLogError, "data[%p] or recyclePrivDataCallback[%p] is Null\n", data,
             reinterpret_cast<void*>(recycle));
        return RT_INVALID_ARG;
    }
    void* old = mPrivateData;
    RecyclePrivDataCallback_t oldRecycle = mRecyclePrivData;
    mPrivateData = data;
    mRecyclePrivData = recycle;
    if (old != nullptr && old != data && oldRecycle != nullptr) oldRecycle(old);
    return RT_SUCCESS;
}

void ZResource::_ReleaseMemberId() {
    // A parent outlives its children, so the chain is safe to walk here.
    ZObject* holder = GetParent();
    if (holder == nullptr || holder->GetType() != eJsonArray || holder->IsDied()) return;
    ZObject* owner = holder->GetParent();
    if (owner == nullptr || owner->GetType() != eResourceCollection || owner->IsDied()) return;
    if (holder->GetId() != "Members") return;
    static_cast<ZResourceCollection*>(owner)->_MemberIdReleased(mId);
}

void ZResource::ResourceDestroy() {
    if (mSchema != nullptr) mSchema->DelResource(mName, this);
    _ReleaseMemberId();
    void* data = mPrivateData;
    RecyclePrivDataCallback_t recycle = mRecyclePrivData;
    mPrivateData = nullptr;
    mRecyclePrivData = nullptr;
    if (data != nullptr && recycle != nullptr) recycle(data);
}

// ---------------------------------------------------------------------------
// Store side of the change queue
// ---------------------------------------------------------------------------

eRtCode ZResource::AppendProperty(redisContext* c, const std::string& key,
                                  const std::string& value) {
    return _HashFieldSet(c, key, value);
}

eRtCode ZResource::RemoveProperty(redisContext* c, const std::string& key) {
    return _HashFieldDel(c, key);
}

eRtCode ZResource::CleanPropertiesFromRedis(redisContext* c) {
    eRtCode rt = _HashClean(c);
    // Content that is gone has nothing left to keep fresh (a MultiBackend
    // resource's content is not all gone).
    // In a constructor it rides with the new resource's other writes.
    if ((GetAttribute() & ATTR_MultiBackend) == 0 &&
        !RedisDeferCommand(c, {"HDEL", kTtlTable, mJPath})) {
        RedisHashDel(c, kTtlTable, mJPath.c_str());
    }
    return rt;
}

}  // namespace Orbel
