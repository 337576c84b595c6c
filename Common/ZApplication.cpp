// The application frame: start-up steps, options, VEX registration, the
// process-loop thread, the ready file and the ordered shutdown. Signals and
// diagnostics have files of their own; the schema list is in
// ZApplication_Registry.cpp.
#include "ZApplication.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "FixedPaths.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZLogPrint.h"
#include "ZSchema.h"
#include "ZStoreWatch.h"
#include "ZTask.h"

namespace Orbel {

ZApplication* zApp = nullptr;
int zAppSigPipe[2] = {-1, -1};
std::condition_variable zAppExitCv;
std::mutex zAppExitCvMutex;

namespace {

constexpr const char* kAccessBlockList = "&&AccessBlockList";
constexpr const char* kCorvelReadyVex = "nginx_redfish_ready";
constexpr const char* kOptString = "d:i:e:h";
constexpr unsigned int kProcLoopPeriodMs = 3000;
constexpr unsigned int kInitDonePollMs = 100;

// Applications known to VEX, with their four-character codes.
struct sVexApp {
    const char* name;
    unsigned int code;
};
constexpr sVexApp kVexApps[] = {
    {"RF_Root", 0x72667274u},     // "rfrt"
    {"RF_Log", 0x72666C67u},      // "rflg"
    {"RF_Session", 0x7266736Eu},  // "rfsn"
};

const char* const kUsage =
    "Usage: %s [Options] \n\nOptions: \n"
    "  -d < 0 | 1 | SchemaIDs >  Enable debug log message for all Schemas. (default: 0) \n"
    "                            e.g, -d 1 or -d 2,4,5 \n"
    "  -i <SchemaIDs>            A Schema would be created when it is included by this white "
    "list. (default: all) \n"
    "                            e.g, i 2,4,5 \n"
    "  -e <SchemaIDs>            A Schema would not be created when it is included by this "
    "black list. (default: empty) \n"
    "                            The priority is higher than -i option. For example: -e 5,7 \n"
    "SchemaIDs: \n";

// The application whose Exec registered with VEX, if its Exec is still
// running. The platform delivers events on a thread of its own and offers
// no way to unregister, so every delivery takes this mutex: an application
// is unhooked (under it) before Exec returns and again in its destructor, and
// a callback in flight finishes first.
Mutex gVexDeliveryMutex;
ZApplication* gVexDeliveryApp GUARDED_BY(gVexDeliveryMutex) = nullptr;

// calloc'ed flag arrays (the option texts name calloc, and a failure to get
// one is reported, not thrown).
struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
using FlagArray = std::unique_ptr<unsigned char, FreeDeleter>;

unsigned char* AllocFlags(FlagArray& flags, int count) {
    if (!flags) {
        // At least one byte: calloc(0) may legally return null.
        flags.reset(static_cast<unsigned char*>(std::calloc(count > 0 ? count : 1, 1)));
    }
    return flags.get();
}

// True when `text` is exactly a decimal 0 or 1 (no list separator).
bool IsAllSchemasSwitch(const char* text, long* value) {
    if (text == nullptr || *text == '\0' || std::strchr(text, ',') != nullptr) return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || (v != 0 && v != 1)) return false;
    *value = v;
    return true;
}

const char* SchemaNameAt(const ZApplication::sExecParams& params, int i) {
    const char* name = params.schemaTable[i].name;
    return name != nullptr ? name : "";
}

// The store connection Exec keeps from step 2 to step 14 to list the
// application in "&&AccessBlockList" while it starts. Whatever ends Exec
// early, the name leaves the set and the connection is closed.
class AccessBlockEntry {
public:
    explicit AccessBlockEntry(const std::string& appName) : mAppName(appName) {
        mConn = RedisConnect();
        if (mConn == nullptr) {
            ZLOG(eZLogError, "Failed to call RedisConnect()!\n");
            return;
        }
        long long added = 0;
        RedisSetAdd(mConn, kAccessBlockList, mAppName.c_str(), &added);
        // Another instance of the same application may be starting and hold
        // the name already; only a name this process added is ours to remove.
        mAdded = added > 0;
    }
    ~AccessBlockEntry() { Release(); }
    AccessBlockEntry(const AccessBlockEntry&) = delete;
    AccessBlockEntry& operator=(const AccessBlockEntry&) = delete;

    void Release() {
        if (mConn == nullptr) return;
        if (mAdded) RedisSetRem(mConn, kAccessBlockList, mAppName.c_str());
        RedisDisconnect(mConn);
        mConn = nullptr;
    }

private:
    std::string mAppName;
    redisContext* mConn = nullptr;
    bool mAdded = false;
};

std::string WorkDirFor(const std::string& appName) {
    size_t slash = appName.find_last_of('/');
    return RedfishWorkDir() + (slash == std::string::npos ? appName : appName.substr(slash + 1));
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction and destruction
// ---------------------------------------------------------------------------

ZApplication::ZApplication(const std::string& appName)
    : mAppName(appName),
      mWorkDir(WorkDirFor(appName)),
      mDbgLvlVexName(appName + "_dbg_MsgLvl"),
      mDbgInfoVexName(appName + "_dbg_Info") {
    mLastLoopProcTimetick.store(MiniTimeTick());
    CreateDirTree(RedfishWorkDir());
    mPrevApp = zApp;
    zApp = this;
    mPrevLogService = zLogPrint;
    mOwnLogService = new ZLogPrint(mWorkDir, 16000);
    zLogPrint = mOwnLogService;
    mOwnLogService->SetSummaryProvider([this]() { return _RuntimeSummary(); });
}

ZApplication::~ZApplication() {
    {
        MutexLock lock(gVexDeliveryMutex);
        if (gVexDeliveryApp == this) gVexDeliveryApp = nullptr;
    }
    // No thread of ours may outlive the object: the signal thread first
    // (it may call Exit() and SigHandle()), then the process loop when Exec
    // did not get to join it.
    _StopSigThread();
    if (mProcLoopThread.joinable()) {
        _MarkExited();
        mProcLoopThread.join();
    }
    _RestoreSigHandlers();

    // Tasks use the nodes and schemas freed below. Exec stopped them
    // already; an application that never ran Exec stops them here.
    ZTask::StopAllTasks(ZTask::GetExitWaitMs());
    // A work function still running ends after this object: it must not
    // come back to it.
    ZTask::DetachLateTasks();
    if (const size_t running = ZTask::GetRunningTaskNum()) {
        // Freeing what a running work function uses would crash it; the
        // process is ending, so the memory is left to it instead.
        ZLOG(eZLogError, "%u task(s) still running: the schemas and nodes are not freed.\n",
             static_cast<unsigned>(running));
    } else {
        // Every node goes before the schemas that own the resources, while
        // zApp still designates this object.
        _ReleaseObjRegistry();
        _DeleteAllSchemas();
    }

    if (zApp == this) zApp = mPrevApp;
    if (mOwnLogService != nullptr) {
        if (zLogPrint == mOwnLogService) zLogPrint = mPrevLogService;
        delete mOwnLogService;
        mOwnLogService = nullptr;
    }
}

void ZApplication::_DeleteAllSchemas() {
    // In list order. A schema's destructor takes it off the list; the pop
    // below only matters for one that did not.
    for (;;) {
        ZSchema* schema = nullptr;
        {
            MutexLock lock(mSchemaListMutex);
            if (mSchemaList.empty()) break;
            schema = mSchemaList.front();
        }
        delete schema;
        MutexLock lock(mSchemaListMutex);
        if (!mSchemaList.empty() && mSchemaList.front() == schema) mSchemaList.pop_front();
    }
}

// ---------------------------------------------------------------------------
// Hooks
// ---------------------------------------------------------------------------

void ZApplication::AppInitDoneProcess() {}

void ZApplication::AppExitProcess() {}

void ZApplication::SigHandle(int sig) {
    ZLOGM("ZComLib", eZLogDebug, "ZApplication::SigHandle() Entry. sig[%d]\n", sig);
}

// ---------------------------------------------------------------------------
// Exec
// ---------------------------------------------------------------------------

int ZApplication::Exec(sExecParams& params) {
    // 1. Take the parameters.
    mExecParams = params;
    mInitStep.store(1);

    // 2. List the application as starting.
    AccessBlockEntry accessBlock(mAppName);

    // 3. Options and schemas.
    int rt = _ExecInitSchemas(mExecParams);
    if (rt == 1) return 0;
    if (rt != 0) return 2;

    // 4.
    ZLOG(eZLogInfo, "ZApplication[%s] initialed.\n", mAppName.c_str());
    ZLOG(eZLogInfo, "LogService initial done. LogPath[%s] AccessLogPath[%s]\n",
         zLogPrint->LogFilePath().c_str(), zLogPrint->AccessLogFilePath().c_str());

    // 5.
    _RemoveAppReady();
    _RegisterVexInit();
    _RegisterVexEvents();

    // 6. The process loop.
    mInitStep.store(2);
    RegisterThreadInfo("ZApp", "Main");
    try {
        mProcLoopThread = std::thread(AppProcessLoop, this);
    } catch (const std::exception& e) {
        ZLOG(eZLogError, "Failed to start the process-loop thread: %s\n", e.what());
    }

    // 7. Resources that need no front end. The dispatchers subscribe first:
    // a resource is in the store as soon as it is built, and a front end
    // that already knows it (a restarted plug-in) may send a request at
    // once. It waits at the gate until every resource is complete.
    {
        MutexLock lock(mLoopMutex);
        mServingGateClosed = true;
    }
    for (ZSchema* schema : GetSchemaList()) schema->_InitCRUDqDispather();
    _PreCorvelReady_InitAllSchemaResources();
    {
        MutexLock lock(mLoopMutex);
        mServingGateClosed = false;
    }
    mLoopCv.SignalAll();
    mInitStep.store(3);

    // 8. Wait for the front end, without a time limit. A missing variable
    // just means the front end has not started yet, so the read is quiet.
    bool corvelReady = false;
    do {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        if (GetVEX(kCorvelReadyVex, corvelReady, true) != RT_SUCCESS) corvelReady = false;
        ZLOGM("ZComLib", eZLogDebug, "Waiting Corvel Orbel ready!\n");
    } while (!corvelReady);

    // 9.
    _PostCorvelReady_InitAllSchemaResources();
    _PostCorvelReady_AfterTreatment();
    mInitStep.store(4);
    AppInitDoneProcess();

    // 10, 11. The signal thread creates the self-pipe; the handlers are
    // installed only once it exists.
    _StopSigThread();  // left over from an earlier Exec of this object
    {
        MutexLock lock(mSigPipeMutex);
        mSigPipeReady = false;
    }
    try {
        mSigThread = std::thread(AppSysSigHandle, this);
        MutexLock lock(mSigPipeMutex);
        mSigPipeCv.Wait(mSigPipeMutex, [this]() REQUIRES(mSigPipeMutex) { return mSigPipeReady; });
    } catch (const std::exception& e) {
        ZLOG(eZLogError, "Failed to start the signal thread: %s\n", e.what());
    }
    _RegisterSigHandler();

    // 12.
    ZLOG(eZLogInfo, "Initial done!\n");
    zLogPrint->BackupInitLogFiles();

    // 13, 14.
    _SetAppReady();
    accessBlock.Release();

    // 15. Exit() sets the flag under the mutex, so checking it here first
    // cannot miss a wake-up that came before the wait.
    mInitStep.store(5);
    zLogPrint->SetAppInitDone(true);
    {
        std::unique_lock<std::mutex> lock(zAppExitCvMutex);
        if (!mExited.load()) zAppExitCv.wait(lock);
    }

    // 16 to 18.
    AppExitProcess();
    _WaitAllThreadsExit();
    UnregisterThreadInfo();
    ZLOG(eZLogInfo, "zApp Exit.\n");
    return ZStoreWatch::ForProcess().ExitStatus();  // 2 when the store lost the tree
}

void ZApplication::Exit() {
    _MarkExited();
}

void ZApplication::_MarkExited() {
    {
        std::lock_guard<std::mutex> lock(zAppExitCvMutex);
        mExited.store(true);
    }
    zAppExitCv.notify_one();
    // Taking the loop mutex orders the flag before the loop's next check.
    { MutexLock lock(mLoopMutex); }
    mLoopCv.SignalAll();
}

bool ZApplication::WaitUntilServing() {
    MutexLock lock(mLoopMutex);
    mLoopCv.Wait(mLoopMutex, [this]() REQUIRES(mLoopMutex) { return !mServingGateClosed || mExited.load(); });
    return !mExited.load();
}

void ZApplication::WaitAppInitDone() const {
    while (!isAppInitDone()) MyMSleep(kInitDonePollMs);
}

const char* ZApplication::CommLibVer() {
    return ORBEL_VERSION;
}

void ZApplication::UpdateLastLoopProcTimetick() {
    mLastLoopProcTimetick.store(MiniTimeTick());
}

// ---------------------------------------------------------------------------
// Options
// ---------------------------------------------------------------------------

int ZApplication::_ExecInitSchemas(sExecParams& params) {
    SetVEX(mDbgLvlVexName, std::string("0"));

    const int count =
        (params.schemaTable != nullptr && params.schemaNum > 0) ? params.schemaNum : 0;
    FlagArray debugFlags;
    FlagArray includeFlags;
    FlagArray excludeFlags;

    if (params.argc > 0 && params.argv != nullptr) {
        // 0 makes glibc start the scan afresh, so Exec may run more than once
        // in one process.
        optind = 0;
        int opt;
        while ((opt = getopt(params.argc, params.argv, kOptString)) != -1) {
            const char* arg = optarg != nullptr ? optarg : "";
            long allValue = 0;
            if (opt == 'd' && IsAllSchemasSwitch(arg, &allValue)) {
                if (allValue == 0) {
                    zLogPrint->SetDebugLevel(0);
                    SetVEX(mDbgLvlVexName, std::string("0"));
                    ZLOG(eZLogInfo, "Disable debug message for all Schemas.\n");
                } else {
                    zLogPrint->SetDebugLevel(1);
                    zLogPrint->EnableSchemaDebug("ZComLib");
                    SetVEX(mDbgLvlVexName, std::string("1"));
                    ZLOG(eZLogInfo, "Enable debug message for all Schemas.\n");
                }
            } else if (opt == 'd') {
                unsigned char* flags = AllocFlags(debugFlags, count);
                if (flags == nullptr) {
                    ZLOG(eZLogError, "Failed to call calloc() for debugLvl flags.\n");
                    continue;
                }
                _ExecParserArgFlags(arg, flags, count);
                zLogPrint->EnableSchemaDebug("ZComLib");
                SetVEX(mDbgLvlVexName, std::string(arg));
                ZLOG(eZLogInfo, "Enable debug log for Schemas: %s\n", arg);
                std::printf("Debug log for Schemas: ");
                for (int i = 0; i < count; ++i) {
                    if (flags[i] == 0) continue;
                    std::printf("%s ", SchemaNameAt(params, i));
                    zLogPrint->EnableSchemaDebug(SchemaNameAt(params, i));
                }
                std::printf("\n");
            } else if (opt == 'i' || opt == 'e') {
                const bool include = opt == 'i';
                unsigned char* flags = AllocFlags(include ? includeFlags : excludeFlags, count);
                if (flags == nullptr) {
                    if (include) {
                        ZLOG(eZLogError, "Failed to call calloc() for included flags.\n");
                    } else {
                        ZLOG(eZLogError, "Failed to call calloc() for excluded flags.\n");
                    }
                    continue;
                }
                _ExecParserArgFlags(arg, flags, count);
                if (include) {
                    ZLOG(eZLogInfo, "Include Schemas: %s\n", arg);
                    std::printf("Include Schemas: ");
                } else {
                    ZLOG(eZLogInfo, "Exclude Schemas: %s\n", arg);
                    std::printf("Exclude Schemas: ");
                }
                for (int i = 0; i < count; ++i) {
                    if (flags[i] != 0) std::printf("%s ", SchemaNameAt(params, i));
                }
                std::printf("\n");
            } else {
                _ExecPrintUsage(params);
                return 1;
            }
        }
    }
    std::fflush(stdout);

    for (int i = 0; i < count; ++i) {
        if (includeFlags && includeFlags.get()[i] == 0) continue;
        if (excludeFlags && excludeFlags.get()[i] != 0) continue;
        const char* name = SchemaNameAt(params, i);
        int res =
            params.schemaTable[i].factory != nullptr ? params.schemaTable[i].factory(nullptr) : -1;
        if (res >= 0) {
            ZLOG(eZLogInfo, "Initialed Pell plugin[%s]\n", name);
        } else {
            ZLOG(eZLogWarning, "Failed to initial Schema[%s]. res:%d\n", name, res);
        }
    }
    return 0;
}

int ZApplication::_ExecParserArgFlags(const char* list, unsigned char* flags, int count) {
    if (list == nullptr || flags == nullptr) return RT_INVALID_ARG;
    size_t len = std::strlen(list);
    std::unique_ptr<char, FreeDeleter> copy(static_cast<char*>(std::calloc(len + 1, 1)));
    if (!copy) {
        ZLOG(eZLogError, "Failed to call calloc()\n");
        return RT_FAILURE;
    }
    std::memcpy(copy.get(), list, len);
    char* save = nullptr;
    for (char* tok = strtok_r(copy.get(), ",", &save); tok != nullptr;
         tok = strtok_r(nullptr, ",", &save)) {
        long id = std::strtol(tok, nullptr, 10);
        if (id < 2) continue;
        long idx = id - 2;
        if (idx >= count) {
            std::printf("outFlagIdx:%d out of buffer size.\n",
                        idx > INT_MAX ? INT_MAX : static_cast<int>(idx));
            return RT_FAILURE;
        }
        flags[idx] = 1;
    }
    return RT_SUCCESS;
}

void ZApplication::_ExecPrintUsage(sExecParams& params) {
    const char* prog = "";
    if (params.argc > 0 && params.argv != nullptr && params.argv[0] != nullptr) {
        prog = params.argv[0];
        const char* slash = std::strrchr(prog, '/');
        if (slash != nullptr) prog = slash + 1;
    }
    std::printf(kUsage, prog);
    const int count =
        (params.schemaTable != nullptr && params.schemaNum > 0) ? params.schemaNum : 0;
    for (int i = 0; i < count; ++i) std::printf("  %-2d %s \n", i + 2, SchemaNameAt(params, i));
    std::printf("\n");
    std::fflush(stdout);
}

void ZApplication::_ApplyDebugSetting(const std::string& setting) {
    long allValue = 0;
    if (IsAllSchemasSwitch(setting.c_str(), &allValue)) {
        zLogPrint->ResetSchemaDebug();
        zLogPrint->SetDebugLevel(static_cast<int>(allValue));
        if (allValue == 1) zLogPrint->EnableSchemaDebug("ZComLib");
    } else {
        const int count = (mExecParams.schemaTable != nullptr && mExecParams.schemaNum > 0)
                              ? mExecParams.schemaNum
                              : 0;
        FlagArray flags;
        AllocFlags(flags, count);
        if (!flags) {
            ZLOG(eZLogError, "Failed to call calloc() for debugLvl flags.\n");
            return;
        }
        _ExecParserArgFlags(setting.c_str(), flags.get(), count);
        zLogPrint->ResetSchemaDebug();
        zLogPrint->SetDebugLevel(0);
        zLogPrint->EnableSchemaDebug("ZComLib");
        for (int i = 0; i < count; ++i) {
            if (flags.get()[i] != 0) zLogPrint->EnableSchemaDebug(SchemaNameAt(mExecParams, i));
        }
    }
    ZLOG(eZLogInfo, "Change debug message level to [%s].\n", setting.c_str());
}

void ZApplication::ChangeDebugMsgLevel() {
    std::string setting;
    if (GetVEX(mDbgLvlVexName, setting) != RT_SUCCESS) return;
    _ApplyDebugSetting(setting);
}

// ---------------------------------------------------------------------------
// Ready file
// ---------------------------------------------------------------------------

void ZApplication::_RemoveAppReady() {
    std::string path = RedfishWorkDir() + mAppName + ".run";
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        ZLOG(eZLogError, "Failed to remove ready file[%s]: %s\n", path.c_str(),
             std::strerror(errno));
    }
}

void ZApplication::_SetAppReady() {
    // Written aside and renamed into place: whoever sees the file sees
    // "Ready\n", never an empty file.
    std::string path = RedfishWorkDir() + mAppName + ".run";
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos) CreateDirTree(path.substr(0, slash));
    if (!WriteWholeFile(path, "Ready\n")) {
        ZLOG(eZLogError, "Failed to create ready file[%s]\n", path.c_str());
    }
}

// ---------------------------------------------------------------------------
// VEX
// ---------------------------------------------------------------------------

void ZApplication::_RegisterVexInit() {
    for (const auto& app : kVexApps) {
        if (mAppName != app.name) continue;
        if (vex_init(app.name, app.code) == 0) {
            ZLOG(eZLogError, "Failed to call vex_init( %s, 0x%x ) \n", app.name, app.code);
        } else {
            ZLOG(eZLogInfo, "Success to call vex_init( %s, 0x%x ) \n", app.name, app.code);
        }
        return;
    }
    // Beyond the fixed table, the platform may know further applications
    // (on a development host, those an author registered with orbel-sim).
    unsigned int code = 0;
    if (vex_app_code != nullptr && vex_app_code(mAppName.c_str(), &code) != 0 && code != 0) {
        if (vex_init(mAppName.c_str(), code) == 0) {
            ZLOG(eZLogError, "Failed to call vex_init( %s, 0x%x ) \n", mAppName.c_str(), code);
        } else {
            ZLOG(eZLogInfo, "Success to call vex_init( %s, 0x%x ) \n", mAppName.c_str(), code);
        }
        return;
    }
    ZLOG(eZLogError, "Unsupported app name[ %s ]\n", mAppName.c_str());
}

void ZApplication::_RegisterVexEvents() {
    std::vector<std::string> names;
    {
        MutexLock lock(mVexEventMutex);
        for (const auto& kv : mVexEventCallbacks) names.push_back(kv.first);
    }
    if (names.empty()) {
        ZLOG(eZLogInfo, "VEX event list is empty.\n");
        return;
    }
    for (const auto& name : names) {
        int res = vex_event_register(name.c_str());
        if (res != 0) {
            ZLOG(eZLogInfo, "Register VEX event[%s]\n", name.c_str());
        } else {
            ZLOG(eZLogError, "Failed to call vex_event_register( %s ). res[%d] \n", name.c_str(),
                 res);
        }
    }
    {
        MutexLock lock(gVexDeliveryMutex);
        gVexDeliveryApp = this;
    }
    if (vex_event_callback_register(VexEventCallback) == 0) {
        ZLOG(eZLogError, "Failed to call vex_event_callback_register() \n");
    } else {
        ZLOG(eZLogInfo, "Success to register VEX events callback function.\n");
    }
}

eRtCode ZApplication::RegisterVexEventCallback(const std::string& eventName,
                                               VexEventCallback_t callback) {
    if (GetInitStep() > 1) {
        ZLOG(eZLogError, "Should call this function not before the step %d.\n", 2);
        return RT_FAILURE;
    }
    if (callback == nullptr) {
        ZLOG(eZLogError, "NULL arg! callback:%p\n", reinterpret_cast<void*>(callback));
        return RT_INVALID_ARG;
    }
    MutexLock lock(mVexEventMutex);
    if (mVexEventCallbacks.count(eventName) != 0) {
        ZLOG(eZLogError, "VEX event[%s] has been registered.\n", eventName.c_str());
        return RT_FAILURE;
    }
    mVexEventCallbacks[eventName] = callback;
    return RT_SUCCESS;
}

ZApplication::VexEventCallback_t ZApplication::GetVexEventCallback(const std::string& eventName) {
    MutexLock lock(mVexEventMutex);
    auto it = mVexEventCallbacks.find(eventName);
    return it != mVexEventCallbacks.end() ? it->second : nullptr;
}

void ZApplication::VexEventCallback(EVENT_TYPE type, char* eventName, int dataLen, void* data) {
    if (eventName == nullptr) return;
    MutexLock lock(gVexDeliveryMutex);
    ZApplication* app = gVexDeliveryApp;
    if (app == nullptr) return;  // no Exec running: nobody to deliver to
    VexEventCallback_t callback = app->GetVexEventCallback(eventName);
    if (callback == nullptr) {
        ZLOG(eZLogWarning, "No callback for VEX event[%s]\n", eventName);
        return;
    }
    callback(type, eventName, dataLen, data);
}

// ---------------------------------------------------------------------------
// Staged initialisation of the schemas' resources
// ---------------------------------------------------------------------------

namespace {

// A hook's failure changes nothing in the start-up order (the other schemas
// still deserve their resources), but it must not go unnoticed.
void WarnIfFailed(ZSchema* schema, const char* hook, eRtCode rt) {
    if (rt == RT_SUCCESS) return;
    ZLOG(eZLogWarning, "Schema[%s]: %s() returned %d.\n", schema->GetName().c_str(), hook,
         static_cast<int>(rt));
}

}  // namespace

void ZApplication::_PreCorvelReady_InitAllSchemaResources() {
    // The hooks build and fill the resources: one store connection serves
    // the whole stage instead of one per node and apply.
    RedisConnectionScope storeScope;
    std::deque<ZSchema*> schemas = GetSchemaList();
    for (ZSchema* schema : schemas) {
        WarnIfFailed(schema, "InitialBackendImpl", schema->InitialBackendImpl());
    }
    for (ZSchema* schema : schemas) {
        ZLOG(eZLogInfo, "Schema[%s]: Init resources.\n", schema->GetName().c_str());
        WarnIfFailed(schema, "PreCorvelReady_InitialResources",
                     schema->PreCorvelReady_InitialResources());
        for (const auto& kv : schema->GetResourceList()) {
            ZLOG(eZLogDebug, "Schema[%s]: Init resources[%s] fill data.\n",
                 schema->GetName().c_str(), kv.first.c_str());
            WarnIfFailed(schema, "PreCorvelReady_InitResourceData",
                         schema->PreCorvelReady_InitResourceData(kv.second));
        }
    }
    ZLOG(eZLogInfo, "PreCorvelReady_InitAllSchemaResources done!\n");
    CheckTreeAfterStage("PreCorvelReady");
}

void ZApplication::_PostCorvelReady_InitAllSchemaResources() {
    RedisConnectionScope storeScope;
    for (ZSchema* schema : GetSchemaList()) {
        WarnIfFailed(schema, "PostCorvelReady_InitialResources",
                     schema->PostCorvelReady_InitialResources());
        for (const auto& kv : schema->GetResourceList()) {
            WarnIfFailed(schema, "PostCorvelReady_InitResourceData",
                         schema->PostCorvelReady_InitResourceData(kv.second));
        }
    }
    ZLOG(eZLogInfo, "PostCorvelReady_InitAllSchemaResources done!\n");
    CheckTreeAfterStage("PostCorvelReady");
}

void ZApplication::_PostCorvelReady_AfterTreatment() {
    RedisConnectionScope storeScope;
    for (ZSchema* schema : GetSchemaList()) {
        WarnIfFailed(schema, "PostCorvelReady_AfterTreatment",
                     schema->PostCorvelReady_AfterTreatment());
    }
    ZLOG(eZLogInfo, "PostCorvelReady_AfterTreatment done!\n");
    CheckTreeAfterStage("AfterTreatment");
}

// ---------------------------------------------------------------------------
// Shutdown
// ---------------------------------------------------------------------------

void ZApplication::_WaitAllThreadsExit() {
    // Tasks first: a work function may still be answering through the
    // store while the dispatchers go.
    ZTask::StopAllTasks(ZTask::GetExitWaitMs());
    for (ZSchema* schema : GetSchemaList()) {
        ZLOG(eZLogInfo, "Wait Schema[%s] threads exiting..\n", schema->GetName().c_str());
        schema->WaitThreadsExit();
    }
    if (mProcLoopThread.joinable()) {
        // Exec is past its exit wait, so the process is ending whatever woke
        // it (a plug-in may notify zAppExitCv directly): tell the loop too.
        _MarkExited();
        mProcLoopThread.join();
    } else {
        ZLOG(eZLogError, "mProcLoopThread is NULL.\n");
    }
    // The signal thread calls into the plug-in (SigHandle, Exit): once Exec
    // returns, main() may destroy the application, so the thread must be
    // done by then.
    _StopSigThread();
    // Likewise no VEX event reaches the plug-in's callbacks any more.
    MutexLock lock(gVexDeliveryMutex);
    if (gVexDeliveryApp == this) gVexDeliveryApp = nullptr;
}

// ---------------------------------------------------------------------------
// Process loop
// ---------------------------------------------------------------------------

void ZApplication::AppProcessLoop(ZApplication* app) {
    NameCurrentThread("ZAppProcLoop");
    app->RegisterThreadInfo("ZApp", "ZAppProcLoop");
    ZStoreWatch::ForProcess().Arm(app->AppName());
    for (;;) {
        app->UpdateLastLoopProcTimetick();
        {
            MutexLock lock(app->mLoopMutex);
            app->mLoopCv.WaitFor(app->mLoopMutex, std::chrono::milliseconds(kProcLoopPeriodMs),
                                  [app]() { return app->mExited.load(); });
        }
        if (app->isExited()) break;
        ZStoreWatch::ForProcess().OnLoopPeriod(app);
        app->UpdateThreadInfoProcess();
        if (app->GetInitStep() == 5) {
            // Registry upkeep: free the retired objects nobody uses any
            // more, then run the object monitors.
            app->RecycleProcess();
            app->ObjMonitorScan();
            app->_ServeDbgInfoRequest();
        }
    }
    ZStoreWatch::ForProcess().Disarm();
    ZLOG(eZLogInfo, "ZApp thread exited\n");
    app->UnregisterThreadInfo();
}

}  // namespace Orbel
