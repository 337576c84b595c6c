// The log service of a plug-in process.
//
// One instance is created by the application frame at start-up and published
// through the global pointer zLogPrint; every module logs through LogPrint
// (or the ZLOG/ZLOGM macros below, which are safe before the service exists).
//
// Per destination there are three files: normal (".log"), error (".logerr",
// WARNING and ERROR lines once the application has finished initialising)
// and access (".accesslog"). Non-access lines are echoed to standard output.
// Files are rotated by size into two gzip generations, recent messages are
// kept in a cache (suppressed debug lines included) that DumpMsgCache2File
// writes out on demand, and debug output is filtered per module name.
//
// Threads: any thread may log. The service mutex guards the destination
// table and the schema-debug set and is held only for the look-up; each
// destination's own mutex is held while its cache changes and its files are
// written, rotated and echoed. The two are never held together.
// Logging never throws and never reports failure.
#ifndef ORBEL_ZLOGPRINT_H
#define ORBEL_ZLOGPRINT_H

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "OrbelDefs.h"

namespace Orbel {

enum eZLogType : int32_t {
    eZLogInfo = 0,     // "INFO": normal file, stdout
    eZLogWarning = 1,  // "WARNING": normal file, error file after init, stdout
    eZLogError = 2,    // "ERROR": normal file, error file after init, stdout
    eZLogDebug = 3,    // "DEBUG": normal file, stdout, when the debug filter passes
    eZLogRaw = 4,      // no prefix: normal file, stdout, when the debug filter passes
    eZLogAccess = 5,   // "ACCESS": access file only, never stdout
};

class ZLogPrint {
public:
    // One log destination.
    struct sLogParam {
        std::mutex mutex;  // guards everything below
        std::string normalPath;
        std::string errorPath;
        std::string accessPath;
        int32_t RotateSize = 0;      // bytes; threshold of the normal and error files
        int32_t writeCountdown = 20; // writes left before the next size check
        struct sCachedMsg {
            std::string title;  // the line prefix
            std::string body;   // the message text
        };
        std::list<sCachedMsg> msgCache;  // oldest first
        uint32_t msgCacheNum = 0;
    };

    // Builds the "Default" destination (base + ".log", ".logerr",
    // ".accesslog"), rotates the normal and error files once and creates the
    // access file (and its directories) when missing.
    ZLogPrint(const std::string& basePath, int rotateSize);
    virtual ~ZLogPrint();

    ZLogPrint(const ZLogPrint&) = delete;
    ZLogPrint& operator=(const ZLogPrint&) = delete;

    // Formats into a 2048-byte buffer (longer messages are cut) and writes the
    // line. `module` selects the destination (null, empty or unknown: the
    // "Default" one) and the debug filter; `file` is a source file name
    // without directory, `func` the function name; `line` is not printed.
    void LogPrint(const char* module, eZLogType type, const char* file, const char* func, int line,
                  const char* format, ...) ORBEL_PRINTF(7, 8);
    void VLogPrint(const char* module, eZLogType type, const char* file, const char* func,
                   int line, const char* format, va_list args) ORBEL_PRINTF(7, 0);

    // Appends a formatted message to the file `path` (rotated past 64000 bytes).
    void SpecificLogPrint(const char* path, const char* format, ...) ORBEL_PRINTF(3, 4);

    // Creates a destination with its own three files under `basePath` and maps
    // every name of `srcFiles` to it. Returns 0, or 2 for an empty set.
    eRtCode RerouteMsg(const std::set<std::string>& srcFiles, const std::string& basePath,
                       int rotateSize);

    void SetRotateSize(int rotateSize);  // of the "Default" destination
    std::string LogFilePath();           // "Default" normal file
    std::string AccessLogFilePath();     // "Default" access file

    void SetDebugLevel(int level);
    int GetDebugLevel() const;
    void EnableSchemaDebug(const char* name);
    void ResetSchemaDebug();
    bool IsSchemaDebugEnabled();
    bool IsSchemaDebugEnabled(const char* name);

    // "YYYY-MM-DDThh:mm:ss.uuuuuu+hh:mm" (see ZLogPrint.cpp for the zone rule).
    static std::string GetTimeStamp();

    // Moves each normal and error file P to P + "init" and compresses it, so
    // the start-up log is kept apart from the running log.
    void BackupInitLogFiles();

    // Rewrites each destination's normal file with its cached messages and
    // appends the runtime summary.
    void DumpMsgCache2File();

    void _DumpLogParams();

    // Seams to the application frame, which sits above this layer.
    // Set once the application has finished initialising: from then on
    // WARNING/ERROR lines also go to the error file and file sizes are checked.
    void SetAppInitDone(bool done) { mAppInitDone.store(done); }
    bool IsAppInitDone() const { return mAppInitDone.load(); }
    // Text appended after the cache by DumpMsgCache2File (application name,
    // counts, resource and orphan dumps). Empty provider: no summary body.
    using SummaryProvider = std::function<std::string()>;
    void SetSummaryProvider(SummaryProvider provider);

private:
    std::shared_ptr<sLogParam> _FindDestination(const char* module, uint32_t* cacheCapacity);
    void _LogWriteToFile(const char* module, eZLogType type, const char* file, const char* func,
                         const char* body);
    void _LogWriteToSpecificFile(const std::string& path, const char* body);
    bool _DebugFilterPasses(const char* module, eZLogType type);
    static void _InitDestination(sLogParam& param, const std::string& basePath, int rotateSize);
    static void _BackupLogFile(const std::string& path);
    static bool _WriteAndMaybeRotate(sLogParam& param, const std::string& path,
                                     const std::string& title, const char* body,
                                     int32_t threshold, bool checkSize);

    // Guarded by mMutex.
    std::mutex mMutex;
    std::map<std::string, std::shared_ptr<sLogParam>> mDestinations;
    std::set<std::string> mSchemaDebug;
    SummaryProvider mSummaryProvider;

    std::atomic<int32_t> mDebugLevel{0};
    std::atomic<bool> mAppInitDone{false};
};

// The one log service of the process; null until the application creates it.
extern ZLogPrint* zLogPrint;

// Null-safe entry used by the macros: routes to zLogPrint, or, before the
// service exists, echoes the line to standard output the way LogPrint would.
void LogPrintf(const char* module, eZLogType type, const char* file, const char* func, int line,
               const char* format, ...) ORBEL_PRINTF(6, 7);

}  // namespace Orbel

// The library's own lines: empty module name (the "Default" destination).
// The file named in a line: the source file, unless a unit spread over
// several files names itself once (see RedisCli_Internal.h).
#ifndef ORBEL_LOG_FILE_NAME
#define ORBEL_LOG_FILE_NAME __FILE_NAME__
#endif
#define ZLOG(type, ...) \
    ::Orbel::LogPrintf("", ::Orbel::type, ORBEL_LOG_FILE_NAME, __func__, __LINE__, __VA_ARGS__)
// Lines under a module name, e.g. ZLOGM("ZComLib", eZLogRaw, ...).
#define ZLOGM(module, type, ...) \
    ::Orbel::LogPrintf(module, ::Orbel::type, ORBEL_LOG_FILE_NAME, __func__, __LINE__, __VA_ARGS__)

#endif  // ORBEL_ZLOGPRINT_H
