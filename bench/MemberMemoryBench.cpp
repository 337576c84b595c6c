// What a member resource costs in memory: heap per member and the process's
// resident set with 1000 of them.
//
// A collection of N member resources, each with 10 applied properties
// (strings, integers, a boolean, a double) and a nested Status object (State,
// Health), built the way a plug-in's start-up stage builds them, in one
// connection scope. Measured:
//
//   heap     bytes held by operator new per member (the program replaces the
//            global operator new/delete and counts requested bytes, not the
//            allocator's overhead), averaged over 1000 members and taken
//            while they are alive; it includes what a member costs its
//            collection and the registry (goal: <= 2980 B on the 64-bit
//            build)
//   blocks   operator new blocks per member: on the 32-bit controller each
//            costs about 8 bytes of allocator overhead more
//   RSS      VmRSS of the process with 1000 members alive (goal: < 8 MB)
//
// `--members N` changes the count. The program has no floor: memory is
// compared with its goals only.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string>

#include "BenchStore.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

// The resident set is measured in a second run of the program without the
// counting (whose headers would add 16 bytes to every block).
bool HeapCounting() {
    static const bool counting = std::getenv("ORBEL_BENCH_RSS_RUN") == nullptr;
    return counting;
}

#include "HeapCounting.h"

namespace {

using namespace Orbel;

constexpr double kHeapGoal = 2980.0;
constexpr double kRssGoalKiB = 8.0 * 1024;

void BuildMember(ZResourceCollection* coll, ZSchema* schema) {
    auto* m = new ZResource(coll, schema, std::to_string(coll->GetFreeMemberId()));
    m->HashWrite("Name", "Computer System");
    m->HashWrite("Description", "A system of the benchmark");
    m->HashWrite("Manufacturer", "Bench");
    m->HashWrite("Model", "B-1");
    m->HashWrite("SerialNumber", "SN-0000001");
    m->HashWrite("PowerState", "On");
    m->HashWrite("ProcessorCount", 2);
    m->HashWrite("MemoryGiB", 64ULL);
    m->HashWrite("Enabled", true);
    m->HashWrite("Temperature", 36.5);
    auto* status = new ZJsonObject(m, "Status");
    status->HashWrite("State", "Enabled");
    status->HashWrite("Health", "OK");
    m->HashWrite("Status", status);
    m->ApplyRedisChanges();
}

long RssKiB() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    int members = 1000;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--members") == 0) members = std::atoi(argv[i + 1]);
    }
    if (members <= 0) members = 1000;
    if (!OrbelBench::StartBenchStore()) return 1;
    ZApplication app("RF_Bench");
    ZSchema systems("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema system("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    auto* coll = new ZResourceCollection(nullptr, &systems, "/redfish/v1/Systems");
    if (!HeapCounting()) {
        // The second run: the members alone, then the resident set.
        {
            RedisConnectionScope scope;
            for (int i = 0; i < members; ++i) BuildMember(coll, &system);
        }
        std::printf("%ld\n", RssKiB());
        return 0;
    }
    // Warm: the log's message cache (512 lines, whatever the number of
    // members) and the registry's tables reach their size, so that the
    // figure is what one more member costs.
    constexpr int kWarm = 600;
    {
        RedisConnectionScope scope;
        for (int i = 0; i < kWarm; ++i) BuildMember(coll, &system);
    }
    const long long bytes0 = gLiveBytes.load();
    const long long blocks0 = gLiveBlocks.load();
    {
        RedisConnectionScope scope;
        for (int i = 0; i < members; ++i) BuildMember(coll, &system);
    }
    const double bytes = static_cast<double>(gLiveBytes.load() - bytes0) / members;
    const double blocks = static_cast<double>(gLiveBlocks.load() - blocks0) / members;
    std::printf("member resource (10 properties, nested Status), %d members after %d, %zu-bit:\n",
                members, kWarm, sizeof(void*) * 8);
    std::printf("  heap per member   %7.0f B in %.1f blocks (goal <= %.0f B: %s)\n", bytes, blocks,
                kHeapGoal, bytes <= kHeapGoal ? "met" : "NOT met");
    coll->ObjDestroy(ZObject::eDestroyDelete, false);
    app.RecycleProcess();

    // The resident set: the same program with `members` members and nothing
    // counted, in a process of its own (with its own store).
    std::fflush(stdout);
    const std::string cmd = "ORBEL_BENCH_RSS_RUN=1 /proc/" + std::to_string(getpid()) +
                            "/exe --members " + std::to_string(members) + " 2>/dev/null | tail -1";
    FILE* child = popen(cmd.c_str(), "r");
    long rss = -1;
    if (child != nullptr) {
        char line[64] = {0};
        if (std::fgets(line, sizeof line, child) != nullptr) rss = std::strtol(line, nullptr, 10);
        pclose(child);
    }
    std::printf("  RSS               %7ld KiB with %d members (goal < %.0f KiB for 1000: %s)\n",
                rss, members, kRssGoalKiB,
                members != 1000 || rss < 0 ? "n/a" : (rss < kRssGoalKiB ? "met" : "NOT met"));
    return 0;
}
