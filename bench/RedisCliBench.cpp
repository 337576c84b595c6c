// What the store client's wrappers cost over plain hiredis.
//
// Each benchmark sends one command both ways on the same connection, in
// the same loop: through the library's wrapper and through plain
// redisCommand, alternating which goes first so neither profits from a
// warmer cache. It reports both per-call times and their ratio
// (wrapper/plain) as counters; a summary line per command and the overall
// geometric mean are printed at the end. Goal: at most 1.10x.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "BenchStore.h"
#include "RedisCli.h"

namespace {

using Clock = std::chrono::steady_clock;

redisContext* gCtx = nullptr;

struct Result {
    double wrapperNs = 0;
    double plainNs = 0;
    int64_t calls = 0;
};
// Totals over every run of each benchmark (repetitions included), for the
// summary: the more calls behind a ratio, the less one noisy run moves it.
std::map<std::string, Result> gResults;
std::vector<std::string> gOrder;

// A plain command whose reply is checked only for being there, as a caller
// of bare hiredis would at the least.
bool Plain(void* raw) {
    redisReply* r = static_cast<redisReply*>(raw);
    bool ok = r != nullptr && r->type != REDIS_REPLY_ERROR;
    if (r != nullptr) freeReplyObject(r);
    return ok;
}

using Op = std::function<bool(redisContext*)>;

double TimeNs(const Op& op, redisContext* c, bool& ok) {
    Clock::time_point t0 = Clock::now();
    ok = op(c) && ok;
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
}

// `prepare` runs (untimed by the counters) before each timed call, for
// commands that consume what they act on.
void Compare(benchmark::State& state, const std::string& name, const Op& wrapper, const Op& plain,
             const Op& prepare = Op()) {
    double wrapperNs = 0;
    double plainNs = 0;
    bool ok = true;
    int64_t n = 0;
    for (auto _ : state) {
        bool wrapperFirst = (n++ & 1) == 0;
        for (int turn = 0; turn < 2; ++turn) {
            bool useWrapper = (turn == 0) == wrapperFirst;
            if (prepare) prepare(gCtx);
            if (useWrapper) {
                wrapperNs += TimeNs(wrapper, gCtx, ok);
            } else {
                plainNs += TimeNs(plain, gCtx, ok);
            }
        }
    }
    if (!ok) {
        state.SkipWithError("a command failed");
        return;
    }
    state.counters["wrapper_us"] = wrapperNs / static_cast<double>(n) / 1000.0;
    state.counters["plain_us"] = plainNs / static_cast<double>(n) / 1000.0;
    state.counters["ratio"] = wrapperNs / plainNs;
    if (gResults.count(name) == 0) gOrder.push_back(name);
    Result& total = gResults[name];
    total.wrapperNs += wrapperNs;
    total.plainNs += plainNs;
    total.calls += n;
}

void Seed() {
    Plain(redisCommand(gCtx, "FLUSHALL"));
    for (int i = 0; i < 10; ++i) {
        Plain(redisCommand(gCtx, "HSET bench:hash field%d value-of-field-%d", i, i));
        Plain(redisCommand(gCtx, "RPUSH bench:list element-%d", i));
    }
}

void BM_HSET(benchmark::State& state) {
    Compare(
        state, "HSET",
        [](redisContext* c) {
            return Orbel::RedisHashSet(c, "bench:hash", "Name", "Bench value") == 0;
        },
        [](redisContext* c) {
            return Plain(redisCommand(c, "HSET %s %s %s", "bench:hash", "Name", "Bench value"));
        });
}

void BM_HGET(benchmark::State& state) {
    Compare(
        state, "HGET",
        [](redisContext* c) {
            std::string value;
            return Orbel::RedisHashGet(c, "bench:hash", "field3", value) == 0;
        },
        [](redisContext* c) {
            return Plain(redisCommand(c, "HGET %s %s", "bench:hash", "field3"));
        });
}

void BM_HGETALL(benchmark::State& state) {
    Compare(
        state, "HGETALL",
        [](redisContext* c) {
            std::map<std::string, std::string> all;
            return Orbel::RedisHashGetAll(c, "bench:hash", all) == 0;
        },
        [](redisContext* c) { return Plain(redisCommand(c, "HGETALL %s", "bench:hash")); });
}

void BM_RPUSH(benchmark::State& state) {
    Compare(
        state, "RPUSH",
        [](redisContext* c) { return Orbel::RedisListPushBack(c, "bench:grow", "element") == 0; },
        [](redisContext* c) {
            return Plain(redisCommand(c, "RPUSH %s %s", "bench:grow", "element"));
        });
    Plain(redisCommand(gCtx, "UNLINK bench:grow"));
}

void BM_LRANGE(benchmark::State& state) {
    Compare(
        state, "LRANGE",
        [](redisContext* c) {
            std::vector<std::string> out;
            return Orbel::RedisListGetAll(c, "bench:list", 0, -1, out) == 0;
        },
        [](redisContext* c) {
            return Plain(redisCommand(c, "LRANGE %s %d %d", "bench:list", 0, -1));
        });
}

void BM_LINDEX(benchmark::State& state) {
    Compare(
        state, "LINDEX",
        [](redisContext* c) {
            std::string value;
            return Orbel::RedisListGet(c, "bench:list", 4, value) == 0;
        },
        [](redisContext* c) { return Plain(redisCommand(c, "LINDEX %s %d", "bench:list", 4)); });
}

void BM_TYPE(benchmark::State& state) {
    Compare(
        state, "TYPE", [](redisContext* c) { return Orbel::RedisType(c, "bench:hash") == 1; },
        [](redisContext* c) { return Plain(redisCommand(c, "TYPE %s", "bench:hash")); });
}

// The library deletes with UNLINK; the floor sends the same command. The
// key is recreated before each timed call so both delete a real key.
void BM_UNLINK(benchmark::State& state) {
    Compare(
        state, "UNLINK",
        [](redisContext* c) { return Orbel::RedisDelTable(c, "bench:doomed") == 0; },
        [](redisContext* c) { return Plain(redisCommand(c, "UNLINK %s", "bench:doomed")); },
        [](redisContext* c) { return Plain(redisCommand(c, "SET bench:doomed v")); });
}

BENCHMARK(BM_HSET);
BENCHMARK(BM_HGET);
BENCHMARK(BM_HGETALL);
BENCHMARK(BM_RPUSH);
BENCHMARK(BM_LRANGE);
BENCHMARK(BM_LINDEX);
BENCHMARK(BM_TYPE);
BENCHMARK(BM_UNLINK);

void PrintSummary() {
    if (gOrder.empty()) return;
    double logSum = 0;
    double worst = 0;
    std::printf("\nRedisCli wrappers/plain hiredis, per command (goal <= 1.10x):\n");
    for (const std::string& name : gOrder) {
        const Result& r = gResults[name];
        double ratio = r.wrapperNs / r.plainNs;
        logSum += std::log(ratio);
        if (ratio > worst) worst = ratio;
        double calls = static_cast<double>(r.calls);
        std::printf("  %-8s wrapper %8.2f us  plain %8.2f us  ratio %.3fx\n", name.c_str(),
                    r.wrapperNs / calls / 1000.0, r.plainNs / calls / 1000.0, ratio);
    }
    double geo = std::exp(logSum / static_cast<double>(gOrder.size()));
    std::printf("RedisCli summary: geometric mean %.3fx, worst %.3fx, goal <= 1.10x: %s\n", geo,
                worst, worst <= 1.10 ? "met" : "NOT met");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (!OrbelBench::StartBenchStore()) return 1;
    gCtx = redisConnectUnix(OrbelBench::BenchSocketPath().c_str());
    if (gCtx == nullptr || gCtx->err != 0) {
        std::fprintf(stderr, "bench: cannot connect to %s\n",
                     OrbelBench::BenchSocketPath().c_str());
        return 1;
    }
    Seed();
    benchmark::RunSpecifiedBenchmarks();
    PrintSummary();
    redisFree(gCtx);
    benchmark::Shutdown();
    return 0;
}
