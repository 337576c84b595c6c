// The application frame: start-up steps, options, VEX registration, the
// process-loop and signal threads, the ready file and the ordered shutdown.
// The schema list lives in ZApplication_Registry.cpp with the other registries.
#include "ZApplication.h"

#include <fcntl.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>

#include "FixedPaths.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"

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

// The signals the frame handles, in the order they are registered.
constexpr int kHandledSignals[] = {SIGINT, SIGTERM, SIGUSR1, SIGUSR2};

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
std::mutex gVexDeliveryMutex;
ZApplication* gVexDeliveryApp = nullptr;  // guarded by gVexDeliveryMutex

long CurrentTid() {
    return static_cast<long>(syscall(SYS_gettid));
}

void NameThisThread(const char* name) {
    pthread_setname_np(pthread_self(), name);
}

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
        RedisSetAdd(mConn, kAccessBlockList, mAppName.c_str());
    }
    ~AccessBlockEntry() { Release(); }
    AccessBlockEntry(const AccessBlockEntry&) = delete;
    AccessBlockEntry& operator=(const AccessBlockEntry&) = delete;

    void Release() {
        if (mConn == nullptr) return;
        RedisSetRem(mConn, kAccessBlockList, mAppName.c_str());
        RedisDisconnect(mConn);
        mConn = nullptr;
    }

  private:
    std::string mAppName;
    redisContext* mConn = nullptr;
};

std::string WorkDirFor(const std::string& appName) {
    size_t slash = appName.find_last_of('/');
    return RedfishWorkDir() + (slash == std::string::npos ? appName : appName.substr(slash + 1));
}

// Writes `text` into `path` through a temporary file and a rename, so a
// reader never sees half a file.
bool WriteWholeFile(const std::string& path, const std::string& text) {
    std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        out << text;
        if (!out) return false;
    }
    return std::rename(tmp.c_str(), path.c_str()) == 0;
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
        std::lock_guard<std::mutex> lock(gVexDeliveryMutex);
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
    if (mSigHandlersInstalled) {
        struct sigaction sa;
        std::memset(&sa, 0, sizeof(sa));
        sa.sa_handler = SIG_DFL;
        sigemptyset(&sa.sa_mask);
        for (int sig : kHandledSignals) sigaction(sig, &sa, nullptr);
        mSigHandlersInstalled = false;
    }
    // The pipe stays open until the handlers are gone, so a late signal
    // never writes into a closed (or reused) descriptor.
    int rfd = __atomic_exchange_n(&zAppSigPipe[0], -1, __ATOMIC_ACQ_REL);
    int wfd = __atomic_exchange_n(&zAppSigPipe[1], -1, __ATOMIC_ACQ_REL);
    if (rfd >= 0) close(rfd);
    if (wfd >= 0) close(wfd);

    // Every node goes before the schemas that own the resources, while zApp
    // still designates this object.
    _ReleaseObjRegistry();
    _DeleteAllSchemas();

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
            std::lock_guard<std::mutex> lock(mSchemaListMutex);
            if (mSchemaList.empty()) break;
            schema = mSchemaList.front();
        }
        delete schema;
        std::lock_guard<std::mutex> lock(mSchemaListMutex);
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

    // 7. Resources that need no front end.
    _PreCorvelReady_InitAllSchemaResources();
    // Listening before the front end is ready: its first request finds the
    // resources built and a dispatcher subscribed.
    for (ZSchema* schema : GetSchemaList()) schema->_InitCRUDqDispather();
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
        std::lock_guard<std::mutex> lock(mSigPipeMutex);
        mSigPipeReady = false;
    }
    try {
        mSigThread = std::thread(AppSysSigHandle, this);
        std::unique_lock<std::mutex> lock(mSigPipeMutex);
        mSigPipeCv.wait(lock, [this]() { return mSigPipeReady; });
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
    return 0;
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
    { std::lock_guard<std::mutex> lock(mLoopMutex); }
    mLoopCv.notify_all();
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
    ZLOG(eZLogError, "Unsupported app name[ %s ]\n", mAppName.c_str());
}

void ZApplication::_RegisterVexEvents() {
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(mVexEventMutex);
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
        std::lock_guard<std::mutex> lock(gVexDeliveryMutex);
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
    std::lock_guard<std::mutex> lock(mVexEventMutex);
    if (mVexEventCallbacks.count(eventName) != 0) {
        ZLOG(eZLogError, "VEX event[%s] has been registered.\n", eventName.c_str());
        return RT_FAILURE;
    }
    mVexEventCallbacks[eventName] = callback;
    return RT_SUCCESS;
}

ZApplication::VexEventCallback_t ZApplication::GetVexEventCallback(const std::string& eventName) {
    std::lock_guard<std::mutex> lock(mVexEventMutex);
    auto it = mVexEventCallbacks.find(eventName);
    return it != mVexEventCallbacks.end() ? it->second : nullptr;
}

void ZApplication::VexEventCallback(EVENT_TYPE type, char* eventName, int dataLen, void* data) {
    if (eventName == nullptr) return;
    std::lock_guard<std::mutex> lock(gVexDeliveryMutex);
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

void ZApplication::_PreCorvelReady_InitAllSchemaResources() {
    // The hooks build and fill the resources: one store connection serves
    // the whole stage instead of one per node and apply.
    RedisConnectionScope storeScope;
    std::deque<ZSchema*> schemas = GetSchemaList();
    for (ZSchema* schema : schemas) schema->InitialBackendImpl();
    for (ZSchema* schema : schemas) {
        ZLOG(eZLogInfo, "Schema[%s]: Init resources.\n", schema->GetName().c_str());
        schema->PreCorvelReady_InitialResources();
        for (const auto& kv : schema->GetResourceList()) {
            ZLOG(eZLogDebug, "Schema[%s]: Init resources[%s] fill data.\n",
                 schema->GetName().c_str(), kv.first.c_str());
            schema->PreCorvelReady_InitResourceData(kv.second);
        }
    }
    ZLOG(eZLogInfo, "PreCorvelReady_InitAllSchemaResources done!\n");
}

void ZApplication::_PostCorvelReady_InitAllSchemaResources() {
    RedisConnectionScope storeScope;
    for (ZSchema* schema : GetSchemaList()) {
        schema->PostCorvelReady_InitialResources();
        for (const auto& kv : schema->GetResourceList()) {
            schema->PostCorvelReady_InitResourceData(kv.second);
        }
    }
    ZLOG(eZLogInfo, "PostCorvelReady_InitAllSchemaResources done!\n");
}

void ZApplication::_PostCorvelReady_AfterTreatment() {
    RedisConnectionScope storeScope;
    for (ZSchema* schema : GetSchemaList()) schema->PostCorvelReady_AfterTreatment();
    ZLOG(eZLogInfo, "PostCorvelReady_AfterTreatment done!\n");
}

// ---------------------------------------------------------------------------
// Shutdown
// ---------------------------------------------------------------------------

void ZApplication::_WaitAllThreadsExit() {
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
    std::lock_guard<std::mutex> lock(gVexDeliveryMutex);
    if (gVexDeliveryApp == this) gVexDeliveryApp = nullptr;
}

// ---------------------------------------------------------------------------
// Process loop
// ---------------------------------------------------------------------------

void ZApplication::AppProcessLoop(ZApplication* app) {
    NameThisThread("ZAppProcLoop");
    app->RegisterThreadInfo("ZApp", "ZAppProcLoop");
    for (;;) {
        app->UpdateLastLoopProcTimetick();
        {
            std::unique_lock<std::mutex> lock(app->mLoopMutex);
            app->mLoopCv.wait_for(lock, std::chrono::milliseconds(kProcLoopPeriodMs),
                                  [app]() { return app->mExited.load(); });
        }
        if (app->isExited()) break;
        app->UpdateThreadInfoProcess();
        if (app->GetInitStep() == 5) {
            // Registry upkeep: free the retired objects nobody uses any
            // more, then run the object monitors.
            app->RecycleProcess();
            app->ObjMonitorScan();
            app->_ServeDbgInfoRequest();
        }
    }
    ZLOG(eZLogInfo, "ZApp thread exited\n");
    app->UnregisterThreadInfo();
}

// The debug-info variable (<app>_dbg_Info) carries one request word. The
// answer is written into WorkDir() + ".dbginfo" (replacing the previous one)
// and the variable is cleared, so each request is answered once.
void ZApplication::_ServeDbgInfoRequest() {
    std::string request;
    if (GetVEX(mDbgInfoVexName, request, true) != RT_SUCCESS || request.empty()) return;

    std::ostringstream out;
    if (request == "?") {
        out << "Debug info requests for " << mAppName << " (set " << mDbgInfoVexName << "):\n"
            << "  ?   this list\n"
            << "  ru  resource usage and threads\n"
            << "  rb  length of the recycle queue\n";
    } else if (request == "ru") {
        out << _DbgInfoResourceUsage();
    } else if (request == "rb") {
        size_t waiting = 0;
        {
            std::lock_guard<std::mutex> lock(mRecycleMutex);
            waiting = mRecycleList.size();
        }
        out << "Waiting Recycled Object Num = " << waiting << "\n";
    } else {
        out << "Unknown request[" << request << "]. Set \"?\" to list the requests.\n";
    }

    std::string path = mWorkDir + ".dbginfo";
    if (!WriteWholeFile(path, out.str())) {
        ZLOG(eZLogError, "Failed to write debug info file[%s]\n", path.c_str());
    } else {
        ZLOG(eZLogInfo, "Debug info request[%s] answered in [%s]\n", request.c_str(), path.c_str());
    }
    SetVEX(mDbgInfoVexName, std::string(""));
}

std::string ZApplication::_DbgInfoResourceUsage() {
    std::ostringstream out;
    out << "Resource usage of " << mAppName << ":\n";
    struct rusage ru;
    if (getrusage(RUSAGE_SELF, &ru) == 0) {
        char line[128];
        std::snprintf(line, sizeof(line), "  CPU user   = %lld.%06lld s\n",
                      static_cast<long long>(ru.ru_utime.tv_sec),
                      static_cast<long long>(ru.ru_utime.tv_usec));
        out << line;
        std::snprintf(line, sizeof(line), "  CPU system = %lld.%06lld s\n",
                      static_cast<long long>(ru.ru_stime.tv_sec),
                      static_cast<long long>(ru.ru_stime.tv_usec));
        out << line;
        out << "  Max RSS    = " << static_cast<long long>(ru.ru_maxrss) << " KiB\n";
    }
    // Current memory and thread count, as the kernel sees them.
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0 || line.compare(0, 7, "VmSize:") == 0 ||
            line.compare(0, 8, "Threads:") == 0) {
            out << "  " << line << "\n";
        }
    }
    out << "Threads:\n" << _ThreadInfoText();
    return out.str();
}

// ---------------------------------------------------------------------------
// Signals
// ---------------------------------------------------------------------------

void ZApplication::_RegisterSigHandler() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = SigHandler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    for (int sig : kHandledSignals) {
        if (sigaction(sig, &sa, nullptr) == 0) {
            mSigHandlersInstalled = true;
            ZLOG(eZLogInfo, "Register signal(%d) \n", sig);
        } else {
            ZLOG(eZLogError, "Failed to register sigaction(%d) \n", sig);
        }
    }
}

// Async-signal-safe: one write() of one byte, errno preserved.
void ZApplication::SigHandler(int sig) {
    int savedErrno = errno;
    int fd = __atomic_load_n(&zAppSigPipe[1], __ATOMIC_ACQUIRE);
    if (fd >= 0) {
        unsigned char byte = static_cast<unsigned char>(sig);
        if (write(fd, &byte, 1) < 0 && errno != EAGAIN) {
            static const char kMsg[] = "Error: write to zAppSigPipe[1]\n";
            if (write(STDOUT_FILENO, kMsg, sizeof(kMsg) - 1) < 0) {
                // Nothing more can be done from a signal handler.
            }
        }
    }
    errno = savedErrno;
}

void ZApplication::_StopSigThread() {
    if (!mSigThread.joinable()) return;
    // A 0 byte is never a signal number: the thread takes it as "stop". If
    // the thread already ended (after SIGINT/SIGTERM), the byte just waits
    // in the pipe until it is closed.
    int fd = __atomic_load_n(&zAppSigPipe[1], __ATOMIC_ACQUIRE);
    if (fd >= 0) {
        unsigned char stop = 0;
        if (write(fd, &stop, 1) < 0) {
            ZLOG(eZLogError, "Failed to wake the signal thread: %s\n", std::strerror(errno));
        }
    }
    mSigThread.join();
}

namespace {

bool SetNonBlocking(int fd, const char* getFlText, const char* setFlText) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        ZLOG(eZLogError, "%s", getFlText);
        return false;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        ZLOG(eZLogError, "%s", setFlText);
        return false;
    }
    // Children started through the shell runner need not inherit the pipe.
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return true;
}

}  // namespace

void ZApplication::AppSysSigHandle(ZApplication* app) {
    NameThisThread("ZAppSigHandler");
    app->RegisterThreadInfo("ZApp", "SigHandler");

    int fds[2] = {-1, -1};
    int rt = pipe(fds);
    if (rt != 0) {
        ZLOG(eZLogError, "pipe() rt:%d:%s\n", rt, std::strerror(errno));
    } else {
        SetNonBlocking(fds[0], "Failed to call fcntl( zAppSigPipe[0], F_GETFL )\n",
                       "Failed to call fcntl( zAppSigPipe[0], F_SETFL, flags)\n");
        SetNonBlocking(fds[1], "Failed to call fcntl( zAppSigPipe[1], F_GETFL )\n",
                       "Failed to call fcntl( zAppSigPipe[1], F_SETFL, flags)\n");
        __atomic_store_n(&zAppSigPipe[0], fds[0], __ATOMIC_RELEASE);
        __atomic_store_n(&zAppSigPipe[1], fds[1], __ATOMIC_RELEASE);
    }
    {
        std::lock_guard<std::mutex> lock(app->mSigPipeMutex);
        app->mSigPipeReady = true;
    }
    app->mSigPipeCv.notify_all();

    const int rfd = fds[0];
    while (rt == 0) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(rfd, &readSet);
        int n = select(rfd + 1, &readSet, nullptr, nullptr, nullptr);
        if (n < 0) {
            if (errno == EINTR) continue;  // a signal landed on this thread
            ZLOG(eZLogError, "select() return unexpected error.\n");
            break;
        }
        if (!FD_ISSET(rfd, &readSet)) {
            ZLOG(eZLogError, "select() result it not for zAppSigPipe[0].\n");
            continue;
        }
        unsigned char byte = 0;
        ssize_t got = read(rfd, &byte, 1);
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            ZLOG(eZLogError, "read( zAppSigPipe[0], ... ) return unexpected error.\n");
            break;
        }
        if (got == 0 || byte == 0) break;  // the owner asks the thread to stop

        const int sig = byte;
        const bool shuttingDown = IsTARNShuttingDown();
        ZLOG(eZLogDebug, "Caught signal(%d). tarnShuttingDown(%d)\n", sig, shuttingDown ? 1 : 0);
        const bool terminate = sig == SIGINT || sig == SIGTERM;
        if (terminate) {
            // While the controller shuts down, it stops the plug-ins itself
            // and in its own order.
            if (!shuttingDown) app->Exit();
        } else if (sig == SIGUSR1) {
            zLogPrint->DumpMsgCache2File();
        } else if (sig == SIGUSR2) {
            app->ChangeDebugMsgLevel();
        }
        app->SigHandle(sig);
        if (terminate) break;
    }
    ZLOG(eZLogInfo, "Exit\n");
    app->UnregisterThreadInfo();
}

// ---------------------------------------------------------------------------
// Thread information
// ---------------------------------------------------------------------------

void ZApplication::RegisterThreadInfo(const std::string& owner, const std::string& threadName) {
    std::lock_guard<std::mutex> lock(mThreadInfoMutex);
    mThreadInfo[CurrentTid()] = sThreadInfo{owner, threadName};
}

void ZApplication::UnregisterThreadInfo() {
    std::lock_guard<std::mutex> lock(mThreadInfoMutex);
    mThreadInfo.erase(CurrentTid());
}

std::string ZApplication::_ThreadInfoText() {
    std::lock_guard<std::mutex> lock(mThreadInfoMutex);
    std::string text;
    for (const auto& kv : mThreadInfo) {
        text += std::to_string(kv.first) + " " + kv.second.owner + " " + kv.second.name + "\n";
    }
    return text;
}

void ZApplication::UpdateThreadInfoProcess() {
    std::string path = mWorkDir + ".threads";
    if (!WriteWholeFile(path, _ThreadInfoText())) {
        ZLOG(eZLogError, "Failed to write thread info file[%s]\n", path.c_str());
    }
}

// ---------------------------------------------------------------------------
// Runtime summary (appended to the log by DumpMsgCache2File)
// ---------------------------------------------------------------------------

std::string ZApplication::_RuntimeSummary() {
    std::string text = mAppName + " Summary:\n";
    text += "   ZSchema Num = " + std::to_string(SchemaListSize()) + "\n";
    text += "   ZObject Num = " + std::to_string(ObjectListSize()) + "\n";
    text += "   Waiting Recycled Object Num = " + std::to_string(RecycledListSize()) + "\n";
    text += DumpMonitorList();
    // Busy resources are the ones a request (or a stuck handler) holds.
    text += "Dump all resources that are in the BUSY state ====>\n";
    std::string busy;
    for (ZSchema* schema : GetSchemaList()) {
        for (const auto& entry : schema->GetResourceList()) {
            ZResource* res = entry.second;
            if (!UseIfValid(res)) continue;
            ZResource::eResStatus status = ZResource::eResIdle;
            bool mine = false;
            res->GetStatus(status, mine);
            if (status == ZResource::eResBusy) {
                char line[64];
                std::snprintf(line, sizeof(line), "  Resource(%p) : [", static_cast<void*>(res));
                busy += line + entry.first + "] owner[" + std::to_string(res->LockOwner()) + "]@";
            }
            res->DecreaseUsingCount();
        }
    }
    // One entry per line.
    for (char& ch : busy) {
        if (ch == '@') ch = '\n';
    }
    text += busy;
    text += "\n\n";
    text += "Dump orphan objects ====>\n";
    for (const std::string& jpath : GetOrphanObjsList()) text += "  " + jpath + "\n";
    return text;
}

}  // namespace Orbel
