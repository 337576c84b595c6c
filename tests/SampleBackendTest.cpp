// The sample plug-in following its platform: a system plugged in and pulled
// out on the simulated VEX event, through the backend paths, and the alert
// event its removal raises, queued through the event service's real script.
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "ChildProcess.h"
#include "EventScripts.h"
#include "FrontEnd.h"
#include "TestEnv.h"
#include "vex.h"

using namespace OrbelTest;

namespace {

constexpr int kTimeoutMs = 15000;
const std::string kSys3 = "/redfish/v1/Systems/3";

bool Raise(const char* payload) {
    return vex_event_raise("SampleSystemPresence", payload,
                           static_cast<int>(std::strlen(payload))) != 0;
}

class SampleBackendTest : public StoreTest {};

TEST_F(SampleBackendTest, ASystemPluggedInAndPulledOutRaisesAnAlert) {
    RedisConn conn = RawConnect();
    std::string error;
    ASSERT_TRUE(LoadEventScripts(conn.get(), &error)) << error;
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 1, 0), 0);
    const std::string ready = SysrootDir() + "/tmp/Redfish/RF_Root.run";
    unlink(ready.c_str());
    // The controller's start scripts give every plug-in its platform flags.
    InstallSampleTemplates();
    ChildProcess plugin({BuiltProgram("examples/RF_Root/RF_Root")}, {{"PLATFLAGS", "0x0"}});
    ASSERT_TRUE(plugin.Start());
    ASSERT_TRUE(WaitForFile(ready, kTimeoutMs)) << plugin.Output();

    ASSERT_TRUE(Raise("present"));
    ASSERT_TRUE(plugin.WaitForOutput("System[/redfish/v1/Systems/3] plugged in.\n", kTimeoutMs))
        << plugin.Output();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems")["Members@odata.count"], "3");
    EXPECT_EQ(StoreDoc("&&" + kSys3 + "/Status"), R"({"Health":"OK","State":"Enabled"})");
    const std::string doc = StoreDoc(kSys3);
    EXPECT_NE(doc.find(R"("Name":"Plugged-in System")"), std::string::npos) << doc;
    EXPECT_EQ(doc.find("ComputerSystems"), std::string::npos) << "linked to others: " << doc;
    // Unlocked once built: requests are served; a client cannot remove it.
    FrontEnd fe;
    EXPECT_EQ(fe.Send("RF_Root:ComputerSystem:GETQ", "GET", kSys3).status, "OK");
    EXPECT_EQ(fe.Send("RF_Root:ComputerSystem:DELETEQ", "DELETE", kSys3).status, "NOT_ALLOWED");
    ASSERT_TRUE(Raise("present"));  // old news
    ASSERT_TRUE(plugin.WaitForOutput("'present' ignored", kTimeoutMs)) << plugin.Output();

    ASSERT_TRUE(Raise("absent"));
    ASSERT_TRUE(plugin.WaitForOutput("System[/redfish/v1/Systems/3] pulled out.\n", kTimeoutMs))
        << plugin.Output();
    EXPECT_FALSE(Exists(kSys3));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members"),
              (Items{"&&ObjectRef /redfish/v1/Systems/1", "&&ObjectRef /redfish/v1/Systems/2"}));

    // The alert: queued once, its tree left for the event service.
    const Items queued = LRange(kEventQueue);
    ASSERT_EQ(queued.size(), 1u);
    // (The layout as a whole is RedfishEventTest's; here what the sample chose.)
    const std::string rec = queued[0] + "/Events/0";
    Fields record = HGetAll(rec);
    EXPECT_EQ(record["MessageId"], "\"ResourceEvent.1.0.ResourceRemoved\"");
    EXPECT_EQ(record["MessageSeverity"], "\"Warning\"");
    EXPECT_EQ(record["&&OriginOfCondition"], kSys3);
    EXPECT_EQ(HGetAll(rec + "/Oem/Veltra"),
              (Fields{{"SystemUUID", "\"6E2B8F14-A09C-4D3B-8F5A-1C7D2E9B0A63\""},
                      {"SystemSerialNumber", "\"SIM0000001\""},
                      {"SystemMachineTypeModel", "\"7X99CTO1WW\""},
                      {"@odata.type", "\"#VeltraEvent.v1_0_0.VeltraEventRecord\""}}));

    ASSERT_TRUE(plugin.Signal(SIGTERM));
    EXPECT_EQ(plugin.Wait(kTimeoutMs), 0);
    const std::string out = plugin.Output();
    EXPECT_EQ(out.find(":ERROR: "), std::string::npos) << out;
}

}  // namespace
