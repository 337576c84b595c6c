// The sample plug-in under load while its store restarts empty half way,
// the test acting as the platform's supervisor (the plug-in ends with
// status 2 and is started again). Afterwards nothing a client was told is
// lost: members it made are there under the URI it was given (no id ever
// names two members), their AssetTag and power state are the last ones
// acknowledged, deleted members stay deleted, and every stored document is
// valid JSON. A request sent the moment the restarted plug-in's collection
// is back in the store is answered: its dispatchers listened before.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "FrontEnd.h"
#include "TestEnv.h"
#include "vex.h"

using namespace OrbelTest;

namespace {

constexpr int kTimeoutMs = 20000;
constexpr int kClients = 8;
const std::string kCreateQ = "RF_Root:ComputerSystemCollection:POSTCREATEQ";
const std::string kPatchQ = "RF_Root:ComputerSystem:PATCHQ";
const std::string kActionQ = "RF_Root:ComputerSystem:POSTACTIONQ";
const std::string kDeleteQ = "RF_Root:ComputerSystem:DELETEQ";

struct sMember {
    std::string tag;
    std::string power = "Off";  // a member made by a client starts off
};

// What the clients were told, shared by them and checked at the end.
struct sLedger {
    std::mutex mutex;
    std::set<std::string> given;                 // every Location ever answered
    std::vector<std::string> reused;             // a Location answered twice
    std::map<std::string, sMember> live;         // acknowledged and not deleted
    std::set<std::string> deleted;               // acknowledged deletes
    // Members with a request left unanswered (sent while the plug-in was
    // away, or answered too late): it may or may not have been done.
    std::set<std::string> uncertain;
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

bool Answered(sLedger& ledger, const FrontEnd::Answer& a, const std::string& uri);

// One client: makes members, changes and deletes only its own.
void Client(int c, sLedger& ledger, const std::atomic<bool>& stop) {
    FrontEnd fe("C" + std::to_string(c));
    std::vector<std::string> mine;
    for (int n = 0; !stop; ++n) {
        const std::string text = "c" + std::to_string(c) + "'" + std::to_string(n);
        FrontEnd::Body body;
        FrontEnd::Answer a;
        const int step = mine.size() < 2 ? 0 : n % 4;
        const std::string uri = mine.empty() ? std::string() : mine[n % mine.size()];
        if (step == 0) {
            body.top = {{"AssetTag", "\"" + text + "\""}};
            a = fe.Send(kCreateQ, fe.RequestFields("POSTCREATE", "/redfish/v1/Systems", true),
                        &body, 1500);
            if (a.status != "OK") continue;
            const std::string made = a.hash["&&Location"];
            std::lock_guard<std::mutex> lock(ledger.mutex);
            if (!ledger.given.insert(made).second) ledger.reused.push_back(made);
            ledger.live[made] = sMember{text};
            mine.push_back(made);
        } else if (step == 1) {
            body.top = {{"AssetTag", "\"" + text + "\""}};
            a = fe.Send(kPatchQ, fe.RequestFields("PATCH", uri, true), &body, 1500);
            if (!Answered(ledger, a, uri) || a.status != "OK") continue;
            std::lock_guard<std::mutex> lock(ledger.mutex);
            ledger.live[uri].tag = text;
        } else if (step == 2) {
            const bool on = n % 8 == 2;
            body.top = {{"ResetType", on ? "\"On\"" : "\"ForceOff\""}};
            a = fe.Send(kActionQ,
                        fe.RequestFields("POSTACTION", uri + "/Actions/ComputerSystem.Reset", true),
                        &body, 1500);
            if (!Answered(ledger, a, uri) || a.status != "OK_RES") continue;
            std::lock_guard<std::mutex> lock(ledger.mutex);
            ledger.live[uri].power = on ? "On" : "Off";
        } else {
            a = fe.Send(kDeleteQ, fe.RequestFields("DELETE", uri, false), nullptr, 1500);
            if (!Answered(ledger, a, uri) || a.status != "OK_EMPTY") continue;
            mine.erase(mine.begin() + static_cast<long>(n % mine.size()));
            std::lock_guard<std::mutex> lock(ledger.mutex);
            ledger.live.erase(uri);
            ledger.deleted.insert(uri);
        }
        ++ledger.acks;
    }
}

// Whether `a` was answered; an unanswered request on `uri` makes the member
// uncertain.
bool Answered(sLedger& ledger, const FrontEnd::Answer& a, const std::string& uri) {
    if (a.answered) return true;
    std::lock_guard<std::mutex> lock(ledger.mutex);
    ledger.uncertain.insert(uri);
    return false;
}

class StoreRestartSoakTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 1, 0), 0);
        InstallSampleTemplates();
    }
};

TEST_F(StoreRestartSoakTest, NothingAcknowledgedIsLostAndNoIdIsGivenTwice) {
    std::unique_ptr<ChildProcess> plugin = StartPlugin();
    ASSERT_TRUE(WaitForFile(SysrootDir() + "/tmp/Redfish/RF_Root.run", kTimeoutMs))
        << plugin->Output();

    sLedger ledger;
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) clients.emplace_back(Client, c, std::ref(ledger), std::cref(stop));
    ASSERT_TRUE(WaitUntil([&] { return ledger.acks >= 150; }, kTimeoutMs));

    // The store restarts empty; the plug-in notices, ends with status 2 and
    // is started again, as its supervisor would.
    RedisServer::Instance().Stop();
    ASSERT_TRUE(RedisServer::Instance().Start());
    EXPECT_EQ(plugin->Wait(kTimeoutMs), 2) << plugin->Output();
    // What the ending process wrote meanwhile must not pass for the new
    // one's collection below.
    RawCommand({"DEL", "/redfish/v1/Systems"});
    plugin = StartPlugin();
    // The moment the collection is back, a request for it is answered.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!Exists("/redfish/v1/Systems") && std::chrono::steady_clock::now() < deadline) {
    }
    FrontEnd probe("P");
    EXPECT_EQ(probe.Send("RF_Root:ComputerSystemCollection:GETQ",
                         probe.RequestFields("GET", "/redfish/v1/Systems", false), nullptr,
                         kTimeoutMs)
                  .status,
              "OK")
        << plugin->Output();
    const int before = ledger.acks;
    ASSERT_TRUE(WaitUntil([&] { return ledger.acks >= before + 150; }, kTimeoutMs));
    stop = true;
    for (auto& t : clients) t.join();

    EXPECT_EQ(ledger.reused, std::vector<std::string>());
    size_t checked = 0;
    for (const auto& entry : ledger.live) {
        if (ledger.uncertain.count(entry.first) != 0) continue;
        ++checked;
        // A read refreshes the power state from the backend, as a client sees it.
        EXPECT_EQ(probe.Send("RF_Root:ComputerSystem:GETQ",
                             probe.RequestFields("GET", entry.first, false), nullptr, 5000)
                      .status,
                  "OK")
            << entry.first;
        const std::string doc = StoreDoc(entry.first);
        const nlohmann::json parsed = nlohmann::json::parse(doc, nullptr, false);
        ASSERT_FALSE(parsed.is_discarded()) << entry.first << ": " << doc;
        EXPECT_EQ(parsed.value("AssetTag", ""), entry.second.tag) << entry.first;
        EXPECT_EQ(parsed.value("PowerState", ""), entry.second.power) << entry.first;
    }
    for (const std::string& uri : ledger.deleted) EXPECT_FALSE(Exists(uri)) << uri;
    EXPECT_GT(checked, 0u);
    // The backend's own systems came back under their ids.
    EXPECT_TRUE(Exists("/redfish/v1/Systems/1") && Exists("/redfish/v1/Systems/2"));

    ASSERT_TRUE(plugin->Signal(SIGTERM));
    EXPECT_EQ(plugin->Wait(kTimeoutMs), 0) << plugin->Output();
}

}  // namespace
