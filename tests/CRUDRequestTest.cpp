// The request record: the pure parser from a request hash's fields, the
// dump, method texts, privilege names and the common privilege rule. No
// store is involved.
#include <map>
#include <string>
#include <vector>

#include "CRUDRequest.h"
#include "TestEnv.h"

using namespace Orbel;
using Fields = std::map<std::string, std::string>;

namespace {

TEST(CRUDRequestTest, EveryMetaKeyLandsInTheRecordAndItsDumpLine) {
    const Fields fields = {
        {"&&RequestMethod", "POSTACTION"},
        {"&&TargetURI", "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset"},
        {"&&Origin", "https://bmc"},
        {"&&ReturnChannel", "Corvel:Return:3"},
        {"&&RequestData", "&&Corvel:Req:3/Data"},
        {"&&Task", "/redfish/v1/TaskService/TaskMonitors/4"},
        {"&&RemoteIP", "10.1.2.3"},
        {"&&Checklist", "&&Corvel:Req:3/Checklist"},
        {"&&OperationPrivileges", "Login,RemoteServerPowerRestartAccess"},
        {"&&UserPrivNumber", "0x108"},
        {"&&Username", "admin"},
        {"&&Privileges", "[\"UEFISecurity\"]"},
        {"&&AuthSession", "/redfish/v1/SessionService/Sessions/17"},
        {"&&AuthHeader", "BasicAuth"},
        {"&&TransferMethod", "MultipartUpload"},
    };
    sCRUD_ReqData req;
    ASSERT_EQ(CRUDParseReqFields("Corvel:Req:3", fields, req), RT_SUCCESS);
    EXPECT_EQ(req.resourceUri, "/redfish/v1/Systems/1");
    EXPECT_EQ(req.origin, "https://bmc");
    EXPECT_EQ(req.operationPrivileges, PRIV_Login | PRIV_RemoteServerPowerRestartAccess);
    EXPECT_EQ(req.authType, eReqAuthSession);  // the session wins over the header
    EXPECT_EQ(req.unexpectedFields + req.unknownValues, 0u);
    EXPECT_EQ(CRUDReqDataDump(req, RT_SUCCESS),
              "CRUD message data: (rt:0)\n"
              "  Method           : 4[POSTACTION]\n"
              "  TargetURI        : /redfish/v1/Systems/1/Actions/ComputerSystem.Reset\n"
              "  TargetAction     : ComputerSystem.Reset\n"
              "  ReturnChannel    : Corvel:Return:3\n"
              "  ReturnStatusTable: Corvel:Req:3\n"
              "  RequestDataTable : &&Corvel:Req:3/Data\n"
              "  TaskMonitorURL   : /redfish/v1/TaskService/TaskMonitors/4\n"
              "  RemoteIP         : 10.1.2.3\n"
              "  CheckListTable   : &&Corvel:Req:3/Checklist\n"
              "  Privileges       : 0x00001108\n"
              "  User             : admin\n"
              "  AuthSessionId    : 17\n"
              "  TransferMethod   : 2[MultipartUpload]\n");
}

TEST(CRUDRequestTest, MethodTextsAndAuthForms) {
    const struct {
        Fields extra;
        int32_t method;
        eReqAuthType auth;
    } rows[] = {
        {{{"&&RequestMethod", "POSTCREATE"}}, eReqCreate, eReqAuthNone},
        {{{"&&RequestMethod", "GET"}, {"&&AuthHeader", "OAuth"}}, eReqRead, eReqAuthOAuth},
        {{{"&&RequestMethod", "HEAD"}, {"&&AuthHeader", "BasicAuth"}}, eReqRead, eReqAuthBasic},
        {{{"&&RequestMethod", "PATCH"}}, eReqUpdate, eReqAuthNone},
        {{{"&&RequestMethod", "DELETE"}}, eReqDelete, eReqAuthNone},
        {{{"&&RequestMethod", "get"}}, -1, eReqAuthNone},
        {{{"&&TargetURI", "/redfish/v1/"}}, -1, eReqAuthNone},
    };
    // Found by the fuzz target: "/Actions/" alone names no action.
    sCRUD_ReqData bare;
    CRUDParseReqFields("k", {{"&&TargetURI", "/redfish/v1/Systems/1/Actions/"}}, bare);
    EXPECT_EQ(bare.resourceUri, "/redfish/v1/Systems/1/Actions/");
    EXPECT_EQ(bare.targetAction, "");
    for (const auto& row : rows) {
        sCRUD_ReqData req;
        EXPECT_EQ(CRUDParseReqFields("k", row.extra, req), RT_SUCCESS);
        EXPECT_EQ(req.method, row.method) << req.methodText;
        EXPECT_EQ(req.authType, row.auth) << req.methodText;
    }
    EXPECT_STREQ(CRUDMethodText(eReqRead), "GET");
    EXPECT_STREQ(CRUDMethodText(9), "UNKNOWN");
}

TEST(CRUDRequestTest, FaultsAreLoggedWithTheirTextsAndSkipped) {
    const struct {
        Fields fields;
        std::string logged;
    } rows[] = {
        {{{"&&RequestMethod", "PUT"}}, "Unknown method[PUT]\n"},
        {{{"&&UserPrivNumber", "12abc"}}, "Unknown value[12abc] of metaKey[&&UserPrivNumber]\n"},
        {{{"&&UserPrivNumber", "0x100000000"}},
         "Unknown value[0x100000000] of metaKey[&&UserPrivNumber]\n"},
        {{{"&&AuthHeader", "Digest"}}, "Unknown value[Digest] of metaKey[&&AuthHeader]\n"},
        {{{"&&TransferMethod", "Chunked"}},
         "Unknown value[Chunked] of metaKey[&&TransferMethod]\n"},
        {{{"&&Privileges", "Login,Root"}}, "privilegeName[Root] is unknown.\n"},
        {{{"&&AuthSession", "/redfish/v1/SessionService/Sessions/"}},
         "AuthSession [/redfish/v1/SessionService/Sessions/] parsing error.\n"},
        {{{"&&AuthSession", "17"}}, "AuthSession [17] parsing error.\n"},
        {{{"Color", "blue"}}, "Unexpected data[Color:blue]\n"},
        {{{"UserPassword", "hunter2"}}, "Unexpected data[UserPassword:******]\n"},
    };
    for (const auto& row : rows) {
        size_t mark = OrbelTest::LogMark();
        sCRUD_ReqData req;
        EXPECT_EQ(CRUDParseReqFields("k", row.fields, req), RT_SUCCESS);
        EXPECT_TRUE(OrbelTest::Logged(mark, row.logged)) << row.logged;
        EXPECT_EQ(OrbelTest::LogSince(mark).find("hunter2"), std::string::npos);
        EXPECT_EQ(req.unexpectedFields + req.unknownValues + (req.method < 0 && !req.methodText.empty()),
                  1u)
            << row.logged;
        EXPECT_EQ(req.authSessionId, "");
    }
    sCRUD_ReqData req;
    EXPECT_EQ(CRUDParseReqFields("k", Fields(), req), RT_FIELD_MISSING);
    EXPECT_EQ(req.reqKey, "k");
}

TEST(CRUDRequestTest, CommonPrivilegeRule) {
    const struct {
        std::string required;
        uint32_t user;
        bool granted;
    } rows[] = {
        {"", 0, true},
        {"Login", PRIV_Login, true},
        {"Login", PRIV_Supervisor, false},
        {"Login,UserAccountManagement", PRIV_Login, false},
        {"Login UserAccountManagement", PRIV_Login | PRIV_UserAccountManagement | 0x1, true},
        {"DenyAlways", 0xFFFFFFFFu, false},
        {"UEFISecurity", PRIV_UEFISecurity, true},
    };
    for (const auto& row : rows) {
        sCRUD_ReqData req;
        CRUDParseReqFields("k",
                           {{"&&OperationPrivileges", row.required},
                            {"&&UserPrivNumber", std::to_string(row.user)}},
                           req);
        EXPECT_EQ(CRUDPrivilegesGranted(req), row.granted) << row.required << " " << row.user;
    }
    EXPECT_EQ(PrivilegeBit("UEFISecurity"), 0x1000u);
}

}  // namespace
