// Backend-originated changes: the backend context and its refusals, the
// schema's DoBackend_* paths creating, updating and deleting resources in
// the store, handlers that fail or throw, and the schema's backend object.
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "Backend_MethodContext.h"
#include "ObjectModelFixture.h"
#include "ZBackendImpl.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

const std::string kSystems = "/redfish/v1/Systems";

// What a handler is told to do, through the path's `arg`.
enum class Act { Ok, Fail, Throw, ThrowUnknown, Nothing };

// A member schema whose backend adds, changes and removes systems.
class SystemSchema : public ZSchema {
public:
    SystemSchema() : ZSchema("ComputerSystem", "v1_20_0", CRUDQ_READ) {}

    eRtCode BackendMethod_CREATE(Backend_MethodContext* ctx, void* arg) override {
        auto* coll = static_cast<ZResourceCollection*>(zApp->GetResource(kSystems));
        const Act act = *static_cast<Act*>(arg);
        if (act == Act::Nothing) return RT_SUCCESS;
        for (int n = 0; n < 2; ++n) {
            auto* sys = new ZResource(coll, this, std::to_string(coll->GetFreeMemberId()));
            // Locked until the path is done: a request must not see it half built.
            EXPECT_EQ(sys->Lock(-1, ZResource::LOCK_IGNORE_CORVEL_KEY), RT_SUCCESS);
            sys->HashWrite("Name", "Hot " + sys->GetId());
            EXPECT_EQ(sys->ApplyRedisChanges(false, ctx->GetRedisContext()), RT_SUCCESS);
            ctx->AppendNewInstance(sys);
        }
        if (act == Act::Throw) throw std::runtime_error("backend gone");
        if (act == Act::ThrowUnknown) throw 7;
        return act == Act::Ok ? RT_SUCCESS : RT_FAILURE;
    }
    eRtCode BackendMethod_UPDATE(Backend_MethodContext* ctx, void* arg) override {
        ZResource* sys = ctx->GetTargetResource();
        seenLockOwner = sys->LockOwner();
        if (*static_cast<Act*>(arg) == Act::Throw) throw std::runtime_error("sensor gone");
        sys->HashWrite("PowerState", "Off");
        return sys->ApplyRedisChanges(false, ctx->GetRedisContext());
    }
    eRtCode BackendMethod_DELETE(Backend_MethodContext* ctx, void*) override {
        ctx->GetTargetResource()->ObjDestroy(ZObject::eDestroyDelete, true);
        return RT_SUCCESS;
    }

    unsigned long seenLockOwner = 0;
};

class BackendMethodTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        mColl = new ZSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
        mSys = new SystemSchema();
        ASSERT_EQ(mColl->Init(), RT_SUCCESS);
        ASSERT_EQ(mSys->Init(), RT_SUCCESS);
        new ZResourceCollection(nullptr, mColl, kSystems);
    }
    static Items Members() { return LRange("&&" + kSystems + "/Members"); }

    ZSchema* mColl = nullptr;
    SystemSchema* mSys = nullptr;
};

TEST_F(BackendMethodTest, ContextRefusalsAndTexts) {
    auto* a = new ZResource(nullptr, mSys, "/redfish/v1/A");
    auto* b = new ZResource(nullptr, mSys, "/redfish/v1/B");
    Backend_MethodContext ctx(mSys, a);
    EXPECT_NE(ctx.GetRedisContext(), nullptr);
    EXPECT_EQ(ctx.GetTargetSchema(), mSys);
    EXPECT_EQ(ctx.GetTargetResource(), a);
    size_t mark = LogMark();
    ctx.AssignNewInstance(nullptr);
    ctx.AppendNewInstance(nullptr);
    ctx.AssignNewInstance(a);
    ctx.AssignNewInstance(b);
    EXPECT_EQ(ctx.GetNewInstances(), (std::set<ZResource*>{a}));
    EXPECT_TRUE(Logged(mark, {"Schema[ComputerSystem] assign a NULL object.\n",
                              "Schema[ComputerSystem] append a NULL object.\n",
                              "Schema[ComputerSystem] assign a new instance but the instance list "
                              "is not empty. Please try AppendNewInstance() API.\n"}));
    ctx.AppendNewInstance(a);
    ctx.AppendNewInstance(b);
    ctx.AppendNewInstance(b);
    EXPECT_EQ(ctx.GetNewInstances(), (std::set<ZResource*>{a, b}));

    Backend_MethodContext orphan(nullptr, nullptr);
    mark = LogMark();
    EXPECT_EQ(orphan.GetBackendImpl(), nullptr);
    EXPECT_TRUE(Logged(mark, "Target schema is NULL! schema[NULL]\n"));
}

TEST_F(BackendMethodTest, CreateUpdateDeleteReachTheStore) {
    Act ok = Act::Ok;
    ASSERT_EQ(mSys->DoBackend_Create(&ok), RT_SUCCESS);
    EXPECT_EQ(Members(),
              (Items{"&&ObjectRef /redfish/v1/Systems/1", "&&ObjectRef /redfish/v1/Systems/2"}));
    EXPECT_EQ(HGetAll(kSystems + "/2")["Name"], "\"Hot 2\"");
    for (const char* uri : {"/redfish/v1/Systems/1", "/redfish/v1/Systems/2"}) {
        ZResource* sys = mApp->GetResource(uri);
        ASSERT_NE(sys, nullptr) << uri;
        EXPECT_EQ(sys->LockOwner(), 0u) << uri << " left locked";
    }

    ASSERT_EQ(mSys->DoBackend_Update(kSystems + "/1", &ok), RT_SUCCESS);
    EXPECT_EQ(HGetAll(kSystems + "/1")["PowerState"], "\"Off\"");
    ZResource* sys1 = mApp->GetResource(kSystems + "/1");
    EXPECT_NE(mSys->seenLockOwner, 0u) << "the handler ran without the resource's lock";
    EXPECT_EQ(sys1->LockOwner(), 0u);

    ASSERT_EQ(mSys->DoBackend_Delete(kSystems + "/1", nullptr), RT_SUCCESS);
    EXPECT_FALSE(Exists(kSystems + "/1"));
    EXPECT_EQ(Members(), (Items{"&&ObjectRef /redfish/v1/Systems/2"}));
    EXPECT_EQ(mSys->GetResource(kSystems + "/1"), nullptr);

    size_t mark = LogMark();
    EXPECT_EQ(mSys->DoBackend_Update(kSystems + "/1", &ok), RT_NO_SUCH_KEY);
    EXPECT_TRUE(Logged(mark,
                       "Schema[ComputerSystem]: no resource[/redfish/v1/Systems/1] for a "
                       "backend UPDATE.\n"));
}

TEST_F(BackendMethodTest, FailingHandlersAreReportedAndLeaveNothingLocked) {
    const struct {
        Act act;
        const char* text;
        size_t membersLeft;  // a handler that threw never finished its systems
    } rows[] = {
        {Act::Fail, "Schema[ComputerSystem] failed to call BackendMethod_CREATE().\n", 2},
        {Act::Throw, "Schema[ComputerSystem]: BackendMethod_CREATE() threw: backend gone\n", 0},
        {Act::ThrowUnknown, "Schema[ComputerSystem]: BackendMethod_CREATE() threw.\n", 0},
        {Act::Nothing, "Schema[ComputerSystem] failed to create new resource from backend.\n", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        size_t mark = LogMark();
        Act act = row.act;
        EXPECT_EQ(mSys->DoBackend_Create(&act), RT_FAILURE);
        EXPECT_TRUE(Logged(mark, row.text));
        EXPECT_EQ(Members().size(), row.membersLeft);
        for (const auto& entry : mSys->GetResourceList()) {
            EXPECT_EQ(entry.second->LockOwner(), 0u) << entry.first;
            entry.second->ObjDestroy(ZObject::eDestroyDelete, true);
        }
        EXPECT_TRUE(Members().empty());
    }

    // An update that throws keeps the stored document and frees the lock;
    // the base handlers refuse.
    Act ok = Act::Ok, boom = Act::Throw;
    ASSERT_EQ(mSys->DoBackend_Create(&ok), RT_SUCCESS);
    size_t mark = LogMark();
    EXPECT_EQ(mSys->DoBackend_Update(kSystems + "/1", &boom), RT_FAILURE);
    EXPECT_EQ(mApp->GetResource(kSystems + "/1")->LockOwner(), 0u);
    EXPECT_EQ(HGetAll(kSystems + "/1").count("PowerState"), 0u);
    EXPECT_EQ(mColl->DoBackend_Create(nullptr), RT_FAILURE);
    EXPECT_EQ(mColl->DoBackend_Delete(kSystems, nullptr), RT_FAILURE);
    EXPECT_TRUE(Exists(kSystems));
    EXPECT_TRUE(Logged(mark, {"Schema[ComputerSystem]: BackendMethod_UPDATE() threw: sensor gone\n",
                              "Schema[ComputerSystem] failed to call BackendMethod_UPDATE().\n",
                              "Schema[ComputerSystemCollection] failed to call "
                              "BackendMethod_CREATE().\n",
                              "Schema[ComputerSystemCollection] failed to call "
                              "BackendMethod_DELETE().\n"}));
}

TEST_F(BackendMethodTest, BackendPathsWaitForARequestHoldingTheResource) {
    Act ok = Act::Ok;
    ASSERT_EQ(mSys->DoBackend_Create(&ok), RT_SUCCESS);
    ZResource* sys = mApp->GetResource(kSystems + "/1");
    std::atomic<bool> locked{false}, release{false};
    std::thread request([&] {
        EXPECT_EQ(sys->Lock(-1), RT_SUCCESS);
        locked = true;
        while (!release) std::this_thread::yield();
        // The backend change must not have happened while the request held it.
        EXPECT_EQ(HGetAll(kSystems + "/1").count("PowerState"), 0u);
        sys->Unlock();
    });
    while (!locked) std::this_thread::yield();
    std::thread backend(
        [&] { EXPECT_EQ(mSys->DoBackend_Update(kSystems + "/1", &ok), RT_SUCCESS); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    release = true;
    request.join();
    backend.join();
    EXPECT_EQ(HGetAll(kSystems + "/1")["PowerState"], "\"Off\"");
}

TEST_F(BackendMethodTest, TheSchemaOwnsItsBackend) {
    EXPECT_EQ(mSys->GetBackendImpl(), nullptr);
    ASSERT_EQ(mSys->InitialBackendImpl(), RT_SUCCESS);
    ZBackendImpl* first = mSys->GetBackendImpl();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->GetOwnedBySchema(), mSys);
    ASSERT_EQ(mSys->InitialBackendImpl(), RT_SUCCESS);
    EXPECT_EQ(mSys->GetBackendImpl(), first);  // kept, not made again
    Backend_MethodContext ctx(mSys, nullptr);
    EXPECT_EQ(ctx.GetBackendImpl(), first);
    // A replacement frees the one it replaces, and the schema frees the
    // last (the sanitizer builds see a leak or a double free).
    mSys->SetBackendImpl(new ZBackendImpl(mSys));
    EXPECT_NE(mSys->GetBackendImpl(), nullptr);
}

}  // namespace
