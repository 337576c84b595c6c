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
// A stored message as "MessageId|related property|argument|...": the
// "Base.1.12." prefix left out, the arguments in their stored JSON forms
// with ' for ".
using Msgs = std::vector<std::string>;

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
    // property its fault record names (related properties stay with the
    // plug-in).
    eRtCode Verify(eReqMethod method, UsrInCache body, Msgs* stored, bool multi = false) {
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
            std::string id = HGetAll(nodes[i])["&&MessageId"];
            id = id.substr(id.rfind("\"Base.1.12.", 0) == 0 ? 11 : 1);
            std::string text = id.substr(0, id.size() - 1) + "|" + faults[i].property;
            for (const std::string& arg : LRange(nodes[i] + "/MessageArgs")) text += "|" + arg;
            for (char& ch : text) ch = ch == '"' ? '\'' : ch;
            stored->push_back(text);
        }
        return rt;
    }

    ZSchema* mSchema = nullptr;
    ZResource* mSys = nullptr;
    std::unique_ptr<ZUserInputTemplate> mTmpl;       // stops at the first fault
    std::unique_ptr<ZUserInputTemplate> mMultiTmpl;  // reports every fault
    int mRun = 0;
};

TEST_F(UserInputVerifyTest, EachFaultRowStoresItsMessagePair) {
    const eReqMethod U = eReqUpdate, A = eReqAction;
    const struct {
        eReqMethod method;
        std::vector<In> body;
        const char* want;
    } rows[] = {
        // Not in the template; not writable in this method.
        {U, {{"/Nope", USRIN_STRING, "x"}}, "PropertyUnknown|Nope|'Nope'"},
        {A, {{"/Nope", USRIN_STRING, "x"}}, "ActionParameterNotSupported|Nope|'Nope'|'#Sys.Reset'"},
        {U, {{"/Id", USRIN_STRING, "x"}}, "PropertyNotWritable|Id|'Id'"},
        {A, {{"/Info", USRIN_STRING, "x"}}, "ActionParameterNotSupported|Info|'Info'|'#Sys.Reset'"},
        // A type the template does not allow; objects and arrays shown as {} and [].
        {U, {{"/Enabled", USRIN_STRING, "yes"}}, "PropertyValueTypeError|Enabled|'yes'|'Enabled'"},
        {U, {{"/AssetTag", USRIN_OBJECT, ""}}, "PropertyValueTypeError|AssetTag|'{}'|'AssetTag'"},
        {A,
         {{"/ResetType", USRIN_ARRAY, ""}},
         "ActionParameterValueTypeError|ResetType|'[]'|'ResetType'|'#Sys.Reset'"},
        // Text not allowed, or the pattern not matched.
        {U, {{"/Code", USRIN_STRING, "12a"}}, "PropertyValueFormatError|Code|'12a'|'Code'"},
        {A,
         {{"/ResetType", USRIN_STRING, "O\x01n"}},
         "ActionParameterValueFormatError|ResetType|'O\\u0001n'|'ResetType'|'#Sys.Reset'"},
        // Not in the enumeration: an action answers with the value-format message.
        {U, {{"/Mode", USRIN_STRING, "C"}}, "PropertyValueNotInList|Mode|'C'|'Mode'"},
        {A,
         {{"/ResetType", USRIN_STRING, "Pause"}},
         "ActionParameterValueFormatError|ResetType|'Pause'|'ResetType'|'#Sys.Reset'"},
        // A required property missing (an action may have an empty body).
        {eReqCreate, {{"/AssetTag", USRIN_STRING, "a"}}, "PropertyMissing|Name|'Name'"},
        {A, {}, "ActionParameterMissing|ResetType|'#Sys.Reset'|'ResetType'"},
        // The length limit, the one message with a number.
        {U,
         {{"/AssetTag", USRIN_STRING, "123456789"}},
         "StringValueTooLong|AssetTag|'123456789'|8"},
        // A number outside its range, a negative one where only unsigned is allowed.
        {A,
         {{"/ResetType", USRIN_STRING, "On"}, {"/Delay", USRIN_UNUM, "61"}},
         "ActionParameterValueFormatError|Delay|'61'|'Delay'|'#Sys.Reset'"},
        {U, {{"/Count", USRIN_SNUM, "-1"}}, "PropertyValueTypeError|Count|'-1'|'Count'"},
        {U, {{"/Level", USRIN_SNUM, "-2"}}, "PropertyValueNotInList|Level|'-2'|'Level'"},
        // A SecureProperty value never leaves masked.
        {U, {{"/Secret", USRIN_BOOL, "true"}}, "PropertyValueTypeError|Secret|'******'|'Secret'"},
        // Bodies: empty, only annotations, a path no front end makes.
        {U, {}, "EmptyJSON|"},
        {U, {{"/@odata.etag", USRIN_STRING, "x"}}, "NoOperation|"},
        {U,
         {{"/Tags", USRIN_ARRAY, ""}, {"/Tags/x", USRIN_STRING, "a"}},
         "ExtendedError.1.2.BadRequest|"},
        {U, {{"//Mode", USRIN_STRING, "A"}}, "ExtendedError.1.2.BadRequest|"},
    };
    Msgs stored;
    for (const auto& row : rows) {
        EXPECT_EQ(Verify(row.method, Body(row.body), &stored), RT_FAILURE) << row.want;
        EXPECT_EQ(stored, Msgs{row.want});
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
    Msgs stored;
    for (const auto& body : pass) {
        EXPECT_EQ(Verify(body.first, Body(body.second), &stored), RT_SUCCESS);
        EXPECT_EQ(stored, Msgs{});
    }
    const In boot = {"/Boot", USRIN_OBJECT, ""}, slot = {"/Slots/0", USRIN_UNUM, "1"};
    const std::pair<std::vector<In>, const char*> fail[] = {
        // Rigid: exactly M items.
        {{boot,
          {"/Boot/Target", USRIN_STRING, "Pxe"},
          {"/Boot/Order", USRIN_ARRAY, ""},
          {"/Boot/Order/0", USRIN_STRING, "a"}},
         "PropertyValueFormatError|Boot/Order|'[]'|'Boot/Order'"},
        // FixedLength: never more than its length.
        {{{"/Slots", USRIN_ARRAY, ""},
          slot,
          {"/Slots/1", USRIN_UNUM, "1"},
          {"/Slots/2", USRIN_UNUM, "1"}},
         "PropertyValueFormatError|Slots|'[]'|'Slots'"},
        // VariableLength: within its bounds.
        {{{"/Tags", USRIN_ARRAY, ""}}, "PropertyValueFormatError|Tags|'[]'|'Tags'"},
        // Required members of each array item; items of an array without item template.
        {{{"/Servers", USRIN_ARRAY, ""}, {"/Servers/0", USRIN_OBJECT, ""}},
         "PropertyMissing|Servers/0/Address|'Servers/0/Address'"},
        {{{"/Raw", USRIN_ARRAY, ""}, {"/Raw/0", USRIN_UNUM, "1"}}, "PropertyUnknown|Raw/0|'Raw/0'"},
        {{boot}, "PropertyMissing|Boot/Target|'Boot/Target'"},
    };
    for (const auto& row : fail) {
        EXPECT_EQ(Verify(eReqUpdate, Body(row.first), &stored), RT_FAILURE);
        EXPECT_EQ(stored, Msgs{row.second});
    }
    // Create: a FixedLength array needs all its items.
    EXPECT_EQ(
        Verify(eReqCreate, Body({{"/Name", USRIN_STRING, "n"}, {"/Slots", USRIN_ARRAY, ""}, slot}),
               &stored),
        RT_FAILURE);
}

TEST_F(UserInputVerifyTest, MultiModeReportsEveryFaultAndFlagsComeFromTheTemplate) {
    const UsrInCache body = Body({{"/Id", USRIN_STRING, "x"},
                                  {"/Mode", USRIN_STRING, "C"},
                                  {"/Nope", USRIN_OBJECT, ""},
                                  {"/Nope/Deeper", USRIN_STRING, "x"},
                                  {"/Secret", USRIN_STRING, "pw"}});
    Msgs stored;
    EXPECT_EQ(Verify(eReqUpdate, body, &stored), RT_FAILURE);
    EXPECT_EQ(stored, Msgs{"PropertyNotWritable|Id|'Id'"});
    // Members of a refused value are not reported again.
    EXPECT_EQ(Verify(eReqUpdate, body, &stored, true), RT_FAILURE);
    EXPECT_EQ(stored, (Msgs{"PropertyNotWritable|Id|'Id'", "PropertyValueNotInList|Mode|'C'|'Mode'",
                            "PropertyUnknown|Nope|'Nope'"}));

    UsrInCache flagged = body;
    mTmpl->AssignUsrInPptFlagFromUsrInTemplate(flagged, eReqUpdate, "");
    EXPECT_EQ(flagged["/Secret"].flags, UIT_FLAG_SecureProperty);
    EXPECT_EQ(flagged["/Mode"].flags, 0);

    // A null template is refused. One without a name (no verification) and
    // one that did not load (nothing let through) are met by requests in
    // RequestDispatchTest.
    UsrInCache input = body;
    sUsrInVerifyArgs args;
    args.input = &input;
    EXPECT_EQ(ZUserInputTemplate::VerifyUserInputData(nullptr, args, nullptr), RT_INVALID_ARG);
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
    Msgs stored;
    EXPECT_EQ(Verify(eReqUpdate, body, &stored, true), RT_FAILURE);
    EXPECT_EQ(stored, (Msgs{"PropertyNotWritable|Id|'Id'", "PropertyUnknown|Link|'Link'",
                            "PropertyUnknown|Ratio|'Ratio'",
                            "PropertyValueTypeError|Raw|'{\\'a\\':1}'|'Raw'",
                            "PropertyValueTypeError|Tags/1|'{}'|'Tags/1'"}));

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
