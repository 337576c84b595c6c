// What checking a 50-property PATCH body against its template costs, next
// to the least store traffic any such request causes.
//
// `Verify` runs VerifyUserInputData on a 50-property body (strings with
// enumerations, patterns and lengths, numbers with ranges, a nested object,
// arrays) against a template describing 60 properties, messages only
// returned. `Floor` sends, with plain hiredis on one connection, what every
// request costs the store at the least: HGETALL of the 50-field body hash,
// HSET of the response status and PUBLISH of the answer. The two alternate
// in one loop; the summary prints both and the ratio. The request's whole
// time through the dispatcher is larger than the floor, so the ratio is an
// upper bound of what verification adds (goal: at most 0.10).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "BenchStore.h"
#include "FixedPaths.h"
#include "Orbel.h"
#include "ZLogPrint.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;

namespace {

using Clock = std::chrono::steady_clock;

redisContext* gCtx = nullptr;
ZUserInputTemplate* gTemplate = nullptr;
UsrInCache gBody;
double gVerifyNs = 0, gFloorNs = 0;
int64_t gRounds = 0;

// 20 strings, 20 numbers, a 6-member object, 4 arrays of 2 items; 10 more
// properties that the body does not send.
void MakeTemplateAndBody() {
    std::string text = "{";
    auto add = [&](const std::string& entry) { text += (text.size() > 1 ? "," : "") + entry; };
    for (int i = 0; i < 20; ++i) {
        const std::string name = "Str" + std::to_string(i);
        if (i % 2 == 0) {
            add("'" + name + "':'S,n@p,c@@M:32,e:Alpha,Beta,Gamma,Delta'");
            gBody["/" + name] = {USRIN_STRING, "Gamma", 0};
        } else {
            add("'" + name + "':'S@p,c@@m:1,M:64,p:^[A-Za-z0-9_.-]+$'");
            gBody["/" + name] = {USRIN_STRING, "host-" + std::to_string(i) + ".example", 0};
        }
    }
    for (int i = 0; i < 20; ++i) {
        const std::string name = "Num" + std::to_string(i);
        add("'" + name + "':'u,n@p,c@@m:0,M:65535'");
        gBody["/" + name] = {USRIN_UNUM, std::to_string(100 + i), 0};
    }
    add("'Boot':'o@p,c@@'{'Target':'S,n@p,c@@e:None,Pxe,Hdd,Cd','Enabled':'b@p,c@@',"
        "'Mode':'S@p,c@@e:Legacy,UEFI','Retries':'u@p,c@@M:10','Uri':'S,n@p,c@@M:255',"
        "'Order':'a@p,c@@'['S@p,c@@']}");
    gBody["/Boot"] = {USRIN_OBJECT, "", 0};
    gBody["/Boot/Target"] = {USRIN_STRING, "Pxe", 0};
    gBody["/Boot/Enabled"] = {USRIN_BOOL, "true", 0};
    gBody["/Boot/Mode"] = {USRIN_STRING, "UEFI", 0};
    gBody["/Boot/Retries"] = {USRIN_UNUM, "3", 0};
    gBody["/Boot/Uri"] = {USRIN_NULL, "", 0};
    for (int i = 0; i < 4; ++i) {
        const std::string name = "List" + std::to_string(i);
        add("'" + name + "':'a@p,c@@m:0,M:8'['S@p,c@@M:16']");
        gBody["/" + name] = {USRIN_ARRAY, "", 0};
    }
    for (int i = 0; i < 10; ++i) add("'Spare" + std::to_string(i) + "':'S@@@'");
    text += "}";
    // 20 + 20 + 6 + 4 = 50 properties; the four arrays' items come on top.
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 2; ++j) {
            gBody["/List" + std::to_string(i) + "/" + std::to_string(j)] = {USRIN_STRING, "x", 0};
        }
    }
    CreateDirTree(UserInputTemplateDir());
    std::ofstream(UserInputTemplateDir() + "Bench.dat") << text;
    std::string name = "Bench";
    gTemplate = new ZUserInputTemplate(nullptr, &name, true);
}

bool Command(const char* format, ...) {
    va_list args;
    va_start(args, format);
    auto* reply = static_cast<redisReply*>(redisvCommand(gCtx, format, args));
    va_end(args);
    const bool ok = reply != nullptr && reply->type != REDIS_REPLY_ERROR;
    if (reply != nullptr) freeReplyObject(reply);
    return ok;
}

void SeedBodyHash() {
    for (const auto& entry : gBody) {
        Command("HSET Bench:Body %s %s", entry.first.c_str(), entry.second.value.c_str());
    }
}

void BM_VerifyAgainstFloor(benchmark::State& state) {
    sUsrInVerifyArgs args;
    args.method = eReqUpdate;
    args.input = &gBody;
    args.schemaName = "Bench";
    bool ok = true;
    double verifyNs = 0, floorNs = 0;
    for (auto _ : state) {
        Clock::time_point t0 = Clock::now();
        ok = ZUserInputTemplate::VerifyUserInputData(gTemplate, args, nullptr) == RT_SUCCESS && ok;
        Clock::time_point t1 = Clock::now();
        ok = Command("HGETALL Bench:Body") && ok;
        ok = Command("HSET Bench:Request &&Status 200") && ok;
        ok = Command("PUBLISH Bench:Return Bench:Request") && ok;
        Clock::time_point t2 = Clock::now();
        verifyNs += std::chrono::duration<double, std::nano>(t1 - t0).count();
        floorNs += std::chrono::duration<double, std::nano>(t2 - t1).count();
    }
    if (!ok) state.SkipWithError("a verification or a command failed");
    gVerifyNs += verifyNs;
    gFloorNs += floorNs;
    gRounds += state.iterations();
    state.counters["verify_us"] = verifyNs / 1000.0 / static_cast<double>(state.iterations());
    state.counters["floor_us"] = floorNs / 1000.0 / static_cast<double>(state.iterations());
    state.counters["ratio"] = floorNs > 0 ? verifyNs / floorNs : 0;
}
BENCHMARK(BM_VerifyAgainstFloor)->Name("Verify50/vs_floor");

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
    // Each verification logs one info line, echoed to standard output as a
    // plug-in's would be: it goes to /dev/null, the report to standard error.
    zLogPrint = nullptr;
    std::fflush(stdout);
    const int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) {
        dup2(devNull, STDOUT_FILENO);
        close(devNull);
    }
    MakeTemplateAndBody();
    if (gTemplate->GetLoadResult() != RT_SUCCESS) {
        std::fprintf(stderr, "bench: the template did not load\n");
        return 1;
    }
    SeedBodyHash();
    benchmark::ConsoleReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (gRounds > 0) {
        std::fprintf(stderr,
                     "\nVerification of a 50-property PATCH body (goal <= 0.10 of the floor):\n");
        std::fprintf(stderr, "  verify %8.2f us  floor %8.2f us  ratio %.3f\n",
                     gVerifyNs / 1000.0 / static_cast<double>(gRounds),
                     gFloorNs / 1000.0 / static_cast<double>(gRounds),
                     gFloorNs > 0 ? gVerifyNs / gFloorNs : 0.0);
    }
    delete gTemplate;
    redisFree(gCtx);
    benchmark::Shutdown();
    return 0;
}
