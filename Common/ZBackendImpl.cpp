// Backend helpers: platform flags, the per-schema work directory, e-mail check.
#include "ZBackendImpl.h"

#include <regex.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "FixedPaths.h"
#include "Orbel.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

// The platform words come with the product, not with the library: a build
// for a controller sets them (cmake/PlatformWords.cmake). The defaults are
// placeholders that no real platform reports.
#ifndef ORBEL_CODENAME_WORD_1
#define ORBEL_CODENAME_WORD_1 "CODENAME_A"
#endif
#ifndef ORBEL_CODENAME_WORD_2
#define ORBEL_CODENAME_WORD_2 "CODENAME_B"
#endif
#ifndef ORBEL_BLADED_FAMILY_WORD
#define ORBEL_BLADED_FAMILY_WORD "FAMILY_B"
#endif
#ifndef ORBEL_DENSE_FAMILY_WORD_1
#define ORBEL_DENSE_FAMILY_WORD_1 "FAMILY_D1"
#endif
#ifndef ORBEL_DENSE_FAMILY_WORD_2
#define ORBEL_DENSE_FAMILY_WORD_2 "FAMILY_D2"
#endif

namespace Orbel {

namespace {

// The flags compare fixed-length prefixes; a word of another length could
// never match as intended.
constexpr size_t kBladedLen = 8;
constexpr size_t kDenseLen = 9;
static_assert(sizeof(ORBEL_BLADED_FAMILY_WORD) - 1 == kBladedLen,
              "the bladed family word has 8 characters");
static_assert(sizeof(ORBEL_DENSE_FAMILY_WORD_1) - 1 == kDenseLen &&
                  sizeof(ORBEL_DENSE_FAMILY_WORD_2) - 1 == kDenseLen,
              "the dense family words have 9 characters");

constexpr size_t kEmailPartMax = 64;

// True when `path` has a component "..".
bool HasDotDot(const std::string& path) {
    for (const std::string& part : StringSplit(path, '/')) {
        if (part == "..") return true;
    }
    return false;
}

}  // namespace

const ZBackendImpl::sPlatformWords& ZBackendImpl::ConfiguredWords() {
    static const sPlatformWords words{{ORBEL_CODENAME_WORD_1, ORBEL_CODENAME_WORD_2},
                                      ORBEL_BLADED_FAMILY_WORD,
                                      {ORBEL_DENSE_FAMILY_WORD_1, ORBEL_DENSE_FAMILY_WORD_2}};
    return words;
}

ZBackendImpl::ZBackendImpl(ZSchema* owner) : mOwner(owner) {
    const sPlatformWords& words = ConfiguredWords();

    const char* flags = std::getenv("PLATFLAGS");
    if (flags == nullptr) {
        ZLOG(eZLogError, "getenv( PLATFLAGS ) return NULL\n");
    } else {
        // 64 bits, so a value above 0x7FFFFFFF reads the same on a 32-bit
        // controller as here.
        char* end = nullptr;
        errno = 0;
        unsigned long long value = std::strtoull(flags, &end, 16);
        if (end == flags || *end != '\0' || errno != 0) {
            ZLOG(eZLogWarning, "PLATFLAGS[%s] is not a hexadecimal number.\n", flags);
        }
        mIsAMD = (value & 0x8000ULL) != 0;
    }

    const char* codename = std::getenv("TARN_CODENAME");
    if (codename != nullptr) {
        for (const std::string& word : words.codenames) {
            if (word == codename) mIsMorwen = true;
        }
    }

    const char* family = std::getenv("FEN_FAMILY");
    if (family != nullptr) {
        mIsBladed = std::strncmp(family, words.bladedFamily.c_str(), kBladedLen) == 0;
        for (const std::string& word : words.denseFamilies) {
            if (std::strncmp(family, word.c_str(), kDenseLen) == 0) mIsDense = true;
        }
    }
}

ZBackendImpl::~ZBackendImpl() = default;

std::string ZBackendImpl::GetPlatformName() {
    const char* name = std::getenv("FEN_PLATFORM");
    if (name == nullptr) name = std::getenv("TARN_PLATFORM");
    if (name == nullptr) {
        ZLOG(eZLogError, "getenv( FEN_PLATFORM and TARN_PLATFORM ) return NULL\n");
        return std::string();
    }
    return name;
}

std::string ZBackendImpl::GetTempWorkDirPath() {
    MutexLock lock(mWorkDirMutex);
    if (!mTempWorkDir.empty()) return mTempWorkDir;
    if (mOwner == nullptr) {
        ZLOG(eZLogError, "Backend has no owner schema, so no work dir.\n");
        return std::string();
    }
    const std::string& schema = mOwner->GetName();
    if (schema.empty() || schema.find('/') != std::string::npos || !IsPureString(schema, false)) {
        ZLOG(eZLogError, "Schema name[%s] cannot name a work dir.\n", schema.c_str());
        return std::string();
    }
    std::string path = RedfishWorkDir() + schema + "/BackendImpl";
    // A restarted process starts with an empty directory.
    DelDirTree(path);
    if (CreateDirTree(path) != RT_SUCCESS) return std::string();  // logged
    ZLOG(eZLogInfo, "Create temp work dir[%s]\n", path.c_str());
    mTempWorkDir = path;
    return mTempWorkDir;
}

std::string ZBackendImpl::CreateATempWorkDir(const std::string& name) {
    if (name.find('/') != std::string::npos || !IsPureString(name, false)) {
        ZLOG(eZLogError, "Invalid temp work dir name[%s].\n", name.c_str());
        return std::string();
    }
    const std::string base = GetTempWorkDirPath();
    if (base.empty()) return std::string();

    // Reseeded with the current second on every call (kept on purpose: the
    // same name within one second names the same directory). The lock keeps
    // another thread's call from slipping between the seed and the draw.
    static Mutex randMutex;
    int number = 0;
    {
        MutexLock lock(randMutex);
        std::srand(static_cast<unsigned int>(std::time(nullptr)));
        number = std::rand();
    }
    std::string path = base + "/" + name + "_" + std::to_string(number);
    DelDirTree(path);
    if (mkdir(path.c_str(), 0755) != 0) {
        ZLOG(eZLogError, "Failed to call mkdir(%s) errno(%d)\n", path.c_str(), errno);
    }
    return path;
}

eRtCode ZBackendImpl::RemoveTempWorkDir(const std::string& path) {
    std::string base;
    {
        MutexLock lock(mWorkDirMutex);
        base = mTempWorkDir;
    }
    // A plug-in's stray path must never remove anything outside its own
    // scratch space (the process runs as root on the controller).
    if (base.empty() || path.size() <= base.size() + 1 || path.compare(0, base.size(), base) != 0 ||
        path[base.size()] != '/' || HasDotDot(path)) {
        ZLOG(eZLogError, "Refuse to remove [%s]: not inside the temp work dir[%s].\n", path.c_str(),
             base.c_str());
        return RT_FAILURE;
    }
    return DelDirTree(path);
}

bool ZBackendImpl::IsValidEmailFormat(const char* address) {
    if (address == nullptr) return false;
    const char* at = std::strchr(address, '@');
    if (at == nullptr) return false;
    const size_t localLen = static_cast<size_t>(at - address);
    if (localLen == 0 || localLen > kEmailPartMax) return false;
    if (std::strlen(at + 1) > kEmailPartMax) return false;

    regex_t re;
    if (regcomp(&re, "^[a-zA-Z0-9_\\.\\-]+@[a-zA-Z0-9_\\-]+(\\.[a-zA-Z0-9_\\-]+)+$",
                REG_EXTENDED | REG_NOSUB) != 0) {
        ZLOG(eZLogError, "Failed to compile the e-mail expression.\n");
        return false;
    }
    const bool ok = regexec(&re, address, 0, nullptr, 0) == 0;
    regfree(&re);
    return ok;
}

}  // namespace Orbel
