// What raising one Redfish event costs over the store traffic it causes.
//
// The library builds an event (one record with two message arguments, and
// for the alert form the OEM block with the machine's vital product data),
// hands it to SendRedfishEvent, which stores the tree and runs the real
// "enqueueEvent" script of tests/support/scripts/. The floor sends the very
// same commands with plain hiredis: a MONITOR connection records what the
// library sends while it raises one event (untimed, after a warm-up), and the
// floor replays that recording with redisCommandArgv. The commands the script
// itself runs inside the server are not replayed: the floor's EVALSHA runs
// them as the library's does.
//
//   AlertEvent          the alert form on a thread without a store
//                       connection: the event opens one of its own
//   Event               the same without the OEM block
//   AlertEvent/scoped   the alert form on a thread that has a
//                       RedisConnectionScope (a dispatcher thread serving a
//                       request): the event uses that connection
//
// Two floors: the recording on the bench's open connection, and the
// recording on a connection opened (and closed) for it, as a plain program
// raising an event from a thread without one would. Library and floors
// alternate in one loop; between raises the event's keys and the queue are
// deleted and the retired nodes freed, outside the timed parts. The process
// and its server run on one CPU (see PinToOneCpu in ObjectModelBench.cpp).
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <sched.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "BenchStore.h"
#include "CommandRecording.h"
#include "EventScripts.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZRedfishEvent.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace {

using Clock = std::chrono::steady_clock;
using Orbel::ZApplication;
using Orbel::ZJsonObject;
using Orbel::ZRedfishEvent;
using Orbel::ZResource;

redisContext* gCtx = nullptr;  // the floor's and the clean-up's connection (main thread)
ZApplication* gApp = nullptr;
ZResource* gOrigin = nullptr;

// Raises one event the way a plug-in does; returns its id.
std::string RaiseEvent(bool alert) {
    auto* ev = new ZRedfishEvent("Fan event");
    ZJsonObject* rec =
        ev->CreateEventRecord("ResourceEvent.1.0", "ResourceErrorsDetected", "Warning",
                              "Fan 2 runs below its lower limit.", gOrigin);
    ev->EventRecord_AppendMessageArgs(rec, "Fan 2");
    ev->EventRecord_AppendMessageArgs(rec, "1200");
    if (alert) ev->EventRecord_NewAlertOemObj(rec);
    std::string id = ev->GetEventId();
    ZApplication::SendRedfishEvent(ev);
    return id;
}

// What the event service would do after delivering: remove the event's keys
// and the queue. Also frees the retired nodes.
void CleanUp(const std::string& id) {
    const std::string root = "&&" + id;
    const std::string rec = root + "/Events/0";
    redisReply* r = static_cast<redisReply*>(redisCommand(
        gCtx, "UNLINK %s %s/Events %s %s/MessageArgs %s/Oem %s/Oem/Veltra %s", root.c_str(),
        root.c_str(), rec.c_str(), rec.c_str(), rec.c_str(), rec.c_str(), OrbelTest::kEventQueue));
    if (r != nullptr) freeReplyObject(r);
    gApp->RecycleProcess();
}

double Since(Clock::time_point t0) {
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
}

struct Totals {
    double libraryNs = 0;
    double openNs = 0;
    double connectNs = 0;
    int64_t runs = 0;
    size_t commands = 0;
};
std::map<std::string, Totals> gTotals;
std::vector<std::string> gOrder;

void Compare(benchmark::State& state, const std::string& name, bool alert, bool scoped) {
    // A thread serving a request holds a scope for the whole request.
    std::optional<Orbel::RedisConnectionScope> scope;
    if (scoped) scope.emplace();

    CleanUp(RaiseEvent(alert));  // warm-up
    OrbelBench::Script script;
    std::string id;
    const bool recorded = OrbelBench::Record(
        OrbelBench::BenchSocketPath(), gCtx, [&] { id = RaiseEvent(alert); }, script);
    CleanUp(id);
    if (!recorded || script.empty()) {
        state.SkipWithError("cannot record the library's commands");
        return;
    }
    const OrbelBench::Replay floor(script);
    if (std::getenv("ORBEL_BENCH_DUMP") != nullptr) {  // what one raise sends
        for (const OrbelBench::Command& cmd : script) {
            for (const std::string& arg : cmd) std::printf("%s ", arg.c_str());
            std::printf("\n");
        }
    }

    double libraryNs = 0;
    double openNs = 0;
    double connectNs = 0;
    bool ok = true;
    int64_t n = 0;
    for (auto _ : state) {
        // The three take turns starting, so none always runs on a cold cache.
        const int first = static_cast<int>(n++ % 3);
        for (int k = 0; k < 3; ++k) {
            switch ((first + k) % 3) {
                case 0: {
                    Clock::time_point t0 = Clock::now();
                    id = RaiseEvent(alert);
                    libraryNs += Since(t0);
                    state.PauseTiming();
                    CleanUp(id);
                    state.ResumeTiming();
                    break;
                }
                case 1: {
                    Clock::time_point t0 = Clock::now();
                    ok = floor.Run(gCtx) && ok;
                    openNs += Since(t0);
                    break;
                }
                default: {
                    Clock::time_point t0 = Clock::now();
                    redisContext* c = redisConnectUnix(OrbelBench::BenchSocketPath().c_str());
                    ok = c != nullptr && c->err == 0 && floor.Run(c) && ok;
                    if (c != nullptr) redisFree(c);
                    connectNs += Since(t0);
                    break;
                }
            }
        }
    }
    if (!ok) {
        state.SkipWithError("a replayed command failed");
        return;
    }
    state.counters["library_us"] = libraryNs / static_cast<double>(n) / 1000.0;
    state.counters["floor_us"] = openNs / static_cast<double>(n) / 1000.0;
    state.counters["ratio"] = libraryNs / openNs;
    state.counters["ratio_connect"] = libraryNs / connectNs;
    state.counters["commands"] = static_cast<double>(floor.Size());
    if (gTotals.count(name) == 0) gOrder.push_back(name);
    Totals& t = gTotals[name];
    t.libraryNs += libraryNs;
    t.openNs += openNs;
    t.connectNs += connectNs;
    t.runs += n;
    t.commands = floor.Size();
}

void BM_AlertEvent(benchmark::State& state) {
    Compare(state, "AlertEvent", true, false);
}
void BM_Event(benchmark::State& state) {
    Compare(state, "Event", false, false);
}
void BM_AlertEventScoped(benchmark::State& state) {
    Compare(state, "AlertEvent/scoped", true, true);
}

BENCHMARK(BM_AlertEvent)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Event)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AlertEventScoped)->Unit(benchmark::kMicrosecond);

void PrintSummary() {
    if (gOrder.empty()) return;
    std::printf("\nRaising one event / plain hiredis (same commands):\n");
    std::printf("  %-18s %8s %11s %10s %7s %12s %7s\n", "event", "commands", "library/us",
                "floor/us", "ratio", "+connect/us", "ratio");
    for (const std::string& name : gOrder) {
        const Totals& t = gTotals[name];
        const double runs = static_cast<double>(t.runs);
        std::printf("  %-18s %8zu %11.2f %10.2f %6.3fx %12.2f %6.3fx\n", name.c_str(), t.commands,
                    t.libraryNs / runs / 1000.0, t.openNs / runs / 1000.0, t.libraryNs / t.openNs,
                    t.connectNs / runs / 1000.0, t.libraryNs / t.connectNs);
    }
    std::printf(
        "  (floor: on an open connection; +connect: on one opened for the event;"
        " goal <= 1.3x)\n");
}

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
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    PinToOneCpu();  // before the server starts, which inherits it
    if (!OrbelBench::StartBenchStore()) return 1;
    ZApplication app("RF_Bench");
    gApp = &app;
    gCtx = redisConnectUnix(OrbelBench::BenchSocketPath().c_str());
    std::string error;
    if (gCtx == nullptr || gCtx->err != 0 || !OrbelTest::LoadEventScripts(gCtx, &error)) {
        std::fprintf(stderr, "bench: no store or no scripts: %s\n", error.c_str());
        return 1;
    }
    Orbel::ZSchema chassis("Chassis", "v1_25_0");
    gOrigin = new ZResource(nullptr, &chassis, "/redfish/v1/Chassis/1");

    benchmark::RunSpecifiedBenchmarks();
    PrintSummary();

    redisFree(gCtx);
    benchmark::Shutdown();
    return 0;
}
