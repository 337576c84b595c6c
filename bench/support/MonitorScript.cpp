// MONITOR lines into commands.
#include "MonitorScript.h"

#include <cstdlib>
#include <memory>

namespace OrbelBench {

bool ParseMonitorLine(const std::string& line, Command& out) {
    out.clear();
    size_t pos = line.find("] ");
    if (pos == std::string::npos) return false;
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
        if (!ParseMonitorLine(std::string(line->str, line->len), cmd)) return false;
        if (cmd.size() == 2 && cmd[0] == "ECHO" && cmd[1] == marker) return true;
        script.push_back(std::move(cmd));
    }
}

}  // namespace OrbelBench
