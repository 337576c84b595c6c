// String, value, platform-setting, clock, run-state and file helpers.
#include "Orbel.h"

#include <dirent.h>
#include <fcntl.h>
#include <paths.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "FixedPaths.h"
#include "ZLogPrint.h"
#include "koba.h"
#include "proc_system.h"
#include "tarn_clock.h"
#include "vex.h"

namespace Orbel {

// ---------------------------------------------------------------------------
// Printable text
// ---------------------------------------------------------------------------

bool _IsPureString(const char* buf, unsigned int len, bool verbose) {
    if (buf == nullptr) return true;
    bool pure = true;
    for (unsigned int i = 0; i < len; ++i) {
        unsigned char ch = static_cast<unsigned char>(buf[i]);
        if (ch >= 0x20 && ch <= 0x7E) continue;
        if (!verbose) return false;
        pure = false;
        ZLOGM("ZComLib", eZLogRaw, "  idx(%u) char[0x%X] is not a printable char.\n", i,
              static_cast<unsigned int>(ch));
    }
    return pure;
}

bool IsPureString(const char* s, bool verbose) {
    if (s == nullptr) return true;
    bool pure = _IsPureString(s, static_cast<unsigned int>(std::strlen(s)), verbose);
    if (verbose && !pure) ZLOGM("ZComLib", eZLogRaw, "Error: [%s] is not pure string!\n", s);
    return pure;
}

bool IsPureString(const unsigned char* s, bool verbose) {
    std::string copy = s != nullptr ? std::string(reinterpret_cast<const char*>(s)) : std::string();
    return IsPureString(copy, verbose);
}

bool IsPureString(const std::string& s, bool verbose) {
    bool pure = _IsPureString(s.data(), static_cast<unsigned int>(s.size()), verbose);
    if (verbose && !pure) ZLOGM("ZComLib", eZLogRaw, "Error: [%s] is not pure string!\n", s.c_str());
    return pure;
}

// ---------------------------------------------------------------------------
// Numbers, booleans, stripping, splitting, escaping, regular expressions,
// meta keys, byte arrays in files
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// VEX and KOBA settings, controller clock, run level, controller state
// ---------------------------------------------------------------------------

// The failure texts below are read by people and tools that watch the logs;
// each wrapper logs under its own name, so the text is written out in each.

eRtCode GetVEX(const std::string& name, bool& value, bool quiet) {
    // Callers poll flags such as "nginx_redfish_ready" and take a failed
    // read as "not yet": the reset makes that the natural result.
    value = false;
    int v = 0;
    if (vex_config_get_bool(name.c_str(), &v) == 0) {
        if (!quiet) ZLOG(eZLogError, "Get vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    value = v != 0;
    return RT_SUCCESS;
}

eRtCode GetVEX(const std::string& name, int& value, bool quiet) {
    int v = 0;
    if (vex_config_get_int(name.c_str(), &v) == 0) {
        if (!quiet) ZLOG(eZLogError, "Get vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    value = v;
    return RT_SUCCESS;
}

eRtCode GetVEX(const std::string& name, long long& value, bool quiet) {
    long long v = 0;
    if (vex_config_get_int64(name.c_str(), &v) == 0) {
        if (!quiet) ZLOG(eZLogError, "Get vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    value = v;
    return RT_SUCCESS;
}

eRtCode GetVEX(const std::string& name, std::string& value, bool quiet) {
    char buffer[1024] = {};
    if (vex_config_get_str_n(name.c_str(), buffer, static_cast<int>(sizeof(buffer))) == 0) {
        if (!quiet) ZLOG(eZLogError, "Get vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    buffer[sizeof(buffer) - 1] = '\0';
    value = buffer;
    return RT_SUCCESS;
}

eRtCode GetVEX(const std::string& name, char* buffer, int size, bool quiet) {
    if (buffer == nullptr || size <= 0 || vex_config_get_str_n(name.c_str(), buffer, size) == 0) {
        if (!quiet) ZLOG(eZLogError, "Get vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetVEX(const std::string& name, bool value, bool persist, bool quiet) {
    if (vex_config_set_bool(name.c_str(), value ? 1 : 0, persist ? 1 : 0) == 0) {
        if (!quiet) ZLOG(eZLogError, "Set vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetVEX(const std::string& name, int value, bool persist, bool quiet) {
    if (vex_config_set_int(name.c_str(), value, persist ? 1 : 0) == 0) {
        if (!quiet) ZLOG(eZLogError, "Set vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetVEX(const std::string& name, long long value, bool persist, bool quiet) {
    if (vex_config_set_int64(name.c_str(), value, persist ? 1 : 0) == 0) {
        if (!quiet) ZLOG(eZLogError, "Set vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetVEX(const std::string& name, const std::string& value, bool persist, bool quiet) {
    if (vex_config_set_str_n(name.c_str(), value.c_str(), static_cast<int>(value.size()),
                             persist ? 1 : 0) == 0) {
        if (!quiet) ZLOG(eZLogError, "Set vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetVEX(const std::string& name, const char* value, bool persist, bool quiet) {
    // A null value is never handed to the platform, whose behaviour on it
    // is not ours to rely on; it fails like a refused set.
    if (value == nullptr ||
        vex_config_set_str_n(name.c_str(), value, static_cast<int>(std::strlen(value)),
                             persist ? 1 : 0) == 0) {
        if (!quiet) ZLOG(eZLogError, "Set vex[%s] variable failed\n", name.c_str());
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

namespace {

// The store's instance selectors: the controller's own instance.
constexpr int kKobaInst0 = -1;
constexpr int kKobaInst1 = 0;
constexpr int kKobaInst2 = 0;
constexpr int kKobaInst3 = 0;

// Room for every string the store holds in practice; values set through
// SetKOBA are at most 511 bytes.
constexpr int kKobaStringReadSize = 1024;
constexpr size_t kKobaStringWriteSize = 512;

}  // namespace

eRtCode GetKOBA(const std::string& name, unsigned int& value) {
    int err = 0;
    unsigned int v = 0;
    if (GetVarValueUINT(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err, &v) !=
        0) {
        ZLOG(eZLogError, "Get kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        return RT_FAILURE;
    }
    value = v;
    return RT_SUCCESS;
}

eRtCode GetKOBA(const std::string& name, int& value) {
    int err = 0;
    int v = 0;
    if (GetVarValueSINT(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err, &v) !=
        0) {
        ZLOG(eZLogError, "Get kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        return RT_FAILURE;
    }
    value = v;
    return RT_SUCCESS;
}

eRtCode GetKOBA(const std::string& name, bool& value) {
    int err = 0;
    int v = 0;
    if (GetVarValueBOOL(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err, &v) !=
        0) {
        ZLOG(eZLogError, "Get kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        return RT_FAILURE;
    }
    value = v != 0;
    return RT_SUCCESS;
}

eRtCode GetKOBA(const std::string& name, char* buffer, int size) {
    int err = 0;
    if (GetVarValueSTRING(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err,
                          buffer, size) != 0) {
        ZLOG(eZLogError, "Get kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode GetKOBA(const std::string& name, std::string& value) {
    int err = 0;
    char buffer[kKobaStringReadSize] = {};
    if (GetVarValueSTRING(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err,
                          buffer, kKobaStringReadSize) != 0) {
        ZLOG(eZLogError, "Get kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        return RT_FAILURE;
    }
    buffer[kKobaStringReadSize - 1] = '\0';
    value = buffer;
    return RT_SUCCESS;
}

eRtCode SetKOBA(const std::string& name, unsigned int value) {
    int err = 0;
    if (SetVarValueUINT(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err,
                        value) != 0) {
        ZLOG(eZLogError, "Set kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetKOBA(const std::string& name, int value) {
    int err = 0;
    if (SetVarValueSINT(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err,
                        value) != 0) {
        ZLOG(eZLogError, "Set kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetKOBA(const std::string& name, bool value) {
    int err = 0;
    if (SetVarValueBOOL(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err,
                        value ? 1 : 0) != 0) {
        // A type clash is the usual mistake (a flag kept as a number or a
        // text), so it gets a line of its own.
        if (err == KOBA_ERR_FORMAT) {
            ZLOG(eZLogError, "Set kobaName[%s] format error.\n", name.c_str());
        } else {
            ZLOG(eZLogError, "Set kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        }
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetKOBA(const std::string& name, const std::string& value) {
    int err = 0;
    // The store takes at most 511 bytes of text; longer values are cut here.
    char buffer[kKobaStringWriteSize];
    std::snprintf(buffer, sizeof(buffer), "%s", value.c_str());
    if (SetVarValueSTRING(kKobaInst0, kKobaInst1, kKobaInst2, kKobaInst3, name.c_str(), &err,
                          buffer) != 0) {
        if (err == KOBA_ERR_FORMAT) {
            ZLOG(eZLogError, "Set kobaName[%s] format error.\n", name.c_str());
        } else {
            ZLOG(eZLogError, "Set kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(), err);
        }
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode SetKOBA(const std::string& name, const char* value) {
    if (value == nullptr) {
        // Refused the way the store refuses an unusable buffer.
        ZLOG(eZLogError, "Set kobaName[%s] failed!! ErrCode=%d.\n", name.c_str(),
             static_cast<int>(KOBA_ERR_BUFFER));
        return RT_FAILURE;
    }
    return SetKOBA(name, std::string(value));
}

eRtCode GetTarnClock(std::string& dateTime, std::string& zone) {
    struct tm tm;
    std::memset(&tm, 0, sizeof(tm));
    char zoneText[16] = {};
    int rc = getTarnClock(&tm, zoneText, static_cast<int>(sizeof(zoneText)));
    if (rc != 0) {
        ZLOG(eZLogWarning, "Get Tarn Clock, return:%d\n", rc);
        return RT_FAILURE;
    }
    zoneText[sizeof(zoneText) - 1] = '\0';
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d%s", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, zoneText);
    dateTime = text;
    zone = zoneText;
    return RT_SUCCESS;
}

int GetSysRunLevel() {
    // The utmp reader keeps one cursor per process inside the C library.
    static std::mutex utmpMutex;
    std::lock_guard<std::mutex> lock(utmpMutex);
    // The system's utmp file, relocated like every fixed path so a
    // development host or a test can supply its own.
    std::string path = SysrootPath(_PATH_UTMP);
    if (utmpname(path.c_str()) != 0) return 0;
    int level = 0;
    setutent();
    while (struct utmp* record = getutent()) {
        if (record->ut_type == RUN_LVL) {
            level = record->ut_pid & 0xF;
            if (level > 7) level = 7;
            break;
        }
    }
    endutent();
    return level;
}

bool IsTARNShuttingDown() {
    FILE* marker = std::fopen(ShuttingDownMarkerPath().c_str(), "r");
    if (marker == nullptr) return false;
    std::fclose(marker);
    return true;
}

// ---------------------------------------------------------------------------
// Clock and timing
// ---------------------------------------------------------------------------

uint32_t MiniTimeTick() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    // Unsigned arithmetic: the product wraps modulo 2^32 on every target.
    return static_cast<uint32_t>(ts.tv_sec) * 1000u + static_cast<uint32_t>(ts.tv_nsec / 1000000);
}

void MyMSleep(unsigned int ms) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ms / 1000);
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// ---------------------------------------------------------------------------
// Files and directories
// ---------------------------------------------------------------------------

bool _PathIsDir(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

eRtCode CreateDirTree(const std::string& path) {
    if (path.empty()) return RT_FAILURE;
    std::string partial;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        partial = path.substr(0, next);
        if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0) {
            int err = errno;
            if (err != EEXIST || !_PathIsDir(partial)) {
                ZLOG(eZLogError, "Failed to call mkdir(%s) errno(%d)\n", partial.c_str(),
                     err == EEXIST ? ENOTDIR : err);
                return RT_FAILURE;
            }
        }
        pos = next + 1;
    }
    return RT_SUCCESS;
}

eRtCode DelDirTree(const std::string& path) {
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return RT_SUCCESS;  // missing or unreadable: left alone
    while (struct dirent* entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        char child[512];
        int n = std::snprintf(child, sizeof(child), "%s/%s", path.c_str(), entry->d_name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(child)) continue;
        struct stat st;
        if (lstat(child, &st) == 0 && S_ISDIR(st.st_mode)) {
            DelDirTree(child);
        } else {
            unlink(child);
        }
    }
    closedir(dir);
    rmdir(path.c_str());
    return RT_SUCCESS;
}

bool IsFileExisted(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "r+");
    if (f == nullptr) return false;
    std::fclose(f);
    return true;
}

eRtCode CompressFile(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr) return RT_FAILURE;
    std::fclose(f);
    char cmd[1024];
    int n = std::snprintf(cmd, sizeof(cmd), "/bin/gzip -f %s", path.c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof(cmd)) return RT_FAILURE;
    return proc_system(cmd) == 0 ? RT_SUCCESS : RT_FAILURE;
}

int TouchFile(const std::string& path, bool truncate) {
    if (!IsPureString(path, false)) return -1;
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && CreateDirTree(path.substr(0, slash)) != RT_SUCCESS) {
        return RT_FAILURE;
    }
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (truncate ? O_TRUNC : O_APPEND);
    int fd = open(path.c_str(), flags, 0644);
    if (fd < 0) return RT_FAILURE;
    close(fd);
    return RT_SUCCESS;
}

}  // namespace Orbel
