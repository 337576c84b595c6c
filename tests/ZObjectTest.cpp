// The tree node core and the object registry: JPaths, attributes, children,
// references and the three destroy modes, retirement and recycling, OIDs,
// lookups and object monitors.
#include <string>
#include <vector>

#include "ObjectModelFixture.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

using namespace Orbel;
using OrbelTest::HGetAll;
using OrbelTest::LogMark;
using OrbelTest::LRange;

namespace {

class ZObjectTest : public OrbelTest::ObjectModelTest {};

TEST_F(ZObjectTest, JPathsFollowTheNestingRules) {
    auto* root = new ZResource(nullptr, nullptr, "/redfish/v1/");
    auto* systems = new ZResourceCollection(root, nullptr, "Systems");
    auto* sys = new ZResource(systems, nullptr, "1");
    auto* status = new ZJsonObject(sys, "Status");
    auto* oem = new ZJsonObject(status, "Oem");
    auto* embedded = new ZResource(oem, nullptr, "Port");

    EXPECT_EQ(root->GetJPath(), "/redfish/v1/");
    EXPECT_EQ(systems->GetJPath(), "/redfish/v1/Systems");
    EXPECT_EQ(sys->GetJPath(), "/redfish/v1/Systems/1");
    EXPECT_EQ(status->GetJPath(), "&&/redfish/v1/Systems/1/Status");
    EXPECT_EQ(oem->GetJPath(), "&&/redfish/v1/Systems/1/Status/Oem");
    EXPECT_EQ(embedded->GetJPath(), "/redfish/v1/Systems/1/Status/Oem/Port");
    // A member sits below the collection's Members array.
    ZObject* members = systems->GetChild("Members");
    ASSERT_NE(members, nullptr);
    EXPECT_EQ(members->GetJPath(), "&&/redfish/v1/Systems/Members");
    EXPECT_EQ(sys->GetParent(), members);
    EXPECT_EQ(members->GetChild(1), sys);
    // A resource without a name is known by its URI.
    EXPECT_EQ(sys->GetName(), "/redfish/v1/Systems/1");

    EXPECT_EQ(ZObject::CombineJPath(sys, status), "&&/redfish/v1/Systems/1/Status");
    EXPECT_EQ(ZObject::CombineJPath(oem, embedded), "/redfish/v1/Systems/1/Status/Oem/Port");
    EXPECT_EQ(ZObject::CombineJPath(sys, "Boot/Order"), "&&/redfish/v1/Systems/1/Boot/Order");
    EXPECT_EQ(ZObject::CombineJPath(root, "/Chassis"), "&&/redfish/v1/Chassis");

    EXPECT_EQ(sys->GetChildByJPath("Status/Oem"), oem);
    EXPECT_EQ(sys->GetChildByJPath("//Status///Oem/"), oem);
    EXPECT_EQ(sys->GetChildByJPath(""), nullptr);
    EXPECT_EQ(sys->GetChildByJPath("/"), nullptr);
    EXPECT_EQ(sys->GetChildByJPath("Status/Missing"), nullptr);

    // A died child on the way ends the walk without a log line.
    mApp->UseIfValid(oem);
    oem->ObjDestroy(ZObject::eDestroyDelete, true);
    size_t mark = LogMark();
    EXPECT_EQ(sys->GetChildByJPath("Status/Oem"), nullptr);
    EXPECT_EQ(OrbelTest::LogSince(mark), "");
    oem->DecreaseUsingCount();

    EXPECT_EQ(embedded->GetOwnedByResource(), embedded);
    EXPECT_EQ(status->GetOwnedByResource(), sys);
    EXPECT_EQ(status->GetParentResource(), sys);
    EXPECT_EQ(sys->GetParentResource(), systems);
    EXPECT_EQ(mApp->GetResourceURI(status), "/redfish/v1/Systems/1");
}

TEST_F(ZObjectTest, AttributesAreInheritedExceptMultiBackendByResources) {
    auto* raw = new ZResource(nullptr, nullptr, "/redfish/v1/Raw", "", ZObject::ATTR_RawJson);
    auto* rawChild = new ZJsonObject(raw, "Status");
    EXPECT_TRUE(raw->IsDataFmtRawJson());
    EXPECT_TRUE(rawChild->IsDataFmtRawJson());
    EXPECT_EQ(rawChild->GetAttribute(), ZObject::ATTR_RawJson);

    auto* multi =
        new ZResource(nullptr, nullptr, "/redfish/v1/Multi", "", ZObject::ATTR_MultiBackend);
    auto* obj = new ZJsonObject(multi, "Oem");
    auto* res = new ZResource(multi, nullptr, "Sub");
    EXPECT_EQ(obj->GetAttribute(), ZObject::ATTR_MultiBackend);
    EXPECT_EQ(res->GetAttribute(), 0u);
}

TEST_F(ZObjectTest, InitialRefusesBothFormatsAndAnEmptyId) {
    size_t mark = LogMark();
    auto* both = new ZResource(nullptr, nullptr, "/redfish/v1/Both", "Both", 3u);
    EXPECT_TRUE(Logged(mark,
                       "Object[Both] shouldn't have attributes of RawJson and MultiBackend "
                       "at the same time."));
    EXPECT_EQ(both->GetJPath(), "");
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Both"), nullptr);
    mark = LogMark();
    EXPECT_EQ(both->GetChild("x"), nullptr);
    EXPECT_TRUE(Logged(mark, "Obj[Both] try to get child[x] but ChildList is NULL\n"));
    EXPECT_EQ(both->GetChildNum(), 0u);

    mark = LogMark();
    auto* anonymous = new ZJsonObject(nullptr, "");
    EXPECT_TRUE(Logged(mark, "Object[] initial failed. The ID shoundn't be a empty string.\n"));
    EXPECT_EQ(anonymous->GetJPath(), "");

    // A node that never initialised can still be retired and freed.
    both->ObjDestroy(ZObject::eDestroyDelete, true);
    anonymous->ObjDestroy(ZObject::eDestroyDelete, true);
    Recycle();
    EXPECT_EQ(mApp->RecycledListSize(), 0u);
}

TEST_F(ZObjectTest, ANonPrintableNameIsLoggedButTheNodeIsBuilt) {
    size_t mark = LogMark();
    auto* node = new ZJsonObject(nullptr, std::string("Bad\tName"));
    EXPECT_TRUE(Logged(mark,
                       "Object: some input parameters name[Bad\tName] id[Bad\tName] is not "
                       "pure string.\n"));
    EXPECT_EQ(node->GetJPath(), "Bad\tName");
}

TEST_F(ZObjectTest, ASecondChildWithAnExistingIdIsRefusedAndTheFirstStays) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    auto* first = new ZJsonObject(sys, "Status");
    first->HashWrite("State", "Enabled");
    first->ApplyRedisChanges();

    size_t mark = LogMark();
    auto* second = new ZJsonObject(sys, "Status");
    EXPECT_TRUE(Logged(mark,
                       "Failed to append object[&&/redfish/v1/Systems/1/Status] to list due "
                       "to the JPath is duplicated!\n"));
    EXPECT_EQ(second->GetJPath(), "");
    EXPECT_EQ(sys->GetChild("Status"), first);
    EXPECT_EQ(mApp->GetObject("&&/redfish/v1/Systems/1/Status"), first);
    // The refused node's store key belongs to the first: left alone, even
    // when the refused one is retired with its store data.
    second->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(HGetAll("&&/redfish/v1/Systems/1/Status").at("State"), "\"Enabled\"");
    EXPECT_EQ(sys->GetChild("Status"), first);

    // Directly appending a child under a taken id keeps the first too.
    auto* loose = new ZJsonObject(nullptr, "Status");
    mark = LogMark();
    EXPECT_EQ(sys->AppendChildObj(loose), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Try to overwrite an existing child object[Status].\n"));
    EXPECT_EQ(sys->GetChild("Status"), first);
}

TEST_F(ZObjectTest, ADuplicateResourceNameIsListedByJPathOnly) {
    ZSchema schema("Chassis", "v1_0_0");
    auto* a = new ZResource(nullptr, &schema, "/redfish/v1/Chassis/1", "Board");
    size_t mark = LogMark();
    auto* b = new ZResource(nullptr, &schema, "/redfish/v1/Chassis/2", "Board");
    EXPECT_TRUE(Logged(mark,
                       "Failed to append ZResourceObj[Board] to list due to the "
                       "ResourceName is duplicated!\n"));
    EXPECT_TRUE(Logged(mark,
                       "Failed to add Resource to schema[Chassis] due to the name[Board] is "
                       "not unique!\n"));
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Chassis/2"), b);
    EXPECT_EQ(mApp->GetResource("Board"), a);
    EXPECT_EQ(schema.GetResource("Board"), a);

    // Retiring the refused one leaves the first in both maps.
    b->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(mApp->GetResource("Board"), a);
    EXPECT_EQ(schema.GetResource("Board"), a);
    a->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_EQ(mApp->GetResource("Board"), nullptr);
    EXPECT_EQ(schema.GetResourceNum(), 0u);
}

// A system that links a manager, and a chassis that links the system's
// Status object: the fixture of the destroy-mode tests.
struct LinkedTree {
    ZResource* manager;
    ZResource* system;
    ZJsonObject* status;
    ZResource* chassis;
    ZJsonArray* list;

    LinkedTree() {
        manager = new ZResource(nullptr, nullptr, "/redfish/v1/Managers/1");
        system = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
        status = new ZJsonObject(system, "Status");
        status->HashWrite("Health", "OK");
        system->HashWrite("Status", status);
        system->HashWrite("Manager", manager, true);
        chassis = new ZResource(nullptr, nullptr, "/redfish/v1/Chassis/1");
        chassis->HashWrite("StatusRef", status, true);
        list = new ZJsonArray(chassis, "ManagedBy");
        list->ListWrite(-1, "first");
        list->ListWrite(-1, static_cast<ZObject*>(manager), true);
        list->ListWrite(-1, "last");
        chassis->HashWrite("ManagedBy", list);
        system->ApplyRedisChanges();
        chassis->ApplyRedisChanges();
    }
};

TEST_F(ZObjectTest, ReferencesAreRecordedBothWays) {
    LinkedTree t;
    EXPECT_EQ(t.manager->GetMetaKeyInReferencedBy(t.system),
              "&&ObjectRef Manager /redfish/v1/Managers/1");
    EXPECT_EQ(t.manager->GetMetaKeyInReferencedBy(t.list), "&&ObjectRef /redfish/v1/Managers/1");
    EXPECT_EQ(t.status->GetMetaKeyInReferencedBy(t.system),
              "&&Object Status &&/redfish/v1/Systems/1/Status");
    size_t mark = LogMark();
    EXPECT_EQ(t.manager->GetMetaKeyInReferencedBy(t.chassis), "");
    EXPECT_TRUE(Logged(mark,
                       "Cannot find obj[/redfish/v1/Chassis/1] in my[/redfish/v1/Managers/1] "
                       "referencedBy list.\n"));
    mark = LogMark();
    t.system->DumpReferenceTo();
    EXPECT_TRUE(Logged(mark, "  ReferencedTo[/redfish/v1/Managers/1]\n"));
    // An owned child is not a reference of its owner.
    EXPECT_FALSE(Logged(mark, "  ReferencedTo[&&/redfish/v1/Systems/1/Status]"));
    mark = LogMark();
    t.manager->DumpReferencedBy();
    EXPECT_TRUE(Logged(mark,
                       "  ReferencedBy[/redfish/v1/Systems/1], MetaKey[&&ObjectRef Manager "
                       "/redfish/v1/Managers/1]\n"));
}

TEST_F(ZObjectTest, DestroyModeDeleteRemovesEveryReferringProperty) {
    LinkedTree t;
    t.manager->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_FALSE(OrbelTest::Exists("/redfish/v1/Managers/1"));
    // Queued on the referrers, written with their next apply.
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count("&&ObjectRef Manager /redfish/v1/Managers/1"),
              1u);
    t.system->ApplyRedisChanges();
    t.chassis->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count("&&ObjectRef Manager /redfish/v1/Managers/1"),
              0u);
    EXPECT_EQ(LRange("&&/redfish/v1/Chassis/1/ManagedBy"),
              (std::vector<std::string>{"\"first\"", "\"last\""}));
    std::vector<ZObject*> members;
    t.list->GetMemberObjects(members);
    EXPECT_TRUE(members.empty());
    // The owned Status is untouched by the manager's end.
    EXPECT_FALSE(t.status->IsDied());
}

TEST_F(ZObjectTest, DestroyModeUnlinkRemovesOnlyLinks) {
    LinkedTree t;
    t.status->ObjDestroy(ZObject::eDestroyUnlink, true);
    t.system->ApplyRedisChanges();
    t.chassis->ApplyRedisChanges();
    auto sys = HGetAll("/redfish/v1/Systems/1");
    EXPECT_EQ(sys.count("&&Object Status &&/redfish/v1/Systems/1/Status"), 1u);
    EXPECT_EQ(HGetAll("/redfish/v1/Chassis/1")
                  .count("&&ObjectRef StatusRef "
                         "&&/redfish/v1/Systems/1/Status"),
              0u);
    EXPECT_FALSE(OrbelTest::Exists("&&/redfish/v1/Systems/1/Status"));
    EXPECT_EQ(t.system->GetChild("Status", true), nullptr);
}

TEST_F(ZObjectTest, DestroyModeRelinkRewritesTheStoredLinksAtOnce) {
    LinkedTree t;
    // Spoil the stored links: the relink must write them back without an
    // apply of the referrers.
    OrbelTest::RawCommand({"HDEL", "/redfish/v1/Systems/1",
                           "&&ObjectRef Manager "
                           "/redfish/v1/Managers/1"});
    t.manager->ObjDestroy(ZObject::eDestroyRelink, false);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("&&ObjectRef Manager /redfish/v1/Managers/1"),
              "");
    EXPECT_EQ(
        LRange("&&/redfish/v1/Chassis/1/ManagedBy"),
        (std::vector<std::string>{"\"first\"", "\"last\"", "&&ObjectRef /redfish/v1/Managers/1"}));
    EXPECT_EQ(t.system->GetRedisChangeNum(), 0u);
}

TEST_F(ZObjectTest, AnUnknownDestroyModeLeavesTheReferrersData) {
    LinkedTree t;
    size_t mark = LogMark();
    t.manager->ObjDestroy(static_cast<ZObject::eDestroyMode>(7), true);
    EXPECT_TRUE(Logged(mark, "Unknown destroyMode[7].\n"));
    t.system->ApplyRedisChanges();
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").count("&&ObjectRef Manager /redfish/v1/Managers/1"),
              1u);
}

TEST_F(ZObjectTest, RetirementIsOnceAndTheRecyclerWaitsForUsers) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    auto* status = new ZJsonObject(sys, "Status");
    status->HashWrite("State", "Enabled");
    sys->HashWrite("Status", status);
    sys->ApplyRedisChanges();
    sys->HashWrite("Pending", 1);  // thrown away by the retirement

    ASSERT_TRUE(mApp->UseIfValid(sys));  // a thread still works on it
    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_TRUE(sys->IsDied());
    EXPECT_TRUE(status->IsDied());
    EXPECT_EQ(sys->GetRedisChangeNum(), 0u);
    EXPECT_FALSE(OrbelTest::Exists("/redfish/v1/Systems/1"));
    EXPECT_FALSE(OrbelTest::Exists("&&/redfish/v1/Systems/1/Status"));
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Systems/1"), nullptr);
    EXPECT_EQ(mApp->RecycledListSize(), 2u);

    sys->ObjDestroy(ZObject::eDestroyDelete, true);  // harmless
    EXPECT_EQ(mApp->RecycledListSize(), 2u);

    Recycle();
    EXPECT_EQ(mApp->RecycledListSize(), 1u);  // the held one stays
    EXPECT_TRUE(mApp->IsValidObj(sys));
    sys->DecreaseUsingCount();
    Recycle();
    EXPECT_EQ(mApp->RecycledListSize(), 0u);
    size_t mark = LogMark();
    EXPECT_FALSE(mApp->IsValidObj(sys));
    EXPECT_TRUE(Logged(mark, "is an invalid ZObject. It might be a corrupt memory address.\n"));
}

TEST_F(ZObjectTest, ANegativeUsingCountIsReportedAndTheNodeFreed) {
    auto* node = new ZJsonObject(nullptr, "Loose");
    node->ObjDestroy(ZObject::eDestroyDelete, true);
    node->DecreaseUsingCount();
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
    EXPECT_EQ(parent->GetChildNum(), 0u);
    EXPECT_EQ(mApp->GetObject("&&Parent/Child"), nullptr);
    EXPECT_FALSE(mApp->IsValidObj(child));

    ZSchema schema("Manager", "");
    auto* res = new ZResource(nullptr, &schema, "/redfish/v1/Managers/1");
    ASSERT_EQ(schema.GetResourceNum(), 1u);
    delete res;
    EXPECT_EQ(schema.GetResourceNum(), 0u);
    EXPECT_EQ(mApp->GetResource("/redfish/v1/Managers/1"), nullptr);
}

TEST_F(ZObjectTest, DeleteAllChildObjsRetiresEveryChild) {
    auto* parent = new ZJsonObject(nullptr, "Parent");
    auto* a = new ZJsonObject(parent, "A");
    auto* b = new ZJsonArray(parent, "B");
    EXPECT_EQ(parent->GetChildIDs(), (std::vector<std::string>{"A", "B"}));
    parent->DeleteAllChildObjs();
    EXPECT_TRUE(a->IsDied());
    EXPECT_TRUE(b->IsDied());
    EXPECT_EQ(parent->GetChildNum(), 0u);
    size_t mark = LogMark();
    EXPECT_EQ(parent->RemoveChildObj(a), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Obj[Parent] wants to remove a sub-Obj[&&Parent/A] but not found!\n"));
}

TEST_F(ZObjectTest, OIDsSkipTakenNumbersAndGiveUpAfter101) {
    std::vector<ZObject*> nodes;
    mApp->SetNextOIDCandidate(1000);
    for (int i = 0; i < 101; ++i)
        nodes.push_back(new ZJsonObject(nullptr, "N" + std::to_string(i)));
    EXPECT_EQ(nodes.front()->GetOID(), 1000u);
    EXPECT_EQ(nodes.back()->GetOID(), 1100u);

    // A taken number is skipped.
    mApp->SetNextOIDCandidate(1100);
    auto* next = new ZJsonObject(nullptr, "Next");
    EXPECT_EQ(next->GetOID(), 1101u);

    mApp->SetNextOIDCandidate(1000);
    size_t mark = LogMark();
    auto* none = new ZJsonObject(nullptr, "None");
    EXPECT_EQ(none->GetOID(), ZApplication::kInvalidOID);
    EXPECT_TRUE(Logged(mark, "Unable to get a free OID. CurrSeq[1101]\n"));
    // Still a valid node that its owner can retire.
    EXPECT_TRUE(mApp->IsValidObj(none));

    // The number that means "none" is never handed out.
    mApp->SetNextOIDCandidate(0xFFFFFFFEu);
    auto* last = new ZJsonObject(nullptr, "Last");
    auto* wrapped = new ZJsonObject(nullptr, "Wrapped");
    EXPECT_EQ(last->GetOID(), 0xFFFFFFFEu);
    EXPECT_EQ(wrapped->GetOID(), 0u);
}

TEST_F(ZObjectTest, LookupsRetryTheTrailingSlashAndListOrphans) {
    auto* root = new ZResource(nullptr, nullptr, "/redfish/v1/");
    auto* systems = new ZResourceCollection(root, nullptr, "Systems", "AllSystems");
    auto* response = new ZJsonObject(nullptr, "ResponseData");
    size_t mark = LogMark();
    EXPECT_EQ(mApp->GetObject("/redfish/v1"), root);
    EXPECT_TRUE(Logged(mark, "Retry JPath[/redfish/v1/].\n"));
    mark = LogMark();
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Systems/"), systems);
    EXPECT_TRUE(Logged(mark, "Retry JPath[/redfish/v1/Systems].\n"));
    EXPECT_EQ(mApp->GetObject("/redfish/v1/Nothing"), nullptr);

    EXPECT_EQ(mApp->GetResource("AllSystems"), systems);
    EXPECT_EQ(mApp->GetResource("/redfish/v1/"), root);
    EXPECT_EQ(mApp->GetResource(systems->GetChild("Members")), systems);
    EXPECT_EQ(mApp->GetOrphanObjsList(), (std::vector<std::string>{"ResponseData"}));
    EXPECT_EQ(mApp->ObjectListSize(), 4u);  // root, collection, Members, response
    std::vector<std::string> all = mApp->GetObjectList();
    EXPECT_EQ(all, (std::vector<std::string>{"&&/redfish/v1/Systems/Members", "/redfish/v1/",
                                             "/redfish/v1/Systems", "ResponseData"}));
    response->ObjDestroy(ZObject::eDestroyDelete, true);
    EXPECT_TRUE(mApp->GetOrphanObjsList().empty());
}

struct MonitorLog {
    std::vector<std::string> seen;
};

void RecordMonitor(ZObject* obj, void* arg) {
    static_cast<MonitorLog*>(arg)->seen.push_back(obj->GetJPath());
}

TEST_F(ZObjectTest, AJPathMonitorCallsBackOnceAndGoesWithItsObject) {
    MonitorLog log;
    ASSERT_EQ(mApp->RegisterMonitorObject("/redfish/v1/Systems/1", RecordMonitor, &log),
              RT_SUCCESS);
    mApp->ObjMonitorScan();
    EXPECT_TRUE(log.seen.empty());
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    mApp->ObjMonitorScan();
    mApp->ObjMonitorScan();
    EXPECT_EQ(log.seen, (std::vector<std::string>{"/redfish/v1/Systems/1"}));
    EXPECT_NE(mApp->DumpMonitorList().find("Monitor[/redfish/v1/Systems/1]"), std::string::npos);

    sys->ObjDestroy(ZObject::eDestroyDelete, true);
    size_t mark = LogMark();
    mApp->ObjMonitorScan();
    EXPECT_TRUE(Logged(mark,
                       "Remove this objMonitorItem due to object[/redfish/v1/Systems/1] is "
                       "died.\n"));
    EXPECT_EQ(mApp->DumpMonitorList(), "");
}

TEST_F(ZObjectTest, APatternMonitorCallsBackForEachNewMatch) {
    MonitorLog log;
    ASSERT_EQ(
        mApp->RegisterMonitorObjectWithRegExp("/redfish/v1/Systems/[0-9]+", RecordMonitor, &log),
        RT_SUCCESS);
    auto* systems = new ZResourceCollection(nullptr, nullptr, "/redfish/v1/Systems");
    auto* one = new ZResource(systems, nullptr, "1");
    new ZResource(systems, nullptr, "2");
    mApp->ObjMonitorScan();
    EXPECT_EQ(log.seen,
              (std::vector<std::string>{"/redfish/v1/Systems/1", "/redfish/v1/Systems/2"}));
    // A member made again under the same URI is a new object.
    one->ObjDestroy(ZObject::eDestroyDelete, true);
    mApp->ObjMonitorScan();
    new ZResource(systems, nullptr, "1");
    new ZResource(systems, nullptr, "3");
    mApp->ObjMonitorScan();
    EXPECT_EQ(log.seen.size(), 4u);
    EXPECT_EQ(log.seen[2], "/redfish/v1/Systems/1");
    EXPECT_EQ(log.seen[3], "/redfish/v1/Systems/3");

    size_t mark = LogMark();
    EXPECT_EQ(mApp->RegisterMonitorObjectWithRegExp("(", RecordMonitor, &log), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Failed to call NewRegExpPattern( ( ).\n"));
}

}  // namespace

namespace {

// The application's own log service appends the registry's part of the
// runtime summary to its log when the message cache is dumped.
class RuntimeSummaryTest : public OrbelTest::StoreTest {};

TEST_F(RuntimeSummaryTest, ListsObjectsBusyResourcesAndOrphans) {
    std::string logPath;
    {
        ZApplication app("RF_Summary");
        auto* schema = new ZSchema("ComputerSystem", "v1_20_0");
        ASSERT_EQ(schema->Init(), RT_SUCCESS);
        auto* sys = new ZResource(nullptr, schema, "/redfish/v1/Systems/1");
        new ZResource(nullptr, schema, "/redfish/v1/Systems/2");
        new ZJsonObject(nullptr, "ResponseData");  // 2 resources, 2 GETQ lists, 1 orphan
        ASSERT_EQ(sys->Lock(0), RT_SUCCESS);
        app.RegisterMonitorObject(
            "/redfish/v1/Systems/9", [](ZObject*, void*) {}, nullptr);

        logPath = zLogPrint->LogFilePath();
        zLogPrint->DumpMsgCache2File();
        std::string text = OrbelTest::ReadFile(logPath);
        EXPECT_NE(text.find("   ZObject Num = 5\n"), std::string::npos) << text;
        EXPECT_NE(text.find("   Waiting Recycled Object Num = 0\n"), std::string::npos);
        EXPECT_NE(text.find("   Monitor[/redfish/v1/Systems/9] JPath targets[0]\n"),
                  std::string::npos);
        size_t busy = text.find("Dump all resources that are in the BUSY state ====>\n");
        size_t orphans = text.find("\n\nDump orphan objects ====>\n  ResponseData\n");
        ASSERT_NE(busy, std::string::npos);
        ASSERT_NE(orphans, std::string::npos);
        std::string busyPart = text.substr(busy, orphans - busy);
        EXPECT_NE(busyPart.find(") : [/redfish/v1/Systems/1] owner["), std::string::npos);
        EXPECT_EQ(busyPart.find("/redfish/v1/Systems/2"), std::string::npos);
        sys->Unlock();
    }
}

}  // namespace
