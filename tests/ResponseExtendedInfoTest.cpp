// Extended-info messages: the registry, the message tree and its names, the
// JSON forms of arguments, related-property pointers, removal and order, and
// the documents the front end reads back after the messages are applied.
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "ObjectModelFixture.h"
#include "ResponseExtendedInfo.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZSchema.h"

using namespace Orbel;
using OrbelTest::Exists;
using OrbelTest::HGetAll;
using OrbelTest::LogMark;
using OrbelTest::LRange;
using Items = std::vector<std::string>;

namespace {

const std::string kReqKey = "RF_Test:Request:7";
const std::string kSys = "/redfish/v1/Systems/1";
const std::string kArr = kSys + "/RF_Test:ComputerSystem:PATCHQ/ExtendedInfo";

// The JPath of message node `n` and of its child lists.
std::string Msg(int n) {
    return "&&" + kArr + "/" + std::to_string(n);
}
std::string Args(int n) {
    return Msg(n) + "/MessageArgs";
}
std::string Related(int n) {
    return Msg(n) + "/RelatedProperties";
}

// Reaches the members the request context and tasks build on.
class Messages : public ResponseExtendedInfo {
public:
    using ResponseExtendedInfo::ResponseExtendedInfo;
    ZJsonArray* Array() const { return mExtInfosObj; }
    uint32_t Counter() const { return mExtInfoCounter; }
};

class ResponseExtendedInfoTest : public OrbelTest::ObjectModelTest {
protected:
    void SetUp() override {
        OrbelTest::ObjectModelTest::SetUp();
        mSchema =
            new ZSchema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
        mSys = new ZResource(nullptr, mSchema, kSys);
    }
    void TearDown() override {
        delete mSchema;  // retires the resources it owns
        OrbelTest::ObjectModelTest::TearDown();
    }

    // An instance with its message array opened as the request context does.
    Messages* Opened() {
        auto* m = new Messages(mSchema, mSys);
        EXPECT_EQ(m->NewExtInfoObj(kReqKey, kArr), RT_SUCCESS);
        return m;
    }

    ZSchema* mSchema = nullptr;
    ZResource* mSys = nullptr;
};

// ---------------------------------------------------------------------------
// Registry
// ---------------------------------------------------------------------------

struct sExpectedRow {
    eRespMsg id;
    const char* msgId;
    std::vector<eArgType> args;
};

TEST(ResponseMessageRegistry, RowsCarryTheirMessageIdsAndArgumentKinds) {
    const eArgType S = ARG_STRING;
    const eArgType D = ARG_NUMBER;
    const std::vector<sExpectedRow> spots = {
        {RESP_Base_Created, "Base.1.12.Created", {}},
        {RESP_Base_InvalidIndex, "Base.1.12.InvalidIndex", {D}},
        {RESP_Base_PropertyNotWritable, "Base.1.12.PropertyNotWritable", {S}},
        {RESP_Base_StringValueTooLong, "Base.1.12.StringValueTooLong", {S, D}},
        {RESP_Base_ResourceAlreadyExists, "Base.1.12.ResourceAlreadyExists", {S, S, D}},
        {RESP_Base_PropertyValueResourceConflict,
         "Base.1.12.PropertyValueResourceConflict",
         {S, S, S}},
        {RESP_ExtErr_AccountLockout, "ExtendedError.1.2.AccountLockout", {}},
        {RESP_ExtErr_MethodNotAllowed, "ExtendedError.1.2.MethodNotAllowed", {S, S}},
        {RESP_Base_ResetRequired, "Base.1.12.ResetRequired", {S, S}},
        {RESP_ExtErr_FirmwareImageNotMatchTarget,
         "ExtendedError.1.2.FirmwareImageNotMatchTarget",
         {S, S, S, S, S}},
        {RESP_Task_TaskProgressChanged, "TaskEvent.1.0.TaskProgressChanged", {S, D}},
        {RESP_LogSvc_DiagnosticDataCollected, "LogService.1.0.DiagnosticDataCollected", {S}},
        {RESP_FwUpd_UpdateTransferInProgress,
         "VeltraFirmwareUpdateRegistry.1.0.UpdateTransferInProgress",
         {D}},
        {RESP_FwUpd_UpdateVerifyFailed,
         "VeltraFirmwareUpdateRegistry.1.0.UpdateVerifyFailed",
         {D, S}},
        {RESP_FwUpd_PayloadTransferFailed,
         "VeltraFirmwareUpdateRegistry.1.0.PayloadTransferFailed",
         {S, S, D, S}},
        {RESP_ExtWarn_AccountAccessIPMIDenied,
         "VeltraExtendedWarning.1.0.AccountAccessIPMIDenied",
         {}},
        // The misspelling is the MessageId the front end knows.
        {RESP_ExtWarn_ResourceChangeRequried,
         "VeltraExtendedWarning.1.0.ResourceChangeRequried",
         {S, S, S}},
    };
    for (const sExpectedRow& spot : spots) {
        SCOPED_TRACE(spot.msgId);
        const _sMsgAttribute* row = GetRespMsgAttribute(spot.id);
        ASSERT_NE(row, nullptr);
        EXPECT_STREQ(row->msgId, spot.msgId);
        EXPECT_EQ(RespMsgID2Str(spot.id), spot.msgId);
        ASSERT_EQ(row->argNum, spot.args.size());
        for (size_t i = 0; i < kMaxMsgArgs; ++i) {
            EXPECT_EQ(row->argType[i], i < spot.args.size() ? spot.args[i] : ARG_NONE) << i;
        }
    }
}

TEST(ResponseMessageRegistry, EveryValueHasOneRowOfItsRegistryExceptTheGap) {
    // Which registry a value belongs to, by range.
    const auto prefixOf = [](int v) -> std::string {
        if (v == RESP_Base_ResetRequired || v <= 42) return "Base.1.12.";
        if (v <= 89) return "ExtendedError.1.2.";
        if (v <= 94) return "TaskEvent.1.0.";
        if (v == 99) return "LogService.1.0.";
        if (v <= 119) return "VeltraFirmwareUpdateRegistry.1.0.";
        return "VeltraExtendedWarning.1.0.";
    };
    std::set<std::string> ids;
    int rows = 0;
    for (int v = 0; v < RESP_MSG_NUM; ++v) {
        if (v >= 95 && v <= 98) continue;
        SCOPED_TRACE(v);
        const _sMsgAttribute* row = GetRespMsgAttribute(static_cast<eRespMsg>(v));
        ASSERT_NE(row, nullptr);
        const std::string id = row->msgId;
        EXPECT_EQ(id.rfind(prefixOf(v), 0), 0u) << id;
        EXPECT_GT(id.size(), prefixOf(v).size());
        EXPECT_TRUE(ids.insert(id).second) << "duplicate " << id;
        // The count covers exactly the leading kinds that are set.
        for (size_t i = 0; i < kMaxMsgArgs; ++i) {
            EXPECT_EQ(row->argType[i] != ARG_NONE, i < row->argNum) << id << " kind " << i;
        }
        ++rows;
    }
    EXPECT_EQ(rows, 128);

    for (int v : {95, 96, 97, 98, -1, static_cast<int>(RESP_MSG_NUM), 1000}) {
        size_t mark = LogMark();
        EXPECT_EQ(GetRespMsgAttribute(static_cast<eRespMsg>(v)), nullptr) << v;
        EXPECT_EQ(RespMsgID2Str(static_cast<eRespMsg>(v)), "") << v;
        EXPECT_NE(OrbelTest::LogSince(mark).find("Unknown eRespMsg[" + std::to_string(v) + "].\n"),
                  std::string::npos)
            << v;
    }
}

TEST(ResponseMessageRegistry, ARowCountsOnlyTheLeadingKinds) {
    constexpr _sMsgAttribute gap("X", ARG_STRING, ARG_NONE, ARG_NUMBER, ARG_NONE, ARG_NONE,
                                 ARG_NONE);
    static_assert(gap.argNum == 1, "a kind after the first none is no argument");
    constexpr _sMsgAttribute full("Y", ARG_STRING, ARG_NUMBER, ARG_STRING, ARG_NUMBER, ARG_STRING,
                                  ARG_NUMBER);
    EXPECT_EQ(full.argNum, 6u);
    EXPECT_EQ(_sMsgAttribute().argNum, 0u);
    EXPECT_EQ(gap.argNum, 1u);
}

// ---------------------------------------------------------------------------
// The message array
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, TheArrayIsNamedInTheRequestHashOnceAndClearsStaleData) {
    OrbelTest::RawCommand({"RPUSH", kArr, "&&/left/over"});
    Messages m(mSchema, mSys);

    size_t mark = LogMark();
    EXPECT_EQ(m.NewExtendedInfo(RESP_Base_Success), nullptr);
    EXPECT_TRUE(Logged(mark, "mExtInfosObj is NULL.\n"));
    EXPECT_EQ(m.ApplyExtInfoToRedis(), RT_FAILURE);
    EXPECT_EQ(m.InsertReturnExtendedInfo_NotAllowMethod("Update"), nullptr);
    EXPECT_EQ(m.GetExtendedInfoNum(), 0u);

    mark = LogMark();
    EXPECT_EQ(m.NewExtInfoObj(kReqKey, ""), RT_INVALID_ARG);
    EXPECT_TRUE(Logged(mark, "extInfoObjJPath[] is a empty string.\n"));
    EXPECT_EQ(m.NewExtInfoObj("", kArr), RT_INVALID_ARG);
    EXPECT_EQ(m.Array(), nullptr);
    EXPECT_FALSE(Exists(kReqKey));

    ASSERT_EQ(m.NewExtInfoObj(kReqKey, kArr), RT_SUCCESS);
    ASSERT_NE(m.Array(), nullptr);
    EXPECT_EQ(m.Array()->GetJPath(), kArr);
    EXPECT_EQ(m.Array()->GetParent(), nullptr);
    EXPECT_EQ(HGetAll(kReqKey), (std::map<std::string, std::string>{{"&&ExtendedInfo", kArr}}));
    EXPECT_FALSE(Exists(kArr));  // what a previous process left is gone

    // A second call keeps the first array and the field.
    ZJsonArray* first = m.Array();
    EXPECT_EQ(m.NewExtInfoObj("RF_Test:Request:8", kArr + "2"), RT_SUCCESS);
    EXPECT_EQ(m.Array(), first);
    EXPECT_FALSE(Exists("RF_Test:Request:8"));

    // Another instance cannot take a JPath that a live array holds.
    Messages other(mSchema, mSys);
    mark = LogMark();
    EXPECT_EQ(other.NewExtInfoObj("RF_Test:Request:9", kArr), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Failed to create extInfoObj[" + kArr + "].\n"));
    EXPECT_EQ(other.Array(), nullptr);
    EXPECT_EQ(mApp->GetObject(kArr), first);
}

TEST_F(ResponseExtendedInfoTest, NodesAreNamedByTheCounterAndTheListKeepsTheirOrder) {
    Messages* m = Opened();
    sExtendedInfo* a = m->NewExtendedInfo(RESP_Base_PropertyUnknown);
    sExtendedInfo* b = m->NewExtendedInfo(RESP_Base_PropertyMissing);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(a->msgId, RESP_Base_PropertyUnknown);
    EXPECT_EQ(a->msgObj->GetId(), "0");
    EXPECT_EQ(b->msgObj->GetJPath(), Msg(1));
    EXPECT_EQ(b->msgObj->GetParent(), m->Array());

    // Removing a message that never reached the store, and one that did.
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(0), Msg(1)}));
    EXPECT_EQ(HGetAll(Msg(0)),
              (std::map<std::string, std::string>{{"&&MessageId", "\"Base.1.12.PropertyUnknown\""},
                                                  {"&&MessageArgs", Args(0)},
                                                  {"&&RelatedProperties", Related(0)}}));

    m->RemoveExtendedInfo(RESP_Base_PropertyUnknown);
    EXPECT_FALSE(Exists(Msg(0)));  // the node's keys go at once
    sExtendedInfo* c = m->NewExtendedInfo(RESP_Base_PropertyUnknown);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->msgObj->GetId(), "2");
    EXPECT_EQ(m->Counter(), 3u);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(1), Msg(2)}));
    EXPECT_EQ(m->GetAllExtInfoMsgIDs(),
              (Items{"Base.1.12.PropertyMissing", "Base.1.12.PropertyUnknown"}));
    EXPECT_EQ(m->Array()->GetChildIDs(), (Items{"1", "2"}));

    // Same again with nothing applied in between.
    Messages fresh(mSchema, mSys);
    ASSERT_EQ(fresh.NewExtInfoObj(kReqKey, kArr + "B"), RT_SUCCESS);
    fresh.NewExtendedInfo(RESP_Base_Created);
    fresh.NewExtendedInfo(RESP_Base_Success);
    fresh.RemoveExtendedInfo(RESP_Base_Created);
    fresh.NewExtendedInfo(RESP_Base_Created);
    ASSERT_EQ(fresh.ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr + "B"), (Items{"&&" + kArr + "B/1", "&&" + kArr + "B/2"}));
    delete m;
}

TEST_F(ResponseExtendedInfoTest, RemovingARowRemovesEachOfItsMessagesAndNothingElse) {
    Messages* m = Opened();
    m->NewExtendedInfo(RESP_Base_PropertyNotWritable, "A");
    m->NewExtendedInfo(RESP_Base_PropertyValueError, "B");
    m->NewExtendedInfo(RESP_Base_PropertyNotWritable, "C");
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(m->GetExtendedInfoNum(), 3u);
    EXPECT_EQ(m->GetExtendedInfoNum(RESP_Base_PropertyNotWritable), 2u);
    EXPECT_EQ(m->GetExtendedInfoNum(RESP_Base_Created), 0u);

    // A row without messages: no record, node or queued change moves.
    m->RemoveExtendedInfo(RESP_Base_Created);
    EXPECT_EQ(m->GetExtendedInfoNum(), 3u);
    EXPECT_EQ(m->Array()->GetRedisChangeNum(), 0u);
    EXPECT_EQ(m->Array()->GetChildNum(), 3u);

    m->RemoveExtendedInfo(RESP_Base_PropertyNotWritable);
    EXPECT_EQ(m->GetExtendedInfoNum(), 1u);
    EXPECT_EQ(m->GetAllExtInfoMsgIDs(), (Items{"Base.1.12.PropertyValueError"}));
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(1)}));
    EXPECT_FALSE(Exists(Msg(0)));
    EXPECT_FALSE(Exists(Args(2)));
    EXPECT_EQ(LRange(Args(1)), (Items{"\"B\""}));
    delete m;
}

TEST_F(ResponseExtendedInfoTest, CleaningRemovesAllButKeepsTheCounter) {
    Messages* m = Opened();
    m->NewExtendedInfo(RESP_Base_InternalError);
    m->NewExtendedInfo(RESP_Base_ResourceInUse);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    m->CleanAllExtendedInfos();
    EXPECT_EQ(m->GetExtendedInfoNum(), 0u);
    EXPECT_TRUE(m->GetAllExtInfoMsgIDs().empty());
    EXPECT_EQ(m->Array()->GetChildNum(), 0u);
    EXPECT_FALSE(Exists(Msg(0)));
    EXPECT_FALSE(Exists(Msg(1)));
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_FALSE(Exists(kArr));

    sExtendedInfo* next = m->NewExtendedInfo(RESP_Base_Success);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->msgObj->GetId(), "2");
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(2)}));
    delete m;
}

TEST_F(ResponseExtendedInfoTest, DestructionRetiresTheNodesButLeavesTheStore) {
    Messages* m = Opened();
    m->NewExtendedInfo(RESP_Base_ResourceMissingAtURI, "/redfish/v1/x");
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    delete m;
    // The front end may still be reading the response.
    EXPECT_EQ(LRange(kArr), (Items{Msg(0)}));
    EXPECT_EQ(LRange(Args(0)), (Items{"\"/redfish/v1/x\""}));
    EXPECT_EQ(mApp->GetObject(kArr), nullptr);
    EXPECT_EQ(mApp->GetObject(Msg(0)), nullptr);
    Recycle();

    // The next response under the same JPath starts from an empty list.
    Messages* again = Opened();
    ASSERT_NE(again->Array(), nullptr);
    EXPECT_FALSE(Exists(kArr));
    sExtendedInfo* info = again->NewExtendedInfo(RESP_Base_Success);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->msgObj->GetJPath(), Msg(0));
    delete again;
}

// ---------------------------------------------------------------------------
// Arguments
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, EachArgumentIsStoredInItsJsonForm) {
    Messages* m = Opened();
    sExtendedInfo* info = m->NewExtendedInfo(RESP_ExtErr_FirmwareImageNotMatchTarget);
    ASSERT_NE(info, nullptr);
    char writable[] = "w";
    const char* nullText = nullptr;
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, "say \"hi\"\\ \n\t"), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, writable), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, nullText), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, true), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, false), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, static_cast<unsigned short>(65535)), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, 4294967295u), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, static_cast<short>(-32768)), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, std::numeric_limits<int>::min()), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, 4000000000UL), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, -2000000000L), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, 18446744073709551615ULL), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, std::numeric_limits<long long>::min()),
              RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, 1.5), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, 0.1), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, -1e300), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, std::numeric_limits<double>::quiet_NaN()),
              RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, std::numeric_limits<double>::infinity()),
              RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, std::string("caf\xc3\xa9 \x01\xff  ")),
              RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArgOfString(info, "{\"a\":[1,2]}"), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArgs(info, {"x", "y\"z"}), RT_SUCCESS);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);

    EXPECT_EQ(LRange(Args(0)), (Items{"null",
                                      R"("say \"hi\"\\ \n\t")",
                                      R"("w")",
                                      "null",
                                      "true",
                                      "false",
                                      "65535",
                                      "4294967295",
                                      "-32768",
                                      "-2147483648",
                                      "4000000000",
                                      "-2000000000",
                                      "18446744073709551615",
                                      "-9223372036854775808",
                                      "1.5",
                                      "0.1",
                                      "-1e+300",
                                      "null",
                                      "null",
                                      "\"caf\xc3\xa9 \\u0001\\u00ff  \"",
                                      R"({"a":[1,2]})",
                                      R"("x")",
                                      R"("y\"z")"}));
    // Every stored text is JSON as it is: the reader would quote it otherwise.
    EXPECT_EQ(Doc(Args(0)),
              "[null,\"say \\\"hi\\\"\\\\ \\n\\t\",\"w\",null,true,false,65535,4294967295,-32768,"
              "-2147483648,4000000000,-2000000000,18446744073709551615,-9223372036854775808,1.5,"
              "0.1,-1e+300,null,null,\"caf\xc3\xa9 \\u0001\\u00ff  \",{\"a\":[1,2]},\"x\","
              "\"y\\\"z\"]");
    delete m;
}

TEST_F(ResponseExtendedInfoTest, TheVariadicFormAppendsCStringsInOrder) {
    Messages* m = Opened();
    char name[] = "Reset";
    const std::string value = "Force\"Off";
    sExtendedInfo* info =
        m->NewExtendedInfo(RESP_Base_ActionParameterValueFormatError, name, value.c_str(), "#1");
    ASSERT_NE(info, nullptr);
    sExtendedInfo* five =
        m->NewExtendedInfo(RESP_ExtErr_FirmwareImageNotMatchTarget, "a", "b", "c", "d", "e");
    ASSERT_NE(five, nullptr);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(Args(0)), (Items{R"("Reset")", R"("Force\"Off")", R"("#1")"}));
    EXPECT_EQ(LRange(Args(1)), (Items{R"("a")", R"("b")", R"("c")", R"("d")", R"("e")"}));

    // Without the array the arguments go nowhere.
    Messages closed(mSchema, mSys);
    size_t mark = LogMark();
    EXPECT_EQ(closed.NewExtendedInfo(RESP_Base_PropertyMissing, "Name"), nullptr);
    EXPECT_TRUE(Logged(mark, "mExtInfosObj is NULL.\n"));
    delete m;
}

TEST_F(ResponseExtendedInfoTest, NullAndForeignRecordsAreRefused) {
    Messages* m = Opened();
    Messages other(mSchema, mSys);
    ASSERT_EQ(other.NewExtInfoObj(kReqKey, kArr + "Other"), RT_SUCCESS);
    sExtendedInfo* foreign = other.NewExtendedInfo(RESP_Base_PropertyMissing);
    ASSERT_NE(foreign, nullptr);

    size_t mark = LogMark();
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(nullptr), RT_FAILURE);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(nullptr, 5), RT_FAILURE);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(nullptr, std::string("x")), RT_FAILURE);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArgOfString(nullptr, "1"), RT_FAILURE);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArgs(nullptr, {"x"}), RT_FAILURE);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(nullptr, nullptr, "x"), RT_FAILURE);
    EXPECT_EQ(m->InsertReturnExtendedInfo(nullptr), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "extInfo is NULL pointer.\n"));

    mark = LogMark();
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(foreign, "x"), RT_FAILURE);
    EXPECT_EQ(m->InsertReturnExtendedInfo(foreign), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "is not a message of Schema[ComputerSystem].\n"));
    EXPECT_EQ(m->GetExtendedInfoNum(), 0u);

    // A removed record is no longer taken (its pointer is never followed).
    sExtendedInfo* gone = m->NewExtendedInfo(RESP_Base_Success);
    m->RemoveExtendedInfo(RESP_Base_Success);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(gone, 1), RT_FAILURE);

    ASSERT_EQ(other.ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_FALSE(Exists("&&" + kArr + "Other/0/MessageArgs"));
    delete m;
}

// ---------------------------------------------------------------------------
// Related properties
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, RelatedPropertiesArePointersIntoTheTargetResource) {
    auto* boot = new ZJsonObject(mSys, "Boot");
    auto* bootOem = new ZJsonObject(boot, "Oem");
    // A nested id that repeats the resource's URI: only the last occurrence counts.
    auto* echo = new ZJsonObject(mSys, "X" + kSys);
    ZSchema chassisSchema("Chassis", "v1_0_0");
    auto* chassis = new ZResource(nullptr, &chassisSchema, "/redfish/v1/Chassis/1");

    Messages* m = Opened();
    sExtendedInfo* info = m->NewExtendedInfo(RESP_Base_PropertyValueNotInList, "Usb", "Target");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, boot, "BootSourceOverrideTarget"),
              RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, mSys, "AssetTag"), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, nullptr, "Name"), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperties(info, bootOem, {"A", "B"}), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, echo, "P"), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, chassis, "Power"), RT_SUCCESS);
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, boot, "Say\"Hi"), RT_SUCCESS);

    // The message node applied on its own shows the list before the
    // response's apply retires it.
    ASSERT_EQ(info->msgObj->ApplyRedisChanges(true), RT_SUCCESS);
    EXPECT_EQ(LRange(Related(0)),
              (Items{R"("#/Boot/BootSourceOverrideTarget")", R"("#/AssetTag")", R"("#/Name")",
                     R"("#/Boot/Oem/A")", R"("#/Boot/Oem/B")", R"("#/P")",
                     R"("/redfish/v1/Chassis/1/Power")", R"("#/Boot/Say\"Hi")"}));
    delete m;
}

TEST_F(ResponseExtendedInfoTest, RelatedPropertiesNeedATargetAndAreRetiredByTheApply) {
    Messages noTarget(mSchema, nullptr);
    ASSERT_EQ(noTarget.NewExtInfoObj(kReqKey, kArr + "N"), RT_SUCCESS);
    sExtendedInfo* lone = noTarget.NewExtendedInfo(RESP_Base_PropertyUnknown, "Foo");
    size_t mark = LogMark();
    EXPECT_EQ(noTarget.ExtendedInfo_AppendRelatedProperty(lone, nullptr, "Foo"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Schema[ComputerSystem] tgtResource is NULL.\n"));
    ASSERT_EQ(lone->msgObj->ApplyRedisChanges(true), RT_SUCCESS);
    EXPECT_FALSE(Exists("&&" + kArr + "N/0/RelatedProperties"));

    Messages* m = Opened();
    sExtendedInfo* info = m->NewExtendedInfo(RESP_Base_PropertyUnknown, "Foo");
    ASSERT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, nullptr, "Foo"), RT_SUCCESS);
    ASSERT_EQ(info->msgObj->ApplyRedisChanges(true), RT_SUCCESS);
    ASSERT_TRUE(Exists(Related(0)));

    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    // The list and its node are gone; the message still names the list.
    EXPECT_FALSE(Exists(Related(0)));
    EXPECT_EQ(info->msgObj->GetChild("RelatedProperties", true), nullptr);
    EXPECT_EQ(HGetAll(Msg(0)).count("&&RelatedProperties"), 1u);
    mark = LogMark();
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, nullptr, "Bar"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Message[" + Msg(0) + "] has no RelatedProperties.\n"));
    // Arguments still work, and a second apply has nothing left to retire.
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(info, 2), RT_SUCCESS);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(Args(0)), (Items{R"("Foo")", "2"}));
    delete m;
}

// ---------------------------------------------------------------------------
// Leading message and documents
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, TheReturnMessageMovesToTheFront) {
    Messages* m = Opened();
    sExtendedInfo* a = m->NewExtendedInfo(RESP_Base_PropertyUnknown, "A");
    m->NewExtendedInfo(RESP_Base_PropertyUnknown, "B");
    sExtendedInfo* c = m->NewExtendedInfo(RESP_Base_PropertyMissing, "C");
    // Not applied yet: the queued entries are reordered.
    ASSERT_EQ(m->InsertReturnExtendedInfo(c), RT_SUCCESS);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(2), Msg(0), Msg(1)}));
    // Applied: the stored list is rewritten.
    ASSERT_EQ(m->InsertReturnExtendedInfo(a), RT_SUCCESS);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(0), Msg(2), Msg(1)}));
    EXPECT_EQ(m->GetAllExtInfoMsgIDs(),
              (Items{"Base.1.12.PropertyUnknown", "Base.1.12.PropertyMissing",
                     "Base.1.12.PropertyUnknown"}));
    // Already first: nothing is queued.
    ASSERT_EQ(m->InsertReturnExtendedInfo(a), RT_SUCCESS);
    EXPECT_EQ(m->Array()->GetRedisChangeNum(), 0u);
    delete m;
}

TEST_F(ResponseExtendedInfoTest, NotAllowedMethodsNameTheHttpMethodAndTheResource) {
    Messages* m = Opened();
    m->NewExtendedInfo(RESP_Base_Success);
    ASSERT_NE(m->InsertReturnExtendedInfo_NotAllowMethod("Create"), nullptr);
    ASSERT_NE(m->InsertReturnExtendedInfo_NotAllowMethod("Update"), nullptr);
    ASSERT_NE(m->InsertReturnExtendedInfo_NotAllowMethod("Delete"), nullptr);
    sExtendedInfo* action = m->InsertReturnExtendedInfo_NotAllowMethod("Action");
    ASSERT_NE(action, nullptr);
    EXPECT_EQ(action->msgId, RESP_ExtErr_MethodNotAllowed);

    size_t mark = LogMark();
    EXPECT_EQ(m->InsertReturnExtendedInfo_NotAllowMethod("Read"), nullptr);
    EXPECT_EQ(m->InsertReturnExtendedInfo_NotAllowMethod("update"), nullptr);
    EXPECT_TRUE(Logged(mark, "Unknown method[Read].\n"));
    EXPECT_TRUE(Logged(mark, "Unknown method[update].\n"));
    EXPECT_EQ(m->GetExtendedInfoNum(), 5u);
    EXPECT_EQ(m->GetExtendedInfoNum(RESP_ExtErr_MethodNotAllowed), 4u);

    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    // Each one became the leading message in turn.
    const std::string notAllowed =
        R"({"MessageArgs":["%s","/redfish/v1/Systems/1"],)"
        R"("MessageId":"ExtendedError.1.2.MethodNotAllowed","RelatedProperties":[]})";
    auto entry = [&notAllowed](const std::string& method) {
        std::string e = notAllowed;
        return e.replace(e.find("%s"), 2, method);
    };
    EXPECT_EQ(Doc(kArr), "[" + entry("POST") + "," + entry("DELETE") + "," + entry("PATCH") + "," +
                             entry("POST") + "," +
                             R"({"MessageArgs":[],"MessageId":"Base.1.12.Success",)"
                             R"("RelatedProperties":[]}])");

    Messages noTarget(mSchema, nullptr);
    ASSERT_EQ(noTarget.NewExtInfoObj(kReqKey, kArr + "N"), RT_SUCCESS);
    mark = LogMark();
    EXPECT_EQ(noTarget.InsertReturnExtendedInfo_NotAllowMethod("Delete"), nullptr);
    EXPECT_TRUE(Logged(mark, "Schema[ComputerSystem] tgtResource is NULL.\n"));
    EXPECT_EQ(noTarget.GetExtendedInfoNum(), 0u);
    delete m;
}

TEST_F(ResponseExtendedInfoTest, TheFrontEndReadsWholeMessagesFromTheRequestsArray) {
    Messages* m = Opened();
    sExtendedInfo* length = m->NewExtendedInfo(RESP_Base_StringValueTooLong, "HostName");
    m->ExtendedInfo_AppendMsgArg(length, 64);
    m->ExtendedInfo_AppendRelatedProperty(length, mSys, "HostName");
    m->NewExtendedInfo(RESP_Base_PropertyNotWritable, "Id");
    m->NewExtendedInfo(RESP_Task_TaskProgressChanged, "/redfish/v1/TaskService/Tasks/3");
    m->RemoveExtendedInfo(RESP_Base_PropertyNotWritable);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);

    // The request hash names the array; the array lists the message nodes.
    const std::string named = HGetAll(kReqKey)["&&ExtendedInfo"];
    ASSERT_EQ(named, kArr);
    EXPECT_EQ(Doc(named),
              R"([{"MessageArgs":["HostName",64],"MessageId":"Base.1.12.StringValueTooLong",)"
              R"("RelatedProperties":[]},)"
              R"({"MessageArgs":["/redfish/v1/TaskService/Tasks/3"],)"
              R"("MessageId":"TaskEvent.1.0.TaskProgressChanged","RelatedProperties":[]}])");
    EXPECT_EQ(Doc(Msg(2)), R"({"MessageArgs":["/redfish/v1/TaskService/Tasks/3"],)"
                           R"("MessageId":"TaskEvent.1.0.TaskProgressChanged",)"
                           R"("RelatedProperties":[]})");
    delete m;
}

}  // namespace
