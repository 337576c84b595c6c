// File helpers, name rules and text parsers of the simulated platform.
#include "SimStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace OrbelSim {

namespace {

constexpr size_t kMaxFileSize = 1024 * 1024;

void DropOneNewline(std::string& text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
}

bool AllDigits(const std::string& text, size_t from) {
    if (from >= text.size()) return false;
    for (size_t i = from; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
    }
    return true;
}

}  // namespace

std::string Sysroot() {
    // Same rule as the library's fixed paths, so both agree on one tree.
    const char* root = std::getenv("ORBEL_SYSROOT");
    if (root == nullptr || root[0] == '\0') return std::string();
    std::string s(root);
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    if (s == "/") return std::string();
    return s;
}

std::string SysrootPath(const std::string& fixedPath) {
    return Sysroot() + fixedPath;
}

bool IsValidName(const char* name) {
    if (name == nullptr || name[0] == '\0' || name[0] == '.') return false;
    size_t len = strnlen(name, NAME_MAX + 1);
    if (len > NAME_MAX) return false;
    return std::memchr(name, '/', len) == nullptr;
}

bool MakeDirs(const std::string& dir) {
    if (dir.empty()) return false;
    size_t pos = 0;
    while (pos <= dir.size()) {
        size_t next = dir.find('/', pos);
        if (next == std::string::npos) next = dir.size();
        std::string partial = dir.substr(0, next);
        if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
        pos = next + 1;
    }
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool ReadRegularFile(const std::string& path, std::string& out, int* errnoOut) {
    int dummy = 0;
    int& err = errnoOut != nullptr ? *errnoOut : dummy;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        err = errno;
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        err = errno;
        close(fd);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        close(fd);
        return false;
    }
    std::string data;
    char chunk[4096];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            err = errno;
            close(fd);
            return false;
        }
        if (n == 0) break;
        if (data.size() + static_cast<size_t>(n) > kMaxFileSize) {
            err = EFBIG;
            close(fd);
            return false;
        }
        data.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    out.swap(data);
    err = 0;
    return true;
}

bool WriteFileAtomic(const std::string& path, const std::string& data) {
    size_t slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash);
    if (slash != std::string::npos && slash > 0 && !MakeDirs(dir)) return false;

    // Unique per process and per call, so concurrent writers never share a
    // temp file; short, so a name of NAME_MAX bytes still has room; the
    // leading "." keeps it out of every listing.
    static std::atomic<unsigned> sequence{0};
    std::string tmp = dir + "/.tmp." + std::to_string(getpid()) + "." +
                      std::to_string(sequence.fetch_add(1));
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            close(fd);
            unlink(tmp.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0 || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

std::vector<std::string> ListNames(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (struct dirent* entry = readdir(d)) {
        if (!IsValidName(entry->d_name)) continue;
        struct stat st;
        std::string path = dir + "/" + entry->d_name;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) names.emplace_back(entry->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

bool ParseBool(std::string text, bool& out) {
    DropOneNewline(text);
    if (text == "true" || text == "1") {
        out = true;
        return true;
    }
    if (text == "false" || text == "0") {
        out = false;
        return true;
    }
    return false;
}

bool ParseInt64(std::string text, long long& out) {
    DropOneNewline(text);
    if (!AllDigits(text, !text.empty() && text[0] == '-' ? 1 : 0)) return false;
    errno = 0;
    long long v = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE) return false;
    out = v;
    return true;
}

bool ParseInt32(const std::string& text, int& out) {
    long long v = 0;
    if (!ParseInt64(text, v) || v < INT_MIN || v > INT_MAX) return false;
    out = static_cast<int>(v);
    return true;
}

bool ParseUInt32(std::string text, unsigned int& out) {
    DropOneNewline(text);
    if (!AllDigits(text, 0)) return false;
    errno = 0;
    unsigned long long v = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE || v > UINT_MAX) return false;
    out = static_cast<unsigned int>(v);
    return true;
}

std::string ShuttingDownMarkerPath() {
    return SysrootPath("/tmp/.shutting-down-tarn");
}
std::string ClockFaultPath() {
    return SysrootPath("/run/tarnclock/fault");
}

}  // namespace OrbelSim
