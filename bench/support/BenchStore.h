// A private store for benchmark programs.
//
// StartBenchStore() gives the process a private sysroot (a fresh directory
// that ORBEL_SYSROOT points at, so the library's fixed paths, the store
// socket among them, never touch the real ones) and a redis-server of its
// own listening only on that sysroot's socket. Both are removed when the
// process exits; the server also ends if the benchmark dies without
// exiting.
//
// Call it from main() before any thread starts (it sets an environment
// variable) and before any connection is opened.
#ifndef ORBEL_BENCH_BENCHSTORE_H
#define ORBEL_BENCH_BENCHSTORE_H

#include <string>

namespace OrbelBench {

// Creates the sysroot and starts the server, once per process; later calls
// return the first result. False (with the reason on stderr) when the
// server cannot be started.
bool StartBenchStore();

// The sysroot directory without a trailing "/"; empty before the start.
const std::string& BenchSysroot();

// The server's socket: the library's RedisSocketPath() under the sysroot.
std::string BenchSocketPath();

}  // namespace OrbelBench

#endif  // ORBEL_BENCH_BENCHSTORE_H
