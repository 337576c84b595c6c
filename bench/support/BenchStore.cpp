#include "BenchStore.h"

#include <fcntl.h>
#include <ftw.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "FixedPaths.h"

namespace OrbelBench {

namespace {

std::string gSysroot;
pid_t gServerPid = -1;

bool MakeDir(const std::string& path) {
    return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    remove(path);
    return 0;
}

bool ServerAnswers(const std::string& socketPath) {
    redisContext* c = redisConnectUnix(socketPath.c_str());
    bool ok = false;
    if (c != nullptr && c->err == 0) {
        redisReply* r = static_cast<redisReply*>(redisCommand(c, "PING"));
        ok = r != nullptr && r->type == REDIS_REPLY_STATUS;
        if (r != nullptr) freeReplyObject(r);
    }
    if (c != nullptr) redisFree(c);
    return ok;
}

void StopServer() {
    if (gServerPid <= 0) return;
    // Nothing is worth saving: the data set is the benchmark's own.
    redisContext* c = redisConnectUnix(BenchSocketPath().c_str());
    if (c != nullptr && c->err == 0) {
        redisReply* r = static_cast<redisReply*>(redisCommand(c, "SHUTDOWN NOSAVE"));
        if (r != nullptr) freeReplyObject(r);
    }
    if (c != nullptr) redisFree(c);
    for (int i = 0; i < 300; ++i) {
        if (waitpid(gServerPid, nullptr, WNOHANG) == gServerPid) {
            gServerPid = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(gServerPid, SIGKILL);
    waitpid(gServerPid, nullptr, 0);
    gServerPid = -1;
}

void CleanUpAtExit() {
    StopServer();
    if (!gSysroot.empty()) {
        nftw(gSysroot.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

bool Start() {
    char tmpl[] = "/tmp/orbel-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("bench: mkdtemp");
        return false;
    }
    gSysroot = tmpl;
    std::atexit(CleanUpAtExit);
    setenv("ORBEL_SYSROOT", gSysroot.c_str(), 1);
    if (!MakeDir(gSysroot + "/tmp") || !MakeDir(gSysroot + "/tmp/Redfish")) {
        std::perror("bench: mkdir");
        return false;
    }

    std::string socketPath = BenchSocketPath();
    std::string logPath = gSysroot + "/tmp/redis-server.log";
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("bench: fork");
        return false;
    }
    if (pid == 0) {
        // The server must not outlive a benchmark that crashes or is killed.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", socketPath.c_str(),
               "--unixsocketperm", "700", "--save", "", "--appendonly", "no", "--dir",
               gSysroot.c_str(), "--daemonize", "no", static_cast<char*>(nullptr));
        _exit(127);
    }
    gServerPid = pid;
    for (int i = 0; i < 500; ++i) {
        if (ServerAnswers(socketPath)) return true;
        if (waitpid(gServerPid, nullptr, WNOHANG) == gServerPid) {
            gServerPid = -1;
            std::fprintf(stderr, "bench: redis-server exited at start (log: %s)\n",
                         logPath.c_str());
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::fprintf(stderr, "bench: redis-server did not answer on %s\n", socketPath.c_str());
    return false;
}

}  // namespace

bool StartBenchStore() {
    static const bool started = Start();
    return started;
}

const std::string& BenchSysroot() {
    return gSysroot;
}

std::string BenchSocketPath() {
    return Orbel::RedisSocketPath();
}

}  // namespace OrbelBench
