// ZSchema: the resource map (resources by name) and its teardown.
#include <algorithm>
#include <sstream>
#include <vector>

#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

eRtCode ZSchema::AddResource(ZResource* resource) {
    if (resource == nullptr) {
        ZLOG(eZLogError, "NULL arg! resource:%p\n", static_cast<void*>(resource));
        return RT_INVALID_ARG;
    }
    const std::string& name = resource->NameText();
    bool added = false;
    {
        MutexLock lock(mMutex);
        added = mResources.emplace(name, resource).second;
    }
    // Logged after the lock is given back: a dispatcher looking a resource
    // up does not wait for a log line.
    if (!added) {
        ZLOG(eZLogError,
             "Failed to add Resource to schema[%s] due to the name[%s] is not unique!\n",
             mName.c_str(), name.c_str());
        return RT_FAILURE;
    }
    ZLOG(eZLogDebug, "Schema[%s] add a new Resource name[%s] id[%s].\n", mName.c_str(),
         name.c_str(), resource->GetId().c_str());
    return RT_SUCCESS;
}

eRtCode ZSchema::DelResource(const std::string& name) {
    MutexLock lock(mMutex);
    if (mResources.erase(name) == 0) return RT_FAILURE;
    ZLOG(eZLogDebug, "Schema[%s] delete a Resource[%s].\n", mName.c_str(), name.c_str());
    return RT_SUCCESS;
}

eRtCode ZSchema::DelResource(const std::string& name, ZResource* expected) {
    MutexLock lock(mMutex);
    auto it = mResources.find(name);
    if (it == mResources.end() || it->second != expected) return RT_FAILURE;
    mResources.erase(it);
    ZLOG(eZLogDebug, "Schema[%s] delete a Resource[%s].\n", mName.c_str(), name.c_str());
    return RT_SUCCESS;
}

ZResource* ZSchema::GetResource(const std::string& name) {
    ZResource* resource = nullptr;
    {
        MutexLock lock(mMutex);
        auto it = mResources.find(name);
        if (it == mResources.end()) return nullptr;
        resource = it->second;
    }
    // Listed resources leave the map when retired; a died one still listed
    // is caught in the middle of its retirement.
    if (resource->IsDied()) {
        ZLOG(eZLogError, "The resource[%s] in schema[%s] is died.\n", name.c_str(), mName.c_str());
    }
    return resource;
}

void ZSchema::DestroyAllResources() {
    // In name order, the same from run to run (sorted as the registry's
    // list is, one instantiation of the sort for both).
    std::vector<std::pair<std::string_view, ZObject*>> resources;
    {
        // Sorted under the lock: the names are the resources' own texts.
        MutexLock lock(mMutex);
        resources.assign(mResources.begin(), mResources.end());
        std::sort(resources.begin(), resources.end());
    }
    for (const auto& entry : resources) {
        auto* resource = static_cast<ZResource*>(entry.second);
        // One may already be gone with an ancestor retired just before.
        if (!Use(resource)) continue;
        UseRelease release(resource);
        resource->ObjDestroy(ZObject::eDestroyDelete, true);
    }
}

void ZSchema::_RetireOwnedResources() {
    DestroyAllResources();
    ZApplication* app = zApp;
    if (app == nullptr) return;
    for (const std::string& jpath : app->GetObjectList()) {
        ZObject* obj = app->GetObject(jpath);
        if (obj == nullptr || !obj->IsResourceType() || !Use(obj)) continue;
        UseRelease release(obj);
        if (static_cast<ZResource*>(obj)->OwnedBySchema() == this) {
            obj->ObjDestroy(ZObject::eDestroyDelete, true);
        }
    }
}

std::string ZSchema::DumpResources() {
    std::ostringstream out;
    out << "Dump schema[" << mName << "] resources:\n";
    MutexLock lock(mMutex);
    std::vector<std::pair<std::string_view, ZObject*>> sorted(mResources.begin(), mResources.end());
    std::sort(sorted.begin(), sorted.end());
    for (const auto& entry : sorted) {
        char line[64];
        std::snprintf(line, sizeof(line), "  Resource(%p) : [", static_cast<void*>(entry.second));
        out << line << entry.first << "]\n";
    }
    return out.str();
}

}  // namespace Orbel
