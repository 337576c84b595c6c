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
// Cost on the request path: the debug filter is decided before anything is
// formatted; a line it drops is kept in the cache as its format and a copy
// of its arguments, formatted only if the cache is dumped. Files stay open.
// Access lines are appended to a buffer in memory that the service's writer
// thread writes out; rotation and compression (/bin/gzip) of every file run
// on that thread and never under a destination's mutex, so a request never
// waits for them. Control bytes inside the values of a line are escaped (see
// ZLogPrint_Internal.h), so one call makes one line.
//
// Threads: any thread may log. The service mutex guards the destination
// table and the schema-debug set and is held only for the look-up; each
// destination's own mutex is held while its cache changes, its normal and
// error lines are written and its access lines are queued. The two are never
// held together. Logging never throws and never reports failure.
#ifndef ORBEL_ZLOGPRINT_H
#define ORBEL_ZLOGPRINT_H

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Orbel_Mutex.h"
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
        Mutex mutex;  // guards everything below but the writer's part
        std::string normalPath GUARDED_BY(mutex);
        std::string errorPath GUARDED_BY(mutex);
        std::string accessPath GUARDED_BY(mutex);
        // Bytes; threshold of the normal and error files.
        int32_t RotateSize GUARDED_BY(mutex) = 0;
        // Writes left before the next size check.
        int32_t writeCountdown GUARDED_BY(mutex) = 20;
        struct sCachedMsg {
            // A line the filter dropped keeps its format, file, function
            // and captured arguments in `body` (see _CaptureLine) and its
            // time in the fields below; `title` is then empty.
            bool deferred = false;
            eZLogType type = eZLogInfo;
            time_t seconds = 0;
            int32_t micros = 0;
            int32_t minutesWest = 0;
            std::string title;  // the line prefix
            std::string body;   // the message text
        };
        // A ring, oldest at msgCacheHead; slots keep their strings' storage.
        std::vector<sCachedMsg> msgCache GUARDED_BY(mutex);
        uint32_t msgCacheHead GUARDED_BY(mutex) = 0;
        uint32_t msgCacheNum GUARDED_BY(mutex) = 0;
        // The normal and the error file. While a rotation waits for the
        // writer thread, lines are kept in `diverted` (one string per
        // generation to come, the last one growing) so that the split falls
        // exactly where the size check found the file too large.
        struct sLogFile {
            int fd = -1;  // kept open; closed when the file is rotated or set aside
            std::deque<std::string> diverted;  // empty: lines go to fd
        };
        sLogFile normalFile GUARDED_BY(mutex);
        sLogFile errorFile GUARDED_BY(mutex);
        // Access lines not yet handed to the writer.
        std::string accessPending GUARDED_BY(mutex);
        bool accessFlushQueued GUARDED_BY(mutex) = false;  // the writer has a task for them
        CondVar accessTaken;  // accessPending was emptied
        CondVar accessMore;   // a batch is full, or a flush waits
        // The writer thread's own.
        std::string accessWriting;
        int accessFd = -1;
        int32_t accessCountdown = 20;
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

    // Lines formatted so far by every service of the process (a debug line
    // that the filter drops is not formatted until a dump).
    static uint64_t FormattedLineCount();

    // Returns once the writer thread has written every access line logged
    // before the call and finished the rotations asked for so far.
    void Flush();

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
    sLogParam* _FindDestination(const char* module, uint32_t* cacheCapacity) REQUIRES(mMutex);
    void _LogWriteToFile(const char* module, eZLogType type, const char* file, const char* func,
                         const char* format, va_list args);
    void _LogWriteToSpecificFile(const std::string& path, const char* body);
    bool _DebugFilterPasses(const char* module, eZLogType type) REQUIRES(mMutex);
    static void _InitDestination(sLogParam& param, const std::string& basePath, int rotateSize);
    static void _BackupLogFile(const std::string& path);
    static void _CachePush(sLogParam& param, uint32_t capacity, sLogParam::sCachedMsg*& slot)
        REQUIRES(param.mutex);
    void _WriteLine(sLogParam& param, sLogParam::sLogFile& file, const std::string& path,
                    const std::string& title, const std::string& body, int32_t threshold,
                    bool checkSize, bool isError) REQUIRES(param.mutex);
    void _StartRotation(sLogParam& param, sLogParam::sLogFile& file, bool isError)
        REQUIRES(param.mutex);
    // Writer thread.
    void _Post(std::function<void()> task);
    void _WriterLoop();
    void _WriteAccess(sLogParam* param);
    void _Rotate(sLogParam* param, bool isError);

    Mutex mMutex;
    std::map<std::string, std::shared_ptr<sLogParam>, std::less<>> mDestinations
        GUARDED_BY(mMutex);
    // Kept for the service's life.
    std::vector<std::shared_ptr<sLogParam>> mAllDestinations GUARDED_BY(mMutex);
    std::set<std::string, std::less<>> mSchemaDebug GUARDED_BY(mMutex);
    SummaryProvider mSummaryProvider GUARDED_BY(mMutex);

    std::atomic<sLogParam*> mDefault{nullptr};  // the "Default" destination
    std::atomic<bool> mAnySchemaDebug{false};   // mSchemaDebug is not empty
    std::atomic<int32_t> mDebugLevel{0};
    std::atomic<bool> mAppInitDone{false};

    // The writer thread, started on first use.
    Mutex mWriterMutex;
    CondVar mWriterCv;
    CondVar mWriterIdleCv;
    std::deque<std::function<void()>> mWriterTasks GUARDED_BY(mWriterMutex);
    bool mWriterBusy GUARDED_BY(mWriterMutex) = false;
    bool mWriterStop GUARDED_BY(mWriterMutex) = false;
    std::atomic<bool> mStopping{false};     // the destructor runs
    std::atomic<int32_t> mFlushers{0};      // threads waiting in Flush
    void _WakeAccessWriters();
    // The destructor joins it without the lock: nothing starts it once
    // mWriterStop is set.
    std::thread mWriter GUARDED_BY(mWriterMutex);
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
