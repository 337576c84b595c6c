// MONITOR recording and plain-hiredis replay of the library's commands.
#include "CommandRecording.h"

#include "MonitorScript.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace OrbelBench {

namespace {

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

}  // namespace

bool Record(const std::string& socketPath, redisContext* marker,
            const std::function<void()>& action, Script& script) {
    script.clear();
    std::unique_ptr<redisContext, ContextFree> monitor(redisConnectUnix(socketPath.c_str()));
    if (!monitor || monitor->err != 0) return false;
    ReplyPtr ok(static_cast<redisReply*>(redisCommand(monitor.get(), "MONITOR")));
    if (!ok || ok->type != REDIS_REPLY_STATUS) return false;

    action();

    static const char* const kMarker = "orbel-bench-recording-ends";
    ReplyPtr echo(static_cast<redisReply*>(redisCommand(marker, "ECHO %s", kMarker)));
    if (!echo) return false;
    if (!ReadMonitorUntil(monitor.get(), kMarker, script)) {
        std::fprintf(stderr, "bench: the MONITOR recording could not be read\n");
        return false;
    }
    return true;
}

Replay::Replay(const Script& script) : mScript(script) {
    for (const Command& cmd : mScript) {
        Prepared p;
        for (const std::string& arg : cmd) {
            p.argv.push_back(arg.data());
            p.argvlen.push_back(arg.size());
        }
        mCommands.push_back(std::move(p));
    }
}

bool Replay::Run(redisContext* c) const {
    bool ok = true;
    for (const Prepared& p : mCommands) {
        auto* r = static_cast<redisReply*>(redisCommandArgv(c, static_cast<int>(p.argv.size()),
                                                            const_cast<const char**>(p.argv.data()),
                                                            p.argvlen.data()));
        if (r == nullptr || r->type == REDIS_REPLY_ERROR) ok = false;
        if (r != nullptr) freeReplyObject(r);
    }
    return ok;
}

bool Replay::RunPipelined(redisContext* c) const {
    bool ok = true;
    for (const Prepared& p : mCommands) {
        if (redisAppendCommandArgv(c, static_cast<int>(p.argv.size()),
                                   const_cast<const char**>(p.argv.data()),
                                   p.argvlen.data()) != REDIS_OK) {
            return false;
        }
    }
    for (size_t i = 0; i < mCommands.size(); ++i) {
        void* raw = nullptr;
        if (redisGetReply(c, &raw) != REDIS_OK || raw == nullptr) return false;
        auto* r = static_cast<redisReply*>(raw);
        if (r->type == REDIS_REPLY_ERROR) ok = false;
        freeReplyObject(r);
    }
    return ok;
}

}  // namespace OrbelBench
