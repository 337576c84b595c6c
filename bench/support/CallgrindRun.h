// Instruction counts of this program's own tagged parts: the program runs
// itself again under callgrind with one flag, the child measures with
// CALLGRIND_ZERO_STATS / CALLGRIND_DUMP_STATS_AT("<tag>"), and the parent
// reads the dumps.
#pragma once

#include <map>
#include <string>

namespace OrbelBench {

// Runs /proc/self/exe `childFlag` under callgrind (instrumentation off at
// start; `perThread`: one dump per thread). Fills `*totals` with tag ->
// instructions of the dump ("summary:"; with per-thread dumps the last file
// of a tag). False with the reason in `*why` when it could not be run.
bool RunSelfUnderCallgrind(const char* childFlag, bool perThread,
                           std::map<std::string, double>* totals, std::string* why);

}  // namespace OrbelBench
