// The change queue: value texts and field forms byte for byte, list writes,
// removal, apply, discard, compound writers, refusals and the warning about a
// queue left unapplied.
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ObjectModelFixture.h"
#include "Orbel.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZSchema.h"

using namespace Orbel;
using OrbelTest::HGetAll;
using OrbelTest::LogMark;
using OrbelTest::LRange;
using Fields = std::map<std::string, std::string>;
using Items = std::vector<std::string>;

namespace {

class ChangeQueueTest : public OrbelTest::ObjectModelTest {
  protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    }
    ZResource* sys = nullptr;
};

TEST_F(ChangeQueueTest, ScalarValueTexts) {
    sys->HashWrite("Null");
    sys->HashWrite("True", true);
    sys->HashWrite("False", false);
    sys->HashWrite("Negative", -42);
    sys->HashWrite("Long", static_cast<long>(7));
    sys->HashWrite("Max", 18446744073709551615ULL);
    sys->HashWrite("Unsigned", 5u);
    sys->HashWrite("Half", 1.5);
    sys->HashWrite("Quarter", 0.25f);
    sys->HashWrite("Name", "abc  ");
    sys->HashWrite("Text", std::string("x y"));
    sys->HashWriteRawString("Raw", "{\"a\":[1,2]}");
    EXPECT_EQ(sys->GetRedisChangeNum(), 12u);
    // Nothing reaches the store before the apply.
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count("Name"), 0u);

    ASSERT_EQ(sys->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(sys->GetRedisChangeNum(), 0u);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1"), (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""},
                                                        {"Null", "null"},
                                                        {"True", "true"},
                                                        {"False", "false"},
                                                        {"Negative", "-42"},
                                                        {"Long", "7"},
                                                        {"Max", "18446744073709551615"},
                                                        {"Unsigned", "5"},
                                                        {"Half", "1.500000"},
                                                        {"Quarter", "0.250000"},
                                                        {"Name", "\"abc\""},
                                                        {"Text", "\"x y\""},
                                                        {"Raw", "{\"a\":[1,2]}"}}));
}

TEST_F(ChangeQueueTest, NodeValuesAreCompositeFieldsWithEmptyValues) {
    auto* manager = new ZResource(nullptr, nullptr, "/redfish/v1/Managers/1");
    auto* status = new ZJsonObject(sys, "Status");
    status->HashWrite("State", "Enabled");
    status->HashWrite("Health", "OK");
    auto* boot = new ZJsonArray(sys, "BootOrder");
    boot->ListWrite(-1, "Pxe");
    boot->ListWrite(-1, "Hdd");
    sys->HashWrite("Status", status);
    sys->HashWrite("BootOrder", boot);
    sys->HashWrite("Manager", manager, true);
    sys->HashWrite("Chassis", "/redfish/v1/Chassis/1", true);
    ASSERT_EQ(sys->ApplyRedisChanges(), RT_SUCCESS);

    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1"),
              (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""},
                      {"&&Object Status &&/redfish/v1/Systems/1/Status", ""},
                      {"&&Array BootOrder &&/redfish/v1/Systems/1/BootOrder", ""},
                      {"&&ObjectRef Manager /redfish/v1/Managers/1", ""},
                      {"&&ObjectRef Chassis /redfish/v1/Chassis/1", ""}}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/BootOrder"), (Items{"\"Pxe\"", "\"Hdd\""}));
    EXPECT_EQ(Doc("/redfish/v1/Systems/1"),
              "{\"@odata.id\":\"/redfish/v1/Systems/1\",\"BootOrder\":[\"Pxe\",\"Hdd\"],"
              "\"Chassis\":{\"@odata.id\":\"/redfish/v1/Chassis/1\"},"
              "\"Manager\":{\"@odata.id\":\"/redfish/v1/Managers/1\"},"
              "\"Status\":{\"Health\":\"OK\",\"State\":\"Enabled\"}}");
    EXPECT_EQ(manager->GetMetaKeyInReferencedBy(sys), "&&ObjectRef Manager /redfish/v1/Managers/1");
}

TEST_F(ChangeQueueTest, ListWritesAppendOverwriteAndHoldNodeTexts) {
    auto* arr = new ZJsonArray(sys, "Values");
    auto* item = new ZJsonObject(arr, "0");
    item->HashWrite("Id", 0);
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

    size_t mark = LogMark();
    EXPECT_EQ(sys->ListWrite(-1, 5), RT_FAILURE);
    EXPECT_TRUE(
        Logged(mark, "Object[/redfish/v1/Systems/1] type[2] is not JsonArray. itemIdx[-1]\n"));
    mark = LogMark();
    EXPECT_EQ(arr->HashWrite("Name", "x"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark,
                       "Object[&&/redfish/v1/Systems/1/Values] type[1] is not Resource, "
                       "ResourceCollection or JsonObject. pptName[Name]\n"));
    EXPECT_EQ(arr->GetRedisChangeNum(), 0u);
    EXPECT_EQ(sys->GetRedisChangeNum(), 0u);
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
    EXPECT_FALSE(OrbelTest::Exists("&&/redfish/v1/Systems/1/Status"));
    // A link goes without its target.
    EXPECT_EQ(sys->HashRemove("Manager"), RT_SUCCESS);
    EXPECT_FALSE(manager->IsDied());
    EXPECT_EQ(manager->GetMetaKeyInReferencedBy(sys), "");
    // A link written as text is found in the store.
    EXPECT_EQ(sys->HashRemoveLink("Chassis"), RT_SUCCESS);
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1"),
              (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""}}));

    sys->HashWrite("Manager", manager, true);
    sys->ApplyRedisChanges();
    EXPECT_EQ(sys->HashRemoveLink("Manager", manager), RT_SUCCESS);
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").size(), 1u);
    size_t mark = LogMark();
    EXPECT_EQ(sys->HashRemoveLink("Manager"), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "doesn't have a link property[Manager]"));
    mark = LogMark();
    sys->HashRemove("&&Object Gone &&/redfish/v1/Systems/1/Gone");
    EXPECT_TRUE(Logged(mark,
                       "Obj[/redfish/v1/Systems/1] wants to remove a "
                       "sub-Obj[&&Object Gone &&/redfish/v1/Systems/1/Gone] but not found!\n"));
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

    // A plain text removes its first occurrence only.
    EXPECT_EQ(arr->ListRemove("\"x\"", false), RT_SUCCESS);
    arr->ApplyRedisChanges();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"),
              (Items{"&&Object &&/redfish/v1/Systems/1/Items/a", "\"x\"",
                     "&&Object &&/redfish/v1/Systems/1/Items/b", "\"y\""}));
    // By position (read from the store) and by node.
    EXPECT_EQ(arr->ListRemove(3), RT_SUCCESS);
    EXPECT_EQ(arr->ListRemove(static_cast<ZObject*>(a)), RT_SUCCESS);
    EXPECT_TRUE(a->IsDied());
    arr->ApplyRedisChanges();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"),
              (Items{"\"x\"", "&&Object &&/redfish/v1/Systems/1/Items/b"}));
    size_t mark = LogMark();
    EXPECT_EQ(arr->ListRemove(5), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Index[5] out of list[&&/redfish/v1/Systems/1/Items] size.\n"));

    // Clear retires the node but leaves its element in the store.
    EXPECT_EQ(arr->ListRemove("&&Object &&/redfish/v1/Systems/1/Items/b", true), RT_SUCCESS);
    EXPECT_TRUE(b->IsDied());
    EXPECT_EQ(arr->GetRedisChangeNum(), 0u);
    arr->ApplyRedisChanges();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Items"),
              (Items{"\"x\"", "&&Object &&/redfish/v1/Systems/1/Items/b"}));
    std::vector<ZObject*> members;
    arr->GetMemberObjects(members);
    EXPECT_TRUE(members.empty());
    EXPECT_EQ(sys->ListRemove("\"x\"", false), RT_FAILURE);
}

TEST_F(ChangeQueueTest, WithoutAStoreTheQueueIsKeptForTheNextApply) {
    sys->HashWrite("Name", "kept");
    OrbelTest::RedisServer::Instance().Stop();
    size_t mark = LogMark();
    EXPECT_EQ(sys->ApplyRedisChanges(), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Failed to call RedisConnect()\n."));
    EXPECT_EQ(sys->GetRedisChangeNum(), 1u);
    ASSERT_TRUE(OrbelTest::RedisServer::Instance().Start());
    EXPECT_EQ(sys->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("Name"), "\"kept\"");
}

TEST_F(ChangeQueueTest, DiscardDropsTheQueueAndWarnsAboutNodes) {
    auto* status = new ZJsonObject(sys, "Status");
    sys->HashWrite("Name", "dropped");
    status->HashWrite("State", "dropped");
    size_t mark = LogMark();
    sys->DiscardRedisChanges(true);
    EXPECT_FALSE(Logged(mark, "!! Should not call DiscardRedisChanges()"));
    EXPECT_EQ(sys->GetRedisChangeNum(), 0u);
    EXPECT_EQ(status->GetRedisChangeNum(), 0u);
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count("Name"), 0u);
    EXPECT_FALSE(OrbelTest::Exists("&&/redfish/v1/Systems/1/Status"));

    sys->HashWrite("Status", status);
    mark = LogMark();
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
    mark = LogMark();
    sys->HashWrite("C", 3);
    EXPECT_TRUE(Logged(mark,
                       "Cached data over 10 seconds. It might forget to apply changes into "
                       "Redis? Obj[/redfish/v1/Systems/1]\n"));
    // Nothing was flushed by the warning.
    EXPECT_EQ(sys->GetRedisChangeNum(), 3u);
}

TEST_F(ChangeQueueTest, RefusedWrites) {
    size_t mark = LogMark();
    EXPECT_EQ(sys->HashWrite("Self", static_cast<ZObject*>(sys)), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Add self object to self !!!\n"));

    mark = LogMark();
    EXPECT_EQ(sys->HashWrite("Odd", std::string("a\x01")), RT_SUCCESS);
    EXPECT_TRUE(Logged(mark,
                       "Object[/redfish/v1/Systems/1] write a non pure string to "
                       "property[Odd] !\n"));

    auto* gone = new ZJsonObject(sys, "Gone");
    ASSERT_TRUE(mApp->UseIfValid(gone));
    gone->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(gone->HashWrite("Late", 1), RT_FAILURE);
    EXPECT_EQ(sys->HashWrite("Gone", static_cast<ZObject*>(gone)), RT_FAILURE);
    EXPECT_EQ(gone->GetRedisChangeNum(), 0u);
    gone->DecreaseUsingCount();

    int onStack = 0;
    mark = LogMark();
    EXPECT_FALSE(mApp->IsValidObj(reinterpret_cast<ZObject*>(&onStack)));
    EXPECT_TRUE(Logged(mark, "is an invalid ZObject. It might be a corrupt memory address.\n"));

    sObjectChange change;
    change.action = static_cast<eObjChgAction>(9);
    mark = LogMark();
    EXPECT_EQ(sys->ApplyObjectChanges(&change), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Unknown action[9]\n"));
    EXPECT_EQ(sys->GetRedisChangeNum(), 1u);  // only "Odd"
}

TEST_F(ChangeQueueTest, NumArraysAreWrittenAtOnce) {
    const unsigned char bytes[] = {1, 2, 255};
    ASSERT_EQ(sys->HashWriteNumArray("Bytes", bytes, 3), RT_SUCCESS);
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Bytes"), (Items{"1", "2", "255"}));
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("&&Array Bytes &&/redfish/v1/Systems/1/Bytes"),
              "");
    const unsigned char fewer[] = {7};
    ASSERT_EQ(sys->HashWriteNumArray("Bytes", fewer, 1), RT_SUCCESS);
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Bytes"), (Items{"7"}));
    EXPECT_EQ(sys->GetRedisChangeNum(), 0u);
}

TEST_F(ChangeQueueTest, AllowableValuesHoldEachValueOnce) {
    sys->HashAppendAllowableValues("ResetType", "On");
    sys->HashAppendAllowableValues("ResetType", "ForceOff");
    sys->ApplyRedisChanges();
    sys->HashAppendAllowableValues("ResetType", "On");
    sys->ApplyRedisChanges();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/ResetType@Redfish.AllowableValues"),
              (Items{"\"ForceOff\"", "\"On\""}));
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1")
                  .count("&&Array ResetType@Redfish.AllowableValues "
                         "&&/redfish/v1/Systems/1/ResetType@Redfish.AllowableValues"),
              1u);
}

TEST_F(ChangeQueueTest, ActionEntriesWithAndWithoutTasks) {
    ZSchema schema("ComputerSystem", "v1_20_0");
    auto* actions = new ZJsonObject(sys, "Actions");
    sys->HashWrite("Actions", actions);
    ASSERT_EQ(
        actions->HashAppendAction(&schema, "#ComputerSystem.Reset",
                                  "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "Reset"),
        RT_SUCCESS);
    sys->ApplyRedisChanges();
    const std::string entry = "&&/redfish/v1/Systems/1/Actions/#ComputerSystem.Reset";
    EXPECT_EQ(HGetAll("&&/redfish/v1/Systems/1/Actions"),
              (Fields{{"&&Object #ComputerSystem.Reset " + entry, ""}}));
    EXPECT_EQ(HGetAll(entry),
              (Fields{{"target", "\"/redfish/v1/Systems/1/Actions/ComputerSystem.Reset\""},
                      {"title", "\"Reset\""}}));

    schema.SetTaskFlag(ZSchema::CRUDQ_ACTION);
    size_t mark = LogMark();
    actions->HashAppendAction(&schema, "#ComputerSystem.Reset",
                              "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "Reset");
    EXPECT_TRUE(Logged(mark, "#ComputerSystem.Reset supports Task\n"));
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll(entry),
              (Fields{{"target", "\"/redfish/v1/Systems/1/Actions/ComputerSystem.Reset\""},
                      {"title", "\"Reset\""},
                      {"&&Async", "true"},
                      {"PercentComplete", "0"},
                      {"HidePayload", "false"}}));

    mark = LogMark();
    EXPECT_EQ(actions->HashAppendAction(&schema, "#X.Y", "/redfish/v1/Systems/1/X", "X"),
              RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Cannot find 'Actions/' in URI( /redfish/v1/Systems/1/X ).\n"));
    mark = LogMark();
    EXPECT_EQ(sys->HashAppendAction(&schema, "#X.Y", "/redfish/v1/Systems/1/Actions/X", "X"),
              RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Only json object support this function.\n"));
}

TEST_F(ChangeQueueTest, DumpsListTheQueueAndTheChange) {
    sys->HashWrite("Name", "n");
    size_t mark = LogMark();
    sys->DumpRedisChanges(false);
    EXPECT_TRUE(
        Logged(mark, "Dump all redisCmds in queue. Object[/redfish/v1/Systems/1] ====> \n"));
    EXPECT_TRUE(Logged(mark, "    Act[Update] Key[Name] Value[\"n\"]\n"));

    sObjectChange change;
    change.action = eObjChgUpdate;
    change.key = "Count";
    change.dataKind = eObjDataSigned;
    change.scalar.s = -3;
    mark = LogMark();
    sys->DumpObjectChange(&change);
    EXPECT_TRUE(Logged(mark, "Dump object change. Object[/redfish/v1/Systems/1] ====> \n"));
    EXPECT_TRUE(Logged(mark, "    Act[Update] DataType[Int64] Key[Count] isLink[0] Value[-3]\n"));
}

}  // namespace
