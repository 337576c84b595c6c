// The thread's scoped store connection: which calls share it, which never
// do, how scopes nest and end, what happens when it breaks, and that the
// frame runs the start-up stages inside one. Connections are counted on the
// server (INFO stats, total_connections_received), through a connection of
// the test's own opened before counting.
#include <cstdlib>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "ObjectModelFixture.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"
#include "vex.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

// A member with its channel lists and a nested object, applied.
eRtCode BuildSystem(ZResourceCollection* coll, ZSchema* schema) {
    auto* system = new ZResource(coll, schema, std::to_string(coll->GetFreeMemberId()));
    auto* status = new ZJsonObject(system, "Status");
    status->HashWrite("State", "Enabled");
    system->HashWrite("Status", status);
    return system->ApplyRedisChanges();
}

class StoreConnectionScopeTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        mStats = RawConnect();
        ASSERT_TRUE(mStats);
        NewConnections();
    }
    // New connections the server accepted since the last call.
    long long NewConnections() {
        const long long before = mLast;
        mLast = ServerStat("stats", "total_connections_received:", mStats.get());
        return mLast - before;
    }
    RedisConn mStats;
    long long mLast = 0;
};

TEST_F(StoreConnectionScopeTest, InsideAScopeWrappersAndNodesShareOneConnection) {
    ZSchema collSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    // Without a scope the constructions, the member list and the apply each connect.
    auto* unscoped = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Chassis");
    NewConnections();
    ASSERT_EQ(BuildSystem(unscoped, &schema), RT_SUCCESS);
    EXPECT_GT(NewConnections(), 2);
    {
        RedisConnectionScope scope;
        ASSERT_NE(RedisConnectionScope::Current(), nullptr);
        // A first command makes sure the server has accepted the scope's own
        // connection before counting starts.
        EXPECT_EQ(RedisHashSet(nullptr, "plain", "field", "value"), RT_SUCCESS);
        NewConnections();
        EXPECT_EQ(RedisHashSet(nullptr, "plain", "field", "again"), RT_SUCCESS);
        auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
        ASSERT_EQ(BuildSystem(coll, &schema), RT_SUCCESS);
        coll->ObjDestroy(ZObject::eDestroyDelete, true);  // clears every key
        EXPECT_EQ(NewConnections(), 0);
    }
    EXPECT_EQ(RedisConnectionScope::Current(), nullptr);
    EXPECT_EQ(HGetAll("plain"), (Fields{{"field", "again"}}));
    EXPECT_EQ(HGetAll("&&/redfish/v1/Chassis/1/Status"), (Fields{{"State", "\"Enabled\""}}));
    EXPECT_FALSE(Exists("/redfish/v1/Systems/1") || Exists("&&/redfish/v1/Systems/Members"));
}

TEST_F(StoreConnectionScopeTest, AMemberTakesFourRoundTripsAndIsCompleteWhenItsConstructorEnds) {
    ZSchema collSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    // What a previous run left: stale fields, our stale channel beside another
    // process's, a time-to-live entry.
    RawCommand({"HSET", "&&/redfish/v1/Systems/1/Status", "Stale", "1"});
    RawCommand({"HSET", "/redfish/v1/Systems/1", "Stale", "1"});
    RawCommand({"HSET", "&&TTL", "/redfish/v1/Systems/1", "30"});
    RawCommand({"RPUSH", "&&/redfish/v1/Systems/1/GETQ", "RF_Test:Old:GETQ", "RF_Other:X:GETQ"});
    RedisConnectionScope scope;
    auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    // Read events of the server; each look goes through the same connection
    // as the count, so that it adds one read (and the INFO one more).
    long reads = ServerStat("stats", "total_reads_processed:", mStats.get());
    const auto roundTrips = [this, &reads](int looks) {
        const long now = ServerStat("stats", "total_reads_processed:", mStats.get());
        const long n = now - reads - 1 - looks;
        reads = now;
        return n;
    };
    const auto look = [this](const char* cmd, const char* key) {
        Reply r(static_cast<redisReply*>(redisCommand(mStats.get(), cmd, key)));
        std::vector<std::string> out;
        for (size_t i = 0; r && i < r->elements; ++i) {
            out.emplace_back(r->element[i]->str != nullptr ? r->element[i]->str : "(nil)");
        }
        return out;
    };
    using Words = std::vector<std::string>;
    const int id = coll->GetFreeMemberId();  // one round trip: the member count
    auto* system = new ZResource(coll, &schema, std::to_string(id));
    // Its writes, then what their replies call for (the channels, the count).
    EXPECT_EQ(roundTrips(0), 3);
    // Seen from another connection: in the store, link and count included.
    EXPECT_EQ(look("LRANGE %s 0 -1", "&&/redfish/v1/Systems/1/GETQ"),
              (Words{"RF_Test:ComputerSystem:GETQ", "RF_Other:X:GETQ"}));
    EXPECT_EQ(look("LRANGE %s 0 -1", "&&/redfish/v1/Systems/1/PATCHQ"),
              (Words{"RF_Test:ComputerSystem:PATCHQ"}));
    EXPECT_EQ(look("LRANGE %s 0 -1", "&&/redfish/v1/Systems/Members"),
              (Words{"&&ObjectRef /redfish/v1/Systems/1"}));
    EXPECT_EQ(look("HMGET %s Members@odata.count", "/redfish/v1/Systems"), (Words{"1"}));
    EXPECT_EQ(look("HKEYS %s", "&&TTL"), Words{});
    EXPECT_EQ(look("HMGET %s Stale", "/redfish/v1/Systems/1"), (Words{"(nil)"}));
    roundTrips(6);
    auto* status = new ZJsonObject(system, "Status");  // its clearing rides with the apply
    status->HashWrite("State", "Enabled");
    system->HashWrite("Status", status);
    ASSERT_EQ(system->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(roundTrips(0), 1);
    EXPECT_EQ(HGetAll("&&/redfish/v1/Systems/1/Status"), (Fields{{"State", "\"Enabled\""}}));
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count("Stale"), 0u);
}

TEST_F(StoreConnectionScopeTest, RedisConnectSubscriptionsAndOtherThreadsGetTheirOwn) {
    redisContext* own = RedisConnect();
    ASSERT_NE(own, nullptr);
    {
        RedisConnectionScope lent(own);
        {
            RedisConnectionScope inner;  // the thread is served already
            EXPECT_EQ(RedisCallConnection().get(), own);
        }
        EXPECT_EQ(RedisConnectionScope::Current(), own);
        redisContext* kept = RedisConnect();
        redisContext* listener = RedisSubscribeFromChannel("RF_Test:Scope:GETQ");
        EXPECT_TRUE(kept != nullptr && kept != own && listener != nullptr && listener != own);
        RedisDisconnect(listener);
        RedisDisconnect(kept);
        // Had the subscription taken it, the scoped connection would now
        // refuse ordinary commands.
        EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "1"), RT_SUCCESS);
        redisContext* seen = own;
        std::thread other([&seen, own] {
            seen = RedisConnectionScope::Current();
            if (RedisCallConnection().get() == nullptr) seen = own;  // one of its own
        });
        other.join();
        EXPECT_EQ(seen, nullptr);
    }
    // A lent connection is the lender's: still open.
    EXPECT_EQ(RedisHashSet(own, "k", "f", "2"), RT_SUCCESS);
    RedisDisconnect(own);
    EXPECT_EQ(HGetAll("k"), (Fields{{"f", "2"}}));
}

TEST_F(StoreConnectionScopeTest, ABrokenScopedConnectionFailsOneCallThenCallsConnectAgain) {
    RedisConnectionScope scope;
    redisContext* scoped = RedisConnectionScope::Current();
    ASSERT_NE(scoped, nullptr);
    Reply id(static_cast<redisReply*>(redisCommand(scoped, "CLIENT ID")));
    ASSERT_TRUE(id && id->type == REDIS_REPLY_INTEGER);
    Reply kill(static_cast<redisReply*>(
        redisCommand(mStats.get(), "CLIENT KILL ID %lld", static_cast<long long>(id->integer))));
    ASSERT_TRUE(kill && kill->integer == 1);
    // The command that meets the closed connection fails...
    EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "1"), RT_FAILURE);
    EXPECT_NE(scoped->err, 0);
    // ...the next ones connect by themselves, and a new scope brings a
    // working connection of its own.
    EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "2"), RT_SUCCESS);
    {
        RedisConnectionScope inner;
        EXPECT_NE(RedisConnectionScope::Current(), scoped);
        EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "3"), RT_SUCCESS);
    }
    EXPECT_EQ(RedisConnectionScope::Current(), scoped);
    EXPECT_EQ(HGetAll("k"), (Fields{{"f", "3"}}));
}

// The frame runs each start-up stage inside a scope: the stages count the
// scopes they see.
int gScopedStages = 0;

class StageSchema : public ZSchema {
public:
    StageSchema() : ZSchema("ComputerSystem", "v1_20_0", CRUDQ_READ | CRUDQ_UPDATE) {}
    static eRtCode Stage() {
        gScopedStages += RedisConnectionScope::Current() != nullptr;
        return RT_SUCCESS;
    }
    eRtCode PreCorvelReady_InitialResources() override {
        new ZResource(nullptr, this, "/redfish/v1/Systems/1");  // to be given its data
        return Stage();
    }
    eRtCode PostCorvelReady_InitResourceData(ZResource*) override { return Stage(); }
    eRtCode PostCorvelReady_AfterTreatment() override { return Stage(); }
};

int StageSchemaFactory(void*) {
    auto* schema = new StageSchema();
    if (schema->Init() == RT_SUCCESS) return 0;
    delete schema;
    return -1;
}

class StageScopeTest : public StoreTest {};

TEST_F(StageScopeTest, EveryStartUpStageRunsInsideOneScope) {
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 1, 0), 0);
    static const ZApplication::sSchemaFactory kTable[] = {{"ComputerSystem", StageSchemaFactory}};
    {
        ZApplication app("RF_Stage");
        char prog[] = "prog";
        char* argv[] = {prog, nullptr};
        ZApplication::sExecParams params{1, argv, kTable, 1};
        int rt = -1;
        std::thread exec([&] { rt = app.Exec(params); });
        EXPECT_TRUE(WaitUntil([&app] { return app.isAppInitDone(); }, 15000));
        app.Exit();
        exec.join();
        EXPECT_EQ(rt, 0);
    }
    EXPECT_EQ(gScopedStages, 3);
}

}  // namespace
