// The request record: meta keys, method texts, privileges, the pure parser.
#include "CRUDRequest.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "Orbel.h"
#include "ZLogPrint.h"

namespace Orbel {

namespace {

struct sPrivilegeName {
    const char* name;
    uint32_t bit;
};

// "UEFISecurity" takes the next free bit, keeping the pattern of the others.
const sPrivilegeName kPrivilegeNames[] = {
    {"DenyAlways", PRIV_DenyAlways},
    {"Supervisor", PRIV_Supervisor},
    {"Login", PRIV_Login},
    {"ConfigurationNetworkingAndSecurity", PRIV_ConfigurationNetworkingAndSecurity},
    {"UserAccountManagement", PRIV_UserAccountManagement},
    {"RemoteConsoleAccess", PRIV_RemoteConsoleAccess},
    {"RemoteConsoleAndVirtualMediaAccess", PRIV_RemoteConsoleAndVirtualMediaAccess},
    {"RemoteServerPowerRestartAccess", PRIV_RemoteServerPowerRestartAccess},
    {"AdapterConfigurationBasic", PRIV_AdapterConfigurationBasic},
    {"AbilityToClearEventLogs", PRIV_AbilityToClearEventLogs},
    {"AdapterConfigurationAdvanced", PRIV_AdapterConfigurationAdvanced},
    {"UEFISecurity", PRIV_UEFISecurity},
};

const char* const kTransferTexts[] = {"", "SimpleUpload", "MultipartUpload"};

// The meta keys a request hash may carry.
enum eMetaKey {
    kMethod,
    kTargetUri,
    kOrigin,
    kReturnChannel,
    kRequestData,
    kTask,
    kRemoteIp,
    kChecklist,
    kOperationPrivileges,
    kUserPrivNumber,
    kUsername,
    kPrivileges,
    kAuthSession,
    kAuthHeader,
    kTransferMethod,
};

const std::map<std::string, eMetaKey, std::less<>>& MetaKeys() {
    static const std::map<std::string, eMetaKey, std::less<>> keys = {
        {"&&RequestMethod", kMethod},
        {"&&TargetURI", kTargetUri},
        {"&&Origin", kOrigin},
        {"&&ReturnChannel", kReturnChannel},
        {"&&RequestData", kRequestData},
        {"&&Task", kTask},
        {"&&RemoteIP", kRemoteIp},
        {"&&Checklist", kChecklist},
        {"&&OperationPrivileges", kOperationPrivileges},
        {"&&UserPrivNumber", kUserPrivNumber},
        {"&&Username", kUsername},
        {"&&Privileges", kPrivileges},
        {"&&AuthSession", kAuthSession},
        {"&&AuthHeader", kAuthHeader},
        {"&&TransferMethod", kTransferMethod},
    };
    return keys;
}

void UnknownValue(sCRUD_ReqData& out, const std::string& key, const std::string& value) {
    ZLOG(eZLogError, "Unknown value[%s] of metaKey[%s]\n", value.c_str(), key.c_str());
    ++out.unknownValues;
}

// A 32-bit mask in decimal or "0x" hexadecimal, nothing else around it.
bool ParseMask(const std::string& text, uint32_t& mask) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == nullptr || *end != '\0' || v > 0xFFFFFFFFull) return false;
    mask = static_cast<uint32_t>(v);
    return true;
}

// The id of a "…Sessions/<id>" URI (one trailing "/" allowed); false when
// there is none.
bool ParseSessionId(const std::string& uri, std::string& id) {
    static const std::string kWord = "Sessions/";
    size_t pos = uri.rfind(kWord);
    if (pos == std::string::npos) return false;
    std::string rest = uri.substr(pos + kWord.size());
    if (!rest.empty() && rest.back() == '/') rest.pop_back();
    if (rest.empty() || rest.find('/') != std::string::npos || !IsPureString(rest, false)) {
        return false;
    }
    id = rest;
    return true;
}

void SetTarget(sCRUD_ReqData& out, const std::string& uri) {
    static const std::string kActions = "/Actions/";
    out.targetUri = uri;
    // "/Actions/" with nothing behind it names no action.
    size_t pos = uri.find(kActions);
    if (pos == std::string::npos || pos + kActions.size() == uri.size()) {
        out.resourceUri = uri;
        out.targetAction.clear();
    } else {
        out.resourceUri = uri.substr(0, pos);
        out.targetAction = uri.substr(pos + kActions.size());
    }
}

}  // namespace

int32_t CRUDMethodFromText(const std::string& text) {
    if (text == "POSTCREATE") return eReqCreate;
    if (text == "GET" || text == "HEAD") return eReqRead;
    if (text == "PATCH") return eReqUpdate;
    if (text == "DELETE") return eReqDelete;
    if (text == "POSTACTION") return eReqAction;
    return -1;
}

const char* CRUDMethodText(int32_t method) {
    switch (method) {
        case eReqCreate:
            return "POSTCREATE";
        case eReqRead:
            return "GET";
        case eReqUpdate:
            return "PATCH";
        case eReqDelete:
            return "DELETE";
        case eReqAction:
            return "POSTACTION";
        default:
            return "UNKNOWN";
    }
}

uint32_t PrivilegeBit(const std::string& name) {
    for (const sPrivilegeName& p : kPrivilegeNames) {
        if (name == p.name) return p.bit;
    }
    return 0;
}

uint32_t PrivilegeMask(const std::string& names, uint32_t* unknown) {
    uint32_t mask = 0;
    size_t i = 0;
    const size_t n = names.size();
    auto isSeparator = [](char c) {
        return c == ',' || c == ' ' || c == '\t' || c == '[' || c == ']' || c == '"';
    };
    while (i < n) {
        while (i < n && isSeparator(names[i])) ++i;
        size_t start = i;
        while (i < n && !isSeparator(names[i])) ++i;
        if (i == start) continue;
        const std::string name = names.substr(start, i - start);
        uint32_t bit = PrivilegeBit(name);
        if (bit == 0) {
            ZLOG(eZLogError, "privilegeName[%s] is unknown.\n", name.c_str());
            if (unknown != nullptr) ++*unknown;
        }
        mask |= bit;
    }
    return mask;
}

bool CRUDPrivilegesGranted(const sCRUD_ReqData& req) {
    const uint32_t need = req.operationPrivileges;
    if ((need & PRIV_DenyAlways) != 0) return false;
    return (req.userPrivileges & need) == need;
}

CRUDReqFieldParser::CRUDReqFieldParser(const std::string& reqKey, sCRUD_ReqData& out)
    : mOut(out) {
    mOut = sCRUD_ReqData();
    mOut.reqKey = reqKey;
}

void CRUDReqFieldParser::Field(std::string_view nameView, std::string_view valueView) {
    sCRUD_ReqData& out = mOut;
    ++mFields;
    const auto& keys = MetaKeys();
    auto it = keys.find(nameView);
    if (it == keys.end()) {
        // The value of a field we do not know may be anything, a secret too.
        const std::string name(nameView), value(valueView);
        ZLOG(eZLogWarning, "Unexpected data[%s:%s]\n", name.c_str(),
             MaskSecretValue(name, value.c_str()));
        ++out.unexpectedFields;
        return;
    }
    const std::string& name = it->first;
    std::string value(valueView);
    switch (it->second) {
        case kMethod:
            out.method = CRUDMethodFromText(value);
            if (out.method < 0) ZLOG(eZLogError, "Unknown method[%s]\n", value.c_str());
            out.methodText = std::move(value);
            break;
        case kTargetUri:
            SetTarget(out, value);
            break;
        case kOrigin:
            out.origin = std::move(value);
            break;
        case kReturnChannel:
            out.returnChannel = std::move(value);
            break;
        case kRequestData:
            out.requestDataKey = std::move(value);
            break;
        case kTask:
            out.taskMonitorUrl = std::move(value);
            break;
        case kRemoteIp:
            out.remoteIp = std::move(value);
            break;
        case kChecklist:
            out.checklistKey = std::move(value);
            break;
        case kOperationPrivileges:
            out.hasOperationPrivileges = true;
            out.operationPrivileges = PrivilegeMask(value, &out.unknownValues);
            break;
        case kUserPrivNumber: {
            uint32_t mask = 0;
            if (ParseMask(value, mask)) {
                out.userPrivileges |= mask;
            } else {
                UnknownValue(out, name, value);
            }
            break;
        }
        case kUsername:
            out.userName = std::move(value);
            break;
        case kPrivileges:
            out.userPrivileges |= PrivilegeMask(value, &out.unknownValues);
            break;
        case kAuthSession:
            out.authType = eReqAuthSession;
            if (!ParseSessionId(value, out.authSessionId)) {
                ZLOG(eZLogError, "AuthSession [%s] parsing error.\n", value.c_str());
                ++out.unknownValues;
            }
            out.authSession = std::move(value);
            break;
        case kAuthHeader:
            mAuthHeader = std::move(value);
            break;
        case kTransferMethod:
            if (value == kTransferTexts[eReqTransferSimpleUpload]) {
                out.transferMethod = eReqTransferSimpleUpload;
            } else if (value == kTransferTexts[eReqTransferMultipartUpload]) {
                out.transferMethod = eReqTransferMultipartUpload;
            } else {
                UnknownValue(out, name, value);
            }
            break;
    }
}

eRtCode CRUDReqFieldParser::Finish() {
    sCRUD_ReqData& out = mOut;
    if (mFields == 0) return RT_FIELD_MISSING;
    const std::string& authHeader = mAuthHeader;
    // A session wins over the header that opened it.
    if (!authHeader.empty() && out.authType != eReqAuthSession) {
        if (authHeader == "BasicAuth") {
            out.authType = eReqAuthBasic;
        } else if (authHeader == "OAuth") {
            out.authType = eReqAuthOAuth;
        } else {
            UnknownValue(out, "&&AuthHeader", authHeader);
        }
    } else if (!authHeader.empty() && authHeader != "BasicAuth" && authHeader != "OAuth") {
        UnknownValue(out, "&&AuthHeader", authHeader);
    }
    return RT_SUCCESS;
}

eRtCode CRUDParseReqFields(const std::string& reqKey,
                           const std::map<std::string, std::string>& fields, sCRUD_ReqData& out) {
    CRUDReqFieldParser parser(reqKey, out);
    for (const auto& field : fields) parser.Field(field.first, field.second);
    return parser.Finish();
}

const char* CRUDTransferText(int32_t transferMethod) {
    return transferMethod >= 0 && transferMethod <= 2 ? kTransferTexts[transferMethod] : "";
}

std::string CRUDReqDataDump(const sCRUD_ReqData& req, eRtCode rt) {
    const int n = std::snprintf(nullptr, 0, ORBEL_CRUD_DUMP_FORMAT, ORBEL_CRUD_DUMP_ARGS(req, rt));
    if (n <= 0) return std::string();
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(&out[0], out.size(), ORBEL_CRUD_DUMP_FORMAT, ORBEL_CRUD_DUMP_ARGS(req, rt));
    out.resize(static_cast<size_t>(n));
    return out;
}

}  // namespace Orbel
