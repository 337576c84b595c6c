// The RawJson data format: a RawJson root keeps its content and that of all
// its descendants as one JSON text in the field "&&RawJSON" of its hash
// (docs/wire-protocol.md, "RawJson nodes"). Writes are queued as on any node;
// an apply of the root merges the whole subtree's queues into the nodes'
// in-memory content, renders the text and stores it.
#include <cmath>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZJsonArray.h"
#include "ZLogPrint.h"
#include "ZObject.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"

namespace Orbel {

namespace {

constexpr const char* kRawJsonField = "&&RawJSON";
// Content nodes deeper than this below their root are rendered as null (a
// tree built by hand has no other bound).
constexpr unsigned kRawJsonMaxDepth = 64;

// Properties named "&&..." are meta data for the front end, never body
// content; a JSON value text never begins with "&", so the same prefix marks
// a nested child in an entry's text.
bool IsMeta(const std::string& text) {
    return text.compare(0, 2, "&&") == 0;
}

// A link as the body shows it: the URI itself for the property "@odata.id",
// else an object holding it.
std::string LinkText(const std::string& name, const std::string& target) {
    if (name == "@odata.id") return JsonQuoteString(target);
    return "{\"@odata.id\":" + JsonQuoteString(target) + "}";
}

void SetMember(sRawJsonData* data, const std::string& key, const std::string& text) {
    auto it = data->index.find(key);
    if (it != data->index.end()) {
        data->entries[it->second].text = text;
        return;
    }
    data->index.emplace(key, data->entries.size());
    data->entries.push_back({key, text});
}

// The decimal index of an array update; false for anything else.
bool ParseIndex(const std::string& text, size_t* out) {
    if (text.empty() || text.size() > 9) return false;
    size_t v = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9') return false;
        v = v * 10 + static_cast<size_t>(ch - '0');
    }
    *out = v;
    return true;
}

}  // namespace

bool ZObject::IsRawJsonRoot() {
    if (!mIsRawJson) return false;
    ZObject* parent = mParent.load();
    return parent == nullptr || !parent->IsDataFmtRawJson();
}

eRtCode ZObject::_RawJsonRemovalRefused() {
    // The content keeps no store field per property to delete, and its
    // children are addressed by position: removal has no meaning here.
    ZLOG(eZLogError, "Shouldn't run in this condition when data format is RawJson.\n");
    return RT_FAILURE;
}

// ---------------------------------------------------------------------------
// From change to queued item
// ---------------------------------------------------------------------------

bool ZObject::_RawJsonValueText(const sObjectChange* change, const std::string& name,
                                std::string* out) {
    switch (change->dataKind) {
        case eObjDataNull:
        case eObjDataBool:
        case eObjDataSigned:
        case eObjDataUnsigned:
            *out = _ValueText(change);
            return true;
        case eObjDataDouble:
            // "%f" of an infinity or a NaN is no JSON number.
            *out = std::isfinite(change->scalar.d) ? _ValueText(change) : std::string("null");
            return true;
        case eObjDataString:
            if (change->isLink) {
                *out = LinkText(name, change->strValue);
            } else {
                // Trailing blanks go as in the hash layout, but nothing else:
                // escaping keeps every other byte (a trailing UTF-8
                // character too) without breaking the text.
                const size_t end = change->strValue.find_last_not_of(' ');
                *out = JsonQuoteString(
                    end == std::string::npos ? std::string() : change->strValue.substr(0, end + 1));
            }
            return true;
        case eObjDataRawString:
            if (IsJsonValueText(change->strValue)) {
                *out = change->strValue;
            } else {
                // One bad member must not spoil the whole document.
                ZLOG(eZLogWarning,
                     "Object[%s] property[%s]: the raw text is not JSON; it is written as a "
                     "string.\n",
                     _LogName().c_str(), name.c_str());
                *out = JsonQuoteString(change->strValue);
            }
            return true;
        case eObjDataObject: {
            ZObject* node = change->objValue;
            if (node == nullptr) return false;
            if (change->isLink) {
                *out = LinkText(name, node->IsResourceType()
                                          ? static_cast<ZResource*>(node)->GetOdataId()
                                          : node->GetJPath());
                return true;
            }
            // Content is rendered from the node's children, by id.
            if (node->GetParent() != this) {
                ZLOG(eZLogError,
                     "Object[%s] is RawJson: only its own child can be its content; write "
                     "Object[%s] as a link.\n",
                     _LogName().c_str(), node->GetJPath().c_str());
                return false;
            }
            *out = (node->GetType() == eJsonArray ? "&&Array " : "&&Object ") + node->GetId();
            return true;
        }
        default:
            ZLOG(eZLogError, "Object[%s] unknown data kind[%u].\n", _LogName().c_str(),
                 static_cast<unsigned>(change->dataKind));
            return false;
    }
}

eRtCode ZObject::_ObjChg2RawJsonData(sObjectChange* change, sRedisCmdItem* item) {
    if (change == nullptr || item == nullptr) return RT_INVALID_ARG;
    item->action = change->action;
    // The content names its children by id: no reference bookkeeping, so
    // no node to account for when the queue is discarded.
    item->obj = nullptr;
    if (change->tableKind == eObjTableHash) {
        item->key = change->key;
        if (IsMeta(change->key)) {
            // Meta fields stay fields of the root's hash, beside the text.
            if (!IsRawJsonRoot()) {
                ZLOG(eZLogError,
                     "Object[%s] is inside a RawJson text: meta property[%s] has no place "
                     "there.\n",
                     _LogName().c_str(), change->key.c_str());
                return RT_FAILURE;
            }
            if (change->dataKind == eObjDataObject || change->isLink) {
                ZLOG(eZLogError, "Object[%s] meta property[%s] cannot hold a node or a link.\n",
                     _LogName().c_str(), change->key.c_str());
                return RT_FAILURE;
            }
            item->value = _ValueText(change);
            return RT_SUCCESS;
        }
        return _RawJsonValueText(change, change->key, &item->value) ? RT_SUCCESS : RT_FAILURE;
    }
    if (change->tableKind == eObjTableList) {
        item->key =
            change->action == eObjChgCreate ? std::string("Create") : std::to_string(change->index);
        return _RawJsonValueText(change, std::string(), &item->value) ? RT_SUCCESS : RT_FAILURE;
    }
    ZLOG(eZLogError, "Unknown table kind[%u].\n", static_cast<unsigned>(change->tableKind));
    return RT_FAILURE;
}

// ---------------------------------------------------------------------------
// Merging queued items into the content
// ---------------------------------------------------------------------------

void ZObject::_RawJsonMerge() {
    MutexLock lock(mQueueMutex);
    if (mRedisCmdQueue == nullptr || mRawJson == nullptr) return;
    for (sRedisCmdItem* item : *mRedisCmdQueue) {
        if (mType != eJsonArray) {
            if (item->action == eObjChgCreate || item->action == eObjChgUpdate) {
                SetMember(mRawJson, item->key, item->value);
            } else {
                ZLOG(eZLogError, "Unknown action type[%d]\n", static_cast<int>(item->action));
            }
        } else if (item->action == eObjChgCreate) {
            mRawJson->entries.push_back({std::string(), item->value});
        } else if (item->action == eObjChgUpdate) {
            size_t at = 0;
            if (ParseIndex(item->key, &at) && at < mRawJson->entries.size()) {
                mRawJson->entries[at].text = item->value;
            } else {
                // As a list set beyond the end fails in the store.
                ZLOG(eZLogError, "Index[%s] out of list[%s] size.\n", item->key.c_str(),
                     _LogName().c_str());
            }
        } else {
            ZLOG(eZLogError, "Unknown action type[%d]\n", static_cast<int>(item->action));
        }
        delete item;
    }
    delete mRedisCmdQueue;  // made again by the next write
    mRedisCmdQueue = nullptr;
}

void ZObject::_RawJsonSetMember(const std::string& key, const std::string& text) {
    MutexLock lock(mQueueMutex);
    if (mRawJson != nullptr) SetMember(mRawJson, key, text);
}

void ZObject::_RawJsonMergeTree(unsigned depth) {
    _RawJsonMerge();
    if (depth >= kRawJsonMaxDepth) return;
    std::vector<ZObject*> children = _UsedChildren();
    for (ZObject* child : children) {
        child->_RawJsonMergeTree(depth + 1);
        // An array that publishes its count does it in this content, from
        // the merged length, as it would into a hash after a list change.
        if (child->mType == eJsonArray && mType != eJsonArray &&
            (static_cast<ZJsonArray*>(child)->Attributes() & ZJsonArray::ARRAY_ATTR_OdataCount) !=
                0) {
            size_t count = 0;
            {
                MutexLock lock(child->mQueueMutex);
                if (child->mRawJson != nullptr) count = child->mRawJson->entries.size();
            }
            _RawJsonSetMember(child->mId + "@odata.count", std::to_string(count));
        }
        child->DecreaseUsingCount();
    }
}

// ---------------------------------------------------------------------------
// Rendering and storing
// ---------------------------------------------------------------------------

std::string ZObject::_RawJsonRender(unsigned depth) {
    if (depth > kRawJsonMaxDepth) return "null";
    std::vector<sRawJsonData::sEntry> entries;
    {
        MutexLock lock(mQueueMutex);
        if (mRawJson != nullptr) entries = mRawJson->entries;
    }
    const bool isArray = mType == eJsonArray;
    std::string out(1, isArray ? '[' : '{');
    bool first = true;
    for (const auto& entry : entries) {
        if (!isArray && IsMeta(entry.key)) continue;
        if (!first) out += ',';
        first = false;
        if (!isArray) {
            out += JsonQuoteString(entry.key);
            out += ':';
        }
        if (!IsMeta(entry.text)) {
            out += entry.text;
            continue;
        }
        // A nested child, found by id; one retired meanwhile reads as null.
        const size_t blank = entry.text.find(' ');
        const std::string id =
            blank == std::string::npos ? std::string() : entry.text.substr(blank + 1);
        ZObject* child = nullptr;
        {
            MutexLock lock(mTreeMutex);
            ZObject* found = _FindChildLocked(id);
            if (found != nullptr && Use(found)) child = found;
        }
        if (child == nullptr) {
            out += "null";
            continue;
        }
        out += child->IsDied() ? std::string("null") : child->_RawJsonRender(depth + 1);
        child->DecreaseUsingCount();
    }
    out += isArray ? ']' : '}';
    return out;
}

std::string ZObject::ObjData2RawJsonString() {
    if (!Use(this)) return std::string();
    UseRelease release(this);
    if (!mIsRawJson) {
        ZLOG(eZLogError, "Object[%s] data format is not RawJson.\n", _LogName().c_str());
        return std::string();
    }
    return _RawJsonRender(0);
}

eRtCode ZObject::ApplyRawJsonData(redisContext* c) {
    if (!Use(this)) return RT_FAILURE;
    UseRelease release(this);
    if (!mIsRawJson) {
        ZLOG(eZLogError, "Object[%s] data format is not RawJson.\n", _LogName().c_str());
        return RT_FAILURE;
    }
    if (!IsRawJsonRoot()) {
        ZLOG(eZLogInfo, "Ignore object[%s] applyRedisChanges action.\n", _LogName().c_str());
        return RT_SUCCESS;
    }
    if (mJPath.empty()) return RT_FAILURE;

    // The text is the whole state, not a delta: merging before the store is
    // reached loses nothing if it cannot be, the next apply writes it all.
    _RawJsonMergeTree(0);
    const std::string text = _RawJsonRender(0);
    std::vector<std::pair<std::string, std::string>> meta;
    {
        MutexLock lock(mQueueMutex);
        if (mRawJson != nullptr) {
            for (const auto& entry : mRawJson->entries) {
                if (IsMeta(entry.key)) meta.emplace_back(entry.key, entry.text);
            }
        }
    }

    // The thread's scoped connection when the caller gave none.
    std::optional<RedisCallConnection> conn;
    if (c == nullptr) {
        conn.emplace();
        c = conn->get();
        if (c == nullptr) {
            ZLOG(eZLogError, "Failed to call RedisConnect()\n.");
            return RT_FAILURE;
        }
    }
    eRtCode rt = RedisHashSet(c, mJPath.c_str(), kRawJsonField, text.c_str());
    for (const auto& field : meta) {
        if (RedisHashSet(c, mJPath.c_str(), field.first.c_str(), field.second.c_str()) !=
            RT_SUCCESS) {
            rt = RT_FAILURE;
        }
    }
    return rt;
}

}  // namespace Orbel
