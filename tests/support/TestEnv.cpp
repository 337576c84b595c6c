#include "TestEnv.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "Orbel.h"
#include "StoreTreeReader.h"
#include "ZLogPrint.h"

namespace OrbelTest {

namespace {

std::string& SysrootStorage() {
    static std::string dir;
    return dir;
}

void MakeDirs(const std::string& path) {
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        mkdir(path.substr(0, at).c_str(), 0755);
    }
    mkdir(path.c_str(), 0755);
}

void RemoveTree(const std::string& path) {
    std::string cmd = "rm -rf '" + path + "'";
    if (std::system(cmd.c_str()) != 0) {
        std::fprintf(stderr, "test: could not remove %s\n", path.c_str());
    }
}

// Sets up the sysroot and the log service before any test runs, and tears
// both down (with the store) after the last one.
class OrbelTestEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        char tmpl[] = "/tmp/orbel-test-XXXXXX";
        char* dir = mkdtemp(tmpl);
        if (dir == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        SysrootStorage() = dir;
        setenv("ORBEL_SYSROOT", dir, 1);
        MakeDirs(SysrootStorage() + "/tmp/Redfish");
        Orbel::zLogPrint = new Orbel::ZLogPrint(SysrootStorage() + "/tmp/Redfish/test", 1 << 30);
        Orbel::zLogPrint->SetDebugLevel(1);
        Orbel::zLogPrint->EnableSchemaDebug("ZComLib");
    }
    void TearDown() override {
        RedisServer::Instance().Stop();
        delete Orbel::zLogPrint;
        Orbel::zLogPrint = nullptr;
        const char* keep = std::getenv("ORBEL_KEEP_SYSROOT");
        if (keep == nullptr || keep[0] == '\0') {
            RemoveTree(SysrootStorage());
        } else {
            std::fprintf(stderr, "test: sysroot kept at %s\n", SysrootStorage().c_str());
        }
    }
};

}  // namespace

void RegisterEnvironment() {
    ::testing::AddGlobalTestEnvironment(new OrbelTestEnvironment);
}

const std::string& SysrootDir() {
    return SysrootStorage();
}

std::string LogFilePath() {
    return SysrootDir() + "/tmp/Redfish/test.log";
}

size_t LogMark() {
    return ReadFile(LogFilePath()).size();
}

std::string LogSince(size_t mark) {
    std::string all = ReadFile(LogFilePath());
    return mark <= all.size() ? all.substr(mark) : all;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::string();
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool FileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

void WriteFile(const std::string& path, const std::string& text) {
    auto slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0) MakeDirs(path.substr(0, slash));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

RedisServer& RedisServer::Instance() {
    static RedisServer server;
    return server;
}

std::string RedisServer::SocketPath() const {
    return SysrootDir() + "/tmp/redis.sock";
}

bool RedisServer::Start() {
    if (mPid > 0) return true;
    MakeDirs(SysrootDir() + "/tmp");
    unlink(SocketPath().c_str());
    std::string logPath = SysrootDir() + "/tmp/redis-server.log";
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        return false;
    }
    if (pid == 0) {
        int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        std::string sock = SocketPath();
        execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", sock.c_str(),
               "--unixsocketperm", "700", "--save", "", "--appendonly", "no", "--dir",
               SysrootDir().c_str(), "--daemonize", "no", (char*)nullptr);
        _exit(127);
    }
    mPid = pid;
    for (int i = 0; i < 500; ++i) {
        RedisConn c(redisConnectUnix(SocketPath().c_str()));
        Reply r(c && c->err == 0 ? static_cast<redisReply*>(redisCommand(c.get(), "PING"))
                                 : nullptr);
        if (r && r->type == REDIS_REPLY_STATUS) return true;
        int status = 0;
        if (waitpid(mPid, &status, WNOHANG) == mPid) {
            std::fprintf(stderr, "test: redis-server exited at start:\n%s\n",
                         ReadFile(logPath).c_str());
            mPid = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::fprintf(stderr, "test: redis-server did not accept connections on %s\n",
                 SocketPath().c_str());
    Stop();
    return false;
}

void RedisServer::Stop() {
    if (mPid <= 0) return;
    RedisConn c(redisConnectUnix(SocketPath().c_str()));
    if (c && c->err == 0) Reply(static_cast<redisReply*>(redisCommand(c.get(), "SHUTDOWN NOSAVE")));
    int status = 0;
    for (int i = 0; i < 300; ++i) {
        if (waitpid(mPid, &status, WNOHANG) == mPid) {
            mPid = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(mPid, SIGKILL);
    waitpid(mPid, &status, 0);
    mPid = -1;
}

void RedisServer::FlushAll() {
    Reply r = RawCommand({"FLUSHALL"});
    if (!r || r->type == REDIS_REPLY_ERROR) ADD_FAILURE() << "FLUSHALL failed";
}

RedisConn RawConnect() {
    RedisConn c(redisConnectUnix(RedisServer::Instance().SocketPath().c_str()));
    if (c && c->err != 0) c.reset();
    return c;
}

Reply RawCommand(const std::vector<std::string>& args) {
    RedisConn c = RawConnect();
    if (!c) return Reply();
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    for (const auto& a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    return Reply(static_cast<redisReply*>(
        redisCommandArgv(c.get(), static_cast<int>(argv.size()), argv.data(), lens.data())));
}

// The elements of an array reply; empty for any other reply.
static Items ArrayReply(const std::vector<std::string>& args) {
    Items out;
    Reply r = RawCommand(args);
    for (size_t i = 0; r && r->type == REDIS_REPLY_ARRAY && i < r->elements; ++i) {
        out.emplace_back(r->element[i]->str, r->element[i]->len);
    }
    return out;
}

Fields HGetAll(const std::string& key) {
    Fields out;
    const Items flat = ArrayReply({"HGETALL", key});
    for (size_t i = 0; i + 1 < flat.size(); i += 2) out[flat[i]] = flat[i + 1];
    return out;
}

Items LRange(const std::string& key) {
    return ArrayReply({"LRANGE", key, "0", "-1"});
}

std::set<std::string> SMembers(const std::string& key) {
    const Items members = ArrayReply({"SMEMBERS", key});
    return std::set<std::string>(members.begin(), members.end());
}

bool Exists(const std::string& key) {
    Reply r = RawCommand({"EXISTS", key});
    return r && r->type == REDIS_REPLY_INTEGER && r->integer == 1;
}

std::string StoreDoc(const std::string& jpath, bool meta) {
    RedisConn c = RawConnect();
    std::string json;
    std::string error = "no store";
    Orbel::sStoreTreeOptions options;
    options.pretty = false;
    options.includeMeta = meta;
    if (!c || !Orbel::ReadStoreTree(c.get(), jpath, json, &error, options)) {
        return "<" + error + ">";
    }
    return json;
}

long ServerStat(const std::string& section, const std::string& tag, redisContext* c) {
    Reply info = c != nullptr ? Reply(static_cast<redisReply*>(redisCommand(c, "INFO %s", section.c_str())))
                              : RawCommand({"INFO", section});
    const std::string text = info && info->str != nullptr ? info->str : "";
    const size_t at = text.find(tag);
    return at == std::string::npos ? 0 : std::stol(text.substr(at + tag.size()));
}

long ServerCalls(const std::string& command) {
    return ServerStat("commandstats", "cmdstat_" + command + ":calls=");
}

size_t CountOf(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

void StoreTest::SetUp() {
    ASSERT_TRUE(RedisServer::Instance().Start()) << "private redis-server did not start";
    RedisServer::Instance().FlushAll();
}

::testing::AssertionResult Logged(size_t mark, const std::vector<std::string>& texts) {
    const std::string log = LogSince(mark);
    for (const std::string& text : texts) {
        if (log.find(text) == std::string::npos) {
            return ::testing::AssertionFailure() << "not logged: [" << text << "] in:\n"
                                                 << log.substr(0, 4000);
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult Logged(size_t mark, std::initializer_list<std::string> texts) {
    return Logged(mark, std::vector<std::string>(texts));
}

::testing::AssertionResult Logged(size_t mark, const std::string& text) {
    return Logged(mark, std::vector<std::string>{text});
}

}  // namespace OrbelTest
