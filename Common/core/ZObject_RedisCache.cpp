// The change queue: every write of a node becomes one queued store command,
// written to the store when the node (usually the resource, recursively) is
// applied. The layout of the texts is the wire format the front end reads
// (docs/wire-protocol.md).
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"

namespace Orbel {

namespace {

constexpr uint32_t kUnappliedWarnMs = 10000;

void LogRawJsonRefused() {
    ZLOG(eZLogError, "This function is not available when data format is set to RawJson.\n");
}

const char* ActName(uint32_t action) {
    switch (action) {
        case eObjChgCreate:
            return "Create";
        case eObjChgUpdate:
            return "Update";
        case eObjChgRemove:
            return "Remove";
        case eObjChgClear:
            return "Clear";
        default:
            return "Unknown";
    }
}

const char* DataKindName(uint32_t kind) {
    switch (kind) {
        case eObjDataNull:
            return "Null";
        case eObjDataBool:
            return "Bool";
        case eObjDataSigned:
            return "Int64";
        case eObjDataUnsigned:
            return "UInt64";
        case eObjDataString:
            return "String";
        case eObjDataObject:
            return "Object";
        case eObjDataRawString:
            return "RawString";
        case eObjDataDouble:
            return "Double";
        default:
            return "Unknown";
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Checks shared by every write
// ---------------------------------------------------------------------------

bool ZObject::_CheckWritable(bool rawJsonOk) {
    if (!Use(this)) return false;
    if (IsDied()) {
        ZLOG(eZLogWarning, "Object[%s] is died; the write is dropped.\n", _LogName().c_str());
        DecreaseUsingCount();
        return false;
    }
    if (!rawJsonOk && mIsRawJson) {
        LogRawJsonRefused();
        DecreaseUsingCount();
        return false;
    }
    return true;
}

bool ZObject::_IsHashTable(const char* what, const std::string& name) {
    (void)what;
    if (mType == eJsonArray) {
        ZLOG(eZLogError,
             "Object[%s] type[%d] is not Resource, ResourceCollection or JsonObject. "
             "pptName[%s]\n",
             _LogName().c_str(), static_cast<int>(mType), name.c_str());
        return false;
    }
    return true;
}

bool ZObject::_IsListTable(int index) {
    if (mType != eJsonArray) {
        ZLOG(eZLogError, "Object[%s] type[%d] is not JsonArray. itemIdx[%d]\n", _LogName().c_str(),
             static_cast<int>(mType), index);
        return false;
    }
    return true;
}


// ---------------------------------------------------------------------------
// From change to queued command
// ---------------------------------------------------------------------------

namespace {

// Freed item blocks kept by a thread; given back to the heap when the
// thread ends. The sanitizer builds use the heap every time, so that a
// stale item is caught where it is used.
#if defined(__SANITIZE_ADDRESS__)
#define ORBEL_ITEM_CACHE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORBEL_ITEM_CACHE 0
#endif
#endif
#ifndef ORBEL_ITEM_CACHE
#define ORBEL_ITEM_CACHE 1
#endif

#if ORBEL_ITEM_CACHE
struct sItemCache {
    struct Block {
        Block* next;
    };
    static constexpr uint32_t kMax = 64;  // a member's build queues about a dozen
    Block* head = nullptr;
    uint32_t count = 0;
    bool closed = false;  // the thread is ending: blocks go straight back
    ~sItemCache() {
        closed = true;
        while (head != nullptr) {
            Block* next = head->next;
            ::operator delete(head);
            head = next;
        }
        count = 0;
    }
};
thread_local sItemCache tItemCache;
#endif

}  // namespace

void* sRedisCmdItem::operator new(size_t size) {
#if ORBEL_ITEM_CACHE
    sItemCache& cache = tItemCache;
    if (size == sizeof(sRedisCmdItem) && cache.head != nullptr) {
        sItemCache::Block* block = cache.head;
        cache.head = block->next;
        --cache.count;
        return block;
    }
#endif
    return ::operator new(size);
}

void sRedisCmdItem::operator delete(void* p, size_t size) noexcept {
    if (p == nullptr) return;
#if ORBEL_ITEM_CACHE
    sItemCache& cache = tItemCache;
    if (size == sizeof(sRedisCmdItem) && !cache.closed && cache.count < sItemCache::kMax) {
        auto* block = static_cast<sItemCache::Block*>(p);
        block->next = cache.head;
        cache.head = block;
        ++cache.count;
        return;
    }
#else
    (void)size;
#endif
    ::operator delete(p);
}

std::string ZObject::_NodeLinkText(ZObject* node, bool isLink, const std::string& name) {
    std::string_view word;
    std::string odataId;  // a linked resource's URI may differ from its JPath
    const std::string* target = &node->JPathText();
    if (isLink) {
        word = "&&ObjectRef";
        if (node->IsResourceType()) {
            odataId = static_cast<ZResource*>(node)->GetOdataId();
            target = &odataId;
        }
    } else {
        word = node->GetType() == eJsonArray ? "&&Array" : "&&Object";
    }
    std::string text;
    text.reserve(word.size() + name.size() + target->size() + 2);
    text.append(word).push_back(' ');
    if (!name.empty()) text.append(name).push_back(' ');
    text += *target;
    return text;
}

std::string ZObject::_ValueText(const sObjectChange* change) {
    switch (change->dataKind) {
        case eObjDataNull:
            return "null";
        case eObjDataBool:
            return change->scalar.b ? "true" : "false";
        case eObjDataSigned:
            return std::to_string(change->scalar.s);
        case eObjDataUnsigned:
            return std::to_string(change->scalar.u);
        case eObjDataString: {
            // Kept as given when it is JSON string content already (text
            // from the front end, or escaped by the plug-in); otherwise the
            // bytes that would break the document are escaped.
            // Most texts end in a printable byte that is no blank: nothing to
            // strip, no copy.
            const std::string& given = change->strValue;
            const unsigned char last = given.empty() ? 0 : static_cast<unsigned char>(given.back());
            const bool strip = last <= 0x20 || last >= 0x7F;
            const std::string strippedCopy = strip ? StringRightStrip(given, " ") : std::string();
            const std::string& stripped = strip ? strippedCopy : given;
            std::string text;
            text.reserve(stripped.size() + 2);
            text += '"';
            if (IsJsonStringContent(stripped)) {
                text += stripped;
            } else {
                text += JsonStringContent(stripped);
            }
            text += '"';
            return text;
        }
        case eObjDataObject:
            return change->objValue != nullptr
                       ? _NodeLinkText(change->objValue, change->isLink, std::string())
                       : std::string("(!!failed!!)");
        case eObjDataRawString:
            return change->strValue;
        case eObjDataDouble: {
            char buf[64];
            int n = std::snprintf(buf, sizeof(buf), "%f", change->scalar.d);
            // Beyond the buffer only for magnitudes past 1e56: fall back.
            if (n < 0 || static_cast<size_t>(n) >= sizeof(buf)) {
                return std::to_string(change->scalar.d);
            }
            return std::string(buf, static_cast<size_t>(n));
        }
        default:
            return "(!!failed!!)";
    }
}

eRtCode ZObject::_ObjChg2RedisCmd(sObjectChange* change, sRedisCmdItem* item) {
    if (change == nullptr || item == nullptr) return RT_INVALID_ARG;
    item->action = change->action;
    const bool node = change->dataKind == eObjDataObject && change->objValue != nullptr;
    const bool textLink = change->dataKind == eObjDataString && change->isLink;

    if (change->tableKind == eObjTableHash) {
        if (change->action == eObjChgRemove || change->action == eObjChgClear) {
            // Removal names the stored field itself (composite for nodes).
            item->key = change->key;
            item->value.clear();
        } else if (node) {
            item->key = _NodeLinkText(change->objValue, change->isLink, change->key);
            item->value.clear();
        } else if (textLink) {
            item->key = "&&ObjectRef " + change->key + " " + change->strValue;
            item->value.clear();
        } else {
            item->key = change->key;
            item->value = _ValueText(change);
        }
    } else if (change->tableKind == eObjTableList) {
        if (change->action == eObjChgRemove || change->action == eObjChgClear) {
            item->key = change->key;
            item->value = change->key;
        } else {
            item->key = change->action == eObjChgCreate ? std::string("Create")
                                                        : std::to_string(change->index);
            if (textLink) {
                item->value = "&&ObjectRef " + change->strValue;
            } else {
                item->value = _ValueText(change);
            }
        }
    } else {
        ZLOG(eZLogError, "Unknown table kind[%u].\n", static_cast<unsigned>(change->tableKind));
        return RT_FAILURE;
    }
    item->obj = node ? change->objValue : nullptr;
    return RT_SUCCESS;
}

eRtCode ZObject::ApplyObjectChanges(sObjectChange* change) {
    if (change == nullptr) return RT_INVALID_ARG;
    if (!Use(this)) return RT_FAILURE;
    UseRelease release(this);
    return _QueueChange(change);
}

eRtCode ZObject::_QueueChange(sObjectChange* change) {
    ZObject* retire = nullptr;
    ZObject* value = change->dataKind == eObjDataObject ? change->objValue : nullptr;
    switch (change->action) {
        case eObjChgCreate:
        case eObjChgUpdate: {
            auto* item = new sRedisCmdItem();
            eRtCode rt =
                mIsRawJson ? _ObjChg2RawJsonData(change, item) : _ObjChg2RedisCmd(change, item);
            if (rt != RT_SUCCESS) {
                delete item;
                return rt;
            }
            // Taken before the queue owns the item (an apply on another
            // thread may free it at once); only a node value needs it.
            const bool linked = value != nullptr && !mIsRawJson;
            std::string metaKey;
            if (linked) metaKey = change->tableKind == eObjTableHash ? item->key : item->value;
            AppendRedisChange(item);
            if (linked) {
                value->AppendReferencedBy(this, metaKey);
                if (value->GetParent() != this) AppendReferenceTo(value);
            }
            break;
        }
        case eObjChgRemove: {
            if (mIsRawJson) {
                ZLOG(eZLogError, "Shouldn't run in this condition when data format is RawJson.\n");
                return RT_FAILURE;
            }
            auto* item = new sRedisCmdItem();
            eRtCode rt = _ObjChg2RedisCmd(change, item);
            if (rt != RT_SUCCESS) {
                delete item;
                return rt;
            }
            if (change->tableKind == eObjTableHash && change->key.compare(0, 12, "&&ObjectRef ") == 0) {
                _ForgetTextLink(change->key);
            }
            AppendRedisChange(item);
            retire = value;
            break;
        }
        case eObjChgClear:
            if (mIsRawJson) {
                ZLOG(eZLogError, "Shouldn't run in this condition when data format is RawJson.\n");
                return RT_FAILURE;
            }
            // Clear writes nothing to the store: it only retires the node.
            retire = value;
            break;
        default:
            ZLOG(eZLogError, "Unknown action[%d]\n", static_cast<int>(change->action));
            return RT_FAILURE;
    }
    if (retire != nullptr) retire->ObjDestroy(eDestroyUnlink, true);
    return RT_SUCCESS;
}

void ZObject::AppendRedisChange(sRedisCmdItem* item) {
    if (item == nullptr) return;
    ZApplication* app = zApp;
    uint32_t now = app != nullptr ? app->LastLoopProcTimetick() : MiniTimeTick();
    MutexLock lock(mQueueMutex);
    if (!_ListsOpen()) {
        ZLOG(eZLogError, "Object[%s] has no change queue; the change is dropped.\n",
             _LogName().c_str());
        delete item;
        return;
    }
    if (mRedisCmdQueue == nullptr) {
        // Freed by the apply; a handler's writes usually come several at a time.
        mRedisCmdQueue = new std::vector<sRedisCmdItem*>();
        mRedisCmdQueue->reserve(8);
    }
    // Differences of the 32-bit tick stay right across its wrap.
    if (!mRedisCmdQueue->empty() &&
        static_cast<uint32_t>(now - mLastAppendTick) > kUnappliedWarnMs) {
        ZLOG(eZLogError,
             "Cached data over 10 seconds. It might forget to apply changes into Redis? Obj[%s]\n",
             _LogName().c_str());
    }
    const bool first = mRedisCmdQueue->empty();
    mRedisCmdQueue->push_back(item);
    mLastAppendTick = now;
    if (first) ZUnappliedWatch::NoteFirstChange(this);
}

namespace {
thread_local ZUnappliedWatch* tWatch = nullptr;
}  // namespace

ZUnappliedWatch::ZUnappliedWatch() : mOuter(tWatch) {
    tWatch = this;
}

ZUnappliedWatch::~ZUnappliedWatch() {
    tWatch = mOuter;
    for (ZObject* node : mNodes) node->DecreaseUsingCount();
}

void ZUnappliedWatch::NoteFirstChange(ZObject* node) {
    ZUnappliedWatch* watch = tWatch;
    if (watch == nullptr) return;
    // Held, so the pointer stays good until the watch ends, even when the
    // node is retired meanwhile.
    node->IncreaseUsingCount();
    watch->mNodes.push_back(node);
}

std::vector<ZObject*> ZUnappliedWatch::Unapplied() const {
    std::vector<ZObject*> out;
    std::set<ZObject*> seen;
    for (ZObject* node : mNodes) {
        if (node->IsDied() || node->GetPendingChangeNum() == 0 || !seen.insert(node).second) continue;
        // A request's own nodes (messages, response data, tasks) have no
        // resource above them and are written by the answer.
        bool inResource = false;
        for (ZObject* p = node; p != nullptr && !inResource; p = p->GetParent()) {
            inResource = p->IsResourceType();
        }
        if (inResource) out.push_back(node);
    }
    return out;
}

// ---------------------------------------------------------------------------
// Applying and discarding
// ---------------------------------------------------------------------------

eRtCode ZObject::ApplyRedisChanges(bool recursive, redisContext* c) {
    if (!Use(this)) return RT_FAILURE;
    if (mIsRawJson) {
        // One text holds the whole RawJson subtree: only its root writes it,
        // and always all of it.
        UseRelease releaseRaw(this);
        if (!IsRawJsonRoot()) {
            ZLOG(eZLogInfo, "Ignore object[%s] applyRedisChanges action.\n", _LogName().c_str());
            return RT_SUCCESS;
        }
        return ApplyRawJsonData(c);
    }
    UseRelease release(this);
    if (c != nullptr) return ObjData2RedisCache(recursive, c);
    // The thread's scoped connection when there is one (a stage, a request).
    RedisCallConnection conn;
    if (conn.get() == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect()\n.");
        return RT_FAILURE;
    }
    return ObjData2RedisCache(recursive, conn.get());
}

eRtCode ZObject::_ApplyOneItem(redisContext* c, sRedisCmdItem* item) {
    const bool array = mType == eJsonArray;
    switch (item->action) {
        case eObjChgCreate:
        case eObjChgUpdate:
            if (array) {
                auto* list = static_cast<ZJsonArray*>(this);
                return item->action == eObjChgUpdate ? list->UpdateItem(c, item->key, item->value)
                                                     : list->AppendItem(c, item->value);
            }
            if (mType == eJsonObject) {
                return static_cast<ZJsonObject*>(this)->AppendProperty(c, item->key, item->value);
            }
            return static_cast<ZResource*>(this)->AppendProperty(c, item->key, item->value);
        case eObjChgRemove:
            if (array) return static_cast<ZJsonArray*>(this)->RemoveItem(c, item->key);
            if (mType == eJsonObject) {
                return static_cast<ZJsonObject*>(this)->RemoveProperty(c, item->key);
            }
            return static_cast<ZResource*>(this)->RemoveProperty(c, item->key);
        default:
            ZLOG(eZLogError, "Unknown action type[%d]\n", static_cast<int>(item->action));
            return RT_FAILURE;
    }
}

namespace {

// The outermost ZObjectBuildWrites of the thread (its connection), and
// whether it holds gApplyOrder.
thread_local redisContext* tBuildConn = nullptr;
thread_local bool tBuildHoldsOrder = false;

// An array's count waiting for its deferred LLEN; the array is held.
struct sPendingCount {
    ZJsonArray* array;
    redisContext* c;
};

void PublishDeferredCount(void* arg, const sRedisDeferredReply& reply) {
    auto* pending = static_cast<sPendingCount*>(arg);
    // A retired array's parent may be cleared already: no count for it.
    if (reply.result == RT_SUCCESS && !pending->array->IsDied()) {
        pending->array->PublishCount(pending->c, reply.integer);
    }
    pending->array->DecreaseUsingCount();
    delete pending;
}

// The store commands of one apply (the top-level ApplyRedisChanges and its
// recursion on one connection), sent in one round trip when it ends. Arrays
// that publish a count read their length in the same round trip and publish
// it after. One per thread while an apply runs.
struct sApplyPipeline {
    redisContext* c = nullptr;
    std::vector<sRedisPipelineCmd> cmds;
    // An array (held by a using count) and the position of its LLEN.
    std::vector<std::pair<ZJsonArray*, size_t>> counts;

    // Sends everything; publishes the counts. 0, or 2 when a command failed.
    // While the thread defers writes on the connection (a constructor's own
    // writes, whose result nobody reads), the commands go out with the next
    // round trip instead, and a count follows its length's reply.
    eRtCode Flush() {
        size_t deferred = 0;
        size_t nextCount = 0;
        for (; tBuildConn == c && deferred < cmds.size(); ++deferred) {
            const bool isCount = nextCount < counts.size() && counts[nextCount].second == deferred;
            if (!isCount) {
                if (!RedisDeferCommand(c, cmds[deferred].argv)) break;
                continue;
            }
            auto* pending = new sPendingCount{counts[nextCount].first, c};
            if (!RedisDeferCommand(c, cmds[deferred].argv, PublishDeferredCount, pending)) {
                delete pending;
                break;
            }
            ++nextCount;
        }
        if (deferred != 0) {
            cmds.erase(cmds.begin(), cmds.begin() + static_cast<std::ptrdiff_t>(deferred));
            counts.erase(counts.begin(), counts.begin() + static_cast<std::ptrdiff_t>(nextCount));
            for (auto& count : counts) count.second -= deferred;
            if (cmds.empty()) return RT_SUCCESS;
        }
        eRtCode rt = RedisPipelineWrites(c, cmds);
        for (const auto& [array, at] : counts) {
            if (cmds[at].result == RT_SUCCESS &&
                array->PublishCount(c, cmds[at].integer) != RT_SUCCESS) {
                rt = RT_FAILURE;
            }
            array->DecreaseUsingCount();
        }
        cmds.clear();
        counts.clear();
        return rt;
    }
};

thread_local sApplyPipeline* tPipeline = nullptr;
// The vectors of the thread's last top-level apply, emptied: the next one
// starts with their room instead of growing its own.
thread_local std::vector<sRedisPipelineCmd> tSpareCmds;
thread_local std::vector<std::pair<std::string, std::string>> tSpareSets;

// Held by a pipelined apply from its first command to its flush. A node's
// commands used to reach the store under its queue lock, in call order;
// gathered into a pipeline they leave after the lock is given back, so two
// threads applying the same node must not overtake each other: applies send
// one at a time (each is one round trip). Taken before any node lock and
// never while holding one.
std::mutex gApplyOrder;

sRedisPipelineCmd Cmd(std::vector<std::string> argv) {
    sRedisPipelineCmd cmd;
    cmd.argv = std::move(argv);
    return cmd;
}

}  // namespace

eRtCode ZObject::_ApplyQueue(redisContext* c, std::vector<sRedisCmdItem*>& queue) {
    // Each field or element is written once per apply. A hash gets one HDEL
    // of the fields whose last change removes them, then one HSET of the
    // fields whose last change sets them (with that value): the store ends
    // as the changes one by one would leave it. A list gets one RPUSH per
    // run of appends (overwrites and removals keep their place between the
    // runs), and its count is refreshed once, after the last item. A failed
    // command fails the items it carried: logged, dropped, and the apply
    // returns 2.
    sApplyPipeline own;
    sApplyPipeline* out = tPipeline != nullptr && tPipeline->c == c ? tPipeline : &own;
    own.c = c;
    eRtCode rt = RT_SUCCESS;
    const bool multi = (mAttribute & ATTR_MultiBackend) != 0;
    if (mType != eJsonArray) {
        // A node's queue is short: a scan finds a field set before.
        std::vector<std::pair<std::string, std::string>> sets = std::move(tSpareSets);
        sets.clear();
        sets.reserve(queue.size());
        std::vector<std::string> dels;
        const auto setOf = [&sets](const std::string& field) {
            return std::find_if(sets.begin(), sets.end(),
                                [&field](const auto& s) { return s.first == field; });
        };
        for (sRedisCmdItem* item : queue) {
            if (item->action == eObjChgUpdate || item->action == eObjChgCreate) {
                auto found = setOf(item->key);
                if (found == sets.end()) {
                    sets.emplace_back(std::move(item->key), std::move(item->value));
                } else {
                    found->second = std::move(item->value);
                }
            } else if (item->action == eObjChgRemove) {
                auto found = setOf(item->key);
                // Set, then removed: only the removal reaches the store.
                if (found != sets.end()) sets.erase(found);
                if (std::find(dels.begin(), dels.end(), item->key) == dels.end()) {
                    dels.push_back(item->key);
                }
            } else if (_ApplyOneItem(c, item) != RT_SUCCESS) {  // logs the unknown action
                rt = RT_FAILURE;
            }
        }
        if (!dels.empty()) {
            std::vector<std::string> argv = {"HDEL", mJPath};
            for (std::string& f : dels) {
                if (multi) _ForgetWritten(f);
                argv.push_back(std::move(f));
            }
            out->cmds.push_back(Cmd(std::move(argv)));
        }
        if (!sets.empty()) {
            std::vector<std::string> argv;
            argv.reserve(2 + 2 * sets.size());
            argv.push_back("HSET");
            argv.push_back(mJPath);
            for (auto& [field, value] : sets) {
                // A shared resource's "@odata." fields describe the resource
                // itself, the same from every backend: one backend leaving
                // must not take them along.
                if (multi && !(IsResourceType() && field.compare(0, 7, "@odata.") == 0)) {
                    _NoteWritten(field);
                }
                argv.push_back(std::move(field));
                argv.push_back(std::move(value));
            }
            out->cmds.push_back(Cmd(std::move(argv)));
        }
        sets.clear();
        tSpareSets = std::move(sets);
    } else {
        size_t i = 0;
        while (i < queue.size()) {
            sRedisCmdItem* item = queue[i];
            if (item->action == eObjChgCreate) {
                std::vector<std::string> argv = {"RPUSH", mJPath};
                for (; i < queue.size() && queue[i]->action == eObjChgCreate; ++i) {
                    if (multi) _NoteWritten(queue[i]->value);
                    argv.push_back(std::move(queue[i]->value));
                }
                out->cmds.push_back(Cmd(std::move(argv)));
                continue;
            }
            ++i;
            if (item->action == eObjChgUpdate) {
                out->cmds.push_back(Cmd({"LSET", mJPath, item->key, std::move(item->value)}));
            } else if (item->action == eObjChgRemove) {
                // Another backend's elements are not this process's to remove.
                if (multi && !_ForgetWritten(item->key)) {
                    ZLOG(eZLogError, "Unknown item[%s] in Object[%s].\n", item->key.c_str(),
                         mJPath.c_str());
                    rt = RT_FAILURE;
                    continue;
                }
                // A node text goes wherever it stands, any other value once.
                const char* count = IsACorvelMetaKey(item->key) ? "0" : "1";
                out->cmds.push_back(Cmd({"LREM", mJPath, count, item->key}));
            } else if (_ApplyOneItem(c, item) != RT_SUCCESS) {
                rt = RT_FAILURE;
            }
        }
        auto* list = static_cast<ZJsonArray*>(this);
        if (!queue.empty() && list->PublishesCount()) {
            IncreaseUsingCount();  // released by the flush
            out->counts.emplace_back(list, out->cmds.size());
            out->cmds.push_back(Cmd({"LLEN", mJPath}));
        }
    }
    if (out == &own && own.Flush() != RT_SUCCESS) rt = RT_FAILURE;
    return rt;
}

eRtCode ZObject::ObjData2RedisCache(bool recursive, redisContext* c) {
    if (c == nullptr) {
        ZLOG(eZLogError, "Redis context is NULL.\n");
        return RT_FAILURE;
    }
    // RawJson items are JSON texts for the root's document, not fields.
    if (mIsRawJson) return ApplyRedisChanges(recursive, c);
    // A failed command is logged by the store client and dropped, not
    // retried; the apply as a whole then reports failure. The first apply
    // on this thread and connection gathers the commands of the whole
    // recursion and sends them in one round trip at its end.
    sApplyPipeline pipeline;
    const bool top = tPipeline == nullptr;
    if (top) pipeline.cmds = std::move(tSpareCmds);
    std::unique_lock<std::mutex> order(gApplyOrder, std::defer_lock);
    if (top) {
        // A constructor's apply sends with the span's round trip: the order
        // is held until then (ZObjectBuildWrites).
        if (tBuildHoldsOrder) {
            // This thread holds the order already; on another connection
            // its deferred writes go first.
            if (c != tBuildConn) RedisDrainDeferred(tBuildConn);
        } else if (tBuildConn == c && c != nullptr) {
            gApplyOrder.lock();
            tBuildHoldsOrder = true;
        } else {
            order.lock();
        }
        pipeline.c = c;
        tPipeline = &pipeline;
    }
    eRtCode rt = RT_SUCCESS;
    {
        // Held for the whole queue: writes from other threads wait, so a
        // node's commands reach the store in call order.
        MutexLock lock(mQueueMutex);
        if (mRedisCmdQueue != nullptr) {
            if (_ApplyQueue(c, *mRedisCmdQueue) != RT_SUCCESS) rt = RT_FAILURE;
            for (sRedisCmdItem* item : *mRedisCmdQueue) delete item;
            delete mRedisCmdQueue;  // made again by the next write
            mRedisCmdQueue = nullptr;
        }
    }
    if (recursive) {
        // The children are visited from a counted copy, so that no lock of
        // this node is held while a child applies (and the recycler cannot
        // free a child that is retired meanwhile).
        std::vector<ZObject*> children = _UsedChildren();
        for (ZObject* child : children) {
            // Held by the count taken for the copy: no second look-up in the
            // registry. A RawJson child takes the way that writes its text.
            const eRtCode childRt = child->mIsRawJson ? child->ApplyRedisChanges(true, c)
                                                      : child->ObjData2RedisCache(true, c);
            if (childRt != RT_SUCCESS) rt = RT_FAILURE;
            child->DecreaseUsingCount();
        }
    }
    if (top) {
        tPipeline = nullptr;
        if (pipeline.Flush() != RT_SUCCESS) rt = RT_FAILURE;
        pipeline.cmds.clear();
        tSpareCmds = std::move(pipeline.cmds);
    }
    return rt;
}

ZObjectBuildWrites::ZObjectBuildWrites() {
    if (tBuildConn != nullptr) return;  // an outer span serves the thread
    redisContext* c = RedisConnectionScope::Current();
    if (c == nullptr || c->err != 0) return;
    mCtx = c;
    tBuildConn = c;
    mPrevDefer = RedisSetDeferring(c);
}

ZObjectBuildWrites::~ZObjectBuildWrites() {
    if (mCtx == nullptr) return;
    // Writes whose replies nobody waits for (a new node's key cleared) ride
    // with the thread's next round trip on the connection, or go when its
    // scope ends. A span that applied, or whose replies feed more writes (a
    // count, a channel list), ends them all before it lets other applies on.
    if (tBuildHoldsOrder || RedisAwaitsReplies(mCtx)) RedisDrainDeferred(mCtx);
    RedisSetDeferring(mPrevDefer);
    tBuildConn = nullptr;
    if (tBuildHoldsOrder) {
        tBuildHoldsOrder = false;
        gApplyOrder.unlock();
    }
}

void ZObject::DiscardRedisChanges(bool recursive, redisContext* c) {
    DiscardObjData(recursive, c);
}

void ZObject::DiscardObjData(bool recursive, redisContext* c) {
    {
        MutexLock lock(mQueueMutex);
        if (mRedisCmdQueue != nullptr) {
            for (sRedisCmdItem* item : *mRedisCmdQueue) {
                if (item->obj != nullptr) {
                    ZLOG(eZLogWarning,
                         "!! Should not call DiscardRedisChanges() when the queue include any "
                         "unapplied ZObject change. This action might cause memory leek. !!\n");
                }
                delete item;
            }
            mRedisCmdQueue->clear();
        }
    }
    if (!recursive) return;
    std::vector<ZObject*> children = _UsedChildren();
    for (ZObject* child : children) {
        child->DiscardObjData(true, c);
        child->DecreaseUsingCount();
    }
}

size_t ZObject::GetRedisChangeNum() {
    MutexLock lock(mQueueMutex);
    return mRedisCmdQueue != nullptr ? mRedisCmdQueue->size() : 0;
}

void ZObject::DumpRedisChanges(bool recursive) {
    {
        MutexLock lock(mQueueMutex);
        ZLOGM("ZComLib", eZLogRaw, "Dump all redisCmds in queue. Object[%s] ====> \n",
              _LogName().c_str());
        if (mRedisCmdQueue != nullptr) {
            for (sRedisCmdItem* item : *mRedisCmdQueue) {
                // A list item is named by its list, a field by itself.
                const std::string& owner = mType == eJsonArray ? mJPath : item->key;
                ZLOGM("ZComLib", eZLogRaw, "    Act[%s] Key[%s] Value[%s]\n", ActName(item->action),
                      item->key.c_str(), MaskSecretValue(owner, item->value.c_str()));
            }
        }
    }
    if (!recursive) return;
    std::vector<ZObject*> children = _UsedChildren();
    for (ZObject* child : children) {
        child->DumpRedisChanges(true);
        child->DecreaseUsingCount();
    }
}

void ZObject::DumpObjectChange(sObjectChange* change) {
    if (change == nullptr) return;
    ZLOGM("ZComLib", eZLogRaw, "Dump object change. Object[%s] ====> \n", _LogName().c_str());
    std::string head;
    char buf[96];
    if (change->tableKind == eObjTableList) {
        std::snprintf(buf, sizeof(buf), "    Act[%s] DataType[%s] Key[%d] isLink[%d]",
                      ActName(change->action), DataKindName(change->dataKind),
                      static_cast<int>(change->index), change->isLink ? 1 : 0);
        head = buf;
    } else {
        head = std::string("    Act[") + ActName(change->action) + "] DataType[" +
               DataKindName(change->dataKind) + "] Key[" + change->key + "] isLink[" +
               (change->isLink ? "1" : "0") + "]";
    }
    switch (change->dataKind) {
        case eObjDataNull:
            ZLOGM("ZComLib", eZLogRaw, "%s Null\n", head.c_str());
            break;
        case eObjDataBool:
            ZLOGM("ZComLib", eZLogRaw, "%s Value[%s]\n", head.c_str(),
                  change->scalar.b ? "true" : "false");
            break;
        case eObjDataSigned:
            ZLOGM("ZComLib", eZLogRaw, "%s Value[%lld]\n", head.c_str(), change->scalar.s);
            break;
        case eObjDataUnsigned:
            ZLOGM("ZComLib", eZLogRaw, "%s Value[%llu]\n", head.c_str(), change->scalar.u);
            break;
        case eObjDataDouble:
            ZLOGM("ZComLib", eZLogRaw, "%s Value[%f]\n", head.c_str(), change->scalar.d);
            break;
        case eObjDataString:
        case eObjDataRawString:
            ZLOGM("ZComLib", eZLogRaw, "%s Value[%s]\n", head.c_str(),
                  MaskSecretValue(change->tableKind == eObjTableList ? mJPath : change->key,
                                  change->strValue.c_str()));
            break;
        case eObjDataObject:
            ZLOGM("ZComLib", eZLogRaw, "%s Value[%s]\n", head.c_str(),
                  change->objValue != nullptr ? change->objValue->GetJPath().c_str() : "(null)");
            break;
        default:
            ZLOGM("ZComLib", eZLogRaw, "%s Data[Unknown Type]\n", head.c_str());
            break;
    }
}

}  // namespace Orbel
