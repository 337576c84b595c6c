// Recording what the store receives: the MONITOR line reader shared by the
// benchmarks whose floor replays the library's own traffic.
//
// Threads: stateless; a recorder connection belongs to the calling thread.
#ifndef ORBEL_BENCH_MONITORSCRIPT_H
#define ORBEL_BENCH_MONITORSCRIPT_H

#include <hiredis/hiredis.h>

#include <string>
#include <vector>

namespace OrbelBench {

using Command = std::vector<std::string>;
using Script = std::vector<Command>;

// Splits one MONITOR line, `<time> [<db> <client>] "CMD" "arg" ...`, into
// its arguments, undoing the server's quoting (\\, \", \n, \r, \t, \a, \b,
// \xHH). `client`, when given, receives the bracketed "<db> <client>" text.
// False for a line of another shape.
bool ParseMonitorLine(const std::string& line, Command& out, std::string* client = nullptr);

// Reads MONITOR lines from `monitor` (a connection that sent MONITOR) until
// the command ECHO `marker` and appends the commands before it to `script`,
// leaving out those a server-side script issued (the floor sends only the
// EVALSHA that ran them).
// False when the connection failed or a line could not be read.
bool ReadMonitorUntil(redisContext* monitor, const std::string& marker, Script& script);

}  // namespace OrbelBench

#endif  // ORBEL_BENCH_MONITORSCRIPT_H
