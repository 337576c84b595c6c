// The request context's user input: the body read into the cache, its
// verification against the target schema's template, the typed getters a
// handler reads it with, message arguments made of it, and the dumps.
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "HTTP_MethodContext.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

namespace Orbel {

namespace {

bool IsContainer(const sUsrInCacheItem& item) {
    return item.type == USRIN_OBJECT || item.type == USRIN_ARRAY;
}

bool IsNumber(const sUsrInCacheItem& item) {
    return item.type == USRIN_SNUM || item.type == USRIN_UNUM || item.type == USRIN_DOUBLE;
}

// The direct children of `jpath` in an ordered cache: [first, last).
template <class Fn>
void ForEachChild(const UsrInCache& cache, const std::string& jpath, Fn fn) {
    const std::string prefix = jpath + "/";
    for (auto it = cache.lower_bound(prefix);
         it != cache.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
        if (it->first.find('/', prefix.size()) == std::string::npos) {
            fn(it->first.substr(prefix.size()), it->first, it->second);
        }
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Reading and verifying
// ---------------------------------------------------------------------------

void HTTP_MethodContext::_ParserUserInputData() {
    // A fault is logged by the reader; what was read before it stays, and a
    // template then refuses the body or a handler finds its values missing.
    const std::string schema = mOwnerSchema != nullptr ? mOwnerSchema->GetName() : "NULL";
    if (ZUserInputTemplate::ParserUserInputData(mRedisCtx, mReqData->requestDataKey, mUserInCache,
                                                schema, &mUserInFault) != RT_SUCCESS &&
        mUserInFault.value.empty()) {
        mUserInFault.value = "unreadable";  // a store fault, a malformed link
    }
}

void HTTP_MethodContext::_ParserChecklistData() {
    if (RedisHashGetAll(mRedisCtx, mReqData->checklistKey.c_str(), mChecklist) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashGetAll( %s ).\n", mReqData->checklistKey.c_str());
    }
}

namespace {

eReqMethod MethodOf(int32_t method) {
    return method >= 0 && method < eReqMethodNum ? static_cast<eReqMethod>(method) : eReqUpdate;
}

}  // namespace

void HTTP_MethodContext::AssignUsrInPptFlagFromUsrInTemplate(ZUserInputTemplate* tmpl) {
    if (tmpl == nullptr) return;
    const eReqMethod method = MethodOf(GetReqMethod());
    // Templates name actions as the document's "Actions" object does.
    const std::string action = method == eReqAction ? "#" + GetTargetActionName() : std::string();
    tmpl->AssignUsrInPptFlagFromUsrInTemplate(mUserInCache, method, action);
}

eRtCode HTTP_MethodContext::VerifyUserInputData(ZUserInputTemplate* tmpl) {
    const eReqMethod method = MethodOf(GetReqMethod());
    if (!mUserInFault.value.empty()) {
        // Part of a body is not the body: refused whole, whatever the
        // template says, with the bound (or the value) and where.
        const std::string where = mUserInFault.jpath.empty() ? "/" : mUserInFault.jpath;
        const std::string property = where.substr(1);
        ZLOG(eZLogError, "Schema[%s]: request data refused (%s at [%s]).\n", _OwnerName(),
             mUserInFault.value.c_str(), where.c_str());
        sExtendedInfo* info =
            method == eReqAction
                ? NewExtendedInfo(RESP_Base_ActionParameterValueFormatError,
                                  mUserInFault.value.c_str(), property.c_str(),
                                  ("#" + GetTargetActionName()).c_str())
                : NewExtendedInfo(RESP_Base_PropertyValueFormatError, mUserInFault.value.c_str(),
                                  property.c_str());
        if (info != nullptr && !property.empty()) {
            ExtendedInfo_AppendRelatedProperty(info, nullptr, property);
        }
        SetReturnStatus(HTTP_RT_FAILURE, info);
        return RT_FAILURE;
    }
    sUsrInVerifyArgs args;
    args.method = method;
    if (method == eReqAction) args.actionName = "#" + GetTargetActionName();
    args.input = &mUserInCache;
    args.extInfo = this;
    args.schemaName = _OwnerName();
    AssignUsrInPptFlagFromUsrInTemplate(tmpl);
    const eRtCode rt = ZUserInputTemplate::VerifyUserInputData(tmpl, args, nullptr);
    if (rt == RT_SUCCESS || mReturnStatus > HTTP_RT_OK_EMPTY) return rt;
    // A refused body is the client's fault; anything else (no template, one
    // that did not load) is the plug-in's.
    if (tmpl != nullptr && tmpl->GetLoadResult() == RT_SUCCESS) {
        mReturnStatus = HTTP_RT_FAILURE;
    } else {
        if (tmpl == nullptr) NewExtendedInfo(RESP_Base_InternalError);
        mReturnStatus = HTTP_RT_EXCEPTION;
    }
    return rt;
}

// ---------------------------------------------------------------------------
// Typed getters
// ---------------------------------------------------------------------------

const sUsrInCacheItem* HTTP_MethodContext::_FindUserInput(const std::string& jpath) const {
    auto it = mUserInCache.find(jpath);
    if (it == mUserInCache.end()) {
        ZLOG(eZLogError, "Cannot find [%s] in user input cache.\n", jpath.c_str());
        return nullptr;
    }
    return &it->second;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, bool& out) const {
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_BOOL) return RT_INVALID_ARG;
    out = item->value == "true";
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, long long& out) const {
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_SNUM && item->type != USRIN_UNUM) return RT_INVALID_ARG;
    errno = 0;
    const long long v = std::strtoll(item->value.c_str(), nullptr, 10);
    if (errno != 0) return RT_INVALID_ARG;
    out = v;
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath,
                                             unsigned long long& out) const {
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_UNUM) return RT_INVALID_ARG;
    errno = 0;
    const unsigned long long v = std::strtoull(item->value.c_str(), nullptr, 10);
    if (errno != 0) return RT_INVALID_ARG;
    out = v;
    return RT_SUCCESS;
}

// The narrower integers go through the widest one and are range-checked
// against their own limits, which differ between 32- and 64-bit targets.
eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, int& out) const {
    long long v = 0;
    const eRtCode rt = GetUserInputData(jpath, v);
    if (rt != RT_SUCCESS) return rt;
    if (v < INT_MIN || v > INT_MAX) return RT_INVALID_ARG;
    out = static_cast<int>(v);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, long& out) const {
    long long v = 0;
    const eRtCode rt = GetUserInputData(jpath, v);
    if (rt != RT_SUCCESS) return rt;
    if (v < LONG_MIN || v > LONG_MAX) return RT_INVALID_ARG;
    out = static_cast<long>(v);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, unsigned int& out) const {
    unsigned long long v = 0;
    const eRtCode rt = GetUserInputData(jpath, v);
    if (rt != RT_SUCCESS) return rt;
    if (v > UINT_MAX) return RT_INVALID_ARG;
    out = static_cast<unsigned int>(v);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, unsigned long& out) const {
    unsigned long long v = 0;
    const eRtCode rt = GetUserInputData(jpath, v);
    if (rt != RT_SUCCESS) return rt;
    if (v > ULONG_MAX) return RT_INVALID_ARG;
    out = static_cast<unsigned long>(v);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, double& out) const {
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (!IsNumber(*item)) return RT_INVALID_ARG;
    out = std::strtod(item->value.c_str(), nullptr);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, std::string& out) const {
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (IsContainer(*item)) return RT_INVALID_ARG;
    out = item->value;
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, char* buf,
                                             unsigned int size) const {
    std::string text;
    const eRtCode rt = GetUserInputData(jpath, text);
    if (rt != RT_SUCCESS) return rt;
    if (buf == nullptr || text.size() >= size) return RT_INVALID_ARG;
    std::memcpy(buf, text.c_str(), text.size() + 1);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputListSize(const std::string& jpath,
                                                 unsigned int& size) const {
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_ARRAY) return RT_INVALID_ARG;
    size = static_cast<unsigned int>(std::strtoul(item->value.c_str(), nullptr, 10));
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputBinData(const std::string& jpath, unsigned char** data,
                                                unsigned int* len) const {
    if (data == nullptr || len == nullptr) return RT_INVALID_ARG;
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_STRING && item->type != USRIN_RAWSTR) return RT_INVALID_ARG;
    auto* bytes = new unsigned char[item->value.size() + 1];
    std::memcpy(bytes, item->value.data(), item->value.size());
    bytes[item->value.size()] = 0;
    *data = bytes;
    *len = static_cast<unsigned int>(item->value.size());
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputDatas(const std::string& jpath, UsrInCache& out) const {
    const sUsrInCacheItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (!IsContainer(*item)) return RT_INVALID_ARG;
    out.clear();
    ForEachChild(mUserInCache, jpath,
                 [&out](const std::string& name, const std::string&, const sUsrInCacheItem& child) {
                     out.emplace(name, child);
                 });
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::TranslateArray(const std::string& jpath,
                                           std::vector<std::string>& out) const {
    auto it = mUserInCache.find(jpath);
    if (it == mUserInCache.end()) {
        ZLOG(eZLogError, "jPath[%s] is not found in the user input cache.\n", jpath.c_str());
        return RT_NO_SUCH_KEY;
    }
    if (it->second.type != USRIN_ARRAY) {
        ZLOG(eZLogError, "jPath[%s] is not an array.\n", jpath.c_str());
        return RT_INVALID_ARG;
    }
    std::vector<std::string> items;
    unsigned int count = 0;
    GetUserInputListSize(jpath, count);
    for (unsigned int i = 0; i < count; ++i) {
        const std::string item = jpath + "/" + std::to_string(i);
        auto found = mUserInCache.find(item);
        if (found != mUserInCache.end() && found->second.type == USRIN_OBJECT) {
            found = mUserInCache.find(item + "/@odata.id");  // a link: its target
        }
        if (found == mUserInCache.end() || IsContainer(found->second)) {
            ZLOG(eZLogError, "Item jPath[%s] is not found in the user input cache.\n", item.c_str());
            return RT_NO_SUCH_KEY;
        }
        items.push_back(found->second.value);
    }
    out.swap(items);
    return RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// Message arguments, parameter line and dumps
// ---------------------------------------------------------------------------

namespace {

// The text a log line or message shows for a cache item: a secret-like or
// SecureProperty string masked.
std::string_view ShownText(const std::string& jpath, const sUsrInCacheItem& item) {
    switch (item.type) {
        case USRIN_OBJECT:
            return "{}";
        case USRIN_ARRAY:
            return "[]";
        case USRIN_NULL:
            return "null";
        case USRIN_STRING:
        case USRIN_RAWSTR:
            if ((item.flags & UIT_FLAG_SecureProperty) != 0 || IsSecretLikeName(jpath)) {
                return kSecretMask;
            }
            return item.value;
        default:
            return item.value;
    }
}

}  // namespace

std::string HTTP_MethodContext::_ShownValue(const std::string& jpath,
                                            const sUsrInCacheItem& item) const {
    return std::string(ShownText(jpath, item));
}

eRtCode HTTP_MethodContext::ExtendedInfo_AppendMsgArgOfUserInData(sExtendedInfo* info,
                                                                 const std::string& jpath) {
    auto it = mUserInCache.find(jpath);
    if (it == mUserInCache.end()) {
        ZLOG(eZLogError, "Cannot find [%s] in mUserInCache!.\n", jpath.c_str());
        return RT_NO_SUCH_KEY;
    }
    const sUsrInCacheItem& item = it->second;
    switch (item.type) {
        case USRIN_BOOL:
            return ExtendedInfo_AppendMsgArg(info, item.value == "true");
        case USRIN_SNUM:
            return ExtendedInfo_AppendMsgArg(info, std::strtoll(item.value.c_str(), nullptr, 10));
        case USRIN_UNUM:
            return ExtendedInfo_AppendMsgArg(info, std::strtoull(item.value.c_str(), nullptr, 10));
        case USRIN_DOUBLE:
            return ExtendedInfo_AppendMsgArg(info, std::strtod(item.value.c_str(), nullptr));
        default:
            return ExtendedInfo_AppendMsgArg(info, _ShownValue(jpath, item));
    }
}

std::string HTTP_MethodContext::GetExtInfoArgByUserInDataJPath(const std::string& jpath) const {
    auto it = mUserInCache.find(jpath);
    if (it == mUserInCache.end()) {
        ZLOG(eZLogError, "Cannot find [%s] in mUserInCache!.\n", jpath.c_str());
        return std::string();
    }
    return _ShownValue(jpath, it->second);
}

std::string HTTP_MethodContext::GetAllUsrParams() const {
    // Every request's access line carries it: appended in place.
    std::string out;
    out.reserve(256);
    for (const auto& entry : mUserInCache) {
        if (IsContainer(entry.second)) continue;
        if (!out.empty()) out += ',';
        out += entry.first;
        out += ':';
        out += ShownText(entry.first, entry.second);
    }
    return out;
}

std::string HTTP_MethodContext::DumpUserInputDatas(const std::string& jpath) const {
    std::string text = "Dump UsrInDatas( " + jpath + " ):\n";
    ForEachChild(mUserInCache, jpath,
                 [&](const std::string&, const std::string& path, const sUsrInCacheItem& item) {
                     text += "    Key[" + path + "],Type[" + std::to_string(item.type) + "] :" +
                             _ShownValue(path, item) + "\n";
                 });
    ZLOGM("ZComLib", eZLogRaw, "%s", text.c_str());
    return text;
}

std::string HTTP_MethodContext::DumpUserInputCache() const {
    std::string text = "Dump UsrInCache of schema[" + std::string(_OwnerName()) + "]:\n";
    for (const auto& entry : mUserInCache) {
        text += "    Key[" + entry.first + "],Type[" + UsrInValueTypeWord(entry.second.type) +
                "] :" + _ShownValue(entry.first, entry.second) + "\n";
    }
    ZLOGM("ZComLib", eZLogRaw, "%s", text.c_str());
    return text;
}

std::string HTTP_MethodContext::DumpChecklistDatas() const {
    std::string text = "Dump Checklist of schema[" + std::string(_OwnerName()) + "]:\n";
    for (const auto& entry : mChecklist) {
        const std::string value = IsSecretLikeName(entry.first) ? kSecretMask : entry.second;
        text += "    Key[" + entry.first + "] :" + value + "\n";
    }
    ZLOGM("ZComLib", eZLogRaw, "%s", text.c_str());
    return text;
}

}  // namespace Orbel
