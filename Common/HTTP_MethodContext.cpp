// The request context: construction, assignments, response data, and the
// request body read into the user-input cache.
#include "HTTP_MethodContext.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

namespace {

struct sStatusRow {
    const char* word;
    int code;
};
const sStatusRow kStatusRows[] = {
    {"OK", 200},         {"OK_RES", 201},        {"OK_EMPTY", 204},      {"PROCESSING", 202},
    {"AUTH_FAILED", 401}, {"FORBIDDEN", 403},    {"NOT_FOUND", 404},     {"NOT_ALLOWED", 405},
    {"CONFLICT", 409},   {"FAILURE", 400},       {"EXCEPTION", 500},     {"NOT_SUPPORTED", 501},
    {"UNAVAILABLE", 503}, {"IGNORE", 0},
};
constexpr int kStatusNum = sizeof(kStatusRows) / sizeof(kStatusRows[0]);

const char* const kUsrInTypeWords[] = {"null",   "bool",   "sNum",   "uNum",  "string",
                                       "object", "rawStr", "double", "array"};

bool IsDigits(const std::string& s, size_t from) {
    if (from >= s.size()) return false;
    for (size_t i = from; i < s.size(); ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
    }
    return true;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void AppendUtf8(std::string& out, unsigned cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Decodes a JSON string text ("..." with its escapes); false when it is not one.
bool DecodeJsonString(const std::string& text, std::string& out) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
    const std::string body = text.substr(1, text.size() - 2);
    const size_t n = body.size();
    out.clear();
    for (size_t i = 0; i < n; ++i) {
        char c = body[i];
        if (c == '"') return false;
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i >= n) return false;
        switch (body[i]) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                if (i + 4 >= n) return false;
                unsigned cp = 0;
                for (size_t k = 1; k <= 4; ++k) {
                    int h = HexValue(body[i + k]);
                    if (h < 0) return false;
                    cp = cp * 16 + static_cast<unsigned>(h);
                }
                i += 4;
                AppendUtf8(out, cp);
                break;
            }
            default:
                return false;
        }
    }
    return true;
}

bool IsDoubleText(const std::string& s) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    std::strtod(s.c_str(), &end);
    if (errno != 0 || end == nullptr || *end != '\0') return false;
    // JSON numbers only: no blanks, hex, "inf" or "nan".
    for (char c : s) {
        if (!((c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E')) {
            return false;
        }
    }
    return true;
}

}  // namespace

const char* HttpRtStatusWord(eHttpRtStatus status) {
    int v = static_cast<int>(status);
    return v >= 0 && v < kStatusNum ? kStatusRows[v].word : "";
}

int HttpRtStatusCode(eHttpRtStatus status) {
    int v = static_cast<int>(status);
    return v >= 0 && v < kStatusNum ? kStatusRows[v].code : 0;
}

const char* UsrInTypeWord(eUsrInType type) {
    return type <= USRIN_ARRAY ? kUsrInTypeWords[type] : "";
}

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------

HTTP_MethodContext::HTTP_MethodContext(ZSchema* owner, redisContext* ctx, sCRUD_ReqData* req)
    : ResponseExtendedInfo(nullptr, nullptr, ctx), mRedisCtx(ctx), mReqData(req),
      mOwnerSchema(owner) {
    if (mReqData == nullptr) {
        ZLOG(eZLogError, "Request data is NULL! schema[%s]\n", _OwnerName());
        return;
    }
    // A request of an unknown method still gets its messages, under the
    // channel it came on.
    std::string channel = mReqData->channel;
    if (mOwnerSchema != nullptr && mReqData->method >= 0 && mReqData->method < eReqMethodNum) {
        channel = mOwnerSchema->GetCRUDqChannel(static_cast<eReqMethod>(mReqData->method));
    }
    if (!channel.empty()) {
        NewExtInfoObj(mReqData->reqKey, mReqData->targetUri + "/" + channel + "/ExtendedInfo");
    }
    mAsyncUploadMethod = mReqData->transferMethod != eReqTransferNone;
    if (!mReqData->requestDataKey.empty()) _ParserUserInputData();
    if (!mReqData->checklistKey.empty()) _ParserChecklistData();
}

HTTP_MethodContext::~HTTP_MethodContext() {
    // The front end reads the response data after the context is gone: its
    // keys stay; the next response data under the same JPath replaces them.
    if (mResponseData != nullptr) mResponseData->ObjDestroy(ZObject::eDestroyDelete, false);
    mResponseData = nullptr;
}

const char* HTTP_MethodContext::_OwnerName() const {
    return mOwnerSchema != nullptr ? mOwnerSchema->GetName().c_str() : "NULL";
}

// ---------------------------------------------------------------------------
// Assignments and getters
// ---------------------------------------------------------------------------

void HTTP_MethodContext::AssignTargetSchema(ZSchema* schema) {
    if (schema == nullptr) {
        ZLOG(eZLogError, "Assign a NULL pointer! schema[%s]\n", _OwnerName());
        return;
    }
    mTargetSchema = schema;
    mSchema = schema;
}

void HTTP_MethodContext::AssignTargetResource(ZResource* resource) {
    if (resource == nullptr) {
        ZLOG(eZLogError, "Assign a NULL pointer! schema[%s]\n", _OwnerName());
        return;
    }
    mTargetResource = resource;
    mTgtResource = resource;
}

void HTTP_MethodContext::AssignUserInputTemplate(ZObject* tmpl) {
    if (tmpl == nullptr) {
        ZLOG(eZLogError, "Assign a NULL pointer! schema[%s]\n", _OwnerName());
        return;
    }
    mUserInputTemplate = tmpl;
}

void HTTP_MethodContext::AssignNewInstance(ZResource* instance) {
    if (GetReqMethod() != eReqCreate) {
        ZLOG(eZLogError, "This is not a CREATE request! schema[%s]\n", _OwnerName());
        return;
    }
    mNewInstance = instance;
}

int32_t HTTP_MethodContext::GetReqMethod() const {
    return mReqData != nullptr ? mReqData->method : -1;
}
std::string HTTP_MethodContext::GetTargetActionName() const {
    return mReqData != nullptr ? mReqData->targetAction : std::string();
}
std::string HTTP_MethodContext::GetSessionId() const {
    return mReqData != nullptr ? mReqData->authSessionId : std::string();
}
std::string HTTP_MethodContext::GetOrigin() const {
    return mReqData != nullptr ? mReqData->origin : std::string();
}
std::string HTTP_MethodContext::GetRemoteIP() const {
    return mReqData != nullptr ? mReqData->remoteIp : std::string();
}
std::string HTTP_MethodContext::GetUserName() const {
    return mReqData != nullptr ? mReqData->userName : std::string();
}
uint32_t HTTP_MethodContext::GetPrivileges() const {
    return mReqData != nullptr ? mReqData->userPrivileges : 0;
}

ZBackendImpl* HTTP_MethodContext::GetBackendImpl() {
    if (mTargetSchema == nullptr) {
        ZLOG(eZLogError, "Target schema is NULL! schema[%s]\n", _OwnerName());
        return nullptr;
    }
    return mTargetSchema->GetBackendImpl();
}

void HTTP_MethodContext::SetReturnStatus(eHttpRtStatus status, sExtendedInfo* info) {
    mReturnStatus = status;
    if (info != nullptr) InsertReturnExtendedInfo(info);
}

void HTTP_MethodContext::RegisterResponsedCallback(ResponsedCallback_t fn, void* arg) {
    mResponsedCallback = fn;
    mResponsedCallbackArg = arg;
}

void HTTP_MethodContext::AppendAdditionalReturnData(const std::string& name,
                                                    const std::string& value) {
    mAdditionalReturnData[name] = value;
}

void HTTP_MethodContext::AppendRequestDataFieldToDelete(const std::string& name) {
    mRequestDataFieldsToDelete.insert(name);
}

ZObject* HTTP_MethodContext::NewResponseDataObject(unsigned char type) {
    if (GetReqMethod() != eReqAction) {
        ZLOG(eZLogError, "Only Action request can create response data.\n");
        return nullptr;
    }
    if (mResponseData != nullptr) {
        ZLOG(eZLogWarning, "Shouldn't new response data object twice.\n");
        return mResponseData;
    }
    const std::string jpath = mReqData->targetUri + "/ResponseData";
    ZObject* node = nullptr;
    switch (type) {
        case ZObject::eJsonObject:
            node = new ZJsonObject(nullptr, jpath);
            break;
        case ZObject::eJsonArray:
            node = new ZJsonArray(nullptr, jpath);
            break;
        case ZObject::eResource:
        case ZObject::eResourceCollection:
            ZLOG(eZLogError, "Shouldn't create a resource for HTTP response data object.\n");
            return nullptr;
        default:
            ZLOG(eZLogError, "Unknown type[%d].\n", static_cast<int>(type));
            return nullptr;
    }
    if (node->GetJPath().empty() || node->IsDied()) {
        ZLOG(eZLogError, "Failed to create response data[%s].\n", jpath.c_str());
        node->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    mResponseData = node;
    return node;
}

// ---------------------------------------------------------------------------
// User input
// ---------------------------------------------------------------------------

std::string HTTP_MethodContext::GetAllUsrParams() const {
    std::string out;
    for (const auto& entry : mUserInCache) {
        const sUsrInItem& item = entry.second;
        if (item.type == USRIN_OBJECT || item.type == USRIN_ARRAY) continue;
        std::string value = item.value;
        if ((item.type == USRIN_STRING || item.type == USRIN_RAWSTR) &&
            ((item.flags & USRIN_FLAG_SecureProperty) != 0 || IsSecretLikeName(entry.first))) {
            value = kSecretMask;
        }
        if (!out.empty()) out += ",";
        out += entry.first + ":" + value;
    }
    return out;
}

void HTTP_MethodContext::_ParserUserInputData() {
    _ParserUserInputTable(mReqData->requestDataKey, std::string(), 0);
}

void HTTP_MethodContext::_ParserUserInputTable(const std::string& key, const std::string& jpath,
                                               unsigned depth) {
    if (depth > kMaxUserInDepth) {
        ZLOG(eZLogError, "Table[%s] is nested too deep. schema[%s]\n", key.c_str(), _OwnerName());
        return;
    }
    const int type = RedisType(mRedisCtx, key.c_str());
    if (type == REDIS_TABLE_HASH) {
        std::map<std::string, std::string> fields;
        if (RedisHashGetAll(mRedisCtx, key.c_str(), fields) != RT_SUCCESS) {
            ZLOG(eZLogError, "Failed to call RedisHashGetAll(). schema[%s]\n", _OwnerName());
            return;
        }
        for (const auto& field : fields) {
            std::string name, target;
            bool isLink = false;
            if (IsACorvelMetaKey(field.first, &name, &target, &isLink)) {
                if (name.empty()) continue;  // a list element's form in a hash: not ours
                _ParserUserInputNode(jpath + "/" + name, field.first.compare(0, 8, "&&Object") != 0,
                                     isLink, target, depth);
                continue;
            }
            if (field.first.compare(0, 2, "&&") == 0) continue;  // meta data of the front end
            _ParserUserInputValue(jpath + "/" + field.first, field.second, depth);
        }
        return;
    }
    if (type == REDIS_TABLE_LIST) {
        std::vector<std::string> items;
        if (RedisListGetAll(mRedisCtx, key.c_str(), 0, -1, items) != RT_SUCCESS) {
            ZLOG(eZLogError, "Failed to call RedisListGetAll(). schema[%s]\n", _OwnerName());
            return;
        }
        for (size_t i = 0; i < items.size(); ++i) {
            _ParserUserInputValue(jpath + "/" + std::to_string(i), items[i], depth);
        }
        return;
    }
    ZLOG(eZLogError, "Table[%s] is not a hash or list or empty. schema[%s]\n", key.c_str(),
         _OwnerName());
}

void HTTP_MethodContext::_ParserUserInputValue(const std::string& jpath, const std::string& text,
                                               unsigned depth) {
    if (mUserInCache.size() >= kMaxUserInItems) {
        ZLOG(eZLogError, "User input[%s] dropped: more than %u values. schema[%s]\n", jpath.c_str(),
             static_cast<unsigned>(kMaxUserInItems), _OwnerName());
        return;
    }
    if (mUserInCache.count(jpath) != 0) {
        ZLOG(eZLogError, "Duplicate JPath[%s]. schema[%s]\n", jpath.c_str(), _OwnerName());
        return;
    }
    std::string name, target;
    bool isLink = false;
    if (IsACorvelMetaKey(text, &name, &target, &isLink) && name.empty()) {
        _ParserUserInputNode(jpath, text.compare(0, 8, "&&Object") != 0, isLink, target, depth);
        return;
    }
    sUsrInItem item;
    if (text == "null") {
        item.type = USRIN_NULL;
        item.value = "null";
    } else if (text == "true" || text == "false") {
        item.type = USRIN_BOOL;
        item.value = text;
    } else if (DecodeJsonString(text, item.value)) {
        item.type = USRIN_STRING;
    } else if (IsDigits(text, 0)) {
        item.type = USRIN_UNUM;
        item.value = text;
    } else if (text.size() > 1 && text[0] == '-' && IsDigits(text, 1)) {
        item.type = USRIN_SNUM;
        item.value = text;
    } else if (IsDoubleText(text)) {
        item.type = USRIN_DOUBLE;
        item.value = text;
    } else {
        item.type = USRIN_RAWSTR;
        item.value = text;
    }
    mUserInCache[jpath] = item;
}

void HTTP_MethodContext::_ParserChecklistData() {
    if (RedisHashGetAll(mRedisCtx, mReqData->checklistKey.c_str(), mChecklist) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashGetAll( %s ).\n", mReqData->checklistKey.c_str());
    }
}

void HTTP_MethodContext::_ParserUserInputNode(const std::string& jpath, bool isArray, bool isLink,
                                              const std::string& target, unsigned depth) {
    if (mUserInCache.size() >= kMaxUserInItems || mUserInCache.count(jpath) != 0) {
        ZLOG(eZLogError, "Duplicate JPath[%s]. schema[%s]\n", jpath.c_str(), _OwnerName());
        return;
    }
    sUsrInItem item;
    if (isLink) {
        // A link in a body is the object {"@odata.id": "<target>"}.
        item.type = USRIN_OBJECT;
        mUserInCache[jpath] = item;
        sUsrInItem id;
        id.type = USRIN_STRING;
        id.value = target;
        mUserInCache[jpath + "/@odata.id"] = id;
        return;
    }
    item.type = isArray ? USRIN_ARRAY : USRIN_OBJECT;
    mUserInCache[jpath] = item;
    _ParserUserInputTable(target, jpath, depth + 1);
    if (!isArray) return;
    // An array's value is its item count: the direct children just read.
    size_t count = 0;
    const std::string prefix = jpath + "/";
    for (auto it = mUserInCache.lower_bound(prefix);
         it != mUserInCache.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
        if (it->first.find('/', prefix.size()) == std::string::npos) ++count;
    }
    mUserInCache[jpath].value = std::to_string(count);
}

const sUsrInItem* HTTP_MethodContext::_FindUserInput(const std::string& jpath) const {
    auto it = mUserInCache.find(jpath);
    if (it == mUserInCache.end()) {
        ZLOG(eZLogError, "Cannot find [%s] in user input cache.\n", jpath.c_str());
        return nullptr;
    }
    return &it->second;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, bool& out) const {
    const sUsrInItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_BOOL) return RT_INVALID_ARG;
    out = item->value == "true";
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, long long& out) const {
    const sUsrInItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_SNUM && item->type != USRIN_UNUM) return RT_INVALID_ARG;
    errno = 0;
    long long v = std::strtoll(item->value.c_str(), nullptr, 10);
    if (errno != 0) return RT_INVALID_ARG;
    out = v;
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath,
                                             unsigned long long& out) const {
    const sUsrInItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_UNUM) return RT_INVALID_ARG;
    errno = 0;
    unsigned long long v = std::strtoull(item->value.c_str(), nullptr, 10);
    if (errno != 0) return RT_INVALID_ARG;
    out = v;
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, int& out) const {
    long long v = 0;
    eRtCode rt = GetUserInputData(jpath, v);
    if (rt != RT_SUCCESS) return rt;
    if (v < INT32_MIN || v > INT32_MAX) return RT_INVALID_ARG;
    out = static_cast<int>(v);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, unsigned int& out) const {
    unsigned long long v = 0;
    eRtCode rt = GetUserInputData(jpath, v);
    if (rt != RT_SUCCESS) return rt;
    if (v > UINT32_MAX) return RT_INVALID_ARG;
    out = static_cast<unsigned int>(v);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, double& out) const {
    const sUsrInItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type != USRIN_DOUBLE && item->type != USRIN_SNUM && item->type != USRIN_UNUM) {
        return RT_INVALID_ARG;
    }
    out = std::strtod(item->value.c_str(), nullptr);
    return RT_SUCCESS;
}

eRtCode HTTP_MethodContext::GetUserInputData(const std::string& jpath, std::string& out) const {
    const sUsrInItem* item = _FindUserInput(jpath);
    if (item == nullptr) return RT_NO_SUCH_KEY;
    if (item->type == USRIN_OBJECT || item->type == USRIN_ARRAY) return RT_INVALID_ARG;
    out = item->value;
    return RT_SUCCESS;
}

}  // namespace Orbel
