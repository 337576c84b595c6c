// Requests end to end: a front-end driver sends real requests through the
// schemas' dispatcher threads to a real store, and the request hash, the
// messages, the response data, the lock key and the access log are checked
// as the front end reads them.
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>

#include "ChildProcess.h"
#include "FixedPaths.h"
#include "FrontEnd.h"
#include "HTTP_MethodContext.h"
#include "ObjectModelFixture.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;
using namespace OrbelTest;
using Fields = FrontEnd::Fields;

namespace {

const std::string kSystems = "/redfish/v1/Systems";
const std::string kSys1 = kSystems + "/1";
const std::string kSys2 = kSystems + "/2";
const std::string kReadQ = "RF_Test:ComputerSystem:GETQ";
const std::string kPatchQ = "RF_Test:ComputerSystem:PATCHQ";
const std::string kActionQ = "RF_Test:ComputerSystem:POSTACTIONQ";
const std::string kDeleteQ = "RF_Test:ComputerSystem:DELETEQ";
const std::string kCreateQ = "RF_Test:ComputerSystemCollection:POSTCREATEQ";

// What a handler does besides its normal work; set by the test thread
// before it sends the request.
enum eMode { kNormal, kThrow, kFail, kFailConflict, kNotWritableAndError, kForgetApply };

std::string Msg(const std::string& id, const std::string& args = "") {
    return R"({"MessageArgs":[)" + args + R"(],"MessageId":")" + id + R"(","RelatedProperties":[]})";
}
// The messages array of an answer with one message.
std::string One(const std::string& id, const std::string& args = "") {
    return "[" + Msg(id, args) + "]";
}

class SystemSchema : public ZSchema {
public:
    SystemSchema() : ZSchema("ComputerSystem", "v1_20_0", CRUDQ_ALL) {}
    std::atomic<int> mode{kNormal};
    std::atomic<int> reads{0};
    std::atomic<int> budgetMs{300};

    eRtCode HttpMethod_READ(HTTP_MethodContext* ctx) override {
        if (mode == kThrow) throw std::runtime_error("sensor gone");
        if (mode == kFail) return RT_FAILURE;
        if (mode == kFailConflict) {
            ctx->SetReturnStatus(HTTP_RT_CONFLICT, ctx->NewExtendedInfo(RESP_ExtErr_Conflict));
            return RT_FAILURE;
        }
        // A dynamic value, refreshed on every read.
        ZResource* target = ctx->GetTargetResource();
        target->HashWrite("ReadCount", ++reads);
        return target->ApplyRedisChanges(false, ctx->GetRedisContext());
    }
    eRtCode HttpMethod_UPDATE(HTTP_MethodContext* ctx) override {
        if (mode == kNotWritableAndError) {
            ctx->NewExtendedInfo(RESP_Base_PropertyNotWritable, "Id");
            ctx->NewExtendedInfo(RESP_Base_PropertyNotWritable, "Name");
            if (ctx->HasUserInputData("/Fail")) {
                ctx->SetReturnStatus(HTTP_RT_FAILURE,
                                     ctx->NewExtendedInfo(RESP_Base_PropertyValueError, "Fail"));
            } else {
                ctx->SetReturnStatus(HTTP_RT_FAILURE);
            }
            return RT_SUCCESS;
        }
        std::string tag, target;
        long long count = 0;
        ZResource* res = ctx->GetTargetResource();
        if (ctx->GetUserInputData("/AssetTag", tag) == RT_SUCCESS) res->HashWrite("AssetTag", tag);
        if (ctx->GetUserInputData("/Boot/BootSourceOverrideTarget", target) == RT_SUCCESS) {
            res->HashWrite("BootTarget", target);
        }
        if (ctx->GetUserInputData("/Count", count) == RT_SUCCESS) res->HashWrite("Count", count);
        if (mode == kForgetApply) return RT_SUCCESS;
        return res->ApplyRedisChanges(false, ctx->GetRedisContext());
    }
    eRtCode HttpMethod_CREATE(HTTP_MethodContext* ctx) override {
        auto* coll = static_cast<ZResourceCollection*>(ctx->GetTargetResource());
        auto* sys = new ZResource(coll, this, std::to_string(coll->GetFreeMemberId()));
        if (sys->GetJPath().empty()) {
            sys->ObjDestroy(ZObject::eDestroyDelete, false);
            return RT_FAILURE;
        }
        ctx->AssignNewInstance(sys);
        return RT_SUCCESS;
    }
    eRtCode HttpMethod_DELETE(HTTP_MethodContext* ctx) override {
        ctx->GetTargetResource()->ObjDestroy(ZObject::eDestroyDelete, true);
        return RT_SUCCESS;
    }
    FillRetStatusWhenLocked_t GetCallBack_FillRetStatusWhenLocked(ZResource*, int& ms) override {
        ms = budgetMs;
        return &ZSchema::FillRetStatusWhenLocked;
    }
};

std::atomic<int> gCallbacks{0};

eRtCode Reset(HTTP_MethodContext* ctx) {
    std::string type;
    if (ctx->GetUserInputData("/ResetType", type) != RT_SUCCESS) {
        ctx->SetReturnStatus(HTTP_RT_FAILURE,
                             ctx->NewExtendedInfo(RESP_Base_ActionParameterMissing, "Reset", "ResetType"));
        return RT_FAILURE;
    }
    ZObject* data = ctx->NewResponseDataObject(ZObject::eJsonObject);
    data->HashWrite("ResetType", type);
    ctx->RegisterResponsedCallback([](void*) { ++gCallbacks; }, nullptr);
    return RT_SUCCESS;
}

eRtCode Nothing(HTTP_MethodContext*) {
    return RT_SUCCESS;
}

class RequestDispatchTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        gCallbacks = 0;
        mColl = new ZSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_CREATE,
                            "ComputerSystem");
        mSys = new SystemSchema();
        ASSERT_EQ(mColl->Init(), RT_SUCCESS);
        ASSERT_EQ(mSys->Init(), RT_SUCCESS);
        // Templates without a file: these tests look at the request paths,
        // not at verification (the last test installs a real one).
        for (ZSchema* schema : {mColl, static_cast<ZSchema*>(mSys)}) {
            ASSERT_EQ(schema->AddUserInputTemplate("default", new ZUserInputTemplate(schema, nullptr, false)),
                      RT_SUCCESS);
        }
        mSys->AddActionCallback("ComputerSystem.Reset", Reset);
        mSys->AddActionCallback("ComputerSystem.Nothing", Nothing);
        auto* coll = new ZResourceCollection(nullptr, mColl, kSystems);
        new ZResource(coll, mSys, "1");
        new ZResource(coll, mSys, "2");
        // A resource inside system 1's document: not addressable by itself.
        auto* fans = new ZJsonArray(mApp->GetResource(kSys1), "Fans");
        new ZResource(fans, mSys, "0");
        mColl->_InitCRUDqDispather();
        mSys->_InitCRUDqDispather();
        mAccessMark = ReadFile(zLogPrint->AccessLogFilePath()).size();
    }
    void TearDown() override {
        mSys->WaitThreadsExit();
        mColl->WaitThreadsExit();
        ObjectModelTest::TearDown();  // the application deletes the schemas
    }

    // The access lines written since SetUp, waiting briefly for `line`.
    std::string AccessLines(const std::string& line) {
        const auto text = [&] { return ReadFile(zLogPrint->AccessLogFilePath()).substr(mAccessMark); };
        WaitUntil([&] { return text().find(line) != std::string::npos; }, 5000);
        return text();
    }

    ZSchema* mColl = nullptr;
    SystemSchema* mSys = nullptr;
    size_t mAccessMark = 0;
};

TEST_F(RequestDispatchTest, ReadRefreshesTheValueAnswersInTheRequestHashAndLocksWithAnExpiry) {
    FrontEnd fe;
    const Fields request = fe.RequestFields(
        "GET", kSys1, false,
        {{"&&AuthSession", "/redfish/v1/SessionService/Sessions/42"}, {"&&AuthHeader", ""}});
    for (int n = 1; n <= 2; ++n) {
        FrontEnd::Answer a = fe.Send(kReadQ, request);
        ASSERT_TRUE(a.answered);
        Fields expected = request;
        expected["&&ExtendedInfo"] = kSys1 + "/" + kReadQ + "/ExtendedInfo";
        expected["&&ReturnStatus"] = "OK";
        expected["&&ResourceLock"] = "&&ResourceLock:" + kSys1;
        EXPECT_EQ(a.hash, expected);
        EXPECT_EQ(a.extInfo, "[]");
        EXPECT_EQ(HGetAll(kSys1)["ReadCount"], std::to_string(n));
        // The front end released the lock it was given.
        EXPECT_FALSE(Exists("&&ResourceLock:" + kSys1));
    }
    const std::string text = AccessLines("RSP[Corvel:Req:FE:2]");
    EXPECT_NE(text.find(" REQ[Corvel:Req:FE:1] GET IP[10.0.0.9] SESS[admin:00000018] URI[" + kSys1 +
                        "]\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(" RSP[Corvel:Req:FE:2] RC[200] MSG[] IP[10.0.0.9]\n"), std::string::npos)
        << text;

    // A lock the front end keeps holds the target URI and an expiry.
    FrontEnd::Answer a = fe.Send(kReadQ, fe.RequestFields("GET", kSys2, false), nullptr, 5000, false);
    ASSERT_TRUE(a.answered);
    Reply value = RawCommand({"GET", "&&ResourceLock:" + kSys2});
    ASSERT_TRUE(value && value->type == REDIS_REPLY_STRING);
    EXPECT_EQ(std::string(value->str), kSys2);
    Reply ttl = RawCommand({"TTL", "&&ResourceLock:" + kSys2});
    EXPECT_GT(ttl->integer, 0);
    EXPECT_LE(ttl->integer, 20);
}

TEST_F(RequestDispatchTest, PatchReadsTheBodyTreeAndMasksSecretsInTheAccessLog) {
    FrontEnd fe("P");
    const std::string key = fe.NextKey();
    FrontEnd::Body body;
    body.top = {{"AssetTag", "\"rack \\\"7\\\"\""},
                {"Count", "-3"},
                {"UserPassword", "\"hunter2\""},
                {"&&Object Boot &&" + key + "/Boot", ""}};
    body.hashes["&&" + key + "/Boot"] = {{"BootSourceOverrideTarget", "\"Pxe\""}};
    FrontEnd::Answer a = fe.Send(kPatchQ, "PATCH", kSys1, &body, {{"&&AuthHeader", "OAuth"}});
    ASSERT_TRUE(a.answered);
    EXPECT_EQ(a.status, "OK");
    Fields sys = HGetAll(kSys1);
    // The client's quotes stay escaped in the store: the document stays JSON.
    EXPECT_EQ(sys["AssetTag"], "\"rack \\\"7\\\"\"");
    EXPECT_EQ(sys["BootTarget"], "\"Pxe\"");
    EXPECT_EQ(sys["Count"], "-3");
    const std::string line = " REQ[" + key + "] PATCH IP[10.0.0.9] OAUTH2[admin:00000018] URI[" +
                             kSys1 + "] PARAMS[/AssetTag:rack \"7\",/Boot/BootSourceOverrideTarget:Pxe," +
                             "/Count:-3,/UserPassword:******]\n";
    const std::string text = AccessLines(line);
    EXPECT_NE(text.find(line), std::string::npos) << text;
    EXPECT_EQ(text.find("hunter2"), std::string::npos);

    // A client's newline, in a body value or in the user name, cannot start
    // a line of its own: one request, one line.
    const std::string forgedKey = fe.NextKey();
    FrontEnd::Body forged;
    forged.top = {{"AssetTag", "\"x\\nRSP[forged2] RC[200] MSG[] IP[6.6.6.6]\""}};
    FrontEnd::Answer f =
        fe.Send(kPatchQ, "PATCH", kSys1, &forged,
                {{"&&Username", "eve\nRSP[forged3] RC[200] MSG[] IP[6.6.6.6]"}});
    ASSERT_TRUE(f.answered);
    const std::string escaped = "RSP[" + forgedKey + "]";
    const std::string after = AccessLines(escaped);
    EXPECT_NE(after.find("AUTH[eve\\nRSP[forged3]"), std::string::npos) << after;
    EXPECT_NE(after.find("/AssetTag:x\\nRSP[forged2]"), std::string::npos) << after;
    EXPECT_EQ(after.find("\nRSP[forged"), std::string::npos) << after;
}

TEST_F(RequestDispatchTest, CreateInTheCollectionAnswersTheNewMembersLocation) {
    FrontEnd fe;
    FrontEnd::Answer a = fe.Send(kCreateQ, "POSTCREATE", kSystems);
    ASSERT_TRUE(a.answered);
    EXPECT_EQ(a.status, "OK");
    EXPECT_EQ(a.hash["&&Location"], kSystems + "/3");
    // The new instance is locked for the front end, not the collection.
    EXPECT_EQ(a.hash["&&ResourceLock"], "&&ResourceLock:" + kSystems + "/3");
    EXPECT_EQ(HGetAll(kSystems + "/3")["@odata.id"], "\"" + kSystems + "/3\"");
    EXPECT_EQ(HGetAll(kSystems)["Members@odata.count"], "3");

    FrontEnd::Answer d = fe.Send(kDeleteQ, "DELETE", kSystems + "/3");
    ASSERT_TRUE(d.answered);
    EXPECT_EQ(d.status, "OK");
    EXPECT_FALSE(Exists(kSystems + "/3"));
    EXPECT_EQ(HGetAll(kSystems)["Members@odata.count"], "2");
}

TEST_F(RequestDispatchTest, ActionsAnswerWithResponseDataOrEmpty) {
    FrontEnd fe("A");
    FrontEnd::Body body;
    body.top = {{"ResetType", "\"ForceRestart\""}};
    const std::string uri = kSys1 + "/Actions/ComputerSystem.Reset";
    FrontEnd::Answer a = fe.Send(kActionQ, "POSTACTION", uri, &body);
    ASSERT_TRUE(a.answered);
    EXPECT_EQ(a.status, "OK_RES");
    EXPECT_EQ(a.hash["&&ResponseData"], uri + "/ResponseData");
    EXPECT_EQ(a.responseData, R"({"ResetType":"ForceRestart"})");
    EXPECT_EQ(a.hash["&&ExtendedInfo"], uri + "/" + kActionQ + "/ExtendedInfo");
    const std::string line = "URI[" + kSys1 + "] ACT[ComputerSystem.Reset] PARAMS[/ResetType:ForceRestart]\n";
    EXPECT_NE(AccessLines(line).find(line), std::string::npos);
    // The responded callback runs once the front end has released the lock.
    WaitUntil([] { return gCallbacks != 0; }, 5000);
    EXPECT_EQ(gCallbacks, 1);

    const struct {
        std::string action, status, extInfo;
    } rows[] = {
        {"ComputerSystem.Nothing", "OK_EMPTY", "[]"},
        {"ComputerSystem.Reset", "FAILURE",
         One("Base.1.12.ActionParameterMissing", R"("Reset","ResetType")")},
        {"ComputerSystem.Fly", "FAILURE",
         One("Base.1.12.ActionNotSupported", R"("ComputerSystem.Fly")")},
    };
    for (const auto& row : rows) {
        FrontEnd::Answer r = fe.Send(kActionQ, "POSTACTION", kSys1 + "/Actions/" + row.action);
        ASSERT_TRUE(r.answered) << row.action;
        EXPECT_EQ(r.status, row.status) << row.action;
        EXPECT_EQ(r.extInfo, row.extInfo) << row.action;
        EXPECT_EQ(r.hash.count("&&ResponseData"), 0u) << row.action;
    }
}

TEST_F(RequestDispatchTest, FaultsGetTheirStatusAndMessagesAndServingGoesOn) {
    FrontEnd fe("F");
    const Fields get1 = fe.RequestFields("GET", kSys1, false);
    const std::string internal = One("Base.1.12.InternalError");
    const std::string missing = "Base.1.12.ResourceMissingAtURI";
    const struct {
        const char* what;
        int mode;
        std::string channel;
        Fields request;
        std::string status, extInfo;
    } rows[] = {
        {"unknown method", kNormal, kReadQ, fe.RequestFields("PUT", kSys1, false), "EXCEPTION",
         internal},
        {"no such target", kNormal, kReadQ, fe.RequestFields("GET", kSystems + "/9", false),
         "NOT_FOUND", One(missing, "\"" + kSystems + "/9\"")},
        {"embedded resource", kThrow, kReadQ, fe.RequestFields("GET", kSys1 + "/Fans/0", false),
         "NOT_FOUND", One(missing, "\"" + kSys1 + "/Fans/0\"")},
        {"privileges", kThrow, kReadQ,
         fe.RequestFields("GET", kSys1, false, {{"&&OperationPrivileges", "Login,UEFISecurity"}}),
         "FORBIDDEN", One("Base.1.12.InsufficientPrivilege")},
        {"handler throws", kThrow, kReadQ, get1, "EXCEPTION", internal},
        {"handler fails", kFail, kReadQ, get1, "EXCEPTION", internal},
        {"handler fails with its own status", kFailConflict, kReadQ, get1, "CONFLICT",
         One("ExtendedError.1.2.Conflict")},
        {"not-writable notes only", kNotWritableAndError, kPatchQ,
         fe.RequestFields("PATCH", kSys1, false), "FAILURE",
         "[" + Msg("Base.1.12.PropertyNotWritable", "\"Id\"") + "," +
             Msg("Base.1.12.PropertyNotWritable", "\"Name\"") + "]"},
        {"create on a plain resource", kNormal, kCreateQ,
         fe.RequestFields("POSTCREATE", kSys1, false), "NOT_ALLOWED",
         One("ExtendedError.1.2.MethodNotAllowed", "\"POST\",\"" + kSys1 + "\"")},
    };
    const size_t mark = LogMark();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        mSys->mode = row.mode;
        FrontEnd::Answer a = fe.Send(row.channel, row.request);
        ASSERT_TRUE(a.answered);
        EXPECT_EQ(a.status + " " + a.extInfo, row.status + " " + row.extInfo);
    }
    EXPECT_TRUE(Logged(mark,
                       "Auto set Http returnStatus to '500' due to get failed from "
                       "HttpMethod_READ() function.\n"));
    // An error that has other messages drops its not-writable notes.
    mSys->mode = kNotWritableAndError;
    FrontEnd::Body body;
    body.top = {{"Fail", "true"}};
    FrontEnd::Answer a = fe.Send(kPatchQ, "PATCH", kSys1, &body);
    EXPECT_EQ(a.extInfo, One("Base.1.12.PropertyValueError", "\"Fail\""));

    // Whatever the answer, its messages expire: a client naming ever new
    // targets cannot grow the store for good.
    Reply keys = RawCommand({"KEYS", "*ExtendedInfo*"});
    ASSERT_TRUE(keys && keys->elements > 0);
    for (size_t i = 0; i < keys->elements; ++i) {
        Reply ttl = RawCommand({"TTL", keys->element[i]->str});
        EXPECT_TRUE(ttl->integer > 0 && ttl->integer <= 60) << keys->element[i]->str;
    }

    // A key that names no hash has nowhere to be answered; the thread serves on.
    mSys->mode = kNormal;
    EXPECT_FALSE(fe.PublishAndWait(kReadQ, "Corvel:Req:none", 300));
    EXPECT_EQ(fe.Send(kReadQ, "GET", kSys1).status, "OK");
}

// A handler that forgets to apply: the answer still finds the change in the
// store, and the node is reported once, not at every request.
TEST_F(RequestDispatchTest, ChangesAHandlerLeftUnappliedAreAppliedBeforeTheAnswer) {
    FrontEnd fe;
    mSys->mode = kForgetApply;
    const size_t mark = LogMark();
    for (const char* tag : {"first", "second"}) {
        FrontEnd::Body body;
        body.top = {{"AssetTag", std::string("\"") + tag + "\""}};
        ASSERT_EQ(fe.Send(kPatchQ, "PATCH", kSys1, &body).status, "OK");
        EXPECT_EQ(HGetAll(kSys1)["AssetTag"], std::string("\"") + tag + "\"");
    }
    mSys->mode = kNormal;
    const std::string log = LogSince(mark);
    const std::string line = "the handler of PATCH left changes of node[" + kSys1 + "] unapplied";
    const size_t at = log.find(line);
    EXPECT_NE(at, std::string::npos) << log;
    EXPECT_EQ(log.find(line, at + 1), std::string::npos) << log;
}

TEST_F(RequestDispatchTest, ABusyResourceIsAnsweredAfterTheBudget) {
    ZResource* sys2 = mApp->GetResource(kSys2);
    ASSERT_EQ(sys2->Lock(0), RT_SUCCESS);  // held by this thread
    FrontEnd fe;
    const auto start = std::chrono::steady_clock::now();
    FrontEnd::Answer a = fe.Send(kReadQ, fe.RequestFields("GET", kSys2, false), nullptr, 8000);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    sys2->Unlock();
    ASSERT_TRUE(a.answered);
    EXPECT_EQ(a.status, "UNAVAILABLE");
    EXPECT_EQ(a.extInfo, One("Base.1.12.ResourceInUse"));
    EXPECT_GE(ms, 3000 + 300);
    EXPECT_LT(ms, 6000);
}

TEST_F(RequestDispatchTest, QuitEndsExactlyItsOwnThread) {
    FrontEnd fe;
    EXPECT_FALSE(fe.PublishAndWait(kPatchQ, "QUIT", 200));
    EXPECT_FALSE(fe.Send(kPatchQ, fe.RequestFields("PATCH", kSys1, false), nullptr, 500).answered);
    EXPECT_EQ(fe.Send(kReadQ, "GET", kSys1).status, "OK");
    EXPECT_EQ(fe.Send(kActionQ, "POSTACTION", kSys1 + "/Actions/ComputerSystem.Nothing").status,
              "OK_EMPTY");
}

TEST_F(RequestDispatchTest, DispatchersListenAgainAfterAStoreRestart) {
    FrontEnd fe;
    ASSERT_EQ(fe.Send(kReadQ, "GET", kSys1).status, "OK");
    RedisServer::Instance().Stop();
    ASSERT_TRUE(RedisServer::Instance().Start());
    bool served = false;
    for (int i = 0; i < 20 && !served; ++i) {
        served = fe.Send(kReadQ, fe.RequestFields("GET", kSys1, false), nullptr, 500).answered;
    }
    EXPECT_TRUE(served);
}

// The body is checked against the target schema's template before the
// handler runs; a refused one never reaches it and the client reads why.
TEST_F(RequestDispatchTest, BodiesAreVerifiedAgainstTheTemplateBeforeTheHandler) {
    WriteFile(UserInputTemplateDir() + "WireSys.dat",
              "{ 'Id':'S@@@', 'AssetTag':'S,n@p@@M:8', 'HostName':'S@p@s@',\n"
              "  'Boot':'o@p@@' { 'BootSourceOverrideTarget':'S@p@@e:None,Pxe,Hdd' },\n"
              "  'Actions':'o@a@@' { '#ComputerSystem.Reset':'o@a@@' {\n"
              "    'ResetType':'S@ar@@e:On,ForceOff,ForceRestart', 'Delay':'u@@@' } } }\n");
    // Every fault of a body is reported (multi mode).
    ASSERT_EQ(mSys->LoadUserInputTemplate("default", "WireSys", true), RT_SUCCESS);
    FrontEnd fe("V");
    struct Row {
        const char* what;
        bool action;
        Fields top, boot;  // boot: the members of "Boot", when sent
        std::string status, extInfo;
        size_t names = 0;  // a list "Names" of that many strings, when not 0
    };
    const auto typeError = [](const char* value) {
        return One("Base.1.12.PropertyValueTypeError", std::string("\"") + value + "\",\"AssetTag\"");
    };
    const Row rows[] = {
        // A number is a number in any form; one no double holds is refused.
        {"exponent", false, {{"AssetTag", "1e30"}}, {}, "FAILURE", typeError("1e30")},
        {"exponent integer", false, {{"AssetTag", "1E+5"}}, {}, "FAILURE", typeError("100000")},
        {"negative exponent", false, {{"AssetTag", "-2.5e-3"}}, {}, "FAILURE", typeError("-2.5e-3")},
        {"past 64 bits", false, {{"AssetTag", "18446744073709551616"}}, {}, "FAILURE",
         typeError("18446744073709551616")},
        {"no double holds it", false, {{"AssetTag", "1e999"}}, {}, "FAILURE",
         One("Base.1.12.PropertyValueFormatError", R"("1e999","AssetTag")")},
        // A body past the reader's bounds is refused whole, naming the bound.
        {"too many values", false, {{"AssetTag", "\"R8\""}}, {}, "FAILURE",
         One("Base.1.12.PropertyValueFormatError", R"("more than 4096 values","Names/4095")"),
         5000},
        {"read-only property alone", false, {{"Id", "\"7\""}}, {}, "FAILURE",
         One("Base.1.12.PropertyNotWritable", R"("Id")")},
        // With another fault the not-writable note leaves the answer.
        {"read-only and bad enum", false, {{"Id", "\"7\""}}, {{"BootSourceOverrideTarget", "\"Floppy\""}},
         "FAILURE",
         One("Base.1.12.PropertyValueNotInList", R"("Floppy","Boot/BootSourceOverrideTarget")")},
        {"too long", false, {{"AssetTag", "\"123456789\""}}, {}, "FAILURE",
         One("Base.1.12.StringValueTooLong", R"("123456789",8)")},
        {"accepted", false, {{"AssetTag", "\"R7\""}, {"HostName", "\"h1\""}}, {{"BootSourceOverrideTarget", "\"Pxe\""}},
         "OK", "[]"},
        {"action: read-only parameter", true, {{"ResetType", "\"On\""}, {"Delay", "5"}}, {}, "FAILURE",
         One("Base.1.12.ActionParameterNotSupported", R"("Delay","#ComputerSystem.Reset")")},
        {"action: bad enum", true, {{"ResetType", "\"Nmi\""}}, {}, "FAILURE",
         One("Base.1.12.ActionParameterValueFormatError", R"("Nmi","ResetType","#ComputerSystem.Reset")")},
        {"action: required parameter missing", true, {}, {}, "FAILURE",
         One("Base.1.12.ActionParameterMissing", R"("#ComputerSystem.Reset","ResetType")")},
        {"action accepted", true, {{"ResetType", "\"ForceOff\""}}, {}, "OK_RES", "[]"},
    };
    for (const Row& row : rows) {
        const std::string key = fe.NextKey();
        FrontEnd::Body body;
        body.top = row.top;
        if (!row.boot.empty()) {
            body.top["&&Object Boot &&" + key + "/Boot"] = "";
            body.hashes["&&" + key + "/Boot"] = row.boot;
        }
        if (row.names != 0) {
            body.top["&&Array Names &&" + key + "/Names"] = "";
            body.lists["&&" + key + "/Names"].assign(row.names, "\"n\"");
        }
        FrontEnd::Answer a =
            row.action ? fe.Send(kActionQ, "POSTACTION", kSys1 + "/Actions/ComputerSystem.Reset", &body)
                       : fe.Send(kPatchQ, "PATCH", kSys1, &body);
        ASSERT_TRUE(a.answered) << row.what;
        EXPECT_EQ(a.status, row.status) << row.what;
        EXPECT_EQ(a.extInfo, row.extInfo) << row.what;
    }
    // Only the accepted bodies reached their handlers.
    Fields sys = HGetAll(kSys1);
    EXPECT_EQ(sys["AssetTag"], "\"R7\"");
    EXPECT_EQ(sys["BootTarget"], "\"Pxe\"");
    // A SecureProperty value never reaches the access log, whatever its name.
    const std::string params = "PARAMS[/AssetTag:R7,/Boot/BootSourceOverrideTarget:Pxe,/HostName:******]\n";
    const std::string text = AccessLines(params);
    EXPECT_NE(text.find(params), std::string::npos) << text;
    EXPECT_EQ(text.find("h1"), std::string::npos);
}

// A resource's own template comes before the schema's "default"; a
// template that did not load lets no body through (the fault is the
// plug-in's), and a schema without any has none to give.
TEST_F(RequestDispatchTest, TemplatesAreFoundByResourceThenDefault) {
    std::string missing = "NoSuchTemplate";
    auto* broken = new ZUserInputTemplate(mSys, &missing, false);
    ASSERT_NE(broken->GetLoadResult(), RT_SUCCESS);
    ASSERT_EQ(mSys->AddUserInputTemplate("default", broken), RT_SUCCESS);
    ASSERT_EQ(mSys->AddUserInputTemplate(kSys2, new ZUserInputTemplate(mSys, nullptr, false)), RT_SUCCESS);
    EXPECT_EQ(mSys->LoadUserInputTemplate("default", missing), broken->GetLoadResult());
    FrontEnd fe("T");
    FrontEnd::Body body;
    body.top = {{"AssetTag", "\"x\""}};
    FrontEnd::Answer a = fe.Send(kPatchQ, "PATCH", kSys1, &body);
    EXPECT_EQ(a.status, "EXCEPTION");
    EXPECT_EQ(a.extInfo, One("Base.1.12.InternalError"));
    EXPECT_EQ(HGetAll(kSys1).count("AssetTag"), 0u);
    EXPECT_EQ(fe.Send(kPatchQ, "PATCH", kSys2, &body).status, "OK");
    EXPECT_EQ(HGetAll(kSys2)["AssetTag"], "\"x\"");

    ZSchema bare("Bare", "", ZSchema::CRUDQ_READ);
    EXPECT_EQ(bare.GetUserInputTemplate(mApp->GetResource(kSys1)), nullptr);
}

}  // namespace
