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
#include <exception>
#include <mutex>
#include <sstream>
#include <string_view>

#include "FixedPaths.h"
#include "Orbel_TextScan.h"
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
    if (buf == nullptr || textscan::AllPrintable(buf, len)) return true;
    // The listing names the first few bytes only: a large value of control
    // bytes must not cost one log call per byte.
    constexpr unsigned int kListedBytes = 16;
    unsigned int bad = 0;
    for (unsigned int i = 0; i < len; ++i) {
        unsigned char ch = static_cast<unsigned char>(buf[i]);
        if (ch >= 0x20 && ch <= 0x7E) continue;
        if (!verbose) return false;
        if (bad++ < kListedBytes) {
            ZLOGM("ZComLib", eZLogRaw, "  idx(%u) char[0x%X] is not a printable char.\n", i,
                  static_cast<unsigned int>(ch));
        }
    }
    if (bad > kListedBytes) {
        ZLOGM("ZComLib", eZLogRaw, "  ... %u non-printable chars in all.\n", bad);
    }
    return bad == 0;
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

namespace {

bool IsDigit(char ch) { return ch >= '0' && ch <= '9'; }

// Printable in the C locale, whatever locale the process has set.
bool IsPrintableByte(char ch) {
    unsigned char uc = static_cast<unsigned char>(ch);
    return uc >= 0x20 && uc <= 0x7E;
}

bool IsStripped(char ch, const std::string& chars) {
    return !IsPrintableByte(ch) || chars.find(ch) != std::string::npos;
}

// The bytes above 0x7E are text when they make a well-formed UTF-8
// character: a strip keeps such a character whole, and drops only stray
// bytes (and control bytes, and `chars`).
// Length of the character that ends at s[end - 1], 0 when those bytes are
// not the end of one.
size_t Utf8CharEndingAt(const std::string& s, size_t end) {
    for (size_t len = 2; len <= 4 && len <= end; ++len) {
        const unsigned char lead = static_cast<unsigned char>(s[end - len]);
        if (lead < 0x80 || lead > 0xBF) return Utf8CharLength(s, end - len) == len ? len : 0;
    }
    return 0;
}

}  // namespace

bool IsSignedNumString(const std::string& s) {
    if (s.empty()) return false;
    // A lone "-" passes on purpose: template verification has always treated
    // it so, and tightening it would change which requests are accepted.
    size_t i = s[0] == '-' ? 1 : 0;
    for (; i < s.size(); ++i) {
        if (!IsDigit(s[i])) return false;
    }
    return true;
}

bool IsUnsignedNumString(const std::string& s) {
    if (s.empty() || s[0] == '-') return false;
    for (char ch : s) {
        if (!IsDigit(ch)) return false;
    }
    return true;
}

bool IsFloatString(const std::string& s) {
    if (s.empty()) return false;
    bool seenDot = false;
    for (size_t i = s[0] == '-' ? 1 : 0; i < s.size(); ++i) {
        if (s[i] == '.') {
            if (seenDot) return false;
            seenDot = true;
        } else if (!IsDigit(s[i])) {
            return false;
        }
    }
    return true;
}

eRtCode BoolStr2Value(const std::string& s, bool& out) {
    if (s == "true") {
        out = true;
        return RT_SUCCESS;
    }
    if (s == "false") {
        out = false;
        return RT_SUCCESS;
    }
    return RT_FAILURE;
}

bool IsProtocolPortValid(int port) { return port >= 1 && port <= 65535; }

bool IsProtocolPortValid(const std::string& port) {
    if (port.empty()) return false;
    // Accumulate by hand and stop as soon as the value leaves the port range,
    // so a long run of digits can neither overflow nor throw.
    long value = 0;
    for (char ch : port) {
        if (!IsDigit(ch)) return false;
        if (value <= 65535) value = value * 10 + (ch - '0');
    }
    return value <= 65535 && IsProtocolPortValid(static_cast<int>(value));
}

std::string StringLeftStrip(const std::string& s, const std::string& chars) {
    size_t begin = 0;
    while (begin < s.size() && IsStripped(s[begin], chars) && Utf8CharLength(s, begin) < 2) {
        ++begin;
    }
    return s.substr(begin);
}

std::string StringRightStrip(const std::string& s, const std::string& chars) {
    size_t end = s.size();
    while (end > 0 && IsStripped(s[end - 1], chars) &&
           (static_cast<unsigned char>(s[end - 1]) < 0x80 || Utf8CharEndingAt(s, end) == 0)) {
        --end;
    }
    return s.substr(0, end);
}

size_t Utf8CharLength(const std::string& s, size_t i) {
    if (i >= s.size()) return 0;
    const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char b0 = b(i);
    if (b0 < 0x80) return 1;
    size_t len = 0;
    unsigned char lo = 0x80, hi = 0xBF;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3;
        if (b0 == 0xE0) lo = 0xA0;
        if (b0 == 0xED) hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4;
        if (b0 == 0xF0) lo = 0x90;
        if (b0 == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (i + len > s.size()) return 0;
    if (b(i + 1) < lo || b(i + 1) > hi) return 0;
    for (size_t k = 2; k < len; ++k) {
        if (b(i + k) < 0x80 || b(i + k) > 0xBF) return 0;
    }
    return len;
}

int StringFindChar(unsigned int start, const std::string& s, const std::string& chars) {
    for (size_t i = start; i < s.size(); ++i) {
        if (chars.find(s[i]) != std::string::npos) return static_cast<int>(i);
    }
    return -1;
}

std::vector<std::string> StringSplit(const std::string& s, char delim) {
    std::vector<std::string> pieces;
    std::istringstream in(s);
    std::string piece;
    while (std::getline(in, piece, delim)) pieces.push_back(piece);
    return pieces;
}

std::string StringEscapeCorrect(const std::string& s, bool escapeQuestion) {
    std::string out;
    out.reserve(s.size() + s.size() / 8);
    for (char ch : s) {
        if (ch == '\\' || ch == '"' || (escapeQuestion && ch == '?')) out += '\\';
        out += ch;
    }
    return out;
}

std::string StringEscapeRevert(const std::string& s) {
    if (s.empty()) return s;
    // A plain pairwise walk: a backslash is dropped whenever the next byte is
    // a backslash or a quote, and the walk does not skip that next byte. So
    // an escaped backslash followed by an escaped quote (four bytes) reverts
    // to a lone quote, and an escaped '?' is never reverted. Readers of
    // stored texts depend on exactly this, asymmetries included.
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i + 1 < s.size(); ++i) {
        if (s[i] == '\\' && (s[i + 1] == '\\' || s[i + 1] == '"')) continue;
        out += s[i];
    }
    out += s.back();
    return out;
}

const char* const kSecretMask = "******";

namespace {

// Whether `text` holds `word` (lower case ASCII) in any case. The words are
// ASCII, so folding ASCII letters is all a match needs.
bool ContainsFolded(std::string_view text, std::string_view word) {
    const auto fold = [](char ch) {
        return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    };
    for (size_t i = 0; i + word.size() <= text.size(); ++i) {
        size_t k = 0;
        while (k < word.size() && fold(text[i + k]) == word[k]) ++k;
        if (k == word.size()) return true;
    }
    return false;
}

}  // namespace

bool IsSecretLikeName(const std::string& name) {
    struct Word {
        std::string_view word;
        std::initializer_list<std::string_view> exceptions;
    };
    static const Word kWords[] = {
        {"password", {"passwordname"}},
        {"passphrase", {}},
        {"key", {"keystype", "keytype", "keylength", "keycurveid", "keypairalgorithm", "keyusage"}},
        {"token", {}},
        {"secret", {}},
        {"ciphercode", {}},
    };
    // Asked of every property of every request's access line: no copy.
    std::string_view last(name);
    const size_t slash = last.rfind('/');
    if (slash != std::string_view::npos) last.remove_prefix(slash + 1);
    for (const Word& w : kWords) {
        if (!ContainsFolded(last, w.word)) continue;
        for (std::string_view ex : w.exceptions) {
            if (ContainsFolded(last, ex)) return false;
        }
        return true;
    }
    return false;
}

const char* MaskSecretValue(const std::string& name, const char* value) {
    if (IsSecretLikeName(name)) return kSecretMask;
    return value ? value : "(null)";
}

bool RegExpCompare(const std::string& pattern, const std::string& text) {
    regex_t compiled;
    if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED) != 0) return false;
    bool matched = RegExpCompare(&compiled, text);
    regfree(&compiled);
    return matched;
}

bool RegExpCompare(const regex_t* compiled, const std::string& text) {
    if (compiled == nullptr) return false;
    regmatch_t match[1];
    return regexec(compiled, text.c_str(), 1, match, 0) == 0;
}

std::regex* NewRegExpPattern(const std::string& pattern) {
    try {
        return new std::regex(pattern, std::regex::ECMAScript);
    } catch (const std::regex_error& e) {
        ZLOG(eZLogError, "std::regex( %s ) caught: err[%d]:[%s].\n",
             StringEscapeCorrect(pattern, true).c_str(), static_cast<int>(e.code()), e.what());
    } catch (const std::exception& e) {
        // Out of memory or a pattern too complex for the library: same report,
        // no regex error code to give.
        ZLOG(eZLogError, "std::regex( %s ) caught: err[%d]:[%s].\n",
             StringEscapeCorrect(pattern, true).c_str(), -1, e.what());
    }
    return nullptr;
}

bool IsACorvelMetaKey(const std::string& key, std::string* name, std::string* target,
                      bool* isLink) {
    // Every write of a node asks this of its property name, and the search
    // for a stored node of every candidate: views, no copies.
    const std::string_view text(key);
    if (text.size() < 2 || text[0] != '&' || text[1] != '&') return false;
    const size_t blank = text.find(' ');
    if (blank == std::string_view::npos) return false;
    const std::string_view type = text.substr(0, blank);
    if (type != "&&Object" && type != "&&Array" && type != "&&ArraySimple" &&
        type != "&&ObjectRef") {
        return false;
    }

    const std::string_view rest = text.substr(blank + 1);
    if (rest.empty()) return false;
    std::string_view outName;
    std::string_view outTarget = rest;
    // A list element names no property, only the node it links (or, with no
    // second blank, a plain text it links).
    if (rest.compare(0, 2, "&&") != 0 && rest[0] != '/') {
        const size_t split = rest.find(' ');
        if (split != std::string_view::npos) {
            outName = rest.substr(0, split);
            outTarget = rest.substr(split + 1);
            if (outTarget.empty()) return false;
        }
    }
    if (name != nullptr) name->assign(outName);
    if (target != nullptr) target->assign(outTarget);
    if (isLink != nullptr) *isLink = type == "&&ObjectRef";
    return true;
}

eRtCode NumStrArray2File(const unsigned char* data, unsigned int length, const std::string& path) {
    if (data == nullptr && length > 0) {
        ZLOG(eZLogError, "Null data with length %u for file[%s]\n", length, path.c_str());
        return RT_FAILURE;
    }
    // The same layout as the store's binary lists: decimal byte values
    // separated by one blank, one line.
    std::string text;
    text.reserve(static_cast<size_t>(length) * 4 + 1);
    for (unsigned int i = 0; i < length; ++i) {
        if (i > 0) text += ' ';
        text += std::to_string(static_cast<unsigned int>(data[i]));
    }
    text += '\n';

    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        ZLOG(eZLogError, "Open file[%s] for writing failed[%s]\n", path.c_str(),
             std::strerror(errno));
        return RT_FAILURE;
    }
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = std::fclose(f) == 0 && ok;
    if (!ok) {
        ZLOG(eZLogError, "Write file[%s] failed[%s]\n", path.c_str(), std::strerror(errno));
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

int File2NumStrArray(const std::string& path, char** data) {
    if (data == nullptr) {
        ZLOG(eZLogError, "Null output for file[%s]\n", path.c_str());
        return -1;
    }
    *data = nullptr;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        ZLOG(eZLogError, "Open file[%s] for reading failed[%s]\n", path.c_str(),
             std::strerror(errno));
        return -1;
    }
    std::string text;
    char chunk[4096];
    size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0) text.append(chunk, n);
    bool readError = std::ferror(f) != 0;
    std::fclose(f);
    if (readError) {
        ZLOG(eZLogError, "Read file[%s] failed\n", path.c_str());
        return -1;
    }

    // Only what NumStrArray2File writes is accepted: canonical decimal
    // numbers 0..255 (no sign, no leading zero), one blank between them, one
    // final "\n". Anything else means the file is not ours or was cut short.
    std::vector<char> bytes;
    size_t pos = 0;
    const size_t end = text.empty() || text.back() != '\n' ? std::string::npos : text.size() - 1;
    if (end == std::string::npos) {
        ZLOG(eZLogError, "File[%s] is not a byte array: no line end\n", path.c_str());
        return -1;
    }
    while (pos < end) {
        size_t tokenEnd = pos;
        unsigned int value = 0;
        while (tokenEnd < end && IsDigit(text[tokenEnd]) && tokenEnd - pos < 4) {
            value = value * 10 + static_cast<unsigned int>(text[tokenEnd] - '0');
            ++tokenEnd;
        }
        size_t tokenLen = tokenEnd - pos;
        bool canonical =
            tokenLen > 0 && tokenLen <= 3 && value <= 255 && !(tokenLen > 1 && text[pos] == '0');
        bool separated = tokenEnd == end || (text[tokenEnd] == ' ' && tokenEnd + 1 < end);
        if (!canonical || !separated) {
            ZLOG(eZLogError, "File[%s] is not a byte array: bad text at offset %u\n", path.c_str(),
                 static_cast<unsigned int>(pos));
            return -1;
        }
        bytes.push_back(static_cast<char>(value));
        pos = tokenEnd == end ? end : tokenEnd + 1;
    }

    // Always a buffer, even for no bytes, so a non-null *data means success.
    char* out = new char[bytes.empty() ? 1 : bytes.size()]();
    if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
    *data = out;
    return static_cast<int>(bytes.size());
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
                // The errno mkdir gave: EEXIST here means a file stands
                // where a directory should be.
                ZLOG(eZLogError, "Failed to call mkdir(%s) errno(%d)\n", partial.c_str(), err);
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
