// The tree node core and the object registry: JPaths, attributes, children,
// references and the three destroy modes, retirement and recycling, OIDs,
// lookups and object monitors.
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "ObjectModelFixture.h"
#include "Orbel_FlatTable.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

class ZObjectTest : public ObjectModelTest {};

TEST_F(ZObjectTest, JPathsFollowTheNestingRules) {
    auto* root = new ZResource(nullptr, nullptr, "/redfish/v1/");
    auto* systems = new ZResourceCollection(root, nullptr, "Systems");
    auto* sys = new ZResource(systems, nullptr, "1");
    auto* status = new ZJsonObject(sys, "Status");
    auto* oem = new ZJsonObject(status, "Oem");
    auto* embedded = new ZResource(oem, nullptr, "Port");
    ZObject* members = systems->GetChild("Members");
    ASSERT_NE(members, nullptr);
    // A member sits below the collection's Members array; a resource has a
    // plain URI wherever it hangs.
    EXPECT_EQ((Items{root->GetJPath(), systems->GetJPath(), sys->GetJPath(), status->GetJPath(),
                     oem->GetJPath(), embedded->GetJPath(), members->GetJPath()}),
              (Items{"/redfish/v1/", "/redfish/v1/Systems", "/redfish/v1/Systems/1",
                     "&&/redfish/v1/Systems/1/Status", "&&/redfish/v1/Systems/1/Status/Oem",
                     "/redfish/v1/Systems/1/Status/Oem/Port", "&&/redfish/v1/Systems/Members"}));
    EXPECT_TRUE(sys->GetParent() == members && members->GetChild(1) == sys);
    EXPECT_EQ(sys->GetName(), "/redfish/v1/Systems/1");  // no name: known by its URI
    EXPECT_EQ(ZObject::CombineJPath(sys, "Boot/Order"), "&&/redfish/v1/Systems/1/Boot/Order");
    EXPECT_EQ(ZObject::CombineJPath(root, "/Chassis"), "&&/redfish/v1/Chassis");
    EXPECT_EQ(sys->GetParentResource(), systems);
    EXPECT_EQ(mApp->GetResourceURI(status), "/redfish/v1/Systems/1");

    EXPECT_EQ(sys->GetChildByJPath("//Status///Oem/"), oem);
    for (const char* none : {"", "/", "Status/Missing"}) {
        EXPECT_EQ(sys->GetChildByJPath(none), nullptr) << none;
    }
    // A died child on the way ends the walk, quietly.
    mApp->UseIfValid(oem);
    oem->ObjDestroy(ZObject::eDestroyDelete, true);
    size_t mark = LogMark();
    EXPECT_EQ(sys->GetChildByJPath("Status/Oem"), nullptr);
    EXPECT_EQ(LogSince(mark), "");
    oem->DecreaseUsingCount();
}

TEST_F(ZObjectTest, AttributesAreInheritedExceptMultiBackendByResources) {
    auto* raw = new ZResource(nullptr, nullptr, "/redfish/v1/Raw", "", ZObject::ATTR_RawJson);
    EXPECT_EQ((new ZJsonObject(raw, "Status"))->GetAttribute(), ZObject::ATTR_RawJson);
    auto* multi =
        new ZResource(nullptr, nullptr, "/redfish/v1/Multi", "", ZObject::ATTR_MultiBackend);
    EXPECT_EQ((new ZJsonObject(multi, "Oem"))->GetAttribute(), ZObject::ATTR_MultiBackend);
    EXPECT_EQ((new ZResource(multi, nullptr, "Sub"))->GetAttribute(), 0u);

    // Both formats at once, or an empty id: logged, never initialised, but
    // still retirable.
    size_t mark = LogMark();
    auto* both = new ZResource(nullptr, nullptr, "/redfish/v1/Both", "Both", 3u);
    auto* anonymous = new ZJsonObject(nullptr, "");
    EXPECT_TRUE(Logged(mark, {"Object[Both] shouldn't have attributes of RawJson and MultiBackend "
                              "at the same time.",
                              "Object[] initial failed. The ID shoundn't be a empty string.\n"}));
    EXPECT_EQ(both->GetJPath() + anonymous->GetJPath(), "");
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Both"), nullptr);
    EXPECT_EQ(both->GetChild("x"), nullptr);
    both->ObjDestroy(ZObject::eDestroyDelete, true);
    anonymous->ObjDestroy(ZObject::eDestroyDelete, true);
    Recycle();
    EXPECT_EQ(mApp->RecycledListSize(), 0u);
}

TEST_F(ZObjectTest, DuplicateChildrenJPathsAndResourceNamesAreRefused) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    auto* first = new ZJsonObject(sys, "Status");
    first->HashWrite("State", "Enabled");
    first->ApplyRedisChanges();
    size_t mark = LogMark();
    auto* second = new ZJsonObject(sys, "Status");
    EXPECT_EQ(sys->AppendChildObj(new ZJsonObject(nullptr, "Status")), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, {"Failed to append object[&&/redfish/v1/Systems/1/Status] to list due "
                              "to the JPath is duplicated!\n",
                              "Try to overwrite an existing child object[Status].\n"}));
    EXPECT_EQ(second->GetJPath(), "");
    // The refused node's store key belongs to the first: left alone, even
    // when the refused one is retired with its store data.
    second->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(HGetAll("&&/redfish/v1/Systems/1/Status").at("State"), "\"Enabled\"");
    EXPECT_TRUE(mApp->GetObject("&&/redfish/v1/Systems/1/Status") == first &&
                sys->GetChild("Status") == first);

    ZSchema schema("Chassis", "v1_0_0");
    auto* a = new ZResource(nullptr, &schema, "/redfish/v1/Chassis/1", "Board");
    mark = LogMark();
    auto* b = new ZResource(nullptr, &schema, "/redfish/v1/Chassis/2", "Board");
    EXPECT_TRUE(Logged(mark, {"Failed to append ZResourceObj[Board] to list due to the "
                              "ResourceName is duplicated!\n",
                              "Failed to add Resource to schema[Chassis] due to the name[Board] is "
                              "not unique!\n"}));
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Chassis/2"), b);  // listed by JPath only
    b->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_TRUE(mApp->GetResource("Board") == a && schema.GetResource("Board") == a);
    a->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_TRUE(mApp->GetResource("Board") == nullptr && schema.GetResourceNum() == 0u);
}

// A system that links a manager and owns a Status that a chassis links; the
// chassis also lists the manager: the fixture of the destroy-mode tests.
struct LinkedTree {
    ZResource* manager = new ZResource(nullptr, nullptr, "/redfish/v1/Managers/1");
    ZResource* system = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    ZJsonObject* status = new ZJsonObject(system, "Status");
    ZResource* chassis = new ZResource(nullptr, nullptr, "/redfish/v1/Chassis/1");
    ZJsonArray* list = new ZJsonArray(chassis, "ManagedBy");

    LinkedTree() {
        status->HashWrite("Health", "OK");
        system->HashWrite("Status", status);
        system->HashWrite("Manager", manager, true);
        chassis->HashWrite("StatusRef", status, true);
        list->ListWrite(-1, "first");
        list->ListWrite(-1, static_cast<ZObject*>(manager), true);
        list->ListWrite(-1, "last");
        chassis->HashWrite("ManagedBy", list);
        ApplyAll();
    }
    void ApplyAll() {
        system->ApplyRedisChanges();
        chassis->ApplyRedisChanges();
    }
};
const char kManagerLink[] = "&&ObjectRef Manager /redfish/v1/Managers/1";
const char kStatusField[] = "&&Object Status &&/redfish/v1/Systems/1/Status";
const char kStatusLink[] = "&&ObjectRef StatusRef &&/redfish/v1/Systems/1/Status";

TEST_F(ZObjectTest, ReferencesAreRecordedBothWaysAndDeleteOrUnlinkRemoveThem) {
    LinkedTree t;
    EXPECT_EQ(t.manager->GetMetaKeyInReferencedBy(t.list), "&&ObjectRef /redfish/v1/Managers/1");
    EXPECT_EQ(t.status->GetMetaKeyInReferencedBy(t.system), kStatusField);
    EXPECT_EQ(t.manager->GetMetaKeyInReferencedBy(t.chassis), "");

    // Delete takes every referring property, unlink only the links; both
    // are queued on the referrers and written with their next apply.
    t.manager->ObjDestroy(ZObject::eDestroyDelete, true);
    t.status->ObjDestroy(ZObject::eDestroyUnlink, true);
    EXPECT_FALSE(Exists("/redfish/v1/Managers/1") || Exists("&&/redfish/v1/Systems/1/Status"));
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count(kManagerLink), 1u);
    t.ApplyAll();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1"),
              (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""}, {kStatusField, ""}}));
    EXPECT_EQ(HGetAll("/redfish/v1/Chassis/1").count(kStatusLink), 0u);
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/ManagedBy"), (Items{"\"first\"", "\"last\""}));
    std::vector<ZObject*> members;
    t.list->GetMemberObjects(members);
    EXPECT_TRUE(members.empty() && t.system->GetChild("Status", true) == nullptr);
}

TEST_F(ZObjectTest, RelinkRewritesTheStoredLinksAtOnceAndAnUnknownModeLeavesThem) {
    LinkedTree t;
    // Spoil a stored link: the relink must write it back without an apply.
    RawCommand({"HDEL", "/redfish/v1/Systems/1", kManagerLink});
    t.manager->ObjDestroy(ZObject::eDestroyRelink, false);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at(kManagerLink), "");
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/ManagedBy"),
              (Items{"\"first\"", "\"last\"", "&&ObjectRef /redfish/v1/Managers/1"}));
    size_t mark = LogMark();
    t.status->ObjDestroy(static_cast<ZObject::eDestroyMode>(7), true);
    EXPECT_TRUE(Logged(mark, "Unknown destroyMode[7].\n"));
    EXPECT_EQ(t.system->GetRedisChangeNum() + t.chassis->GetRedisChangeNum(), 0u);
    EXPECT_EQ(HGetAll("/redfish/v1/Chassis/1").count(kStatusLink), 1u);
}

TEST_F(ZObjectTest, RetirementIsOnceAndTheRecyclerWaitsForUsers) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    auto* status = new ZJsonObject(sys, "Status");
    status->HashWrite("State", "Enabled");
    sys->HashWrite("Status", status);
    sys->ApplyRedisChanges();
    sys->HashWrite("Pending", 1);        // thrown away by the retirement
    ASSERT_TRUE(mApp->UseIfValid(sys));  // a thread still works on it
    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    sys->ObjDestroy(ZObject::eDestroyDelete, true);  // harmless
    EXPECT_TRUE(sys->IsDied() && status->IsDied());
    EXPECT_EQ(sys->GetRedisChangeNum(), 0u);
    EXPECT_FALSE(Exists("/redfish/v1/Systems/1") || Exists("&&/redfish/v1/Systems/1/Status"));
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Systems/1"), nullptr);
    EXPECT_EQ(mApp->RecycledListSize(), 2u);
    Recycle();
    EXPECT_TRUE(mApp->RecycledListSize() == 1u && mApp->IsValidObj(sys));  // the held one stays
    sys->DecreaseUsingCount();
    Recycle();
    EXPECT_TRUE(mApp->RecycledListSize() == 0u && !mApp->IsValidObj(sys));

    // A using count below zero is reported, and the node freed all the same.
    auto* loose = new ZJsonObject(nullptr, "Loose");
    loose->ObjDestroy(ZObject::eDestroyDelete, true);
    // Lists are made on first use, but a retired node makes none again: it
    // takes no child and no link.
    auto* late = new ZJsonObject(nullptr, "Late");
    size_t refused = LogMark();
    EXPECT_EQ(loose->AppendChildObj(late), RT_FAILURE);
    loose->AppendReferencedBy(late, "&&ObjectRef Late Loose");
    EXPECT_EQ(loose->GetMetaKeyInReferencedBy(late), "");
    EXPECT_TRUE(Logged(refused, "Obj[Loose] try to append child[Late] but ChildList is NULL\n"));
    late->Destroy(false);
    loose->DecreaseUsingCount();
    size_t mark = LogMark();
    Recycle();
    EXPECT_TRUE(Logged(mark, "Obj[Loose] using count[-1] shouldn't < 0!\n"));
    EXPECT_EQ(mApp->RecycledListSize(), 0u);
}

TEST_F(ZObjectTest, DeletingALiveNodeWarnsAndUnregistersIt) {
    auto* parent = new ZJsonObject(nullptr, "Parent");
    auto* child = new ZJsonObject(parent, "Child");
    size_t mark = LogMark();
    delete child;
    EXPECT_TRUE(Logged(mark,
                       "! WARNING ! : Shall call ObjDestroy() function to delete this "
                       "ZObject[&&Parent/Child]."));
    EXPECT_TRUE(parent->GetChildNum() == 0u && mApp->GetObject("&&Parent/Child") == nullptr);
    ZSchema schema("Manager", "");
    delete new ZResource(nullptr, &schema, "/redfish/v1/Managers/1");
    EXPECT_EQ(schema.GetResourceNum(), 0u);

    auto* a = new ZJsonObject(parent, "A");
    auto* b = new ZJsonArray(parent, "B");
    parent->DeleteAllChildObjs();
    EXPECT_TRUE(a->IsDied() && b->IsDied() && parent->GetChildNum() == 0u);
}

TEST_F(ZObjectTest, ChildrenAreFoundByIdInIdOrderWhateverTheOrderTheyCameIn) {
    auto* parent = new ZJsonObject(nullptr, "Kids");
    const std::vector<std::string> ids = {"m", "b", "z", "a", "10", "9", "ab", "1", "y", "c"};
    std::map<std::string, ZObject*> made;
    for (const std::string& id : ids) made[id] = new ZJsonObject(parent, id);
    std::vector<std::string> sorted;
    for (const auto& entry : made) sorted.push_back(entry.first);
    EXPECT_EQ(parent->GetChildIDs(), sorted);
    for (const auto& [id, node] : made) EXPECT_EQ(parent->GetChild(id, true), node) << id;
    EXPECT_EQ(parent->GetChild("aa", true), nullptr);
    // Retired children leave; the others are still found.
    made["b"]->ObjDestroy(ZObject::eDestroyDelete, true);
    made["z"]->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(parent->GetChildIDs(),
              (std::vector<std::string>{"1", "10", "9", "a", "ab", "c", "m", "y"}));
    EXPECT_TRUE(parent->GetChild("b", true) == nullptr && parent->GetChild("y", true) == made["y"]);
}

TEST_F(ZObjectTest, OIDsSkipTakenNumbersAndNeverGiveTheInvalidOne) {
    mApp->SetNextOIDCandidate(1000);
    EXPECT_EQ((new ZJsonObject(nullptr, "First"))->GetOID(), 1000u);
    mApp->SetNextOIDCandidate(1000);
    EXPECT_EQ((new ZJsonObject(nullptr, "Next"))->GetOID(), 1001u);  // 1000 is taken
    // The number that means "none" is never handed out.
    mApp->SetNextOIDCandidate(0xFFFFFFFEu);
    EXPECT_EQ((new ZJsonObject(nullptr, "Last"))->GetOID(), 0xFFFFFFFEu);
    EXPECT_EQ((new ZJsonObject(nullptr, "Wrapped"))->GetOID(), 0u);
}

struct WideKeys {
    using Key = uint64_t;
    static constexpr Key kEmpty = ~Key(0);
    static constexpr Key kErased = ~Key(0) - 1;
    static size_t Hash(Key k) { return Orbel::FlatTableMix(k); }
};

// The registries' table against the standard one: keys that collide in the
// low bits, entries erased and entered again (their slots reused), growth
// past several sizes.
TEST(FlatTableTest, AgreesWithAStandardMapThroughEraseAndGrowth) {
    Orbel::FlatTable<WideKeys, int> table;
    std::unordered_map<uint64_t, int> expected;
    std::mt19937 random(7);
    for (int step = 0; step < 20000; ++step) {
        const uint64_t key = (random() % 600) << 12;  // the low bits all alike
        switch (random() % 3) {
            case 0:
            case 1:
                table.Put(key, step);
                expected[key] = step;
                break;
            default:
                EXPECT_EQ(table.Erase(key), expected.erase(key) == 1) << step;
                break;
        }
        if (step % 997 == 0) {
            for (uint64_t k = 0; k < 600; ++k) {
                const int* found = table.Find(k << 12);
                auto it = expected.find(k << 12);
                ASSERT_EQ(found != nullptr, it != expected.end()) << step << " " << k;
                if (found != nullptr) {
                    EXPECT_EQ(*found, it->second);
                }
            }
        }
    }
    EXPECT_EQ(table.Size(), expected.size());
}

TEST_F(ZObjectTest, LookupsRetryTheTrailingSlashAndListOrphans) {
    auto* root = new ZResource(nullptr, nullptr, "/redfish/v1/");
    auto* systems = new ZResourceCollection(root, nullptr, "Systems", "AllSystems");
    auto* response = new ZJsonObject(nullptr, "ResponseData");
    EXPECT_TRUE(mApp->GetObject("/redfish/v1") == root &&
                mApp->GetObject("/redfish/v1/Systems/") == systems);
    EXPECT_TRUE(mApp->GetResource("AllSystems") == systems &&
                mApp->GetResource(systems->GetChild("Members")) == systems);
    EXPECT_EQ(mApp->GetObjectList(), (Items{"&&/redfish/v1/Systems/Members", "/redfish/v1/",
                                            "/redfish/v1/Systems", "ResponseData"}));
    EXPECT_EQ(mApp->GetOrphanObjsList(), (Items{"ResponseData"}));
    response->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_TRUE(mApp->GetOrphanObjsList().empty());
}

void RecordMonitor(ZObject* obj, void* seen) {
    static_cast<Items*>(seen)->push_back(obj->GetJPath());
}

TEST_F(ZObjectTest, MonitorsCallBackOncePerNewObjectAndGoWithIt) {
    Items byJPath;
    Items byPattern;
    ASSERT_EQ(mApp->RegisterMonitorObject("/redfish/v1/Systems/1", RecordMonitor, &byJPath),
              RT_SUCCESS);
    ASSERT_EQ(mApp->RegisterMonitorObjectWithRegExp("/redfish/v1/Systems/[0-9]+", RecordMonitor,
                                                    &byPattern),
              RT_SUCCESS);
    auto* systems = new ZResourceCollection(nullptr, nullptr, "/redfish/v1/Systems");
    auto* one = new ZResource(systems, nullptr, "1");
    new ZResource(systems, nullptr, "2");
    mApp->ObjMonitorScan();
    mApp->ObjMonitorScan();
    // The JPath monitor goes with its object; a member made again under the
    // same URI is a new object for the pattern.
    one->ObjDestroy(ZObject::eDestroyDelete, true);
    mApp->ObjMonitorScan();
    new ZResource(systems, nullptr, "1");
    mApp->ObjMonitorScan();
    EXPECT_EQ(byJPath, (Items{"/redfish/v1/Systems/1"}));
    EXPECT_EQ(byPattern,
              (Items{"/redfish/v1/Systems/1", "/redfish/v1/Systems/2", "/redfish/v1/Systems/1"}));
}

// The application's own log service appends the registry's part of the
// runtime summary to its log when the message cache is dumped.
class RuntimeSummaryTest : public StoreTest {};

TEST_F(RuntimeSummaryTest, ListsObjectsBusyResourcesAndOrphans) {
    ZApplication app("RF_Summary");
    auto* schema = new ZSchema("ComputerSystem", "v1_20_0");
    ASSERT_EQ(schema->Init(), RT_SUCCESS);
    auto* sys = new ZResource(nullptr, schema, "/redfish/v1/Systems/1");
    new ZJsonObject(nullptr, "ResponseData");  // 1 resource, its GETQ list, 1 orphan
    ASSERT_EQ(sys->Lock(0), RT_SUCCESS);
    zLogPrint->DumpMsgCache2File();
    sys->Unlock();
    const std::string text = ReadFile(zLogPrint->LogFilePath());
    const size_t at = text.find(
        "   ZObject Num = 3   Waiting Recycled Object Num = 0\n"
        "Dump all resources that are in the BUSY state ====>\n");
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_NE(text.find(") : [/redfish/v1/Systems/1] owner[", at), std::string::npos) << text;
    EXPECT_NE(text.find("\n\nDump orphan objects ====>\n  ResponseData\n", at), std::string::npos);
}

}  // namespace
