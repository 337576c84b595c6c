// The sample plug-in's resources, as the front end would read them.
//
// RF_Root runs as a child process against the suite's store; one test
// follows its life (before the front end is ready, ready, serving requests
// from a front-end driver, a system plugged in and pulled out on the
// simulated VEX event, stopped) and compares whole documents, assembled
// from the store by the tree reader.
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "ChildProcess.h"
#include "EventScripts.h"
#include "FixedPaths.h"
#include "FrontEnd.h"
#include "TestEnv.h"
#include "vex.h"

using namespace OrbelTest;

namespace {

constexpr int kTimeoutMs = 15000;

std::string ReadyFile() {
    return SysrootDir() + "/tmp/Redfish/RF_Root.run";
}

// The whole document of the first system once the front end is ready.
const char* const kSystem1 =
    R"({"@odata.context":"/redfish/v1/$metadata#ComputerSystem",)"
    R"("@odata.id":"/redfish/v1/Systems/1",)"
    R"("@odata.type":"#ComputerSystem.v1_20_0.ComputerSystem",)"
    R"("Actions":{"#ComputerSystem.Reset":{"HidePayload":false,"PercentComplete":0,)"
    R"("ResetType@Redfish.AllowableValues":["On","ForceOff","GracefulShutdown","ForceRestart"],)"
    R"("target":"/redfish/v1/Systems/1/Actions/ComputerSystem.Reset","title":"Reset"},)"
    R"("Oem":{"#Orbel.FailingSelfTest":{"HidePayload":false,"PercentComplete":0,)"
    R"("target":"/redfish/v1/Systems/1/Actions/Oem/Orbel.FailingSelfTest","title":"FailingSelfTest"},)"
    R"("#Orbel.SimulatedFirmwareUpdate":{"HidePayload":false,"PercentComplete":0,)"
    R"("target":"/redfish/v1/Systems/1/Actions/Oem/Orbel.SimulatedFirmwareUpdate",)"
    R"("title":"SimulatedFirmwareUpdate"}}},)"
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

class SampleResourcesTest : public StoreTest {};

TEST_F(SampleResourcesTest, TheSamplePluginThroughItsLife) {
    // What an earlier run could have left: the new start must not show it.
    RawCommand({"HSET", "/redfish/v1/Systems/1", "Stale", "\"left over\""});
    RawCommand({"RPUSH", "&&/redfish/v1/Systems/Members", "&&ObjectRef /redfish/v1/Systems/9"});
    RawCommand({"RPUSH", "&&/redfish/v1/Systems/1/Boot/BootOrder", "\"Cd\""});
    // The event service's scripts, for the alert of a system pulled out.
    RedisConn conn = RawConnect();
    std::string error;
    ASSERT_TRUE(LoadEventScripts(conn.get(), &error)) << error;
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 0, 0), 0);
    unlink(ReadyFile().c_str());
    InstallSampleTemplates();
    // The controller's start scripts give every plug-in its platform flags.
    ChildProcess plugin({BuiltProgram("examples/RF_Root/RF_Root")}, {{"PLATFLAGS", "0x0"}});
    ASSERT_TRUE(plugin.Start());
    ASSERT_TRUE(plugin.WaitForOutput("PreCorvelReady_InitAllSchemaResources done!\n", kTimeoutMs))
        << plugin.Output();

    // Before the front end is ready the tree is stored and the systems are
    // starting; stale members of an earlier run are gone.
    EXPECT_FALSE(FileExists(ReadyFile()));
    EXPECT_EQ(StoreDoc("/redfish/v1/"), kServiceRoot);
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems"), kSystems);
    EXPECT_EQ(StoreDoc("&&/redfish/v1/Systems/2/Status"), R"({"Health":"OK","State":"Starting"})");
    std::string starting = kSystem1;
    starting.replace(starting.find(R"("State":"Enabled")"), 17, R"("State":"Starting")");
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems/1"), starting);

    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 1, 0), 0);
    ASSERT_TRUE(WaitForFile(ReadyFile(), kTimeoutMs)) << plugin.Output();
    EXPECT_EQ(ReadFile(ReadyFile()), "Ready\n");
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems/1"), kSystem1);

    EXPECT_EQ(StoreDoc("&&/redfish/v1/Systems/2/Status"), R"({"Health":"OK","State":"Enabled"})");
    // The request queue lists name the plug-in, its schemas and the method.
    EXPECT_EQ(LRange("&&/redfish/v1/GETQ"), (Items{"RF_Root:ServiceRoot:GETQ"}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/2/PATCHQ"), (Items{"RF_Root:ComputerSystem:PATCHQ"}));

    // Requests, as the front end sends them.
    const std::string sys1 = "/redfish/v1/Systems/1";
    FrontEnd fe;
    FrontEnd::Body reset;
    reset.top = {{"ResetType", "\"ForceOff\""}};
    FrontEnd::Answer a = fe.Send("RF_Root:ComputerSystem:POSTACTIONQ", "POSTACTION",
                                 sys1 + "/Actions/ComputerSystem.Reset", &reset);
    EXPECT_EQ(a.status, "OK_RES");
    EXPECT_EQ(a.responseData, R"({"PowerState":"Off","ResetType":"ForceOff"})");
    // The stored document keeps its value until a read refreshes it.
    EXPECT_EQ(HGetAll(sys1)["PowerState"], "\"On\"");
    EXPECT_EQ(fe.Send("RF_Root:ComputerSystem:GETQ", "GET", sys1).status, "OK");
    EXPECT_EQ(HGetAll(sys1)["PowerState"], "\"Off\"");

    FrontEnd::Body patch;
    const std::string bootKey = "&&" + fe.NextKey() + "/Boot";
    patch.top = {{"AssetTag", "\"R7-U12\""}, {"&&Object Boot " + bootKey, ""}};
    patch.hashes[bootKey] = {{"BootSourceOverrideTarget", "\"Pxe\""}};
    EXPECT_EQ(fe.Send("RF_Root:ComputerSystem:PATCHQ", "PATCH", sys1, &patch).status, "OK");
    const std::string bootAfterPatch =
        R"({"BootOrder":["Pxe","Hdd","Usb"],"BootSourceOverrideEnabled":"Disabled",)"
        R"("BootSourceOverrideTarget":"Pxe"})";
    EXPECT_EQ(StoreDoc("&&/redfish/v1/Systems/1/Boot"), bootAfterPatch);
    EXPECT_EQ(HGetAll(sys1)["AssetTag"], "\"R7-U12\"");

    // A value outside the standard's enumeration never reaches the handler
    // (the read-only PowerState is refused in RF_RootKitTest.ReadsAndUpdates).
    FrontEnd::Body refused;
    refused.top = {{"&&Object Boot " + bootKey + "x", ""}};
    refused.hashes[bootKey + "x"] = {{"BootSourceOverrideTarget", "\"Nowhere\""}};
    FrontEnd::Answer r = fe.Send("RF_Root:ComputerSystem:PATCHQ", "PATCH", sys1, &refused);
    EXPECT_EQ(r.status + " " + r.extInfo,
              "FAILURE "
              R"([{"MessageArgs":["Nowhere","Boot/BootSourceOverrideTarget"],)"
              R"("MessageId":"Base.1.12.PropertyValueNotInList","RelatedProperties":[]}])");
    EXPECT_EQ(StoreDoc("&&/redfish/v1/Systems/1/Boot"), bootAfterPatch);

    FrontEnd::Body create;
    create.top = {{"AssetTag", "\"new\""}};
    FrontEnd::Answer made = fe.Send("RF_Root:ComputerSystemCollection:POSTCREATEQ", "POSTCREATE",
                                    "/redfish/v1/Systems", &create);
    EXPECT_EQ(made.status, "OK");
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/3")["AssetTag"], "\"new\"");
    EXPECT_EQ(made.hash["&&Location"], "/redfish/v1/Systems/3");
    EXPECT_EQ(HGetAll("/redfish/v1/Systems")["Members@odata.count"], "3");
    EXPECT_EQ(fe.Send("RF_Root:ComputerSystem:DELETEQ", "DELETE", "/redfish/v1/Systems/3").status,
              "OK_EMPTY");
    EXPECT_FALSE(Exists("/redfish/v1/Systems/3"));
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems"), kSystems);

    // A system plugged in on the platform's event (ids are never given
    // twice: 3 went to the client's member).
    const std::string sys4 = "/redfish/v1/Systems/4";
    const auto raise = [](const char* payload) {
        return vex_event_raise("SampleSystemPresence", payload,
                               static_cast<int>(std::strlen(payload))) != 0;
    };
    RawCommand({"DEL", kEventQueue});
    ASSERT_TRUE(raise("present"));
    ASSERT_TRUE(plugin.WaitForOutput("System[" + sys4 + "] plugged in.\n", kTimeoutMs))
        << plugin.Output();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems")["Members@odata.count"], "3");
    EXPECT_EQ(StoreDoc("&&" + sys4 + "/Status"), R"({"Health":"OK","State":"Enabled"})");
    const std::string doc = StoreDoc(sys4);
    EXPECT_NE(doc.find(R"("Name":"Plugged-in System")"), std::string::npos) << doc;
    EXPECT_EQ(doc.find("ComputerSystems"), std::string::npos) << "linked to others: " << doc;
    // Unlocked once built: requests are served; a client cannot remove it.
    EXPECT_EQ(fe.Send("RF_Root:ComputerSystem:GETQ", "GET", sys4).status, "OK");
    EXPECT_EQ(fe.Send("RF_Root:ComputerSystem:DELETEQ", "DELETE", sys4).status, "NOT_ALLOWED");
    ASSERT_TRUE(raise("present"));  // old news
    ASSERT_TRUE(plugin.WaitForOutput("'present' ignored", kTimeoutMs)) << plugin.Output();

    ASSERT_TRUE(raise("absent"));
    ASSERT_TRUE(plugin.WaitForOutput("System[" + sys4 + "] pulled out.\n", kTimeoutMs))
        << plugin.Output();
    EXPECT_FALSE(Exists(sys4));
    EXPECT_EQ(StoreDoc("/redfish/v1/Systems"), kSystems);

    // The alert: queued once, its tree left for the event service.
    const Items queued = LRange(kEventQueue);
    ASSERT_EQ(queued.size(), 1u);
    // (The layout as a whole is RedfishEventTest's; here what the sample chose.)
    const std::string rec = queued[0] + "/Events/0";
    Fields record = HGetAll(rec);
    EXPECT_EQ(record["MessageId"], "\"ResourceEvent.1.0.ResourceRemoved\"");
    EXPECT_EQ(record["MessageSeverity"], "\"Warning\"");
    EXPECT_EQ(record["&&OriginOfCondition"], sys4);
    EXPECT_EQ(HGetAll(rec + "/Oem/Veltra")["SystemSerialNumber"], "\"SIM0000001\"");

    ASSERT_TRUE(plugin.Signal(SIGTERM));
    EXPECT_EQ(plugin.Wait(kTimeoutMs), 0);
    const std::string out = plugin.Output();
    EXPECT_NE(out.find("ComputerSystem: 2 systems in service.\n"), std::string::npos) << out;
    EXPECT_NE(out.find("zApp Exit.\n"), std::string::npos) << out;
    // The sample is what authors copy: its whole life logs no complaint but
    // the one warning of the repeated news.
    EXPECT_EQ(out.find(":ERROR: "), std::string::npos) << out;
    const size_t warning = out.find(":WARNING: ");
    EXPECT_NE(out.find("'present' ignored", warning), std::string::npos) << out;
    EXPECT_EQ(out.find(":WARNING: ", warning + 1), std::string::npos) << out;
}

}  // namespace
