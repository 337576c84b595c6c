// The application's object registry: OIDs, the valid-object map, objects by
// JPath, resources by name, the recycle queue and the object monitors.
//
// Lock order (never the reverse): object list -> resource list; OID ->
// valid-object; recycle -> valid-object -> OID; monitor -> object list.
// No registry lock is held while a node's own locks are taken, except the
// object-list lock around reads of a listed node's constant fields.
#include <algorithm>
#include <regex>
#include <vector>

#include "Orbel.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZObject.h"
#include "ZResource.h"
#include "ZSchema.h"
#include "ZUserInputTemplate.h"

namespace Orbel {

// One object monitor. A JPath item calls back once, for the first live
// object it finds, and goes when that object dies; a pattern item calls back
// once per newly matching live object and stays.
struct ZApplication::_sOMTgt {
    ZObject* obj;
    uint32_t oid;  // tells a recycled address from the object seen before
};

struct ZApplication::sOMItem {
    std::string jpath;              // JPath, or the pattern's text
    std::regex* pattern = nullptr;  // owned; null for a JPath item
    ObjMonitorCallback_t callback = nullptr;
    void* arg = nullptr;
    std::vector<_sOMTgt> targets;
};

namespace {
constexpr int kOIDTries = 101;
}  // namespace

// ---------------------------------------------------------------------------
// OIDs and the valid-object map
// ---------------------------------------------------------------------------

uint32_t ZApplication::NewOID(ZObject* obj) {
    uint32_t oid = kInvalidOID;
    {
        MutexLock lock(mOIDMutex);
        for (int i = 0; i < kOIDTries; ++i) {
            uint32_t candidate = mOIDSeq++;
            // The number that means "none" is never handed out.
            if (candidate == kInvalidOID) candidate = mOIDSeq++;
            if (mOIDMap.Find(candidate) == nullptr) {
                oid = candidate;
                break;
            }
        }
        if (oid == kInvalidOID) {
            ZLOG(eZLogError, "Unable to get a free OID. CurrSeq[%lu]\n",
                 static_cast<unsigned long>(mOIDSeq));
        } else {
            mOIDMap.Put(oid, obj);
        }
        // Even without a number the node is a valid object, so its owner can
        // still retire it and the recycler free it.
        MutexLock validLock(mValidObjMutex);
        mValidObjMap.Put(NodeKey(obj), true);
    }
    return oid;
}

void ZApplication::SetNextOIDCandidate(uint32_t seq) {
    MutexLock lock(mOIDMutex);
    mOIDSeq = seq;
}

bool ZApplication::IsValidObj(ZObject* obj) {
    MutexLock lock(mValidObjMutex);
    if (mValidObjMap.Find(NodeKey(obj)) == nullptr) {
        ZLOG(eZLogError, "Obj[%p] is an invalid ZObject. It might be a corrupt memory address.\n",
             static_cast<void*>(obj));
        return false;
    }
    return true;
}

bool ZApplication::UseIfValid(ZObject* obj) {
    MutexLock lock(mValidObjMutex);
    if (mValidObjMap.Find(NodeKey(obj)) == nullptr) {
        ZLOG(eZLogError, "Obj[%p] is an invalid ZObject. It might be a corrupt memory address.\n",
             static_cast<void*>(obj));
        return false;
    }
    // Under the same mutex as the recycler's last look at the count.
    obj->IncreaseUsingCount();
    return true;
}

void ZApplication::_ForgetObject(ZObject* obj) {
    {
        MutexLock lock(mValidObjMutex);
        mValidObjMap.Erase(NodeKey(obj));
    }
    MutexLock lock(mOIDMutex);
    ZObject** entered = mOIDMap.Find(obj->mOID);
    if (entered != nullptr && *entered == obj) mOIDMap.Erase(obj->mOID);
}

// ---------------------------------------------------------------------------
// Objects by JPath, resources by name
// ---------------------------------------------------------------------------

eRtCode ZApplication::ObjectListAppend(ZObject* obj) {
    if (obj == nullptr) return RT_INVALID_ARG;
    const std::string& jpath = obj->mJPath;
    MutexLock lock(mObjectListMutex);
    if (!mObjectList.emplace(jpath, obj).second) {
        ZLOG(eZLogError, "Failed to append object[%s] to list due to the JPath is duplicated!\n",
             jpath.c_str());
        return RT_FAILURE;
    }
    if (obj->IsResourceType()) {
        MutexLock resLock(mResourceListMutex);
        auto inserted = mResourceList.emplace(obj->mName, static_cast<ZResource*>(obj));
        if (!inserted.second) {
            ZLOG(eZLogError,
                 "Failed to append ZResourceObj[%s] to list due to the ResourceName is "
                 "duplicated!\n",
                 obj->mName.c_str());
        }
    }
    return RT_SUCCESS;
}

eRtCode ZApplication::ObjectListRemove(ZObject* obj) {
    if (obj == nullptr) return RT_INVALID_ARG;
    eRtCode rt = RT_SUCCESS;
    // A node whose Initial failed was never listed (and has no JPath).
    if (!obj->mJPath.empty()) {
        MutexLock lock(mObjectListMutex);
        auto it = mObjectList.find(obj->mJPath);
        if (it != mObjectList.end() && it->second == obj) {
            mObjectList.erase(it);
        } else {
            ZLOG(eZLogError, "Cannot find object[%s] in list.\n", obj->mJPath.c_str());
            rt = RT_FAILURE;
        }
        if (obj->IsResourceType()) {
            MutexLock resLock(mResourceListMutex);
            auto rit = mResourceList.find(obj->mName);
            if (rit != mResourceList.end() && rit->second == obj) {
                mResourceList.erase(rit);
            } else {
                ZLOG(eZLogError, "Cannot find ResourceName[%s] in list.\n", obj->mName.c_str());
                rt = RT_FAILURE;
            }
        }
    }
    MutexLock oidLock(mOIDMutex);
    ZObject** entered = mOIDMap.Find(obj->mOID);
    if (entered != nullptr && *entered == obj) mOIDMap.Erase(obj->mOID);
    return rt;
}

size_t ZApplication::ObjectListSize() {
    MutexLock lock(mObjectListMutex);
    return mObjectList.size();
}

std::vector<std::string> ZApplication::GetObjectList() {
    std::vector<std::string> out;
    MutexLock lock(mObjectListMutex);
    const auto sorted = _SortedObjectList();
    out.reserve(sorted.size());
    for (const auto& entry : sorted) out.emplace_back(entry.first);
    return out;
}

std::vector<std::string> ZApplication::GetOrphanObjsList() {
    std::vector<std::string> out;
    MutexLock lock(mObjectListMutex);
    for (const auto& entry : _SortedObjectList()) {
        ZObject* obj = entry.second;
        // A listed node is not freed while it is listed (it leaves the list
        // before it reaches the recycle queue).
        if (obj->GetParent() == nullptr && !obj->IsResourceType()) out.emplace_back(entry.first);
    }
    return out;
}

std::vector<std::pair<std::string_view, ZObject*>> ZApplication::_SortedObjectList() {
    std::vector<std::pair<std::string_view, ZObject*>> sorted(mObjectList.begin(),
                                                              mObjectList.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

ZObject* ZApplication::_FindObject(const std::string& jpath, bool quiet) {
    MutexLock lock(mObjectListMutex);
    auto it = mObjectList.find(jpath);
    if (it != mObjectList.end()) return it->second;
    if (jpath.empty()) return nullptr;
    // The front end and plug-ins disagree now and then on a trailing "/".
    std::string retry;
    if (jpath.back() == '/') {
        retry = jpath.substr(0, jpath.size() - 1);
        if (!quiet) ZLOG(eZLogDebug, "Retry JPath[%s].\n", retry.c_str());
    } else {
        retry = jpath + "/";
        if (!quiet) ZLOG(eZLogDebug, "Retry JPath[%s/].\n", jpath.c_str());
    }
    it = mObjectList.find(retry);
    return it != mObjectList.end() ? it->second : nullptr;
}

ZObject* ZApplication::GetObject(const std::string& jpath) {
    return _FindObject(jpath, false);
}

ZResource* ZApplication::GetResource(const std::string& resourceName) {
    MutexLock lock(mResourceListMutex);
    auto it = mResourceList.find(resourceName);
    return it != mResourceList.end() ? it->second : nullptr;
}

ZResource* ZApplication::GetResource(ZObject* obj) {
    if (obj == nullptr || !UseIfValid(obj)) return nullptr;
    ZResource* res = obj->GetOwnedByResource();
    obj->DecreaseUsingCount();
    return res;
}

std::string ZApplication::GetResourceURI(ZObject* obj) {
    ZResource* res = GetResource(obj);
    if (res == nullptr || !UseIfValid(res)) return std::string();
    std::string uri = res->GetJPath();
    res->DecreaseUsingCount();
    return uri;
}

// ---------------------------------------------------------------------------
// Recycle queue
// ---------------------------------------------------------------------------

void ZApplication::RecycledListAppend(ZObject* obj) {
    if (obj == nullptr) return;
    MutexLock lock(mRecycleMutex);
    mRecycleList.push_back(lRecycleRef{obj, nullptr, 0});
}

void ZApplication::RecycledListAppend(ZUserInputTemplate* tmpl, unsigned long delayMs) {
    if (tmpl == nullptr) return;
    MutexLock lock(mRecycleMutex);
    mRecycleList.push_back(
        lRecycleRef{nullptr, tmpl, MiniTimeTick() + static_cast<uint32_t>(delayMs)});
}

size_t ZApplication::RecycledListSize() {
    MutexLock lock(mRecycleMutex);
    return mRecycleList.size();
}

void ZApplication::RecycleProcess() {
    std::vector<ZObject*> freeList;
    std::vector<ZUserInputTemplate*> tmplFreeList;
    {
        MutexLock lock(mRecycleMutex);
        const uint32_t now = MiniTimeTick();
        for (auto it = mRecycleList.begin(); it != mRecycleList.end();) {
            if (it->obj != nullptr) {
                ZObject* obj = it->obj;
                int32_t count = obj->GetUsingCount();
                if (count < 0) {
                    ZLOG(eZLogWarning, "Obj[%s] using count[%d] shouldn't < 0!\n",
                         obj->mJPath.c_str(), static_cast<int>(count));
                }
                if (count > 0) {
                    ++it;
                    continue;
                }
                {
                    // UseIfValid counts up under this mutex: once the entry is
                    // gone nobody can take a new count on the object.
                    MutexLock validLock(mValidObjMutex);
                    if (obj->GetUsingCount() > 0) {
                        ++it;
                        continue;
                    }
                    mValidObjMap.Erase(NodeKey(obj));
                }
                {
                    MutexLock oidLock(mOIDMutex);
                    ZObject** entered = mOIDMap.Find(obj->mOID);
                    if (entered != nullptr && *entered == obj) mOIDMap.Erase(obj->mOID);
                }
                freeList.push_back(obj);
                it = mRecycleList.erase(it);
            } else {
                if (static_cast<int32_t>(now - it->dueTick) < 0) {
                    ++it;
                    continue;
                }
                // A template some request still pins waits for the next pass.
                if (it->tmpl->FreeCache() == RT_BUSY) {
                    ++it;
                    continue;
                }
                tmplFreeList.push_back(it->tmpl);
                it = mRecycleList.erase(it);
            }
        }
    }
    // Freed outside the queue's lock: destructors log.
    for (ZObject* obj : freeList) delete obj;
    for (ZUserInputTemplate* tmpl : tmplFreeList) delete tmpl;
}

// ---------------------------------------------------------------------------
// Object monitors
// ---------------------------------------------------------------------------

eRtCode ZApplication::RegisterMonitorObject(const std::string& jpath, ObjMonitorCallback_t callback,
                                            void* arg) {
    if (jpath.empty() || callback == nullptr) {
        ZLOG(eZLogError, "NULL arg! jpath[%s] callback:%p\n", jpath.c_str(),
             reinterpret_cast<void*>(callback));
        return RT_INVALID_ARG;
    }
    auto* item = new sOMItem();
    item->jpath = jpath;
    item->callback = callback;
    item->arg = arg;
    MutexLock lock(mMonitorMutex);
    mMonitorList.push_back(item);
    return RT_SUCCESS;
}

eRtCode ZApplication::RegisterMonitorObjectWithRegExp(const std::string& pattern,
                                                      ObjMonitorCallback_t callback, void* arg) {
    if (pattern.empty() || callback == nullptr) {
        ZLOG(eZLogError, "NULL arg! pattern[%s] callback:%p\n", pattern.c_str(),
             reinterpret_cast<void*>(callback));
        return RT_INVALID_ARG;
    }
    std::regex* re = NewRegExpPattern(pattern);
    if (re == nullptr) {
        ZLOG(eZLogError, "Failed to call NewRegExpPattern( %s ).\n", pattern.c_str());
        return RT_FAILURE;
    }
    auto* item = new sOMItem();
    item->jpath = pattern;
    item->pattern = re;
    item->callback = callback;
    item->arg = arg;
    MutexLock lock(mMonitorMutex);
    mMonitorList.push_back(item);
    return RT_SUCCESS;
}

void ZApplication::ObjMonitorScan() {
    struct Call {
        ObjMonitorCallback_t callback;
        void* arg;
        ZObject* obj;  // held by a using count until the call returns
    };
    std::vector<Call> calls;
    auto stillAlive = [this](const _sOMTgt& tgt) {
        bool alive = false;
        MutexLock lock(mValidObjMutex);
        if (mValidObjMap.Find(NodeKey(tgt.obj)) != nullptr) {
            alive = !tgt.obj->IsDied() && tgt.obj->GetOID() == tgt.oid;
        }
        return alive;
    };
    {
        MutexLock lock(mMonitorMutex);
        std::vector<std::string> jpaths;
        bool haveJPaths = false;
        for (auto it = mMonitorList.begin(); it != mMonitorList.end();) {
            sOMItem* item = *it;
            if (item->pattern == nullptr) {
                if (!item->targets.empty()) {
                    if (!stillAlive(item->targets.front())) {
                        ZLOG(eZLogDebug, "Remove this objMonitorItem due to object[%s] is died.\n",
                             item->jpath.c_str());
                        delete item;
                        it = mMonitorList.erase(it);
                        continue;
                    }
                } else {
                    ZObject* obj = _FindObject(item->jpath, true);
                    if (obj != nullptr && UseIfValid(obj)) {
                        if (!obj->IsDied()) {
                            item->targets.push_back(_sOMTgt{obj, obj->GetOID()});
                            calls.push_back(Call{item->callback, item->arg, obj});
                        } else {
                            obj->DecreaseUsingCount();
                        }
                    }
                }
            } else {
                // Forget targets that died, so a new object at the same JPath
                // counts as newly matching.
                item->targets.erase(
                    std::remove_if(item->targets.begin(), item->targets.end(),
                                   [&](const _sOMTgt& t) { return !stillAlive(t); }),
                    item->targets.end());
                if (!haveJPaths) {
                    jpaths = GetObjectList();
                    haveJPaths = true;
                }
                for (const std::string& jpath : jpaths) {
                    bool matches = false;
                    try {
                        matches = std::regex_match(jpath, *item->pattern);
                    } catch (const std::exception&) {
                        matches = false;  // a pattern too complex for this text
                    }
                    if (!matches) continue;
                    ZObject* obj = _FindObject(jpath, true);
                    if (obj == nullptr || !UseIfValid(obj)) continue;
                    bool known = false;
                    for (const _sOMTgt& t : item->targets) {
                        known = known || (t.obj == obj && t.oid == obj->GetOID());
                    }
                    if (known || obj->IsDied()) {
                        obj->DecreaseUsingCount();
                        continue;
                    }
                    item->targets.push_back(_sOMTgt{obj, obj->GetOID()});
                    calls.push_back(Call{item->callback, item->arg, obj});
                }
            }
            ++it;
        }
    }
    // Without registry locks: a callback may write nodes or register monitors.
    for (const Call& call : calls) {
        call.callback(call.obj, call.arg);
        call.obj->DecreaseUsingCount();
    }
}

std::string ZApplication::DumpMonitorList() {
    std::string text;
    MutexLock lock(mMonitorMutex);
    for (const sOMItem* item : mMonitorList) {
        text += "   Monitor[" + item->jpath + "] " +
                (item->pattern != nullptr ? "RegExp" : "JPath") + " targets[" +
                std::to_string(item->targets.size()) + "]\n";
    }
    return text;
}

// ---------------------------------------------------------------------------
// Teardown
// ---------------------------------------------------------------------------

void ZApplication::_ReleaseObjRegistry() {
    // Retire the trees from their roots: the descendants follow their roots,
    // so member lists and references die together. The store keeps what it
    // has; the next start clears each key it reuses.
    for (int pass = 0; pass < 2; ++pass) {
        // In JPath order, the same from run to run.
        std::vector<ZObject*> victims;
        {
            MutexLock lock(mObjectListMutex);
            for (const auto& entry : _SortedObjectList()) {
                if (pass == 1 || entry.second->GetParent() == nullptr) {
                    victims.push_back(entry.second);
                }
            }
        }
        for (ZObject* obj : victims) {
            if (!UseIfValid(obj)) continue;
            obj->ObjDestroy(ZObject::eDestroyDelete, false);
            obj->DecreaseUsingCount();
        }
    }
    RecycleProcess();
    std::vector<ZUserInputTemplate*> templates;  // no request is left to wait for
    {
        MutexLock lock(mRecycleMutex);
        for (auto it = mRecycleList.begin(); it != mRecycleList.end();) {
            if (it->tmpl == nullptr) {
                ++it;
                continue;
            }
            templates.push_back(it->tmpl);
            it = mRecycleList.erase(it);
        }
        if (!mRecycleList.empty()) {
            ZLOG(eZLogWarning, "%u recycled objects are still in use at exit.\n",
                 static_cast<unsigned>(mRecycleList.size()));
        }
    }
    for (ZUserInputTemplate* tmpl : templates) delete tmpl;
    MutexLock lock(mMonitorMutex);
    for (sOMItem* item : mMonitorList) {
        delete item->pattern;
        delete item;
    }
    mMonitorList.clear();
}

}  // namespace Orbel
