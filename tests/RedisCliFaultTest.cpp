// The store client when the store is not there: no server at all, and a
// server that goes away under an open connection and comes back.
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "RedisCli.h"
#include "TestEnv.h"

namespace {

using namespace Orbel;
using namespace OrbelTest;
using ::testing::HasSubstr;

std::string ErrorLine(const std::string& func, const std::string& text) {
    return "[ERROR] RedisCli.cpp:" + func + "(): " + text;
}

// Open descriptors of this process: a self-opened connection that is not
// closed on some path shows up here.
int OpenFdCount() {
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (readdir(dir) != nullptr) ++n;
    closedir(dir);
    return n;
}

class RedisCliFaultTest : public StoreTest {
  protected:
    // Whatever a test did to the server, the next one finds it running.
    void TearDown() override { ASSERT_TRUE(RedisServer::Instance().Start()); }
};

TEST_F(RedisCliFaultTest, WithoutAServerEveryWrapperFailsAndLogs) {
    RedisServer::Instance().Stop();
    int fdsBefore = OpenFdCount();
    size_t mark = LogMark();

    int n = 7;
    std::string s = "kept";
    std::map<std::string, std::string> m;
    std::vector<std::string> v = {"kept"};
    std::vector<std::string> one = {"x"};
    unsigned char* data = nullptr;
    unsigned int len = 3;
    int result = 0;
    EXPECT_EQ(RedisConnect(), nullptr);
    EXPECT_EQ(RedisSubscribeFromChannel("c"), nullptr);
    EXPECT_EQ(RedisPublishToChannel(nullptr, "c", "m"), RT_FAILURE);
    EXPECT_EQ(RedisType(nullptr, "k"), REDIS_TABLE_UNSUPPORTED);
    EXPECT_EQ(RedisHashSize(nullptr, "k", n), RT_FAILURE);
    EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "v"), RT_FAILURE);
    EXPECT_EQ(RedisHashGet(nullptr, "k", "f", s), RT_FAILURE);
    EXPECT_EQ(RedisHashDel(nullptr, "k", "f"), RT_FAILURE);
    EXPECT_EQ(RedisHashGetAll(nullptr, "k", m), RT_FAILURE);
    EXPECT_EQ(RedisListPushBack(nullptr, "k", one), RT_FAILURE);
    EXPECT_EQ(RedisListPushBack(nullptr, "k", "x"), RT_FAILURE);
    EXPECT_EQ(RedisListDel(nullptr, "k", std::string("x")), RT_FAILURE);
    EXPECT_EQ(RedisListDelAll(nullptr, "k", std::string("x")), RT_FAILURE);
    EXPECT_EQ(RedisListDel(nullptr, "k", 0), RT_FAILURE);
    EXPECT_EQ(RedisListGetAll(nullptr, "k", 0, -1, v), RT_FAILURE);
    EXPECT_EQ(RedisListReadBinData(nullptr, "k", &data, len), RT_FAILURE);
    EXPECT_EQ(RedisSet(nullptr, "k", "v", 10), RT_FAILURE);
    EXPECT_EQ(RedisGet(nullptr, "k", &s), RT_FAILURE);
    EXPECT_EQ(RedisTTL(nullptr, "k", &n), RT_FAILURE);
    EXPECT_EQ(RedisKeys(nullptr, "k*", v), RT_FAILURE);
    EXPECT_EQ(RedisDelTable(nullptr, "k*"), RT_FAILURE);
    EXPECT_EQ(RedisEvalEnqueueEvent(nullptr, "/e", result), RT_FAILURE);
    EXPECT_EQ(result, -1);
    result = 0;
    EXPECT_EQ(RedisEvalEnqueueMetricReport(nullptr, "/m", result), RT_FAILURE);
    EXPECT_EQ(result, -1);

    // Out-arguments the wrappers did not get to fill keep their values;
    // a list read starts from an empty vector.
    EXPECT_EQ(n, 7);
    EXPECT_EQ(s, "kept");
    EXPECT_TRUE(v.empty());
    EXPECT_EQ(OpenFdCount(), fdsBefore);

    std::string log = LogSince(mark);
    EXPECT_THAT(log, HasSubstr(ErrorLine("RedisConnect", "Connect to Redis err:")));
    EXPECT_THAT(
        log, HasSubstr(ErrorLine("RedisSubscribeFromChannel", "Failed to call RedisConnect().\n")));
    for (const char* func :
         {"RedisPublishToChannel", "RedisType", "RedisHashSize", "RedisHashSet", "RedisHashGet",
          "RedisHashDel", "RedisHashGetAll", "RedisListPushBack", "RedisListDel", "RedisListDelAll",
          "RedisListGetAll", "RedisListReadBinData", "RedisSet", "RedisGet", "RedisTTL",
          "RedisKeys", "RedisDelTable", "RedisEvalEnqueueEvent", "RedisEvalEnqueueMetricReport"}) {
        EXPECT_THAT(log, HasSubstr(ErrorLine(func, "Failed to call RedisConnect()\n"))) << func;
    }
    EXPECT_THAT(log, HasSubstr(ErrorLine("RedisListPushBack",
                                         "Failed to call RedisListPushBack(). rt:2\n")));
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
    EXPECT_EQ(RedisHashSet(c, "k", "f", "v"), RT_FAILURE);
    // The context now carries its error; later calls on it fail the same
    // way instead of reading stale data.
    EXPECT_EQ(RedisListSize(c, "k", n), RT_FAILURE);
    EXPECT_EQ(RedisGet(c, "k", &s), RT_FAILURE);
    EXPECT_EQ(RedisSetAdd(c, "k", "m"), RT_FAILURE);
    EXPECT_EQ(RedisType(c, "k"), REDIS_TABLE_UNSUPPORTED);
    unsigned char bytes[] = {4, 2};
    EXPECT_EQ(RedisListWriteBinData(c, "k", bytes, 2), RT_FAILURE);
    std::string log = LogSince(mark);
    EXPECT_THAT(log,
                HasSubstr(ErrorLine("RedisHashSet", "Command[HSET k f v] reply is NULL. err[")));
    EXPECT_THAT(log, HasSubstr(ErrorLine("RedisListSize", "Command[LLEN k] reply is NULL.\n")));
    EXPECT_THAT(log, HasSubstr(ErrorLine("RedisGet", "Command[GET k] reply is NULL.\n")));
    EXPECT_THAT(log, HasSubstr(ErrorLine("RedisSetAdd", "Command[SADD k m] reply is NULL. err[")));
    EXPECT_THAT(log, HasSubstr(ErrorLine("RedisType", "Command[TYPE k] reply is NULL.\n")));
    EXPECT_THAT(log, HasSubstr(ErrorLine("RedisListWriteBinData",
                                         "Command[RPUSH k 4 2] reply is NULL.\n")));

    // The failed writes raised SIGPIPE; it went to a handler that does
    // nothing (the default action would have ended this process), and not
    // to SIG_IGN, which programs started with exec() would inherit.
    struct sigaction act;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &act), 0);
    EXPECT_NE(act.sa_handler, SIG_DFL);
    EXPECT_NE(act.sa_handler, SIG_IGN);

    // Back again: a wrapper without a context of its own connects anew.
    ASSERT_TRUE(RedisServer::Instance().Start());
    EXPECT_EQ(RedisHashSet(nullptr, "k", "f", "after"), RT_SUCCESS);
    EXPECT_EQ(RedisHashGet(nullptr, "k", "f", s), RT_SUCCESS);
    EXPECT_EQ(s, "after");
}

TEST_F(RedisCliFaultTest, SelfOpenedConnectionsAreClosedOnEveryPath) {
    RawCommand({"RPUSH", "l", "x"});
    int fdsBefore = OpenFdCount();
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
