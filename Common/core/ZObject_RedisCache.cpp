// The change queue: every write of a node becomes one queued store command,
// written to the store when the node (usually the resource, recursively) is
// applied. The layout of the texts is the wire format the front end reads
// (docs/wire-protocol.md).
#include <cstdio>
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
#include "ZSchema.h"

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

// A NUL would cut the text wherever it is handled as a C string.
bool RefuseNul(const std::string& objName, const std::string& name, const std::string& text) {
    if (text.find('\0') == std::string::npos) return false;
    ZLOG(eZLogError, "Object[%s] property[%s]: a value holding a NUL byte is refused.\n",
         objName.c_str(), SanitizedText(name, 64).c_str());
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
void WarnStringRepaired(const std::string& objName, const std::string& name,
                        const std::string& value) {
    if (IsJsonStringContent(StringRightStrip(value, " "))) return;
    ZLOG(eZLogWarning,
         "Object[%s] property[%s]: quotes, backslashes or control bytes of the string are "
         "escaped.\n",
         objName.c_str(), SanitizedText(name, 64).c_str());
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
    return HashWrite(name, std::string(value), isLink);
}

eRtCode ZObject::HashWrite(const std::string& name, const std::string& value, bool isLink) {
    if (RefuseNul(_LogName(), name, value)) return RT_INVALID_ARG;
    if (isLink && !IsLinkText(value)) {
        ZLOG(eZLogError, "Object[%s] property[%s]: link text[%s] is refused.\n",
             _LogName().c_str(), SanitizedText(name, 64).c_str(),
             SanitizedText(value, 64).c_str());
        return RT_INVALID_ARG;
    }
    // The byte listing of the verbose check would show a secret's bytes.
    if (!IsPureString(value, !IsSecretLikeName(name))) {
        ZLOG(eZLogWarning, "Object[%s] write a non pure string to property[%s] !\n",
             _LogName().c_str(), name.c_str());
    }
    // A RawJson node quotes every string whole (its own text format).
    if (!isLink && !mIsRawJson) WarnStringRepaired(_LogName(), name, value);
    sObjectChange change;
    change.dataKind = eObjDataString;
    change.isLink = isLink;
    change.strValue = value;
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
    if (RefuseNul(_LogName(), name, text)) return RT_INVALID_ARG;
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
    change->action = action;
    change->tableKind = eObjTableHash;
    change->key = name;
    return ApplyObjectChanges(change);
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
    if (RefuseNul(_LogName(), mId, value)) return RT_INVALID_ARG;
    if (isLink && !IsLinkText(value)) {
        ZLOG(eZLogError, "Object[%s] item[%d]: link text[%s] is refused.\n", _LogName().c_str(),
             index, SanitizedText(value, 64).c_str());
        return RT_INVALID_ARG;
    }
    if (!isLink && !mIsRawJson) WarnStringRepaired(_LogName(), mId, value);
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
    if (RefuseNul(_LogName(), mId, text)) return RT_INVALID_ARG;
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
    return ApplyObjectChanges(change);
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
// Removal
// ---------------------------------------------------------------------------

ZObject* ZObject::_FindNodeOfProperty(const std::string& name, bool* isLink, std::string* field) {
    // The nodes this one stores are its owned children and the targets of
    // its links; each knows the text under which this node holds it.
    std::vector<ZObject*> candidates;
    {
        std::lock_guard<std::mutex> lock(mTreeMutex);
        if (mChildList != nullptr) {
            for (const auto& entry : *mChildList) {
                if (Use(entry.second)) candidates.push_back(entry.second);
            }
        }
    }
    {
        std::lock_guard<std::mutex> lock(mTreeMutex);
        if (mReferenceTo != nullptr) {
            for (ZObject* target : *mReferenceTo) {
                if (Use(target)) candidates.push_back(target);
            }
        }
    }
    ZObject* found = nullptr;
    for (ZObject* node : candidates) {
        if (found == nullptr) {
            std::string metaKey;
            std::string prop;
            bool link = false;
            if (node->_MetaKeyOf(this, &metaKey) &&
                IsACorvelMetaKey(metaKey, &prop, nullptr, &link) &&
                (metaKey == name || (!prop.empty() && prop == name))) {
                found = node;
                if (isLink != nullptr) *isLink = link;
                if (field != nullptr) *field = metaKey;
                continue;  // keeps its using count for the caller
            }
        }
        node->DecreaseUsingCount();
    }
    return found;
}

eRtCode ZObject::HashRemove(const std::string& name) {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (mIsRawJson) return _RawJsonRemovalRefused();
    if (!_IsHashTable("pptName", name)) return RT_FAILURE;

    bool isLink = false;
    std::string field;
    ZObject* node = _FindNodeOfProperty(name, &isLink, &field);
    UseRelease releaseNode(node);
    if (node == nullptr) {
        field = name;
        bool metaLink = false;
        if (IsACorvelMetaKey(name, nullptr, nullptr, &metaLink) && !metaLink) {
            ZLOG(eZLogError, "Obj[%s] wants to remove a sub-Obj[%s] but not found!\n",
                 _LogName().c_str(), name.c_str());
        }
    }

    sObjectChange change;
    change.action = eObjChgRemove;
    change.tableKind = eObjTableHash;
    change.key = field;
    change.isLink = isLink;
    if (node != nullptr) {
        if (isLink) {
            // A link: only the field goes; the linked node lives on.
            RemoveReferenceTo(node);
            node->RemoveReferencedBy(this);
        } else {
            change.dataKind = eObjDataObject;
            change.objValue = node;
        }
    }
    return ApplyObjectChanges(&change);
}

eRtCode ZObject::HashRemoveLink(const std::string& name) {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (mIsRawJson) return _RawJsonRemovalRefused();
    if (!_IsHashTable("pptName", name)) return RT_FAILURE;

    bool isLink = false;
    std::string field;
    ZObject* node = _FindNodeOfProperty(name, &isLink, &field);
    UseRelease releaseNode(node);
    std::vector<std::string> fields;
    if (node != nullptr) {
        if (!isLink) {
            ZLOG(eZLogError, "Property[%s] of Object[%s] is not a link.\n", name.c_str(),
                 _LogName().c_str());
            return RT_FAILURE;
        }
        RemoveReferenceTo(node);
        node->RemoveReferencedBy(this);
        fields.push_back(field);
    } else {
        // A link written as text has no node to remember it by: the store
        // holds the only copy of its target.
        std::map<std::string, std::string> stored;
        const std::string prefix = "&&ObjectRef " + name + " ";
        if (RedisHashGetAll(nullptr, mJPath.c_str(), stored) == RT_SUCCESS) {
            for (const auto& entry : stored) {
                if (entry.first.compare(0, prefix.size(), prefix) == 0) {
                    fields.push_back(entry.first);
                }
            }
        }
    }
    if (fields.empty()) {
        ZLOG(eZLogError, "Object[%s] doesn't have a link property[%s].\n", _LogName().c_str(),
             name.c_str());
        return RT_FAILURE;
    }
    eRtCode rt = RT_SUCCESS;
    for (const std::string& f : fields) {
        sObjectChange change;
        change.action = eObjChgRemove;
        change.tableKind = eObjTableHash;
        change.isLink = true;
        change.key = f;
        if (ApplyObjectChanges(&change) != RT_SUCCESS) rt = RT_FAILURE;
    }
    return rt;
}

eRtCode ZObject::HashRemoveLink(const std::string& name, ZResource* target) {
    if (target == nullptr) {
        ZLOG(eZLogError, "NULL arg! property[%s] target:%p\n", name.c_str(),
             static_cast<void*>(target));
        return RT_INVALID_ARG;
    }
    if (!Use(target)) return RT_FAILURE;
    UseRelease releaseTarget(target);
    return HashRemoveLink(name, target->GetOdataId());
}

eRtCode ZObject::HashRemoveLink(const std::string& name, const std::string& target) {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (mIsRawJson) return _RawJsonRemovalRefused();
    if (!_IsHashTable("pptName", name)) return RT_FAILURE;

    const std::string field = "&&ObjectRef " + name + " " + target;
    bool isLink = false;
    std::string found;
    ZObject* node = _FindNodeOfProperty(field, &isLink, &found);
    UseRelease releaseNode(node);
    if (node != nullptr && isLink) {
        RemoveReferenceTo(node);
        node->RemoveReferencedBy(this);
    }
    sObjectChange change;
    change.action = eObjChgRemove;
    change.tableKind = eObjTableHash;
    change.isLink = true;
    change.key = field;
    return ApplyObjectChanges(&change);
}

eRtCode ZObject::ListRemove(const std::string& text, bool all) {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (mIsRawJson) return _RawJsonRemovalRefused();
    if (!_IsListTable(-1)) return RT_FAILURE;
    return _ListRemoveText(text, all);
}

eRtCode ZObject::_ListRemoveText(const std::string& text, bool all) {
    ZJsonArray* array = static_cast<ZJsonArray*>(this);
    ZObject* node = nullptr;
    bool isLink = false;
    std::string target;
    if (IsACorvelMetaKey(text, nullptr, &target, &isLink)) {
        std::string field;
        node = _FindNodeOfProperty(text, &isLink, &field);
        if (node == nullptr && zApp != nullptr) {
            // Not in this array's bookkeeping: the registry knows it by JPath,
            // but only a node that really belongs to this array is touched.
            ZObject* byPath = zApp->GetObject(target);
            if (byPath != nullptr && Use(byPath)) {
                if (byPath->GetParent() == this || array->GetIdxByObject(byPath) >= 0) {
                    node = byPath;
                } else {
                    byPath->DecreaseUsingCount();
                }
            }
        }
        if (node == nullptr) {
            ZLOG(eZLogError, "Obj[%s] wants to remove a sub-Obj[%s] but not found!\n",
                 _LogName().c_str(), text.c_str());
        }
    }
    UseRelease releaseNode(node);

    sObjectChange change;
    change.tableKind = eObjTableList;
    change.isLink = isLink;
    if (node != nullptr) {
        array->DelObjectItem(node);
        if (isLink) {
            RemoveReferenceTo(node);
            node->RemoveReferencedBy(this);
        } else {
            change.dataKind = eObjDataObject;
            change.objValue = node;
        }
    }
    return _ListWrite(&change, all ? eObjChgClear : eObjChgRemove, text);
}

eRtCode ZObject::ListRemove(int index) {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (mIsRawJson) return _RawJsonRemovalRefused();
    if (!_IsListTable(index)) return RT_FAILURE;

    std::vector<std::string> items;
    if (RedisListGetAll(nullptr, mJPath.c_str(), 0, -1, items) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisListGetAll().\n");
        return RT_FAILURE;
    }
    if (index < 0 || static_cast<size_t>(index) >= items.size()) {
        ZLOG(eZLogError, "Index[%d] out of list[%s] size.\n", index, mJPath.c_str());
        return RT_FAILURE;
    }
    return _ListRemoveText(items[static_cast<size_t>(index)], false);
}

eRtCode ZObject::ListRemove(ZObject* item) {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (mIsRawJson) return _RawJsonRemovalRefused();
    if (!_IsListTable(-1)) return RT_FAILURE;
    if (!Use(item)) return RT_FAILURE;
    UseRelease releaseItem(item);
    std::string metaKey;
    if (!item->_MetaKeyOf(this, &metaKey)) {
        ZLOG(eZLogError, "Obj[%s] wants to remove a sub-Obj[%s] but not found!\n",
             _LogName().c_str(), item->GetJPath().c_str());
        return RT_FAILURE;
    }
    return _ListRemoveText(metaKey, false);
}

eRtCode ZObject::ListRemoveAll() {
    if (!_CheckWritable(true)) return RT_FAILURE;
    UseRelease release(this);
    if (!_IsListTable(-1)) return RT_FAILURE;
    ZJsonArray* array = static_cast<ZJsonArray*>(this);
    // Emptied at once, like the keys of the nodes that go with it: a
    // queued removal that the caller discards would leave elements naming
    // keys that are already gone.
    if (!mIsRawJson) {
        redisContext* c = RedisConnect();
        if (c == nullptr) {
            ZLOG(eZLogError, "Failed to call RedisConnect().\n");
            return RT_FAILURE;
        }
        eRtCode rt = array->CleanItemsFromRedis(c);
        if (rt == RT_SUCCESS) array->UpdateParentOdataCount(c);
        RedisDisconnect(c);
        if (rt != RT_SUCCESS) return rt;
    }
    {
        // What is still queued would land after the emptying.
        std::lock_guard<std::mutex> lock(mQueueMutex);
        if (mRedisCmdQueue != nullptr) {
            for (sRedisCmdItem* item : *mRedisCmdQueue) delete item;
            mRedisCmdQueue->clear();
        }
        if (mRawJson != nullptr) {
            mRawJson->entries.clear();
            mRawJson->index.clear();
        }
    }
    // Links held as elements are dropped from the bookkeeping; nodes owned
    // as elements (and any other child) are retired.
    std::vector<ZObject*> members;
    array->GetMemberObjects(members);
    array->CleanObjectItem();
    for (ZObject* member : members) {
        if (!Use(member)) continue;
        if (member->GetParent() != this) {
            RemoveReferenceTo(member);
            member->RemoveReferencedBy(this);
        }
        member->DecreaseUsingCount();
    }
    std::vector<ZObject*> children = _UsedChildren();
    for (ZObject* child : children) {
        child->ObjDestroy(eDestroyUnlink, true);
        child->DecreaseUsingCount();
    }
    return RT_SUCCESS;
}

int ZObject::ListSize(redisContext* c) {
    if (mIsRawJson) {
        LogRawJsonRefused();
        return -1;
    }
    if (mType != eJsonArray) {
        ZLOG(eZLogError, "This is not a List table. type:%d\n", static_cast<int>(mType));
        return -1;
    }
    if (c == nullptr) {
        ZLOG(eZLogError, "Redis context is NULL.\n");
        return -1;
    }
    int size = 0;
    eRtCode rt = RedisListSize(c, GetJPath().c_str(), size);
    if (rt != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisListSize(). rt:%d\n", static_cast<int>(rt));
        return -1;
    }
    return size;
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

// ---------------------------------------------------------------------------
// From change to queued command
// ---------------------------------------------------------------------------

std::string ZObject::_NodeLinkText(ZObject* node, bool isLink, const std::string& name) {
    std::string text;
    std::string target;
    if (isLink) {
        text = "&&ObjectRef";
        target =
            node->IsResourceType() ? static_cast<ZResource*>(node)->GetOdataId() : node->GetJPath();
    } else {
        text = node->GetType() == eJsonArray ? "&&Array" : "&&Object";
        target = node->GetJPath();
    }
    text += ' ';
    if (!name.empty()) {
        text += name;
        text += ' ';
    }
    text += target;
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
        case eObjDataString:
            // Kept as given when it is JSON string content already (text
            // from the front end, or escaped by the plug-in); otherwise the
            // bytes that would break the document are escaped.
            return "\"" + JsonStringContent(StringRightStrip(change->strValue, " ")) + "\"";
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
            // thread may free it at once).
            std::string metaKey = change->tableKind == eObjTableHash ? item->key : item->value;
            AppendRedisChange(item);
            if (value != nullptr && !mIsRawJson) {
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
    std::lock_guard<std::mutex> lock(mQueueMutex);
    if (!_ListsOpen()) {
        ZLOG(eZLogError, "Object[%s] has no change queue; the change is dropped.\n",
             _LogName().c_str());
        delete item;
        return;
    }
    if (mRedisCmdQueue == nullptr) mRedisCmdQueue = new std::vector<sRedisCmdItem*>();
    // Differences of the 32-bit tick stay right across its wrap.
    if (!mRedisCmdQueue->empty() &&
        static_cast<uint32_t>(now - mLastAppendTick) > kUnappliedWarnMs) {
        ZLOG(eZLogError,
             "Cached data over 10 seconds. It might forget to apply changes into Redis? Obj[%s]\n",
             _LogName().c_str());
    }
    mRedisCmdQueue->push_back(item);
    mLastAppendTick = now;
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

eRtCode ZObject::ObjData2RedisCache(bool recursive, redisContext* c) {
    if (c == nullptr) {
        ZLOG(eZLogError, "Redis context is NULL.\n");
        return RT_FAILURE;
    }
    // RawJson items are JSON texts for the root's document, not fields.
    if (mIsRawJson) return ApplyRedisChanges(recursive, c);
    // A failed command is logged by the store client and dropped, not
    // retried; the apply as a whole then reports failure.
    eRtCode rt = RT_SUCCESS;
    {
        // Held for the whole queue: writes from other threads wait, so a
        // node's commands reach the store in call order.
        std::lock_guard<std::mutex> lock(mQueueMutex);
        if (mRedisCmdQueue != nullptr) {
            for (sRedisCmdItem* item : *mRedisCmdQueue) {
                if (_ApplyOneItem(c, item) != RT_SUCCESS) rt = RT_FAILURE;
                delete item;
            }
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
            if (child->ApplyRedisChanges(true, c) != RT_SUCCESS) rt = RT_FAILURE;
            child->DecreaseUsingCount();
        }
    }
    return rt;
}

void ZObject::DiscardRedisChanges(bool recursive, redisContext* c) {
    DiscardObjData(recursive, c);
}

void ZObject::DiscardObjData(bool recursive, redisContext* c) {
    {
        std::lock_guard<std::mutex> lock(mQueueMutex);
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
    std::lock_guard<std::mutex> lock(mQueueMutex);
    return mRedisCmdQueue != nullptr ? mRedisCmdQueue->size() : 0;
}

void ZObject::DumpRedisChanges(bool recursive) {
    {
        std::lock_guard<std::mutex> lock(mQueueMutex);
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
