// What a client or a careless plug-in can put into the tree: NUL bytes,
// forged link fields, ids that break keys, strings that would break the
// stored document; a store that fails under an apply; and secrets, which
// must never reach a log file by any path.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ObjectModelFixture.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZObject_JsonStringTrans.h"

using namespace OrbelTest;
using Orbel::eRtCode;
using Orbel::RT_INVALID_ARG;
using Orbel::RT_SUCCESS;
using Orbel::ZJsonArray;
using Orbel::ZJsonObject;
using Orbel::ZObject;

namespace {

const std::string kObj = "/redfish/v1/Accounts/3";

class HostileInputTest : public ObjectModelTest {};

TEST_F(HostileInputTest, StringsNeverBreakTheStoredDocument) {
    auto* obj = new ZJsonObject(nullptr, kObj, 0);
    auto* list = new ZJsonArray(obj, "Notes", 0);
    ASSERT_EQ(obj->HashWrite("Notes", list), RT_SUCCESS);
    // Written value, stored field text. Text that already is JSON string
    // content stays as given; the bytes that would break it are escaped.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"x\", \"Injected\": \"yes", R"("x\", \"Injected\": \"yes")"},
        {"ends in \\", R"("ends in \\")"},
        {"a\\qb", R"("a\\qb")"},
        {"tab\tand\x01.", R"("tab\tand\u0001.")"},
        {"bad \xff byte", R"("bad \u00ff byte")"},
        {"kept \\\" \\n \\u00e9", R"("kept \" \n \u00e9")"},
        {"caf\xc3\xa9 au lait", "\"caf\xc3\xa9 au lait\""},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const std::string name = "S" + std::to_string(i);
        ASSERT_EQ(obj->HashWrite(name, cases[i].first), RT_SUCCESS);
        ASSERT_EQ(list->ListWrite(-1, cases[i].first), RT_SUCCESS);
    }
    ASSERT_EQ(obj->ApplyRedisChanges(true), RT_SUCCESS);
    const Fields fields = HGetAll(kObj);
    Items expected;
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(fields.at("S" + std::to_string(i)), cases[i].second) << i;
        expected.push_back(cases[i].second);
    }
    EXPECT_EQ(LRange("&&" + kObj + "/Notes"), expected);
    const std::string doc = StoreDoc(kObj);
    EXPECT_TRUE(nlohmann::json::accept(doc)) << doc;  // an independent parser reads one document
    EXPECT_EQ(doc.find("\"Injected\":"), std::string::npos) << doc;
    obj->Destroy(true);
}

TEST_F(HostileInputTest, NulBytesForgedLinksAndKeyBreakingIdsAreRefused) {
    auto* obj = new ZJsonObject(nullptr, kObj, 0);
    auto* child = new ZJsonObject(obj, "Child", 0);
    const std::string nul("x\0y", 3);
    size_t mark = LogMark();
    const struct {
        const char* what;
        eRtCode rt;
    } cases[] = {
        {"nul value", obj->HashWrite("A", nul)},
        {"nul raw", obj->HashWriteRawString("B", std::string("1\0 2", 4))},
        {"forged link", obj->HashWrite("&&ObjectRef Leak /redfish/v1/Secret", "v")},
        {"forged object", obj->HashWrite("&&Object Leak &&/x", 1)},
        {"quote in name", obj->HashWrite("Na\"me", 1)},
        {"blank in node name", obj->HashWrite("Two words", child)},
        {"path-like node name", obj->HashWrite("&&Child", child)},
        {"quote in link", obj->HashWrite("Link", std::string("/redfish/v1/x\"y"), true)},
        {"blank in link", obj->HashWrite("Link", std::string("/redfish/v1/x y"), true)},
    };
    for (const auto& c : cases) EXPECT_EQ(c.rt, RT_INVALID_ARG) << c.what;
    EXPECT_TRUE(Logged(mark, {"Object[" + kObj + "] property[A]: a value holding a NUL byte is "
                              "refused.\n",
                              "Object[" + kObj + "] property name[&&ObjectRef Leak "
                              "/redfish/v1/Secret] is refused: it would read as a link field or "
                              "break the document.\n"}));
    // The library's own meta fields keep working.
    EXPECT_EQ(obj->HashWrite("&&EnableChecklist", true), RT_SUCCESS);
    EXPECT_EQ(Orbel::JsonString2ZObjTree(std::string("{'a':1\0junk}", 12), obj),
              RT_INVALID_ARG);
    ASSERT_EQ(obj->ApplyRedisChanges(true), RT_SUCCESS);
    EXPECT_EQ(HGetAll(kObj), (Fields{{"&&EnableChecklist", "true"}}));

    for (const char* id : {"has blank", "a/b", "*", "q\"", "tab\t"}) {
        auto* bad = new ZJsonObject(obj, id, 0);
        EXPECT_TRUE(bad->GetJPath().empty()) << id;
        bad->ObjDestroy(ZObject::eDestroyDelete, false);
    }
    EXPECT_TRUE(Logged(mark, "Object[has blank] initial failed. The ID[has blank] would break "
                             "the store key.\n"));
    obj->Destroy(true);
}

TEST_F(HostileInputTest, APlantedPasswordReachesNoLogFile) {
    const std::string secret = "Hunter2";
    const int level = Orbel::zLogPrint->GetDebugLevel();
    Orbel::zLogPrint->SetDebugLevel(4);  // the parser's step lines too
    auto* obj = new ZJsonObject(nullptr, kObj, 0);
    auto* keys = new ZJsonArray(obj, "Passwords", 0);
    size_t mark = LogMark();
    // Parse errors (and the debug step lines) of a body naming a password.
    EXPECT_NE(Orbel::JsonString2ZObjTree("{'Password':'" + secret + "-parse' oops}", obj),
              RT_SUCCESS);
    // Queue dumps, a non-printable secret's byte listing, store dumps.
    ASSERT_EQ(obj->HashWrite("Password", secret + "-apply\x01"), RT_SUCCESS);
    ASSERT_EQ(keys->ListWrite(-1, secret + "-item"), RT_SUCCESS);
    obj->DumpRedisChanges(true);
    Orbel::sObjectChange change;
    change.tableKind = Orbel::eObjTableHash;
    change.dataKind = Orbel::eObjDataString;
    change.key = "UserPassword";
    change.strValue = secret + "-change";
    obj->DumpObjectChange(&change);
    ASSERT_EQ(keys->ApplyRedisChanges(false), RT_SUCCESS);
    std::vector<std::string> items;
    Orbel::RedisListGetAll(nullptr, keys->GetJPath().c_str(), 0, -1, items, true);
    // Store-client failure lines: the hash key holds a list, HSET fails. The
    // failed command fails the apply and is dropped; the child's still land.
    ASSERT_EQ(keys->ListWrite(-1, "after"), RT_SUCCESS);
    RawCommand({"RPUSH", kObj, "not a hash"});
    EXPECT_EQ(obj->ApplyRedisChanges(true), Orbel::RT_FAILURE);
    EXPECT_EQ(obj->GetRedisChangeNum() + LRange(keys->GetJPath()).size(), 0u + 2);
    Orbel::RedisSet(nullptr, "&&/x/SecretKey", (secret + "-set").c_str(), 0);
    RawCommand({"HSET", "&&/x/h", "Token", secret + "-hash"});
    std::map<std::string, std::string> out;
    Orbel::RedisHashGetAll(nullptr, "&&/x/h", out, true);
    EXPECT_TRUE(Logged(mark, {"JsonStr[******]",
                              "Command[HSET " + kObj + " Password ******] reply failed.\n",
                              "Act[Update] Key[Password] Value[******]",
                              "key[Token] value[******]"}));
    Orbel::zLogPrint->DumpMsgCache2File();  // what SIGUSR1 writes

    // Every file below the log directory, the test log and the dump included.
    ChildProcess grep({"/bin/grep", "-rl", secret, SysrootDir() + "/tmp/Redfish"});
    ASSERT_TRUE(grep.Start());
    EXPECT_EQ(grep.Wait(15000), 1) << "found in:\n" << grep.Output();  // 1: no match
    Orbel::zLogPrint->SetDebugLevel(level);
    obj->Destroy(true);
}

TEST(PureStringTest, TheNonPrintableListingIsBounded) {
    const std::string text(1 << 20, '\x01');
    size_t mark = LogMark();
    EXPECT_FALSE(Orbel::_IsPureString(text.data(), static_cast<unsigned int>(text.size()), true));
    const std::string log = LogSince(mark);
    EXPECT_EQ(CountOf(log, "is not a printable char.\n"), 16u);
    EXPECT_EQ(CountOf(log, "  ... 1048576 non-printable chars in all.\n"), 1u);
}

}  // namespace
