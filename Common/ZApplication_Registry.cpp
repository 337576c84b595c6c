// The application's schema list. The object registry (OIDs, objects by
// JPath, resources by name, recycle queue, monitors) is in
// ZApplication_ObjRegistry.cpp.
#include <algorithm>

#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

namespace Orbel {

// ---------------------------------------------------------------------------
// Schema list
// ---------------------------------------------------------------------------

eRtCode ZApplication::SchemaListAppend(ZSchema* schema) {
    if (schema == nullptr) {
        ZLOG(eZLogError, "NULL arg! schema:%p\n", static_cast<void*>(schema));
        return RT_INVALID_ARG;
    }
    MutexLock lock(mSchemaListMutex);
    for (ZSchema* listed : mSchemaList) {
        if (listed->GetName() == schema->GetName()) {
            ZLOG(eZLogError, "Failed to append schema[%s] to list due to the name is duplicated!\n",
                 schema->GetName().c_str());
            return RT_FAILURE;
        }
    }
    mSchemaList.push_back(schema);
    ZLOG(eZLogDebug, "Append schema[%s] to list.\n", schema->GetName().c_str());
    return RT_SUCCESS;
}

eRtCode ZApplication::SchemaListRemove(ZSchema* schema) {
    if (schema == nullptr) {
        ZLOG(eZLogError, "NULL arg! schema:%p\n", static_cast<void*>(schema));
        return RT_INVALID_ARG;
    }
    MutexLock lock(mSchemaListMutex);
    auto it = std::find(mSchemaList.begin(), mSchemaList.end(), schema);
    if (it == mSchemaList.end()) {
        ZLOG(eZLogError, "Cannot find schema[%s] in list\n", schema->GetName().c_str());
        return RT_FAILURE;
    }
    mSchemaList.erase(it);
    ZLOG(eZLogDebug, "Remove schema[%s] from list.\n", schema->GetName().c_str());
    return RT_SUCCESS;
}

size_t ZApplication::SchemaListSize() {
    MutexLock lock(mSchemaListMutex);
    return mSchemaList.size();
}

ZSchema* ZApplication::GetSchemaObj(const std::string& name) {
    MutexLock lock(mSchemaListMutex);
    for (ZSchema* schema : mSchemaList) {
        if (schema->GetName() == name) return schema;
    }
    return nullptr;
}

std::deque<ZSchema*> ZApplication::GetSchemaList() {
    MutexLock lock(mSchemaListMutex);
    return mSchemaList;
}

}  // namespace Orbel
