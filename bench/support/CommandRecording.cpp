// MONITOR recording and plain-hiredis replay of the library's commands.
#include "CommandRecording.h"

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

// Splits one MONITOR line, `<time> [<db> <client>] "CMD" "arg" ...`, into
// the client text and the arguments, undoing the server's quoting (\\, \",
// \n, \r, \t, \a, \b, \xHH). False for a line of another shape.
bool ParseMonitorLine(const std::string& line, std::string& client, Command& out) {
    out.clear();
    const size_t open = line.find('[');
    size_t pos = line.find("] ");
    if (open == std::string::npos || pos == std::string::npos || pos < open) return false;
    client = line.substr(open + 1, pos - open - 1);
    pos += 2;
    while (pos < line.size()) {
        if (line[pos] == ' ') {
            ++pos;
            continue;
        }
        if (line[pos] != '"') return false;
        ++pos;
        std::string arg;
        bool closed = false;
        while (pos < line.size()) {
            char ch = line[pos++];
            if (ch == '"') {
                closed = true;
                break;
            }
            if (ch != '\\' || pos >= line.size()) {
                arg += ch;
                continue;
            }
            char esc = line[pos++];
            switch (esc) {
                case 'n':
                    arg += '\n';
                    break;
                case 'r':
                    arg += '\r';
                    break;
                case 't':
                    arg += '\t';
                    break;
                case 'a':
                    arg += '\a';
                    break;
                case 'b':
                    arg += '\b';
                    break;
                case 'x':
                    if (pos + 2 > line.size()) return false;
                    arg += static_cast<char>(std::strtol(line.substr(pos, 2).c_str(), nullptr, 16));
                    pos += 2;
                    break;
                default:
                    arg += esc;
                    break;  // \\ and \"
            }
        }
        if (!closed) return false;
        out.push_back(std::move(arg));
    }
    return !out.empty();
}

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
    for (;;) {
        void* raw = nullptr;
        if (redisGetReply(monitor.get(), &raw) != REDIS_OK) return false;
        ReplyPtr line(static_cast<redisReply*>(raw));
        if (!line || line->type != REDIS_REPLY_STATUS) return false;
        std::string client;
        Command cmd;
        if (!ParseMonitorLine(std::string(line->str, line->len), client, cmd)) {
            std::fprintf(stderr, "bench: unreadable MONITOR line: %s\n", line->str);
            return false;
        }
        if (cmd.size() == 2 && cmd[0] == "ECHO" && cmd[1] == kMarker) return true;
        // "<db> lua": a command a script issued, part of the EVALSHA before it.
        if (client.size() >= 4 && client.compare(client.size() - 4, 4, " lua") == 0) continue;
        script.push_back(std::move(cmd));
    }
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

}  // namespace OrbelBench
