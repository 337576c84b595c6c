// The store client against a real redis-server: what each wrapper writes and
// reads byte for byte, its result codes, and the log lines of its failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "LogLines.h"
#include "RedisCli.h"
#include "TestEnv.h"

namespace {

using namespace Orbel;
using namespace OrbelTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Texts = std::vector<std::string>;

__attribute__((format(printf, 1, 2))) std::string Fmt(const char* format, ...) {
    char buffer[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

// Texts that break naive command building: blanks split arguments, quotes
// and percent signs are special to formats, "%s%n" crashes one that uses
// caller text as a format, and high bytes must pass unchanged.
const Texts kAwkward = {"two words", "say \"hi\" 'x'",       "100% sure",
                        "%s%n%d",    "caf\xc3\xa9 \xff\x01", "a\tb\nc"};

class RedisCliTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        mConn = RawConnect();
        ASSERT_TRUE(mConn);
    }
    redisContext* ctx() { return mConn.get(); }
    ::testing::AssertionResult Logged(
        size_t mark, const std::vector<std::pair<std::string, std::string>>& lines) {
        return LoggedErrors(mark, "RedisCli.cpp", lines);
    }
    RedisConn mConn;
};

TEST_F(RedisCliTest, HashWrappersKeepAwkwardTextsByteExact) {
    // A self-opened connection (RedisConnect, closed again), and the test's own.
    for (redisContext* c : {static_cast<redisContext*>(nullptr), ctx()}) {
        RawCommand({"FLUSHALL"});
        std::map<std::string, std::string> expected;
        for (const std::string& text : kAwkward) {
            std::string value = text + " value";
            ASSERT_EQ(RedisHashSet(c, "my key", text.c_str(), value.c_str()), RT_SUCCESS) << text;
            expected[text] = value;
            std::string got;
            EXPECT_EQ(RedisHashGet(c, "my key", text.c_str(), got), RT_SUCCESS);
            EXPECT_EQ(got, value);
        }
        EXPECT_EQ(HGetAll("my key"), expected);
        int size = -1;
        EXPECT_TRUE(RedisHashSize(c, "my key", size) == RT_SUCCESS && size == 6) << size;

        // The store's values replace what the caller left in the map.
        std::map<std::string, std::string> all = {{kAwkward[0], "stale"}, {"other", "kept"}};
        size_t mark = LogMark();
        EXPECT_EQ(RedisHashGetAll(c, "my key", all, true), RT_SUCCESS);
        EXPECT_THAT(LogSince(mark), HasSubstr("  key[100% sure] value[100% sure value]:"));
        expected["other"] = "kept";
        EXPECT_EQ(all, expected);

        EXPECT_EQ(RedisHashDel(c, "my key", kAwkward[2].c_str()), RT_SUCCESS);
        EXPECT_EQ(HGetAll("my key").count(kAwkward[2]), 0u);
    }

    // The protocol framing: an empty argument, and a text longer than the
    // sender's stack buffer that looks like framing itself.
    const std::string big = std::string(3000, 'x') + "\r\n$3\r\nend\r\n";
    ASSERT_EQ(RedisHashSet(ctx(), "big", "", big.c_str()), RT_SUCCESS);
    EXPECT_EQ(HGetAll("big"), (std::map<std::string, std::string>{{"", big}}));

    // An empty field and a missing one (or key) read alike, and clear the value.
    RawCommand({"HSET", "h", "empty", ""});
    for (const char* field : {"empty", "missing", "no such key"}) {
        std::string value = "previous";
        const char* key = field[0] == 'n' ? field : "h";
        EXPECT_EQ(RedisHashGet(ctx(), key, field, value), RT_FIELD_MISSING) << field;
        EXPECT_EQ(value, "") << field;
    }
}

TEST_F(RedisCliTest, TypesAreMappedAndWrongTypesFailWithTheirTexts) {
    for (const char* cmd : {"RPUSH l x", "HSET h f v", "SET s v", "ZADD zset 1 m"}) {
        Reply(static_cast<redisReply*>(redisCommand(ctx(), cmd)));
    }
    EXPECT_EQ(RedisType(ctx(), "missing"), REDIS_TABLE_NONE);
    EXPECT_EQ(RedisType(nullptr, "h"), REDIS_TABLE_HASH);
    EXPECT_EQ(RedisType(ctx(), "l"), REDIS_TABLE_LIST);
    EXPECT_EQ(RedisType(ctx(), "s"), REDIS_TABLE_STRING);
    size_t mark = LogMark();
    EXPECT_EQ(RedisType(nullptr, "zset"), REDIS_TABLE_UNSUPPORTED);
    int size = -1;
    std::string value;
    std::vector<std::string> out = {"stale"};
    unsigned char two[] = {1, 2};
    EXPECT_EQ(RedisHashSet(ctx(), "l", "f", "v"), RT_FAILURE);
    EXPECT_EQ(RedisHashSize(ctx(), "l", size), RT_FAILURE);
    EXPECT_EQ(RedisListSet(ctx(), "l", nullptr, "v"), RT_FAILURE);
    EXPECT_EQ(RedisListGetAll(ctx(), "h", 0, -1, out), RT_FAILURE);
    EXPECT_EQ(RedisListPushBack(ctx(), "h", "v"), RT_FAILURE);
    EXPECT_EQ(RedisListDel(ctx(), "h", 0), RT_FAILURE);
    EXPECT_EQ(RedisListDelAll(ctx(), "h", std::string("v")), RT_FAILURE);
    EXPECT_EQ(RedisListWriteBinData(ctx(), "h", two, 2), RT_FAILURE);
    EXPECT_EQ(RedisSet(ctx(), "zero", "v", 0), RT_FAILURE);
    // Out-arguments are left alone, except the list read's, cleared first.
    EXPECT_TRUE(size == -1 && out.empty());
    // One line of each shape; the others differ only in the command named.
    EXPECT_TRUE(Logged(
        mark, {{"RedisType", "Unsupported table type[zset].\n"},
               {"RedisHashSet", "Command[HSET l f v] reply failed.\n"},
               {"RedisHashSize", "Command[LLEN l] reply failed.\n"},  // HLEN sent, LLEN named
               {"RedisListSet", "Command[LSET l  v] reply failed.\n"},
               {"RedisListGetAll", "[h] is not a list. type[6]\n"},
               {"RedisListPushBack", "Failed to call RedisListPushBack(). rt:2\n"},
               {"RedisListDel", "Failed to call RedisListGetAll( h )\n"},
               {"RedisListDelAll", "Command[LREM h 0 v] reply failed. reply->int[0]\n"},
               {"RedisListWriteBinData", "Command[RPUSH h 1 2] reply failed.\n"},
               {"RedisSet", "Command[SET zero v EX 0 NX] reply failed.\n"}}));
    EXPECT_EQ(HGetAll("h").size(), 1u);
    EXPECT_FALSE(Exists("zero"));

    // HGET does not look at the reply type: the server's error text comes
    // back as the value.
    EXPECT_EQ(RedisHashGet(ctx(), "l", "f", value), RT_SUCCESS);
    EXPECT_THAT(value, HasSubstr("WRONGTYPE"));
}

TEST_F(RedisCliTest, ListWrappersReadWriteAndDeleteInOrder) {
    Texts values = kAwkward;
    ASSERT_EQ(RedisListPushBack(nullptr, "my list", values), RT_SUCCESS);
    ASSERT_EQ(RedisListPushBack(ctx(), "my list", "last one"), RT_SUCCESS);
    values.push_back("last one");
    EXPECT_EQ(LRange("my list"), values);
    int size = -1;
    EXPECT_TRUE(RedisListSize(ctx(), "my list", size) == RT_SUCCESS && size == 7) << size;
    std::string value;
    EXPECT_TRUE(RedisListGet(ctx(), "my list", 3, value) == RT_SUCCESS && value == values[3]);
    EXPECT_EQ(RedisListGet(ctx(), "my list", 99, value), RT_NO_SUCH_KEY);
    EXPECT_EQ(RedisListSet(ctx(), "my list", "1", "100% \"new\""), RT_SUCCESS);
    Texts part = {"stale"};
    size_t mark = LogMark();
    EXPECT_EQ(RedisListGetAll(nullptr, "my list", 1, 2, part, true), RT_SUCCESS);
    EXPECT_THAT(part, ElementsAre("100% \"new\"", values[2]));
    // Dumps show caller texts as they are (never as a format).
    EXPECT_THAT(LogSince(mark), HasSubstr("    |-- element_1[100% sure].\n"));
    EXPECT_EQ(RedisListGetAll(ctx(), "missing", 0, -1, part), RT_SUCCESS);
    EXPECT_TRUE(part.empty());

    // By value: the first equal element, or every one.
    RawCommand({"RPUSH", "l", "x", "y", "x", "z", "x"});
    EXPECT_EQ(RedisListDel(ctx(), "l", std::string("x")), RT_SUCCESS);
    EXPECT_THAT(LRange("l"), ElementsAre("y", "x", "z", "x"));
    EXPECT_EQ(RedisListDelAll(nullptr, "l", std::string("x")), RT_SUCCESS);
    EXPECT_THAT(LRange("l"), ElementsAre("y", "z"));
    // By index the element's value is removed once, from the front: index 3
    // of [y z x y] takes away the first y.
    RawCommand({"RPUSH", "l", "x", "y"});
    EXPECT_EQ(RedisListDel(nullptr, "l", 3), RT_SUCCESS);
    EXPECT_THAT(LRange("l"), ElementsAre("z", "x", "y"));
    mark = LogMark();
    EXPECT_EQ(RedisListDel(ctx(), "l", 3), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, {{"RedisListDel", "Index[3] out of LIST[l] size[3]\n"}}));
    EXPECT_THAT(LRange("l"), ElementsAre("z", "x", "y"));
}

TEST_F(RedisCliTest, NullContextsAndNullArgumentsAreRefusedWithTheirTexts) {
    // Six wrappers never connect by themselves: a null context is refused.
    const char* key = "k";
    const char* value = "v";
    size_t mark = LogMark();
    int n = -1;
    std::string s;
    Texts v;
    unsigned char bytes[] = {1, 2};
    EXPECT_EQ(RedisSetAdd(nullptr, key, value), RT_FAILURE);
    EXPECT_EQ(RedisSetRem(nullptr, key, value), RT_FAILURE);
    EXPECT_EQ(RedisListSize(nullptr, key, n), RT_FAILURE);
    EXPECT_EQ(RedisListSet(nullptr, key, "0", value), RT_FAILURE);
    EXPECT_EQ(RedisListGet(nullptr, key, 0, s), RT_FAILURE);
    EXPECT_EQ(RedisListWriteBinData(nullptr, key, bytes, 2), RT_FAILURE);
    const void* k = key;
    const void* val = value;
    EXPECT_TRUE(
        Logged(mark, {{"RedisSetAdd", Fmt("NULL arg! c:%p key:%p value:%p!\n", nullptr, k, val)},
                      {"RedisSetRem", Fmt("NULL arg! c:%p key:%p value:%p!\n", nullptr, k, val)},
                      {"RedisListSize", Fmt("NULL arg! c:%p key:%p\n", nullptr, k)},
                      {"RedisListSet", Fmt("NULL arg! c:%p key:%p value:%p\n", nullptr, k, val)},
                      {"RedisListGet", Fmt("NULL arg! c:%p key:%p\n", nullptr, k)},
                      {"RedisListWriteBinData", "NULL arg! c:(nil) key:"}}));
    EXPECT_THAT(LogSince(mark), ::testing::Not(HasSubstr("RedisConnect")));

    // Null arguments, one wrapper of each failure shape.
    mark = LogMark();
    EXPECT_EQ(RedisType(nullptr, nullptr), REDIS_TABLE_UNSUPPORTED);
    EXPECT_EQ(RedisHashSet(ctx(), "k", nullptr, "v"), RT_FAILURE);
    EXPECT_EQ(RedisListPushBack(ctx(), "k", static_cast<const char*>(nullptr)), RT_FAILURE);
    EXPECT_EQ(RedisTTL(ctx(), nullptr, &n), RT_INVALID_ARG);
    EXPECT_EQ(RedisKeys(ctx(), nullptr, v), RT_FAILURE);
    EXPECT_EQ(redisAuthentication(nullptr, nullptr), RT_FAILURE);
    EXPECT_EQ(RedisDelTable(nullptr, nullptr), RT_SUCCESS);  // deleting nothing counts as done
    EXPECT_TRUE(Logged(mark, {{"RedisType", "NULL arg! key:(nil)\n"},
                              {"RedisTTL", "Invalid argument key:(nil) rtValue:"},
                              {"RedisKeys", "NULL arg! patten:(nil)\n"},
                              {"redisAuthentication", "Null pointer! rc:(nil) pass:(nil)\n"},
                              {"RedisHashSet", "NULL arg! key:0x"}}));
    EXPECT_FALSE(Exists("k"));
}

TEST_F(RedisCliTest, SetGetTtlKeysAndDelTable) {
    size_t quiet = LogMark();
    EXPECT_EQ(RedisSet(nullptr, "lock key", kAwkward[3].c_str(), 100), RT_SUCCESS);
    std::string value;
    EXPECT_TRUE(RedisGet(ctx(), "lock key", &value) == RT_SUCCESS && value == kAwkward[3]);
    int ttl = 0;
    EXPECT_TRUE(RedisTTL(nullptr, "lock key", &ttl) == RT_SUCCESS && ttl > 0 && ttl <= 100);
    // No NX goes out: an existing key is overwritten.
    EXPECT_EQ(RedisSet(ctx(), "lock key", "second", 5), RT_SUCCESS);
    EXPECT_TRUE(RedisGet(nullptr, "lock key", &value) == RT_SUCCESS && value == "second");
    EXPECT_TRUE(RedisTTL(ctx(), "missing", &ttl) == RT_SUCCESS && ttl == -2) << ttl;
    value = "kept";
    EXPECT_TRUE(RedisGet(ctx(), "missing", &value) == RT_NO_SUCH_KEY && value == "kept");
    // Successes and a missing key log nothing.
    EXPECT_EQ(LogSince(quiet), "");

    for (const char* k : {"a1", "a 2", "b"}) RawCommand({"SET", k, "v"});
    Texts keys = {"first"};
    size_t mark = LogMark();
    EXPECT_EQ(RedisKeys(ctx(), "a*", keys, true), RT_SUCCESS);
    std::sort(keys.begin() + 1, keys.end());
    EXPECT_EQ(keys, (Texts{"first", "a 2", "a1"}));  // appended to
    EXPECT_THAT(LogSince(mark), HasSubstr("  value[a 2].\n"));
    EXPECT_EQ(RedisDelTable(nullptr, "a*"), RT_SUCCESS);
    EXPECT_FALSE(Exists("a1") || Exists("a 2"));
    EXPECT_TRUE(Exists("b"));
    EXPECT_EQ(RedisDelTable(ctx(), "b"), RT_SUCCESS);
    EXPECT_FALSE(Exists("b"));
}

TEST_F(RedisCliTest, SetMembersAndPublishKeepAwkwardTexts) {
    for (const std::string& m : kAwkward) ASSERT_EQ(RedisSetAdd(ctx(), "my set", m.c_str()), 0);
    EXPECT_EQ(RedisSetAdd(ctx(), "my set", kAwkward[0].c_str()), RT_SUCCESS);
    EXPECT_EQ(SMembers("my set"), std::set<std::string>(kAwkward.begin(), kAwkward.end()));
    EXPECT_EQ(RedisSetRem(ctx(), "my set", kAwkward[1].c_str()), RT_SUCCESS);
    EXPECT_EQ(SMembers("my set").count(kAwkward[1]), 0u);

    redisContext* sub = RedisSubscribeFromChannel("chan nel");
    ASSERT_NE(sub, nullptr);
    const std::string message = kAwkward[3] + " " + kAwkward[4];
    EXPECT_EQ(RedisPublishToChannel(nullptr, "chan nel", message), RT_SUCCESS);
    void* raw = nullptr;
    ASSERT_EQ(redisGetReply(sub, &raw), REDIS_OK);
    Reply msg(static_cast<redisReply*>(raw));
    ASSERT_EQ(msg->type, REDIS_REPLY_ARRAY);
    ASSERT_EQ(msg->elements, 3u);
    Texts got;
    for (size_t i = 0; i < 3; ++i) got.emplace_back(msg->element[i]->str, msg->element[i]->len);
    EXPECT_EQ(got, (Texts{"message", "chan nel", message}));
    RedisDisconnect(sub);
}

TEST_F(RedisCliTest, BinaryDataRoundTripsAppendsAndRefusesNonBytes) {
    std::vector<unsigned char> bytes(256);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(255 - i);
    const char* key = "bin key with blanks";
    ASSERT_EQ(RedisListWriteBinData(ctx(), key, bytes.data(), 256), RT_SUCCESS);
    Texts stored = LRange(key);
    ASSERT_EQ(stored.size(), 256u);
    EXPECT_EQ(stored.front() + " " + stored[155] + " " + stored.back(), "255 100 0");
    unsigned char* data = nullptr;
    unsigned int len = 0;
    ASSERT_EQ(RedisListReadBinData(nullptr, key, &data, len), RT_SUCCESS);
    std::unique_ptr<unsigned char[]> owned(data);
    EXPECT_EQ(std::vector<unsigned char>(data, data + len), bytes);
    // A second write appends: the caller deletes the key to rewrite it.
    ASSERT_EQ(RedisListWriteBinData(ctx(), key, bytes.data(), 3), RT_SUCCESS);
    ASSERT_EQ(RedisListReadBinData(ctx(), key, &data, len), RT_SUCCESS);
    owned.reset(data);
    ASSERT_EQ(len, 259u);
    EXPECT_EQ(std::vector<unsigned char>(data + 256, data + 259),
              std::vector<unsigned char>(bytes.begin(), bytes.begin() + 3));
    // A missing key and a hash hold no bytes: nothing, and no failure.
    RawCommand({"HSET", "h", "f", "v"});
    for (const char* empty : {"missing", "h"}) {
        EXPECT_EQ(RedisListReadBinData(ctx(), empty, &data, len), RT_SUCCESS);
        EXPECT_TRUE(data == nullptr && len == 0) << empty;
    }

    RawCommand({"RPUSH", "bad", "1", "256"});
    size_t mark = LogMark();
    unsigned char sentinel = 0;
    data = &sentinel;
    len = 9;
    EXPECT_EQ(RedisListReadBinData(ctx(), "bad", &data, len), RT_FAILURE);
    EXPECT_TRUE(data == nullptr && len == 0);
    EXPECT_THAT(LogSince(mark), HasSubstr("[bad] element_1[256] is not a byte value.\n"));
    EXPECT_EQ(RedisListWriteBinData(ctx(), "empty", bytes.data(), 0), RT_FAILURE);
    EXPECT_FALSE(Exists("empty"));
}

TEST_F(RedisCliTest, EnqueueScriptsRunTheStoredDigests) {
    const std::string payload = "/redfish/v1/Events/1 a";
    int result = 0;
    size_t mark = LogMark();
    EXPECT_EQ(RedisEvalEnqueueEvent(nullptr, payload.c_str(), result), RT_FAILURE);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(Logged(
        mark, {{"RedisEvalEnqueueEvent", "Failed to get script[enqueueEvent] SHA value.\n"}}));

    Reply sha = RawCommand({"SCRIPT", "LOAD", "redis.call('RPUSH', 'queue', KEYS[1]) return 1"});
    Reply text = RawCommand({"SCRIPT", "LOAD", "return 'queued'"});
    ASSERT_TRUE(sha && text && sha->type == REDIS_REPLY_STRING);
    RawCommand(
        {"HSET", "redisSHAScripts", "enqueueEvent", sha->str, "enqueueMetricReport", sha->str});
    EXPECT_EQ(RedisEvalEnqueueEvent(ctx(), payload.c_str(), result), RT_SUCCESS);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(RedisEvalEnqueueMetricReport(nullptr, "/m", result), RT_SUCCESS);
    EXPECT_THAT(LRange("queue"), ElementsAre(payload, "/m"));

    // A reply of another type: dumped for the metric report only.
    RawCommand({"HSET", "redisSHAScripts", "enqueueMetricReport", text->str});
    mark = LogMark();
    EXPECT_EQ(RedisEvalEnqueueMetricReport(nullptr, "/m", result), RT_FAILURE);
    EXPECT_EQ(result, -1);
    EXPECT_THAT(LogSince(mark), HasSubstr("Dump Redis command[RedisEvalEnqueueMetricReport ] "
                                          "reply:\n(String):[6]: queued\n\n\n"));
    // A digest the server does not know (scripts flushed): an error reply.
    RawCommand({"SCRIPT", "FLUSH"});
    EXPECT_EQ(RedisEvalEnqueueEvent(ctx(), payload.c_str(), result), RT_FAILURE);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(Logged(
        mark,
        {{"RedisEvalEnqueueMetricReport",
          Fmt("Command[evalsha %s 1 /m] reply type[1] is unexpected.\n", text->str)},
         {"RedisEvalEnqueueEvent", Fmt("Command[evalsha %s 1 %s] reply type[6] is unexpected.\n",
                                       sha->str, payload.c_str())}}));
    EXPECT_THAT(LogSince(mark),
                ::testing::Not(HasSubstr("Dump Redis command[RedisEvalEnqueueEvent")));
}

TEST_F(RedisCliTest, AuthenticationNeedsTheServersPassword) {
    size_t mark = LogMark();
    EXPECT_EQ(redisAuthentication(ctx(), "secret"), RT_FAILURE);  // none configured
    EXPECT_THAT(LogSince(mark), ::testing::Not(HasSubstr("secret")));
    ASSERT_TRUE(RawCommand({"CONFIG", "SET", "requirepass", "s3cret pass"}));
    EXPECT_EQ(redisAuthentication(ctx(), "wrong"), RT_FAILURE);
    EXPECT_EQ(redisAuthentication(ctx(), "s3cret pass"), RT_SUCCESS);
    Reply reset(static_cast<redisReply*>(redisCommand(ctx(), "CONFIG SET requirepass %s", "")));
    ASSERT_TRUE(reset);
    EXPECT_EQ(reset->type, REDIS_REPLY_STATUS);
}

}  // namespace

namespace {

// Deferred writes share the round trip of the next command; a failed one is
// logged with the wrapper's text and the connection stays in step.
TEST_F(RedisCliTest, DeferredWritesRideWithTheNextCommand) {
    RawCommand({"SET", "a string", "x"});
    RawCommand({"HSET", "gone", "f", "v"});
    const size_t mark = LogMark();
    {
        RedisDeferredWrites defer(ctx());
        EXPECT_EQ(RedisDelTable(ctx(), "gone"), RT_SUCCESS);
        EXPECT_EQ(RedisHashSet(ctx(), "h", "f", "v"), RT_SUCCESS);
        EXPECT_EQ(RedisHashSet(ctx(), "a string", "f", "v"), RT_SUCCESS);  // fails later
    }
    std::string value;
    EXPECT_EQ(RedisGet(ctx(), "a string", &value), RT_SUCCESS);
    EXPECT_EQ(value, "x");
    EXPECT_TRUE(Logged(mark, {{"RedisHashSet", "Command[HSET a string f v] reply failed.\n"}}));
    EXPECT_EQ(HGetAll("h"), (Fields{{"f", "v"}}));
    EXPECT_FALSE(Exists("gone"));
    // Outside the scope a write waits for its reply again; a drain with
    // nothing outstanding sends nothing.
    RedisDrainDeferred(ctx());
    EXPECT_EQ(RedisHashSet(ctx(), "a string", "f", "v"), RT_FAILURE);
}

}  // namespace
