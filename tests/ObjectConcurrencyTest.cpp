// Nodes under several threads: writers on different nodes of one resource,
// a destroyer racing readers and the recycler, and the resource lock as a
// mutual exclusion. Meant for the thread sanitizer as much as for the asserts.
#include <atomic>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Backend_MethodContext.h"
#include "ChildProcess.h"
#include "ObjectModelFixture.h"
#include "RedisCli.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

class ObjectConcurrencyTest : public ObjectModelTest {};

// A member schema whose backend adds one member per DoBackend_Create, the
// way a plug-in's platform thread does.
class MemberSchema : public ZSchema {
public:
    MemberSchema() : ZSchema("ComputerSystem", "v1_20_0", CRUDQ_READ) {}
    eRtCode BackendMethod_CREATE(Backend_MethodContext* ctx, void* arg) override {
        ZResource* member = static_cast<ZResourceCollection*>(arg)->CreateMember(this);
        if (member == nullptr) return RT_FAILURE;
        member->Lock(-1, ZResource::LOCK_IGNORE_CORVEL_KEY);
        ctx->AssignNewInstance(member);
        return RT_SUCCESS;
    }
};

TEST_F(ObjectConcurrencyTest, ThreadsWritingDifferentNodesOfOneResource) {
    constexpr int kThreads = 4;
    constexpr size_t kWrites = 50;  // 200 list items in all
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    std::vector<ZJsonObject*> parts;
    for (int t = 0; t < kThreads; ++t) {
        auto* part = new ZJsonObject(sys, "Part" + std::to_string(t));
        sys->HashWrite("Part" + std::to_string(t), part);
        parts.push_back(part);
    }
    auto* log = new ZJsonArray(sys, "Log", ZJsonArray::ARRAY_ATTR_OdataCount);
    sys->HashWrite("Log", log);
    sys->ApplyRedisChanges();

    OnThreads(kThreads, [=](int t) {
        for (int i = 0; i < static_cast<int>(kWrites); ++i) {
            parts[t]->HashWrite("Value" + std::to_string(i), i);
            log->ListWrite(-1, t * 1000 + i);
            // Applies from several threads share no connection.
            if (i % 10 == 9) sys->ApplyRedisChanges();
        }
    });
    sys->ApplyRedisChanges();

    for (int t = 0; t < kThreads; ++t) {
        Fields fields = HGetAll("&&/redfish/v1/Systems/1/Part" + std::to_string(t));
        EXPECT_TRUE(fields.size() == kWrites && fields["Value49"] == "49") << t;
    }
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/1/Log").size(), 200u);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1").at("Log@odata.count"), "200");
}

TEST_F(ObjectConcurrencyTest, DestroyingWhileOthersReadAndTheRecyclerRuns) {
    auto* coll = new ZResourceCollection(nullptr, nullptr, "/redfish/v1/Systems");
    constexpr int kRounds = 40;
    std::atomic<bool> stop{false};
    std::atomic<int> seen{0};

    std::thread reader([&]() {
        while (!stop) {
            // Every pointer is taken fresh from the registry and held by a
            // using count while it is used.
            for (const std::string& jpath : mApp->GetObjectList()) {
                ZObject* obj = mApp->GetObject(jpath);
                if (obj == nullptr || !mApp->UseIfValid(obj)) continue;
                if (!obj->GetJPath().empty()) ++seen;
                obj->GetChildByJPath("Status");
                if (obj->GetType() == ZObject::eJsonObject) obj->HashWrite("Seen", true);
                obj->DecreaseUsingCount();
            }
        }
    });
    std::thread recycler([&]() {
        while (!stop) {
            mApp->RecycleProcess();
            std::this_thread::yield();
        }
    });

    for (int round = 0; round < kRounds; ++round) {
        auto* member = new ZResource(coll, nullptr, std::to_string(round % 3 + 1));
        auto* status = new ZJsonObject(member, "Status");
        member->HashWrite("Status", status);
        member->ApplyRedisChanges();
        member->ObjDestroy(ZObject::eDestroyDelete, true);
    }
    // On a loaded machine the reader may not have been scheduled yet; the
    // collection stays listed, so it gets something to see.
    EXPECT_TRUE(WaitUntil([&] { return seen.load() > 0; }, 10000));
    stop = true;
    reader.join();
    recycler.join();
    Recycle();

    EXPECT_EQ(mApp->RecycledListSize(), 0u);
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members"), Items{});
    EXPECT_EQ(HGetAll("/redfish/v1/Systems").at("Members@odata.count"), "0");
    EXPECT_EQ(mApp->ObjectListSize(), 2u);  // the collection and its Members
}

TEST_F(ObjectConcurrencyTest, CreatesRacingDeletesAndBackendThreadsNeverShareAnId) {
    ZSchema collSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    MemberSchema schema;
    auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    constexpr int kRounds = 150;
    std::atomic<ZResource*> handed{nullptr};  // made by one thread, deleted by the other
    std::atomic<int> failures{0};
    std::atomic<bool> creating{true};
    std::thread deleter([&] {
        while (creating || handed.load() != nullptr) {
            ZResource* member = handed.exchange(nullptr);
            if (member != nullptr) member->ObjDestroy(ZObject::eDestroyDelete, true);
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        ZResource* member = coll->CreateMember(&schema);
        failures += member == nullptr ? 1 : 0;
        while (member != nullptr && handed.load() != nullptr) std::this_thread::yield();
        handed = member;
    }
    creating = false;
    deleter.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(coll->MemberIdHighWater(), static_cast<unsigned>(kRounds));

    // Four backend threads: every create gets its own id, nothing leaks.
    OnThreads(4, [&](int) {
        for (int i = 0; i < 10; ++i) {
            if (schema.DoBackend_Create(coll) != RT_SUCCESS) ++failures;
        }
    });
    EXPECT_EQ(failures.load(), 0);
    const std::vector<std::string> ids = coll->GetMemberObjIDs();
    EXPECT_EQ(ids.size(), 40u);
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 40u);
    EXPECT_EQ(*std::set<std::string>(ids.begin(), ids.end()).begin(), "151");
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members").size(), 40u);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems").at("Members@odata.count"), "40");
    EXPECT_EQ(LogSince(0).find("duplicated"), std::string::npos);
}

// A thread building resources holds the apply order to the end of its
// span; a member it creates must not wait for another creation of the same
// collection that waits for that order.
TEST_F(ObjectConcurrencyTest, ABuildHoldingTheApplyOrderCreatesMembersBesideAWaitingCreation) {
    ZSchema collSchema("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    MemberSchema schema;
    auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    std::promise<void> holding;
    std::promise<void> building;
    std::thread other([&] {
        holding.get_future().wait();
        ZResource* member = coll->CreateMember([&](const std::string& id) {
            building.set_value();  // the id is chosen; the build waits for the order
            return new ZResource(coll, &schema, id);
        });
        EXPECT_NE(member, nullptr);
    });
    {
        RedisConnectionScope scope;
        ZObjectBuildWrites span;
        new ZResource(nullptr, nullptr, "/redfish/v1/Managers/1");  // its apply takes the order
        holding.set_value();
        building.get_future().wait();
        EXPECT_NE(coll->CreateMember(&schema), nullptr);
    }
    other.join();
    EXPECT_EQ(coll->GetMemberCount(), 2u);
    EXPECT_EQ(LRange("&&/redfish/v1/Systems/Members").size(), 2u);
}

TEST_F(ObjectConcurrencyTest, TheNestedResourceLockExcludesOtherThreadsUntilFullyReleased) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    int counter = 0;  // guarded by the resource lock alone
    std::atomic<int> failures{0};
    OnThreads(4, [&](int) {
        for (int i = 0; i < 25; ++i) {
            if (sys->Lock(10000, ZResource::LOCK_IGNORE_CORVEL_KEY) != RT_SUCCESS ||
                sys->Lock(0, ZResource::LOCK_IGNORE_CORVEL_KEY) != RT_SUCCESS) {
                ++failures;
                continue;
            }
            // The first release leaves the lock held: still exclusive.
            const int before = counter;
            sys->Unlock();
            std::this_thread::yield();
            counter = before + 1;
            sys->Unlock();
        }
    });
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(counter, 100);
}

}  // namespace
