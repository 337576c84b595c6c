// String, value, platform-setting, clock, run-state and file helpers.
#include "Orbel.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "FixedPaths.h"
#include "ZLogPrint.h"
#include "proc_system.h"

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
