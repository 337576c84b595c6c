// ZSchema: changes that start in the backend rather than in a request
// (DoBackend_*), and the base backend handlers.
#include <exception>
#include <set>

#include "Backend_MethodContext.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

namespace {

const char* const kBackendOpWords[] = {"CREATE", "READ", "UPDATE", "DELETE", "ACTION"};

// The thread shows up in the thread list while it runs a backend change,
// unless it is listed already (the main thread, a dispatcher): its own
// entry must not be replaced or removed.
class BackendThreadInfo {
public:
    BackendThreadInfo(const std::string& schema, const char* op) : mApp(zApp) {
        if (mApp != nullptr) {
            mRegistered = mApp->RegisterThreadInfoIfAbsent(schema, std::string("Backend:") + op);
        }
    }
    ~BackendThreadInfo() {
        if (mRegistered) mApp->UnregisterThreadInfo();
    }
    BackendThreadInfo(const BackendThreadInfo&) = delete;
    BackendThreadInfo& operator=(const BackendThreadInfo&) = delete;

private:
    ZApplication* const mApp;
    bool mRegistered = false;
};

}  // namespace

eRtCode ZSchema::BackendMethod_CREATE(Backend_MethodContext*, void*) {
    ZLOG(eZLogError, "Schema[%s] has no backend handler for CREATE.\n", mName.c_str());
    return RT_FAILURE;
}
eRtCode ZSchema::BackendMethod_UPDATE(Backend_MethodContext*, void*) {
    ZLOG(eZLogError, "Schema[%s] has no backend handler for UPDATE.\n", mName.c_str());
    return RT_FAILURE;
}
eRtCode ZSchema::BackendMethod_DELETE(Backend_MethodContext*, void*) {
    ZLOG(eZLogError, "Schema[%s] has no backend handler for DELETE.\n", mName.c_str());
    return RT_FAILURE;
}

eRtCode ZSchema::DoBackend_Create(void* arg) {
    BackendThreadInfo threadInfo(mName, "CREATE");
    ZApplication* app = zApp;
    bool threw = false;
    eRtCode rt = RT_FAILURE;
    std::set<ZResource*> instances;
    {
        Backend_MethodContext ctx(this, nullptr);
        {
            // The nodes the handler builds go on the context's connection.
            RedisConnectionScope storeScope(ctx.GetRedisContext());
            try {
                rt = BackendMethod_CREATE(&ctx, arg);
            } catch (const std::exception& e) {
                ZLOG(eZLogError, "Schema[%s]: BackendMethod_CREATE() threw: %s\n", mName.c_str(),
                     e.what());
                threw = true;
            } catch (...) {
                ZLOG(eZLogError, "Schema[%s]: BackendMethod_CREATE() threw.\n", mName.c_str());
                threw = true;
            }
        }
        if (threw || rt != RT_SUCCESS) {
            ZLOG(eZLogError, "Schema[%s] failed to call BackendMethod_CREATE().\n", mName.c_str());
            rt = RT_FAILURE;
        } else if (ctx.GetNewInstances().empty()) {
            ZLOG(eZLogError, "Schema[%s] failed to create new resource from backend.\n",
                 mName.c_str());
            rt = RT_FAILURE;
        }
        instances = ctx.GetNewInstances();
    }
    // A recorded instance may have been retired by the handler since: only
    // a registered one is touched, and held while it is.
    for (ZResource* instance : instances) {
        if (app == nullptr || !app->UseIfValid(instance)) continue;
        ZResource::eResStatus status = ZResource::eResIdle;
        bool mine = false;
        instance->GetStatus(status, mine);
        if (mine) instance->Unlock();
        // A handler that threw left its resources half built: none of them
        // may be served.
        if (threw && !instance->IsDied()) instance->ObjDestroy(ZObject::eDestroyDelete, true);
        instance->DecreaseUsingCount();
    }
    return rt;
}

eRtCode ZSchema::DoBackend_Update(const std::string& name, void* arg) {
    return _DoBackendOnResource(eReqUpdate, name, arg);
}

eRtCode ZSchema::DoBackend_Delete(const std::string& name, void* arg) {
    return _DoBackendOnResource(eReqDelete, name, arg);
}

eRtCode ZSchema::_DoBackendOnResource(int method, const std::string& name, void* arg) {
    const char* op = kBackendOpWords[method];
    BackendThreadInfo threadInfo(mName, op);
    ZApplication* app = zApp;
    ZResource* target = GetResource(name);
    if (target == nullptr || app == nullptr || !app->UseIfValid(target)) {
        ZLOG(eZLogError, "Schema[%s]: no resource[%s] for a backend %s.\n", mName.c_str(),
             name.c_str(), op);
        return RT_NO_SUCH_KEY;
    }
    // A request on the same resource finishes first, and none starts while
    // the backend changes it.
    eRtCode rt = target->Lock(kBackendLockWaitMs);
    if (rt != RT_SUCCESS) {
        ZLOG(eZLogError, "Schema[%s]: resource[%s] stays locked; backend %s not done.\n",
             mName.c_str(), name.c_str(), op);
        target->DecreaseUsingCount();
        return rt == RT_BUSY ? RT_BUSY : RT_NO_SUCH_KEY;
    }
    bool threw = false;
    rt = RT_FAILURE;
    {
        Backend_MethodContext ctx(this, target);
        RedisConnectionScope storeScope(ctx.GetRedisContext());
        try {
            rt = method == eReqUpdate ? BackendMethod_UPDATE(&ctx, arg)
                                      : BackendMethod_DELETE(&ctx, arg);
        } catch (const std::exception& e) {
            ZLOG(eZLogError, "Schema[%s]: BackendMethod_%s() threw: %s\n", mName.c_str(), op,
                 e.what());
            threw = true;
        } catch (...) {
            ZLOG(eZLogError, "Schema[%s]: BackendMethod_%s() threw.\n", mName.c_str(), op);
            threw = true;
        }
    }
    if (threw || rt != RT_SUCCESS) {
        ZLOG(eZLogError, "Schema[%s] failed to call BackendMethod_%s().\n", mName.c_str(), op);
        rt = RT_FAILURE;
    }
    // A deleted resource is unlocked as well: its memory is held until the
    // using count drops, and a thread still waiting for it sees it died.
    target->Unlock();
    target->DecreaseUsingCount();
    return rt;
}

}  // namespace Orbel
