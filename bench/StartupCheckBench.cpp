// What the start-up tree check costs against the stage it follows.
//
// After each start-up stage the frame walks its registry once
// (ZApplication::CheckTreeAfterStage). The stage it follows builds the
// resources: a collection and N member resources, each with a few
// properties and a nested object, applied to the store in one connection
// scope, as a pre-ready stage does. Both are timed in the same run, several
// rounds, and the walk is reported as a share of the build with its spread
// (goal: under 5% at 1000 resources).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "BenchStore.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

using namespace Orbel;

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

ZResourceCollection* BuildStage(ZSchema& collSchema, ZSchema& memberSchema, int members) {
    RedisConnectionScope scope;
    auto* coll = new ZResourceCollection(nullptr, &collSchema, "/redfish/v1/Systems");
    for (int i = 1; i <= members; ++i) {
        auto* res = new ZResource(coll, &memberSchema, std::to_string(i));
        res->HashWrite("Name", "System " + std::to_string(i));
        res->HashWrite("AssetTag", "tag");
        res->HashWrite("PowerState", "On");
        res->HashWrite("BiosVersion", "1.0.0");
        auto* status = new ZJsonObject(res, "Status");
        status->HashWrite("State", "Enabled");
        status->HashWrite("Health", "OK");
        res->HashWrite("Status", status);
        res->ApplyRedisChanges();
    }
    return coll;
}

}  // namespace

int main() {
    if (!OrbelBench::StartBenchStore()) return 1;
    ZApplication app("RF_Bench");
    ZSchema systems("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema system("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ);
    const int kMembers = 1000;
    const int kRounds = 5;
    std::vector<double> shares;
    double buildSum = 0;
    double walkSum = 0;
    for (int round = 0; round < kRounds; ++round) {
        Clock::time_point t0 = Clock::now();
        ZResourceCollection* coll = BuildStage(systems, system, kMembers);
        const double build = Seconds(t0);
        t0 = Clock::now();
        const size_t warnings = app.CheckTreeAfterStage("Bench");
        const double walk = Seconds(t0);
        if (warnings != 0) {
            std::fprintf(stderr, "bench: the tree check found %zu mistakes in a clean tree\n",
                         warnings);
            return 1;
        }
        shares.push_back(100.0 * walk / build);
        buildSum += build;
        walkSum += walk;
        coll->ObjDestroy(ZObject::eDestroyDelete, true);
        app.RecycleProcess();
    }
    std::sort(shares.begin(), shares.end());
    std::printf("Start-up tree check at %d resources (%d rounds):\n", kMembers, kRounds);
    std::printf("  stage build  mean %8.2f ms\n", 1000.0 * buildSum / kRounds);
    std::printf("  tree check   mean %8.2f ms\n", 1000.0 * walkSum / kRounds);
    std::printf("  share        median %.2f%%  (min %.2f%%, max %.2f%%)  goal < 5%%: %s\n",
                shares[kRounds / 2], shares.front(), shares.back(),
                shares.back() < 5.0 ? "met" : "NOT met");
    return 0;
}
