// A node's writes: hash and list writes, and the compound writers built on
// them. Each write becomes one change turned into a queued store command
// (ZObject_RedisCache.cpp). Part of ZObject.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZObject.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

namespace {

// A NUL would cut the text wherever it is handled as a C string.
// `objName()` gives the node's name for the log line, made only for one.
template <typename NameOf>
bool RefuseNul(const NameOf& objName, const std::string& name, const std::string& text) {
    if (text.find('\0') == std::string::npos) return false;
    ZLOG(eZLogError, "Object[%s] property[%s]: a value holding a NUL byte is refused.\n",
         objName().c_str(), SanitizedText(name, 64).c_str());
    return true;
}

// A link text becomes the last word of a link field or element and the
// "@odata.id" string a reader builds from it.
bool IsLinkText(const std::string& text) {
    if (text.empty()) return false;
    for (char ch : text) {
        const unsigned char b = static_cast<unsigned char>(ch);
        if (b <= 0x20 || b >= 0x7F || ch == '"' || ch == '\\') return false;
    }
    return true;
}

// A property name is a hash field name that readers put between quotes, so
// it holds no quote, backslash or control byte, and it never reads as one
// of the link forms (only the library writes those, from the value). When
// the name is embedded in a link field (a node or link value), it is one
// word that cannot be taken for a path. A RawJson node quotes its names
// itself, so only the link forms matter there.
bool IsPropertyName(const std::string& name, bool embedded, bool rawJson) {
    for (char ch : name) {
        const unsigned char b = static_cast<unsigned char>(ch);
        if (!rawJson && (b < 0x20 || b == 0x7F || ch == '"' || ch == '\\')) return false;
        if (embedded && ch == ' ') return false;
    }
    if (IsACorvelMetaKey(name)) return false;
    if (embedded && (name.empty() || name.rfind("&&", 0) == 0 || name[0] == '/')) return false;
    return true;
}

// A string value that is not JSON string content would break the document
// its quotes stand in: the bytes that would are escaped (see _ValueText).
template <typename NameOf>
void WarnStringRepaired(const NameOf& objName, const std::string& name,
                        const std::string& value) {
    // Content stays content with its trailing blanks stripped (no escape
    // holds a blank), so only other text needs the stripped copy.
    if (IsJsonStringContent(value) || IsJsonStringContent(StringRightStrip(value, " "))) return;
    ZLOG(eZLogWarning,
         "Object[%s] property[%s]: quotes, backslashes or control bytes of the string are "
         "escaped.\n",
         objName().c_str(), SanitizedText(name, 64).c_str());
}

}  // namespace

namespace {

// A node given as a value must be live and must not be the node written to.
// On true the value's using count is held (released by the caller).
bool UseNodeValue(ZObject* self, ZObject* value) {
    if (value == self) {
        ZLOG(eZLogError, "Add self object to self !!!\n");
        return false;
    }
    if (value == nullptr) {
        ZLOG(eZLogError, "NULL arg! value:%p\n", static_cast<void*>(value));
        return false;
    }
    if (!Use(value)) return false;
    if (value->IsDied()) {
        ZLOG(eZLogError, "Object[%s] is died and cannot be written.\n", value->GetJPath().c_str());
        value->DecreaseUsingCount();
        return false;
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Hash writes
// ---------------------------------------------------------------------------

eRtCode ZObject::HashWrite(const std::string& name) {
    sObjectChange change;
    change.dataKind = eObjDataNull;
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::HashWrite(const std::string& name, bool value) {
    sObjectChange change;
    change.dataKind = eObjDataBool;
    change.scalar.b = value;
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::HashWrite(const std::string& name, long long value) {
    sObjectChange change;
    change.dataKind = eObjDataSigned;
    change.scalar.s = value;
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::HashWrite(const std::string& name, int value) {
    return HashWrite(name, static_cast<long long>(value));
}

eRtCode ZObject::HashWrite(const std::string& name, long value) {
    return HashWrite(name, static_cast<long long>(value));
}

eRtCode ZObject::HashWrite(const std::string& name, unsigned long long value) {
    sObjectChange change;
    change.dataKind = eObjDataUnsigned;
    change.scalar.u = value;
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::HashWrite(const std::string& name, unsigned int value) {
    return HashWrite(name, static_cast<unsigned long long>(value));
}

eRtCode ZObject::HashWrite(const std::string& name, unsigned long value) {
    return HashWrite(name, static_cast<unsigned long long>(value));
}

eRtCode ZObject::HashWrite(const std::string& name, double value) {
    sObjectChange change;
    change.dataKind = eObjDataDouble;
    change.scalar.d = value;
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::HashWrite(const std::string& name, float value) {
    return HashWrite(name, static_cast<double>(value));
}

eRtCode ZObject::HashWrite(const std::string& name, const char* value, bool isLink) {
    if (value == nullptr) {
        ZLOG(eZLogError, "NULL arg! property[%s] value:%p\n", name.c_str(),
             static_cast<const void*>(value));
        return RT_INVALID_ARG;
    }
    return _HashWriteText(name, std::string(value), isLink);
}

eRtCode ZObject::HashWrite(const std::string& name, const std::string& value, bool isLink) {
    return _HashWriteText(name, std::string(value), isLink);
}

eRtCode ZObject::_HashWriteText(const std::string& name, std::string&& value, bool isLink) {
    if (RefuseNul([this] { return _LogName(); }, name, value)) return RT_INVALID_ARG;
    if (isLink && !IsLinkText(value)) {
        ZLOG(eZLogError, "Object[%s] property[%s]: link text[%s] is refused.\n",
             _LogName().c_str(), SanitizedText(name, 64).c_str(),
             SanitizedText(value, 64).c_str());
        return RT_INVALID_ARG;
    }
    // The byte listing of the verbose check would show a secret's bytes; the
    // name is looked at only for a text that is not pure, and the verbose
    // check runs again only to log that listing.
    if (!IsPureString(value, false)) {
        if (!IsSecretLikeName(name)) (void)IsPureString(value, true);
        ZLOG(eZLogWarning, "Object[%s] write a non pure string to property[%s] !\n",
             _LogName().c_str(), name.c_str());
    }
    // A RawJson node quotes every string whole (its own text format).
    if (!isLink && !mIsRawJson) WarnStringRepaired([this] { return _LogName(); }, name, value);
    sObjectChange change;
    change.dataKind = eObjDataString;
    change.isLink = isLink;
    change.strValue = std::move(value);
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::HashWrite(const std::string& name, ZObject* value, bool isLink) {
    sObjectChange change;
    change.dataKind = eObjDataObject;
    change.isLink = isLink;
    change.objValue = value;
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::HashWriteRawString(const std::string& name, const std::string& text) {
    if (RefuseNul([this] { return _LogName(); }, name, text)) return RT_INVALID_ARG;
    sObjectChange change;
    change.dataKind = eObjDataRawString;
    change.strValue = text;
    return _HashWrite(&change, eObjChgUpdate, name);
}

eRtCode ZObject::_HashWrite(sObjectChange* change, eObjChgAction action, const std::string& name) {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (!_IsHashTable("pptName", name)) return RT_FAILURE;
    const bool embedded =
        change->dataKind == eObjDataObject || (change->dataKind == eObjDataString && change->isLink);
    if (!IsPropertyName(name, embedded, mIsRawJson)) {
        ZLOG(eZLogError,
             "Object[%s] property name[%s] is refused: it would read as a link field or break "
             "the document.\n",
             _LogName().c_str(), SanitizedText(name, 64).c_str());
        return RT_INVALID_ARG;
    }

    ZObject* value = nullptr;
    if (change->dataKind == eObjDataObject) {
        if (!UseNodeValue(this, change->objValue)) return RT_FAILURE;
        value = change->objValue;
    }
    UseRelease releaseValue(value);
    // Owned content keeps the "@odata.id" that its place in the tree gives it.
    if (value != nullptr && !change->isLink && value->IsResourceType()) {
        static_cast<ZResource*>(value)->UpdateOdataId();
    }
    // A RawJson node keeps one member per name already.
    if (!mIsRawJson) _ReplaceOtherForms(name, change);
    change->action = action;
    change->tableKind = eObjTableHash;
    change->key = name;
    return _QueueChange(change);
}

namespace {

// The fields a resource is built with have bits of their own, so that a link
// written over one of them is always found, and a link of another name never
// takes them for a stale field: the plain "@odata" fields, a collection's
// count, and the request channel lists, which are links every resource holds
// (without their own bits, one property name in five would share a bit with
// one of them and make its every write search the node's links). Other
// names share the remaining bits.
constexpr std::string_view kOwnBitNames[] = {
    "@odata.id",   "@odata.type", "@odata.context", "@odata.etag", "Members@odata.count",
    "POSTCREATEQ", "GETQ",        "PATCHQ",         "DELETEQ",     "POSTACTIONQ"};
constexpr uint32_t kOwnBits = sizeof(kOwnBitNames) / sizeof(kOwnBitNames[0]);

}  // namespace

uint32_t ZObject::_PropertyBit(const std::string& name) {
    const std::string_view text(name);
    // A view compares lengths first: most names are never compared byte
    // by byte.
    for (uint32_t i = 0; i < kOwnBits; ++i) {
        if (text == kOwnBitNames[i]) return 1u << i;
    }
    // FNV-1a, folded.
    uint32_t h = 2166136261u;
    for (char ch : text) {
        h ^= static_cast<unsigned char>(ch);
        h *= 16777619u;
    }
    return 1u << (kOwnBits + (h ^ (h >> 16)) % (32u - kOwnBits));
}

void ZObject::_ForgetTextLink(const std::string& field) {
    MutexLock lock(mTreeMutex);
    if (mTextLinks == nullptr) return;
    auto it = std::find(mTextLinks->begin(), mTextLinks->end(), field);
    if (it != mTextLinks->end()) mTextLinks->erase(it);
    if (mTextLinks->empty()) {
        delete mTextLinks;
        mTextLinks = nullptr;
    }
}

void ZObject::_ReplaceOtherForms(const std::string& name, const sObjectChange* change) {
    ZObject* value = change->dataKind == eObjDataObject ? change->objValue : nullptr;
    const bool textLink = change->dataKind == eObjDataString && change->isLink;
    const bool plain = value == nullptr && !textLink;
    // Meta fields ("&&Async", ...) are never the name of a link field.
    if (plain && name.compare(0, 2, "&&") == 0) return;
    const uint32_t bit = _PropertyBit(name);
    // The field this write makes, built only when it has to be compared.
    const auto fieldOf = [&]() -> std::string {
        if (value != nullptr) return _NodeLinkText(value, change->isLink, name);
        if (textLink) return "&&ObjectRef " + name + " " + change->strValue;
        return name;
    };
    bool plainSeen = false;
    bool linkSeen = false;
    std::string field;
    std::vector<std::string> staleText;  // text link fields to delete
    bool hasTextLinks = false;
    {
        MutexLock lock(mTreeMutex);
        plainSeen = (mPlainBits & bit) != 0;
        linkSeen = (mLinkBits & bit) != 0;
        (plain ? mPlainBits : mLinkBits) |= bit;
        hasTextLinks = mTextLinks != nullptr;
    }
    // Outside the lock: a node value's link text asks that node.
    if (linkSeen || textLink) field = fieldOf();
    if ((linkSeen && hasTextLinks) || textLink) {
        MutexLock lock(mTreeMutex);
        if (linkSeen && mTextLinks != nullptr) {
            const std::string prefix = "&&ObjectRef " + name + " ";
            for (auto it = mTextLinks->begin(); it != mTextLinks->end();) {
                if (it->compare(0, prefix.size(), prefix) != 0) {
                    ++it;
                } else if (textLink && *it == field) {
                    ++it;  // the same text again: stays noted
                } else {
                    // A node link of the same text is remembered by its node.
                    if (*it != field) staleText.push_back(*it);
                    it = mTextLinks->erase(it);
                }
            }
            if (mTextLinks->empty()) {
                delete mTextLinks;
                mTextLinks = nullptr;
            }
        }
        if (textLink) {
            if (mTextLinks == nullptr) mTextLinks = new std::vector<std::string>();
            if (std::find(mTextLinks->begin(), mTextLinks->end(), field) == mTextLinks->end()) {
                mTextLinks->push_back(field);
            }
        }
    }
    const auto queueRemoval = [this](const std::string& f, ZObject* retire) {
        sObjectChange removal;
        removal.action = eObjChgRemove;
        removal.tableKind = eObjTableHash;
        removal.key = f;
        if (retire != nullptr) {
            removal.dataKind = eObjDataObject;
            removal.objValue = retire;
        }
        _QueueChange(&removal);
    };
    for (const std::string& f : staleText) queueRemoval(f, nullptr);
    if (!plain && plainSeen) queueRemoval(name, nullptr);
    if (!linkSeen) return;
    bool isLink = false;
    std::string oldField;
    ZObject* old = _FindNodeOfProperty(name, &isLink, &oldField);
    if (old == nullptr) return;
    UseRelease releaseOld(old);
    if (oldField == field) return;
    if (isLink || old == value) {
        // A link (or the same node in another form): only the field goes.
        RemoveReferenceTo(old);
        old->RemoveReferencedBy(this);
        queueRemoval(oldField, nullptr);
    } else {
        // Owned content replaced by another value is retired with its field.
        queueRemoval(oldField, old);
    }
}

// ---------------------------------------------------------------------------
// List writes
// ---------------------------------------------------------------------------

namespace {
eObjChgAction ListAction(int index) {
    return index == -1 ? eObjChgCreate : eObjChgUpdate;
}
}  // namespace

eRtCode ZObject::ListWrite(int index) {
    sObjectChange change;
    change.dataKind = eObjDataNull;
    return _ListWrite(&change, ListAction(index), index);
}

eRtCode ZObject::ListWrite(int index, bool value) {
    sObjectChange change;
    change.dataKind = eObjDataBool;
    change.scalar.b = value;
    return _ListWrite(&change, ListAction(index), index);
}

eRtCode ZObject::ListWrite(int index, long long value) {
    sObjectChange change;
    change.dataKind = eObjDataSigned;
    change.scalar.s = value;
    return _ListWrite(&change, ListAction(index), index);
}

eRtCode ZObject::ListWrite(int index, int value) {
    return ListWrite(index, static_cast<long long>(value));
}

eRtCode ZObject::ListWrite(int index, long value) {
    return ListWrite(index, static_cast<long long>(value));
}

eRtCode ZObject::ListWrite(int index, unsigned long long value) {
    sObjectChange change;
    change.dataKind = eObjDataUnsigned;
    change.scalar.u = value;
    return _ListWrite(&change, ListAction(index), index);
}

eRtCode ZObject::ListWrite(int index, unsigned int value) {
    return ListWrite(index, static_cast<unsigned long long>(value));
}

eRtCode ZObject::ListWrite(int index, unsigned long value) {
    return ListWrite(index, static_cast<unsigned long long>(value));
}

eRtCode ZObject::ListWrite(int index, double value) {
    sObjectChange change;
    change.dataKind = eObjDataDouble;
    change.scalar.d = value;
    return _ListWrite(&change, ListAction(index), index);
}

eRtCode ZObject::ListWrite(int index, float value) {
    return ListWrite(index, static_cast<double>(value));
}

eRtCode ZObject::ListWrite(int index, const char* value, bool isLink) {
    if (value == nullptr) {
        ZLOG(eZLogError, "NULL arg! itemIdx[%d] value:%p\n", index,
             static_cast<const void*>(value));
        return RT_INVALID_ARG;
    }
    return ListWrite(index, std::string(value), isLink);
}

eRtCode ZObject::ListWrite(int index, const std::string& value, bool isLink) {
    if (RefuseNul([this] { return _LogName(); }, mId, value)) return RT_INVALID_ARG;
    if (isLink && !IsLinkText(value)) {
        ZLOG(eZLogError, "Object[%s] item[%d]: link text[%s] is refused.\n", _LogName().c_str(),
             index, SanitizedText(value, 64).c_str());
        return RT_INVALID_ARG;
    }
    if (!isLink && !mIsRawJson) WarnStringRepaired([this] { return _LogName(); }, mId, value);
    sObjectChange change;
    change.dataKind = eObjDataString;
    change.isLink = isLink;
    change.strValue = value;
    return _ListWrite(&change, ListAction(index), index);
}

eRtCode ZObject::ListWrite(int index, ZObject* value, bool isLink) {
    sObjectChange change;
    change.dataKind = eObjDataObject;
    change.isLink = isLink;
    change.objValue = value;
    return _ListWrite(&change, ListAction(index), index);
}

eRtCode ZObject::ListWriteRawString(const std::string& text) {
    if (RefuseNul([this] { return _LogName(); }, mId, text)) return RT_INVALID_ARG;
    sObjectChange change;
    change.dataKind = eObjDataRawString;
    change.strValue = text;
    return _ListWrite(&change, eObjChgCreate, -1);
}

eRtCode ZObject::_ListWrite(sObjectChange* change, eObjChgAction action, int index) {
    if (action == eObjChgRemove || action == eObjChgClear) {
        ZLOG(eZLogError, "Object[%s] action is remove/clear, so should use value not index.\n",
             _LogName().c_str());
        return RT_FAILURE;
    }
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (!_IsListTable(index)) return RT_FAILURE;

    ZObject* value = nullptr;
    if (change->dataKind == eObjDataObject) {
        if (!UseNodeValue(this, change->objValue)) return RT_FAILURE;
        value = change->objValue;
    }
    UseRelease releaseValue(value);
    if (value != nullptr) {
        if (action == eObjChgCreate) static_cast<ZJsonArray*>(this)->AddObjectItem(value);
        if (!change->isLink && value->IsResourceType()) {
            static_cast<ZResource*>(value)->UpdateOdataId();
        }
    }
    change->action = action;
    change->tableKind = eObjTableList;
    change->index = index;
    return _QueueChange(change);
}

eRtCode ZObject::_ListWrite(sObjectChange* change, eObjChgAction action, const std::string& text) {
    if (action == eObjChgCreate || action == eObjChgUpdate) {
        ZLOG(eZLogError, "Object[%s] action is create/update, so should use index not value.\n",
             _LogName().c_str());
        return RT_FAILURE;
    }
    change->action = action;
    change->tableKind = eObjTableList;
    change->key = text;
    return ApplyObjectChanges(change);
}

// ---------------------------------------------------------------------------
// Compound writers
// ---------------------------------------------------------------------------

eRtCode ZObject::HashWriteNumArray(const std::string& name, const unsigned char* data,
                                   unsigned int count) {
    if (!_CheckWritable()) return RT_FAILURE;
    UseRelease release(this);
    if (!_IsHashTable("pptName", name)) return RT_FAILURE;
    if (data == nullptr && count > 0) {
        ZLOG(eZLogError, "NULL arg! property[%s] data:%p count:%u\n", name.c_str(),
             static_cast<const void*>(data), count);
        return RT_INVALID_ARG;
    }
    const std::string key = CombineJPath(this, name);
    RedisCallConnection conn;
    redisContext* c = conn.get();
    if (c == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect().\n");
        return RT_FAILURE;
    }
    // The binary writer appends: drop the previous bytes first.
    eRtCode rt = RedisDelTable(c, key.c_str());
    if (rt == RT_SUCCESS && count > 0) {
        rt = RedisListWriteBinData(c, key.c_str(), const_cast<unsigned char*>(data), count);
        if (rt != RT_SUCCESS) ZLOG(eZLogError, "Failed to call RedisListWriteBinData().\n");
    }
    if (rt == RT_SUCCESS) {
        const std::string field = "&&Array " + name + " " + key;
        rt = RedisHashSet(c, mJPath.c_str(), field.c_str(), "");
    }
    return rt;
}

eRtCode ZObject::HashAppendAllowableValues(const std::string& name, const std::string& value) {
    if (!_CheckWritable()) return RT_FAILURE;
    UseRelease release(this);
    if (!_IsHashTable("pptName", name)) return RT_FAILURE;

    const std::string arrayName = name + "@Redfish.AllowableValues";
    ZObject* child = GetChild(arrayName, true);
    ZObject* array = nullptr;
    if (child != nullptr) {
        if (child->GetType() != eJsonArray) {
            ZLOG(eZLogError, "Child[%s] of Object[%s] is not a JsonArray.\n", arrayName.c_str(),
                 _LogName().c_str());
            return RT_FAILURE;
        }
        if (!Use(child)) return RT_FAILURE;
        array = child;
    } else {
        ZJsonArray* made = new ZJsonArray(this, arrayName, 0);
        if (made->GetJPath().empty()) {
            made->ObjDestroy(eDestroyDelete, false);
            return RT_FAILURE;
        }
        if (!Use(made)) return RT_FAILURE;
        array = made;
    }
    UseRelease releaseArray(array);
    // Removing the equal element first keeps each value once, at the end.
    const std::string text = "\"" + StringRightStrip(value, " ") + "\"";
    array->ListRemove(text, false);
    eRtCode rt = array->ListWrite(-1, value);
    if (rt != RT_SUCCESS) return rt;
    return HashWrite(arrayName, array);
}

eRtCode ZObject::HashAppendAction(ZSchema* schema, const std::string& actionName,
                                  const std::string& target, const std::string& title) {
    if (!_CheckWritable()) return RT_FAILURE;
    UseRelease release(this);
    if (mType != eJsonObject) {
        ZLOG(eZLogError, "Only json object support this function.\n");
        return RT_FAILURE;
    }
    if (schema == nullptr || actionName.empty()) {
        ZLOG(eZLogError, "NULL arg! schema:%p action[%s]\n", static_cast<void*>(schema),
             actionName.c_str());
        return RT_INVALID_ARG;
    }
    if (target.find("Actions/") == std::string::npos) {
        ZLOG(eZLogError, "Cannot find 'Actions/' in URI( %s ).\n", target.c_str());
        return RT_FAILURE;
    }

    ZObject* entry = GetChild(actionName, true);
    if (entry != nullptr && entry->GetType() != eJsonObject) {
        ZLOG(eZLogError, "Child[%s] of Object[%s] is not a JsonObject.\n", actionName.c_str(),
             _LogName().c_str());
        return RT_FAILURE;
    }
    if (entry == nullptr) {
        ZJsonObject* made = new ZJsonObject(this, actionName, 0);
        if (made->GetJPath().empty()) {
            made->ObjDestroy(eDestroyDelete, false);
            return RT_FAILURE;
        }
        entry = made;
    }
    if (!Use(entry)) return RT_FAILURE;
    UseRelease releaseEntry(entry);

    entry->HashWrite("target", target);
    entry->HashWrite("title", title);
    if ((schema->GetTaskFlag() & ZSchema::CRUDQ_ACTION) != 0) {
        ZLOG(eZLogDebug, "%s supports Task\n", actionName.c_str());
        entry->HashWriteRawString("&&Async", "true");
        entry->HashWrite("PercentComplete", 0ULL);
        entry->HashWrite("HidePayload", false);
    }
    return HashWrite(actionName, entry);
}

}  // namespace Orbel
