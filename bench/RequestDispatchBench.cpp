// Requests through dispatcher threads, against the protocol's floor.
//
// A plug-in (an application run by Exec on a thread of this program, with
// one schema of 1000 members) serves requests that front-end clients send
// the way the front end does: HSET of 8 request fields, PUBLISH of the key
// on the schema's channel, wait for the key on the client's return channel
// (then, untimed, DEL of the lock key the answer names). Measured, in one
// run:
//
//   floor        the minimal protocol: a plain-hiredis plug-in thread
//                answers with HGETALL, one HSET of the answer's fields and a
//                PUBLISH; 1 client, then 8 clients
//   GET          one client's reads through the schema's read dispatcher,
//                against a plain-hiredis thread that replays, per request,
//                the very commands the dispatcher sent for one read
//                (recorded with MONITOR, the request key substituted),
//                and against the floor; request by request in turn (goals:
//                p50 <= 1.3x of the floor and of the replay, throughput
//                >= 0.8x of the floor)
//   8 clients    GETs from 8 clients against the floor's 8 clients, in
//                rounds taken in turn (goal: >= 0.8x, p50 <= 1.3x); then
//                10 000 requests (GET, PATCH, action in turn) over the
//                schema's three dispatchers: none lost, p50/p99, requests/s
//   first        the time from the plug-in becoming ready (init step 5) to
//                the answer of its first request (goal: < 1 s)
//   PATCH        one client's PATCHes of a 10-property body through the
//                update dispatcher (the handler writes and applies the ten
//                properties) against the PATCH floor: HGETALL of the request
//                and of the body, one HSET of the properties, one HSET of the
//                answer, PUBLISH; five rounds in turn, median (goal: >= 0.7x);
//                the plug-in's commands and round trips per PATCH
//
// Latency is from the HSET to the answer's arrival. By default nothing is
// pinned (the dispatchers and clients run in parallel). With --pin the
// program and its server stay on one CPU: each round trip is then a hand-over
// instead of a wake-up of an idle CPU, whose cost on the development VM
// varies several-fold from run to run, so the GET/replay ratio measures the
// work done rather than the wake-ups (the concurrent figures then show one
// CPU's capacity).
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
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchStore.h"
#include "CallgrindRun.h"
#include "HTTP_MethodContext.h"
#include "MonitorScript.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZResourceCollection.h"
#include "ZSchema.h"
#include "ZUserInputTemplate.h"
#include "vex.h"

using namespace Orbel;
using OrbelBench::Command;
using OrbelBench::Script;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kMembers = 1000;
constexpr int kClients = 8;
constexpr int kConcurrentTotal = 10000;
constexpr int kSingleN = 3000;
constexpr int kTimeoutMs = 8000;  // above the busy answer's 3 s + 2 s

// Every client of the run has its own id, so request keys never repeat.
std::atomic<int> gNextClientId{1};

struct CtxFree {
    void operator()(redisContext* c) const {
        if (c != nullptr) redisFree(c);
    }
};
using ContextPtr = std::unique_ptr<redisContext, CtxFree>;
struct ReplyFree {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

ContextPtr Connect() {
    ContextPtr c(redisConnectUnix(OrbelBench::BenchSocketPath().c_str()));
    if (!c || c->err != 0) {
        std::fprintf(stderr, "bench: cannot connect to the store\n");
        std::exit(1);
    }
    return c;
}

ReplyPtr Argv(redisContext* c, const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    for (const auto& a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    return ReplyPtr(static_cast<redisReply*>(
        redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data())));
}

std::string MemberUri(int n) {
    return "/redfish/v1/Systems/" + std::to_string(n);
}

// ---------------------------------------------------------------------------
// A front-end client
// ---------------------------------------------------------------------------

class Client {
public:
    Client()
        : mId(gNextClientId++), mReturn("Bench:Return:" + std::to_string(mId)), mCmd(Connect()) {
        Listen();
    }

    // A time-out leaves the listening connection unusable: listen anew.
    void Listen() {
        mListen = Connect();
        Argv(mListen.get(), {"SUBSCRIBE", mReturn});
        struct timeval tv = {kTimeoutMs / 1000, 0};
        redisSetTimeout(mListen.get(), tv);
    }
    const std::string& Return() const { return mReturn; }

    // One request; its latency in microseconds, or a negative value when no
    // answer came in time.
    // A non-empty `body` (name, value, ...) is stored first, untimed, the
    // way the front end stores a body, and named in the request.
    double Send(const std::string& channel, const char* method, const std::string& uri,
                const std::vector<std::string>& body = {}) {
        const std::string key = "Bench:Req:" + std::to_string(mId) + ":" + std::to_string(++mSeq);
        std::vector<std::string> req = {"HSET", key, "&&RequestMethod", method, "&&TargetURI", uri,
                                        "&&ReturnChannel", mReturn, "&&RemoteIP", "10.0.0.1",
                                        "&&Username", "admin", "&&AuthHeader", "BasicAuth",
                                        "&&UserPrivNumber", "0x18", "&&OperationPrivileges",
                                        "Login"};
        if (!body.empty()) {
            const std::string root = "&&" + key + "/RequestData";
            std::vector<std::string> hset = {"HSET", root};
            hset.insert(hset.end(), body.begin(), body.end());
            Argv(mCmd.get(), hset);
            req.push_back("&&RequestData");
            req.push_back(root);
        }
        const auto start = Clock::now();
        Argv(mCmd.get(), req);
        Argv(mCmd.get(), {"PUBLISH", channel, key});
        bool answered = false;
        while (!answered) {
            void* raw = nullptr;
            if (redisGetReply(mListen.get(), &raw) != REDIS_OK) {
                Listen();
                return -1;
            }
            ReplyPtr r(static_cast<redisReply*>(raw));
            answered = r->type == REDIS_REPLY_ARRAY && r->elements == 3 &&
                       std::string(r->element[2]->str, r->element[2]->len) == key;
        }
        const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
        std::string resource = uri.substr(0, uri.find("/Actions/"));
        Argv(mCmd.get(), {"DEL", "&&ResourceLock:" + resource});
        return us;
    }

    std::string KeyOf(unsigned seq) const {
        return "Bench:Req:" + std::to_string(mId) + ":" + std::to_string(seq);
    }
    unsigned Seq() const { return mSeq; }

private:
    int mId;
    std::string mReturn;
    ContextPtr mCmd;
    ContextPtr mListen;
    unsigned mSeq = 0;
};

// ---------------------------------------------------------------------------
// Plain-hiredis plug-ins: the minimal protocol, and a replay of the
// dispatcher's own commands
// ---------------------------------------------------------------------------

class PlainPlugin {
public:
    // An empty script answers with the minimal protocol.
    // A script is replayed with `recordedKey` replaced by each request's key.
    // `patch` answers an update with the least traffic (PatchMinimal).
    PlainPlugin(const std::string& channel, Script script, std::string recordedKey,
                bool patch = false)
        : mChannel(channel),
          mScript(std::move(script)),
          mRecordedKey(std::move(recordedKey)),
          mPatch(patch) {
        mThread = std::thread([this]() { Run(); });
        // Subscribed before the first request.
        ContextPtr c = Connect();
        for (;;) {
            ReplyPtr r = Argv(c.get(), {"PUBSUB", "NUMSUB", mChannel});
            if (r && r->elements == 2 && r->element[1]->integer > 0) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~PlainPlugin() {
        ContextPtr c = Connect();
        Argv(c.get(), {"PUBLISH", mChannel, "QUIT"});
        mThread.join();
    }

private:
    void Run() {
        ContextPtr listen = Connect();
        ContextPtr cmd = Connect();
        Argv(listen.get(), {"SUBSCRIBE", mChannel});
        for (;;) {
            void* raw = nullptr;
            if (redisGetReply(listen.get(), &raw) != REDIS_OK) return;
            ReplyPtr r(static_cast<redisReply*>(raw));
            if (r->type != REDIS_REPLY_ARRAY || r->elements != 3) continue;
            const std::string key(r->element[2]->str, r->element[2]->len);
            if (key == "QUIT") return;
            if (mPatch) {
                PatchMinimal(cmd.get(), key);
            } else if (mScript.empty()) {
                Minimal(cmd.get(), key);
            } else {
                Replay(cmd.get(), key);
            }
        }
    }
    // The least a client of the store must send to answer a request: read
    // the request, write the answer's fields with one HSET, announce it.
    static void Minimal(redisContext* c, const std::string& key) {
        ReplyPtr all = Argv(c, {"HGETALL", key});
        std::string ret;
        for (size_t i = 0; all && i + 1 < all->elements; i += 2) {
            if (std::string(all->element[i]->str) == "&&ReturnChannel") ret = all->element[i + 1]->str;
        }
        Argv(c, {"HSET", key, "&&ReturnStatus", "OK", "&&ExtendedInfo",
                 "/redfish/v1/Systems/1/Bench:GETQ/ExtendedInfo", "&&ResourceLock",
                 "&&ResourceLock:/redfish/v1/Systems/1"});
        Argv(c, {"PUBLISH", ret, key});
    }
    // The least for an update: read the request and its body, write the
    // body's properties into the resource's hash with one HSET, answer.
    static void PatchMinimal(redisContext* c, const std::string& key) {
        ReplyPtr all = Argv(c, {"HGETALL", key});
        std::string ret, root, uri;
        for (size_t i = 0; all && i + 1 < all->elements; i += 2) {
            const std::string name = all->element[i]->str;
            if (name == "&&ReturnChannel") ret = all->element[i + 1]->str;
            if (name == "&&RequestData") root = all->element[i + 1]->str;
            if (name == "&&TargetURI") uri = all->element[i + 1]->str;
        }
        ReplyPtr body = Argv(c, {"HGETALL", root});
        std::vector<std::string> hset = {"HSET", "Bench:Floor:" + uri};
        for (size_t i = 0; body && i < body->elements; ++i) hset.push_back(body->element[i]->str);
        Argv(c, hset);
        Argv(c, {"HSET", key, "&&ReturnStatus", "OK", "&&ExtendedInfo",
                 "/redfish/v1/Systems/1/Bench:PATCHQ/ExtendedInfo", "&&ResourceLock",
                 "&&ResourceLock:" + uri});
        Argv(c, {"PUBLISH", ret, key});
    }
    // The recorded commands with the request's key, and its return channel
    // (read from the HGETALL reply, as the dispatcher does) for the recorded one.
    void Replay(redisContext* c, const std::string& key) {
        std::string ret;
        for (Command cmd : mScript) {
            for (std::string& arg : cmd) {
                size_t pos = arg.find(mRecordedKey);
                if (pos != std::string::npos) arg.replace(pos, mRecordedKey.size(), key);
            }
            if (cmd[0] == "PUBLISH" && !ret.empty()) cmd[1] = ret;
            ReplyPtr r = Argv(c, cmd);
            if (cmd[0] == "HGETALL" && r && r->type == REDIS_REPLY_ARRAY) {
                for (size_t i = 0; i + 1 < r->elements; i += 2) {
                    if (std::string(r->element[i]->str) == "&&ReturnChannel") {
                        ret = r->element[i + 1]->str;
                    }
                }
            }
        }
    }

    std::string mChannel;
    Script mScript;
    std::string mRecordedKey;
    bool mPatch;
    std::thread mThread;
};

// ---------------------------------------------------------------------------
// The plug-in under test
// ---------------------------------------------------------------------------

eRtCode ResetAction(HTTP_MethodContext*) {
    return RT_SUCCESS;
}

class BenchSystems : public ZSchema {
public:
    BenchSystems() : ZSchema("ComputerSystem", "v1_20_0", CRUDQ_ALL, "ComputerSystem") {
        AddActionCallback("ComputerSystem.Reset", ResetAction);
        // Requests need a template; one without a file checks nothing, so
        // the figures stay those of the dispatch itself.
        AddUserInputTemplate("default", new ZUserInputTemplate(this, nullptr, false));
    }
    eRtCode PreCorvelReady_InitialResources() override {
        auto* coll = new ZResourceCollection(nullptr, this, "/redfish/v1/Systems");
        for (int i = 1; i <= kMembers; ++i) {
            auto* member = new ZResource(coll, this, std::to_string(i));
            member->HashWrite("PowerState", "On");
            member->ApplyRedisChanges(false);
        }
        return RT_SUCCESS;
    }
    // The read answers from the store; an update writes the body's
    // top-level properties into the resource.
    eRtCode HttpMethod_UPDATE(HTTP_MethodContext* ctx) override {
        ZResource* res = ctx->GetTargetResource();
        bool changed = false;
        for (const auto& entry : ctx->GetUserInCache()) {
            if (entry.first.find('/', 1) != std::string::npos) continue;
            res->HashWrite(entry.first.substr(1), entry.second.value);
            changed = true;
        }
        return changed ? res->ApplyRedisChanges(false, ctx->GetRedisContext()) : RT_SUCCESS;
    }
};

int BenchFactory(void*) {
    auto* schema = new BenchSystems();
    if (schema->Init() != RT_SUCCESS) {
        delete schema;
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Statistics
// ---------------------------------------------------------------------------

struct Stats {
    size_t n = 0;
    size_t lost = 0;
    double p50 = 0, p99 = 0, mean = 0;
};

Stats Summarise(std::vector<double> us) {
    Stats s;
    std::vector<double> ok;
    for (double v : us) {
        if (v < 0) {
            ++s.lost;
        } else {
            ok.push_back(v);
        }
    }
    s.n = us.size();
    if (ok.empty()) return s;
    std::sort(ok.begin(), ok.end());
    s.p50 = ok[ok.size() / 2];
    s.p99 = ok[std::min(ok.size() - 1, ok.size() * 99 / 100)];
    double sum = 0;
    for (double v : ok) sum += v;
    s.mean = sum / ok.size();
    return s;
}

void Print(const char* what, const Stats& s, double perSecond) {
    std::printf("%-44s n=%5zu lost=%zu  p50 %7.1f us  p99 %7.1f us  mean %7.1f us  %8.0f req/s\n",
                what, s.n, s.lost, s.p50, s.p99, s.mean, perSecond);
}

// `clients` threads send `total` requests between them; each request is
// made by `next(client, i)`.
template <class Next>
std::pair<Stats, double> RunClients(int clients, int total, Next next) {
    std::vector<std::vector<double>> lat(clients);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c]() {
            Client client;
            ++ready;
            while (!go) std::this_thread::yield();
            for (int i = c; i < total; i += clients) lat[c].push_back(next(client, c, i));
        });
    }
    while (ready < clients) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto start = Clock::now();
    go = true;
    for (auto& t : threads) t.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> all;
    for (auto& v : lat) all.insert(all.end(), v.begin(), v.end());
    return {Summarise(all), total / seconds};
}

// ---------------------------------------------------------------------------
// The plug-in's process frame on a thread of this program
// ---------------------------------------------------------------------------

const char kGetQ[] = "RF_Bench:ComputerSystem:GETQ";
const char kFloorQ[] = "Bench:Floor:GETQ";

struct Plugin {
    ZApplication* app = nullptr;
    std::thread exec;
    Clock::time_point readyAt;

    void Start() {
        vex_config_set_bool("nginx_redfish_ready", 0, 0);
        app = new ZApplication("RF_Bench");
        zLogPrint->SetDebugLevel(0);
        static const ZApplication::sSchemaFactory kTable[] = {{"ComputerSystem", BenchFactory}};
        static char arg0[] = "RF_Bench";
        static char* execArgv[] = {arg0, nullptr};
        static ZApplication::sExecParams params{1, execArgv, kTable, 1};
        exec = std::thread([this]() { app->Exec(params); });
        while (app->GetInitStep() < 3) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        vex_config_set_bool("nginx_redfish_ready", 1, 0);
        while (!app->isAppInitDone()) std::this_thread::yield();
        readyAt = Clock::now();
    }
    void Stop() {
        app->Exit();
        exec.join();
        delete app;
        app = nullptr;
    }
};

// ---------------------------------------------------------------------------
// Instructions (callgrind)
// ---------------------------------------------------------------------------
// Time on this host is mostly the local socket's round trips and the other
// tenants' load; the controller's CPU feels the instructions. The program
// starts itself twice more under callgrind and counts kInstrN GETs answered
// by the minimal floor, then kInstrN through the read dispatcher, each
// between a zeroing and a dump of the counters. The first run counts every
// thread; the second (one counter set per thread, where a dump covers the
// dumping thread only) counts the client thread alone. The plug-in's side is
// the difference: the floor's thread, or the dispatcher with everything the
// library does for the request.

const char kInstrFlag[] = "--orbel-instructions";
constexpr int kInstrN = 1000;

int RunInstructionChild() {
    if (!OrbelBench::StartBenchStore()) return 1;
    PlainPlugin floor(kFloorQ, Script(), std::string());
    Plugin plugin;
    plugin.Start();
    Client c;
    for (int i = 0; i < 50; ++i) {  // warm both sides
        c.Send(kFloorQ, "GET", MemberUri(1));
        c.Send(kGetQ, "GET", MemberUri(1));
    }
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < kInstrN; ++i) c.Send(kFloorQ, "GET", MemberUri(1));
    CALLGRIND_DUMP_STATS_AT("floor");
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < kInstrN; ++i) c.Send(kGetQ, "GET", MemberUri(1));
    CALLGRIND_DUMP_STATS_AT("library");
    plugin.Stop();
    return 0;
}

std::map<std::string, double> RunUnderCallgrind(bool perThread) {
    std::map<std::string, double> dumps;
    std::string why;
    if (!OrbelBench::RunSelfUnderCallgrind(kInstrFlag, perThread, &dumps, &why)) {
        std::printf("instructions: %s\n", why.c_str());
    }
    return dumps;
}

void MeasureInstructions() {
    std::map<std::string, double> all = RunUnderCallgrind(false);
    std::map<std::string, double> client = RunUnderCallgrind(true);
    if (all["floor"] <= 0 || all["library"] <= 0) {
        std::printf("instructions: no counts\n");
        return;
    }
    const double k = kInstrN * 1000.0;
    const double libSide = all["library"] - client["library"];
    const double floorSide = all["floor"] - client["floor"];
    std::printf("\nInstructions per GET (callgrind, %d GETs, client side of the store):\n",
                kInstrN);
    std::printf("  %-44s %8.1fk  floor %8.1fk  %.2fx\n", "plug-in side (dispatcher / floor)",
                libSide / k, floorSide / k, libSide / floorSide);
    std::printf("  %-44s %8.1fk  floor %8.1fk  %.2fx\n", "whole program (with the client)",
                all["library"] / k, all["floor"] / k, all["library"] / all["floor"]);
    std::printf("  %-44s %8.1fk  floor %8.1fk\n", "the client thread alone", client["library"] / k,
                client["floor"] / k);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], kInstrFlag) == 0) return RunInstructionChild();
    bool pin = false, instructions = true, patchOnly = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--pin") == 0) pin = true;
        if (std::strcmp(argv[i], "--no-instructions") == 0) instructions = false;
        if (std::strcmp(argv[i], "--patch-only") == 0) {
            patchOnly = true;
            instructions = false;
        }
        if (std::strcmp(argv[i], "--instructions-only") == 0) {
            MeasureInstructions();
            return 0;
        }
    }
    if (pin) {
        // Before the server starts, which inherits it.
        cpu_set_t set;
        CPU_ZERO(&set);
        const int cpu = sched_getcpu();
        CPU_SET(cpu >= 0 ? cpu : 0, &set);
        if (sched_setaffinity(0, sizeof(set), &set) != 0) std::perror("bench: sched_setaffinity");
    }
    if (!OrbelBench::StartBenchStore()) return 1;
    ContextPtr ctl = Connect();

    // 1. The floor alone.
    PlainPlugin floor(kFloorQ, Script(), std::string());
    double floorPerSecond = 0, floor8PerSecond = 0;
    if (!patchOnly) {
        auto one = RunClients(1, kSingleN, [](Client& c, int, int) {
            return c.Send(kFloorQ, "GET", MemberUri(1));
        });
        floorPerSecond = one.second;
        Print("floor, 1 client", one.first, one.second);
        auto eight = RunClients(kClients, kConcurrentTotal, [](Client& c, int, int) {
            return c.Send(kFloorQ, "GET", MemberUri(1));
        });
        floor8PerSecond = eight.second;
        Print("floor, 8 clients", eight.first, eight.second);
    }

    Plugin plugin;
    plugin.Start();

    // 4 (measured first, as it must be the first request).
    {
        Client first;
        const double us = first.Send(kGetQ, "GET", MemberUri(kMembers));
        const double sinceReady =
            std::chrono::duration<double, std::micro>(Clock::now() - plugin.readyAt).count();
        std::printf("%-44s answered=%s  %.0f us after ready (round trip %.0f us; goal < 1 s)\n",
                    "first request, 1000 members", us >= 0 ? "yes" : "NO", sinceReady, us);
    }

    if (!patchOnly) {
    // 2. GET through the dispatcher against a replay of its commands and
    // against the minimal floor.
    Script script;
    std::string recordedKey;
    Client rec;  // records, then measures: the script answers on its return channel
    {
        rec.Send(kGetQ, "GET", MemberUri(1));  // warm
        ContextPtr monitor = Connect();
        Argv(monitor.get(), {"MONITOR"});
        rec.Send(kGetQ, "GET", MemberUri(1));
        recordedKey = rec.KeyOf(rec.Seq());
        Argv(ctl.get(), {"ECHO", "bench-recording-ends"});
        Script all;
        if (!OrbelBench::ReadMonitorUntil(monitor.get(), "bench-recording-ends", all)) {
            std::fprintf(stderr, "bench: recording failed\n");
            return 1;
        }
        // The plug-in's part: after the client's PUBLISH, up to and with the
        // answer's PUBLISH.
        bool in = false;
        for (const Command& cmd : all) {
            if (!in) {
                in = cmd.size() == 3 && cmd[0] == "PUBLISH" && cmd[2] == recordedKey;
                continue;
            }
            script.push_back(cmd);
            if (cmd[0] == "PUBLISH") break;
        }
        std::printf("%-44s %zu commands:", "a dispatched GET sends", script.size());
        for (const Command& cmd : script) std::printf(" %s", cmd[0].c_str());
        std::printf("\n");
    }
    {
        PlainPlugin replay("Bench:Replay:GETQ", script, recordedKey);
        std::vector<double> lib, rep, flo;
        Client& c = rec;
        double libSeconds = 0, repSeconds = 0, floSeconds = 0;
        // Alternating request by request, so that the load of the machine
        // weighs on all three alike.
        for (int i = 0; i < kSingleN; ++i) {
            auto t0 = Clock::now();
            lib.push_back(c.Send(kGetQ, "GET", MemberUri(1)));
            auto t1 = Clock::now();
            rep.push_back(c.Send("Bench:Replay:GETQ", "GET", MemberUri(1)));
            auto t2 = Clock::now();
            flo.push_back(c.Send(kFloorQ, "GET", MemberUri(1)));
            auto t3 = Clock::now();
            libSeconds += std::chrono::duration<double>(t1 - t0).count();
            repSeconds += std::chrono::duration<double>(t2 - t1).count();
            floSeconds += std::chrono::duration<double>(t3 - t2).count();
        }
        Stats l = Summarise(lib), r = Summarise(rep), f = Summarise(flo);
        Print("GET through the dispatcher", l, lib.size() / libSeconds);
        Print("replay of its commands (plain hiredis)", r, rep.size() / repSeconds);
        Print("minimal floor, same loop", f, flo.size() / floSeconds);
        std::printf("%-44s p50 %.2fx  p99 %.2fx  mean %.2fx  (goal <= 1.3x)\n", "GET / replay",
                    l.p50 / r.p50, l.p99 / r.p99, l.mean / r.mean);
        std::printf("%-44s p50 %.2fx (goal <= 1.3x)  throughput %.2fx (goal >= 0.8x)\n",
                    "GET / minimal floor, 1 client", l.p50 / f.p50, floSeconds / libSeconds);
        // What the store allows for this traffic: eight clients on the
        // replay, each on its own resource's key.
        auto eight = RunClients(kClients, kConcurrentTotal, [](Client& cl, int, int) {
            return cl.Send("Bench:Replay:GETQ", "GET", MemberUri(1));
        });
        Print("replay, 8 clients", eight.first, eight.second);
        std::printf("%-44s %.2fx of the 1-client floor\n", "replay throughput",
                    eight.second / floorPerSecond);
    }

    // 3. Eight clients: GETs alone against the floor's eight clients, then
    // GET, PATCH and action over the three dispatchers.
    {
        // In rounds, GETs and floor in turn, so that the load of the machine
        // (other builds on the same CPU) weighs on both alike; the ratio of
        // each round, and their median.
        constexpr int kRounds = 5;
        std::vector<double> ratios, getLat, floLat;
        double getSeconds = 0, floSeconds = 0;
        size_t lost = 0;
        for (int round = 0; round < kRounds; ++round) {
            auto gets = RunClients(kClients, kConcurrentTotal / kRounds,
                                   [](Client& c, int client, int) {
                                       return c.Send(kGetQ, "GET", MemberUri(client + 1));
                                   });
            auto flo = RunClients(kClients, kConcurrentTotal / kRounds, [](Client& c, int, int) {
                return c.Send(kFloorQ, "GET", MemberUri(1));
            });
            ratios.push_back(gets.second / flo.second);
            getSeconds += (kConcurrentTotal / kRounds) / gets.second;
            floSeconds += (kConcurrentTotal / kRounds) / flo.second;
            getLat.push_back(gets.first.p50);
            floLat.push_back(flo.first.p50);
            lost += gets.first.lost;
        }
        std::sort(ratios.begin(), ratios.end());
        std::sort(getLat.begin(), getLat.end());
        std::sort(floLat.begin(), floLat.end());
        std::printf("%-44s %8.0f req/s, p50 %.1f us (median of the rounds)\n", "8 clients, GET",
                    kConcurrentTotal / getSeconds, getLat[kRounds / 2]);
        std::printf("%-44s %8.0f req/s, p50 %.1f us (median of the rounds)\n",
                    "floor, 8 clients, same rounds", kConcurrentTotal / floSeconds,
                    floLat[kRounds / 2]);
        floor8PerSecond = kConcurrentTotal / floSeconds;
        std::printf("%-44s %.2fx of the 8-client floor (goal >= 0.8x; rounds %.2f-%.2fx, median "
                    "%.2fx), p50 %.2fx, %zu lost\n",
                    "GET throughput, 8 clients", floSeconds / getSeconds, ratios.front(),
                    ratios.back(), ratios[kRounds / 2], getLat[kRounds / 2] / floLat[kRounds / 2],
                    lost);
        auto res = RunClients(kClients, kConcurrentTotal, [](Client& c, int client, int i) {
            const std::string uri = MemberUri(client + 1);
            switch (i % 3) {
                case 0:
                    return c.Send(kGetQ, "GET", uri);
                case 1:
                    return c.Send("RF_Bench:ComputerSystem:PATCHQ", "PATCH", uri);
                default:
                    return c.Send("RF_Bench:ComputerSystem:POSTACTIONQ", "POSTACTION",
                                  uri + "/Actions/ComputerSystem.Reset");
            }
        });
        Print("8 clients, GET/PATCH/action", res.first, res.second);
        std::printf("%-44s %.2fx of the 1-client floor, %.2fx of the 8-client floor, %zu lost\n",
                    "throughput", res.second / floorPerSecond, res.second / floor8PerSecond,
                    res.first.lost);
    }
    }

    // 5. PATCH of a 10-property body through the update dispatcher against
    // the PATCH floor, one client, in rounds taken in turn.
    {
        const char kPatchQ[] = "RF_Bench:ComputerSystem:PATCHQ";
        const char kPatchFloorQ[] = "Bench:Floor:PATCHQ";
        PlainPlugin patchFloor(kPatchFloorQ, Script(), std::string(), true);
        std::vector<std::string> body;
        for (int i = 0; i < 10; ++i) {
            body.push_back("Prop" + std::to_string(i));
            body.push_back("\"value-" + std::to_string(i) + "\"");
        }
        Client c;
        c.Send(kPatchQ, "PATCH", MemberUri(2), body);  // warm both
        c.Send(kPatchFloorQ, "PATCH", MemberUri(2), body);
        // Commands and round trips of one PATCH: the store's counters around
        // one request to each side; the floor's plug-in takes 5 round trips.
        auto stat = [&](const char* field) {
            ReplyPtr r = Argv(ctl.get(), {"INFO", "stats"});
            const std::string text(r->str, r->len);
            const size_t at = text.find(std::string(field) + ":");
            return std::atoll(text.c_str() + at + std::strlen(field) + 1);
        };
        long long cmds[2], reads[2];
        const char* channels[2] = {kPatchQ, kPatchFloorQ};
        for (int side = 0; side < 2; ++side) {
            const long long c0 = stat("total_commands_processed"), r0 = stat("total_reads_processed");
            c.Send(channels[side], "PATCH", MemberUri(2), body);
            cmds[side] = stat("total_commands_processed") - c0;
            reads[side] = stat("total_reads_processed") - r0;
        }
        std::printf("%-44s %lld commands in %lld round trips (floor: %lld in %lld)\n",
                    "a dispatched PATCH, plug-in side", 5 + cmds[0] - cmds[1],
                    5 + reads[0] - reads[1], 5LL, 5LL);
        {
            ContextPtr monitor = Connect();
            Argv(monitor.get(), {"MONITOR"});
            c.Send(kPatchQ, "PATCH", MemberUri(2), body);
            const std::string key = c.KeyOf(c.Seq());
            Argv(ctl.get(), {"ECHO", "bench-recording-ends"});
            Script all;
            if (OrbelBench::ReadMonitorUntil(monitor.get(), "bench-recording-ends", all)) {
                std::printf("%-44s", "its commands:");
                bool in = false;
                for (const Command& cmd : all) {
                    if (in) std::printf(" %s", cmd[0].c_str());
                    if (in && cmd[0] == "PUBLISH") break;
                    in = in || (cmd.size() == 3 && cmd[0] == "PUBLISH" && cmd[2] == key);
                }
                std::printf("\n");
            }
        }
        constexpr int kRounds = 5, kPerRound = 600;
        std::vector<double> ratios, libLat, floLat;
        double libSeconds = 0, floSeconds = 0;
        size_t lost = 0;
        for (int round = 0; round < kRounds; ++round) {
            auto lib = RunClients(1, kPerRound, [&](Client& cl, int, int) {
                return cl.Send(kPatchQ, "PATCH", MemberUri(2), body);
            });
            auto flo = RunClients(1, kPerRound, [&](Client& cl, int, int) {
                return cl.Send(kPatchFloorQ, "PATCH", MemberUri(2), body);
            });
            ratios.push_back(lib.second / flo.second);
            libSeconds += kPerRound / lib.second;
            floSeconds += kPerRound / flo.second;
            libLat.push_back(lib.first.p50);
            floLat.push_back(flo.first.p50);
            lost += lib.first.lost + flo.first.lost;
        }
        std::sort(ratios.begin(), ratios.end());
        std::sort(libLat.begin(), libLat.end());
        std::sort(floLat.begin(), floLat.end());
        std::printf("%-44s %8.0f req/s, p50 %.1f us (median of the rounds)\n",
                    "PATCH, 10 properties, 1 client", kRounds * kPerRound / libSeconds,
                    libLat[kRounds / 2]);
        std::printf("%-44s %8.0f req/s, p50 %.1f us (median of the rounds)\n",
                    "PATCH floor, same rounds", kRounds * kPerRound / floSeconds,
                    floLat[kRounds / 2]);
        std::printf("%-44s %.2fx of the PATCH floor (goal >= 0.7x; rounds %.2f-%.2fx, median "
                    "%.2fx), p50 %.2fx, %zu lost\n",
                    "PATCH throughput", floSeconds / libSeconds, ratios.front(), ratios.back(),
                    ratios[kRounds / 2], libLat[kRounds / 2] / floLat[kRounds / 2], lost);
    }

    plugin.Stop();
    if (instructions) MeasureInstructions();
    return 0;
}
