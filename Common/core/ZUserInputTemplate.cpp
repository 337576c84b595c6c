// User-input templates: loading, the shared caches and their release, the
// dumps. The parser is in ZUserInputTemplate_Parse.cpp.
#include "ZUserInputTemplate.h"

#include <charconv>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "FixedPaths.h"
#include "ZApplication.h"
#include "ZLogPrint.h"

namespace Orbel {

namespace {

// A loaded cache and what belongs to it, shared by the templates that serve it.
struct sSharedCache {
    uint32_t owners = 0;                   // templates serving the cache
    std::vector<std::string> required[3];  // create, patch, action
};

Mutex& SharedMutex() {
    static Mutex mutex;
    return mutex;
}
// Lock order: a template's mMutex, then SharedMutex().
std::map<UsrInTemplateCache*, sSharedCache>& SharedCaches() REQUIRES(SharedMutex()) {
    static auto* table = new std::map<UsrInTemplateCache*, sSharedCache>();
    return *table;
}

// A template file larger than this is refused rather than read into memory.
constexpr std::streamoff kMaxFileSize = 16 * 1024 * 1024;

int RequiredIndex(eReqMethod method) {
    switch (method) {
        case eReqCreate:
            return 0;
        case eReqUpdate:
            return 1;
        case eReqAction:
            return 2;
        default:
            return -1;
    }
}

void AppendWords(std::string& text, const char* title, uint32_t bits,
                 const std::pair<uint32_t, const char*>* words, size_t count) {
    text += title;
    for (size_t i = 0; i < count; ++i) {
        if ((bits & words[i].first) != 0) {
            text += ' ';
            text += words[i].second;
        }
    }
    text += '\n';
}

std::string Format(const char* format, ...) ORBEL_PRINTF(1, 2);
std::string Format(const char* format, ...) {
    char buf[512];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof(buf), format, args);
    va_end(args);
    return buf;
}

// Logs a dump line by line (a log line holds at most 2048 bytes).
void LogDump(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(start, end - start);
        ZLOGM("ZComLib", eZLogRaw, "%s", line.c_str());
        start = end;
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction, loading, sharing
// ---------------------------------------------------------------------------

ZUserInputTemplate::ZUserInputTemplate(ZSchema* owner, std::string* name, bool multiExtInfoMode)
    : mOwner(owner),
      mName(name != nullptr ? *name : std::string()),
      mFilePath(mName.empty() ? std::string() : UserInputTemplateDir() + mName + ".dat"),
      mMultiExtInfoMode(multiExtInfoMode) {
    if (!mName.empty()) mLoadResult = _LoadUsrInTemplateFile();
}

ZUserInputTemplate::~ZUserInputTemplate() {
    MutexLock lock(mMutex);
    if (mPins != 0) {
        ZLOG(eZLogWarning, "Template[%s] is deleted while %u readers pin its cache.\n",
             mName.c_str(), static_cast<unsigned>(mPins));
    }
    _ReleaseOwnCache();
}

eRtCode ZUserInputTemplate::_LoadUsrInTemplateFile() {
    std::ifstream file(mFilePath, std::ios::binary);
    if (!file.is_open()) {
        ZLOG(eZLogError, "Failed to open user input template file[%s].\n", mFilePath.c_str());
        return RT_FAILURE;
    }
    file.seekg(0, std::ios::end);
    const std::streamoff size = file.tellg();
    file.seekg(0, std::ios::beg);
    if (size < 0 || size > kMaxFileSize) {
        ZLOG(eZLogError, "UsrInTemplate[%s] is larger than %" PRId64 " bytes.\n", mFilePath.c_str(),
             static_cast<int64_t>(kMaxFileSize));
        return RT_FAILURE;
    }
    std::string text(static_cast<size_t>(size), '\0');
    if (size > 0 && !file.read(&text[0], size)) {
        ZLOG(eZLogError, "Failed to open user input template file[%s].\n", mFilePath.c_str());
        return RT_FAILURE;
    }
    sParsed parsed;
    const eRtCode rt = ParseTemplateText(text, mName, mFilePath, parsed);
    if (rt != RT_SUCCESS) return rt;
    ZLOG(eZLogDebug, "Template[%s]: %u properties from [%s].\n", mName.c_str(),
         static_cast<unsigned>(parsed.cache->size()), mFilePath.c_str());
    MutexLock lock(mMutex);
    MutexLock sharedLock(SharedMutex());
    UsrInTemplateCache* cache = parsed.cache.release();
    sSharedCache& shared = SharedCaches()[cache];
    shared.owners = 1;
    for (int i = 0; i < 3; ++i) shared.required[i] = std::move(parsed.required[i]);
    mCache = cache;
    return RT_SUCCESS;
}

void ZUserInputTemplate::_ReleaseOwnCache() {
    if (mCache == nullptr) return;
    UsrInTemplateCache* victim = nullptr;
    {
        MutexLock sharedLock(SharedMutex());
        auto it = SharedCaches().find(mCache);
        if (it != SharedCaches().end() && --it->second.owners == 0) {
            SharedCaches().erase(it);
            victim = mCache;
        }
    }
    mCache = nullptr;
    sCacheDeleter()(victim);
}

UsrInTemplateCache* ZUserInputTemplate::GetCache() {
    MutexLock lock(mMutex);
    return mCache;
}

eRtCode ZUserInputTemplate::AttachCache(UsrInTemplateCache* cache) {
    if (mName.empty()) return RT_NO_VERIFY;
    MutexLock lock(mMutex);
    if (cache == nullptr) return mCache == nullptr ? RT_FAILURE : RT_INVALID_ARG;
    if (cache == mCache) {
        ++mPins;
        return RT_SUCCESS;
    }
    if (mPins != 0) return RT_BUSY;
    {
        MutexLock sharedLock(SharedMutex());
        auto it = SharedCaches().find(cache);
        if (it == SharedCaches().end()) {
            ZLOG(eZLogError, "Template[%s]: cache[%p] is not a loaded template cache.\n",
                 mName.c_str(), static_cast<void*>(cache));
            return RT_INVALID_ARG;
        }
        ++it->second.owners;
    }
    _ReleaseOwnCache();
    mCache = cache;
    mLoadResult = RT_SUCCESS;
    return RT_SUCCESS;
}

eRtCode ZUserInputTemplate::DetachCache() {
    MutexLock lock(mMutex);
    if (mPins == 0) {
        ZLOG(eZLogError, "Template[%s]: no reader holds its cache.\n", mName.c_str());
        return RT_INVALID_ARG;
    }
    --mPins;
    return RT_SUCCESS;
}

eRtCode ZUserInputTemplate::FreeCache() {
    MutexLock lock(mMutex);
    if (mPins != 0) return RT_BUSY;
    _ReleaseOwnCache();
    return RT_SUCCESS;
}

void ZUserInputTemplate::Recycle(ZUserInputTemplate* tmpl) {
    if (tmpl == nullptr) return;
    if (zApp == nullptr) {
        delete tmpl;
        return;
    }
    zApp->RecycledListAppend(tmpl, kRecycleDelayMs);
}

const sPropertyAttrTag* ZUserInputTemplate::FindAttr(const std::string& jpath) {
    MutexLock lock(mMutex);
    if (mCache == nullptr) return nullptr;
    auto it = mCache->find(jpath);
    return it != mCache->end() ? it->second : nullptr;
}

std::vector<std::string> ZUserInputTemplate::GetRequiredList(eReqMethod method) {
    const int index = RequiredIndex(method);
    MutexLock lock(mMutex);
    if (index < 0 || mCache == nullptr) return {};
    MutexLock sharedLock(SharedMutex());
    auto it = SharedCaches().find(mCache);
    return it != SharedCaches().end() ? it->second.required[index] : std::vector<std::string>();
}

// ---------------------------------------------------------------------------
// Dumps
// ---------------------------------------------------------------------------

std::string ZUserInputTemplate::DumpTemplateCache() {
    static const std::pair<uint32_t, const char*> kTypes[] = {
        {UIT_TYPE_NULL, "null,"},         {UIT_TYPE_BOOL, "bool,"},
        {UIT_TYPE_FLOAT, "float,"},       {UIT_TYPE_SIGNED, "signed,"},
        {UIT_TYPE_UNSIGNED, "unsigned,"}, {UIT_TYPE_STRING, "string,"},
        {UIT_TYPE_IGNORE, "ignore,"},     {UIT_TYPE_OBJECT, "object,"},
        {UIT_TYPE_ARRAY, "array,"}};
    static const std::pair<uint32_t, const char*> kMethods[] = {
        {UIT_METHOD_ReadOnly, "ReadOnly,"},
        {UIT_METHOD_CreateOption, "CreateOption,"},
        {UIT_METHOD_CreateRequired, "CreateRequired,"},
        {UIT_METHOD_PatchOption, "PatchOption,"},
        {UIT_METHOD_PatchRequired, "PatchRequired,"},
        {UIT_METHOD_ActionOption, "ActionOption,"},
        {UIT_METHOD_ActionRequired, "ActionRequired,"}};
    static const std::pair<uint32_t, const char*> kFlags[] = {
        {UIT_FLAG_LifeCycleEvent, "LifeCycleEvent,"}, {UIT_FLAG_SecureProperty, "SecureProperty,"}};

    std::string text = Format("Dump Template[%s] cache:\n", mName.c_str());
    MutexLock lock(mMutex);
    if (mCache != nullptr) {
        for (const auto& entry : *mCache) {
            const sPropertyAttrTag& attr = *entry.second;
            const auto& lim = attr.limits;
            text += "  Property[" + entry.first + "]\n";
            AppendWords(text, "    allowTypes =", attr.dataTypes, kTypes, 9);
            AppendWords(text, "    supportMethods =", attr.supportMethods, kMethods, 7);
            AppendWords(text, "    Flags =", attr.flags, kFlags, 2);
            text += "    Limits:\n";
            if (attr.dataTypes & UIT_TYPE_ARRAY) {
                const char* kind = lim.arrayType == UIT_ARRAY_Rigid         ? "Rigid"
                                   : lim.arrayType == UIT_ARRAY_FixedLength ? "FixedLength"
                                                                            : "VariableLength";
                text += Format("      arrayType = %s\n", kind);
            }
            if (lim.presence & UIT_LIMIT_MIN) text += Format("      min = %f\n", lim.min);
            if (lim.presence & UIT_LIMIT_MAX) text += Format("      max = %f\n", lim.max);
            if (!lim.pattern.empty()) text += "      pattern = [ " + lim.pattern + " ]\n";
            if (!lim.enumStrings.empty()) {
                text += "      enumStrings =";
                for (const std::string& s : lim.enumStrings) text += " " + s + ",";
                text += "\n";
            }
            if (!lim.enumValues.empty()) {
                text += "      enumValues =";
                for (double v : lim.enumValues) text += Format(" %.17g,", v);
                text += "\n";
            }
        }
    }
    LogDump(text);
    return text;
}

std::string ZUserInputTemplate::DumpMethodRequiredList() {
    const std::vector<std::string> create = GetRequiredList(eReqCreate);
    const std::vector<std::string> patch = GetRequiredList(eReqUpdate);
    std::string text = Format("Dump Template[%s] CreateRequiredList:\n", mName.c_str());
    for (const std::string& jpath : create) text += "  " + jpath + "\n";
    text += Format("Dump Template[%s] PatchRequiredList:\n", mName.c_str());
    for (const std::string& jpath : patch) text += "  " + jpath + "\n";
    LogDump(text);
    return text;
}

}  // namespace Orbel
