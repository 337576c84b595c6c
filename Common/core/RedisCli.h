// The store client: every Redis command the library sends goes through
// these free functions, the only code that talks to hiredis.
//
// Connections. Every wrapper takes a hiredis context first. A context passed
// by the caller is used and left open. When the caller passes null, most
// wrappers use the thread's scoped connection (RedisConnectionScope) if there
// is one, else open a connection of their own (RedisConnect) for that one
// call and close it before returning, on every path. Six wrappers never
// connect by themselves and treat a null context as a null argument (log,
// return 2): RedisSetAdd, RedisSetRem, RedisListSize, RedisListSet,
// RedisListGet and RedisListWriteBinData.
//
// Threads. The functions keep no state. A context belongs to one thread at a
// time: never share one between threads, and never reuse one after a
// connection error. Threads without a context of their own pass null.
//
// Results (eRtCode): 0 success; 2 failure (no connection, null argument, null
// reply, reply of the wrong type); 3 hash field missing or empty; 5 key or
// list index missing (nil reply); 13 invalid argument (RedisTTL only).
// RedisType returns a table-type code instead. Failures are logged as ERROR
// from "RedisCli.cpp"; reply and key dumps are raw lines under "ZComLib".
//
// Caller texts (keys, fields, values) are always passed to Redis as separate
// arguments, byte for byte; they are never used as a format.
//
// SIGPIPE. A write to a server that has gone would end the process by
// default; while SIGPIPE still has its default action, the first connection
// or command installs a handler that does nothing (exec() resets it, so
// child programs keep the default), and the write fails instead.
#ifndef ORBEL_REDISCLI_H
#define ORBEL_REDISCLI_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "OrbelDefs.h"

namespace Orbel {

// Table types returned by RedisType.
enum eRedisTableType : int {
    REDIS_TABLE_NONE = 0,
    REDIS_TABLE_HASH = 1,
    REDIS_TABLE_LIST = 2,
    REDIS_TABLE_STRING = 3,
    REDIS_TABLE_UNSUPPORTED = 4,  // any other type, and every failure
};

// Connects to the Unix socket RedisSocketPath() ("/tmp/redis.sock" under the
// sysroot). Returns an open context owned by the caller (close it with
// RedisDisconnect), or null (logged). No time-out, no retry.
redisContext* RedisConnect();
void RedisDisconnect(redisContext* c);

// One store connection shared by the store work of one thread for a span of
// time (a start-up stage, one request). While an object of this class lives,
// the calls that would otherwise open a connection for a single operation
// use the scope's: the wrappers given a null context, and the object model's
// constructors and applies (RedisCallConnection). Connecting costs as much
// as a few commands, and building one resource used to open several.
//
// Scopes nest: a default-constructed scope on a thread that has a usable one
// already adds nothing. RedisConnect() is never affected: it always returns a new
// connection that the caller owns, may keep, or may hand to another thread.
// A scoped connection whose error flag is set (the server went away) is no
// longer handed out: calls connect by themselves again, and only the one
// command that met the failure fails.
//
// Threads: a scope belongs to the thread that made it, and must end on that
// thread, in reverse order of construction (make it a local variable).
class RedisConnectionScope {
public:
    // Opens a connection for the scope, unless the thread has a scope
    // already. Without a store (logged) the scope is empty and calls connect
    // by themselves as before.
    RedisConnectionScope();
    // Lends `c` to the scope (null: an empty scope); the caller keeps owning
    // it and must keep it open while the scope lives.
    explicit RedisConnectionScope(redisContext* c);
    ~RedisConnectionScope();

    RedisConnectionScope(const RedisConnectionScope&) = delete;
    RedisConnectionScope& operator=(const RedisConnectionScope&) = delete;

    // The connection of the thread's innermost scope, null outside any.
    static redisContext* Current();

private:
    redisContext* const mPrev;       // the enclosing scope's connection
    redisContext* mOwned = nullptr;  // opened by this scope, closed by it
    bool mActive = false;            // this scope set the thread's connection
};

// A connection for one operation: `c` when the caller passed one (used and
// left open), else the thread's scoped connection while it is usable, else a
// new one that the destructor closes. get() is null when no connection could
// be opened (logged by RedisConnect). Never keep get() beyond the object's
// life, nor pass it to another thread.
class RedisCallConnection {
public:
    explicit RedisCallConnection(redisContext* c = nullptr);
    ~RedisCallConnection();
    RedisCallConnection(const RedisCallConnection&) = delete;
    RedisCallConnection& operator=(const RedisCallConnection&) = delete;

    redisContext* get() const { return mCtx; }

private:
    redisContext* mCtx;
    bool mOwned = false;
};
// "AUTH <pass>": 0 only on a status reply "OK", else 2.
eRtCode redisAuthentication(redisContext* c, const char* pass);
// Logs `reply` recursively, indented per array level.
void RedisDumpReply(const char* cmd, redisReply* reply);

// Always opens its own connection (never a scoped one) and sends "SUBSCRIBE <channel>". Returns
// that context (the caller reads messages with redisGetReply and closes it),
// or null.
redisContext* RedisSubscribeFromChannel(std::string channel);
// While an instance lives, RedisDelTable (one key) and RedisHashSet on the
// connection `c` from this thread do not wait for their replies: each command
// goes out with the next command that waits on `c`, in its round trip, and its
// reply is read then (an HSET failure is logged with the wrapper's usual
// text). Such a call returns 0 once the command is queued. For writes whose
// result the caller does not act on before its next command (a request's
// set-up). What is still outstanding when the instance ends is read by the
// next call on `c`, or by RedisDrainDeferred(c), which the owner of `c` must
// call before it closes `c` or hands it to anything but this store client.
// Threads: the thread's own connection only; instances nest.
class RedisDeferredWrites {
public:
    explicit RedisDeferredWrites(redisContext* c);
    ~RedisDeferredWrites();
    RedisDeferredWrites(const RedisDeferredWrites&) = delete;
    RedisDeferredWrites& operator=(const RedisDeferredWrites&) = delete;

private:
    redisContext* mPrevious;
};
// What RedisDeferredWrites does, for a holder that cannot be a local
// variable: turns deferral on for `c` (off with null) on this thread and
// returns the connection it was on before, to be given back the same way.
redisContext* RedisSetDeferring(redisContext* c);
// Reads the replies of the commands deferred on `c` by this thread (and of
// those their handlers deferred in turn), sending what is still queued.
void RedisDrainDeferred(redisContext* c);
// True while a command deferred on `c` by this thread waits for a reply
// that a handler takes (RedisDeferCommand with a handler).
bool RedisAwaitsReplies(redisContext* c);
// The reply of a deferred command as its handler sees it.
struct sRedisDeferredReply {
    eRtCode result = RT_FAILURE;     // 0 when a reply came and is not an error
    long long integer = -1;          // an integer reply's value
    std::vector<std::string> items;  // an array reply's elements
};
// Takes the reply of a command sent by RedisDeferCommand when it is read.
// Runs on the deferring thread with deferral on for the connection, so the
// store calls it makes are deferred as well.
using RedisDeferredHandler = void (*)(void* arg, const sRedisDeferredReply& reply);
// While RedisDeferredWrites is on for `c`: queues the command `words` to go
// out with the next round trip on `c` (the words are copied). Its reply goes
// to `handler` (with `arg`); without one, an error reply is logged as
// RedisPipelineWrites logs it. False when nothing was queued (not deferring,
// or the command could not be queued): the caller sends it the usual way.
bool RedisDeferCommand(redisContext* c, std::initializer_list<std::string_view> words,
                       RedisDeferredHandler handler = nullptr, void* arg = nullptr);
bool RedisDeferCommand(redisContext* c, const std::string_view* words, size_t n,
                       RedisDeferredHandler handler = nullptr, void* arg = nullptr);
bool RedisDeferCommand(redisContext* c, const std::vector<std::string>& argv,
                       RedisDeferredHandler handler = nullptr, void* arg = nullptr);

// Sends `commands` (each an argument vector) in one round trip and reads a
// reply for each, in order. `results[i]` is 0 when command i got a reply
// that is not an error, else 2; the call returns 0 when every reply was
// read, 2 when the connection failed (the commands left have 2).
eRtCode RedisPipeline(redisContext* c, const std::vector<std::vector<std::string>>& commands,
                      std::vector<eRtCode>& results);
// One command of a pipeline of writes (RedisPipelineWrites).
struct sRedisPipelineCmd {
    std::vector<std::string> argv;
    eRtCode result = RT_FAILURE;  // 0 when the reply came and is not an error
    long long integer = -1;      // an integer reply's value
};
// Sends every command in one round trip and reads every reply, in order. A
// command whose reply is missing or an error fails, logged with its first
// words as the single-command wrappers show them ("Command[HSET <key>
// <field> <value>] reply failed.", "... reply is NULL. err[%s]"; a value is
// masked when its field, or for a list its key, names a secret). Returns 0
// when every command succeeded, else 2. An empty list sends nothing.
eRtCode RedisPipelineWrites(redisContext* c, std::vector<sRedisPipelineCmd>& cmds);
// `receivers`, when given, gets the number of subscribers that got it.
eRtCode RedisPublishToChannel(redisContext* c, std::string channel, std::string message,
                              int64_t* receivers = nullptr);
// Listening on several channels with one connection (RedisCli_PubSub.cpp).
// RedisSubscribeChannels sends one "SUBSCRIBE <ch>..." on `c` (which must
// not be null and is a listening connection from then on) and reads every
// confirmation: 0, or 2 (logged) when the connection failed or a channel was
// not confirmed. RedisGetChannelMessage waits, without a time limit, for the
// next message: 0 with its channel and text; 5 for a nil reply or a reply
// that is no message (skipped by the caller); 2 when the connection failed
// (it must not be used again; reconnect and subscribe anew).
eRtCode RedisSubscribeChannels(redisContext* c, const std::vector<std::string>& channels);
eRtCode RedisGetChannelMessage(redisContext* c, std::string& channel, std::string& message);

// The two connections of a thread that serves requests from channels: one
// listening (subscribed), one for the commands of each request. Open
// returns 0 with both open, 2 when a connection could not be opened, 5 when
// the subscription failed; on failure nothing stays open. Close (and the
// destructor) close both. Owned by one thread.
class RedisListenerPair {
public:
    RedisListenerPair() = default;
    ~RedisListenerPair() { Close(); }
    RedisListenerPair(const RedisListenerPair&) = delete;
    RedisListenerPair& operator=(const RedisListenerPair&) = delete;

    eRtCode Open(const std::vector<std::string>& channels);
    void Close();
    bool IsOpen() const { return mListen != nullptr; }
    redisContext* Listen() const { return mListen; }
    redisContext* Command() const { return mCommand; }

private:
    redisContext* mListen = nullptr;
    redisContext* mCommand = nullptr;
};

int RedisType(redisContext* c, const char* key);  // eRedisTableType

eRtCode RedisHashSize(redisContext* c, const char* key, int& size);
eRtCode RedisHashSet(redisContext* c, const char* key, const char* name, const char* value);
// Missing or empty field: value cleared, 3. Only the reply's text is
// looked at: on a key of another type the server's error text comes back as
// the value, with 0.
eRtCode RedisHashGet(redisContext* c, const char* key, const char* name, std::string& value);
eRtCode RedisHashDel(redisContext* c, const char* key, const char* name);
eRtCode RedisHashGetAll(redisContext* c, const char* key, std::map<std::string, std::string>& out,
                        bool dump = false);

// `added`, when given, receives the number of members the command added (0
// when the value was a member already); untouched on failure.
eRtCode RedisSetAdd(redisContext* c, const char* key, const char* value,
                    long long* added = nullptr);
eRtCode RedisSetRem(redisContext* c, const char* key, const char* value);

eRtCode RedisListSize(redisContext* c, const char* key, int& size);
eRtCode RedisListSet(redisContext* c, const char* key, const char* index, const char* value);
eRtCode RedisListGet(redisContext* c, const char* key, int index, std::string& value);
// One RPUSH per element, in order; stops at the first failure.
eRtCode RedisListPushBack(redisContext* c, const char* key, const std::vector<std::string>& values);
eRtCode RedisListPushBack(redisContext* c, const char* key, const char* value);
// Removes the first element equal to `value`.
eRtCode RedisListDel(redisContext* c, const char* key, std::string value);
// Removes every element equal to `value`.
eRtCode RedisListDelAll(redisContext* c, const char* key, std::string value);
// Removes by the value found at `index`: when an equal element stands
// earlier in the list, that earlier one goes.
eRtCode RedisListDel(redisContext* c, const char* key, int index);
// `out` is cleared first.
eRtCode RedisListGetAll(redisContext* c, const char* key, int start, int stop,
                        std::vector<std::string>& out, bool dump = false);

// A byte buffer as a list of decimal texts "0".."255", one element a byte,
// appended to the list (delete the key first to rewrite it).
eRtCode RedisListWriteBinData(redisContext* c, const char* key, unsigned char* data,
                              unsigned int len);
// Allocates *data with new[] (caller deletes with delete[]); an empty or
// non-list key gives *data = null, len = 0 and 0.
eRtCode RedisListReadBinData(redisContext* c, const char* key, unsigned char** data,
                             unsigned int& len);

// "SET <key> <value> EX <seconds>".
eRtCode RedisSet(redisContext* c, const char* key, const char* value, unsigned int seconds);
// Nil reply: 5.
eRtCode RedisGet(redisContext* c, const char* key, std::string* value);
// *seconds = -2 for a missing key, -1 for no expiry.
eRtCode RedisTTL(redisContext* c, const char* key, int* seconds);
// Appends the keys matching `pattern` to `out`.
eRtCode RedisKeys(redisContext* c, const char* pattern, std::vector<std::string>& out,
                  bool dump = false);
// UNLINKs `key`, or every key matching it when it holds '*'. A null key
// returns 0.
eRtCode RedisDelTable(redisContext* c, const char* key);

// Runs the event service's scripts (their SHA-1 digests are kept in the hash
// "redisSHAScripts") with `payload` as the one key. result starts at -1 and
// receives the script's integer result; 0 only when that is 1.
eRtCode RedisEvalEnqueueEvent(redisContext* c, const char* payload, int& result);
eRtCode RedisEvalEnqueueMetricReport(redisContext* c, const char* payload, int& result);

// The request path's forms, which copy nothing they need not.
//
// RedisHashVisitAll: HGETALL of `key`, each field handed to `visit` as
// views (valid during the call only) in the store's order, with `arg`. 0, or
// 2 logged as RedisHashGetAll logs it.
using RedisFieldVisitor = void (*)(void* arg, std::string_view name, std::string_view value);
eRtCode RedisHashVisitAll(redisContext* c, const char* key, RedisFieldVisitor visit, void* arg);
// RedisHashVisitTyped: TYPE and HGETALL of `key` in one round trip, for a
// reader that expects a hash but must tell a list or no key from it. `type`
// gets the table type (eRedisTableType) and, for a hash only, each field goes
// to `visit` as above. 0 when the type was read (and a hash's fields); 2
// logged as RedisType or RedisHashGetAll log it.
eRtCode RedisHashVisitTyped(redisContext* c, const char* key, int& type, RedisFieldVisitor visit,
                            void* arg);

// One command of RedisPipelineArgs: views of its arguments, which must
// outlive the call.
struct sRedisArgs {
    static constexpr uint32_t kMaxArgs = 8;
    const char* argv[kMaxArgs];
    size_t lens[kMaxArgs];
    uint32_t argc = 0;
    sRedisArgs() = default;
    sRedisArgs(std::initializer_list<std::string_view> args) {
        for (std::string_view a : args) {
            if (argc == kMaxArgs) break;
            argv[argc] = a.data();
            lens[argc++] = a.size();
        }
    }
};
// RedisPipeline for `n` commands of views: results[i] as there.
eRtCode RedisPipelineArgs(redisContext* c, const sRedisArgs* commands, size_t n,
                          eRtCode* results);

}  // namespace Orbel

#endif  // ORBEL_REDISCLI_H
