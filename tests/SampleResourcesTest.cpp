// The sample plug-in's resources, as the front end would read them.
//
// RF_Root runs as a child process against the suite's store, once for the
// whole suite (its start-up waits about a second for the front end): the
// tests follow its life in declared order (before the front end is ready,
// ready, stopped) and compare whole documents, assembled from the store by
// the tree reader, and the exact store layout.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "StoreTreeReader.h"
#include "TestEnv.h"
#include "vex.h"

using namespace OrbelTest;
using Fields = std::map<std::string, std::string>;
using Items = std::vector<std::string>;

namespace {

constexpr int kStartTimeoutMs = 15000;
constexpr int kExitTimeoutMs = 15000;

std::string ReadyFile() {
    return SysrootDir() + "/tmp/Redfish/RF_Root.run";
}

// The front end's view of a JPath, on one line ("<reason>" when unreadable).
std::string Doc(const std::string& jpath) {
    RedisConn c = RawConnect();
    std::string json;
    std::string error;
    Orbel::sStoreTreeOptions options;
    options.pretty = false;
    if (!c || !Orbel::ReadStoreTree(c.get(), jpath, json, &error, options)) {
        return "<" + error + ">";
    }
    return json;
}

// The whole documents of the two systems once the front end is ready.
const char* const kSystem1 =
    R"({"@odata.context":"/redfish/v1/$metadata#ComputerSystem",)"
    R"("@odata.id":"/redfish/v1/Systems/1",)"
    R"("@odata.type":"#ComputerSystem.v1_20_0.ComputerSystem",)"
    R"("AssetTag":null,)"
    R"("Boot":{"BootOrder":["Pxe","Hdd","Usb"],)"
    R"("BootSourceOverrideEnabled":"Disabled","BootSourceOverrideTarget":"None"},)"
    R"("Id":"1",)"
    R"("Links":{"ConsumingComputerSystems":[{"@odata.id":"/redfish/v1/Systems/2"}],)"
    R"("ConsumingComputerSystems@odata.count":1},)"
    R"("LocationIndicatorActive":false,)"
    R"("Manufacturer":"Orbel Samples",)"
    R"("MemorySummary":{"TotalSystemMemoryGiB":256.000000},)"
    R"("Model":"SX-100",)"
    R"("Name":"Sample System 1",)"
    R"("PowerState":"On",)"
    R"("ProcessorSummary":{"Count":2,"LogicalProcessorCount":64},)"
    R"("SerialNumber":"SMP0001",)"
    R"("Status":{"Health":"OK","State":"Enabled"},)"
    R"("SystemType":"Physical"})";

const char* const kSystem2 =
    R"({"@odata.context":"/redfish/v1/$metadata#ComputerSystem",)"
    R"("@odata.id":"/redfish/v1/Systems/2",)"
    R"("@odata.type":"#ComputerSystem.v1_20_0.ComputerSystem",)"
    R"("AssetTag":null,)"
    R"("Boot":{"BootOrder":["Hdd","Pxe"],)"
    R"("BootSourceOverrideEnabled":"Disabled","BootSourceOverrideTarget":"None"},)"
    R"("Id":"2",)"
    R"("Links":{"SupplyingComputerSystems":[{"@odata.id":"/redfish/v1/Systems/1"}],)"
    R"("SupplyingComputerSystems@odata.count":1},)"
    R"("LocationIndicatorActive":false,)"
    R"("Manufacturer":"Orbel Samples",)"
    R"("MemorySummary":{"TotalSystemMemoryGiB":16.500000},)"
    R"("Model":"SX-100V",)"
    R"("Name":"Sample System 2",)"
    R"("PowerState":"On",)"
    R"("ProcessorSummary":{"Count":1,"LogicalProcessorCount":8},)"
    R"("SerialNumber":"SMP0002",)"
    R"("Status":{"Health":"OK","State":"Enabled"},)"
    R"("SystemType":"Virtual"})";

const char* const kServiceRoot =
    R"({"@odata.context":"/redfish/v1/$metadata#ServiceRoot",)"
    R"("@odata.id":"/redfish/v1/",)"
    R"("@odata.type":"#ServiceRoot.v1_15_0.ServiceRoot",)"
    R"("Id":"RootService","Name":"Root Service","RedfishVersion":"1.15.0",)"
    R"("Systems":{"@odata.id":"/redfish/v1/Systems"},)"
    R"("UUID":"4f0d1e6a-5b2c-4c8e-9a3d-7e1f2b6c8d90"})";

const char* const kSystems =
    R"({"@odata.context":"/redfish/v1/$metadata#ComputerSystemCollection",)"
    R"("@odata.id":"/redfish/v1/Systems",)"
    R"("@odata.type":"#ComputerSystemCollection.ComputerSystemCollection",)"
    R"("Members":[{"@odata.id":"/redfish/v1/Systems/1"},{"@odata.id":"/redfish/v1/Systems/2"}],)"
    R"("Members@odata.count":2,"Name":"Computer System Collection"})";

// The one RF_Root of the suite and how far its life has come.
class SampleResourcesTest : public ::testing::Test {
protected:
    enum Phase { kNotStarted, kWaitingForFrontEnd, kReady, kExited };

    // Brings the plug-in to `phase`, one phase after the other. The tests
    // run in declared order; asking for a phase already left is a failure.
    static ::testing::AssertionResult Reach(Phase phase) {
        if (sPhase > phase) {
            return ::testing::AssertionFailure() << "the plug-in is past that phase already";
        }
        while (sPhase < phase) {
            ::testing::AssertionResult step = Step();
            if (!step) return step;
        }
        return ::testing::AssertionSuccess();
    }

    static void TearDownTestSuite() { sPlugin.reset(); }  // kills a child left running

    static std::unique_ptr<ChildProcess> sPlugin;
    static Phase sPhase;
    static int sExitStatus;

private:
    static ::testing::AssertionResult Step() {
        switch (sPhase) {
            case kNotStarted:
                return Start();
            case kWaitingForFrontEnd:
                if (vex_config_set_bool("nginx_redfish_ready", 1, 0) == 0) {
                    return ::testing::AssertionFailure() << "cannot set nginx_redfish_ready";
                }
                if (!WaitForFile(ReadyFile(), kStartTimeoutMs)) {
                    return ::testing::AssertionFailure() << "no ready file:\n" << sPlugin->Output();
                }
                sPhase = kReady;
                return ::testing::AssertionSuccess();
            case kReady:
                if (!sPlugin->Signal(SIGTERM)) return ::testing::AssertionFailure() << "kill";
                sExitStatus = sPlugin->Wait(kExitTimeoutMs);
                sPhase = kExited;
                return ::testing::AssertionSuccess();
            case kExited:
                break;
        }
        return ::testing::AssertionFailure() << "no phase after the exit";
    }

    static ::testing::AssertionResult Start() {
        if (!RedisServer::Instance().Start()) {
            return ::testing::AssertionFailure() << "private redis-server did not start";
        }
        RedisServer::Instance().FlushAll();
        // What an earlier run could have left: the new start must not show it.
        RawCommand({"HSET", "/redfish/v1/Systems/1", "Stale", "\"left over\""});
        RawCommand({"RPUSH", "&&/redfish/v1/Systems/Members", "&&ObjectRef /redfish/v1/Systems/9"});
        RawCommand({"RPUSH", "&&/redfish/v1/Systems/1/Boot/BootOrder", "\"Cd\""});
        if (vex_config_set_bool("nginx_redfish_ready", 0, 0) == 0) {
            return ::testing::AssertionFailure() << "cannot clear nginx_redfish_ready";
        }
        unlink(ReadyFile().c_str());
        sPlugin = std::make_unique<ChildProcess>(
            std::vector<std::string>{BuiltProgram("examples/RF_Root/RF_Root")});
        if (!sPlugin->Start()) return ::testing::AssertionFailure() << "RF_Root did not start";
        if (!sPlugin->WaitForOutput("PreCorvelReady_InitAllSchemaResources done!\n",
                                    kStartTimeoutMs)) {
            return ::testing::AssertionFailure() << "no pre-ready stage:\n" << sPlugin->Output();
        }
        sPhase = kWaitingForFrontEnd;
        return ::testing::AssertionSuccess();
    }
};

std::unique_ptr<ChildProcess> SampleResourcesTest::sPlugin;
SampleResourcesTest::Phase SampleResourcesTest::sPhase = SampleResourcesTest::kNotStarted;
int SampleResourcesTest::sExitStatus = -1;

TEST_F(SampleResourcesTest, BeforeTheFrontEndIsReadyTheTreeIsStoredAndSystemsAreStarting) {
    ASSERT_TRUE(Reach(kWaitingForFrontEnd));
    EXPECT_FALSE(FileExists(ReadyFile()));
    EXPECT_EQ(Doc("/redfish/v1/"), kServiceRoot);
    // Stale members of an earlier run are gone; the count follows the list.
    EXPECT_EQ(Doc("/redfish/v1/Systems"), kSystems);
    EXPECT_EQ(Doc("&&/redfish/v1/Systems/1/Status"), R"({"Health":"OK","State":"Starting"})");
    EXPECT_EQ(Doc("&&/redfish/v1/Systems/2/Status"), R"({"Health":"OK","State":"Starting"})");
    // Everything else of a system is in place before the front end asks.
    std::string starting = kSystem1;
    starting.replace(starting.find(R"("State":"Enabled")"), 17, R"("State":"Starting")");
    EXPECT_EQ(Doc("/redfish/v1/Systems/1"), starting);
}

TEST_F(SampleResourcesTest, OnceReadyEachSystemIsServedWhole) {
    ASSERT_TRUE(Reach(kReady));
    EXPECT_EQ(ReadFile(ReadyFile()), "Ready\n");
    EXPECT_EQ(Doc("/redfish/v1/Systems/1"), kSystem1);
    EXPECT_EQ(Doc("/redfish/v1/Systems/2"), kSystem2);
    EXPECT_EQ(Doc("/redfish/v1/Systems"), kSystems);
    EXPECT_EQ(Doc("/redfish/v1/"), kServiceRoot);
}

TEST_F(SampleResourcesTest, TheStoreHoldsExactlyTheSampleLayout) {
    ASSERT_TRUE(Reach(kReady));
    RedisConn c = RawConnect();
    ASSERT_TRUE(c);
    std::vector<std::string> keys;
    ASSERT_TRUE(Orbel::ListStoreKeys(c.get(), "*", keys));
    Items expectedKeys = {"/redfish/v1/", "/redfish/v1/Systems", "&&/redfish/v1/GETQ",
                          "&&/redfish/v1/Systems/GETQ", "&&/redfish/v1/Systems/Members"};
    for (const std::string n : {"1", "2"}) {
        const std::string uri = "/redfish/v1/Systems/" + n;
        const std::string links =
            n == "1" ? "ConsumingComputerSystems" : "SupplyingComputerSystems";
        for (const std::string& key :
             {uri, "&&" + uri + "/GETQ", "&&" + uri + "/PATCHQ", "&&" + uri + "/Status",
              "&&" + uri + "/ProcessorSummary", "&&" + uri + "/MemorySummary", "&&" + uri + "/Boot",
              "&&" + uri + "/Boot/BootOrder", "&&" + uri + "/Links",
              "&&" + uri + "/Links/" + links}) {
            expectedKeys.push_back(key);
        }
    }
    std::sort(expectedKeys.begin(), expectedKeys.end());
    EXPECT_EQ(keys, expectedKeys);

    // The link fields and the request queue lists, byte for byte.
    EXPECT_EQ(HGetAll("/redfish/v1/Systems"),
              (Fields{{"@odata.id", "\"/redfish/v1/Systems\""},
                      {"@odata.type", "\"#ComputerSystemCollection.ComputerSystemCollection\""},
                      {"@odata.context", "\"/redfish/v1/$metadata#ComputerSystemCollection\""},
                      {"&&Array GETQ &&/redfish/v1/Systems/GETQ", ""},
                      {"&&Array Members &&/redfish/v1/Systems/Members", ""},
                      {"Members@odata.count", "2"},
                      {"Name", "\"Computer System Collection\""}}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members"),
              (Items{"&&ObjectRef /redfish/v1/Systems/1", "&&ObjectRef /redfish/v1/Systems/2"}));
    EXPECT_EQ(HGetAll("/redfish/v1/").count("&&ObjectRef Systems /redfish/v1/Systems"), 1u);
    EXPECT_EQ(LRange("&&/redfish/v1/GETQ"), (Items{"RF_Root:ServiceRoot:GETQ"}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/GETQ"),
              (Items{"RF_Root:ComputerSystemCollection:GETQ"}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/2/PATCHQ"), (Items{"RF_Root:ComputerSystem:PATCHQ"}));
    EXPECT_EQ(HGetAll("&&/redfish/v1/Systems/2/Links"),
              (Fields{{"&&Array SupplyingComputerSystems "
                       "&&/redfish/v1/Systems/2/Links/SupplyingComputerSystems",
                       ""},
                      {"SupplyingComputerSystems@odata.count", "1"}}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/2/Links/SupplyingComputerSystems"),
              (Items{"&&ObjectRef /redfish/v1/Systems/1"}));
}

TEST_F(SampleResourcesTest, SigtermEndsThePluginCleanly) {
    ASSERT_TRUE(Reach(kExited));
    const std::string out = sPlugin->Output();
    EXPECT_EQ(sExitStatus, 0) << out;
    EXPECT_NE(out.find("ComputerSystem: 2 systems in service.\n"), std::string::npos) << out;
    EXPECT_NE(out.find("zApp Exit.\n"), std::string::npos) << out;
    // The sample is what authors copy: its whole life logs no complaint.
    EXPECT_EQ(out.find(":ERROR: "), std::string::npos) << out;
    EXPECT_EQ(out.find(":WARNING: "), std::string::npos) << out;
}

}  // namespace
