// The one application object of a plug-in process, and its registries.
//
// A plug-in's main() constructs a ZApplication (or a class derived from it)
// with the application name, fills an sExecParams record and calls Exec,
// which runs the whole life of the process: options, schema creation, VEX
// registration, the process-loop thread, the staged initialisation of every
// schema's resources around the moment the front end reports itself ready,
// the ready file, and, after SIGINT/SIGTERM or Exit(), the ordered shutdown.
//
// The global zApp designates the one instance. The object registry (OIDs,
// live objects by JPath, resources by name, the recycle queue, monitors) and
// the schema list are members of the same class.
//
// Threads: the main thread (blocked in Exec after start-up), the process-loop
// thread (every 3 s: recycling, monitors, diagnostics), the signal thread
// (reads signal numbers from the self-pipe zAppSigPipe), and the schemas'
// dispatcher threads. Every registry has its own mutex; all public members
// may be called from any thread.
//
// Defined in: ZApplication.cpp (frame, options, VEX, stages, process loop),
// ZApplication_Signals.cpp, ZApplication_Diagnostics.cpp,
// ZApplication_Registry.cpp (schema list), ZApplication_ObjRegistry.cpp,
// ZApplication_Events.cpp.
#ifndef ORBEL_ZAPPLICATION_H
#define ORBEL_ZAPPLICATION_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "OrbelDefs.h"
#include "Orbel_FlatTable.h"
#include "Orbel_Mutex.h"
#include "vex.h"

namespace Orbel {

class ZLogPrint;
class ZObject;
class ZRedfishEvent;
class ZResource;
class ZSchema;
class ZUserInputTemplate;

class ZApplication {
public:
    // One entry of the schema table: a schema's ID is its index plus 2.
    struct sSchemaFactory {
        const char* name;
        int (*factory)(void* arg);  // called with null; < 0 means failure
    };
    // Filled by main() and passed to Exec.
    struct sExecParams {
        int argc;
        char** argv;
        const sSchemaFactory* schemaTable;
        int schemaNum;
    };

    typedef void (*VexEventCallback_t)(EVENT_TYPE type, char* eventName, int dataLen, void* data);

    // Creates "/tmp/Redfish/", sets zApp and creates the log service
    // zLogPrint (work directory as base path, rotate size 16000).
    explicit ZApplication(const std::string& appName);
    // Deletes the schemas and the log service this object created, and
    // restores zApp and zLogPrint to what they were before.
    virtual ~ZApplication();

    ZApplication(const ZApplication&) = delete;
    ZApplication& operator=(const ZApplication&) = delete;

    // Hooks for the plug-in.
    virtual void AppInitDoneProcess();  // once, after the post-ready stage
    virtual void AppExitProcess();      // once, after the exit signal
    virtual void SigHandle(int sig);    // for every caught signal

    // Runs the process. Returns 0 on a normal end and after -h or an unknown
    // option, 2 when schema initialisation failed otherwise.
    int Exec(sExecParams& params);
    // Sets the exited flag and wakes Exec once. Safe from any thread, not
    // from a signal handler.
    void Exit();

    // Dispatcher threads subscribe before the pre-ready stage publishes the
    // resources (so no request reaches a channel nobody listens on), and
    // hold what arrives until the stage is done (so no request meets a
    // resource half built). Returns false when the application exits first.
    // Open unless Exec closed it: schemas driven without Exec serve at once.
    bool WaitUntilServing();
    bool isAppInitDone() const { return GetInitStep() == 5; }
    void WaitAppInitDone() const;  // polls every 100 ms, no time limit

    const std::string& AppName() const { return mAppName; }
    static const char* CommLibVer();
    uint32_t GetInitStep() const { return mInitStep.load(); }
    bool isExited() const { return mExited.load(); }
    void UpdateLastLoopProcTimetick();
    // The check the frame runs after each start-up stage: one WARNING per
    // node, the first time it is found with changes never applied or not
    // linked by any property or list of its parent. `stage` names the moment
    // in the lines. Returns the number of warnings written. Any thread; the
    // frame itself calls it on the main thread (ZApplication_Diagnostics.cpp).
    size_t CheckTreeAfterStage(const char* stage);
    // True the first time it is asked for this node and `kind` (the tree
    // check's kinds 0 and 1; the request path's unapplied changes 2), so
    // that each node is reported once per kind. Any thread.
    bool FirstNodeWarning(ZObject* node, int kind) { return _FirstTreeWarning(node, kind); }
    uint32_t LastLoopProcTimetick() const { return mLastLoopProcTimetick.load(); }
    // "/tmp/Redfish/" + the application name behind its last "/".
    const std::string& WorkDir() const { return mWorkDir; }
    const std::string& GetDbgLvlVexName() const { return mDbgLvlVexName; }
    const std::string& GetDbgInfoVexName() const { return mDbgInfoVexName; }

    // Stores and queues a Redfish event for the event service and deletes
    // it (ZRedfishEvent::_SendEvent). Any thread.
    static void SendRedfishEvent(ZRedfishEvent* event);

    // VEX events. Callbacks may be registered only at init steps 0 and 1
    // (before Exec registers with VEX): from main() or a schema factory.
    eRtCode RegisterVexEventCallback(const std::string& eventName, VexEventCallback_t callback);
    VexEventCallback_t GetVexEventCallback(const std::string& eventName);
    // The single function registered with VEX; forwards to the plug-in's callback.
    static void VexEventCallback(EVENT_TYPE type, char* eventName, int dataLen, void* data);

    // Re-reads the debug level from the debug-level VEX variable ("0", "1"
    // or a schema-ID list, as for option -d).
    void ChangeDebugMsgLevel();

    // Runtime diagnostics: the list of the process's threads, rewritten into
    // WorkDir() + ".threads" by the process loop.
    void RegisterThreadInfo(const std::string& owner, const std::string& threadName);
    // As RegisterThreadInfo for a thread not listed yet; true when it listed it.
    bool RegisterThreadInfoIfAbsent(const std::string& owner, const std::string& threadName);
    void UnregisterThreadInfo();
    void UpdateThreadInfoProcess();

    // ---------------------------------------------------------------------
    // Schema list (registration order).
    // ---------------------------------------------------------------------
    // Refuses a schema whose name is already listed (returns 2).
    eRtCode SchemaListAppend(ZSchema* schema);
    eRtCode SchemaListRemove(ZSchema* schema);
    size_t SchemaListSize();
    ZSchema* GetSchemaObj(const std::string& name);
    std::deque<ZSchema*> GetSchemaList();  // a copy

    // ---------------------------------------------------------------------
    // Object registry.
    // ---------------------------------------------------------------------
    // A new OID entered in the OID map with `obj` (and `obj` in the
    // valid-object map); kInvalidOID when no OID is free.
    static constexpr uint32_t kInvalidOID = 0xFFFFFFFFu;
    uint32_t NewOID(ZObject* obj);
    // Indexes `obj` by JPath (and a resource by its resource name). Refuses a
    // duplicate JPath (returns 2); a duplicate resource name is logged and
    // the object stays listed by JPath only.
    eRtCode ObjectListAppend(ZObject* obj);
    eRtCode ObjectListRemove(ZObject* obj);
    size_t ObjectListSize();
    // The JPaths of all listed objects, and of the orphans (JSON objects and
    // arrays without a parent: free-standing trees such as response data).
    std::vector<std::string> GetObjectList();
    std::vector<std::string> GetOrphanObjsList();
    // Looks a JPath up, retrying with a trailing "/" added or removed.
    ZObject* GetObject(const std::string& jpath);
    ZResource* GetResource(const std::string& resourceName);
    // The resource or collection that owns `obj` (walking up its parents).
    ZResource* GetResource(ZObject* obj);
    std::string GetResourceURI(ZObject* obj);
    // True when `obj` designates a registered object (logged otherwise).
    bool IsValidObj(ZObject* obj);
    // IsValidObj and, when true, the object's using count increased in the
    // same step, so the recycler cannot free it in between. The caller
    // releases the count (ZObject::DecreaseUsingCount).
    bool UseIfValid(ZObject* obj);

    // Recycle queue: retired objects wait here until nobody uses them.
    void RecycledListAppend(ZObject* obj);
    // A user-input template whose cache is freed `delayMs` after this call.
    void RecycledListAppend(ZUserInputTemplate* tmpl, unsigned long delayMs);
    size_t RecycledListSize();
    // Called by the process loop: frees the retired objects whose using
    // count is zero, and the templates whose delay has passed.
    void RecycleProcess();

    // Object monitors: a callback run by the process loop for the object
    // found at a JPath (or at every JPath matching an ECMAScript pattern),
    // until the object dies.
    typedef void (*ObjMonitorCallback_t)(ZObject* obj, void* arg);
    eRtCode RegisterMonitorObject(const std::string& jpath, ObjMonitorCallback_t callback,
                                  void* arg);
    eRtCode RegisterMonitorObjectWithRegExp(const std::string& pattern,
                                            ObjMonitorCallback_t callback, void* arg);
    void ObjMonitorScan();
    std::string DumpMonitorList();

protected:
    // The next number NewOID tries first. Only for tests that need a run of
    // taken numbers; a plug-in has no reason to call it.
    void SetNextOIDCandidate(uint32_t seq);

private:
    // Retires every object still registered and drains the recycle queue and
    // the monitor list (run by the destructor before the schemas go).
    void _ReleaseObjRegistry();
    // The listed nodes in JPath order (copies of the views; the lock keeps
    // the texts while they are compared).
    std::vector<std::pair<std::string_view, ZObject*>> _SortedObjectList()
        REQUIRES(mObjectListMutex);
    // GetObject without the retry log lines.
    ZObject* _FindObject(const std::string& jpath, bool quiet);
    // Drops `obj` from the valid-object and OID maps (a node deleted while
    // alive, which never reaches the recycle queue).
    void _ForgetObject(ZObject* obj);
    friend class ZObject;
    friend class ZResourceCollection;  // looks member URIs up without log lines
    friend class ResponseExtendedInfo;  // finds its array's JPath free without log lines

    int _ExecInitSchemas(sExecParams& params);
    int _ExecParserArgFlags(const char* list, unsigned char* flags, int count);
    void _ExecPrintUsage(sExecParams& params);
    void _RemoveAppReady();
    void _SetAppReady();
    void _RegisterVexInit();
    void _RegisterVexEvents();
    void _RegisterSigHandler();
    void _PreCorvelReady_InitAllSchemaResources();
    void _PostCorvelReady_InitAllSchemaResources();
    void _PostCorvelReady_AfterTreatment();
    // True the first time (node, kind) is to be reported by the tree check.
    bool _FirstTreeWarning(ZObject* node, int kind);
    void _WaitAllThreadsExit();
    void _DeleteAllSchemas();
    std::string _RuntimeSummary();
    // Applies a debug setting ("0", "1" or a schema-ID list) to the log service.
    void _ApplyDebugSetting(const std::string& setting);
    // Answers a request written into the debug-info VEX variable (process loop).
    void _ServeDbgInfoRequest();
    std::string _DbgInfoResourceUsage();
    std::string _ThreadInfoText();
    // Wakes the signal thread with a 0 byte and joins it.
    void _StopSigThread();
    // Puts the default actions back and closes the self-pipe (destructor).
    void _RestoreSigHandlers();
    // Sets the exited flag and wakes both Exec and the process loop.
    void _MarkExited();

    static void AppProcessLoop(ZApplication* app);
    static void AppSysSigHandle(ZApplication* app);
    static void SigHandler(int sig);

    // Constant after construction.
    const std::string mAppName;
    const std::string mWorkDir;
    const std::string mDbgLvlVexName;
    const std::string mDbgInfoVexName;

    std::atomic<uint32_t> mInitStep{0};
    std::atomic<bool> mExited{false};
    sExecParams mExecParams{};  // no lock: main thread, before the other threads start
    std::atomic<uint32_t> mLastLoopProcTimetick{0};

    Mutex mVexEventMutex;
    std::map<std::string, VexEventCallback_t> mVexEventCallbacks GUARDED_BY(mVexEventMutex);

    Mutex mSchemaListMutex;
    std::deque<ZSchema*> mSchemaList GUARDED_BY(mSchemaListMutex);

    Mutex mTreeWarnedMutex;
    // (OID, kind) pairs the tree check has reported.
    std::set<std::pair<uint32_t, int>> mTreeWarned GUARDED_BY(mTreeWarnedMutex);

    Mutex mThreadInfoMutex;
    struct sThreadInfo {
        std::string owner;
        std::string name;
    };
    std::map<long, sThreadInfo> mThreadInfo GUARDED_BY(mThreadInfoMutex);  // by kernel thread id

    // Registry containers; each guarded by its own mutex (ZApplication_ObjRegistry.cpp).
    // Hashed in one array each: looked up on nearly every node operation,
    // never walked in order.
    struct OIDKeys {  // an OID widened: the two values above 32 bits are free
        using Key = uint64_t;
        static constexpr Key kEmpty = ~Key(0);
        static constexpr Key kErased = ~Key(0) - 1;
        static size_t Hash(Key k) { return FlatTableMix(k); }
    };
    struct NodeKeys {  // a node's address: no node lives at 0 or 1
        using Key = uintptr_t;
        static constexpr Key kEmpty = 0;
        static constexpr Key kErased = 1;
        static size_t Hash(Key k) { return FlatTableMix(k); }
    };
    static uintptr_t NodeKey(const ZObject* obj) { return reinterpret_cast<uintptr_t>(obj); }
    Mutex mOIDMutex;
    FlatTable<OIDKeys, ZObject*> mOIDMap GUARDED_BY(mOIDMutex);
    uint32_t mOIDSeq GUARDED_BY(mOIDMutex) = 0;
    Mutex mValidObjMutex;
    FlatTable<NodeKeys, bool> mValidObjMap GUARDED_BY(mValidObjMutex);
    Mutex mObjectListMutex;
    // Keyed by views of the nodes' own JPath and name texts, which do not
    // change while a node is listed: an entry copies no text. Hashed: JPaths
    // share long prefixes, which an ordered map compares again at every
    // level; what lists them sorts its own copy.
    std::unordered_map<std::string_view, ZObject*> mObjectList GUARDED_BY(mObjectListMutex);
    Mutex mResourceListMutex;
    std::unordered_map<std::string_view, ZResource*> mResourceList GUARDED_BY(mResourceListMutex);
    struct lRecycleRef {
        ZObject* obj;               // a retired object, or null
        ZUserInputTemplate* tmpl;   // a template whose cache is to be freed, or null
        uint32_t dueTick;           // templates: MiniTimeTick() after which to free
    };
    Mutex mRecycleMutex;
    std::list<lRecycleRef> mRecycleList GUARDED_BY(mRecycleMutex);
    struct _sOMTgt;
    struct sOMItem;
    Mutex mMonitorMutex;
    std::list<sOMItem*> mMonitorList GUARDED_BY(mMonitorMutex);

    // No lock: started and joined by the main thread (or the destructor).
    std::thread mProcLoopThread;
    std::thread mSigThread;

    // The process loop sleeps on mLoopCv so that Exit() ends its 3 s pause
    // at once instead of delaying the shutdown.
    Mutex mLoopMutex;
    CondVar mLoopCv;
    // Closed by Exec from the dispatchers' start to the end of the
    // pre-ready stage; waited on under mLoopMutex with mLoopCv.
    bool mServingGateClosed GUARDED_BY(mLoopMutex) = false;

    // Handshake: the signal thread creates zAppSigPipe and then sets
    // mSigPipeReady; the main thread installs the handlers only after that.
    Mutex mSigPipeMutex;
    CondVar mSigPipeCv;
    bool mSigPipeReady GUARDED_BY(mSigPipeMutex) = false;
    bool mSigHandlersInstalled = false;  // main thread only

    // What the constructor replaced, restored by the destructor (no lock:
    // only they touch these).
    ZApplication* mPrevApp = nullptr;
    ZLogPrint* mPrevLogService = nullptr;
    ZLogPrint* mOwnLogService = nullptr;  // created by the constructor, deleted by the destructor
};

// The instance, the signal self-pipe ([0] read end, [1] write end), and the
// condition variable (with its mutex) on which Exec waits for Exit().
extern ZApplication* zApp;
extern int zAppSigPipe[2];
extern std::condition_variable zAppExitCv;
extern std::mutex zAppExitCvMutex;

}  // namespace Orbel

#endif  // ORBEL_ZAPPLICATION_H
