// A node's removals: properties, links and list items taken out of the
// store copy through the change queue. Part of ZObject.
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

namespace Orbel {

// ---------------------------------------------------------------------------
// Removal
// ---------------------------------------------------------------------------

ZObject* ZObject::_FindNodeOfProperty(const std::string& name, bool* isLink, std::string* field) {
    // The nodes this one stores are its owned children and the targets of
    // its links; each knows the text under which this node holds it.
    std::vector<ZObject*> candidates;
    {
        MutexLock lock(mTreeMutex);
        if (mChildList != nullptr) {
            for (ZObject* child : *mChildList) {
                if (Use(child)) candidates.push_back(child);
            }
        }
    }
    {
        MutexLock lock(mTreeMutex);
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
        MutexLock lock(mQueueMutex);
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
        ZLOG(eZLogError, "This function is not available when data format is set to RawJson.\n");
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

}  // namespace Orbel
