// Resources and collections: default contents and channel lists, member
// management and counts, the request lock and the front end's lock key, the
// time-to-live table, private data and embedded resources.
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "ObjectModelFixture.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

class ResourceTest : public ObjectModelTest {};

TEST_F(ResourceTest, ANewResourceIsStoredCompleteWithItsChannels) {
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    schema.SetTaskFlag(ZSchema::CRUDQ_ACTION);
    schema.SetEtagEnabled(true);
    auto* sys = new ZResource(nullptr, &schema, "/redfish/v1/Systems/1", "",
                              ZResource::RES_ATTR_EnableChecklist);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1"),
              (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""},
                      {"@odata.type", "\"#ComputerSystem.v1_20_0.ComputerSystem\""},
                      {"@odata.etag", "\"\""},
                      {"@odata.context", "\"/redfish/v1/$metadata#ComputerSystem\""},
                      {"&&EnableChecklist", "true"},
                      {"&&Async", "true"},
                      {"&&Array GETQ &&/redfish/v1/Systems/1/GETQ", ""},
                      {"&&Array PATCHQ &&/redfish/v1/Systems/1/PATCHQ", ""}}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/GETQ"), (Items{"RF_Test:ComputerSystem:GETQ"}));
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/PATCHQ"), (Items{"RF_Test:ComputerSystem:PATCHQ"}));
    EXPECT_FALSE(Exists("&&/redfish/v1/Systems/1/DELETEQ"));
    EXPECT_EQ(schema.GetResource("/redfish/v1/Systems/1"), sys);
    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(schema.GetResourceNum(), 0u);
    EXPECT_FALSE(Exists("/redfish/v1/Systems/1") || Exists("&&/redfish/v1/Systems/1/GETQ"));

    // A schema without version, under a print name, serving nothing.
    ZSchema manager("Manager", "", 0);
    manager.SetOdataPrintName("ManagerX");
    new ZResource(nullptr, &manager, "/redfish/v1/Managers/1", "BMC");
    EXPECT_EQ(HGetAll("/redfish/v1/Managers/1"),
              (Fields{{"@odata.id", "\"/redfish/v1/Managers/1\""},
                      {"@odata.type", "\"#ManagerX.Manager\""},
                      {"@odata.context", "\"/redfish/v1/$metadata#ManagerX\""}}));
    EXPECT_NE(manager.GetResource("BMC"), nullptr);
}

TEST_F(ResourceTest, CollectionsKeepMembersTheirCountAndTheSmallestFreeId) {
    ZSchema collSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ);
    auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    const auto count = [] { return HGetAll("/redfish/v1/Systems").at("Members@odata.count"); };
    EXPECT_EQ(count(), "0");
    EXPECT_EQ(coll->GetFreeMemberId(), 1);
    std::map<int, ZResource*> made;
    // Member 1 has no schema, so no channel lists: it is deleted below while
    // alive, which leaves the nodes it owns unregistered by nobody.
    made[1] = new ZResource(coll, nullptr, "1");
    for (int id : {2, 4}) made[id] = new ZResource(coll, &schema, std::to_string(id));
    // Written with the members themselves, without an apply of the collection.
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members"),
              (Items{"&&ObjectRef /redfish/v1/Systems/1", "&&ObjectRef /redfish/v1/Systems/2",
                     "&&ObjectRef /redfish/v1/Systems/4"}));
    EXPECT_EQ(count(), "3");
    EXPECT_EQ(coll->GetFreeMemberId(), 3);
    EXPECT_EQ(coll->GetMemberObjIDs(), (Items{"1", "2", "4"}));
    made[3] = new ZResource(coll, &schema, "3");
    EXPECT_EQ(coll->GetFreeMemberId(), 5);

    // Members leaving in any order free their ids, and leave the list and
    // its count at once; the smallest free id comes first.
    made[4]->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(coll->GetFreeMemberId(), 4);
    made[2]->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(coll->GetFreeMemberId(), 2);
    EXPECT_EQ(count(), "2");
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members").size(), 2u);
    made[2] = new ZResource(coll, &schema, "2");
    EXPECT_EQ(coll->GetFreeMemberId(), 4);
    // A member deleted while alive (logged misuse) frees its id too.
    delete made[1];
    EXPECT_EQ(coll->GetFreeMemberId(), 1);
    new ZResource(coll, nullptr, "1");
    EXPECT_EQ(coll->GetFreeMemberId(), 4);
    coll->DeleteAllMemberResources();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members"), Items{});
    EXPECT_EQ(count(), "0");
    EXPECT_EQ(schema.GetResourceNum(), 0u);
    EXPECT_EQ(coll->GetFreeMemberId(), 1);
    // Members built while the store was away (or before it was emptied) are
    // not in the stored list, but their ids are taken all the same.
    for (const char* id : {"1", "2"}) new ZResource(coll, &schema, id);
    RawCommand({"DEL", "&&/redfish/v1/Systems/Members"});
    EXPECT_EQ(coll->GetFreeMemberId(), 3);
    coll->ObjDestroy(ZObject::eDestroyDelete, true);
}

TEST_F(ResourceTest, CreateMemberNeverGivesAnIdTwiceAcrossARestartAndRetiresARefusedNode) {
    ZSchema collSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ);
    auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    ASSERT_EQ(coll->KeepMemberIdsIn("SystemIds"), RT_SUCCESS);  // none kept yet
    new ZResource(coll, &schema, "1");  // built some other way: taken all the same
    EXPECT_EQ(coll->CreateMember(&schema)->GetJPath(), "/redfish/v1/Systems/2");
    coll->CreateMember(&schema)->ObjDestroy(ZObject::eDestroyDelete, true);  // 3 leaves
    EXPECT_EQ(coll->CreateMember(&schema)->GetId(), "4");
    // A factory that builds the member elsewhere: retired, nothing added.
    size_t mark = LogMark();
    EXPECT_EQ(coll->CreateMember([&](const std::string& id) {
        return new ZResource(nullptr, &schema, "/redfish/v1/Other/" + id);
    }), nullptr);
    EXPECT_TRUE(Logged(mark, "Collection[/redfish/v1/Systems]: member[/redfish/v1/Systems/5] "
                             "could not be added.\n"));
    EXPECT_EQ(coll->GetMemberCount(), 3u);
    // The plug-in restarts: the mark kept in the setting goes on.
    coll->ObjDestroy(ZObject::eDestroyDelete, true);
    coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    ASSERT_EQ(coll->KeepMemberIdsIn("SystemIds"), RT_SUCCESS);
    EXPECT_EQ(coll->CreateMember(&schema)->GetId(), "6");
    // A setting that cannot be written: no member, rather than an id that a
    // restart could give again.
    ASSERT_EQ(coll->KeepMemberIdsIn("Bad/Name"), RT_SUCCESS);
    EXPECT_EQ(coll->CreateMember(&schema), nullptr);
    EXPECT_EQ(coll->GetMemberCount(), 1u);
}

TEST_F(ResourceTest, TheCountIsWrittenOnlyWhenTheStoredLengthChanges) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    auto* tags = new ZJsonArray(sys, "Tags", ZJsonArray::ARRAY_ATTR_OdataCount);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("Tags@odata.count"), "0");
    for (const char* tag : {"a", "b", "c"}) tags->ListWrite(-1, tag);
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("Tags@odata.count"), "3");

    // Spoil the stored count: an apply that leaves the length alone must not
    // rewrite it.
    RawCommand({"HSET", "/redfish/v1/Systems/1", "Tags@odata.count", "99"});
    tags->ListWrite(0, "z");
    sys->ApplyRedisChanges();
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Tags"), (Items{"\"z\"", "\"b\"", "\"c\""}));
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("Tags@odata.count"), "99");
    tags->ListWrite(-1, "d");
    sys->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("Tags@odata.count"), "4");

    // Retiring the array drops its count fields from the parent.
    tags->_Destroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count("Tags@odata.count"), 0u);
}

TEST_F(ResourceTest, LockWaitsForTheFrontEndsKeyNestsForItsOwnerAndRefusesOthers) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    EXPECT_FALSE(sys->IsCorvelLockKeyExist());
    EXPECT_EQ(sys->CreateCorvelLockKey(nullptr, "/redfish/v1/Systems/1/Actions/X"),
              "&&ResourceLock:/redfish/v1/Systems/1");
    EXPECT_TRUE(sys->IsCorvelLockKeyExist());

    size_t mark = LogMark();
    EXPECT_EQ(sys->Lock(0), RT_BUSY);
    EXPECT_TRUE(Logged(mark, "Resource[/redfish/v1/Systems/1] is locked by Corvel-Orbel.\n"));
    EXPECT_EQ(sys->Lock(0, ZResource::LOCK_IGNORE_CORVEL_KEY), RT_SUCCESS);
    EXPECT_EQ(sys->Unlock(), RT_SUCCESS);

    // The front end takes its response and deletes the key: the waiting lock
    // goes through within its budget.
    std::thread frontEnd([]() {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        RawCommand({"DEL", "&&ResourceLock:/redfish/v1/Systems/1"});
    });
    EXPECT_EQ(sys->Lock(5000), RT_SUCCESS);
    frontEnd.join();
    EXPECT_EQ(sys->Unlock(), RT_SUCCESS);

    // Held by this thread: nested, refused to others.
    ZResource::eResStatus status;
    bool mine = false;
    ASSERT_EQ(sys->Lock(0), RT_SUCCESS);
    ASSERT_EQ(sys->Lock(0), RT_SUCCESS);
    sys->GetStatus(status, mine);
    EXPECT_TRUE(status == ZResource::eResBusy && mine);

    eRtCode otherLock = RT_SUCCESS;
    eRtCode otherUnlock = RT_SUCCESS;
    mark = LogMark();
    std::thread([&] {
        otherLock = sys->Lock(0);
        otherUnlock = sys->Unlock();
        sys->GetStatus(status, mine);
    }).join();
    EXPECT_TRUE(otherLock == RT_BUSY && otherUnlock == RT_FAILURE && !mine);
    EXPECT_TRUE(Logged(mark, {"try to lock resource[/redfish/v1/Systems/1] but failed due to is "
                              "locked by[",
                              "try to unlock resource[/redfish/v1/Systems/1] but is owned by "
                              "thread["}));
    // The owner lets go as often as it took the lock.
    EXPECT_EQ(sys->Unlock(), RT_SUCCESS);
    EXPECT_EQ(sys->LockOwner(), (unsigned long)pthread_self());
    EXPECT_EQ(sys->Unlock(), RT_SUCCESS);
    EXPECT_EQ(sys->Unlock(), RT_FAILURE);

    ASSERT_TRUE(mApp->UseIfValid(sys));
    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    sys->GetStatus(status, mine);
    EXPECT_EQ(status, ZResource::eResDied);
    EXPECT_EQ(sys->Lock(0), RT_FAILURE);
    sys->DecreaseUsingCount();
}

TEST_F(ResourceTest, TheTtlTableHoldsTheExpiryOfFreshContent) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    sys->SetTTL(30);
    EXPECT_EQ(sys->GetTTL(), 30);
    const long long now = static_cast<long long>(time(nullptr));
    ASSERT_EQ(sys->UpdateTtlTable(), RT_SUCCESS);
    const long long stored = std::stoll(HGetAll("&&TTL").at("/redfish/v1/Systems/1"));
    EXPECT_TRUE(stored >= now + 30 && stored <= now + 31) << stored - now;
    sys->SetTTL(0);
    ASSERT_EQ(sys->UpdateTtlTable(), RT_SUCCESS);
    EXPECT_EQ(HGetAll("&&TTL").count("/redfish/v1/Systems/1"), 0u);
    // Known to be gone: later reads without a time-to-live send nothing.
    const long before = ServerCalls("hdel");
    ASSERT_EQ(sys->UpdateTtlTable(), RT_SUCCESS);
    EXPECT_EQ(ServerCalls("hdel"), before);
    sys->SetTTL(5);
    sys->UpdateTtlTable();
    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(HGetAll("&&TTL").count("/redfish/v1/Systems/1"), 0u);
}

void CountRecycling(void* counter) {
    ++*static_cast<int*>(counter);
}

TEST_F(ResourceTest, PrivateDataIsRecycledOnceWithTheResource) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    int first = 0;
    int second = 0;
    ASSERT_EQ(sys->SetPrivateData(&first, CountRecycling), RT_SUCCESS);
    ASSERT_EQ(sys->SetPrivateData(&second, CountRecycling), RT_SUCCESS);
    EXPECT_EQ(first, 1);  // replaced data is recycled
    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(first + second, 2);
}

TEST_F(ResourceTest, EmbeddedResourcesAreAddressedByPosition) {
    auto* thermal = new ZResource(nullptr, nullptr, "/redfish/v1/Chassis/1/Thermal");
    auto* fans = new ZJsonArray(thermal, "Fans");
    auto* fan0 = new ZResource(fans, nullptr, "0");
    auto* fan1 = new ZResource(fans, nullptr, "1");
    EXPECT_EQ(fan0->GetJPath(), "/redfish/v1/Chassis/1/Thermal/Fans/0");
    fans->ListWrite(-1, static_cast<ZObject*>(fan0));
    fans->ListWrite(-1, static_cast<ZObject*>(fan1));
    EXPECT_EQ(fan0->GetOdataId(), "/redfish/v1/Chassis/1/Thermal#/Fans/0");
    EXPECT_EQ(fan1->GetOdataId(), "/redfish/v1/Chassis/1/Thermal#/Fans/1");
    thermal->HashWrite("Fans", fans);
    thermal->ApplyRedisChanges();

    // Removing the first moves the second up.
    fans->ListRemove(static_cast<ZObject*>(fan0));
    thermal->ApplyRedisChanges();
    EXPECT_EQ(fan1->GetOdataId(), "/redfish/v1/Chassis/1/Thermal#/Fans/0");
    EXPECT_EQ(HGetAll("/redfish/v1/Chassis/1/Thermal/Fans/1").at("@odata.id"),
              "\"/redfish/v1/Chassis/1/Thermal#/Fans/0\"");
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/Thermal/Fans"),
              (Items{"&&Object /redfish/v1/Chassis/1/Thermal/Fans/1"}));

    auto* oem = new ZJsonObject(thermal, "Oem");
    auto* misplaced = new ZResource(oem, nullptr, "Extra");
    size_t mark = LogMark();
    oem->HashWrite("Extra", misplaced);
    EXPECT_TRUE(
        Logged(mark, "The parent[&&/redfish/v1/Chassis/1/Thermal/Oem] of embedded resource["));
    EXPECT_EQ(misplaced->GetOdataId(), "/redfish/v1/Chassis/1/Thermal/Oem/Extra");
}

TEST_F(ResourceTest, MultiBackendResourcesShareTheirChannelListsAndHash) {
    ZSchema schema("Chassis", "v1_0_0", ZSchema::CRUDQ_READ);
    RawCommand({"RPUSH", "&&/redfish/v1/Chassis/1/GETQ", "RF_Other:Chassis:GETQ"});
    RawCommand({"HSET", "/redfish/v1/Chassis/1", "Foreign", "\"theirs\""});
    auto* shared =
        new ZResource(nullptr, &schema, "/redfish/v1/Chassis/1", "", ZObject::ATTR_MultiBackend);
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/GETQ"),
              (Items{"RF_Other:Chassis:GETQ", "RF_Test:Chassis:GETQ"}));
    EXPECT_EQ(HGetAll("/redfish/v1/Chassis/1").at("Foreign"), "\"theirs\"");
    shared->HashWrite("Mine", "ours");
    shared->ApplyRedisChanges();
    shared->ObjDestroy(ZObject::eDestroyDelete, true);
    // Only this backend's fields and channel went; the resource's own
    // "@odata." fields are every backend's.
    Fields left = HGetAll("/redfish/v1/Chassis/1");
    EXPECT_EQ(left.count("Mine"), 0u);
    EXPECT_EQ(left.at("Foreign"), "\"theirs\"");
    EXPECT_EQ(left.at("@odata.id"), "\"/redfish/v1/Chassis/1\"");
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/GETQ"), (Items{"RF_Other:Chassis:GETQ"}));

    // Our channel is already listed: it is not added twice.
    RawCommand({"RPUSH", "&&/redfish/v1/Chassis/1/GETQ", "RF_Test:Chassis:GETQ"});
    Recycle();
    auto* again =
        new ZResource(nullptr, &schema, "/redfish/v1/Chassis/1", "", ZObject::ATTR_MultiBackend);
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/GETQ"),
              (Items{"RF_Other:Chassis:GETQ", "RF_Test:Chassis:GETQ"}));
    again->ObjDestroy(ZObject::eDestroyDelete, false);
    Recycle();
    // The resource's owner (a plain resource) starting again replaces its
    // own stale channel, first, and keeps the other process's.
    new ZResource(nullptr, &schema, "/redfish/v1/Chassis/1");
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/GETQ"),
              (Items{"RF_Test:Chassis:GETQ", "RF_Other:Chassis:GETQ"}));
}

TEST_F(ResourceTest, AnArrayKeepsItsMembersInOrderAndOnlyARootObjectIsDestroyed) {
    auto* owner = new ZJsonObject(nullptr, "Owner");
    auto* array = new ZJsonArray(owner, "Items", 0);
    std::vector<ZObject*> items;
    for (int i = 0; i < 40; ++i) {
        items.push_back(new ZJsonObject(owner, "Item" + std::to_string(i)));
        ASSERT_EQ(array->ListWrite(-1, items.back(), true), RT_SUCCESS);
    }
    // Past the size from which the array indexes its members, an early and a
    // late member are both still known.
    size_t mark = LogMark();
    EXPECT_EQ(array->AddObjectItem(items[0]), RT_FAILURE);
    array->ListWrite(-1, items[39], true);
    auto* other = new ZJsonObject(nullptr, "Other");
    EXPECT_EQ(array->DelObjectItem(other), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, {"Add a duplicate object[", "to array[&&Owner/Items].\n",
                              "Object[Other] is not a member of collection[&&Owner/Items].\n"}));
    std::vector<ZObject*> members;
    array->GetMemberObjects(members);
    EXPECT_EQ(members, items);
    // A member removed can be added again, at the end.
    EXPECT_EQ(array->DelObjectItem(items[3]), RT_SUCCESS);
    EXPECT_EQ(array->GetIdxByObject(items[3]), -1);
    EXPECT_EQ(array->AddObjectItem(items[3]), RT_SUCCESS);
    EXPECT_EQ(array->GetIdxByObject(items[3]), 39);

    // Destroy is for a root object only; nested ones go with their property.
    mark = LogMark();
    EXPECT_EQ(static_cast<ZJsonObject*>(items[1])->Destroy(true), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Should use HashRemove() or ListRemove() to destroy this object.\n"));
    EXPECT_FALSE(items[1]->IsDied());
    owner->SetOdataType("Message", "v1_1_0.Message");
    owner->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("Owner").at("@odata.type"), "\"#Message.v1_1_0.Message\"");
    EXPECT_EQ(owner->Destroy(true), RT_SUCCESS);
    EXPECT_TRUE(owner->IsDied() && items[1]->IsDied());
    EXPECT_FALSE(Exists("Owner"));
}

TEST_F(ResourceTest, ACollectionWithoutAMemberSchemaOfItsOwnIsReported) {
    ZSchema none("SystemsNone", "", ZSchema::CRUDQ_READ);
    ZSchema self("Systems", "", ZSchema::CRUDQ_READ, "Systems");
    ZSchema fine("SystemsFine", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    size_t mark = LogMark();
    for (ZSchema* schema : {&none, &self, &fine}) {
        auto* coll = new ZResourceCollection(nullptr, schema, "/redfish/v1/" + schema->GetName());
        coll->ObjDestroy(ZObject::eDestroyDelete, true);
    }
    const std::string log = LogSince(mark);
    EXPECT_TRUE(Logged(mark, {"Collection[/redfish/v1/SystemsNone]: schema[SystemsNone] names no "
                              "member schema",
                              "Collection[/redfish/v1/Systems]: schema[Systems] names itself"}));
    EXPECT_EQ(CountOf(log, "[WARNING] ZResourceCollection.cpp"), 2u) << log;
}

}  // namespace
