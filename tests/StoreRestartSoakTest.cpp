// The sample under 8 clients while its store restarts empty half way, the
// test acting as the supervisor (the plug-in ends with status 2 and is
// started again). Nothing a client was told is lost, no Location names two
// members, every document is valid JSON, and a request sent the moment the
// restarted plug-in's collection is back is answered.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "ChildProcess.h"
#include "FrontEnd.h"
#include "TestEnv.h"
#include "vex.h"

using namespace OrbelTest;

namespace {

constexpr int kTimeoutMs = 20000;

// What the clients were told: member -> {AssetTag, PowerState}.
struct sLedger {
    std::mutex mutex;
    std::set<std::string> given, deleted, reused;
    std::set<std::string> uncertain;  // a request on it went unanswered: done or not
    std::map<std::string, std::pair<std::string, std::string>> live;
    std::atomic<int> acks{0};
};

std::unique_ptr<ChildProcess> StartPlugin() {
    unlink((SysrootDir() + "/tmp/Redfish/RF_Root.run").c_str());
    auto plugin = std::make_unique<ChildProcess>(
        std::vector<std::string>{BuiltProgram("examples/RF_Root/RF_Root")},
        std::map<std::string, std::string>{{"PLATFLAGS", "0x0"}});
    EXPECT_TRUE(plugin->Start());
    return plugin;
}

// Makes members, and changes and deletes only its own.
void Client(int c, sLedger& ledger, const std::atomic<bool>& stop) {
    FrontEnd fe("C" + std::to_string(c));
    std::vector<std::string> mine;
    for (int n = 0; !stop; ++n) {
        const std::string text = "c" + std::to_string(c) + "'" + std::to_string(n);
        const int step = mine.size() < 2 ? 0 : n % 4;
        const std::string uri = step == 0 ? "/redfish/v1/Systems" : mine[n % mine.size()];
        const bool on = n % 8 == 2;
        FrontEnd::Body body;
        body.top = {{step == 2 ? "ResetType" : "AssetTag",
                     step == 2 ? (on ? "\"On\"" : "\"ForceOff\"") : "\"" + text + "\""}};
        const char* const kRows[][3] = {
            {"RF_Root:ComputerSystemCollection:POSTCREATEQ", "POSTCREATE", "OK"},
            {"RF_Root:ComputerSystem:PATCHQ", "PATCH", "OK"},
            {"RF_Root:ComputerSystem:POSTACTIONQ", "POSTACTION", "OK_RES"},
            {"RF_Root:ComputerSystem:DELETEQ", "DELETE", "OK_EMPTY"}};
        const std::string target = step == 2 ? uri + "/Actions/ComputerSystem.Reset" : uri;
        FrontEnd::Answer a = fe.Send(kRows[step][0], fe.RequestFields(kRows[step][1], target, step != 3),
                                     step != 3 ? &body : nullptr, 1500);
        std::lock_guard<std::mutex> lock(ledger.mutex);
        if (!a.answered && step != 0) ledger.uncertain.insert(uri);
        if (a.status != kRows[step][2]) continue;
        ++ledger.acks;
        if (step == 0) {
            const std::string made = a.hash["&&Location"];
            if (!ledger.given.insert(made).second) ledger.reused.insert(made);
            ledger.live[made] = {text, "Off"};  // a member made by a client starts off
            mine.push_back(made);
        } else if (step == 1) {
            ledger.live[uri].first = text;
        } else if (step == 2) {
            ledger.live[uri].second = on ? "On" : "Off";
        } else {
            mine.erase(mine.begin() + static_cast<long>(n % mine.size()));
            ledger.live.erase(uri);
            ledger.deleted.insert(uri);
        }
    }
}

class StoreRestartSoakTest : public StoreTest {};

TEST_F(StoreRestartSoakTest, NothingAcknowledgedIsLostAndNoIdIsGivenTwice) {
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 1, 0), 0);
    InstallSampleTemplates();
    std::unique_ptr<ChildProcess> plugin = StartPlugin();
    ASSERT_TRUE(WaitForFile(SysrootDir() + "/tmp/Redfish/RF_Root.run", kTimeoutMs));
    sLedger ledger;
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (int c = 0; c < 8; ++c) clients.emplace_back(Client, c, std::ref(ledger), std::cref(stop));
    ASSERT_TRUE(WaitUntil([&] { return ledger.acks >= 150; }, kTimeoutMs));

    RedisServer::Instance().Stop();
    ASSERT_TRUE(RedisServer::Instance().Start());
    EXPECT_EQ(plugin->Wait(kTimeoutMs), 2) << plugin->Output();
    const std::string why = "(the store was restarted or emptied; marker[&&StoreMarker:RF_Root:";
    EXPECT_EQ(CountOf(plugin->Output(), why + std::to_string(plugin->Pid()) + "] missing)"), 1u);
    // What the ending process wrote meanwhile must not pass for the new one's.
    RawCommand({"DEL", "/redfish/v1/Systems"});
    plugin = StartPlugin();
    ASSERT_TRUE(WaitUntil([] { return Exists("/redfish/v1/Systems"); }, kTimeoutMs));
    FrontEnd probe("P");
    const auto get = [&probe](const std::string& q, const std::string& uri) {
        return probe.Send(q, probe.RequestFields("GET", uri, false), nullptr, kTimeoutMs).status;
    };
    // The clients' creates and deletes keep the collection locked; a read
    // that waits past the lock budget is answered 503 and tried again, as a
    // client would.
    EXPECT_TRUE(WaitUntil(
        [&get] { return get("RF_Root:ComputerSystemCollection:GETQ", "/redfish/v1/Systems") == "OK"; },
        kTimeoutMs));
    const int before = ledger.acks;
    ASSERT_TRUE(WaitUntil([&] { return ledger.acks >= before + 150; }, kTimeoutMs));
    stop = true;
    for (auto& t : clients) t.join();

    EXPECT_EQ(ledger.reused, std::set<std::string>());
    size_t checked = 0;
    for (const auto& entry : ledger.live) {
        if (ledger.uncertain.count(entry.first) != 0) continue;
        ++checked;
        // A read refreshes the power state from the backend, as a client sees it.
        EXPECT_EQ(get("RF_Root:ComputerSystem:GETQ", entry.first), "OK") << entry.first;
        const nlohmann::json doc = nlohmann::json::parse(StoreDoc(entry.first), nullptr, false);
        ASSERT_FALSE(doc.is_discarded()) << entry.first << ": " << StoreDoc(entry.first);
        EXPECT_EQ(doc.value("AssetTag", ""), entry.second.first) << entry.first;
        EXPECT_EQ(doc.value("PowerState", ""), entry.second.second) << entry.first;
    }
    EXPECT_GT(checked, 0u);
    for (const std::string& uri : ledger.deleted) EXPECT_FALSE(Exists(uri)) << uri;
    EXPECT_TRUE(Exists("/redfish/v1/Systems/1") && Exists("/redfish/v1/Systems/2"));
    // It serves before its start-up ends; an orderly exit needs the signal
    // thread, which the last start-up step starts.
    ASSERT_TRUE(WaitForFile(SysrootDir() + "/tmp/Redfish/RF_Root.run", kTimeoutMs));
    ASSERT_TRUE(plugin->Signal(SIGTERM));
    EXPECT_EQ(plugin->Wait(kTimeoutMs), 0) << plugin->Output();
}

}  // namespace
