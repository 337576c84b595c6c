// What building the resource tree costs over the store traffic it causes.
//
// Each comparison builds a tree with the object model (nodes, writes,
// ApplyRedisChanges) and, as the floor, sends the very same Redis commands
// with plain hiredis (redisCommandArgv) on one connection. The floor's
// commands are not written by hand: a MONITOR connection records what the
// library sends while it builds the tree once, untimed, before the
// measurement, so the floor follows the library's real traffic whatever it
// becomes. Library and floor alternate in one loop; trees are retired
// (without touching the store) and the recycle queue drained between
// iterations, outside the timed part.
//
//   OneResource           a resource with 20 scalar properties, 2 nested
//                         objects and a counted array of 10 items, built in
//                         a connection scope as every start-up stage and
//                         request is
//   OneResource/unscoped  the same on a thread without a scope, where each
//                         constructor and apply takes a connection of its own
//   Members/N             a collection and N member resources, each with a
//                         few properties and a nested object, in a scope
//                         (the cost per member flat from 100 to 10000)
//
// The floor replays the recorded commands in one pipelined round trip
// (ORBEL_BENCH_SEQUENTIAL_FLOOR=1: one round trip each, the floor of old).
// Goals for Members/100 and Members/1000 (Members/10000 reported too): time
// ratio <= 2x, and instruction ratio <= 1.3x, counted by callgrind in a second run of this
// program under valgrind (see RunInstructionChild); the summary prints both
// side by side. The process and its server are kept on one CPU (see
// PinToOneCpu).
//
// After the runs it reports the heap held by live nodes (counted by the
// replaced global operator new/delete of this program; goal for a member
// resource: at most half of the 3760 bytes it held before the node lists
// were made on first use) and prints a summary.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "BenchStore.h"
#include "CallgrindRun.h"
#include "CommandRecording.h"
#include "FixedPaths.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"

// Heap accounting: every operator new of the process is counted, except in
// the child that counts instructions.
bool HeapCounting() {
    static const bool counting = std::getenv("ORBEL_BENCH_UNCOUNTED") == nullptr;
    return counting;
}

#include "HeapCounting.h"

namespace {

using Clock = std::chrono::steady_clock;
using Orbel::ZJsonArray;
using Orbel::ZJsonObject;
using Orbel::ZObject;
using Orbel::ZResource;
using Orbel::ZResourceCollection;
using Orbel::ZSchema;

redisContext* gCtx = nullptr;  // the floor's connection (main thread only)
Orbel::ZApplication* gApp = nullptr;

struct ReplyFree {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

struct ContextFree {
    void operator()(redisContext* c) const {
        if (c != nullptr) redisFree(c);
    }
};
using ContextPtr = std::unique_ptr<redisContext, ContextFree>;

// ---------------------------------------------------------------------------
// Recording the library's traffic
// ---------------------------------------------------------------------------

using OrbelBench::Replay;
using OrbelBench::Script;

// Records what the library sends while `action` runs (the floor's
// connection carries the end marker).
bool Record(const std::function<void()>& action, Script& script) {
    return OrbelBench::Record(OrbelBench::BenchSocketPath(), gCtx, action, script);
}

// ---------------------------------------------------------------------------
// The trees
// ---------------------------------------------------------------------------

// Schemas made on the side (not registered with the application), as the
// object-model tests do: the resources only need their names and queues.
ZSchema* gChassisSchema = nullptr;
ZSchema* gSystemsSchema = nullptr;
ZSchema* gSystemSchema = nullptr;

// Retires a tree without touching the store (the next build clears each key
// it reuses, as a restarted plug-in does) and frees the retired nodes.
void Retire(ZObject* root) {
    if (root != nullptr) root->ObjDestroy(ZObject::eDestroyDelete, false);
    gApp->RecycleProcess();
}

// One resource with 20 scalar properties (strings, signed and unsigned
// integers, booleans, doubles), 2 nested objects and a counted array of 10.
ZObject* BuildOneResource() {
    auto* res = new ZResource(nullptr, gChassisSchema, "/redfish/v1/Chassis/1");
    char name[32];
    for (int i = 0; i < 20; ++i) {
        std::snprintf(name, sizeof(name), "Property%02d", i);
        switch (i % 5) {
            case 0:
            case 1:
                res->HashWrite(name, "value of a string property");
                break;
            case 2:
                res->HashWrite(name, -1000LL * i);
                break;
            case 3:
                res->HashWrite(name, (i & 1) != 0);
                break;
            default:
                if (i % 2 == 0) {
                    res->HashWrite(name, 0.25 * i);
                } else {
                    res->HashWrite(name, 1000ULL * static_cast<unsigned long long>(i));
                }
                break;
        }
    }
    auto* status = new ZJsonObject(res, "Status");
    status->HashWrite("State", "Enabled");
    status->HashWrite("Health", "OK");
    status->HashWrite("HealthRollup", "OK");
    res->HashWrite("Status", status);
    auto* location = new ZJsonObject(res, "Location");
    location->HashWrite("ServiceLabel", "Slot 3");
    location->HashWrite("LocationOrdinalValue", 3);
    location->HashWrite("LocationType", "Slot");
    res->HashWrite("Location", location);
    auto* readings = new ZJsonArray(res, "Readings", ZJsonArray::ARRAY_ATTR_OdataCount);
    for (int i = 0; i < 10; ++i) readings->ListWrite(-1, 100 + i);
    res->HashWrite("Readings", readings);
    res->ApplyRedisChanges();
    return res;
}

// A collection with `members` members, each made, filled and applied the
// way a handler does it.
ZObject* BuildCollection(int members) {
    auto* systems = new ZResourceCollection(nullptr, gSystemsSchema, "/redfish/v1/Systems");
    for (int i = 0; i < members; ++i) {
        const std::string id = std::to_string(systems->GetFreeMemberId());
        auto* system = new ZResource(systems, gSystemSchema, id);
        system->HashWrite("Id", id);
        system->HashWrite("Name", "System " + id);
        system->HashWrite("PowerState", "On");
        auto* status = new ZJsonObject(system, "Status");
        status->HashWrite("State", "Enabled");
        status->HashWrite("Health", "OK");
        system->HashWrite("Status", status);
        system->ApplyRedisChanges();
    }
    return systems;
}

// ---------------------------------------------------------------------------
// The comparison loop
// ---------------------------------------------------------------------------

struct Totals {
    double libraryNs = 0;
    double floorNs = 0;
    int64_t runs = 0;
    int64_t units = 0;    // resources built per run
    size_t commands = 0;  // store commands per run
    // Per iteration: the library's time per resource and its ratio to the
    // floor, so that the summary can show how far one iteration strays.
    std::vector<double> perUnitNs;
    std::vector<double> ratios;
};
std::map<std::string, Totals> gTotals;
std::vector<std::string> gOrder;

double Since(Clock::time_point t0) {
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
}

// `scoped`: the builds run inside a RedisConnectionScope, as the frame runs
// every start-up stage; without it they run as on a thread of the
// plug-in's own, where each constructor and apply takes a connection for
// itself.
std::function<ZObject*()> Scoped(const std::function<ZObject*()>& rawBuild, bool scoped) {
    return [rawBuild, scoped]() -> ZObject* {
        if (!scoped) return rawBuild();
        Orbel::RedisConnectionScope stage;
        return rawBuild();
    };
}

// An unrecorded warm-up, then two recordings that must agree; the floor
// replays the second. Empty text on success, else why it failed.
std::string RecordFloor(const std::function<ZObject*()>& build, Script& script) {
    Retire(build());
    Script first;
    ZObject* root = nullptr;
    bool recorded = Record([&] { root = build(); }, first);
    Retire(root);
    recorded = recorded && Record([&] { root = build(); }, script);
    Retire(root);
    if (!recorded || script.empty()) return "cannot record the library's commands";
    if (first != script) return "the library's command sequence differs between two builds";
    if (std::getenv("ORBEL_BENCH_DUMP") != nullptr) {  // what one build sends
        for (const OrbelBench::Command& cmd : script) {
            for (const std::string& arg : cmd) std::printf("%s ", arg.c_str());
            std::printf("\n");
        }
    }
    return std::string();
}

// The floor is the library's recorded commands replayed with plain hiredis
// in one round trip (the least any client could do); with
// ORBEL_BENCH_SEQUENTIAL_FLOOR=1 set, one round trip per command, as the
// floor was measured before the applies were pipelined.
bool SequentialFloor() {
    static const bool sequential = [] {
        const char* v = std::getenv("ORBEL_BENCH_SEQUENTIAL_FLOOR");
        return v != nullptr && std::string(v) == "1";
    }();
    return sequential;
}

bool RunFloor(const Replay& floor) {
    return SequentialFloor() ? floor.Run(gCtx) : floor.RunPipelined(gCtx);
}

void Compare(benchmark::State& state, const std::string& name,
             const std::function<ZObject*()>& rawBuild, int64_t units, bool scoped) {
    const std::function<ZObject*()> build = Scoped(rawBuild, scoped);
    Script script;
    const std::string failure = RecordFloor(build, script);
    if (!failure.empty()) {
        state.SkipWithError(failure.c_str());
        return;
    }
    const Replay floor(script);

    double libraryNs = 0;
    double floorNs = 0;
    bool ok = true;
    int64_t n = 0;
    std::vector<double> perUnitNs;
    std::vector<double> ratios;
    ZObject* root = nullptr;
    for (auto _ : state) {
        const bool libraryFirst = (n++ & 1) == 0;
        double libNs = 0;
        double floNs = 0;
        for (int turn = 0; turn < 2; ++turn) {
            if ((turn == 0) == libraryFirst) {
                Clock::time_point t0 = Clock::now();
                root = build();
                libNs = Since(t0);
                state.PauseTiming();
                Retire(root);
                state.ResumeTiming();
            } else {
                Clock::time_point t0 = Clock::now();
                ok = RunFloor(floor) && ok;
                floNs = Since(t0);
            }
        }
        libraryNs += libNs;
        floorNs += floNs;
        perUnitNs.push_back(libNs / static_cast<double>(units));
        ratios.push_back(libNs / floNs);
    }
    if (!ok) {
        state.SkipWithError("a replayed command failed");
        return;
    }
    const double perUnit = static_cast<double>(n * units);
    state.counters["library_us"] = libraryNs / perUnit / 1000.0;
    state.counters["floor_us"] = floorNs / perUnit / 1000.0;
    state.counters["ratio"] = libraryNs / floorNs;
    state.counters["commands"] = static_cast<double>(floor.Size());
    if (gTotals.count(name) == 0) gOrder.push_back(name);
    Totals& t = gTotals[name];
    t.libraryNs += libraryNs;
    t.floorNs += floorNs;
    t.runs += n;
    t.units = units;
    t.commands = floor.Size();
    t.perUnitNs.insert(t.perUnitNs.end(), perUnitNs.begin(), perUnitNs.end());
    t.ratios.insert(t.ratios.end(), ratios.begin(), ratios.end());
}

void BM_OneResource(benchmark::State& state) {
    Compare(state, "OneResource", BuildOneResource, 1, true);
}

void BM_OneResourceUnscoped(benchmark::State& state) {
    Compare(state, "OneResource/unscoped", BuildOneResource, 1, false);
}

void BM_Members(benchmark::State& state) {
    const int members = static_cast<int>(state.range(0));
    Compare(
        state, "Members/" + std::to_string(members), [members] { return BuildCollection(members); },
        members, true);
}

BENCHMARK(BM_OneResource)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OneResourceUnscoped)->Unit(benchmark::kMicrosecond);
// Fixed iteration counts: a 10000-member run takes seconds on its own.
BENCHMARK(BM_Members)->Arg(100)->Iterations(20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Members)->Arg(1000)->Iterations(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Members)->Arg(10000)->Iterations(2)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------
// Heap held by live nodes
// ---------------------------------------------------------------------------

struct HeapFigure {
    const char* what;
    double bytes;
    double blocks;
    bool isMember = false;  // the figure the heap goal is about
};

// Heap bytes and blocks per node, averaged over `count` nodes made by `make`
// and measured while they are alive. The nodes hang below a parent made by
// `setup` (whose own cost is not counted) and are retired with it.
HeapFigure HeapPer(const char* what, int count, const std::function<ZObject*()>& setup,
                   const std::function<void(ZObject*, int)>& make) {
    ZObject* parent = setup();
    const long long bytes0 = gLiveBytes.load();
    const long long blocks0 = gLiveBlocks.load();
    for (int i = 0; i < count; ++i) make(parent, i);
    const long long bytes = gLiveBytes.load() - bytes0;
    const long long blocks = gLiveBlocks.load() - blocks0;
    Retire(parent);
    return {what, static_cast<double>(bytes) / count, static_cast<double>(blocks) / count};
}

ZObject* HeapParent() {
    return new ZResource(nullptr, gChassisSchema, "/redfish/v1/Chassis/Heap");
}

std::vector<HeapFigure> MeasureHeap() {
    constexpr int kCount = 1000;
    std::vector<HeapFigure> figures;
    figures.push_back(HeapPer(
        "ZJsonObject, no properties", kCount, HeapParent,
        [](ZObject* parent, int i) { new ZJsonObject(parent, "Object" + std::to_string(i)); }));
    // Applied values live in the store, not in the node: the figure stays.
    figures.push_back(HeapPer("ZJsonObject, 5 applied properties", kCount, HeapParent,
                              [](ZObject* parent, int i) {
                                  const std::string id = "Object" + std::to_string(i);
                                  auto* obj = new ZJsonObject(parent, id);
                                  for (int p = 0; p < 5; ++p) {
                                      obj->HashWrite("Property" + std::to_string(p), p);
                                  }
                                  parent->HashWrite(id, obj);
                                  parent->ApplyRedisChanges();
                              }));
    figures.push_back(HeapPer(
        "member resource (defaults, GETQ/PATCHQ)", kCount,
        [] { return new ZResourceCollection(nullptr, gSystemsSchema, "/redfish/v1/Systems"); },
        [](ZObject* parent, int) {
            auto* systems = static_cast<ZResourceCollection*>(parent);
            new ZResource(systems, gSystemSchema, std::to_string(systems->GetFreeMemberId()));
        }));
    figures.back().isMember = true;
    figures.push_back(HeapPer(
        "the OneResource tree (resource + 4 nodes)", 100, HeapParent, [](ZObject* parent, int i) {
            auto* res = new ZResource(parent, gChassisSchema, "Tree" + std::to_string(i));
            for (int p = 0; p < 20; ++p) {
                res->HashWrite("Property" + std::to_string(p), p);
            }
            auto* status = new ZJsonObject(res, "Status");
            status->HashWrite("State", "Enabled");
            res->HashWrite("Status", status);
            auto* location = new ZJsonObject(res, "Location");
            location->HashWrite("LocationType", "Slot");
            res->HashWrite("Location", location);
            auto* readings = new ZJsonArray(res, "Readings", ZJsonArray::ARRAY_ATTR_OdataCount);
            for (int r = 0; r < 10; ++r) readings->ListWrite(-1, r);
            res->HashWrite("Readings", readings);
            res->ApplyRedisChanges();
        }));
    return figures;
}

// ---------------------------------------------------------------------------
// Instructions (callgrind)
// ---------------------------------------------------------------------------
// On this host the socket round trip dominates the time of a command, so a
// time ratio near 1 can hide a library that burns several times the floor's
// CPU; on the 32-bit controller the CPU is the scarce part. The program
// therefore starts itself once more under callgrind, which counts the
// instructions of one build of Members/N (library) and of one replay of its
// recorded commands (floor), each between a zeroing and a dump of the
// counters. Instruction counts do not depend on the machine's load.

const char kInstrFlag[] = "--orbel-instructions";
constexpr int kInstrMembers[] = {100, 1000};
constexpr double kInstrGoal = 1.3;
constexpr double kTimeGoal = 2.0;
// Half of what a member resource held before the nodes made their lists on
// first use (3760 bytes, 64-bit).
constexpr double kMemberHeapGoal = 3760.0 / 2;

// The child's side, under callgrind started with --instr-atstart=no.
int RunInstructionChild() {
    CALLGRIND_START_INSTRUMENTATION;
    for (int members : kInstrMembers) {
        const std::function<ZObject*()> build =
            Scoped([members] { return BuildCollection(members); }, true);
        Script script;
        const std::string failure = RecordFloor(build, script);
        if (!failure.empty()) {
            std::fprintf(stderr, "bench: %s\n", failure.c_str());
            return 1;
        }
        const Replay floor(script);
        const std::string libraryTag = "library/" + std::to_string(members);
        const std::string floorTag = "floor/" + std::to_string(members);
        CALLGRIND_ZERO_STATS;
        ZObject* root = build();
        CALLGRIND_DUMP_STATS_AT(libraryTag.c_str());
        Retire(root);
        CALLGRIND_ZERO_STATS;
        const bool ok = RunFloor(floor);
        CALLGRIND_DUMP_STATS_AT(floorTag.c_str());
        if (!ok) {
            std::fprintf(stderr, "bench: a replayed command failed under callgrind\n");
            return 1;
        }
    }
    return 0;
}

struct InstrFigure {
    double library = 0;  // instructions of one build
    double floor = 0;    // instructions of one replay
};

// Runs this program under callgrind; the figures per member count, or an
// empty map with the reason in `why`.
std::map<int, InstrFigure> MeasureInstructions(std::string* why) {
    std::map<int, InstrFigure> figures;
    std::map<std::string, double> totals;
    if (!OrbelBench::RunSelfUnderCallgrind(kInstrFlag, false, &totals, why)) return figures;
    for (int members : kInstrMembers) {
        auto lib = totals.find("library/" + std::to_string(members));
        auto flo = totals.find("floor/" + std::to_string(members));
        if (lib == totals.end() || flo == totals.end() || flo->second <= 0) continue;
        figures[members] = {lib->second, flo->second};
    }
    if (figures.empty()) *why = "no counts for the member trees";
    return figures;
}

// ---------------------------------------------------------------------------
// Summary
// ---------------------------------------------------------------------------

const char* Verdict(bool met) {
    return met ? "met" : "NOT met";
}

void MinMax(const std::vector<double>& v, double* lo, double* hi) {
    *lo = v.empty() ? 0 : *std::min_element(v.begin(), v.end());
    *hi = v.empty() ? 0 : *std::max_element(v.begin(), v.end());
}

void PrintSummary(const std::vector<HeapFigure>& heap, const std::map<int, InstrFigure>& instr,
                  const std::string& instrWhy) {
    if (!gOrder.empty()) {
        std::printf("\nObject model/plain hiredis (same commands, one connection), time:\n");
        std::printf("  %-20s %9s %12s %12s %8s  %s\n", "tree", "commands", "library/us",
                    "floor/us", "ratio", "ratio per iteration (min-max)");
        for (const std::string& name : gOrder) {
            const Totals& t = gTotals[name];
            const double units = static_cast<double>(t.runs * t.units);
            double lo = 0;
            double hi = 0;
            MinMax(t.ratios, &lo, &hi);
            std::printf("  %-20s %9zu %12.2f %12.2f %7.3fx  %.3f-%.3fx\n", name.c_str(),
                        t.commands, t.libraryNs / units / 1000.0, t.floorNs / units / 1000.0,
                        t.libraryNs / t.floorNs, lo, hi);
        }
        std::printf("  (library/us and floor/us: per resource built)\n");

        // Flatness: the library's time per member at each size against the
        // 100-member row, with the range that single iterations give.
        auto row = gTotals.find("Members/100");
        if (row != gTotals.end() && row->second.runs > 0) {
            const Totals& base = row->second;
            const double basePer = base.libraryNs / static_cast<double>(base.runs * base.units);
            double baseLo = 0;
            double baseHi = 0;
            MinMax(base.perUnitNs, &baseLo, &baseHi);
            std::printf("  per-member time against Members/100 (one run; range from single "
                        "iterations):\n");
            for (const char* name : {"Members/100", "Members/1000", "Members/10000"}) {
                auto it = gTotals.find(name);
                if (it == gTotals.end() || it->second.runs == 0) continue;
                const Totals& t = it->second;
                const double per = t.libraryNs / static_cast<double>(t.runs * t.units);
                double lo = 0;
                double hi = 0;
                MinMax(t.perUnitNs, &lo, &hi);
                std::printf("    %-14s %8.2f us/member (%.2f-%.2f)  %.3fx (%.3f-%.3fx)\n", name,
                            per / 1000.0, lo / 1000.0, hi / 1000.0, per / basePer, lo / baseHi,
                            hi / baseLo);
            }
        }
    }

    std::printf("\nObject model/plain hiredis, instructions (callgrind, one build of Members/N "
                "against one replay of its commands):\n");
    if (instr.empty()) {
        std::printf("  not measured: %s\n", instrWhy.c_str());
    }
    for (const auto& entry : instr) {
        const std::string name = "Members/" + std::to_string(entry.first);
        const InstrFigure& f = entry.second;
        const double ratio = f.library / f.floor;
        std::printf("  %-14s library %7.2f M, floor %7.2f M, %6.0f instr/member: %.3fx "
                    "(goal <= %.2fx: %s)",
                    name.c_str(), f.library / 1e6, f.floor / 1e6,
                    f.library / static_cast<double>(entry.first), ratio, kInstrGoal,
                    Verdict(ratio <= kInstrGoal));
        auto t = gTotals.find(name);
        if (t != gTotals.end() && t->second.floorNs > 0) {
            const double timeRatio = t->second.libraryNs / t->second.floorNs;
            std::printf("; time %.3fx (goal <= %.2fx: %s)", timeRatio, kTimeGoal,
                        Verdict(timeRatio <= kTimeGoal));
        }
        std::printf("\n");
    }

    std::printf("\nHeap held per live node (64-bit build, operator new bytes, averaged):\n");
    for (const HeapFigure& f : heap) {
        std::printf("  %-40s %8.1f bytes in %5.1f blocks", f.what, f.bytes, f.blocks);
        if (f.isMember) {
            std::printf("  (goal <= %.0f: %s)", kMemberHeapGoal,
                        Verdict(f.bytes <= kMemberHeapGoal));
        }
        std::printf("\n");
    }
}

// Keeps this process, and the server it starts, on the CPU it runs on: a
// round trip is then a hand-over on one CPU. Spread over two CPUs of a
// virtual machine, every round trip waited for an idle CPU to wake up, which
// varied tenfold between runs (8 to 80 us) and drowned what the library
// itself costs. The floor and the library share the same conditions.
void PinToOneCpu() {
    const int cpu = sched_getcpu();
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu >= 0 ? cpu : 0, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) {
        std::perror("bench: sched_setaffinity (running unpinned)");
    }
}

}  // namespace

int main(int argc, char** argv) {
    // The callgrind child: the same set-up, then only the counted builds.
    const bool instructionChild = argc == 2 && std::strcmp(argv[1], kInstrFlag) == 0;
    if (instructionChild) argc = 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    PinToOneCpu();  // before the server starts, which inherits it
    if (!OrbelBench::StartBenchStore()) return 1;
    // The nodes register with the application; its log goes under the
    // benchmark's sysroot.
    Orbel::ZApplication app("RF_Bench");
    gApp = &app;
    gCtx = redisConnectUnix(OrbelBench::BenchSocketPath().c_str());
    if (gCtx == nullptr || gCtx->err != 0) {
        std::fprintf(stderr, "bench: cannot connect to %s\n",
                     OrbelBench::BenchSocketPath().c_str());
        return 1;
    }
    ZSchema chassis("Chassis", "v1_25_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    ZSchema systems("ComputerSystemCollection", "", ZSchema::CRUDQ_READ, "ComputerSystem");
    ZSchema system("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    gChassisSchema = &chassis;
    gSystemsSchema = &systems;
    gSystemSchema = &system;

    if (instructionChild) {
        const int rc = RunInstructionChild();
        redisFree(gCtx);
        return rc;
    }
    benchmark::RunSpecifiedBenchmarks();
    const std::vector<HeapFigure> heap = MeasureHeap();
    std::string instrWhy;
    const std::map<int, InstrFigure> instr = MeasureInstructions(&instrWhy);
    PrintSummary(heap, instr, instrWhy);

    redisFree(gCtx);
    benchmark::Shutdown();
    return 0;
}
