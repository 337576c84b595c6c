// Test environment shared by every suite.
//
// Each test binary runs under a private sysroot: a fresh directory that
// ORBEL_SYSROOT points at, so the library's fixed paths (store socket, work
// and log directory, templates, shutting-down marker) never touch the real
// ones and binaries can run in parallel. The sysroot is removed at exit
// (set ORBEL_KEEP_SYSROOT=1 to keep it for a post-mortem).
//
// A log service (zLogPrint) writes to <sysroot>/tmp/Redfish/test.log for
// the whole binary, with debug output enabled, so tests can read back what
// the library logged (LogMark / LogSince).
//
// The store is a real redis-server from Debian, started on the sysroot's
// socket the first time a StoreTest runs, and emptied before every StoreTest.
#ifndef ORBEL_TEST_TESTENV_H
#define ORBEL_TEST_TESTENV_H

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OrbelTest {

// Called by the common main() before the tests run.
void RegisterEnvironment();

// The source tree, without a trailing "/" (SourceDir.cpp).
const std::string& SourceDir();
// Installs the sample plug-in's user-input templates into the sysroot's
// template directory, where its schemas load them (SourceDir.cpp).
void InstallSampleTemplates();

// The binary's sysroot, without a trailing "/".
const std::string& SysrootDir();

// Path of the test log file, and helpers to read what was logged since a mark.
std::string LogFilePath();
size_t LogMark();
std::string LogSince(size_t mark);

// Reads a whole file; "" when it cannot be read.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);

// The binary's private redis-server.
class RedisServer {
public:
    static RedisServer& Instance();
    // Starts the server on <sysroot>/tmp/redis.sock and waits until it
    // accepts connections. Returns false (with the reason on stderr) if it
    // cannot be started.
    bool Start();
    // Stops the server (SHUTDOWN NOSAVE, then SIGKILL if needed) and waits
    // for the process to end.
    void Stop();
    void FlushAll();
    std::string SocketPath() const;

private:
    RedisServer() = default;
    int mPid = -1;
};

// A raw hiredis connection for the test's own checks, independent of the
// library's wrappers.
struct RedisConnDeleter {
    void operator()(redisContext* c) const {
        if (c != nullptr) redisFree(c);
    }
};
using RedisConn = std::unique_ptr<redisContext, RedisConnDeleter>;
RedisConn RawConnect();

// One command through the raw connection, arguments passed as separate
// binary-safe strings.
struct ReplyDeleter {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;
Reply RawCommand(const std::vector<std::string>& args);

// Conveniences over RawCommand.
using Fields = std::map<std::string, std::string>;  // a hash as HGetAll returns it
using Items = std::vector<std::string>;             // a list as LRange returns it
Fields HGetAll(const std::string& key);
Items LRange(const std::string& key);
std::set<std::string> SMembers(const std::string& key);
bool Exists(const std::string& key);

// The front end's view of a JPath on one line, assembled by the tree reader
// (with the library's && fields when `meta`); "<reason>" when it cannot be read.
std::string StoreDoc(const std::string& jpath, bool meta = false);

// A counter of the server's INFO `section` ("stats", "commandstats"), the
// number after `tag`, asked on `c` (a test connection when null); 0 when absent.
long ServerStat(const std::string& section, const std::string& tag, redisContext* c = nullptr);
// How often the server has run `command` ("hset").
long ServerCalls(const std::string& command);

// How often `what` occurs in `text`, overlapping occurrences included.
size_t CountOf(const std::string& text, const std::string& what);

// Success when every one of `texts` was logged since `mark`; the failure
// names the missing one and shows the log.
::testing::AssertionResult Logged(size_t mark, const std::vector<std::string>& texts);
::testing::AssertionResult Logged(size_t mark, std::initializer_list<std::string> texts);
::testing::AssertionResult Logged(size_t mark, const std::string& text);

// Fixture for tests that need the store: starts the server on first use
// and empties it before each test.
class StoreTest : public ::testing::Test {
protected:
    void SetUp() override;
};

}  // namespace OrbelTest

#endif  // ORBEL_TEST_TESTENV_H
