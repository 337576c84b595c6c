// The request record: what one front-end request hash says, parsed.
//
// The front end writes a request as a store hash of "&&" meta keys and
// publishes the hash's key on a schema's channel (docs/wire-protocol.md,
// "Requests"). A dispatcher reads the hash with HGETALL and hands the field
// map to CRUDParseReqFields, which fills an sCRUD_ReqData. The parser is
// pure: it touches no store and no global state besides the log, so it can
// be tested and fuzzed without a server; any map, however odd, yields a
// record (unknown values are logged and left at their defaults).
//
// Also here: the method texts, the privilege names and their bits, and the
// common privilege rule that the schemas' default checks apply.
//
// Threads: stateless functions; a record belongs to the one thread that
// serves its request.
#ifndef ORBEL_CRUDREQUEST_H
#define ORBEL_CRUDREQUEST_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "OrbelDefs.h"

namespace Orbel {

// How the client authenticated, from "&&AuthSession" and "&&AuthHeader".
enum eReqAuthType : int32_t {
    eReqAuthNone = 0,     // neither key: a request the front end makes itself
    eReqAuthSession = 1,  // "&&AuthSession" (wins over the header)
    eReqAuthBasic = 2,    // "&&AuthHeader" = "BasicAuth"
    eReqAuthOAuth = 3,    // "&&AuthHeader" = "OAuth"
};

// "&&TransferMethod": how an upload's body reached the front end.
enum eReqTransferMethod : int32_t {
    eReqTransferNone = 0,
    eReqTransferSimpleUpload = 1,
    eReqTransferMultipartUpload = 2,
};

// Privilege bits (32-bit masks).
enum : uint32_t {
    PRIV_DenyAlways = 0x2,
    PRIV_Supervisor = 0x4,
    PRIV_Login = 0x8,
    PRIV_ConfigurationNetworkingAndSecurity = 0x10,
    PRIV_UserAccountManagement = 0x20,
    PRIV_RemoteConsoleAccess = 0x40,
    PRIV_RemoteConsoleAndVirtualMediaAccess = 0x80,
    PRIV_RemoteServerPowerRestartAccess = 0x100,
    PRIV_AdapterConfigurationBasic = 0x200,
    PRIV_AbilityToClearEventLogs = 0x400,
    PRIV_AdapterConfigurationAdvanced = 0x800,
    PRIV_UEFISecurity = 0x1000,
};

// One request. Texts are the meta keys' values as the front end wrote them.
struct sCRUD_ReqData {
    std::string reqKey;          // the announced key: the request hash, where the answer goes
    std::string channel;         // the channel it came on (set by the dispatcher)
    int32_t method = -1;         // eReqMethod; -1 when missing or unknown
    std::string methodText;      // "&&RequestMethod" as written
    std::string targetUri;       // "&&TargetURI"
    std::string resourceUri;     // targetUri without its "/Actions/..." part
    std::string targetAction;    // the part of targetUri behind "/Actions/"
    std::string origin;          // "&&Origin"
    std::string returnChannel;   // "&&ReturnChannel"
    std::string requestDataKey;  // "&&RequestData": the body's tree
    std::string taskMonitorUrl;  // "&&Task"
    std::string remoteIp;        // "&&RemoteIP"
    std::string checklistKey;    // "&&Checklist"
    uint32_t operationPrivileges = 0;  // "&&OperationPrivileges", as a mask
    bool hasOperationPrivileges = false;
    uint32_t userPrivileges = 0;  // "&&UserPrivNumber" or'ed with "&&Privileges"
    std::string userName;         // "&&Username"
    std::string authSession;      // "&&AuthSession" as written
    std::string authSessionId;    // the id behind "Sessions/"
    eReqAuthType authType = eReqAuthNone;
    eReqTransferMethod transferMethod = eReqTransferNone;
    uint32_t unexpectedFields = 0;  // fields that are no meta key (logged)
    uint32_t unknownValues = 0;     // meta keys with a value outside their list (logged)
};

// Fills `out` from a request hash's field map (HGETALL). `reqKey` is the
// announced key. Never fails on content: every fault is logged with its text
// ("Unknown method[%s]\n", "Unknown value[%s] of metaKey[%s]\n", "Unexpected
// data[%s:%s]\n", "privilegeName[%s] is unknown.\n", "AuthSession [%s]
// parsing error.\n") and the field is skipped. Returns RT_FIELD_MISSING
// when the map is empty (a missing or empty hash), else 0. `out` is reset
// first.
eRtCode CRUDParseReqFields(const std::string& reqKey,
                           const std::map<std::string, std::string>& fields, sCRUD_ReqData& out);

// The same parse fed one field at a time (the dispatcher hands it the
// fields of the HGETALL reply as they come, without building a map): the
// record is reset at construction, Field takes each field, Finish returns
// what CRUDParseReqFields would. Fields are unique in a hash, so their order
// does not change the record.
class CRUDReqFieldParser {
public:
    CRUDReqFieldParser(const std::string& reqKey, sCRUD_ReqData& out);
    void Field(std::string_view name, std::string_view value);
    eRtCode Finish();

private:
    sCRUD_ReqData& mOut;
    std::string mAuthHeader;
    uint32_t mFields = 0;
};

// The dump of a record: "CRUD message data: (rt:%d)\n" and one line per field.
std::string CRUDReqDataDump(const sCRUD_ReqData& req, eRtCode rt);

// The dump as one format and its arguments, for a log line that the debug
// filter can drop without formatting it:
//   ZLOGM("ZComLib", eZLogDebug, ORBEL_CRUD_DUMP_FORMAT, ORBEL_CRUD_DUMP_ARGS(req, rt));
#define ORBEL_CRUD_DUMP_FORMAT                                                               \
    "CRUD message data: (rt:%d)\n  Method           : %d[%s]\n  TargetURI        : %s\n"   \
    "  TargetAction     : %s\n  ReturnChannel    : %s\n  ReturnStatusTable: %s\n"          \
    "  RequestDataTable : %s\n  TaskMonitorURL   : %s\n  RemoteIP         : %s\n"          \
    "  CheckListTable   : %s\n  Privileges       : 0x%08X\n  User             : %s\n"      \
    "  AuthSessionId    : %s\n  TransferMethod   : %d[%s]\n"
#define ORBEL_CRUD_DUMP_ARGS(req, rt)                                                          \
    static_cast<int>(rt), static_cast<int>((req).method), (req).methodText.c_str(),           \
        (req).targetUri.c_str(), (req).targetAction.c_str(), (req).returnChannel.c_str(),     \
        (req).reqKey.c_str(), (req).requestDataKey.c_str(), (req).taskMonitorUrl.c_str(),     \
        (req).remoteIp.c_str(), (req).checklistKey.c_str(),                                   \
        static_cast<unsigned>((req).userPrivileges), (req).userName.c_str(),                  \
        (req).authSessionId.c_str(), static_cast<int>((req).transferMethod),                  \
        ::Orbel::CRUDTransferText((req).transferMethod)

// "SimpleUpload", "MultipartUpload", or "" for no (or an unknown) transfer method.
const char* CRUDTransferText(int32_t transferMethod);

// "&&RequestMethod" texts. The method of a text, or -1: "POSTCREATE" create,
// "GET" and "HEAD" read, "PATCH" update, "DELETE" delete, "POSTACTION" action.
int32_t CRUDMethodFromText(const std::string& text);
// The canonical text of a method ("GET" for read), or "UNKNOWN".
const char* CRUDMethodText(int32_t method);

// The bit of a privilege name, 0 for an unknown name (not logged).
uint32_t PrivilegeBit(const std::string& name);
// A list of privilege names separated by ",", blanks, '[', ']' or '"' (so
// both "Login,ConfigurationNetworkingAndSecurity" and a JSON array of names
// read) as a mask; each unknown name is logged and counted into `unknown`.
uint32_t PrivilegeMask(const std::string& names, uint32_t* unknown = nullptr);

// The common privilege rule: a request that lists no privilege passes; one
// that lists "DenyAlways" never does; otherwise the user must hold every
// listed privilege.
bool CRUDPrivilegesGranted(const sCRUD_ReqData& req);

}  // namespace Orbel

#endif  // ORBEL_CRUDREQUEST_H
