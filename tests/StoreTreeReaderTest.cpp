// The store tree reader and the command orbel-tree: stores are filled with
// raw commands in the layout the library writes, and the assembled
// documents are compared whole.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "StoreTreeReader.h"
#include "TestEnv.h"

using namespace OrbelTest;

namespace {

class StoreTreeReaderTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        mConn = RawConnect();
        ASSERT_TRUE(mConn) << "no connection to the private store";
    }

    // HSET of field-value pairs, RPUSH of elements.
    static void Store(const char* command, const std::string& key, const Items& args) {
        Items argv = {command, key};
        argv.insert(argv.end(), args.begin(), args.end());
        Reply r = RawCommand(argv);
        ASSERT_TRUE(r && r->type == REDIS_REPLY_INTEGER) << command << " " << key;
    }
    static void HSet(const std::string& key,
                     const std::vector<std::pair<std::string, std::string>>& fields) {
        Items args;
        for (const auto& [field, value] : fields) args.insert(args.end(), {field, value});
        Store("HSET", key, args);
    }
    static void RPush(const std::string& key, const Items& items) { Store("RPUSH", key, items); }

    // A resource with scalars of every kind (and texts that are not JSON),
    // nested objects, arrays of scalars and of objects, links, a dangling
    // link, a cycle, request queue lists and meta fields.
    static void StoreSystem() {
        const std::string sys = "/redfish/v1/Systems/1";
        HSet(sys, {{"@odata.id", "\"/redfish/v1/Systems/1\""},
                   {"@odata.type", "\"#ComputerSystem.v1_0_0.ComputerSystem\""},
                   {"Nothing", "null"},
                   {"PoweredOn", "true"},
                   {"Hidden", "false"},
                   {"Offset", "-42"},
                   {"Serial", "18446744073709551615"},
                   {"Name", "\"abc\""},
                   {"Raw", "{\"a\":[1,2]}"},
                   {"Ratio", "1.500000"},
                   {"Word", "say \"hi\""},
                   {"Empty", ""},
                   {"&&Object Status &&" + sys + "/Status", ""},
                   {"&&Array Fans &&" + sys + "/Fans", ""},
                   {"&&ArraySimple Names &&" + sys + "/Names", ""},
                   {"&&ObjectRef Manager /redfish/v1/Managers/1", ""},
                   {"&&Object Missing &&" + sys + "/Missing", ""},
                   {"&&Array Gone &&" + sys + "/Gone", ""},
                   {"&&Array GETQ &&" + sys + "/GETQ", ""},
                   {"&&Array PATCHQ &&" + sys + "/PATCHQ", ""},
                   {"&&EnableChecklist", "true"},
                   {"&&Async", "true"}});
        HSet("&&" + sys + "/Status",
             {{"Health", "\"OK\""}, {"&&Object Oem &&" + sys + "/Status/Oem", ""}});
        HSet("&&" + sys + "/Status/Oem",
             {{"Vendor", "\"Pell\""}, {"&&Object Up &&" + sys + "/Status", ""}});
        RPush("&&" + sys + "/Fans",
              {"&&Object &&" + sys + "/Fans/0", "&&Object &&" + sys + "/Fans/1",
               "&&ObjectRef /redfish/v1/Chassis/1"});
        HSet("&&" + sys + "/Fans/0", {{"Rpm", "1200"}});
        HSet("&&" + sys + "/Fans/1", {{"Rpm", "1300"}});
        RPush("&&" + sys + "/Names", {"\"a\"", "\"b\""});
        RPush("&&" + sys + "/GETQ", {"RF_Root:ComputerSystem:GETQ"});
    }

    // A collection whose own URI is written as a link into "@odata.id".
    static void StoreCollection() {
        HSet("/redfish/v1/Systems", {{"&&ObjectRef @odata.id /redfish/v1/Systems", ""},
                                     {"Name", "\"Computer System Collection\""},
                                     {"&&Array Members &&/redfish/v1/Systems/Members", ""},
                                     {"Members@odata.count", "2"}});
        RPush("&&/redfish/v1/Systems/Members",
              {"&&ObjectRef /redfish/v1/Systems/1", "&&ObjectRef /redfish/v1/Systems/2"});
    }

    RedisConn mConn;
};

const char kSystemBody[] =
    R"({"@odata.id":"/redfish/v1/Systems/1","@odata.type":"#ComputerSystem.v1_0_0.ComputerSystem",)"
    R"("Empty":null,"Fans":[{"Rpm":1200},{"Rpm":1300},{"@odata.id":"/redfish/v1/Chassis/1"}],)"
    R"("Gone":[],"Hidden":false,"Manager":{"@odata.id":"/redfish/v1/Managers/1"},"Missing":{},)"
    R"("Name":"abc","Names":["a","b"],"Nothing":null,"Offset":-42,"PoweredOn":true,)"
    R"("Ratio":1.500000,"Raw":{"a":[1,2]},"Serial":18446744073709551615,)"
    R"("Status":{"Health":"OK","Oem":{"Up":null,"Vendor":"Pell"}},"Word":"say \"hi\""})";

const char kCollectionBody[] =
    R"({"@odata.id":"/redfish/v1/Systems","Members":[{"@odata.id":"/redfish/v1/Systems/1"},)"
    R"({"@odata.id":"/redfish/v1/Systems/2"}],"Members@odata.count":2,)"
    R"("Name":"Computer System Collection"})";

TEST_F(StoreTreeReaderTest, ResourceBodyFollowsLinksAndLeavesOutRoutingAndMeta) {
    StoreSystem();
    // The whole document in one round trip (one script run; a level of
    // nesting a round trip took 4, key by key 10). The first read of a
    // thread loads the script.
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems/1"), kSystemBody);
    const long before = ServerStat("stats", "total_reads_processed:", mConn.get());
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems/1"), kSystemBody);
    // 1, the reader's closing and the INFO.
    EXPECT_LE(ServerStat("stats", "total_reads_processed:", mConn.get()) - before, 3L);
    // A store that lost its scripts (restarted) gets the script again.
    ASSERT_TRUE(RawCommand({"SCRIPT", "FLUSH"}));
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems/1"), kSystemBody);

    // The debug view adds the queue lists (followed; a missing one is null)
    // and the other meta fields under their whole names.
    const std::string meta =
        R"({"&&Array GETQ &&/redfish/v1/Systems/1/GETQ":["RF_Root:ComputerSystem:GETQ"],)"
        R"("&&Array PATCHQ &&/redfish/v1/Systems/1/PATCHQ":null,)"
        R"("&&Async":true,"&&EnableChecklist":true,)" +
        std::string(kSystemBody + 1);
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems/1", true), meta);

    // (An array whose list is missing is empty: Redis keeps no empty list.)
    // A nested node read on its own: the cycle back to it is cut one level
    // lower than above.
    EXPECT_EQ(StoreDoc("&&/redfish/v1/Systems/1/Status/Oem"),
              R"({"Up":{"Health":"OK","Oem":null},"Vendor":"Pell"})");
    // Collection members are links; a link named "@odata.id" is the URI.
    StoreCollection();
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems"), kCollectionBody);
}

TEST_F(StoreTreeReaderTest, TopLevelListCyclesAndFailures) {
    RPush("&&/top/list", {"1", "\"x\"", "&&ObjectRef /redfish/v1"});
    EXPECT_EQ(StoreDoc("&&/top/list"), R"([1,"x",{"@odata.id":"/redfish/v1"}])");
    // One node linked twice is expanded twice; links back into the path
    // (from a list, to a nested node and to the resource) are null.
    HSet("/cyc", {{"&&Object A &&/cyc/A", ""}, {"&&Object B &&/cyc/A", ""}});
    HSet("&&/cyc/A", {{"V", "1"}, {"&&Array L &&/cyc/L", ""}});
    RPush("&&/cyc/L", {"&&Object &&/cyc/A", "&&Object /cyc", "&&Array &&/cyc/L", "2"});
    EXPECT_EQ(StoreDoc("/cyc"),
              R"({"A":{"L":[null,null,null,2],"V":1},"B":{"L":[null,null,null,2],"V":1}})");
    std::string json = "left over";
    std::string error;
    EXPECT_FALSE(Orbel::ReadStoreTree(mConn.get(), "/missing", json, &error));
    EXPECT_EQ(json + error, "no such key");
    ASSERT_TRUE(RawCommand({"SET", "/plain", "x"}));
    EXPECT_FALSE(Orbel::ReadStoreTree(mConn.get(), "/plain", json, &error));
    EXPECT_EQ(error, "the key is a string, not a hash or a list");
    EXPECT_FALSE(Orbel::ReadStoreTree(nullptr, "/plain", json, &error));
    EXPECT_EQ(error, "no store connection");
}

// A message array lists its message nodes by bare JPath; a message hash
// names its MessageId and its two lists in "&&" fields.
TEST_F(StoreTreeReaderTest, MessageArraysFollowBareJPathsAndNameTheMessageFields) {
    const std::string arr = "/redfish/v1/Systems/1/RF_Root:ComputerSystem:PATCHQ/ExtendedInfo";
    const std::string m = "&&" + arr + "/";
    RPush(arr, {m + "0", m + "1", m + "9", m + "L", m + "S", "&&/with blank", "\"plain\""});
    HSet(m + "0", {{"&&MessageId", "\"Base.1.12.StringValueTooLong\""},
                   {"&&MessageArgs", m + "0/MessageArgs"},
                   {"&&RelatedProperties", m + "0/RelatedProperties"}});
    RPush(m + "0/MessageArgs", {"\"HostName\"", "64"});
    // Lists that Redis does not keep (empty) read as []; a key of the wrong
    // kind as null. Other fields keep their usual rules.
    HSet(m + "1", {{"&&MessageId", "\"Base.1.12.Success\""},
                   {"&&MessageArgs", m + "1/MessageArgs"},
                   {"&&RelatedProperties", m + "0"},
                   {"Severity", "\"OK\""},
                   {"&&Other", "1"}});
    RPush(m + "L", {"1", "&&ObjectRef /redfish/v1"});
    ASSERT_TRUE(RawCommand({"SET", m + "S", "x"}));

    const std::string first =
        R"({"MessageArgs":["HostName",64],"MessageId":"Base.1.12.StringValueTooLong",)"
        R"("RelatedProperties":[]})";
    const std::string second =
        R"({"MessageArgs":[],"MessageId":"Base.1.12.Success","RelatedProperties":null,)"
        R"("Severity":"OK"})";
    const std::string others = R"(null,[1,{"@odata.id":"/redfish/v1"}],null)";
    EXPECT_EQ(StoreDoc(arr), "[" + first + "," + second + "," + others + ",\"plain\"]");
    // The debug view adds the other meta data; the message fields stay named.
    EXPECT_EQ(StoreDoc(arr, true), "[" + first + "," + R"({"&&Other":1,)" + second.substr(1) + "," +
                                       others + R"(,"&&/with blank","plain"])");
    // A bare JPath back into its own path is cut like any link.
    HSet("&&/loop", {{"&&MessageArgs", "&&/loop/args"}});
    RPush("&&/loop/args", {"&&/loop"});
    EXPECT_EQ(StoreDoc("&&/loop"), R"({"MessageArgs":[null]})");
}

TEST_F(StoreTreeReaderTest, RawJsonHashesAreTheirStoredText) {
    const std::string text = R"({"@odata.id":"/redfish/v1/Raw","Z":[1,{"a":null}],"A":"x"})";
    // The text as stored, members unsorted; the hash's other fields
    // (meta data, and even a plain field or a link) are not looked at.
    HSet("/redfish/v1/Raw", {{"&&RawJSON", text},
                             {"&&Async", "true"},
                             {"Plain", "1"},
                             {"&&Object Sub &&/redfish/v1/Raw/Sub", ""}});
    HSet("&&/redfish/v1/Raw/Sub", {{"S", "2"}});
    EXPECT_EQ(StoreDoc("/redfish/v1/Raw"), text);
    EXPECT_EQ(StoreDoc("/redfish/v1/Raw", true), text);

    // Reached through links from a normal hash and a list.
    HSet("/redfish/v1/Sys", {{"&&Object Oem /redfish/v1/Raw", ""}, {"N", "\"n\""}});
    RPush("&&/redfish/v1/Sys/L", {"&&Object /redfish/v1/Raw"});
    HSet("/redfish/v1/Sys", {{"&&Array L &&/redfish/v1/Sys/L", ""}});
    EXPECT_EQ(StoreDoc("/redfish/v1/Sys"), R"({"L":[)" + text + R"(],"N":"n","Oem":)" + text + "}");

    // Pretty output splices the text in unchanged as well.
    std::string json;
    ASSERT_TRUE(Orbel::ReadStoreTree(mConn.get(), "/redfish/v1/Sys", json));
    EXPECT_EQ(json, "{\n    \"L\": [\n        " + text +
                        "\n    ],\n    \"N\": \"n\",\n    \"Oem\": " + text + "\n}");

    // A text that is not JSON never breaks the output; an empty one is null.
    HSet("/redfish/v1/Bad", {{"&&RawJSON", "{'a':1}"}});
    EXPECT_EQ(StoreDoc("/redfish/v1/Bad"), R"("{'a':1}")");
    HSet("/redfish/v1/Empty", {{"&&RawJSON", ""}, {"X", "1"}});
    EXPECT_EQ(StoreDoc("/redfish/v1/Empty"), "null");
}

// The gathering script repeats the reader's rules (which link words are
// followed, the queue lists, message fields, RawJSON, cycles): every
// document it gathers renders as the reader's node-by-node reads render it,
// in both views.
TEST_F(StoreTreeReaderTest, GatheredDocumentsRenderAsNodeByNodeReadsDo) {
    StoreSystem();
    StoreCollection();
    const std::string arr = "/redfish/v1/Systems/1/RF_Root:ComputerSystem:PATCHQ/ExtendedInfo";
    const std::string m = "&&" + arr + "/0";
    RPush(arr, {m, "\"plain\"", "&&ObjectRef /redfish/v1/Systems"});
    HSet(m, {{"&&MessageId", "\"Base.1.12.Success\""}, {"&&MessageArgs", m + "/args"}});
    RPush(m + "/args", {"\"x\"", "1"});
    HSet("/redfish/v1/Raw", {{"&&RawJSON", R"({"b":1,"a":[2]})"}, {"&&Async", "true"}});
    HSet("/cyc", {{"&&Object A &&/cyc/A", ""}, {"V", "1"}});
    HSet("&&/cyc/A", {{"&&Object Up /cyc", ""}, {"&&Array L &&/cyc/L", ""}});
    RPush("&&/cyc/L", {"&&Object /redfish/v1/Raw", "&&Object &&/cyc/A"});
    const Items jpaths = {"/redfish/v1/Systems/1",
                          "/redfish/v1/Systems",
                          "&&/redfish/v1/Systems/1/Status/Oem",
                          arr,
                          "/redfish/v1/Raw",
                          "/cyc",
                          "/missing"};
    for (const bool meta : {false, true}) {
        Orbel::sStoreTreeOptions options;
        options.pretty = false;
        options.includeMeta = meta;
        const auto gathered = Orbel::ReadStoreTrees(mConn.get(), jpaths, options);
        const auto apart = Orbel::RenderStoreTrees(mConn.get(), nullptr, jpaths, options);
        ASSERT_EQ(gathered.size(), jpaths.size());
        ASSERT_EQ(apart.size(), jpaths.size());
        for (size_t i = 0; i < jpaths.size(); ++i) {
            SCOPED_TRACE(jpaths[i] + (meta ? " (debug view)" : ""));
            EXPECT_EQ(gathered[i].ok, apart[i].ok);
            EXPECT_EQ(gathered[i].json, apart[i].json);
            EXPECT_EQ(gathered[i].error, apart[i].error);
            EXPECT_FALSE(apart[i].gathered);
            // A body that exists is made of the gathering alone.
            if (!meta && gathered[i].ok) {
                EXPECT_TRUE(gathered[i].gathered);
            }
        }
        EXPECT_FALSE(gathered.back().ok);
    }
}

// ---------------------------------------------------------------------------
// The command
// ---------------------------------------------------------------------------

// Runs orbel-tree with `args`: its exit status and everything it printed.
std::pair<int, std::string> RunTree(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {BuiltProgram("tools/treereader/orbel-tree")};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess child(argv);
    if (!child.Start()) return {-2, "could not start " + argv[0]};
    const int status = child.Wait(20000);
    return {status, child.Output()};
}

TEST_F(StoreTreeReaderTest, CommandPrintsDocumentsAndKeysAndExitsByItsRules) {
    StoreCollection();
    StoreSystem();
    std::string pretty;
    ASSERT_TRUE(Orbel::ReadStoreTree(mConn.get(), "/redfish/v1/Systems", pretty));
    // More keys than one SCAN step returns, stored out of order.
    Items mset = {"MSET"};
    std::string keys;
    for (int i = 0; i < 1500; ++i) {
        char key[32];
        std::snprintf(key, sizeof key, "/k/%04d", i);
        keys += std::string(key) + "\n";
        mset.insert(mset.begin() + 1, {key, "v"});
    }
    ASSERT_TRUE(RawCommand(mset));
    const std::string usage =
        "Usage: orbel-tree [-s SOCKET] [--compact] [--meta] JPATH...\n"
        "       orbel-tree [-s SOCKET] --keys PATTERN\n"
        "Prints the JSON document stored under each JPATH, assembled as the front\n"
        "end serves it, or lists the store keys that match PATTERN.\n"
        "  -s, --socket SOCKET  the store's Unix socket (default " +
        SysrootDir() +
        "/tmp/redis.sock)\n"
        "      --compact        print each document on one line\n"
        "      --meta           keep the library's && fields (debug view)\n"
        "      --keys PATTERN   list the keys matching the glob PATTERN, sorted\n"
        "  -h, --help           print this text\n"
        "Exit status: 0 ok, 1 a JPATH not found or the store unreachable, 2 usage.\n";
    const std::string collection = std::string(kCollectionBody) + "\n";
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
        {{"/redfish/v1/Systems"}, 0, pretty + "\n"},
        {{"--compact", "/redfish/v1/Systems", "/redfish/v1/Systems/1"},
         0,
         collection + kSystemBody + "\n"},
        {{"-s", RedisServer::Instance().SocketPath(), "--keys", "/redfish/v1/Systems*"},
         0,
         "/redfish/v1/Systems\n/redfish/v1/Systems/1\n"},
        {{"--keys", "/k/*"}, 0, keys},
        {{"-h"}, 0, usage},
        {{"--bogus", "/redfish/v1/Systems"}, 2, "orbel-tree: unknown option --bogus\n" + usage},
        {{"/redfish/v1/Systems", "-s"}, 2, "orbel-tree: option -s needs an argument\n" + usage},
        {{"--compact"}, 2, "orbel-tree: no JPATH given\n" + usage}};
    for (const auto& [args, status, output] : cases)
        EXPECT_EQ(RunTree(args), std::make_pair(status, output)) << args[0];
    // A missing JPath fails the run but does not stop the others.
    auto [status, out] = RunTree({"--compact", "/missing", "/redfish/v1/Systems"});
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("orbel-tree: /missing: no such key\n"), std::string::npos) << out;
    EXPECT_NE(out.find(collection), std::string::npos) << out;
    const std::string nowhere = SysrootDir() + "/nowhere.sock";
    std::tie(status, out) = RunTree({"-s", nowhere, "/redfish/v1/Systems"});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out.rfind("orbel-tree: cannot connect to " + nowhere + ": ", 0), 0u) << out;
}

}  // namespace
