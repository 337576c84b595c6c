// The store watch: a marker key per process, looked for each loop period.
#include "ZStoreWatch.h"

#include <unistd.h>

#include <memory>

#include "FixedPaths.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZLogPrint.h"

namespace Orbel {

namespace {

constexpr const char* kMarkerField = "Pid";

struct ContextCloser {
    void operator()(redisContext* c) const { RedisDisconnect(c); }
};
using Context = std::unique_ptr<redisContext, ContextCloser>;

// A connection of the watch's own, or null when the store is away. The
// socket is looked at first so that an outage does not log a failed connect
// every period.
Context Connect() {
    if (access(RedisSocketPath().c_str(), F_OK) != 0) return Context();
    return Context(RedisConnect());
}

}  // namespace

ZStoreWatch& ZStoreWatch::ForProcess() {
    static ZStoreWatch watch;
    return watch;
}

std::string ZStoreWatch::MarkerKey(const std::string& appName, pid_t pid) {
    return "&&StoreMarker:" + appName + ":" + std::to_string(static_cast<long long>(pid));
}

ZStoreWatch::eState ZStoreWatch::Arm(const std::string& appName) {
    MutexLock lock(mMutex);
    mKey = MarkerKey(appName, getpid());
    mLost.store(false);
    mWritten = false;
    mDown = false;
    Context c = Connect();
    const std::string pid = std::to_string(static_cast<long long>(getpid()));
    if (c && RedisHashSet(c.get(), mKey.c_str(), kMarkerField, pid.c_str()) == RT_SUCCESS) {
        mWritten = true;
        return eStoreOk;
    }
    ZLOG(eZLogWarning,
         "Store unreachable while starting; a store reached later will lack this process's "
         "data.\n");
    mDown = true;
    return eStoreDown;
}

ZStoreWatch::eState ZStoreWatch::Check() {
    MutexLock lock(mMutex);
    if (mKey.empty()) return eStoreOk;
    if (mLost.load()) return eStoreLost;
    Context c = Connect();
    if (!c) {
        _Down();
        return eStoreDown;
    }
    if (!mWritten) return _Lost("the store was unreachable when the tree was built");
    std::string value;
    switch (RedisHashGet(c.get(), mKey.c_str(), kMarkerField, value)) {
        case RT_SUCCESS:
            if (mDown) ZLOG(eZLogInfo, "Store reachable again; marker[%s] kept.\n", mKey.c_str());
            mDown = false;
            return eStoreOk;
        case RT_FIELD_MISSING:
            return _Lost("the store was restarted or emptied");
        default:
            _Down();
            return eStoreDown;
    }
}

void ZStoreWatch::OnLoopPeriod(ZApplication* app) {
    // Before the process is ready a loss is only remembered: the start-up
    // stages run to their end, and the first period after them ends it.
    if (Check() == eStoreLost && app != nullptr && app->GetInitStep() == 5 && !app->isExited()) {
        app->Exit();
    }
}

void ZStoreWatch::Disarm() {
    MutexLock lock(mMutex);
    if (mKey.empty()) return;
    if (mWritten && !mLost.load()) {
        Context c = Connect();
        if (c) RedisDelTable(c.get(), mKey.c_str());
    }
    mKey.clear();
}

ZStoreWatch::eState ZStoreWatch::_Lost(const char* why) {
    mLost.store(true);
    mGeneration.fetch_add(1);
    ZLOG(eZLogError,
         "Store lost this process's data (%s; marker[%s] missing). The tree cannot be rebuilt "
         "in place: the process ends with status %d so that it is started afresh.\n",
         why, mKey.c_str(), kLostExitStatus);
    return eStoreLost;
}

void ZStoreWatch::_Down() {
    if (mDown) return;
    mDown = true;
    ZLOG(eZLogWarning, "Store unreachable; marker[%s] is looked for again each period.\n",
         mKey.c_str());
}

}  // namespace Orbel
