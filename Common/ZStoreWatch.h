// Notices that the store lost this process's data: the Redis server was
// restarted (or emptied) under a running plug-in, or it was not there when
// the plug-in built its tree.
//
// The process keeps a marker key in the store, "&&StoreMarker:<app>:<pid>",
// written when the watch is armed (at the start of the process-loop thread,
// before the tree is built) and looked for once per process-loop period. A
// missing marker on a reachable store, or a store that was unreachable when
// the watch was armed and is reachable now, means the tree in the store is
// gone or was never written. The nodes keep no copy of their values (an
// apply empties the queue), so the tree cannot be written again in place:
// the watch logs one ERROR line, and once the process is ready it asks the
// application to exit; `Exec` then returns ExitStatus() (2) so the platform's
// supervisor starts the plug-in afresh. docs/store-client.md has the why.
//
// Threads: Arm, OnLoopPeriod, Check and Disarm run on the process-loop thread
// (tests call them from one thread of their own). Generation, IsStoreLost and
// ExitStatus may be read from any thread: dispatcher threads and tasks compare
// Generation with the value they saw when they subscribed or cached store
// state, since every detected loss adds one.
#ifndef ORBEL_ZSTOREWATCH_H
#define ORBEL_ZSTOREWATCH_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "Orbel_Mutex.h"

namespace Orbel {

class ZApplication;

class ZStoreWatch {
public:
    enum eState : int {
        eStoreOk = 0,    // the marker is in the store
        eStoreDown = 1,  // the store cannot be reached now; the data may come back with it
        eStoreLost = 2,  // the store is back without this process's data (latched)
    };
    static constexpr int kLostExitStatus = 2;

    ZStoreWatch() = default;
    ZStoreWatch(const ZStoreWatch&) = delete;
    ZStoreWatch& operator=(const ZStoreWatch&) = delete;

    // The one watch of this process, used by the application frame.
    static ZStoreWatch& ForProcess();

    // The marker key of an application name and process id.
    static std::string MarkerKey(const std::string& appName, pid_t pid);

    // Starts watching for `appName`: forgets an earlier loss and writes the
    // marker. A store that cannot be reached now is remembered: reaching it
    // later counts as a loss. Returns the state after the attempt.
    eState Arm(const std::string& appName);
    // One look at the store (one connection, one command). Not armed: eStoreOk.
    eState Check();
    // What the process loop does each period: Check, and once the
    // application is ready (init step 5) and the data is lost, Exit().
    void OnLoopPeriod(ZApplication* app);
    // Deletes the marker (a normal end); nothing when the data is lost.
    void Disarm();

    uint32_t Generation() const { return mGeneration.load(); }
    bool IsStoreLost() const { return mLost.load(); }
    // 0, or kLostExitStatus once the data was lost.
    int ExitStatus() const { return mLost.load() ? kLostExitStatus : 0; }

private:
    eState _Lost(const char* why) REQUIRES(mMutex);
    void _Down() REQUIRES(mMutex);

    std::atomic<uint32_t> mGeneration{0};
    std::atomic<bool> mLost{false};

    // Guarded by mMutex (one watcher thread; the lock keeps tests honest).
    Mutex mMutex;
    std::string mKey GUARDED_BY(mMutex);       // empty while not armed
    bool mWritten GUARDED_BY(mMutex) = false;  // the marker reached the store at least once
    bool mDown GUARDED_BY(mMutex) = false;     // an outage was logged and has not ended yet
};

}  // namespace Orbel

#endif  // ORBEL_ZSTOREWATCH_H
