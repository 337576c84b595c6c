// Recording what the library sends to the store, and replaying it with plain
// hiredis: the floor a benchmark compares the library against.
//
// Record() listens with MONITOR while an action runs and keeps the commands
// of every client but the server's own script runner (commands that a Lua
// script issues appear in MONITOR too, yet the floor sends only the EVALSHA
// that starts them). Replay sends a recording with redisCommandArgv.
//
// Main thread only; the contexts passed in belong to the caller.
#ifndef ORBEL_BENCH_COMMANDRECORDING_H
#define ORBEL_BENCH_COMMANDRECORDING_H

#include <hiredis/hiredis.h>

#include <functional>
#include <string>
#include <vector>

#include "MonitorScript.h"

namespace OrbelBench {


// Runs `action` while a MONITOR connection to `socketPath` listens, and
// returns the commands the store received meanwhile, in order. A marker sent
// on `marker` (a connection of the caller's that is idle during the action)
// ends the recording. False when the recording failed.
bool Record(const std::string& socketPath, redisContext* marker,
            const std::function<void()>& action, Script& script);

// A recording prepared once, so that a run does nothing but send each
// command and free its reply.
class Replay {
public:
    explicit Replay(const Script& script);
    // False when a command got no reply or an error reply.
    bool Run(redisContext* c) const;
    // The same with every command sent before the first reply is read: the
    // whole recording in one round trip.
    bool RunPipelined(redisContext* c) const;
    size_t Size() const { return mCommands.size(); }

private:
    struct Prepared {
        std::vector<const char*> argv;
        std::vector<size_t> argvlen;
    };
    Script mScript;  // the texts argv points into
    std::vector<Prepared> mCommands;
};

}  // namespace OrbelBench

#endif  // ORBEL_BENCH_COMMANDRECORDING_H
