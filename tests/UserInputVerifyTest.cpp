// Verification of user input against a template: every fault row for a
// non-action and an action request, as the messages land in the store;
// limits, array types, required lists per method, annotations, malformed
// paths, the stop-at-first rule and the flags copied from the template.
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FixedPaths.h"
#include "RedisCli.h"
#include "ObjectModelFixture.h"
#include "ResponseExtendedInfo.h"
#include "ZResource.h"
#include "ZSchema.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;
using namespace OrbelTest;
using Items = std::vector<std::string>;

namespace {

const char kTemplate[] =
    "{\n"
    "  'AssetTag':'S,n@p,c@@M:8',\n"
    "  'Name':'S@cr@@',\n"
    "  'Id':'S@@@',\n"
    "  'Mode':'S@p@@e:A,B',\n"
    "  'Code':'S@p@@m:2,p:^[0-9]+$',\n"
    "  'Count':'u@p@@m:1,M:4',\n"
    "  'Level':'s,f@p@@e:-1,2.5',\n"
    "  'Enabled':'b@p@@',\n"
    "  'Secret':'S@p@s@',\n"
    "  'Any':'i@p@@',\n"
    "  'Boot':'o@p@@' { 'Target':'S@pr@@e:None,Pxe', 'Order':'a@p@@m:R,M:2' [ 'S@p@@' ] },\n"
    "  'Slots':'a@p,c@@m:2,M:2' [ 'u@p,c@@' ],\n"
    "  'Tags':'a@p@@m:1,M:3' [ 'S@p@@' ],\n"
    "  'Servers':'a@p@@' [ { 'Address':'S@pr@@' } ],\n"
    "  'Raw':'a@p@@' [ ],\n"
    "  'Actions':'o@a@@' { '#Sys.Reset':'o@a@@' {\n"
    "     'ResetType':'S@ar@@e:On,Off', 'Delay':'u@a@@M:60', 'Info':'S@@@' } }\n"
    "}\n";

const std::string kSys = "/redfish/v1/Systems/1";
const std::string kArr = kSys + "/RF_Test:ComputerSystem:PATCHQ/ExtendedInfo";

struct In {
    const char* jpath;
    eUsrInValueType type;
    const char* value;
};
struct Msg {
    std::string msgId;
    Items args;           // JSON forms, as stored
    std::string related;  // "" for none
};

UsrInCache Body(const std::vector<In>& entries) {
    UsrInCache cache;
    for (const In& e : entries) cache[e.jpath] = sUsrInCacheItem{e.type, e.value, 0};
    return cache;
}

class UserInputVerifyTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        mSchema = new ZSchema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_ALL);
        mSys = new ZResource(nullptr, mSchema, kSys);
        WriteFile(UserInputTemplateDir() + "Sys.dat", kTemplate);
        std::string name = "Sys";
        mTmpl = std::make_unique<ZUserInputTemplate>(nullptr, &name, false);
        mMultiTmpl = std::make_unique<ZUserInputTemplate>(nullptr, &name, true);
        ASSERT_EQ(mTmpl->GetLoadResult(), RT_SUCCESS);
    }
    void TearDown() override {
        mTmpl.reset();
        mMultiTmpl.reset();
        delete mSchema;
        ObjectModelTest::TearDown();
    }

    // Verifies `body` and returns the result; the messages as the front end
    // reads them from the store go to `stored`, each with the related
    // property its fault record names.
    eRtCode Verify(eReqMethod method, UsrInCache body, std::vector<Msg>* stored,
                   bool multi = false) {
        const std::string arr = kArr + std::to_string(mRun++);
        ResponseExtendedInfo ext(mSchema, mSys);
        EXPECT_EQ(ext.NewExtInfoObj("RF_Test:Request:1", arr), RT_SUCCESS);
        sUsrInVerifyArgs args;
        args.method = method;
        args.actionName = method == eReqAction ? "#Sys.Reset" : "";
        args.input = &body;
        args.extInfo = &ext;
        args.schemaName = "ComputerSystem";
        std::vector<sUsrInFault> faults;
        const eRtCode rt = ZUserInputTemplate::VerifyUserInputData(
            multi ? mMultiTmpl.get() : mTmpl.get(), args, &faults);
        EXPECT_EQ(ext.ApplyExtInfoToRedis(), RT_SUCCESS);
        stored->clear();
        const Items nodes = LRange(arr);
        EXPECT_EQ(nodes.size(), faults.size());
        for (size_t i = 0; i < nodes.size() && i < faults.size(); ++i) {
            // Related properties stay with the plug-in; the fault record names it.
            stored->push_back(Msg{HGetAll(nodes[i])["&&MessageId"],
                                  LRange(nodes[i] + "/MessageArgs"), faults[i].property});
        }
        return rt;
    }

    static ::testing::AssertionResult Same(const std::vector<Msg>& got,
                                           const std::vector<Msg>& want) {
        bool same = got.size() == want.size();
        for (size_t i = 0; same && i < got.size(); ++i) {
            same = got[i].msgId == "\"" + want[i].msgId + "\"" && got[i].args == want[i].args &&
                   got[i].related == want[i].related;
        }
        if (same) return ::testing::AssertionSuccess();
        auto failure = ::testing::AssertionFailure() << "stored:";
        for (const Msg& m : got) {
            failure << "\n  " << m.msgId << " related " << m.related << " args";
            for (const std::string& a : m.args) failure << " " << a;
        }
        return failure;
    }

    ZSchema* mSchema = nullptr;
    ZResource* mSys = nullptr;
    std::unique_ptr<ZUserInputTemplate> mTmpl;       // stops at the first fault
    std::unique_ptr<ZUserInputTemplate> mMultiTmpl;  // reports every fault
    int mRun = 0;
};

TEST_F(UserInputVerifyTest, EachFaultRowStoresItsMessagePair) {
    struct Row {
        eReqMethod method;
        std::vector<In> body;
        std::vector<Msg> want;
    };
    const Row rows[] = {
        // Not in the template.
        {eReqUpdate,
         {{"/Nope", USRIN_STRING, "x"}},
         {{"Base.1.12.PropertyUnknown", {"\"Nope\""}, "Nope"}}},
        {eReqAction,
         {{"/Nope", USRIN_STRING, "x"}},
         {{"Base.1.12.ActionParameterNotSupported", {"\"Nope\"", "\"#Sys.Reset\""}, "Nope"}}},
        // Not writable in this method.
        {eReqUpdate,
         {{"/Id", USRIN_STRING, "x"}},
         {{"Base.1.12.PropertyNotWritable", {"\"Id\""}, "Id"}}},
        {eReqAction,
         {{"/Info", USRIN_STRING, "x"}},
         {{"Base.1.12.ActionParameterNotSupported", {"\"Info\"", "\"#Sys.Reset\""}, "Info"}}},
        // A type the template does not allow; objects and arrays shown as {} and [].
        {eReqUpdate,
         {{"/Enabled", USRIN_STRING, "yes"}},
         {{"Base.1.12.PropertyValueTypeError", {"\"yes\"", "\"Enabled\""}, "Enabled"}}},
        {eReqUpdate,
         {{"/AssetTag", USRIN_OBJECT, ""}},
         {{"Base.1.12.PropertyValueTypeError", {"\"{}\"", "\"AssetTag\""}, "AssetTag"}}},
        {eReqAction,
         {{"/ResetType", USRIN_ARRAY, ""}},
         {{"Base.1.12.ActionParameterValueTypeError",
           {"\"[]\"", "\"ResetType\"", "\"#Sys.Reset\""},
           "ResetType"}}},
        // Text not allowed, or the pattern not matched.
        {eReqUpdate,
         {{"/Code", USRIN_STRING, "12a"}},
         {{"Base.1.12.PropertyValueFormatError", {"\"12a\"", "\"Code\""}, "Code"}}},
        {eReqAction,
         {{"/ResetType", USRIN_STRING, "O\x01n"}},
         {{"Base.1.12.ActionParameterValueFormatError",
           {"\"O\\u0001n\"", "\"ResetType\"", "\"#Sys.Reset\""},
           "ResetType"}}},
        // Not in the enumeration: an action answers with the value-format message.
        {eReqUpdate,
         {{"/Mode", USRIN_STRING, "C"}},
         {{"Base.1.12.PropertyValueNotInList", {"\"C\"", "\"Mode\""}, "Mode"}}},
        {eReqAction,
         {{"/ResetType", USRIN_STRING, "Pause"}},
         {{"Base.1.12.ActionParameterValueFormatError",
           {"\"Pause\"", "\"ResetType\"", "\"#Sys.Reset\""},
           "ResetType"}}},
        // A required property missing (an action may have an empty body).
        {eReqCreate,
         {{"/AssetTag", USRIN_STRING, "a"}},
         {{"Base.1.12.PropertyMissing", {"\"Name\""}, "Name"}}},
        {eReqAction,
         {},
         {{"Base.1.12.ActionParameterMissing", {"\"#Sys.Reset\"", "\"ResetType\""}, "ResetType"}}},
        // The length limit, the one message with a number.
        {eReqUpdate,
         {{"/AssetTag", USRIN_STRING, "123456789"}},
         {{"Base.1.12.StringValueTooLong", {"\"123456789\"", "8"}, "AssetTag"}}},
        // A number outside its range, a negative one where only unsigned is allowed.
        {eReqAction,
         {{"/ResetType", USRIN_STRING, "On"}, {"/Delay", USRIN_UNUM, "61"}},
         {{"Base.1.12.ActionParameterValueFormatError",
           {"\"61\"", "\"Delay\"", "\"#Sys.Reset\""},
           "Delay"}}},
        {eReqUpdate,
         {{"/Count", USRIN_SNUM, "-1"}},
         {{"Base.1.12.PropertyValueTypeError", {"\"-1\"", "\"Count\""}, "Count"}}},
        {eReqUpdate,
         {{"/Level", USRIN_SNUM, "-2"}},
         {{"Base.1.12.PropertyValueNotInList", {"\"-2\"", "\"Level\""}, "Level"}}},
        // A SecureProperty value never leaves masked.
        {eReqUpdate,
         {{"/Secret", USRIN_BOOL, "true"}},
         {{"Base.1.12.PropertyValueTypeError", {"\"******\"", "\"Secret\""}, "Secret"}}},
        // Bodies: empty, only annotations, a path no front end makes.
        {eReqUpdate, {}, {{"Base.1.12.EmptyJSON", {}, ""}}},
        {eReqUpdate, {{"/@odata.etag", USRIN_STRING, "x"}}, {{"Base.1.12.NoOperation", {}, ""}}},
        {eReqUpdate,
         {{"/Tags", USRIN_ARRAY, ""}, {"/Tags/x", USRIN_STRING, "a"}},
         {{"ExtendedError.1.2.BadRequest", {}, ""}}},
        {eReqUpdate, {{"//Mode", USRIN_STRING, "A"}}, {{"ExtendedError.1.2.BadRequest", {}, ""}}},
    };
    std::vector<Msg> stored;
    for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); ++i) {
        const Row& row = rows[i];
        EXPECT_EQ(Verify(row.method, Body(row.body), &stored), RT_FAILURE) << "row " << i;
        EXPECT_TRUE(Same(stored, row.want)) << "row " << i;
    }
}

TEST_F(UserInputVerifyTest, ValidBodiesPassAndArrayTypesCountTheirItems) {
    const std::vector<std::pair<eReqMethod, std::vector<In>>> pass = {
        {eReqUpdate,
         {{"/AssetTag", USRIN_NULL, ""},
          {"/Mode", USRIN_STRING, "B"},
          {"/Code", USRIN_STRING, "0123"},
          {"/Count", USRIN_UNUM, "4"},
          {"/Level", USRIN_DOUBLE, "2.5"},
          {"/Enabled", USRIN_BOOL, "false"},
          {"/@odata.id", USRIN_STRING, "/redfish/v1/x"},
          // Ignore: accepted with whatever it holds.
          {"/Any", USRIN_OBJECT, ""},
          {"/Any/Deep", USRIN_ARRAY, ""}}},
        // A required member is required only when its object is sent.
        {eReqUpdate,
         {{"/Boot", USRIN_OBJECT, ""},
          {"/Boot/Target", USRIN_STRING, "Pxe"},
          {"/Boot/Order", USRIN_ARRAY, ""},
          {"/Boot/Order/0", USRIN_STRING, "a"},
          {"/Boot/Order/1", USRIN_STRING, "b"},
          // FixedLength: a patch may change the leading items.
          {"/Slots", USRIN_ARRAY, ""},
          {"/Slots/0", USRIN_UNUM, "1"}}},
        {eReqCreate, {{"/Name", USRIN_STRING, "n"}}},
        {eReqAction, {{"/ResetType", USRIN_STRING, "Off"}, {"/Delay", USRIN_UNUM, "60"}}},
    };
    std::vector<Msg> stored;
    for (const auto& body : pass) {
        EXPECT_EQ(Verify(body.first, Body(body.second), &stored), RT_SUCCESS);
        EXPECT_TRUE(Same(stored, {}));
    }
    const Msg orderFault{
        "Base.1.12.PropertyValueFormatError", {"\"[]\"", "\"Boot/Order\""}, "Boot/Order"};
    const std::pair<std::vector<In>, Msg> fail[] = {
        // Rigid: exactly M items.
        {{{"/Boot", USRIN_OBJECT, ""},
          {"/Boot/Target", USRIN_STRING, "Pxe"},
          {"/Boot/Order", USRIN_ARRAY, ""},
          {"/Boot/Order/0", USRIN_STRING, "a"}},
         orderFault},
        // FixedLength: never more than its length.
        {{{"/Slots", USRIN_ARRAY, ""},
          {"/Slots/0", USRIN_UNUM, "1"},
          {"/Slots/1", USRIN_UNUM, "1"},
          {"/Slots/2", USRIN_UNUM, "1"}},
         {"Base.1.12.PropertyValueFormatError", {"\"[]\"", "\"Slots\""}, "Slots"}},
        // VariableLength: within its bounds.
        {{{"/Tags", USRIN_ARRAY, ""}},
         {"Base.1.12.PropertyValueFormatError", {"\"[]\"", "\"Tags\""}, "Tags"}},
        // Required members of each array item; items of an array without item template.
        {{{"/Servers", USRIN_ARRAY, ""}, {"/Servers/0", USRIN_OBJECT, ""}},
         {"Base.1.12.PropertyMissing", {"\"Servers/0/Address\""}, "Servers/0/Address"}},
        {{{"/Raw", USRIN_ARRAY, ""}, {"/Raw/0", USRIN_UNUM, "1"}},
         {"Base.1.12.PropertyUnknown", {"\"Raw/0\""}, "Raw/0"}},
        {{{"/Boot", USRIN_OBJECT, ""}},
         {"Base.1.12.PropertyMissing", {"\"Boot/Target\""}, "Boot/Target"}},
    };
    for (const auto& row : fail) {
        EXPECT_EQ(Verify(eReqUpdate, Body(row.first), &stored), RT_FAILURE);
        EXPECT_TRUE(Same(stored, {row.second})) << row.second.related;
    }
    // Create: a FixedLength array needs all its items.
    EXPECT_EQ(Verify(eReqCreate,
                     Body({{"/Name", USRIN_STRING, "n"},
                           {"/Slots", USRIN_ARRAY, ""},
                           {"/Slots/0", USRIN_UNUM, "1"}}),
                     &stored),
              RT_FAILURE);
}

TEST_F(UserInputVerifyTest, MultiModeReportsEveryFaultAndFlagsComeFromTheTemplate) {
    const UsrInCache body = Body({{"/Id", USRIN_STRING, "x"},
                                  {"/Mode", USRIN_STRING, "C"},
                                  {"/Nope", USRIN_OBJECT, ""},
                                  {"/Nope/Deeper", USRIN_STRING, "x"},
                                  {"/Secret", USRIN_STRING, "pw"}});
    std::vector<Msg> stored;
    EXPECT_EQ(Verify(eReqUpdate, body, &stored), RT_FAILURE);
    EXPECT_TRUE(Same(stored, {{"Base.1.12.PropertyNotWritable", {"\"Id\""}, "Id"}}));
    // Members of a refused value are not reported again.
    EXPECT_EQ(Verify(eReqUpdate, body, &stored, true), RT_FAILURE);
    EXPECT_TRUE(Same(stored, {{"Base.1.12.PropertyNotWritable", {"\"Id\""}, "Id"},
                              {"Base.1.12.PropertyValueNotInList", {"\"C\"", "\"Mode\""}, "Mode"},
                              {"Base.1.12.PropertyUnknown", {"\"Nope\""}, "Nope"}}));

    UsrInCache flagged = body;
    mTmpl->AssignUsrInPptFlagFromUsrInTemplate(flagged, eReqUpdate, "");
    EXPECT_EQ(flagged["/Secret"].flags, UIT_FLAG_SecureProperty);
    EXPECT_EQ(flagged["/Mode"].flags, 0);

    // A template without a name asks for no verification; a null one is refused.
    std::string none;
    ZUserInputTemplate ignore(nullptr, &none, false);
    UsrInCache input = body;
    sUsrInVerifyArgs args;
    args.input = &input;
    EXPECT_EQ(ZUserInputTemplate::VerifyUserInputData(&ignore, args, nullptr), RT_SUCCESS);
    EXPECT_EQ(ZUserInputTemplate::VerifyUserInputData(nullptr, args, nullptr), RT_INVALID_ARG);
    // A template that did not load lets nothing through.
    WriteFile(UserInputTemplateDir() + "Broken.dat", "{'A':'x@p@@'}");
    std::string broken = "Broken";
    ZUserInputTemplate failed(nullptr, &broken, false);
    std::vector<sUsrInFault> faults;
    EXPECT_EQ(ZUserInputTemplate::VerifyUserInputData(&failed, args, &faults), RT_FAILURE);
    ASSERT_EQ(faults.size(), 1u);
    EXPECT_EQ(faults[0].msg, RESP_Base_InternalError);
    // Nothing stays pinned after a verification.
    EXPECT_EQ(mTmpl->FreeCache(), RT_SUCCESS);
}

// Dispatcher threads verify while the template's cache is freed: a pinned
// cache is never freed under a reader, and once freed every verification
// answers with an internal error instead of reading freed memory.
TEST_F(UserInputVerifyTest, FreeingWaitsForReadersOnOtherThreads) {
    std::atomic<bool> freed{false};
    std::atomic<int> wrong{0};
    std::atomic<int> passed{0};
    std::atomic<int> running{4};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                UsrInCache body = Body({{"/Mode", USRIN_STRING, "A"}, {"/Count", USRIN_UNUM, "2"}});
                sUsrInVerifyArgs args;
                args.input = &body;
                std::vector<sUsrInFault> faults;
                const bool freedBefore = freed.load();
                const eRtCode rt =
                    ZUserInputTemplate::VerifyUserInputData(mTmpl.get(), args, &faults);
                const bool internal =
                    faults.size() == 1 && faults[0].msg == RESP_Base_InternalError;
                if (rt == RT_SUCCESS) ++passed;
                if (!(rt == RT_SUCCESS && faults.empty() && !freedBefore) && !internal) ++wrong;
            }
            --running;
        });
    }
    // Free while the readers are at work, not before they start.
    while (passed.load() < 40 && running.load() > 0) std::this_thread::yield();
    while (mTmpl->FreeCache() != RT_SUCCESS) std::this_thread::yield();
    freed = true;
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GE(passed.load(), 40);
    EXPECT_EQ(mTmpl->GetCache(), nullptr);
}

// The body as the front end leaves it in the store: a hash of value texts
// with link fields to nested hashes and lists, read into the cache and then
// verified.
TEST_F(UserInputVerifyTest, BodyTreeFromTheStoreIsReadAndVerified) {
    const std::string root = "RF_Test:Request:5:Data";
    std::vector<std::string> hset = {"HSET", root};
    for (const char* f :
         {"AssetTag", "\"say \\\"hi\\\"\"", "Count", "4", "Level", "-1", "Ratio", "2.500000",
          "Enabled", "true", "Id", "null", "Raw", "{\"a\":1}", "&&RequestMethod", "PATCH"}) {
        hset.push_back(f);
    }
    for (const std::string& link :
         {"&&Object Boot " + root + "/Boot", "&&Array Tags " + root + "/Tags",
          "&&Array Slots " + root + "/Slots",
          std::string("&&ObjectRef Link /redfish/v1/Chassis/1")}) {
        hset.insert(hset.end(), {link, ""});
    }
    RawCommand(hset);
    RawCommand({"HSET", root + "/Boot", "Target", "\"Pxe\""});
    RawCommand({"RPUSH", root + "/Tags", "\"a\"", "&&Object " + root + "/Tags/1"});
    RawCommand({"HSET", root + "/Tags/1", "N", "1"});
    UsrInCache body;
    redisContext* c = RedisConnect();
    ASSERT_NE(c, nullptr);
    const long reads = ServerStat("stats", "total_reads_processed:", c);
    ASSERT_EQ(ZUserInputTemplate::ParserUserInputData(c, root, body, "ComputerSystem"), RT_SUCCESS);
    // An object's type comes with its fields: one round trip per hash, two
    // per list, one for the missing list; then this INFO.
    EXPECT_EQ(ServerStat("stats", "total_reads_processed:", c) - reads, 7L);
    RedisDisconnect(c);
    std::vector<std::string> seen;
    for (const auto& entry : body) {
        seen.push_back(entry.first + " " + UsrInValueTypeWord(entry.second.type) + " " +
                       entry.second.value);
    }
    // A list the store does not keep is an empty array (an array's value is
    // its item count); a link is an object
    // with its @odata.id; the front end's own fields stay out.
    EXPECT_EQ(seen,
              (std::vector<std::string>{
                  "/AssetTag string say \"hi\"", "/Boot object ", "/Boot/Target string Pxe",
                  "/Count uNum 4", "/Enabled bool true", "/Id null null", "/Level sNum -1",
                  "/Link object ", "/Link/@odata.id string /redfish/v1/Chassis/1",
                  "/Ratio double 2.500000", "/Raw rawStr {\"a\":1}", "/Slots array 0",
                  "/Tags array 2", "/Tags/0 string a", "/Tags/1 object ", "/Tags/1/N uNum 1"}));
    std::vector<Msg> stored;
    EXPECT_EQ(Verify(eReqUpdate, body, &stored, true), RT_FAILURE);
    EXPECT_TRUE(
        Same(stored, {{"Base.1.12.PropertyNotWritable", {"\"Id\""}, "Id"},
                      {"Base.1.12.PropertyUnknown", {"\"Link\""}, "Link"},
                      {"Base.1.12.PropertyUnknown", {"\"Ratio\""}, "Ratio"},
                      {"Base.1.12.PropertyValueTypeError", {"\"{\\\"a\\\":1}\"", "\"Raw\""}, "Raw"},
                      {"Base.1.12.PropertyValueTypeError", {"\"{}\"", "\"Tags/1\""}, "Tags/1"}}));

    // A property twice, a link of the wrong kind, no body at all.
    RawCommand({"HSET", root, "&&Object Count " + root + "/Boot", ""});
    UsrInCache twice;
    size_t mark = LogMark();
    EXPECT_EQ(ZUserInputTemplate::ParserUserInputData(nullptr, root, twice, "ComputerSystem"),
              RT_FAILURE);
    EXPECT_NE(LogSince(mark).find("Duplicate JPath[/Count]. schema[ComputerSystem]"),
              std::string::npos);
    RawCommand({"HDEL", root, "&&Object Count " + root + "/Boot"});
    RawCommand({"HSET", root, "&&Object Tags2 " + root + "/Tags", ""});
    UsrInCache wrongKind;
    EXPECT_EQ(ZUserInputTemplate::ParserUserInputData(nullptr, root, wrongKind, "ComputerSystem"),
              RT_FAILURE);
    UsrInCache none;
    EXPECT_EQ(ZUserInputTemplate::ParserUserInputData(nullptr, "RF_Test:Nothing", none, "X"),
              RT_SUCCESS);
    EXPECT_TRUE(none.empty());
}

}  // namespace
