// The thread's scoped store connection: which calls share it, which never
// do, how scopes nest and end, what happens when it breaks, and that the
// frame runs the start-up stages inside one. Connections are counted on the
// server (INFO stats, total_connections_received), through a connection of
// the test's own opened before counting.
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "ObjectModelFixture.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"
#include "vex.h"

using namespace Orbel;
using OrbelTest::RawConnect;
using OrbelTest::RedisConn;

namespace {

// Connections the server has accepted so far, asked on `c`.
long long ConnectionsReceived(redisContext* c) {
    auto* r = static_cast<redisReply*>(redisCommand(c, "INFO stats"));
    if (r == nullptr) return -1;
    long long n = -1;
    if (r->type == REDIS_REPLY_STRING) {
        const std::string text(r->str, r->len);
        const std::string key = "total_connections_received:";
        size_t at = text.find(key);
        if (at != std::string::npos) n = std::atoll(text.c_str() + at + key.size());
    }
    freeReplyObject(r);
    return n;
}

class StoreConnectionScopeTest : public OrbelTest::ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        mStats = RawConnect();
        ASSERT_TRUE(mStats);
    }
    // New connections since the last call (or since SetUp's first call).
    long long NewConnections() {
        long long now = ConnectionsReceived(mStats.get());
        long long delta = mLast < 0 ? 0 : now - mLast;
        mLast = now;
        return delta;
    }
    RedisConn mStats;
    long long mLast = -1;
};

TEST_F(StoreConnectionScopeTest, InsideAScopeWrappersAndTheObjectModelOpenNoConnection) {
    ZSchema collSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema memberSchema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    RedisConnectionScope scope;
    ASSERT_NE(RedisConnectionScope::Current(), nullptr);
    NewConnections();

    EXPECT_EQ(RedisHashSet(nullptr, "plain", "field", "value"), RT_SUCCESS);
    std::string value;
    EXPECT_EQ(RedisHashGet(nullptr, "plain", "field", value), RT_SUCCESS);
    EXPECT_EQ(value, "value");

    auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    auto* system = new ZResource(coll, &memberSchema, std::to_string(coll->GetFreeMemberId()));
    auto* status = new ZJsonObject(system, "Status");
    status->HashWrite("State", "Enabled");
    system->HashWrite("Status", status);
    auto* order = new ZJsonArray(system, "BootOrder", ZJsonArray::ARRAY_ATTR_OdataCount);
    order->ListWrite(-1, "Pxe");
    system->HashWrite("BootOrder", order);
    EXPECT_EQ(system->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(NewConnections(), 0);

    // And everything arrived.
    EXPECT_EQ(Doc("/redfish/v1/Systems/1"),
              "{\"@odata.context\":\"/redfish/v1/$metadata#ComputerSystem\","
              "\"@odata.id\":\"/redfish/v1/Systems/1\","
              "\"@odata.type\":\"#ComputerSystem.v1_20_0.ComputerSystem\","
              "\"BootOrder\":[\"Pxe\"],\"BootOrder@odata.count\":1,"
              "\"Status\":{\"State\":\"Enabled\"}}");
    EXPECT_EQ(OrbelTest::LRange("&&/redfish/v1/Systems/Members"),
              std::vector<std::string>{"&&ObjectRef /redfish/v1/Systems/1"});
    NewConnections();  // the checks above read through connections of their own
    coll->ObjDestroy(ZObject::eDestroyDelete, true);  // clears every key
    EXPECT_EQ(NewConnections(), 0);
    EXPECT_FALSE(OrbelTest::Exists("/redfish/v1/Systems/1"));
}

TEST_F(StoreConnectionScopeTest, WithoutAScopeEachConstructionTakesOneConnection) {
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    ASSERT_EQ(RedisConnectionScope::Current(), nullptr);
    NewConnections();
    // Clearing its key and both channel lists and the first apply.
    auto* system = new ZResource(nullptr, &schema, "/redfish/v1/Systems/7");
    EXPECT_EQ(NewConnections(), 1);
    // Clearing its key and publishing the count in the parent.
    auto* items = new ZJsonArray(system, "Items", ZJsonArray::ARRAY_ATTR_OdataCount);
    EXPECT_EQ(NewConnections(), 1);
    EXPECT_EQ(OrbelTest::HGetAll("/redfish/v1/Systems/7").at("Items@odata.count"), "0");
    NewConnections();
    items->ListWrite(-1, 1);
    system->HashWrite("Items", items);
    system->ApplyRedisChanges();
    EXPECT_EQ(NewConnections(), 1);
    system->ObjDestroy(ZObject::eDestroyDelete, true);
}

TEST_F(StoreConnectionScopeTest, RedisConnectAndSubscriptionsAlwaysGetTheirOwn) {
    redisContext* kept = nullptr;
    {
        RedisConnectionScope scope;
        redisContext* scoped = RedisConnectionScope::Current();
        ASSERT_NE(scoped, nullptr);
        kept = RedisConnect();
        ASSERT_NE(kept, nullptr);
        EXPECT_NE(kept, scoped);
        redisContext* listener = RedisSubscribeFromChannel("RF_Test:Scope:GETQ");
        ASSERT_NE(listener, nullptr);
        EXPECT_NE(listener, scoped);
        RedisDisconnect(listener);
        // Had the subscription taken it, the scoped connection would now
        // refuse ordinary commands.
        EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "1"), RT_SUCCESS);
    }
    EXPECT_EQ(RedisConnectionScope::Current(), nullptr);
    // The caller's connection outlives the scope.
    EXPECT_EQ(RedisHashSet(kept, "k", "f", "2"), RT_SUCCESS);
    RedisDisconnect(kept);
    EXPECT_EQ(OrbelTest::HGetAll("k").at("f"), "2");
}

TEST_F(StoreConnectionScopeTest, ScopesNestLendAndBelongToTheirThread) {
    redisContext* own = RedisConnect();
    ASSERT_NE(own, nullptr);
    {
        RedisConnectionScope lent(own);
        EXPECT_EQ(RedisConnectionScope::Current(), own);
        {
            RedisConnectionScope inner;  // the thread is served already
            EXPECT_EQ(RedisConnectionScope::Current(), own);
            RedisCallConnection call;
            EXPECT_EQ(call.get(), own);
        }
        EXPECT_EQ(RedisConnectionScope::Current(), own);
        redisContext* seen = own;
        std::thread other([&seen, own] {
            seen = RedisConnectionScope::Current();
            RedisCallConnection call;  // a connection of the thread's own
            if (call.get() == nullptr) seen = own;
        });
        other.join();
        EXPECT_EQ(seen, nullptr);
    }
    EXPECT_EQ(RedisConnectionScope::Current(), nullptr);
    // A lent connection is the lender's: still open.
    EXPECT_EQ(RedisHashSet(own, "k", "f", "v"), RT_SUCCESS);
    RedisDisconnect(own);
    {
        RedisConnectionScope empty(nullptr);
        EXPECT_EQ(RedisConnectionScope::Current(), nullptr);
    }
}

TEST_F(StoreConnectionScopeTest, ABrokenScopedConnectionFailsOneCallThenCallsConnectAgain) {
    RedisConnectionScope scope;
    redisContext* scoped = RedisConnectionScope::Current();
    ASSERT_NE(scoped, nullptr);
    auto* id = static_cast<redisReply*>(redisCommand(scoped, "CLIENT ID"));
    ASSERT_NE(id, nullptr);
    ASSERT_EQ(id->type, REDIS_REPLY_INTEGER);
    const std::string clientId = std::to_string(id->integer);
    freeReplyObject(id);
    auto* kill =
        static_cast<redisReply*>(redisCommand(mStats.get(), "CLIENT KILL ID %s", clientId.c_str()));
    ASSERT_NE(kill, nullptr);
    EXPECT_EQ(kill->integer, 1);
    freeReplyObject(kill);

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
    EXPECT_EQ(OrbelTest::HGetAll("k").at("f"), "3");
}

// ---------------------------------------------------------------------------
// The frame runs each start-up stage inside a scope.
// ---------------------------------------------------------------------------

struct sStageRecord {
    bool preScoped = false;
    bool postScoped = false;
    bool afterScoped = false;
    long long preConnections = -1;  // opened while a resource was built
};
sStageRecord gStages;
redisContext* gStatsConn = nullptr;

class StageSchema : public ZSchema {
public:
    StageSchema() : ZSchema("ComputerSystem", "v1_20_0", CRUDQ_READ | CRUDQ_UPDATE) {}
    eRtCode PreCorvelReady_InitialResources() override {
        gStages.preScoped = RedisConnectionScope::Current() != nullptr;
        const long long before = ConnectionsReceived(gStatsConn);
        auto* system = new ZResource(nullptr, this, "/redfish/v1/Systems/1");
        auto* status = new ZJsonObject(system, "Status");
        status->HashWrite("State", "Starting");
        system->HashWrite("Status", status);
        system->ApplyRedisChanges();
        gStages.preConnections = ConnectionsReceived(gStatsConn) - before;
        return RT_SUCCESS;
    }
    eRtCode PostCorvelReady_InitResourceData(ZResource*) override {
        gStages.postScoped = RedisConnectionScope::Current() != nullptr;
        return RT_SUCCESS;
    }
    eRtCode PostCorvelReady_AfterTreatment() override {
        gStages.afterScoped = RedisConnectionScope::Current() != nullptr;
        return RT_SUCCESS;
    }
};

int StageSchemaFactory(void*) {
    auto* schema = new StageSchema();
    if (schema->Init() != RT_SUCCESS) {
        delete schema;
        return -1;
    }
    return 0;
}

class StageScopeTest : public OrbelTest::StoreTest {};

TEST_F(StageScopeTest, EveryStartUpStageRunsInsideOneScope) {
    RedisConn stats = RawConnect();
    ASSERT_TRUE(stats);
    gStatsConn = stats.get();
    gStages = sStageRecord();
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", 1, 0), 0);
    static const ZApplication::sSchemaFactory kTable[] = {{"ComputerSystem", StageSchemaFactory}};
    {
        ZApplication app("RF_Stage");
        char prog[] = "prog";
        char* argv[] = {prog, nullptr};
        ZApplication::sExecParams params{1, argv, kTable, 1};
        int rt = -1;
        std::thread exec([&] { rt = app.Exec(params); });
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (!app.isAppInitDone() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        EXPECT_TRUE(app.isAppInitDone());
        app.Exit();
        exec.join();
        EXPECT_EQ(rt, 0);
    }
    gStatsConn = nullptr;
    EXPECT_TRUE(gStages.preScoped);
    EXPECT_TRUE(gStages.postScoped);
    EXPECT_TRUE(gStages.afterScoped);
    // Two nodes, two channel lists, several applies: not one new connection.
    EXPECT_EQ(gStages.preConnections, 0);
    EXPECT_EQ(OrbelTest::HGetAll("&&/redfish/v1/Systems/1/Status").at("State"), "\"Starting\"");
}

}  // namespace
