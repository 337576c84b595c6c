// MONITOR lines into commands.
#include "MonitorScript.h"

#include <cstdlib>
#include <memory>

namespace OrbelBench {

bool ParseMonitorLine(const std::string& line, Command& out, std::string* client) {
    out.clear();
    const size_t open = line.find('[');
    size_t pos = line.find("] ");
    if (open == std::string::npos || pos == std::string::npos || pos < open) return false;
    if (client != nullptr) *client = line.substr(open + 1, pos - open - 1);
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
                case 'n': arg += '\n'; break;
                case 'r': arg += '\r'; break;
                case 't': arg += '\t'; break;
                case 'a': arg += '\a'; break;
                case 'b': arg += '\b'; break;
                case 'x':
                    if (pos + 2 > line.size()) return false;
                    arg += static_cast<char>(std::strtol(line.substr(pos, 2).c_str(), nullptr, 16));
                    pos += 2;
                    break;
                default:
                    arg += esc;  // \\ and \"
                    break;
            }
        }
        if (!closed) return false;
        out.push_back(std::move(arg));
    }
    return !out.empty();
}

bool ReadMonitorUntil(redisContext* monitor, const std::string& marker, Script& script) {
    for (;;) {
        void* raw = nullptr;
        if (redisGetReply(monitor, &raw) != REDIS_OK) return false;
        std::unique_ptr<redisReply, void (*)(void*)> line(static_cast<redisReply*>(raw),
                                                          freeReplyObject);
        if (!line || line->type != REDIS_REPLY_STATUS) return false;
        Command cmd;
        std::string client;
        if (!ParseMonitorLine(std::string(line->str, line->len), cmd, &client)) return false;
        if (cmd.size() == 2 && cmd[0] == "ECHO" && cmd[1] == marker) return true;
        // "<db> lua": a command a script issued, part of the EVALSHA before it.
        if (client.size() >= 4 && client.compare(client.size() - 4, 4, " lua") == 0) continue;
        script.push_back(std::move(cmd));
    }
}

}  // namespace OrbelBench
