// The request context without dispatcher threads: assignments and their
// refusals, response data rules, the status table, the request body read
// into typed values, masking, the location rule and the return-status rule.
#include <atomic>
#include <chrono>
#include <future>
#include <string>

#include "CRUDRequest.h"
#include "ChildProcess.h"
#include "HTTP_MethodContext.h"
#include "ObjectModelFixture.h"
#include "RedisCli.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

const std::string kSys = "/redfish/v1/Systems/1";

class HTTPMethodContextTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        mSchema = new ZSchema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_ALL);
        ASSERT_EQ(mSchema->Init(), RT_SUCCESS);
        mSys = new ZResource(nullptr, mSchema, kSys);
        mConn = RedisConnect();
    }
    void TearDown() override {
        RedisDisconnect(mConn);
        ObjectModelTest::TearDown();
    }
    sCRUD_ReqData Request(const char* method, const std::string& uri,
                          const std::string& dataKey = std::string()) {
        sCRUD_ReqData req;
        CRUDParseReqFields("Corvel:Req:1",
                           {{"&&RequestMethod", method},
                            {"&&TargetURI", uri},
                            {"&&ReturnChannel", "Corvel:Return"},
                            {"&&Task", "/redfish/v1/TaskService/TaskMonitors/5"},
                            {"&&RequestData", dataKey}},
                           req);
        if (dataKey.empty()) req.requestDataKey.clear();
        return req;
    }

    ZSchema* mSchema = nullptr;
    ZResource* mSys = nullptr;
    redisContext* mConn = nullptr;
};

TEST_F(HTTPMethodContextTest, StatusWordsAndCodes) {
    const struct {
        eHttpRtStatus status;
        const char* word;
        int code;
    } rows[] = {{HTTP_RT_OK, "OK", 200},          {HTTP_RT_OK_RES, "OK_RES", 201},
                {HTTP_RT_OK_EMPTY, "OK_EMPTY", 204}, {HTTP_RT_PROCESSING, "PROCESSING", 202},
                {HTTP_RT_AUTH_FAILED, "AUTH_FAILED", 401}, {HTTP_RT_FORBIDDEN, "FORBIDDEN", 403},
                {HTTP_RT_NOT_FOUND, "NOT_FOUND", 404}, {HTTP_RT_NOT_ALLOWED, "NOT_ALLOWED", 405},
                {HTTP_RT_CONFLICT, "CONFLICT", 409}, {HTTP_RT_FAILURE, "FAILURE", 400},
                {HTTP_RT_EXCEPTION, "EXCEPTION", 500}, {HTTP_RT_NOT_SUPPORTED, "NOT_SUPPORTED", 501},
                {HTTP_RT_UNAVAILABLE, "UNAVAILABLE", 503}, {HTTP_RT_IGNORE, "IGNORE", 0},
                {static_cast<eHttpRtStatus>(14), "", 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(HttpRtStatusWord(row.status) + std::to_string(HttpRtStatusCode(row.status)),
                  row.word + std::to_string(row.code));
    }
}

TEST_F(HTTPMethodContextTest, MisuseIsRefusedAndLogged) {
    sCRUD_ReqData req = Request("GET", kSys);
    HTTP_MethodContext ctx(mSchema, mConn, &req);
    size_t mark = LogMark();
    ctx.AssignTargetSchema(nullptr);
    ctx.AssignTargetResource(mSys);
    ctx.AssignNewInstance(mSys);
    EXPECT_EQ(ctx.NewResponseDataObject(ZObject::eJsonObject), nullptr);
    EXPECT_EQ(ctx.GetBackendImpl(), nullptr);
    EXPECT_TRUE(Logged(mark, {"Assign a NULL pointer! schema[ComputerSystem]\n",
                              "This is not a CREATE request! schema[ComputerSystem]\n",
                              "Only Action request can create response data.\n",
                              "Target schema is NULL! schema[ComputerSystem]\n"}));
    EXPECT_TRUE(!ctx.GetTargetSchema() && ctx.GetTargetResource() == mSys && !ctx.GetNewInstance());

    sCRUD_ReqData act = Request("POSTACTION", kSys + "/Actions/ComputerSystem.Reset");
    HTTP_MethodContext actx(mSchema, mConn, &act);
    mark = LogMark();
    EXPECT_EQ(actx.NewResponseDataObject(ZObject::eResource), nullptr);
    EXPECT_EQ(actx.NewResponseDataObject(7), nullptr);
    ZObject* data = actx.NewResponseDataObject(ZObject::eJsonArray);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->GetJPath(), kSys + "/Actions/ComputerSystem.Reset/ResponseData");
    EXPECT_EQ(actx.NewResponseDataObject(ZObject::eJsonObject), data);
    EXPECT_TRUE(Logged(mark, {"Shouldn't create a resource for HTTP response data object.\n",
                              "Unknown type[7].\n", "Shouldn't new response data object twice.\n"}));
}

TEST_F(HTTPMethodContextTest, BodyValuesAreTypedAndSecretsMasked) {
    const std::string data = "&&Corvel:Req:1/RequestData";
    RawCommand({"HSET", data, "Name", "\"a\\u00e9\\n\"", "Neg", "-12", "Big", "18446744073709551615",
                "Ratio", "0.5", "On", "true", "Nothing", "null", "Odd", "{bad", "UserPassword",
                "\"x\"", "PasswordName", "\"shown\"", "AuthKey", "\"k\"", "KeyType", "\"RSA\"",
                "&&Array Names &&Names", "", "&&ObjectRef Mgr /redfish/v1/Managers/1", "",
                "&&Checklist", "ignored"});
    RawCommand({"RPUSH", "&&Names", "\"p\"", "\"q\""});
    sCRUD_ReqData req = Request("PATCH", kSys, data);
    HTTP_MethodContext ctx(mSchema, mConn, &req);
    // (Each value type read from the store: UserInputVerifyTest's
    // BodyTreeFromTheStoreIsReadAndVerified; the values: GetAllUsrParams below.)
    EXPECT_EQ(ctx.GetUserInCache().at("/Big").type, USRIN_UNUM);
    long long neg = 0;
    unsigned int u = 0;
    double ratio = 0;
    std::string text;
    EXPECT_TRUE(ctx.GetUserInputData("/Neg", neg) == RT_SUCCESS && neg == -12) << neg;
    EXPECT_EQ(ctx.GetUserInputData("/Neg", u), RT_INVALID_ARG);
    EXPECT_EQ(ctx.GetUserInputData("/Big", u), RT_INVALID_ARG);  // over 32 bits
    EXPECT_TRUE(ctx.GetUserInputData("/Ratio", ratio) == RT_SUCCESS && ratio == 0.5) << ratio;
    EXPECT_EQ(ctx.GetUserInputData("/Names", text), RT_INVALID_ARG);
    size_t mark = LogMark();
    EXPECT_EQ(ctx.GetUserInputData("/Missing", text), RT_NO_SUCH_KEY);
    EXPECT_TRUE(Logged(mark, "Cannot find [/Missing] in user input cache.\n"));

    EXPECT_EQ(ctx.GetAllUsrParams(),
              "/AuthKey:******,/Big:18446744073709551615,/KeyType:RSA,/Mgr/@odata.id:/redfish/v1/"
              "Managers/1,/Name:a\xc3\xa9\n,/Names/0:p,/Names/1:q,/Neg:-12,/Nothing:null,/Odd:{bad,"
              "/On:true,/PasswordName:shown,/Ratio:0.5,/UserPassword:******");
}

// The getters beyond single scalars: lists, links, members, raw bytes, a
// caller's buffer, and user values as typed message arguments.
TEST_F(HTTPMethodContextTest, ListsMembersBytesAndMessageArgumentsFromTheBody) {
    const std::string data = "&&Corvel:Req:1/RequestData";
    RawCommand({"HSET", data, "Key", "\"a\\u0000b\"", "Port", "-2147483649", "Tag", "\"abcdef\"",
                "&&Array Links &&Links", "", "&&Array Mixed &&Mixed", "", "&&Object Boot &&Boot", ""});
    RawCommand({"RPUSH", "&&Links", "&&ObjectRef /redfish/v1/Chassis/1", "\"/redfish/v1/Chassis/2\""});
    RawCommand({"RPUSH", "&&Mixed", "1", "&&Object &&MixedObj"});
    RawCommand({"HSET", "&&MixedObj", "N", "1"});
    RawCommand({"HSET", "&&Boot", "Mode", "\"UEFI\"", "Retries", "3"});
    sCRUD_ReqData req = Request("PATCH", kSys, data);
    HTTP_MethodContext ctx(mSchema, mConn, &req);

    unsigned int size = 0;
    EXPECT_TRUE(ctx.GetUserInputListSize("/Links", size) == RT_SUCCESS && size == 2u) << size;
    EXPECT_EQ(ctx.GetUserInputListSize("/Boot", size), RT_INVALID_ARG);
    std::vector<std::string> items;
    EXPECT_EQ(ctx.TranslateArray("/Links", items), RT_SUCCESS);
    EXPECT_EQ(items, (std::vector<std::string>{"/redfish/v1/Chassis/1", "/redfish/v1/Chassis/2"}));
    size_t mark = LogMark();
    EXPECT_EQ(ctx.TranslateArray("/Mixed", items), RT_NO_SUCH_KEY);
    EXPECT_EQ(ctx.TranslateArray("/Boot", items), RT_INVALID_ARG);
    EXPECT_TRUE(Logged(mark, {"Item jPath[/Mixed/1] is not found in the user input cache.\n",
                              "jPath[/Boot] is not an array.\n"}));
    EXPECT_EQ(items.size(), 2u);  // untouched by the failures

    UsrInCache members;
    EXPECT_EQ(ctx.GetUserInputDatas("/Boot", members), RT_SUCCESS);
    ASSERT_EQ(members.size(), 2u);
    EXPECT_TRUE(members["Mode"].value == "UEFI" && members["Retries"].type == USRIN_UNUM);

    // An escaped NUL survives in the bytes, not in a C string.
    unsigned char* bytes = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(ctx.GetUserInputBinData("/Key", &bytes, &len), RT_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), len), std::string("a\0b", 3));
    delete[] bytes;
    char buf[6] = "xxxxx";
    EXPECT_EQ(ctx.GetUserInputData("/Tag", buf, sizeof(buf)), RT_INVALID_ARG);  // 6 + 1 bytes
    EXPECT_STREQ(buf, "xxxxx");
    int port = 7;
    long long wide = 0;
    EXPECT_TRUE(ctx.GetUserInputData("/Port", port) == RT_INVALID_ARG &&
                port == 7);  // below INT32_MIN
    EXPECT_TRUE(ctx.GetUserInputData("/Port", wide) == RT_SUCCESS && wide == -2147483649LL);

    // Typed arguments; a secret-like name is masked; a missing path is refused.
    ctx.AssignTargetResource(mSys);
    sExtendedInfo* info = ctx.NewExtendedInfo(RESP_Base_PropertyValueError);
    for (const char* path : {"/Port", "/Boot/Mode", "/Key", "/Links"}) {
        EXPECT_EQ(ctx.ExtendedInfo_AppendMsgArgOfUserInData(info, path), RT_SUCCESS) << path;
    }
    mark = LogMark();
    EXPECT_EQ(ctx.ExtendedInfo_AppendMsgArgOfUserInData(info, "/Nope"), RT_NO_SUCH_KEY);
    EXPECT_TRUE(Logged(mark, {"Cannot find [/Nope] in mUserInCache!.\n"}));
    ASSERT_EQ(info->msgObj->ApplyRedisChanges(true), RT_SUCCESS);
    EXPECT_EQ(StoreDoc(info->msgObj->GetJPath() + "/MessageArgs"),
              R"([-2147483649,"UEFI","******","[]"])");
}

TEST_F(HTTPMethodContextTest, LocationIsTheTaskMonitorWhileProcessingElseTheNewInstance) {
    for (eHttpRtStatus status : {HTTP_RT_OK, HTTP_RT_PROCESSING}) {
        sCRUD_ReqData req = Request("POSTCREATE", kSys);
        HTTP_MethodContext ctx(mSchema, mConn, &req);
        ctx.AssignNewInstance(mSys);
        ctx.SetReturnStatus(status);
        EXPECT_EQ(ctx.SendResponseToCorvel(), RT_SUCCESS);
        EXPECT_EQ(HGetAll("Corvel:Req:1")["&&Location"],
                  status == HTTP_RT_OK ? kSys : "/redfish/v1/TaskService/TaskMonitors/5");
        // No target assigned: no lock key.
        EXPECT_EQ(HGetAll("Corvel:Req:1").count("&&ResourceLock"), 0u);
    }
}

// A handler waiting for the front end to release the lock does not hold a
// leaving process for the key's lifetime (20 s); no callback is made.
TEST_F(HTTPMethodContextTest, ShutdownEndsTheRespondedCallbackWait) {
    static std::atomic<int> calls{0};
    sCRUD_ReqData req = Request("POSTACTION", kSys + "/Actions/ComputerSystem.Reset");
    HTTP_MethodContext ctx(mSchema, mConn, &req);
    ctx.AssignTargetSchema(mSchema);
    ctx.AssignTargetResource(mSys);
    ctx.RegisterResponsedCallback([](void*) { ++calls; }, nullptr);
    auto sent = std::async(std::launch::async, [&ctx]() { return ctx.SendResponseToCorvel(); });
    // Never released: no front end.
    ASSERT_TRUE(WaitUntil([] { return Exists("&&ResourceLock:" + kSys); }, 10000));
    mApp->Exit();
    ASSERT_EQ(sent.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(sent.get(), RT_SUCCESS);
    EXPECT_EQ(calls.load(), 0);
}

}  // namespace
