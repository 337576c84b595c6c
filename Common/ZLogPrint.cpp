#include "ZLogPrint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "Orbel.h"

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

std::string MakeTitle(eZLogType type, const char* file, const char* func) {
    if (type == eZLogRaw) return std::string();
    std::string title = ZLogPrint::GetTimeStamp();
    if (type == eZLogAccess) return title + " ";
    title += "[";
    title += TypeWord(type);
    title += "] ";
    title += file != nullptr ? file : "";
    title += ":";
    title += func != nullptr ? func : "";
    title += "(): ";
    return title;
}

void EchoToStdout(eZLogType type, const char* file, const char* func, const char* body) {
    if (type == eZLogAccess) return;
    if (type == eZLogRaw) {
        std::printf("%s", body);
    } else {
        std::printf("%s:%s:%s: %s", file != nullptr ? file : "", func != nullptr ? func : "",
                    TypeWord(type), body);
    }
    // Plug-ins usually run with stdout on a pipe or file: flush per line so
    // the echo is as current as the log file.
    std::fflush(stdout);
}

// Appends title and body with one write, so concurrent writers (other
// destinations, other processes) never split a line.
bool AppendToFile(const std::string& path, const std::string& title, const char* body) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
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
std::mutex& SpecificFileMutex() {
    static std::mutex m;
    return m;
}

}  // namespace

ZLogPrint::ZLogPrint(const std::string& basePath, int rotateSize) {
    auto param = std::make_shared<sLogParam>();
    _InitDestination(*param, basePath, rotateSize);
    mDestinations[kDefaultDestination] = param;
}

ZLogPrint::~ZLogPrint() = default;

void ZLogPrint::_InitDestination(sLogParam& param, const std::string& basePath, int rotateSize) {
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
    char buffer[kMessageBufferSize] = {};
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    _LogWriteToFile(module, type, file, func, buffer);
}

void ZLogPrint::SpecificLogPrint(const char* path, const char* format, ...) {
    if (path == nullptr) return;
    char buffer[kMessageBufferSize] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    _LogWriteToSpecificFile(path, buffer);
}

void ZLogPrint::_LogWriteToSpecificFile(const std::string& path, const char* body) {
    std::lock_guard<std::mutex> lock(SpecificFileMutex());
    AppendToFile(path, std::string(), body);
    if (FileSize(path) > kSpecificRotateSize) _BackupLogFile(path);
}

std::shared_ptr<ZLogPrint::sLogParam> ZLogPrint::_FindDestination(const char* module,
                                                                  uint32_t* cacheCapacity) {
    // REQUIRES: mMutex held.
    if (module != nullptr) {
        auto it = mDestinations.find(module);
        if (it != mDestinations.end() && it->first != kDefaultDestination) {
            *cacheCapacity = kNamedCacheCapacity;
            return it->second;
        }
    }
    *cacheCapacity = kDefaultCacheCapacity;
    return mDestinations[kDefaultDestination];
}

bool ZLogPrint::_DebugFilterPasses(const char* module, eZLogType type) {
    // REQUIRES: mMutex held (reads mSchemaDebug).
    if (type != eZLogDebug && type != eZLogRaw) return true;
    int32_t level = mDebugLevel.load();
    if (module == nullptr || module[0] == '\0') return level != 0;
    if (std::strcmp(module, "ZComLib") == 0 || level == 0) {
        return mSchemaDebug.count(module) != 0;
    }
    return true;
}

bool ZLogPrint::_WriteAndMaybeRotate(sLogParam& param, const std::string& path,
                                     const std::string& title, const char* body,
                                     int32_t threshold, bool checkSize) {
    // REQUIRES: param.mutex held.
    if (path.empty()) return false;
    bool ok = AppendToFile(path, title, body);
    // Sizes are checked only every 20th write and never during start-up, so
    // a busy start is not slowed down by stat() and gzip.
    if (checkSize && --param.writeCountdown < 1) {
        param.writeCountdown = kSizeCheckInterval;
        if (FileSize(path) > threshold) _BackupLogFile(path);
    }
    return ok;
}

void ZLogPrint::_LogWriteToFile(const char* module, eZLogType type, const char* file,
                                const char* func, const char* body) {
    uint32_t capacity = 0;
    bool passes = true;
    // A shared reference: a concurrent RerouteMsg may replace the table entry.
    std::shared_ptr<sLogParam> param;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        param = _FindDestination(module, &capacity);
        passes = _DebugFilterPasses(module, type);
    }

    std::string title = MakeTitle(type, file, func);
    bool initDone = mAppInitDone.load();

    std::lock_guard<std::mutex> lock(param->mutex);
    // The cache keeps the most recent messages, suppressed debug lines
    // included, so a dump can show what happened before a fault.
    if (param->msgCacheNum >= capacity && !param->msgCache.empty()) {
        param->msgCache.pop_front();
        --param->msgCacheNum;
    }
    if (type != eZLogAccess) {
        param->msgCache.push_back({title, body});
        ++param->msgCacheNum;
    }
    if (!passes) return;

    if (type == eZLogAccess) {
        _WriteAndMaybeRotate(*param, param->accessPath, title, body, kAccessRotateSize, initDone);
        return;
    }
    _WriteAndMaybeRotate(*param, param->normalPath, title, body, param->RotateSize, initDone);
    if ((type == eZLogWarning || type == eZLogError) && initDone) {
        _WriteAndMaybeRotate(*param, param->errorPath, title, body, param->RotateSize, initDone);
    }
    EchoToStdout(type, file, func, body);
}

void ZLogPrint::_BackupLogFile(const std::string& path) {
    const std::string gen1 = path + "1";
    const std::string gen2 = path + "2";
    if (access((gen1 + ".gz").c_str(), F_OK) == 0) {
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
    if (rename(path.c_str(), gen1.c_str()) != 0) {
        if (errno != ENOENT) {
            std::printf("Rename [%s] to [%s] failed[%s]\n", path.c_str(), gen1.c_str(),
                        std::strerror(errno));
        }
        return;
    }
    CompressFile(gen1);
}

eRtCode ZLogPrint::RerouteMsg(const std::set<std::string>& srcFiles, const std::string& basePath,
                              int rotateSize) {
    if (srcFiles.empty()) {
        ZLOG(eZLogError, "srcFiles is empty!\n");
        return RT_FAILURE;
    }
    auto param = std::make_shared<sLogParam>();
    _InitDestination(*param, basePath, rotateSize);
    std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& name : srcFiles) mDestinations[name] = param;
    return RT_SUCCESS;
}

void ZLogPrint::SetRotateSize(int rotateSize) {
    std::shared_ptr<sLogParam> param;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        param = mDestinations[kDefaultDestination];
    }
    std::lock_guard<std::mutex> lock(param->mutex);
    param->RotateSize = rotateSize;
}

std::string ZLogPrint::LogFilePath() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mDestinations[kDefaultDestination]->normalPath;
}

std::string ZLogPrint::AccessLogFilePath() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mDestinations[kDefaultDestination]->accessPath;
}

void ZLogPrint::SetDebugLevel(int level) { mDebugLevel.store(level); }
int ZLogPrint::GetDebugLevel() const { return mDebugLevel.load(); }

void ZLogPrint::EnableSchemaDebug(const char* name) {
    if (name == nullptr) return;
    std::lock_guard<std::mutex> lock(mMutex);
    mSchemaDebug.insert(name);
}

void ZLogPrint::ResetSchemaDebug() {
    std::lock_guard<std::mutex> lock(mMutex);
    mSchemaDebug.clear();
}

bool ZLogPrint::IsSchemaDebugEnabled() {
    std::lock_guard<std::mutex> lock(mMutex);
    return !mSchemaDebug.empty();
}

bool ZLogPrint::IsSchemaDebugEnabled(const char* name) {
    if (name == nullptr) return false;
    std::lock_guard<std::mutex> lock(mMutex);
    return mSchemaDebug.count(name) != 0;
}

void ZLogPrint::SetSummaryProvider(SummaryProvider provider) {
    std::lock_guard<std::mutex> lock(mMutex);
    mSummaryProvider = std::move(provider);
}

std::string ZLogPrint::GetTimeStamp() {
    // Seconds come from time() broken down as UTC; microseconds and the zone
    // from gettimeofday(). The sign is taken straight from minutes-west
    // (west-positive), which is what the existing log readers expect.
    time_t now = time(nullptr);
    struct tm tmv;
    gmtime_r(&now, &tmv);
    struct timeval tv;
    struct timezone tz;
    gettimeofday(&tv, &tz);
    int west = tz.tz_minuteswest;
    char sign = west < 0 ? '-' : '+';
    int absWest = west < 0 ? -west : west;
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%04d-%02d-%02dT%02d:%02d:%02d.%06ld%c%02d:%02d",
                  tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min,
                  tmv.tm_sec, static_cast<long>(tv.tv_usec), sign, absWest / 60, absWest % 60);
    return buf;
}

void ZLogPrint::BackupInitLogFiles() {
    std::vector<std::string> paths;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        std::set<std::string> seen;
        for (auto& kv : mDestinations) {
            for (const std::string* p : {&kv.second->normalPath, &kv.second->errorPath}) {
                if (!p->empty() && seen.insert(*p).second) paths.push_back(*p);
            }
        }
    }
    for (const auto& path : paths) {
        std::string initPath = path + "init";
        if (remove((initPath + ".gz").c_str()) != 0 && errno != ENOENT) {
            ZLOG(eZLogError, "Remove[%s] failed[%s]\n", (initPath + ".gz").c_str(),
                 std::strerror(errno));
        }
        if (remove(initPath.c_str()) != 0 && errno != ENOENT) {
            ZLOG(eZLogError, "Remove[%s] failed[%s]\n", initPath.c_str(), std::strerror(errno));
        }
        if (rename(path.c_str(), initPath.c_str()) != 0) {
            if (errno != ENOENT) {
                ZLOG(eZLogError, "Call rename( %s, %sinit ) failed[%s]\n", path.c_str(),
                     path.c_str(), std::strerror(errno));
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
    std::vector<std::shared_ptr<sLogParam>> params;
    std::shared_ptr<sLogParam> defaultParam;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        provider = mSummaryProvider;
        defaultParam = mDestinations[kDefaultDestination];
        std::set<sLogParam*> seen;
        for (auto& kv : mDestinations) {
            if (seen.insert(kv.second.get()).second) params.push_back(kv.second);
        }
    }
    std::string summary = "\n\n";
    summary += "================================================\n";
    if (provider) summary += provider();

    static const char kComment[] =
        "/**\n * Can set the log level to debug to print the last 500 debug messages.\n **/\n";

    for (auto& param : params) {
        std::lock_guard<std::mutex> lock(param->mutex);
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
        for (const auto& msg : param->msgCache) {
            ssize_t res = write(fd, msg.title.data(), msg.title.size());
            if (res < 0) {
                std::printf("Failed to write message title to log file[%s] res:%d\n",
                            param->normalPath.c_str(), static_cast<int>(res));
            }
            res = write(fd, msg.body.data(), msg.body.size());
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
    std::lock_guard<std::mutex> lock(mMutex);
    std::printf("LogParams: ");
    for (auto& kv : mDestinations) {
        std::printf("  |- File[%s] Param[%p]:\n", kv.first.c_str(),
                    static_cast<void*>(kv.second.get()));
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
    } else if (type != eZLogDebug && type != eZLogRaw && type != eZLogAccess) {
        // Before the service exists nothing configures debug output, so
        // only the lines that would pass a default filter are echoed.
        char buffer[kMessageBufferSize] = {};
        std::vsnprintf(buffer, sizeof(buffer), format, args);
        EchoToStdout(type, file, func, buffer);
    }
    va_end(args);
}

}  // namespace Orbel
