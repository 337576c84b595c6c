// The change queue: value texts and field forms byte for byte, list writes,
// removal, apply, discard, compound writers, refusals and the warning about a
// queue left unapplied.
#include <chrono>
#include <string>
#include <tuple>
#include <thread>
#include <vector>

#include "ObjectModelFixture.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

const char kSys[] = "/redfish/v1/Systems/1";

class ChangeQueueTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        sys = new ZResource(nullptr, nullptr, kSys);
    }
    ZResource* sys = nullptr;
};

TEST_F(ChangeQueueTest, ValuesNodesAndLinksAreStoredAsTheirTexts) {
    auto* manager = new ZResource(nullptr, nullptr, "/redfish/v1/Managers/1");
    auto* status = new ZJsonObject(sys, "Status");
    auto* boot = new ZJsonArray(sys, "BootOrder");
    sys->HashWrite("Null");
    sys->HashWrite("True", true);
    sys->HashWrite("Negative", -42);
    sys->HashWrite("Long", static_cast<long>(7));
    sys->HashWrite("Max", 18446744073709551615ULL);
    sys->HashWrite("Unsigned", 5u);
    sys->HashWrite("Half", 1.5);
    sys->HashWrite("Quarter", 0.25f);
    sys->HashWrite("Name", "abc  ");
    sys->HashWrite("Text", std::string("x y"));
    sys->HashWriteRawString("Raw", "{\"a\":[1,2]}");
    sys->HashWrite("Status", status);
    sys->HashWrite("BootOrder", boot);
    sys->HashWrite("Manager", manager, true);
    sys->HashWrite("Chassis", "/redfish/v1/Chassis/1", true);
    // One more than the writes: a link property whose name shares its bit
    // with a plain one may replace a plain field, so its field is deleted.
    EXPECT_EQ(sys->GetRedisChangeNum(), 16u);
    EXPECT_EQ(HGetAll(kSys).size(), 1u);  // nothing reaches the store before the apply
    ASSERT_EQ(sys->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(sys->GetRedisChangeNum(), 0u);
    EXPECT_EQ(HGetAll(kSys), (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""},
                                     {"Null", "null"},
                                     {"True", "true"},
                                     {"Negative", "-42"},
                                     {"Long", "7"},
                                     {"Max", "18446744073709551615"},
                                     {"Unsigned", "5"},
                                     {"Half", "1.500000"},
                                     {"Quarter", "0.250000"},
                                     {"Name", "\"abc\""},
                                     {"Text", "\"x y\""},
                                     {"Raw", "{\"a\":[1,2]}"},
                                     {"&&Object Status &&/redfish/v1/Systems/1/Status", ""},
                                     {"&&Array BootOrder &&/redfish/v1/Systems/1/BootOrder", ""},
                                     {"&&ObjectRef Manager /redfish/v1/Managers/1", ""},
                                     {"&&ObjectRef Chassis /redfish/v1/Chassis/1", ""}}));
}

TEST_F(ChangeQueueTest, EachFieldAndElementIsWrittenOncePerApply) {
    // A run of field sets is one HSET (a field set twice keeps its last
    // value), a run of appends one RPUSH, the count is published once; the
    // whole recursive apply is one round trip, the count's write a second.
    auto* items = new ZJsonArray(sys, "Items", ZJsonArray::ARRAY_ATTR_OdataCount);
    for (int v = 1; v <= 5; ++v) items->ListWrite(-1, v);
    sys->HashWrite("A", 1);
    sys->HashWrite("B", 2);
    sys->HashWrite("A", 3);
    sys->HashWrite("Items", items);
    ASSERT_TRUE(RawCommand({"CONFIG", "RESETSTAT"}));
    redisContext* c = RedisConnect();
    ASSERT_NE(c, nullptr);
    const long reads = ServerStat("stats", "total_reads_processed:", c);
    ASSERT_EQ(sys->ApplyRedisChanges(true, c), RT_SUCCESS);
    // The apply's round trip, the count's, and this INFO.
    EXPECT_EQ(ServerStat("stats", "total_reads_processed:", c) - reads, 3L);
    RedisDisconnect(c);
    EXPECT_EQ(std::make_tuple(ServerCalls("hset"), ServerCalls("rpush"), ServerCalls("llen")),
              std::make_tuple(2L, 1L, 1L));
    EXPECT_EQ(HGetAll(kSys), (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""},
                                     {"A", "3"},
                                     {"B", "2"},
                                     {"Items@odata.count", "5"},
                                     {"&&Array Items &&/redfish/v1/Systems/1/Items", ""}}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"), (Items{"1", "2", "3", "4", "5"}));
}

TEST_F(ChangeQueueTest, ListWritesAppendOverwriteAndHoldNodeTexts) {
    auto* arr = new ZJsonArray(sys, "Values");
    auto* item = new ZJsonObject(arr, "0");
    arr->ListWrite(-1, 1);
    arr->ListWrite(-1, 3);
    arr->ListWrite(-1, 5);
    arr->ListWrite(-1);
    arr->ListWrite(-1, 2.5);
    arr->ListWrite(-1, static_cast<ZObject*>(item));
    arr->ListWrite(-1, static_cast<ZObject*>(sys), true);
    arr->ListWrite(-1, "/redfish/v1/Other", true);
    arr->ListWriteRawString("{}");
    ASSERT_EQ(arr->ApplyRedisChanges(), RT_SUCCESS);
    arr->ListWrite(2, 9);
    arr->ListWrite(0, "first ");
    ASSERT_EQ(arr->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Values"),
              (Items{"\"first\"", "3", "9", "null", "2.500000",
                     "&&Object &&/redfish/v1/Systems/1/Values/0",
                     "&&ObjectRef /redfish/v1/Systems/1", "&&ObjectRef /redfish/v1/Other", "{}"}));
    EXPECT_EQ(arr->GetIdxByObject(item), 0);
    EXPECT_EQ(arr->GetIdxByObject(sys), 1);

    // A list write on a hash and a hash write on a list are refused.
    size_t mark = LogMark();
    EXPECT_EQ(sys->ListWrite(-1, 5), RT_FAILURE);
    EXPECT_EQ(arr->HashWrite("Name", "x"), RT_FAILURE);
    EXPECT_TRUE(
        Logged(mark, {"Object[/redfish/v1/Systems/1] type[2] is not JsonArray. itemIdx[-1]\n",
                      "Object[&&/redfish/v1/Systems/1/Values] type[1] is not Resource, "
                      "ResourceCollection or JsonObject. pptName[Name]\n"}));
    EXPECT_EQ(arr->GetRedisChangeNum() + sys->GetRedisChangeNum(), 0u);
}

// The calls that write at once, outside the queue: a counted array keeps
// its parent's count, and a shared node removes only what it wrote itself.
TEST_F(ChangeQueueTest, DirectStoreWritesKeepTheCountAndTheOwnersFields) {
    auto* arr = new ZJsonArray(sys, "Items", ZJsonArray::ARRAY_ATTR_OdataCount);
    auto* obj = new ZJsonObject(sys, "Status");
    auto* shared =
        new ZResource(nullptr, nullptr, "/redfish/v1/Shared", "", ZObject::ATTR_MultiBackend);
    auto* list = new ZJsonArray(shared, "L");
    RedisConn c = RawConnect();
    ASSERT_TRUE(c);
    for (const char* v : {"1", "2", "2"}) EXPECT_EQ(arr->AppendItem(c.get(), v), RT_SUCCESS);
    EXPECT_EQ(arr->UpdateItem(c.get(), "0", "7"), RT_SUCCESS);
    EXPECT_EQ(arr->RemoveItem(c.get(), "2"), RT_SUCCESS);  // the first equal one only
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"), (Items{"7", "2"}));
    EXPECT_EQ(arr->ItemNum(), 2u);
    EXPECT_EQ(HGetAll(kSys)["Items@odata.count"], "2");
    EXPECT_EQ(obj->AppendProperty(c.get(), "Health", "\"OK\""), RT_SUCCESS);
    EXPECT_EQ(obj->AppendProperty(c.get(), "State", "\"On\""), RT_SUCCESS);
    EXPECT_EQ(obj->RemoveProperty(c.get(), "State"), RT_SUCCESS);
    EXPECT_EQ(HGetAll("&&/redfish/v1/Systems/1/Status"), (Fields{{"Health", "\"OK\""}}));

    EXPECT_EQ(RawCommand({"RPUSH", "&&/redfish/v1/Shared/L", "other"})->integer, 1);
    EXPECT_EQ(list->AppendItem(c.get(), "mine"), RT_SUCCESS);
    size_t mark = LogMark();
    EXPECT_EQ(list->RemoveItem(c.get(), "other"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, {"Unknown item[other] in Object[&&/redfish/v1/Shared/L].\n"}));
    EXPECT_EQ(list->RemoveItem(c.get(), "mine"), RT_SUCCESS);
    EXPECT_EQ(LRange("&&/redfish/v1/Shared/L"), (Items{"other"}));
    shared->ObjDestroy(ZObject::eDestroyDelete, true);
}

TEST_F(ChangeQueueTest, RemovingPropertiesNodesAndLinks) {
    auto* manager = new ZResource(nullptr, nullptr, "/redfish/v1/Managers/1");
    auto* status = new ZJsonObject(sys, "Status");
    status->HashWrite("State", "Enabled");
    sys->HashWrite("Status", status);
    sys->HashWrite("Manager", manager, true);
    sys->HashWrite("Chassis", "/redfish/v1/Chassis/1", true);
    sys->HashWrite("Name", "n");
    sys->ApplyRedisChanges();

    EXPECT_EQ(sys->HashRemove("Name"), RT_SUCCESS);
    EXPECT_EQ(sys->HashRemove("Status"), RT_SUCCESS);
    // The owned node is retired at once, its hash cleared with it.
    EXPECT_TRUE(status->IsDied());
    EXPECT_FALSE(Exists("&&/redfish/v1/Systems/1/Status"));
    // A link goes without its target; one written as text is found in the store.
    EXPECT_EQ(sys->HashRemove("Manager"), RT_SUCCESS);
    EXPECT_FALSE(manager->IsDied());
    EXPECT_EQ(manager->GetMetaKeyInReferencedBy(sys), "");
    EXPECT_EQ(sys->HashRemoveLink("Chassis"), RT_SUCCESS);
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll(kSys), (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""}}));
    size_t mark = LogMark();
    EXPECT_EQ(sys->HashRemoveLink("Manager"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "doesn't have a link property[Manager]"));
}

TEST_F(ChangeQueueTest, ListRemovalByTextIndexNodeAndClear) {
    auto* arr = new ZJsonArray(sys, "Items");
    auto* a = new ZJsonObject(arr, "a");
    auto* b = new ZJsonObject(arr, "b");
    arr->ListWrite(-1, "x");
    arr->ListWrite(-1, static_cast<ZObject*>(a));
    arr->ListWrite(-1, "x");
    arr->ListWrite(-1, static_cast<ZObject*>(b));
    arr->ListWrite(-1, "y");
    arr->ApplyRedisChanges();
    const std::string nodeA = "&&Object &&/redfish/v1/Systems/1/Items/a";
    const std::string nodeB = "&&Object &&/redfish/v1/Systems/1/Items/b";
    // A plain text removes its first occurrence only.
    EXPECT_EQ(arr->ListRemove("\"x\"", false), RT_SUCCESS);
    arr->ApplyRedisChanges();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"), (Items{nodeA, "\"x\"", nodeB, "\"y\""}));
    // By position (read from the store) and by node.
    EXPECT_EQ(arr->ListRemove(3), RT_SUCCESS);
    EXPECT_EQ(arr->ListRemove(static_cast<ZObject*>(a)), RT_SUCCESS);
    EXPECT_TRUE(a->IsDied());
    arr->ApplyRedisChanges();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"), (Items{"\"x\"", nodeB}));
    size_t mark = LogMark();
    EXPECT_EQ(arr->ListRemove(5), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Index[5] out of list[&&/redfish/v1/Systems/1/Items] size.\n"));
    // Clear retires the node but leaves its element in the store.
    EXPECT_EQ(arr->ListRemove(nodeB, true), RT_SUCCESS);
    EXPECT_TRUE(b->IsDied());
    EXPECT_EQ(arr->GetRedisChangeNum(), 0u);
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"), (Items{"\"x\"", nodeB}));
    std::vector<ZObject*> members;
    arr->GetMemberObjects(members);
    EXPECT_TRUE(members.empty());
    EXPECT_EQ(sys->ListRemove("\"x\"", false), RT_FAILURE);
}

TEST_F(ChangeQueueTest, WithoutAStoreTheQueueIsKeptAndDiscardDropsIt) {
    sys->HashWrite("Name", "kept");
    RedisServer::Instance().Stop();
    size_t mark = LogMark();
    EXPECT_EQ(sys->ApplyRedisChanges(), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Failed to call RedisConnect()\n."));
    EXPECT_EQ(sys->GetRedisChangeNum(), 1u);
    ASSERT_TRUE(RedisServer::Instance().Start());
    EXPECT_EQ(sys->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(HGetAll(kSys).at("Name"), "\"kept\"");

    auto* status = new ZJsonObject(sys, "Status");
    sys->HashWrite("Name", "dropped");
    status->HashWrite("State", "dropped");
    mark = LogMark();
    sys->DiscardRedisChanges(true);
    EXPECT_EQ(sys->GetRedisChangeNum() + status->GetRedisChangeNum(), 0u);
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll(kSys).at("Name"), "\"kept\"");
    EXPECT_FALSE(Exists("&&/redfish/v1/Systems/1/Status"));
    // Dropping a queued node write loses the node's bookkeeping: warned.
    EXPECT_FALSE(Logged(mark, "!! Should not call DiscardRedisChanges()"));
    sys->HashWrite("Status", status);
    sys->DiscardRedisChanges(false);
    EXPECT_TRUE(Logged(mark,
                       "!! Should not call DiscardRedisChanges() when the queue include any "
                       "unapplied ZObject change. This action might cause memory leek. !!\n"));
}

TEST_F(ChangeQueueTest, AQueueIdleForTenSecondsIsReportedAtTheNextWrite) {
    sys->HashWrite("A", 1);
    mApp->UpdateLastLoopProcTimetick();
    size_t mark = LogMark();
    sys->HashWrite("B", 2);
    EXPECT_FALSE(Logged(mark, "Cached data over 10 seconds."));
    std::this_thread::sleep_for(std::chrono::milliseconds(10500));
    mApp->UpdateLastLoopProcTimetick();
    sys->HashWrite("C", 3);
    EXPECT_TRUE(Logged(mark,
                       "Cached data over 10 seconds. It might forget to apply changes into "
                       "Redis? Obj[/redfish/v1/Systems/1]\n"));
    EXPECT_EQ(sys->GetRedisChangeNum(), 3u);  // nothing was flushed by the warning
}

TEST_F(ChangeQueueTest, RefusedWrites) {
    auto* gone = new ZJsonObject(sys, "Gone");
    ASSERT_TRUE(mApp->UseIfValid(gone));
    gone->ObjDestroy(ZObject::eDestroyDelete, true);
    int onStack = 0;
    sObjectChange change;
    change.action = static_cast<eObjChgAction>(9);
    size_t mark = LogMark();
    EXPECT_EQ(sys->HashWrite("Self", static_cast<ZObject*>(sys)), RT_FAILURE);
    EXPECT_EQ(sys->HashWrite("Odd", std::string("a\x01")), RT_SUCCESS);  // only logged
    EXPECT_EQ(gone->HashWrite("Late", 1), RT_FAILURE);
    EXPECT_EQ(sys->HashWrite("Gone", static_cast<ZObject*>(gone)), RT_FAILURE);
    EXPECT_FALSE(mApp->IsValidObj(reinterpret_cast<ZObject*>(&onStack)));
    EXPECT_EQ(sys->ApplyObjectChanges(&change), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, {"Add self object to self !!!\n",
                              "Object[/redfish/v1/Systems/1] write a non pure string to "
                              "property[Odd] !\n",
                              "is an invalid ZObject. It might be a corrupt memory address.\n",
                              "Unknown action[9]\n"}));
    EXPECT_EQ(gone->GetRedisChangeNum(), 0u);
    EXPECT_EQ(sys->GetRedisChangeNum(), 1u);  // only "Odd"
    gone->DecreaseUsingCount();
}

TEST_F(ChangeQueueTest, CompoundWritersNumArraysAllowableValuesAndActions) {
    const unsigned char bytes[] = {1, 2, 255};
    ASSERT_EQ(sys->HashWriteNumArray("Bytes", bytes, 3), RT_SUCCESS);
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Bytes"), (Items{"1", "2", "255"}));
    ASSERT_EQ(sys->HashWriteNumArray("Bytes", bytes + 2, 1), RT_SUCCESS);  // written at once
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Bytes"), (Items{"255"}));
    EXPECT_EQ(HGetAll(kSys).at("&&Array Bytes &&/redfish/v1/Systems/1/Bytes"), "");

    for (const char* value : {"On", "ForceOff", "On"}) {
        sys->HashAppendAllowableValues("ResetType", value);
        sys->ApplyRedisChanges();
    }
    const std::string allowed = "&&/redfish/v1/Systems/1/ResetType@Redfish.AllowableValues";
    EXPECT_EQ(LRange(allowed), (Items{"\"ForceOff\"", "\"On\""}));
    EXPECT_EQ(HGetAll(kSys).count("&&Array ResetType@Redfish.AllowableValues " + allowed), 1u);

    ZSchema schema("ComputerSystem", "v1_20_0");
    auto* actions = new ZJsonObject(sys, "Actions");
    sys->HashWrite("Actions", actions);
    const char kTarget[] = "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset";
    ASSERT_EQ(actions->HashAppendAction(&schema, "#ComputerSystem.Reset", kTarget, "Reset"),
              RT_SUCCESS);
    sys->ApplyRedisChanges();
    const std::string entry = "&&/redfish/v1/Systems/1/Actions/#ComputerSystem.Reset";
    EXPECT_EQ(HGetAll("&&/redfish/v1/Systems/1/Actions"),
              (Fields{{"&&Object #ComputerSystem.Reset " + entry, ""}}));
    Fields fields = {{"target", "\"/redfish/v1/Systems/1/Actions/ComputerSystem.Reset\""},
                     {"title", "\"Reset\""}};
    EXPECT_EQ(HGetAll(entry), fields);
    // With tasks the entry says so.
    schema.SetTaskFlag(ZSchema::CRUDQ_ACTION);
    actions->HashAppendAction(&schema, "#ComputerSystem.Reset", kTarget, "Reset");
    sys->ApplyRedisChanges();
    fields.insert({{"&&Async", "true"}, {"PercentComplete", "0"}, {"HidePayload", "false"}});
    EXPECT_EQ(HGetAll(entry), fields);
    size_t mark = LogMark();
    EXPECT_EQ(actions->HashAppendAction(&schema, "#X.Y", "/redfish/v1/Systems/1/X", "X"),
              RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Cannot find 'Actions/' in URI( /redfish/v1/Systems/1/X ).\n"));
}

}  // namespace
