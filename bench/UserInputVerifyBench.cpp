// What checking a 50-property PATCH body against its template costs: next
// to the least store traffic any such request causes, and end to end
// through a dispatcher.
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
//
// `Dispatch` sends the same body as a real PATCH through a schema's update
// dispatcher (an application in this process, no Exec): the client writes
// the body tree (a hash with the 40 scalars and link fields, the object's
// hash, four lists) and the request hash, publishes the key and waits for
// it on its return channel; then, untimed, it deletes the lock key and the
// body. Requests alternate between two resources of the schema: one whose
// template is the 60-property one above, one whose template asks for no
// verification. The time is from the publication to the answer (the body
// writes are the front end's and left out, which makes the share larger).
// Goal: verification adds at most 10%.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <vector>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "BenchStore.h"
#include "FixedPaths.h"
#include "HTTP_MethodContext.h"
#include "Orbel.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;

namespace {

using Clock = std::chrono::steady_clock;

redisContext* gCtx = nullptr;
ZUserInputTemplate* gTemplate = nullptr;
UsrInCache gBody;
double gVerifyNs = 0, gFloorNs = 0;
int64_t gRounds = 0;
double gWithNs = 0, gOffNs = 0;
int64_t gDispatchRounds = 0;

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

// ---------------------------------------------------------------------------
// Through the dispatcher
// ---------------------------------------------------------------------------

const char* const kVerified = "/redfish/v1/Systems/1";
const char* const kUnverified = "/redfish/v1/Systems/2";

// The handler takes the body as it is: what is measured is the path.
class BenchSchema : public ZSchema {
public:
    BenchSchema() : ZSchema("ComputerSystem", "v1_20_0", CRUDQ_UPDATE) {}
    eRtCode HttpMethod_UPDATE(HTTP_MethodContext*) override { return RT_SUCCESS; }
};

redisReply* Argv(redisContext* c, const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    for (const auto& a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    return static_cast<redisReply*>(
        redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data()));
}

bool Run(redisContext* c, const std::vector<std::string>& args) {
    redisReply* reply = Argv(c, args);
    const bool ok = reply != nullptr && reply->type != REDIS_REPLY_ERROR;
    if (reply != nullptr) freeReplyObject(reply);
    return ok;
}

// The body as the front end stores it, under `root`.
void WriteBody(redisContext* c, const std::string& root) {
    std::vector<std::string> top = {"HSET", root};
    for (const auto& entry : gBody) {
        const std::string& path = entry.first;
        if (path.find('/', 1) != std::string::npos) continue;  // members come with their table
        const std::string name = path.substr(1);
        const sUsrInCacheItem& item = entry.second;
        if (item.type == USRIN_OBJECT || item.type == USRIN_ARRAY) {
            const std::string key = root + path;
            top.push_back((item.type == USRIN_OBJECT ? "&&Object " : "&&Array ") + name + " " + key);
            top.push_back("");
            std::vector<std::string> table = {item.type == USRIN_OBJECT ? "HSET" : "RPUSH", key};
            for (auto it = gBody.upper_bound(path + "/");
                 it != gBody.end() && it->first.compare(0, path.size() + 1, path + "/") == 0; ++it) {
                if (item.type == USRIN_OBJECT) table.push_back(it->first.substr(path.size() + 1));
                table.push_back(it->second.type == USRIN_STRING ? "\"" + it->second.value + "\""
                                                                : it->second.value);
            }
            if (table.size() > 2) Run(c, table);
            continue;
        }
        top.push_back(name);
        top.push_back(item.type == USRIN_STRING ? "\"" + item.value + "\""
                      : item.type == USRIN_NULL ? "null"
                                                : item.value);
    }
    Run(c, top);
}

class DispatchClient {
public:
    bool Open() {
        mCmd = redisConnectUnix(OrbelBench::BenchSocketPath().c_str());
        mListen = redisConnectUnix(OrbelBench::BenchSocketPath().c_str());
        if (mCmd == nullptr || mCmd->err != 0 || mListen == nullptr || mListen->err != 0) return false;
        redisReply* r = Argv(mListen, {"SUBSCRIBE", "Bench:Return"});
        if (r != nullptr) freeReplyObject(r);
        return r != nullptr;
    }
    ~DispatchClient() {
        if (mCmd != nullptr) redisFree(mCmd);
        if (mListen != nullptr) redisFree(mListen);
    }

    // One PATCH of the body on `uri`; the publish-to-answer time, or < 0.
    double Patch(const std::string& channel, const std::string& uri) {
        const std::string key = "Bench:Req:" + std::to_string(++mSeq);
        const std::string root = "&&" + key + "/RequestData";
        WriteBody(mCmd, root);
        Run(mCmd, {"HSET", key, "&&RequestMethod", "PATCH", "&&TargetURI", uri, "&&ReturnChannel",
                   "Bench:Return", "&&RequestData", root});
        const Clock::time_point t0 = Clock::now();
        Run(mCmd, {"PUBLISH", channel, key});
        bool answered = false;
        while (!answered) {
            void* raw = nullptr;
            if (redisGetReply(mListen, &raw) != REDIS_OK || raw == nullptr) return -1;
            auto* reply = static_cast<redisReply*>(raw);
            answered = reply->type == REDIS_REPLY_ARRAY && reply->elements == 3 &&
                       std::string(reply->element[2]->str, reply->element[2]->len) == key;
            freeReplyObject(reply);
        }
        const double ns = std::chrono::duration<double, std::nano>(Clock::now() - t0).count();
        redisReply* status = Argv(mCmd, {"HGET", key, "&&ReturnStatus"});
        const bool ok = status != nullptr && status->type == REDIS_REPLY_STRING &&
                        std::string(status->str) == "OK";
        if (status != nullptr) freeReplyObject(status);
        // Untimed: what the front end does once it has the answer.
        Run(mCmd, {"DEL", "&&ResourceLock:" + uri, key, root});
        Run(mCmd, {"EVAL", "for _,k in ipairs(redis.call('KEYS', ARGV[1])) do redis.call('DEL', k) end",
                   "0", root + "/*"});
        return ok ? ns : -1;
    }

private:
    redisContext* mCmd = nullptr;
    redisContext* mListen = nullptr;
    unsigned mSeq = 0;
};

void BM_ThroughDispatcher(benchmark::State& state) {
    ZLogPrint* quiet = zLogPrint;
    auto* app = new ZApplication("RF_Bench");
    zLogPrint = quiet;
    auto* schema = new BenchSchema();
    bool ok = schema->Init() == RT_SUCCESS;
    new ZResource(nullptr, schema, kVerified);
    new ZResource(nullptr, schema, kUnverified);
    std::string name = "Bench";
    ok = ok && schema->AddUserInputTemplate(kVerified, new ZUserInputTemplate(schema, &name, false)) == RT_SUCCESS;
    ok = ok && schema->AddUserInputTemplate("default", new ZUserInputTemplate(schema, nullptr, false)) == RT_SUCCESS;
    schema->_InitCRUDqDispather();
    const std::string channel = schema->GetCRUDqChannel(eReqUpdate);
    DispatchClient client;
    ok = ok && client.Open();
    double withNs = 0, offNs = 0;
    for (auto _ : state) {
        const double with = client.Patch(channel, kVerified);
        const double off = client.Patch(channel, kUnverified);
        ok = ok && with >= 0 && off >= 0;
        withNs += with;
        offNs += off;
    }
    if (!ok) state.SkipWithError("a request was not answered OK");
    schema->WaitThreadsExit();
    delete app;  // deletes the schema, its resources and templates
    gWithNs += withNs;
    gOffNs += offNs;
    gDispatchRounds += state.iterations();
    state.counters["with_us"] = withNs / 1000.0 / static_cast<double>(state.iterations());
    state.counters["off_us"] = offNs / 1000.0 / static_cast<double>(state.iterations());
    state.counters["added"] = offNs > 0 ? (withNs - offNs) / offNs : 0;
}
BENCHMARK(BM_ThroughDispatcher)->Name("Verify50/through_dispatcher")->MinTime(3.0)->UseRealTime();

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
    if (gDispatchRounds > 0) {
        std::fprintf(stderr,
                     "\nThe same PATCH through the dispatcher, publish to answer (goal: adds <= 10%%):\n");
        std::fprintf(stderr, "  with template %8.2f us  verification off %8.2f us  added %+.1f%%\n",
                     gWithNs / 1000.0 / static_cast<double>(gDispatchRounds),
                     gOffNs / 1000.0 / static_cast<double>(gDispatchRounds),
                     gOffNs > 0 ? 100.0 * (gWithNs - gOffNs) / gOffNs : 0.0);
    }
    delete gTemplate;
    redisFree(gCtx);
    benchmark::Shutdown();
    return 0;
}
