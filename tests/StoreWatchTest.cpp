// The store watch: a plug-in notices a store that lost its data (restarted
// under it, or started after it) and ends with status 2; a plain outage or a
// normal end does not. Process behaviour on the test plug-in as a child, the
// generation counter on a watch in this process.
#include <signal.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "TestPluginProcess.h"
#include "ZStoreWatch.h"
#include "vex.h"

using namespace OrbelTest;
using Orbel::ZStoreWatch;

namespace {

constexpr int kTimeoutMs = 15000;

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string LostLine(const std::string& why, const std::string& marker) {
    return "Store lost this process's data (" + why + "; marker[" + marker +
           "] missing). The tree cannot be rebuilt in place: the process ends with status 2 so "
           "that it is started afresh.\n";
}

class StoreWatchTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 1, 0), 0);
    }
    // Every test leaves the server running for the next one.
    void TearDown() override { ASSERT_TRUE(RedisServer::Instance().Start()); }
};

TEST_F(StoreWatchTest, MarkerLivesWithTheProcessAndAnOutageAloneEndsNothing) {
    auto child = StartPlugin("RF_WatchA");
    ASSERT_TRUE(WaitRunning(*child, "RF_WatchA"));
    const std::string marker = ZStoreWatch::MarkerKey("RF_WatchA", child->Pid());
    EXPECT_EQ(marker, "&&StoreMarker:RF_WatchA:" + std::to_string(child->Pid()));
    EXPECT_EQ(HGetAll(marker), (Fields{{"Pid", std::to_string(child->Pid())}}));

    // A server that goes away and comes back with its data (saved and
    // loaded again, as a server with persistence does) is no loss.
    // The watch logs each of its verdicts: wait for those, not for a time.
    ASSERT_EQ(RawCommand({"SAVE"})->type, REDIS_REPLY_STATUS);
    RedisServer::Instance().Stop();
    ASSERT_TRUE(child->WaitForOutput("Store unreachable; marker[" + marker + "]", kTimeoutMs))
        << child->Output();
    EXPECT_TRUE(child->IsRunning());
    ASSERT_TRUE(RedisServer::Instance().Start());
    unlink((SysrootDir() + "/dump.rdb").c_str());  // later starts begin empty
    ASSERT_TRUE(Exists(marker));
    ASSERT_TRUE(
        child->WaitForOutput("Store reachable again; marker[" + marker + "] kept.\n", kTimeoutMs))
        << child->Output();
    ASSERT_TRUE(child->IsRunning()) << child->Output();

    ASSERT_TRUE(child->Signal(SIGTERM));
    EXPECT_EQ(child->Wait(kTimeoutMs), 0);
    EXPECT_FALSE(Exists(marker));
}

// A store started only after the plug-in built its tree: the data is lost
// and the plug-in ends with 2 (a store restarted under a ready plug-in:
// StoreRestartSoakTest).
TEST_F(StoreWatchTest, AStoreStartedAfterTheTreeEndsThePluginWithStatusTwo) {
    RedisServer::Instance().Stop();
    auto child = StartPlugin("RF_WatchC");
    ASSERT_TRUE(WaitRunning(*child, "RF_WatchC"));
    const std::string marker = ZStoreWatch::MarkerKey("RF_WatchC", child->Pid());
    EXPECT_FALSE(Exists(marker));
    ASSERT_TRUE(RedisServer::Instance().Start());
    ASSERT_EQ(child->Wait(kTimeoutMs), 2) << child->Output();
    const std::string out = child->Output();
    EXPECT_TRUE(
        Has(out, "ERROR: " + LostLine("the store was unreachable when the tree was built", marker)))
        << out;
    EXPECT_TRUE(Has(out, "AppExitProcess\n") && Has(out, "Exec returned 2\n")) << out;
}

TEST_F(StoreWatchTest, GenerationCountsEachLossOnceAndArmStartsAfresh) {
    ZStoreWatch watch;
    EXPECT_EQ(watch.Check(), ZStoreWatch::eStoreOk);  // not armed: nothing to look for
    for (uint32_t generation : {1u, 2u}) {
        ASSERT_EQ(watch.Arm("RF_Gen"), ZStoreWatch::eStoreOk);
        EXPECT_EQ(watch.Check(), ZStoreWatch::eStoreOk);
        EXPECT_EQ(watch.ExitStatus(), 0);
        RedisServer::Instance().FlushAll();
        EXPECT_EQ(watch.Check(), ZStoreWatch::eStoreLost);
        EXPECT_EQ(watch.Check(), ZStoreWatch::eStoreLost);  // latched, counted once
        EXPECT_EQ(watch.Generation(), generation);
        EXPECT_EQ(watch.ExitStatus(), 2);
    }
}

}  // namespace
