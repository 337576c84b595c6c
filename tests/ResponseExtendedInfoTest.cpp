// Extended-info messages: the registry, the message tree and its names, the
// JSON forms of arguments, related-property pointers, removal and order, and
// the documents the front end reads back after the messages are applied.
#include <limits>
#include <memory>
#include <regex>
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
using namespace OrbelTest;
using Items = std::vector<std::string>;

namespace {

const std::string kReqKey = "RF_Test:Request:7";
const std::string kSys = "/redfish/v1/Systems/1";
const std::string kArr = kSys + "/RF_Test:ComputerSystem:PATCHQ/ExtendedInfo";

// The JPath of message node `n` and of its child lists.
const auto Msg = [](int n) { return "&&" + kArr + "/" + std::to_string(n); };
const auto Args = [](int n) { return Msg(n) + "/MessageArgs"; };
const auto Related = [](int n) { return Msg(n) + "/RelatedProperties"; };

// The store form of a message as the front end reads it.
std::string MessageJson(const std::string& args, const std::string& msgId,
                        const std::string& related) {
    return R"({"MessageArgs":[)" + args + R"(],"MessageId":")" + msgId +
           R"(","RelatedProperties":[)" + related + "]}";
}

// Reaches the members the request context and tasks build on.
class Messages : public ResponseExtendedInfo {
public:
    using ResponseExtendedInfo::ResponseExtendedInfo;
    ZJsonArray* Array() const { return mExtInfosObj; }
};

class ResponseExtendedInfoTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        mSchema =
            new ZSchema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
        mSys = new ZResource(nullptr, mSchema, kSys);
        mMsgs = std::make_unique<Messages>(mSchema, mSys);
        ASSERT_EQ(mMsgs->NewExtInfoObj(kReqKey, kArr), RT_SUCCESS);
    }
    void TearDown() override {
        mMsgs.reset();
        delete mSchema;  // retires the resources it owns
        ObjectModelTest::TearDown();
    }

    ZSchema* mSchema = nullptr;
    ZResource* mSys = nullptr;
    std::unique_ptr<Messages> mMsgs;  // its message array opened as the request context does
};

// ---------------------------------------------------------------------------
// Registry
// ---------------------------------------------------------------------------

TEST(ResponseMessageRegistry, EveryValueHasOneRowOfItsRegistryExceptTheGap) {
    // A spot row; kinds as letters, S a string and D a number.
    const _sMsgAttribute* spot = GetRespMsgAttribute(RESP_FwUpd_PayloadTransferFailed);
    ASSERT_NE(spot, nullptr);
    std::string kinds;
    for (uint32_t i = 0; i < spot->argNum; ++i) kinds += spot->argType[i] == ARG_STRING ? 'S' : 'D';
    EXPECT_EQ(kinds, "SSDS");
    // The misspelling is the MessageId the front end knows.
    EXPECT_EQ(RespMsgID2Str(RESP_ExtWarn_ResourceChangeRequried),
              "VeltraExtendedWarning.1.0.ResourceChangeRequried");
    std::set<std::string> ids;
    const std::regex form(
        "(Base\\.1\\.12|ExtendedError\\.1\\.2|TaskEvent\\.1\\.0|LogService\\.1\\.0|"
        "VeltraFirmwareUpdateRegistry\\.1\\.0|VeltraExtendedWarning\\.1\\.0)\\.[A-Za-z0-9]+");
    for (int v = 0; v < RESP_MSG_NUM; ++v) {
        if (v >= 95 && v <= 98) continue;
        const _sMsgAttribute* row = GetRespMsgAttribute(static_cast<eRespMsg>(v));
        ASSERT_NE(row, nullptr) << v;
        const std::string id = row->msgId;
        EXPECT_TRUE(std::regex_match(id, form) && ids.insert(id).second) << id;
        for (size_t i = 0; i < kMaxMsgArgs; ++i) {
            EXPECT_EQ(row->argType[i] != ARG_NONE, i < row->argNum) << id << " kind " << i;
        }
    }
    EXPECT_EQ(ids.size(), 128u);
    for (int v : {95, 98, -1, static_cast<int>(RESP_MSG_NUM)}) {
        size_t mark = LogMark();
        EXPECT_EQ(GetRespMsgAttribute(static_cast<eRespMsg>(v)), nullptr) << v;
        EXPECT_EQ(RespMsgID2Str(static_cast<eRespMsg>(v)), "") << v;
        EXPECT_TRUE(Logged(mark, "Unknown eRespMsg[" + std::to_string(v) + "].\n"));
    }
}

// ---------------------------------------------------------------------------
// The message array
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, TheArrayIsNamedInTheRequestHashOnce) {
    // The fixture's array is named in the request hash; its node, without
    // parent, comes with the first message.
    EXPECT_EQ(mMsgs->Array(), nullptr);
    EXPECT_EQ(HGetAll(kReqKey), (Fields{{"&&ExtendedInfo", kArr}}));
    ASSERT_NE(mMsgs->NewExtendedInfo(RESP_Base_Success), nullptr);
    ZJsonArray* first = mMsgs->Array();
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(first->GetJPath() == kArr && first->GetParent() == nullptr);
    // A second call keeps the first array and the field.
    EXPECT_EQ(mMsgs->NewExtInfoObj("RF_Test:Request:8", kArr + "2"), RT_SUCCESS);
    EXPECT_EQ(mMsgs->Array(), first);
    EXPECT_FALSE(Exists("RF_Test:Request:8"));

    // Another instance cannot take a JPath that a live array holds, nor an
    // empty one; without an array no message can be made.
    Messages other(mSchema, mSys);
    size_t mark = LogMark();
    EXPECT_EQ(other.NewExtInfoObj("RF_Test:Request:9", kArr), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Failed to create extInfoObj[" + kArr + "].\n"));
    EXPECT_EQ(mApp->GetObject(kArr), first);
    EXPECT_EQ(other.NewExtInfoObj("RF_Test:Request:9", ""), RT_INVALID_ARG);
    EXPECT_EQ(other.NewExtInfoObj("", kArr + "3"), RT_INVALID_ARG);
    EXPECT_TRUE(other.Array() == nullptr && !Exists("RF_Test:Request:9"));
    EXPECT_EQ(other.NewExtendedInfo(RESP_Base_PropertyMissing, "Name"), nullptr);
    EXPECT_TRUE(Logged(mark, "mExtInfosObj is NULL.\n"));
    EXPECT_EQ(other.ApplyExtInfoToRedis(), RT_FAILURE);
}

TEST_F(ResponseExtendedInfoTest, NodesAreNamedByTheCounterAndRemovalKeepsTheOrder) {
    Messages* m = mMsgs.get();
    m->NewExtendedInfo(RESP_Base_PropertyNotWritable, "A");
    m->NewExtendedInfo(RESP_Base_PropertyValueError, "B");
    m->NewExtendedInfo(RESP_Base_PropertyNotWritable, "C");
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(0), Msg(1), Msg(2)}));
    EXPECT_EQ(HGetAll(Msg(0)), (Fields{{"&&MessageId", "\"Base.1.12.PropertyNotWritable\""},
                                       {"&&MessageArgs", Args(0)},
                                       {"&&RelatedProperties", Related(0)}}));
    EXPECT_EQ(m->GetExtendedInfoNum(RESP_Base_PropertyNotWritable), 2u);

    // Removing a row removes each of its messages, whose keys go at once.
    m->RemoveExtendedInfo(RESP_Base_PropertyNotWritable);
    EXPECT_FALSE(Exists(Msg(0)) || Exists(Args(2)));
    EXPECT_EQ(m->GetAllExtInfoMsgIDs(), (Items{"Base.1.12.PropertyValueError"}));
    // The next node takes the next number, never a freed one.
    m->NewExtendedInfo(RESP_Base_PropertyUnknown);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr), (Items{Msg(1), Msg(3)}));

    // Same with nothing applied in between: "0", "1", then "2" after a removal.
    Messages fresh(mSchema, mSys);
    ASSERT_EQ(fresh.NewExtInfoObj(kReqKey, kArr + "B"), RT_SUCCESS);
    fresh.NewExtendedInfo(RESP_Base_Created);
    fresh.NewExtendedInfo(RESP_Base_Success);
    fresh.RemoveExtendedInfo(RESP_Base_Created);
    fresh.NewExtendedInfo(RESP_Base_Created);
    ASSERT_EQ(fresh.ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_EQ(LRange(kArr + "B"), (Items{"&&" + kArr + "B/1", "&&" + kArr + "B/2"}));
    EXPECT_EQ(fresh.GetAllExtInfoMsgIDs(), (Items{"Base.1.12.Success", "Base.1.12.Created"}));
}

TEST_F(ResponseExtendedInfoTest, CleaningKeepsTheCounterAndDestructionLeavesTheStore) {
    mMsgs->NewExtendedInfo(RESP_Base_InternalError);
    mMsgs->NewExtendedInfo(RESP_Base_ResourceInUse);
    ASSERT_EQ(mMsgs->ApplyExtInfoToRedis(), RT_SUCCESS);
    mMsgs->CleanAllExtendedInfos();
    EXPECT_TRUE(mMsgs->GetExtendedInfoNum() == 0 && mMsgs->Array()->GetChildNum() == 0);
    EXPECT_FALSE(Exists(Msg(0)) || Exists(Msg(1)));
    ASSERT_EQ(mMsgs->ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_FALSE(Exists(kArr));
    mMsgs->NewExtendedInfo(RESP_Base_ResourceMissingAtURI, "/redfish/v1/x");
    ASSERT_EQ(mMsgs->ApplyExtInfoToRedis(), RT_SUCCESS);

    // Destruction retires the nodes but leaves the store: the front end may
    // still be reading the response.
    mMsgs.reset();
    EXPECT_EQ(LRange(kArr), (Items{Msg(2)}));
    EXPECT_EQ(LRange(Args(2)), (Items{"\"/redfish/v1/x\""}));
    EXPECT_EQ(mApp->GetObject(kArr), nullptr);
    Recycle();
    // The next response under the same JPath starts from an empty list:
    // what an earlier one (or an earlier process) left is gone.
    Messages again(mSchema, mSys);
    ASSERT_EQ(again.NewExtInfoObj(kReqKey, kArr), RT_SUCCESS);
    EXPECT_FALSE(Exists(kArr));
    sExtendedInfo* info = again.NewExtendedInfo(RESP_Base_Success);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->msgObj->GetJPath(), Msg(0));
}

// ---------------------------------------------------------------------------
// Arguments
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, EachArgumentIsStoredInItsJsonFormOnItsOwnRecordOnly) {
    Messages* m = mMsgs.get();
    sExtendedInfo* info = m->NewExtendedInfo(RESP_ExtErr_FirmwareImageNotMatchTarget);
    ASSERT_NE(info, nullptr);
    char writable[] = "w";
    const char* nullText = nullptr;
    // Each call adds one element; the list compared below shows any that failed.
    m->ExtendedInfo_AppendMsgArg(info);
    m->ExtendedInfo_AppendMsgArg(info, "say \"hi\"\\ \n\t");
    m->ExtendedInfo_AppendMsgArg(info, writable);
    m->ExtendedInfo_AppendMsgArg(info, nullText);
    // Each value goes to the overload of its own type.
    const auto append = [&](auto... values) { (m->ExtendedInfo_AppendMsgArg(info, values), ...); };
    append(true, 18446744073709551615ULL, std::numeric_limits<long long>::min(), 0.1,
           std::numeric_limits<double>::quiet_NaN(), std::string("caf\xc3\xa9 \x01\xff  "));
    m->ExtendedInfo_AppendMsgArgOfString(info, "{\"a\":[1,2]}");
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArgs(info, {"x", "y\"z"}), RT_SUCCESS);
    // The variadic form appends C strings in order.
    char name[] = "Reset";
    const std::string value = "Force\"Off";
    ASSERT_NE(m->NewExtendedInfo(RESP_Base_ActionParameterValueFormatError, name, value.c_str()),
              nullptr);
    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);

    EXPECT_EQ(LRange(Args(0)),
              (Items{"null", R"("say \"hi\"\\ \n\t")", R"("w")", "null", "true",
                     "18446744073709551615", "-9223372036854775808", "0.1", "null",
                     "\"caf\xc3\xa9 \\u0001\\u00ff  \"", R"({"a":[1,2]})", R"("x")", R"("y\"z")"}));
    EXPECT_EQ(LRange(Args(1)), (Items{R"("Reset")", R"("Force\"Off")"}));

    // Null, foreign and removed records are refused.
    Messages other(mSchema, mSys);
    ASSERT_EQ(other.NewExtInfoObj(kReqKey, kArr + "Other"), RT_SUCCESS);
    sExtendedInfo* foreign = other.NewExtendedInfo(RESP_Base_PropertyMissing);
    ASSERT_NE(foreign, nullptr);
    size_t mark = LogMark();
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(nullptr, 5), RT_FAILURE);
    EXPECT_EQ(m->InsertReturnExtendedInfo(nullptr), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "extInfo is NULL pointer.\n"));
    mark = LogMark();
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(foreign, "x"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "is not a message of Schema[ComputerSystem].\n"));
    EXPECT_EQ(m->GetExtendedInfoNum(), 2u);  // the two above only
    // A removed record is no longer taken (its pointer is never followed).
    sExtendedInfo* gone = m->NewExtendedInfo(RESP_Base_Success);
    m->RemoveExtendedInfo(RESP_Base_Success);
    EXPECT_EQ(m->ExtendedInfo_AppendMsgArg(gone, 1), RT_FAILURE);
    ASSERT_EQ(other.ApplyExtInfoToRedis(), RT_SUCCESS);
    EXPECT_FALSE(Exists("&&" + kArr + "Other/0/MessageArgs"));
}

// ---------------------------------------------------------------------------
// Related properties
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, RelatedPropertiesArePointersIntoTheTargetRetiredByTheApply) {
    auto* boot = new ZJsonObject(mSys, "Boot");
    auto* bootOem = new ZJsonObject(boot, "Oem");
    ZSchema chassisSchema("Chassis", "v1_0_0");
    auto* chassis = new ZResource(nullptr, &chassisSchema, "/redfish/v1/Chassis/1");
    Messages* m = mMsgs.get();
    sExtendedInfo* info = m->NewExtendedInfo(RESP_Base_PropertyValueNotInList, "Usb", "Target");
    ASSERT_NE(info, nullptr);
    m->ExtendedInfo_AppendRelatedProperty(info, boot, "BootSourceOverrideTarget");
    m->ExtendedInfo_AppendRelatedProperty(info, mSys, "AssetTag");
    m->ExtendedInfo_AppendRelatedProperty(info, nullptr, "Name");
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperties(info, bootOem, {"A", "B"}), RT_SUCCESS);
    m->ExtendedInfo_AppendRelatedProperty(info, chassis, "Power");
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, boot, "Say\"Hi"), RT_SUCCESS);
    // The message node applied on its own shows the list before the
    // response's apply retires it.
    ASSERT_EQ(info->msgObj->ApplyRedisChanges(true), RT_SUCCESS);
    EXPECT_EQ(LRange(Related(0)),
              (Items{R"("#/Boot/BootSourceOverrideTarget")", R"("#/AssetTag")", R"("#/Name")",
                     R"("#/Boot/Oem/A")", R"("#/Boot/Oem/B")",
                     R"("/redfish/v1/Chassis/1/Power")", R"("#/Boot/Say\"Hi")"}));

    ASSERT_EQ(m->ApplyExtInfoToRedis(), RT_SUCCESS);
    // The list and its node are gone; the message still names the list.
    EXPECT_FALSE(Exists(Related(0)));
    EXPECT_EQ(info->msgObj->GetChild("RelatedProperties", true), nullptr);
    EXPECT_EQ(HGetAll(Msg(0)).count("&&RelatedProperties"), 1u);
    size_t mark = LogMark();
    EXPECT_EQ(m->ExtendedInfo_AppendRelatedProperty(info, nullptr, "Bar"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Message[" + Msg(0) + "] has no RelatedProperties.\n"));
}

// ---------------------------------------------------------------------------
// Leading message and documents
// ---------------------------------------------------------------------------

TEST_F(ResponseExtendedInfoTest, TheReturnMessageMovesToTheFrontAndNamesANotAllowedMethod) {
    Messages* m = mMsgs.get();
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

    // Not-allowed methods name the HTTP method and the resource.
    Messages n(mSchema, mSys);
    ASSERT_EQ(n.NewExtInfoObj(kReqKey, kArr + "N"), RT_SUCCESS);
    n.NewExtendedInfo(RESP_Base_Success);
    for (const char* method : {"Create", "Update", "Delete", "Action"}) {
        EXPECT_NE(n.InsertReturnExtendedInfo_NotAllowMethod(method), nullptr) << method;
    }
    size_t mark = LogMark();
    EXPECT_EQ(n.InsertReturnExtendedInfo_NotAllowMethod("update"), nullptr);
    EXPECT_TRUE(Logged(mark, "Unknown method[update].\n"));
    ASSERT_EQ(n.ApplyExtInfoToRedis(), RT_SUCCESS);
    // Each one became the leading message in turn.
    const auto notAllowed = [](const char* method) {
        return MessageJson("\"" + std::string(method) + "\",\"/redfish/v1/Systems/1\"",
                           "ExtendedError.1.2.MethodNotAllowed", "");
    };
    EXPECT_EQ(StoreDoc(kArr + "N"), "[" + notAllowed("POST") + "," + notAllowed("DELETE") + "," +
                                  notAllowed("PATCH") + "," + notAllowed("POST") + "," +
                                  MessageJson("", "Base.1.12.Success", "") + "]");
}

}  // namespace
