// The store client when the store is not there: no server at all, and a
// server that goes away under an open connection and comes back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "LogLines.h"
#include "RedisCli.h"
#include "TestEnv.h"
#include "TestFiles.h"
#include "ZLogPrint.h"

namespace {

using namespace Orbel;
using namespace OrbelTest;

// Open descriptors of this process: a self-opened connection that is not
// closed on some path shows up here.
size_t OpenFdCount() {
    return ListDir("/proc/self/fd").size();
}

class RedisCliFaultTest : public StoreTest {
protected:
    // Whatever a test did to the server, the next one finds it running.
    void TearDown() override { ASSERT_TRUE(RedisServer::Instance().Start()); }
};

TEST_F(RedisCliFaultTest, WithoutAServerEveryWrapperFailsAndLogs) {
    RedisServer::Instance().Stop();
    // The log service keeps its file open once it has written to it.
    ZLOG(eZLogInfo, "Counting open files.\n");
    size_t fdsBefore = OpenFdCount();
    size_t mark = LogMark();
    int n = 7;
    int result = 0;
    int metricResult = 0;
    std::string s = "kept";
    std::map<std::string, std::string> m;
    std::vector<std::string> v = {"kept"};
    unsigned char* data = nullptr;
    unsigned int len = 3;
    int call = 0;
    EXPECT_EQ(RedisConnect(), nullptr);
    EXPECT_EQ(RedisSubscribeFromChannel("c"), nullptr);
    EXPECT_EQ(RedisType(nullptr, "k"), REDIS_TABLE_UNSUPPORTED);
    for (eRtCode rt :
         {RedisPublishToChannel(nullptr, "c", "m"), RedisHashSize(nullptr, "k", n),
          RedisHashSet(nullptr, "k", "f", "v"), RedisHashGet(nullptr, "k", "f", s),
          RedisHashDel(nullptr, "k", "f"), RedisHashGetAll(nullptr, "k", m),
          RedisListPushBack(nullptr, "k", "x"), RedisListDel(nullptr, "k", std::string("x")),
          RedisListDelAll(nullptr, "k", std::string("x")), RedisListDel(nullptr, "k", 0),
          RedisListGetAll(nullptr, "k", 0, -1, v), RedisListReadBinData(nullptr, "k", &data, len),
          RedisSet(nullptr, "k", "v", 10), RedisGet(nullptr, "k", &s), RedisTTL(nullptr, "k", &n),
          RedisKeys(nullptr, "k*", v), RedisDelTable(nullptr, "k*"),
          RedisEvalEnqueueEvent(nullptr, "/e", result),
          RedisEvalEnqueueMetricReport(nullptr, "/m", metricResult)}) {
        EXPECT_EQ(rt, RT_FAILURE) << "call " << call++;
    }
    // Out-arguments the wrappers did not get to fill keep their values; a
    // list read starts from an empty vector, a script result from -1.
    EXPECT_TRUE(n == 7 && s == "kept" && v.empty() && len == 3);
    EXPECT_TRUE(result == -1 && metricResult == -1);
    EXPECT_EQ(OpenFdCount(), fdsBefore);

    std::vector<std::pair<std::string, std::string>> lines = {
        {"RedisConnect", "Connect to Redis err:No such file or directory\n"},
        {"RedisSubscribeFromChannel", "Failed to call RedisConnect().\n"},
        {"RedisListPushBack", "Failed to call RedisListPushBack(). rt:2\n"}};
    for (const char* func :
         {"RedisPublishToChannel", "RedisType", "RedisHashSize", "RedisHashSet", "RedisHashGet",
          "RedisHashDel", "RedisHashGetAll", "RedisListPushBack", "RedisListDel", "RedisListDelAll",
          "RedisListGetAll", "RedisListReadBinData", "RedisSet", "RedisGet", "RedisTTL",
          "RedisKeys", "RedisDelTable", "RedisEvalEnqueueEvent", "RedisEvalEnqueueMetricReport"}) {
        lines.emplace_back(func, "Failed to call RedisConnect()\n");
    }
    EXPECT_TRUE(LoggedErrors(mark, "RedisCli.cpp", lines));
    // Each failed connect names the socket it tried, right after its error.
    EXPECT_NE(LogSince(mark).find("[INFO] RedisCli.cpp:RedisConnect(): Redis socket tried: " +
                                  SysrootDir() + "/tmp/redis.sock\n"),
              std::string::npos);
}

TEST_F(RedisCliFaultTest, ServerGoneUnderAnOpenContextAndBack) {
    RedisConn conn = RawConnect();
    ASSERT_TRUE(conn);
    redisContext* c = conn.get();
    ASSERT_EQ(RedisHashSet(c, "k", "f", "before"), RT_SUCCESS);

    RedisServer::Instance().Stop();
    size_t mark = LogMark();
    int n = 0;
    std::string s;
    unsigned char bytes[] = {4, 2};
    // The context now carries its error; later calls on it fail the same
    // way instead of reading stale data.
    EXPECT_EQ(RedisHashSet(c, "k", "f", "v"), RT_FAILURE);
    EXPECT_EQ(RedisListSize(c, "k", n), RT_FAILURE);
    EXPECT_EQ(RedisType(c, "k"), REDIS_TABLE_UNSUPPORTED);
    EXPECT_EQ(RedisListWriteBinData(c, "k", bytes, 2), RT_FAILURE);
    // One line of each shape; the others differ only in the command named.
    EXPECT_TRUE(LoggedErrors(mark, "RedisCli.cpp",
                             {{"RedisHashSet", "Command[HSET k f v] reply is NULL. err["},
                              {"RedisListSize", "Command[LLEN k] reply is NULL.\n"},
                              {"RedisListWriteBinData", "Command[RPUSH k 4 2] reply is NULL.\n"}}));

    // The failed writes raised SIGPIPE; it went to a handler that does
    // nothing (the default action would have ended this process), and not
    // to SIG_IGN, which programs started with exec() would inherit.
    struct sigaction act;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &act), 0);
    EXPECT_TRUE(act.sa_handler != SIG_DFL && act.sa_handler != SIG_IGN);

    // Back again: a wrapper without a context of its own connects anew.
    ASSERT_TRUE(RedisServer::Instance().Start());
    EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "after"), RT_SUCCESS);
    EXPECT_EQ(RedisHashGet(nullptr, "k", "f", s), RT_SUCCESS);
    EXPECT_EQ(s, "after");
}

TEST_F(RedisCliFaultTest, SelfOpenedConnectionsAreClosedOnEveryPath) {
    RawCommand({"RPUSH", "l", "x"});
    size_t fdsBefore = OpenFdCount();
    std::string s;
    std::vector<std::string> v;
    int n = 0;
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(RedisHashSet(nullptr, "h", "f", "v"), RT_SUCCESS);  // success
        EXPECT_EQ(RedisHashSet(nullptr, "l", "f", "v"), RT_FAILURE);  // wrong type
        EXPECT_EQ(RedisHashGet(nullptr, "h", "missing", s), RT_FIELD_MISSING);
        EXPECT_EQ(RedisListDel(nullptr, "l", 5), RT_FAILURE);  // index check
        EXPECT_EQ(RedisTTL(nullptr, nullptr, &n), RT_INVALID_ARG);
        EXPECT_EQ(RedisKeys(nullptr, "h*", v), RT_SUCCESS);
    }
    EXPECT_EQ(OpenFdCount(), fdsBefore);
    redisContext* sub = RedisSubscribeFromChannel("c");
    ASSERT_NE(sub, nullptr);
    EXPECT_EQ(OpenFdCount(), fdsBefore + 1);  // handed to the caller, still open
    RedisDisconnect(sub);
    EXPECT_EQ(OpenFdCount(), fdsBefore);
}

}  // namespace
