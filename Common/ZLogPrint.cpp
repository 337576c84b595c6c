#include "ZLogPrint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <vector>

#include "Orbel.h"
#include "ZLogPrint_Internal.h"

namespace Orbel {

ZLogPrint* zLogPrint = nullptr;

namespace {

constexpr const char* kDefaultDestination = "Default";
constexpr uint32_t kNamedCacheCapacity = 256;
constexpr uint32_t kDefaultCacheCapacity = 512;
constexpr int32_t kAccessRotateSize = 64000;
constexpr int32_t kSpecificRotateSize = 64000;
constexpr int32_t kSizeCheckInterval = 20;
constexpr size_t kMessageBufferSize = 2048;

const char* TypeWord(eZLogType type) {
    switch (type) {
        case eZLogInfo: return "INFO";
        case eZLogWarning: return "WARNING";
        case eZLogError: return "ERROR";
        case eZLogDebug: return "DEBUG";
        case eZLogAccess: return "ACCESS";
        default: return "";
    }
}

// The line prefix of a message logged at the given time.
void AppendTitle(std::string& title, eZLogType type, const char* file, const char* func,
                 time_t seconds, long micros, int minutesWest) {
    if (type == eZLogRaw) return;
    LogFormat::AppendTimeStamp(title, seconds, micros, minutesWest);
    if (type == eZLogAccess) {
        title += ' ';
        return;
    }
    title += '[';
    title += TypeWord(type);
    title += "] ";
    title += file != nullptr ? file : "";
    title += ':';
    title += func != nullptr ? func : "";
    title += "(): ";
}

// Seconds from time(), microseconds and the zone from gettimeofday(): the
// time stamp's sources.
struct LineTime {
    time_t seconds;
    long micros;
    int minutesWest;
};
LineTime Now() {
    LineTime t;
    t.seconds = time(nullptr);
    struct timeval tv;
    struct timezone tz;
    gettimeofday(&tv, &tz);
    t.micros = static_cast<long>(tv.tv_usec);
    t.minutesWest = tz.tz_minuteswest;
    return t;
}

// The message of `format` and `args`, cut to the buffer of the format's
// contract; control bytes of the values escaped.
std::atomic<uint64_t> gFormattedLines{0};

void FormatBody(std::string& body, const char* format, va_list args) {
    gFormattedLines.fetch_add(1, std::memory_order_relaxed);
    va_list copy;
    va_copy(copy, args);
    body.clear();
    if (!LogFormat::Render(body, format, args, !LogFormat::IsPreformatted(format))) {
        char buffer[kMessageBufferSize] = {};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        std::vsnprintf(buffer, sizeof(buffer), format, copy);
#pragma GCC diagnostic pop
        body.assign(buffer);
    }
    va_end(copy);
    if (body.size() > kMessageBufferSize - 1) body.resize(kMessageBufferSize - 1);
}

void EchoToStdout(eZLogType type, const char* file, const char* func, const char* body) {
    if (type == eZLogAccess) return;
    if (type == eZLogRaw) {
        std::fputs(body, stdout);
    } else {
        // "%s:%s:%s: %s" (file, function, type word, body), put together
        // without a printf's format walk and written at once.
        thread_local std::string line;
        line.assign(file != nullptr ? file : "");
        line += ':';
        line += func != nullptr ? func : "";
        line += ':';
        line += TypeWord(type);
        line += ": ";
        line += body;
        std::fwrite(line.data(), 1, line.size(), stdout);
    }
    // Plug-ins usually run with stdout on a pipe or file: flush per line so
    // the echo is as current as the log file.
    std::fflush(stdout);
}

// Writes all of [data, data + n) to `fd`; false when a write fails.
bool WriteAll(int fd, const char* data, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, data, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

int OpenForAppend(const std::string& path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// Appends title and body with one write, so concurrent writers (other
// destinations, other processes) never split a line.
bool AppendToFile(const std::string& path, const std::string& title, const char* body) {
    int fd = OpenForAppend(path);
    if (fd < 0) return false;
    std::string line = title;
    line += body;
    ssize_t n = write(fd, line.data(), line.size());
    close(fd);
    return n == static_cast<ssize_t>(line.size());
}

long long FileSize(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return -1;
    return static_cast<long long>(st.st_size);
}

// Serialises SpecificLogPrint writers within the process.
Mutex& SpecificFileMutex() {
    static Mutex m;
    return m;
}

// Access lines waiting for the writer, past which a logging thread waits
// for it rather than let the buffer grow without bound.
constexpr size_t kMaxAccessPending = 1 << 20;
// The writer writes access lines once this much is waiting, or after this
// many milliseconds.
constexpr size_t kAccessBatch = 4096;
constexpr int kAccessGatherMs = 5;

// Moves P1.gz to P2.gz (dropping the older P2.gz): the first step of a rotation.
void ShiftGenerations(const std::string& path) {
    const std::string gen1 = path + "1";
    const std::string gen2 = path + "2";
    if (access((gen1 + ".gz").c_str(), F_OK) != 0) return;
    if (access((gen2 + ".gz").c_str(), F_OK) == 0 && remove((gen2 + ".gz").c_str()) != 0 &&
        errno != ENOENT) {
        std::printf("Remove[%s] failed[%s]\n", gen2.c_str(), std::strerror(errno));
    }
    if (rename((gen1 + ".gz").c_str(), (gen2 + ".gz").c_str()) != 0 && errno != ENOENT) {
        // The names lack ".gz" in this message; operators grep for it so.
        std::printf("Rename [%s] to [%s] failed[%s]\n", gen1.c_str(), gen2.c_str(),
                    std::strerror(errno));
    }
}

// Renames P to P1; false when there was nothing to rename.
bool MoveToFirstGeneration(const std::string& path) {
    const std::string gen1 = path + "1";
    if (rename(path.c_str(), gen1.c_str()) != 0) {
        if (errno != ENOENT) {
            std::printf("Rename [%s] to [%s] failed[%s]\n", path.c_str(), gen1.c_str(),
                        std::strerror(errno));
        }
        return false;
    }
    return true;
}

}  // namespace

ZLogPrint::ZLogPrint(const std::string& basePath, int rotateSize) {
    auto param = std::make_shared<sLogParam>();
    _InitDestination(*param, basePath, rotateSize);
    mDestinations[kDefaultDestination] = param;
    mAllDestinations.push_back(param);
    mDefault.store(param.get());
}

ZLogPrint::~ZLogPrint() {
    mStopping.store(true);
    _WakeAccessWriters();
    {
        MutexLock lock(mWriterMutex);
        mWriterStop = true;
    }
    mWriterCv.SignalAll();
    if (mWriter.joinable()) mWriter.join();  // it writes what is queued first
    // Lines kept for a rotation that can no longer run stay in the file.
    for (auto& param : mAllDestinations) {
        for (auto [file, path] : {std::make_pair(&param->normalFile, &param->normalPath),
                                  std::make_pair(&param->errorFile, &param->errorPath)}) {
            for (const std::string& lines : file->diverted) {
                if (file->fd < 0) file->fd = OpenForAppend(*path);
                if (file->fd >= 0) WriteAll(file->fd, lines.data(), lines.size());
            }
        }
    }
    for (auto& param : mAllDestinations) {
        for (int fd : {param->normalFile.fd, param->errorFile.fd, param->accessFd}) {
            if (fd >= 0) close(fd);
        }
    }
}

void ZLogPrint::_InitDestination(sLogParam& param, const std::string& basePath, int rotateSize) {
    // No other thread sees the destination yet; the lock only satisfies the checker.
    MutexLock lock(param.mutex);
    param.normalPath = basePath + ".log";
    param.errorPath = basePath + ".logerr";
    param.accessPath = basePath + ".accesslog";
    param.RotateSize = rotateSize;
    param.writeCountdown = kSizeCheckInterval;
    // Each start begins a fresh file; the previous run's log becomes the
    // newest compressed generation.
    _BackupLogFile(param.normalPath);
    _BackupLogFile(param.errorPath);
    TouchFile(param.accessPath, false);
}

void ZLogPrint::LogPrint(const char* module, eZLogType type, const char* file, const char* func,
                         int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VLogPrint(module, type, file, func, line, format, args);
    va_end(args);
}

void ZLogPrint::VLogPrint(const char* module, eZLogType type, const char* file, const char* func,
                          int /*line*/, const char* format, va_list args) {
    if (format == nullptr) return;
    _LogWriteToFile(module, type, file, func, format, args);
}

void ZLogPrint::SpecificLogPrint(const char* path, const char* format, ...) {
    if (path == nullptr || format == nullptr) return;
    va_list args;
    va_start(args, format);
    std::string body;
    FormatBody(body, format, args);
    va_end(args);
    _LogWriteToSpecificFile(path, body.c_str());
}

void ZLogPrint::_LogWriteToSpecificFile(const std::string& path, const char* body) {
    bool rotate = false;
    {
        MutexLock lock(SpecificFileMutex());
        AppendToFile(path, std::string(), body);
        rotate = FileSize(path) > kSpecificRotateSize;
    }
    if (!rotate) return;
    _Post([path]() {
        // Checked again: several writes may have asked for one rotation.
        MutexLock lock(SpecificFileMutex());
        if (FileSize(path) <= kSpecificRotateSize) return;
        ShiftGenerations(path);
        const bool moved = MoveToFirstGeneration(path);
        lock.Unlock();
        if (moved) CompressFile(path + "1");
    });
}

ZLogPrint::sLogParam* ZLogPrint::_FindDestination(const char* module, uint32_t* cacheCapacity) {
    if (module != nullptr) {
        auto it = mDestinations.find(std::string_view(module));
        if (it != mDestinations.end() && it->first != kDefaultDestination) {
            *cacheCapacity = kNamedCacheCapacity;
            return it->second.get();
        }
    }
    *cacheCapacity = kDefaultCacheCapacity;
    return mDefault.load();
}

bool ZLogPrint::_DebugFilterPasses(const char* module, eZLogType type) {
    if (type != eZLogDebug && type != eZLogRaw) return true;
    int32_t level = mDebugLevel.load();
    if (module == nullptr || module[0] == '\0') return level != 0;
    if (std::strcmp(module, "ZComLib") == 0 || level == 0) {
        return mSchemaDebug.count(std::string_view(module)) != 0;
    }
    return true;
}

void ZLogPrint::_CachePush(sLogParam& param, uint32_t capacity, sLogParam::sCachedMsg*& slot) {
    // `slot` is set to the entry to fill.
    const uint32_t size = static_cast<uint32_t>(param.msgCache.size());
    if (param.msgCacheNum < size) {
        slot = &param.msgCache[(param.msgCacheHead + param.msgCacheNum) % size];
    } else {
        // Not yet at its full size (nothing was dropped: head is 0).
        param.msgCache.emplace_back();
        slot = &param.msgCache.back();
    }
    ++param.msgCacheNum;
    (void)capacity;
}

namespace {

// Bytes of the generation a file is writing: the lines kept aside while its
// rotation is pending, else the file itself.
long long GenerationSize(const ZLogPrint::sLogParam::sLogFile& file) {
    if (!file.diverted.empty()) return static_cast<long long>(file.diverted.back().size());
    struct stat st;
    if (file.fd >= 0 && fstat(file.fd, &st) == 0) return static_cast<long long>(st.st_size);
    return -1;
}

}  // namespace

void ZLogPrint::_StartRotation(sLogParam& param, sLogParam::sLogFile& file, bool isError) {
    // The file's current lines close the generation; the next ones wait for
    // the new file.
    file.diverted.emplace_back();
    sLogParam* p = &param;
    _Post([this, p, isError]() { _Rotate(p, isError); });
}

void ZLogPrint::_WriteLine(sLogParam& param, sLogParam::sLogFile& file, const std::string& path,
                           const std::string& title, const std::string& body, int32_t threshold,
                           bool checkSize, bool isError) {
    if (path.empty()) return;
    // Sizes are checked only every 20th write and never during start-up, so
    // a busy start is not slowed down by stat(). The rotation itself is the
    // writer thread's.
    bool rotate = false;
    bool rotateSibling = false;
    if (checkSize && --param.writeCountdown < 1) {
        param.writeCountdown = kSizeCheckInterval;
        rotate = GenerationSize(file) > threshold;
        // A warning or error is written to both files and counts down twice,
        // so with only those logged the countdown always ends on the error
        // file's write: the normal file is checked along with it, or it
        // would grow without bound.
        if (isError && !param.normalPath.empty()) {
            rotateSibling = GenerationSize(param.normalFile) > threshold;
        }
    }
    if (!file.diverted.empty()) {
        file.diverted.back() += title;
        file.diverted.back() += body;
    } else {
        if (file.fd < 0) file.fd = OpenForAppend(path);
        if (file.fd >= 0) {
            // One writev per line: concurrent writers (other destinations,
            // other processes) never split it.
            struct iovec iov[2] = {{const_cast<char*>(title.data()), title.size()},
                                   {const_cast<char*>(body.data()), body.size()}};
            if (writev(file.fd, iov, 2) < 0) {
                // Nothing to report to: logging never fails its caller.
            }
        }
    }
    if (rotate) _StartRotation(param, file, isError);
    if (rotateSibling) _StartRotation(param, param.normalFile, false);
}

void ZLogPrint::_LogWriteToFile(const char* module, eZLogType type, const char* file,
                                const char* func, const char* format, va_list args) {
    uint32_t capacity = kDefaultCacheCapacity;
    bool passes = true;
    sLogParam* param = nullptr;
    const bool debugType = type == eZLogDebug || type == eZLogRaw;
    if (module == nullptr || module[0] == '\0') {
        // The library's own lines: no table look-up.
        param = mDefault.load();
        if (debugType) passes = mDebugLevel.load() != 0;
    } else if (debugType && !mAnySchemaDebug.load() && mDebugLevel.load() == 0) {
        // Nothing can let this line through: only the destination is needed.
        passes = false;
        MutexLock lock(mMutex);
        param = _FindDestination(module, &capacity);
    } else {
        MutexLock lock(mMutex);
        param = _FindDestination(module, &capacity);
        passes = _DebugFilterPasses(module, type);
    }
    const LineTime now = Now();

    if (!passes) {
        // Kept for a dump, not formatted: the format, file and function
        // texts, then the arguments.
        thread_local std::string packed;
        packed.clear();
        packed.append(format).push_back('\0');
        packed.append(file != nullptr ? file : "").push_back('\0');
        packed.append(func != nullptr ? func : "").push_back('\0');
        va_list copy;
        va_copy(copy, args);
        const bool captured = LogFormat::Capture(packed, format, copy);
        va_end(copy);
        thread_local std::string body;
        if (!captured) FormatBody(body, format, args);
        MutexLock lock(param->mutex);
        if (param->msgCacheNum >= capacity && param->msgCacheNum > 0) {
            param->msgCacheHead = (param->msgCacheHead + 1) % param->msgCache.size();
            --param->msgCacheNum;
        }
        sLogParam::sCachedMsg* slot = nullptr;
        _CachePush(*param, capacity, slot);
        slot->type = type;
        slot->deferred = captured;
        if (captured) {
            slot->seconds = now.seconds;
            slot->micros = static_cast<int32_t>(now.micros);
            slot->minutesWest = now.minutesWest;
            slot->title.clear();
            slot->body = packed;
        } else {
            slot->title.clear();
            AppendTitle(slot->title, type, file, func, now.seconds, now.micros, now.minutesWest);
            slot->body = body;
        }
        return;
    }

    thread_local std::string title;
    thread_local std::string body;
    title.clear();
    AppendTitle(title, type, file, func, now.seconds, now.micros, now.minutesWest);
    FormatBody(body, format, args);
    const bool initDone = mAppInitDone.load();

    bool postAccess = false;
    bool fullBatch = false;
    {
        MutexLock lock(param->mutex);
        // The cache keeps the most recent messages, suppressed debug lines
        // included, so a dump can show what happened before a fault. An
        // access line is not kept, yet makes room like any other.
        if (param->msgCacheNum >= capacity && param->msgCacheNum > 0) {
            param->msgCacheHead = (param->msgCacheHead + 1) % param->msgCache.size();
            --param->msgCacheNum;
        }
        if (type == eZLogAccess) {
            if (param->accessPath.empty()) return;
            param->accessTaken.Wait(param->mutex, [param]() REQUIRES(param->mutex) {
                return param->accessPending.size() < kMaxAccessPending;
            });
            const bool wasShort = param->accessPending.size() < kAccessBatch;
            param->accessPending += title;
            param->accessPending += body;
            if (!param->accessFlushQueued) {
                param->accessFlushQueued = true;
                postAccess = true;
            } else if (wasShort && param->accessPending.size() >= kAccessBatch) {
                fullBatch = true;
            }
        } else {
            sLogParam::sCachedMsg* slot = nullptr;
            _CachePush(*param, capacity, slot);
            slot->deferred = false;
            slot->type = type;
            slot->title = title;
            slot->body = body;
            _WriteLine(*param, param->normalFile, param->normalPath, title, body,
                       param->RotateSize, initDone, false);
            if ((type == eZLogWarning || type == eZLogError) && initDone) {
                _WriteLine(*param, param->errorFile, param->errorPath, title, body,
                           param->RotateSize, initDone, true);
            }
        }
    }
    if (postAccess) {
        _Post([this, param]() { _WriteAccess(param); });
        return;
    }
    if (fullBatch) {
        param->accessMore.SignalAll();
        return;
    }
    if (type != eZLogAccess) EchoToStdout(type, file, func, body.c_str());
}

// ---------------------------------------------------------------------------
// The writer thread
// ---------------------------------------------------------------------------

void ZLogPrint::_Post(std::function<void()> task) {
    MutexLock lock(mWriterMutex);
    if (mWriterStop) return;
    mWriterTasks.push_back(std::move(task));
    if (!mWriter.joinable()) {
        mWriter = std::thread([this]() { _WriterLoop(); });
    }
    mWriterCv.Signal();
}

void ZLogPrint::_WriterLoop() {
    MutexLock lock(mWriterMutex);
    for (;;) {
        mWriterCv.Wait(mWriterMutex, [this]() REQUIRES(mWriterMutex) { return mWriterStop || !mWriterTasks.empty(); });
        if (mWriterTasks.empty()) break;  // stopping, and nothing is left
        std::function<void()> task = std::move(mWriterTasks.front());
        mWriterTasks.pop_front();
        mWriterBusy = true;
        lock.Unlock();
        task();
        lock.Lock();
        mWriterBusy = false;
        if (mWriterTasks.empty()) mWriterIdleCv.SignalAll();
    }
    mWriterIdleCv.SignalAll();
}

uint64_t ZLogPrint::FormattedLineCount() {
    return gFormattedLines.load(std::memory_order_relaxed);
}

void ZLogPrint::_WakeAccessWriters() {
    std::vector<sLogParam*> params;
    {
        MutexLock lock(mMutex);
        for (auto& param : mAllDestinations) params.push_back(param.get());
    }
    for (sLogParam* param : params) {
        // Taken and released so that a writer between its check and its
        // wait cannot miss the notification.
        { MutexLock lock(param->mutex); }
        param->accessMore.SignalAll();
    }
}

void ZLogPrint::Flush() {
    ++mFlushers;
    _WakeAccessWriters();
    {
        MutexLock lock(mWriterMutex);
        mWriterIdleCv.Wait(mWriterMutex, [this]() REQUIRES(mWriterMutex) {
            return (mWriterTasks.empty() && !mWriterBusy) || !mWriter.joinable();
        });
    }
    --mFlushers;
}

void ZLogPrint::_WriteAccess(sLogParam* param) {
    std::string path;
    {
        // Lines are gathered for a moment, so that a busy plug-in wakes the
        // writer once per batch rather than once per request.
        MutexLock lock(param->mutex);
        param->accessMore.WaitFor(param->mutex, std::chrono::milliseconds(kAccessGatherMs), [&]() REQUIRES(param->mutex) {
            return param->accessPending.size() >= kAccessBatch || mFlushers.load() > 0 ||
                   mStopping.load();
        });
        param->accessWriting.swap(param->accessPending);
        param->accessFlushQueued = false;
        path = param->accessPath;
    }
    param->accessTaken.SignalAll();
    std::string& batch = param->accessWriting;
    if (batch.empty()) return;
    // The size is checked every 20th line once the application has started,
    // as for the other files: the batch is written in pieces that end at
    // those lines, so a generation ends where it would have line by line.
    const bool checkSize = mAppInitDone.load();
    const char* at = batch.data();
    const char* const end = batch.data() + batch.size();
    while (at < end) {
        const char* pieceEnd = end;
        bool check = false;
        if (checkSize) {
            for (const char* p = at; p < end; ++p) {
                p = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
                if (p == nullptr) break;
                if (--param->accessCountdown < 1) {
                    param->accessCountdown = kSizeCheckInterval;
                    pieceEnd = p + 1;
                    check = true;
                    break;
                }
            }
        }
        if (param->accessFd < 0) param->accessFd = OpenForAppend(path);
        if (param->accessFd >= 0) WriteAll(param->accessFd, at, static_cast<size_t>(pieceEnd - at));
        at = pieceEnd;
        struct stat st;
        if (check && param->accessFd >= 0 && fstat(param->accessFd, &st) == 0 &&
            st.st_size > kAccessRotateSize) {
            close(param->accessFd);
            param->accessFd = -1;
            ShiftGenerations(path);
            if (MoveToFirstGeneration(path)) CompressFile(path + "1");
        }
    }
    batch.clear();
}

void ZLogPrint::_Rotate(sLogParam* param, bool isError) {
    std::string path;
    {
        MutexLock lock(param->mutex);
        path = isError ? param->errorPath : param->normalPath;
    }
    ShiftGenerations(path);
    bool moved = false;
    {
        // The file holds the generation being closed; the lines logged since
        // the size check start the new one.
        MutexLock lock(param->mutex);
        sLogParam::sLogFile& file = isError ? param->errorFile : param->normalFile;
        moved = MoveToFirstGeneration(path);
        if (file.fd >= 0) close(file.fd);
        file.fd = -1;
        if (!file.diverted.empty()) {
            std::string lines = std::move(file.diverted.front());
            file.diverted.pop_front();
            if (!lines.empty()) {
                file.fd = OpenForAppend(path);
                if (file.fd >= 0) WriteAll(file.fd, lines.data(), lines.size());
            }
        }
    }
    if (moved) CompressFile(path + "1");
}

void ZLogPrint::_BackupLogFile(const std::string& path) {
    ShiftGenerations(path);
    if (MoveToFirstGeneration(path)) CompressFile(path + "1");
}

eRtCode ZLogPrint::RerouteMsg(const std::set<std::string>& srcFiles, const std::string& basePath,
                              int rotateSize) {
    if (srcFiles.empty()) {
        ZLOG(eZLogError, "srcFiles is empty!\n");
        return RT_FAILURE;
    }
    auto param = std::make_shared<sLogParam>();
    _InitDestination(*param, basePath, rotateSize);
    MutexLock lock(mMutex);
    mAllDestinations.push_back(param);
    for (const auto& name : srcFiles) {
        mDestinations[name] = param;
        if (name == kDefaultDestination) mDefault.store(param.get());
    }
    return RT_SUCCESS;
}

void ZLogPrint::SetRotateSize(int rotateSize) {
    sLogParam* param = mDefault.load();
    MutexLock lock(param->mutex);
    param->RotateSize = rotateSize;
}

std::string ZLogPrint::LogFilePath() {
    sLogParam* param = mDefault.load();
    MutexLock lock(param->mutex);
    return param->normalPath;
}

std::string ZLogPrint::AccessLogFilePath() {
    sLogParam* param = mDefault.load();
    MutexLock lock(param->mutex);
    return param->accessPath;
}

void ZLogPrint::SetDebugLevel(int level) { mDebugLevel.store(level); }
int ZLogPrint::GetDebugLevel() const { return mDebugLevel.load(); }

void ZLogPrint::EnableSchemaDebug(const char* name) {
    if (name == nullptr) return;
    MutexLock lock(mMutex);
    mSchemaDebug.insert(name);
    mAnySchemaDebug.store(true);
}

void ZLogPrint::ResetSchemaDebug() {
    MutexLock lock(mMutex);
    mSchemaDebug.clear();
    mAnySchemaDebug.store(false);
}

bool ZLogPrint::IsSchemaDebugEnabled() {
    MutexLock lock(mMutex);
    return !mSchemaDebug.empty();
}

bool ZLogPrint::IsSchemaDebugEnabled(const char* name) {
    if (name == nullptr) return false;
    MutexLock lock(mMutex);
    return mSchemaDebug.count(std::string_view(name)) != 0;
}

void ZLogPrint::SetSummaryProvider(SummaryProvider provider) {
    MutexLock lock(mMutex);
    mSummaryProvider = std::move(provider);
}

std::string ZLogPrint::GetTimeStamp() {
    // Seconds come from time() broken down as UTC; microseconds and the zone
    // from gettimeofday(). The sign is taken straight from minutes-west
    // (west-positive), which is what the existing log readers expect.
    const LineTime now = Now();
    std::string out;
    LogFormat::AppendTimeStamp(out, now.seconds, now.micros, now.minutesWest);
    return out;
}

void ZLogPrint::BackupInitLogFiles() {
    std::vector<std::pair<std::string, sLogParam*>> paths;
    {
        MutexLock lock(mMutex);
        std::set<std::string> seen;
        for (auto& kv : mDestinations) {
            for (const std::string* p : {&kv.second->normalPath, &kv.second->errorPath}) {
                if (!p->empty() && seen.insert(*p).second) paths.emplace_back(*p, kv.second.get());
            }
        }
    }
    for (const auto& [path, param] : paths) {
        std::string initPath = path + "init";
        if (remove((initPath + ".gz").c_str()) != 0 && errno != ENOENT) {
            ZLOG(eZLogError, "Remove[%s] failed[%s]\n", (initPath + ".gz").c_str(),
                 std::strerror(errno));
        }
        if (remove(initPath.c_str()) != 0 && errno != ENOENT) {
            ZLOG(eZLogError, "Remove[%s] failed[%s]\n", initPath.c_str(), std::strerror(errno));
        }
        int renamed = 0;
        int renameErrno = 0;
        {
            // The open file goes with the name; the next line opens a new one.
            MutexLock lock(param->mutex);
            renamed = rename(path.c_str(), initPath.c_str());
            renameErrno = errno;
            for (sLogParam::sLogFile* file : {&param->normalFile, &param->errorFile}) {
                if (file->fd >= 0) close(file->fd);
                file->fd = -1;
            }
        }
        if (renamed != 0) {
            if (renameErrno != ENOENT) {
                ZLOG(eZLogError, "Call rename( %s, %sinit ) failed[%s]\n", path.c_str(),
                     path.c_str(), std::strerror(renameErrno));
            }
            continue;
        }
        CompressFile(initPath);
    }
}

void ZLogPrint::DumpMsgCache2File() {
    // The summary is built first, with no log lock held: the provider walks
    // the application's registries, which may log themselves.
    SummaryProvider provider;
    std::vector<sLogParam*> params;
    sLogParam* defaultParam = mDefault.load();
    {
        MutexLock lock(mMutex);
        provider = mSummaryProvider;
        std::set<sLogParam*> seen;
        for (auto& kv : mDestinations) {
            if (seen.insert(kv.second.get()).second) params.push_back(kv.second.get());
        }
    }
    std::string summary = "\n\n";
    summary += "================================================\n";
    if (provider) summary += provider();

    static const char kComment[] =
        "/**\n * Can set the log level to debug to print the last 500 debug messages.\n **/\n";

    for (auto& param : params) {
        MutexLock lock(param->mutex);
        if (param->normalPath.empty()) continue;
        // Emptied and opened in one call rather than through TouchFile: its
        // directory creation logs on failure, and logging to this destination
        // while its mutex is held would deadlock.
        int fd = open(param->normalPath.c_str(),
                      O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0700);
        if (fd < 0) {
            std::printf("Failed to open log file[%s] res:%d\n", param->normalPath.c_str(), fd);
            continue;
        }
        std::string title;
        std::string body;
        for (uint32_t i = 0; i < param->msgCacheNum; ++i) {
            const auto& msg =
                param->msgCache[(param->msgCacheHead + i) % param->msgCache.size()];
            if (msg.deferred) {
                // Format, file and function texts, then the arguments.
                const char* format = msg.body.c_str();
                const char* file = format + std::strlen(format) + 1;
                const char* func = file + std::strlen(file) + 1;
                const char* args = func + std::strlen(func) + 1;
                title.clear();
                AppendTitle(title, msg.type, file, func, msg.seconds, msg.micros,
                            msg.minutesWest);
                body.clear();
                LogFormat::RenderCaptured(body, format, args,
                                          msg.body.size() - static_cast<size_t>(args - format),
                                          !LogFormat::IsPreformatted(format));
                if (body.size() > kMessageBufferSize - 1) body.resize(kMessageBufferSize - 1);
            } else {
                title = msg.title;
                body = msg.body;
            }
            ssize_t res = write(fd, title.data(), title.size());
            if (res < 0) {
                std::printf("Failed to write message title to log file[%s] res:%d\n",
                            param->normalPath.c_str(), static_cast<int>(res));
            }
            res = write(fd, body.data(), body.size());
            if (res < 0) {
                std::printf("Failed to write message body to log file[%s] res:%d\n",
                            param->normalPath.c_str(), static_cast<int>(res));
            }
        }
        ssize_t res = write(fd, kComment, sizeof(kComment) - 1);
        if (res < 0) {
            std::printf("Failed to write message body to log file[%s] res:%d\n",
                        param->normalPath.c_str(), static_cast<int>(res));
        }
        // The runtime summary belongs to the application as a whole: it is
        // written once, after the "Default" destination's messages.
        if (param == defaultParam) {
            res = write(fd, summary.data(), summary.size());
            if (res < 0) {
                std::printf("Failed to write summary to log file[%s] res:%d\n",
                            param->normalPath.c_str(), static_cast<int>(res));
            }
        }
        close(fd);
    }
}

void ZLogPrint::_DumpLogParams() {
    MutexLock lock(mMutex);
    std::printf("LogParams: ");
    for (auto& kv : mDestinations) {
        std::printf("  |- File[%s] Param[%p]:\n", kv.first.c_str(),
                    static_cast<void*>(kv.second.get()));
        MutexLock paramLock(kv.second->mutex);
        std::printf("  |  |- normalPath = %s\n", kv.second->normalPath.c_str());
        std::printf("  |  |- accessPath = %s\n", kv.second->accessPath.c_str());
        std::printf("  |  |- RotateSize = %d\n", kv.second->RotateSize);
    }
    std::fflush(stdout);
}

void LogPrintf(const char* module, eZLogType type, const char* file, const char* func, int line,
               const char* format, ...) {
    va_list args;
    va_start(args, format);
    ZLogPrint* service = zLogPrint;
    if (service != nullptr) {
        service->VLogPrint(module, type, file, func, line, format, args);
    } else if (type != eZLogDebug && type != eZLogRaw && type != eZLogAccess &&
               format != nullptr) {
        // Before the service exists nothing configures debug output, so
        // only the lines that would pass a default filter are echoed.
        std::string body;
        FormatBody(body, format, args);
        EchoToStdout(type, file, func, body.c_str());
    }
    va_end(args);
}

}  // namespace Orbel
