// The store client: one free function per Redis command the library sends.
//
// Every wrapper follows the same steps: open a connection for this call when
// the caller passed none (six wrappers refuse a null context instead), check
// the arguments, send the one command, check the reply type, copy the result
// out. Replies and self-opened connections are owned by small RAII holders,
// so every return path frees them.
//
// Caller texts never become part of a format: every command goes out as an
// argument vector (each key, field and value one binary-safe argument,
// blanks included). In log lines they are "%s" arguments.
//
// Nothing is logged on success: the wrappers sit under every store write of
// the object mirror and every request, so a success-path line would cost
// more than the command itself.
#include "RedisCli.h"

#include <signal.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "FixedPaths.h"
#include "Orbel.h"
#include "RedisCli_Internal.h"
#include "ZLogPrint.h"

namespace Orbel {

namespace {

// The connection of the innermost RedisConnectionScope of this thread, or
// null. Only this thread reads or writes it.
thread_local redisContext* tScopedConn = nullptr;

}  // namespace

namespace {
// "HSET <key> <field> <value>" and the like, values masked: a command as
// its failure shows it (its first kShownWords words at most).
constexpr size_t kShownWords = 4;
std::string ShownCommand(const std::vector<std::string>& argv);
}  // namespace

// Private to the store client, like its header.
#pragma GCC visibility push(hidden)
namespace cli {

// The scoped connection while it can still carry commands; null otherwise.
redisContext* UsableScopedConn() {
    redisContext* c = tScopedConn;
    return c != nullptr && c->err == 0 ? c : nullptr;
}

// A write on a connection whose server has gone raises SIGPIPE, and its
// default action ends the process; a plug-in must outlive a restart of the
// store. hiredis writes with write(2), which has no per-call opt-out, and
// blocking the signal around every command costs two system calls, a few
// per cent of a local round trip. So the first command installs a handler
// that does nothing, which turns the signal into a plain EPIPE failure of
// the write. A handler rather than SIG_IGN, because an exec() resets
// handlers but keeps ignored signals: programs the plug-in starts still get
// the default action. A disposition the plug-in chose itself (its own
// handler, or SIG_IGN) is left alone.
void NoOpSigPipeHandler(int) {}

void KeepSigPipeFromEndingTheProcess() {
    static const bool installed = [] {
        struct sigaction current;
        if (sigaction(SIGPIPE, nullptr, &current) != 0) return false;
        if ((current.sa_flags & SA_SIGINFO) != 0 || current.sa_handler != SIG_DFL) return false;
        struct sigaction quiet;
        std::memset(&quiet, 0, sizeof(quiet));
        quiet.sa_handler = NoOpSigPipeHandler;
        sigemptyset(&quiet.sa_mask);
        quiet.sa_flags = SA_RESTART;
        return sigaction(SIGPIPE, &quiet, nullptr) == 0;
    }();
    (void)installed;
}

// Takes ownership of what hiredis returned. A context whose error flag is
// set (the server went away, the socket broke) is treated like a null
// reply: whatever came back cannot be trusted, and hiredis will not send
// anything more on it anyway.
ReplyPtr TakeReply(redisContext* c, void* raw) {
    ReplyPtr reply(static_cast<redisReply*>(raw));
    if (c->err != 0) reply.reset();
    return reply;
}

// Appends "<n>" and the protocol's line end to `out` ("*3\r\n", "$5\r\n").
char* PutCount(char* out, char mark, size_t n) {
    *out++ = mark;
    out = std::to_chars(out, out + 20, static_cast<unsigned long long>(n)).ptr;
    *out++ = '\r';
    *out++ = '\n';
    return out;
}

// The framing of one command ("*<argc>", then "$<len>" and the bytes of
// each argument): the bytes hiredis's own argument-vector call writes,
// written here in one pass. Building them through hiredis's general
// formatter cost about as many client instructions as the whole rest of a
// round trip, which is what the controller's CPU feels.
constexpr size_t kFrame = 1 + 20 + 2;  // "*" or "$", a count, "\r\n"

size_t FramedSize(const Arg* args, size_t argc) {
    size_t total = kFrame;
    for (size_t i = 0; i < argc; ++i) total += kFrame + args[i].size + 2;
    return total;
}

char* Frame(char* out, const Arg* args, size_t argc) {
    out = PutCount(out, '*', argc);
    for (size_t i = 0; i < argc; ++i) {
        const size_t len = args[i].size;
        out = PutCount(out, '$', len);
        if (len != 0) std::memcpy(out, args[i].data, len);
        out += len;
        *out++ = '\r';
        *out++ = '\n';
    }
    return out;
}

// Deferred commands of this thread not yet handed to hiredis, and their
// connection. A round trip's deferred commands are framed into this one
// buffer, which keeps its room, and handed over in one piece before the
// connection sends anything else or reads: hiredis's output buffer starts
// empty after every write and grew (and was copied) several times per round
// trip when each command was handed over on its own.
// (With the kept words of the deferred records, below: one thread-local
// object for both texts.)
struct sThreadTexts {
    std::string pendingOut;
    std::string deferredWords;
};
thread_local sThreadTexts tTexts;
thread_local redisContext* tPendingConn = nullptr;

bool HandOver(redisContext* c) {
    if (c == nullptr || tPendingConn != c) return true;
    tPendingConn = nullptr;
    if (tTexts.pendingOut.empty()) return true;
    const bool ok = redisAppendFormattedCommand(c, tTexts.pendingOut.data(),
                                                tTexts.pendingOut.size()) == REDIS_OK;
    tTexts.pendingOut.clear();
    return ok;
}

void DropPending(redisContext* c) {
    if (tPendingConn != c) return;
    tPendingConn = nullptr;
    tTexts.pendingOut.clear();
}

// Queues one command in the context's output buffer (sent with the next
// reply read), after what this thread deferred on it.
bool AppendArgv(redisContext* c, size_t argc, const char* const* argv, const size_t* argvLen) {
    KeepSigPipeFromEndingTheProcess();
    // A context of the caller's that does not block would return before the
    // reply; hiredis's own call gives no reply then either.
    if ((c->flags & REDIS_BLOCK) == 0) return false;
    if (!HandOver(c)) return false;
    // Most commands have a few words: their views and framing on the stack.
    constexpr size_t kOnStack = 16;
    Arg stackArgs[kOnStack];
    std::unique_ptr<Arg[]> heapArgs;
    Arg* args = stackArgs;
    if (argc > kOnStack) {
        heapArgs.reset(new (std::nothrow) Arg[argc]);
        if (!heapArgs) return false;
        args = heapArgs.get();
    }
    for (size_t i = 0; i < argc; ++i) args[i] = Arg(std::string_view(argv[i], argvLen[i]));
    const size_t total = FramedSize(args, argc);
    char stackBuf[1024];
    std::unique_ptr<char[]> heapBuf;
    char* buf = stackBuf;
    if (total > sizeof(stackBuf)) {
        heapBuf.reset(new (std::nothrow) char[total]);
        if (!heapBuf) return false;
        buf = heapBuf.get();
    }
    const char* end = Frame(buf, args, argc);
    return redisAppendFormattedCommand(c, buf, static_cast<size_t>(end - buf)) == REDIS_OK;
}

// Queues a deferred command: framed into the thread's pending buffer.
bool AppendDeferred(redisContext* c, const Arg* args, size_t argc) {
    KeepSigPipeFromEndingTheProcess();
    if ((c->flags & REDIS_BLOCK) == 0) return false;
    // Another connection's pending commands go to it first.
    if (tPendingConn != c && !HandOver(tPendingConn)) return false;
    const size_t at = tTexts.pendingOut.size();
    tTexts.pendingOut.resize(at + FramedSize(args, argc));
    const char* end = Frame(&tTexts.pendingOut[at], args, argc);
    tTexts.pendingOut.resize(static_cast<size_t>(end - tTexts.pendingOut.data()));
    tPendingConn = c;
    return true;
}

// Reads the next reply (sending what is queued first).
ReplyPtr ReadReply(redisContext* c) {
    HandOver(c);  // on failure the context's error makes the read fail
    void* raw = nullptr;
    if (redisGetReply(c, &raw) != REDIS_OK) {
        if (raw != nullptr) freeReplyObject(raw);
        raw = nullptr;
    }
    return TakeReply(c, raw);
}

// Commands sent without waiting for their replies (RedisDeferredWrites), in
// the order sent; each thread has its own. A record is a few words: what
// a failure would show is kept as the command's words in one buffer per
// thread (tTexts.deferredWords), not as strings of its own, because nearly every
// reply is a success and the texts are never read.
enum class DeferKind : uint8_t {
    kUnchecked,  // an UNLINK: a key already gone is as good as deleted
    kHashSet,    // RedisHashSet: its own failure texts
    kCommand,    // RedisDeferCommand without a handler: logged as a pipeline write
    kHandler,    // RedisDeferCommand with a handler, which takes the reply
};
struct DeferredReply {
    redisContext* c = nullptr;
    RedisDeferredHandler handler = nullptr;
    void* arg = nullptr;
    uint32_t wordsAt = 0;    // where the kept words start in tTexts.deferredWords
    uint32_t wordsSize = 0;  // their bytes there (0: none kept)
    DeferKind kind = DeferKind::kUnchecked;
};
thread_local std::vector<DeferredReply> tDeferred;
thread_local redisContext* tDeferringOn = nullptr;
// The kept words of the records in tDeferred: per word its length (four
// bytes, host order) and its bytes. Emptied when tDeferred is.

void KeepWords(DeferredReply& d, const Arg* words, size_t n) {
    size_t total = 0;
    for (size_t i = 0; i < n; ++i) total += sizeof(uint32_t) + words[i].size;
    const size_t at = tTexts.deferredWords.size();
    tTexts.deferredWords.resize(at + total);
    char* out = &tTexts.deferredWords[at];
    for (size_t i = 0; i < n; ++i) {
        const uint32_t len = static_cast<uint32_t>(words[i].size);
        std::memcpy(out, &len, sizeof(len));
        out += sizeof(len);
        if (len != 0) std::memcpy(out, words[i].data, len);
        out += len;
    }
    d.wordsAt = static_cast<uint32_t>(at);
    d.wordsSize = static_cast<uint32_t>(total);
}

// The kept words of `d`, for a failure text.
std::vector<std::string> KeptWords(const DeferredReply& d) {
    std::vector<std::string> words;
    const char* p = tTexts.deferredWords.data() + d.wordsAt;
    const char* const end = p + d.wordsSize;
    while (p + sizeof(uint32_t) <= end) {
        uint32_t len = 0;
        std::memcpy(&len, p, sizeof(len));
        p += sizeof(len);
        words.emplace_back(p, len);
        p += len;
    }
    return words;
}

bool Deferring(redisContext* c) {
    return c != nullptr && c == tDeferringOn && (c->flags & REDIS_BLOCK) != 0 && c->err == 0;
}

// Replies read for a handler, which runs once the call that read them has
// read its own replies too (RunDeferredHandlers): a handler may then send,
// and wait for, commands of its own.
struct PendingHandler {
    redisContext* c = nullptr;
    RedisDeferredHandler handler = nullptr;
    void* arg = nullptr;
    sRedisDeferredReply reply;
};
thread_local std::vector<PendingHandler> tHandlers;

thread_local std::vector<DeferredReply> tDrainSpare;  // capacity kept between drains

// Reads the replies of what was deferred on `c` before this call, in order.
void DrainDeferred(redisContext* c) {
    if (tDeferred.empty()) return;
    std::vector<DeferredReply> mine = std::move(tDrainSpare);
    mine.clear();
    size_t kept = 0;
    for (size_t i = 0; i < tDeferred.size(); ++i) {
        const DeferredReply& d = tDeferred[i];
        if (d.c != c) {
            if (kept != i) tDeferred[kept] = d;
            ++kept;
        } else {
            mine.push_back(d);
        }
    }
    tDeferred.resize(kept);
    for (const DeferredReply& d : mine) {
        ReplyPtr reply = ReadReply(c);
        switch (d.kind) {
            case DeferKind::kUnchecked:
                break;
            case DeferKind::kHandler: {
                tHandlers.emplace_back();
                PendingHandler& h = tHandlers.back();
                h.c = c;
                h.handler = d.handler;
                h.arg = d.arg;
                sRedisDeferredReply& seen = h.reply;
                if (reply && reply->type != REDIS_REPLY_ERROR) {
                    seen.result = RT_SUCCESS;
                    if (reply->type == REDIS_REPLY_INTEGER) seen.integer = reply->integer;
                    if (reply->type == REDIS_REPLY_ARRAY) {
                        seen.items.reserve(reply->elements);
                        for (size_t i = 0; i < reply->elements; ++i) {
                            seen.items.push_back(ElementText(reply.get(), i));
                        }
                    }
                }
                break;
            }
            case DeferKind::kCommand:
                if (!reply) {
                    ZLOG_AS("RedisPipelineWrites", eZLogError,
                            "Command[%s] reply is NULL. err[%s]\n",
                            ShownCommand(KeptWords(d)).c_str(), c->errstr);
                } else if (reply->type == REDIS_REPLY_ERROR) {
                    const std::vector<std::string> words = KeptWords(d);
                    RedisDumpReply(words.empty() ? "" : words[0].c_str(), reply.get());
                    ZLOG_AS("RedisPipelineWrites", eZLogError, "Command[%s] reply failed.\n",
                            ShownCommand(words).c_str());
                }
                break;
            case DeferKind::kHashSet: {
                const bool failed = !reply || reply->type != REDIS_REPLY_INTEGER ||
                                    (reply->integer != 0 && reply->integer != 1);
                if (!failed) break;
                // The words kept: the key, the field and the value.
                std::vector<std::string> w = KeptWords(d);
                w.resize(3);
                if (!reply) {
                    ZLOG_AS("RedisHashSet", eZLogError,
                            "Command[HSET %s %s %s] reply is NULL. err[%s]\n", w[0].c_str(),
                            w[1].c_str(), MaskSecretValue(w[1], w[2].c_str()), c->errstr);
                } else {
                    RedisDumpReply("HSET", reply.get());
                    ZLOG_AS("RedisHashSet", eZLogError, "Command[HSET %s %s %s] reply failed.\n",
                            w[0].c_str(), w[1].c_str(), MaskSecretValue(w[1], w[2].c_str()));
                }
                break;
            }
        }
    }
    if (kept == 0) {
        tTexts.deferredWords.clear();
    } else if (tTexts.deferredWords.size() > 64 * 1024) {
        // Another connection's records stay: their words move to the front.
        std::string words;
        for (DeferredReply& d : tDeferred) {
            const uint32_t at = static_cast<uint32_t>(words.size());
            words.append(tTexts.deferredWords, d.wordsAt, d.wordsSize);
            d.wordsAt = at;
        }
        tTexts.deferredWords.swap(words);
    }
    mine.clear();
    tDrainSpare = std::move(mine);
}

// Runs the handlers of the replies read so far, in order, with deferral on
// for their connection: what they send goes out with the next round trip.
thread_local std::vector<PendingHandler> tHandlersSpare;  // capacity kept between runs

void RunDeferredHandlers() {
    if (tHandlers.empty()) return;
    std::vector<PendingHandler> ready = std::move(tHandlersSpare);
    ready.clear();
    ready.swap(tHandlers);
    redisContext* const previous = tDeferringOn;
    for (PendingHandler& h : ready) {
        tDeferringOn = h.c;
        h.handler(h.arg, h.reply);
    }
    tDeferringOn = previous;
    ready.clear();
    tHandlersSpare = std::move(ready);
}

bool HasDeferred(redisContext* c) {
    for (const DeferredReply& d : tDeferred) {
        if (d.c == c) return true;
    }
    return false;
}

// Queues a command whose reply DrainDeferred reads; false when it could not
// be queued (the caller then sends it the usual way). Words `keepFrom` up to
// `keepTo` (not included) are kept for a failure text.
bool Defer(redisContext* c, const Arg* args, size_t argc, DeferKind kind, size_t keepFrom,
           size_t keepTo, RedisDeferredHandler handler = nullptr, void* arg = nullptr) {
    if (!AppendDeferred(c, args, argc)) return false;
    DeferredReply d;
    d.c = c;
    d.handler = handler;
    d.arg = arg;
    d.kind = kind;
    keepTo = std::min(keepTo, argc);
    if (keepFrom < keepTo) KeepWords(d, args + keepFrom, keepTo - keepFrom);
    tDeferred.push_back(d);
    return true;
}

bool Defer(redisContext* c, std::initializer_list<Arg> args, DeferKind kind, size_t keepFrom) {
    return Defer(c, args.begin(), args.size(), kind, keepFrom, args.size());
}

// Sends one command and waits for its reply (after those of the commands
// deferred before it, which share its round trip).
ReplyPtr SendArgv(redisContext* c, size_t argc, const char* const* argv, const size_t* argvLen) {
    const bool queued = AppendArgv(c, argc, argv, argvLen);
    DeferredHandlersAtEnd handlers;
    DrainDeferred(c);
    if (!queued) return ReplyPtr();
    return ReadReply(c);
}

ReplyPtr Command(redisContext* c, std::initializer_list<Arg> args) {
    constexpr size_t kMaxArgs = 8;  // the longest command sent here has 5
    const char* argv[kMaxArgs];
    size_t argvLen[kMaxArgs];
    size_t argc = 0;
    for (const Arg& a : args) {
        if (argc == kMaxArgs) return ReplyPtr();
        argv[argc] = a.data;
        argvLen[argc] = a.size;
        ++argc;
    }
    return SendArgv(c, argc, argv, argvLen);
}

ReplyPtr CommandArgv(redisContext* c, std::vector<const char*>& argv,
                     const std::vector<size_t>& argvLen) {
    return SendArgv(c, argv.size(), argv.data(), argvLen.data());
}

bool IsStatus(const redisReply* r, const char* text) {
    return r->type == REDIS_REPLY_STATUS && r->str != nullptr && std::strcmp(r->str, text) == 0;
}

std::string ReplyText(const redisReply* r) {
    return r->str != nullptr ? std::string(r->str, r->len) : std::string();
}

// Element texts of an array reply; nested or integer elements, which the
// commands used here never return, give an empty text.
std::string ElementText(const redisReply* r, size_t i) {
    const redisReply* e = r->element[i];
    return e != nullptr ? ReplyText(e) : std::string();
}

// "0".."255": the list elements that stand for the bytes of a binary value.
// Built once, so a write of a large buffer does no number formatting.

const ByteTexts& ByteTextTable() {
    static const ByteTexts table;
    return table;
}

// A byte's decimal text back to the byte: digits only, at most 255. Kept
// local rather than parsed with std::stoul, which throws on text that only
// the store could have put there.
bool ParseByteText(const redisReply* e, unsigned char& out) {
    if (e == nullptr || e->type != REDIS_REPLY_STRING || e->len == 0 || e->len > 3) return false;
    unsigned value = 0;
    for (size_t i = 0; i < e->len; ++i) {
        char ch = e->str[i];
        if (ch < '0' || ch > '9') return false;
        value = value * 10 + static_cast<unsigned>(ch - '0');
    }
    if (value > 255) return false;
    out = static_cast<unsigned char>(value);
    return true;
}

void DumpReplyLines(const redisReply* r, const std::string& indent) {
    switch (r->type) {
        case REDIS_REPLY_STRING:
            ZLOGM("ZComLib", eZLogRaw, "%s(String):[%d]: %s\n", indent.c_str(),
                  static_cast<int>(r->len), r->str);
            break;
        case REDIS_REPLY_STATUS:
            ZLOGM("ZComLib", eZLogRaw, "%s(Status):[%d]: %s\n", indent.c_str(),
                  static_cast<int>(r->len), r->str);
            break;
        case REDIS_REPLY_ERROR:
            ZLOGM("ZComLib", eZLogRaw, "%s(Error):[%d]: %s\n", indent.c_str(),
                  static_cast<int>(r->len), r->str);
            break;
        case REDIS_REPLY_INTEGER:
            ZLOGM("ZComLib", eZLogRaw, "%s(Integer): %lld\n", indent.c_str(),
                  static_cast<long long>(r->integer));
            break;
        case REDIS_REPLY_NIL:
            ZLOGM("ZComLib", eZLogRaw, "%s(Nil):\n", indent.c_str());
            break;
        case REDIS_REPLY_ARRAY: {
            ZLOGM("ZComLib", eZLogRaw, "%s(Array):[%d]:\n", indent.c_str(),
                  static_cast<int>(r->elements));
            // hiredis bounds the nesting of a reply, so the recursion is too.
            std::string deeper = indent + "  ";
            for (size_t i = 0; i < r->elements; ++i) {
                if (r->element[i] != nullptr) {
                    DumpReplyLines(r->element[i], deeper);
                } else {
                    ZLOGM("ZComLib", eZLogRaw, "%s(Unknown!)\n", deeper.c_str());
                }
            }
            break;
        }
        default:
            ZLOGM("ZComLib", eZLogRaw, "%s(Unknown!)\n", indent.c_str());
            break;
    }
}

// Sends "<word> <key>" and logs "Command[<shown> <key>] reply is NULL." when
// nothing came back; `shown` is the word the log texts use for the command.
ReplyPtr KeyCommand(const char* func, redisContext* c, const char* word, const char* key,
                    const char* shown) {
    ReplyPtr reply = Command(c, {word, key});
    if (!reply) ZLOG_AS(func, eZLogError, "Command[%s %s] reply is NULL.\n", shown, key);
    return reply;
}

// HLEN or LLEN into `size` (left alone on failure). Both log their lines as
// LLEN: log readers search for the texts as they are.
eRtCode KeyLength(const char* func, redisContext* c, const char* word, const char* key, int& size) {
    ReplyPtr reply = KeyCommand(func, c, word, key, "LLEN");
    if (!reply) return RT_FAILURE;
    if (reply->type != REDIS_REPLY_INTEGER) {
        ZLOG_AS(func, eZLogError, "Command[LLEN %s] reply failed.\n", key);
        return RT_FAILURE;
    }
    size = static_cast<int>(reply->integer);
    return RT_SUCCESS;
}

// SADD or SREM of one member, on the caller's connection only.
eRtCode SetMemberCommand(const char* func, redisContext* c, const char* word, const char* key,
                         const char* value, long long* changed) {
    if (c == nullptr || key == nullptr || value == nullptr) {
        ZLOG_AS(func, eZLogError, "NULL arg! c:%p key:%p value:%p!\n", static_cast<void*>(c),
                static_cast<const void*>(key), static_cast<const void*>(value));
        return RT_FAILURE;
    }
    ReplyPtr reply = Command(c, {word, key, value});
    if (!reply) {
        ZLOG_AS(func, eZLogError, "Command[%s %s %s] reply is NULL. err[%s]\n", word, key,
                MaskSecretValue(key, value), c->errstr);
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_INTEGER) {
        ZLOG_AS(func, eZLogError, "Command[%s %s %s] reply failed.\n", word, key,
                MaskSecretValue(key, value));
        return RT_FAILURE;
    }
    if (changed != nullptr) *changed = reply->integer;
    return RT_SUCCESS;
}

// LREM <key> <count> <value>: count "1" removes the first equal element,
// "0" every one. Removing nothing is a success.
eRtCode ListRemove(const char* func, redisContext* c, const char* key, const char* count,
                   const std::string& value) {
    ReplyPtr reply = Command(c, {"LREM", key, count, value});
    if (!reply) {
        ZLOG_AS(func, eZLogError, "Command[LREM %s %s %s] reply is NULL. err[%s]\n", key, count,
                MaskSecretValue(key, value.c_str()), c->errstr);
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_INTEGER || reply->integer < 0) {
        ZLOG_AS(func, eZLogError, "Command[LREM %s %s %s] reply failed. reply->int[%lld]\n", key,
                count, MaskSecretValue(key, value.c_str()), static_cast<long long>(reply->integer));
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

// RPUSH of one value.
eRtCode PushOne(const char* func, redisContext* c, const char* key, Arg value) {
    ReplyPtr reply = Command(c, {"RPUSH", key, value});
    // Arg texts are NUL-terminated (a C string, or std::string's data()).
    if (!reply) {
        ZLOG_AS(func, eZLogError, "Command[RPUSH %s %s] reply is NULL. err[%s]\n", key,
                MaskSecretValue(key, value.data), c->errstr);
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_INTEGER) {
        ZLOG_AS(func, eZLogError, "Command[RPUSH %s %s] reply failed.\n", key,
                MaskSecretValue(key, value.data));
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

// EVALSHA of one of the event service's scripts, whose digest the service
// keeps in the hash "redisSHAScripts" under `script`. `result` is the
// script's integer result (-1 until one came back); success means 1.
// `dumpAs`, when not null, is the name under which a reply of another type
// is dumped.
eRtCode EvalStoredScript(const char* func, redisContext* caller, const char* script,
                         const char* payload, int& result, const char* dumpAs) {
    result = -1;
    RedisCallConnection ctx(caller);
    if (ctx.get() == nullptr) {
        ZLOG_AS(func, eZLogError, "Failed to call RedisConnect()\n");
        return RT_FAILURE;
    }
    if (payload == nullptr) {
        ZLOG_AS(func, eZLogError, "NULL arg! payload:%p\n", static_cast<const void*>(payload));
        return RT_FAILURE;
    }
    redisContext* c = ctx.get();
    std::string sha;
    if (RedisHashGet(c, "redisSHAScripts", script, sha) != RT_SUCCESS) {
        ZLOG_AS(func, eZLogError, "Failed to get script[%s] SHA value.\n", script);
        return RT_FAILURE;
    }
    ReplyPtr reply = Command(c, {"evalsha", sha, "1", payload});
    if (!reply) {
        ZLOG_AS(func, eZLogError, "Command[evalsha %s 1 %s] reply is NULL.\n", sha.c_str(),
                payload);
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_INTEGER) {
        if (dumpAs != nullptr) RedisDumpReply(dumpAs, reply.get());
        ZLOG_AS(func, eZLogError, "Command[evalsha %s 1 %s] reply type[%d] is unexpected.\n",
                sha.c_str(), payload, reply->type);
        return RT_FAILURE;
    }
    result = static_cast<int>(reply->integer);
    return result == 1 ? RT_SUCCESS : RT_FAILURE;
}

}  // namespace cli
#pragma GCC visibility pop

using namespace cli;

// ---------------------------------------------------------------------------
// Connection and low level
// ---------------------------------------------------------------------------

redisContext* RedisConnect() {
    // Also for contexts the caller goes on to use with hiredis directly.
    KeepSigPipeFromEndingTheProcess();
    std::string socketPath = RedisSocketPath();
    redisContext* c = redisConnectUnix(socketPath.c_str());
    if (c == nullptr) {
        ZLOG(eZLogError, "Failed to connect Redis.\n");
        // Most first-hour failures are a wrong socket (an unset or stale
        // sysroot, a server not started yet): say which one was tried.
        ZLOG(eZLogInfo, "Redis socket tried: %s\n", socketPath.c_str());
        return nullptr;
    }
    if (c->err != 0) {
        ZLOG(eZLogError, "Connect to Redis err:%s\n", c->errstr);
        ZLOG(eZLogInfo, "Redis socket tried: %s\n", socketPath.c_str());
        redisFree(c);
        return nullptr;
    }
    return c;
}

void RedisDisconnect(redisContext* c) {
    if (c == nullptr) return;
    // What this thread still has queued on it goes first: no reply is left
    // owed by a freed connection (whose address a new one may take).
    if (cli::HasDeferred(c)) RedisDrainDeferred(c);
    cli::DropPending(c);  // nothing is owed; a new connection may take its address
    redisFree(c);
}

RedisConnectionScope::RedisConnectionScope() : mPrev(tScopedConn) {
    // An enclosing scope already serves this thread (unless its connection
    // broke: then this scope brings a new one for its own span).
    if (UsableScopedConn() != nullptr) return;
    mOwned = RedisConnect();
    if (mOwned == nullptr) return;  // logged; calls connect by themselves as before
    tScopedConn = mOwned;
    mActive = true;
}

RedisConnectionScope::RedisConnectionScope(redisContext* c) : mPrev(tScopedConn) {
    if (c == nullptr) return;
    tScopedConn = c;
    mActive = true;
}

RedisConnectionScope::~RedisConnectionScope() {
    if (!mActive) return;
    // Writes deferred on the scope's connection reach the store before the
    // scope ends: its owner may close it or use it with hiredis directly.
    RedisDrainDeferred(tScopedConn);
    tScopedConn = mPrev;
    RedisDisconnect(mOwned);
}

redisContext* RedisConnectionScope::Current() {
    return tScopedConn;
}

RedisCallConnection::RedisCallConnection(redisContext* c) : mCtx(c) {
    if (mCtx != nullptr) return;
    mCtx = UsableScopedConn();
    if (mCtx != nullptr) return;
    mCtx = RedisConnect();
    mOwned = mCtx != nullptr;
}

RedisCallConnection::~RedisCallConnection() {
    if (mOwned) RedisDisconnect(mCtx);
}

eRtCode redisAuthentication(redisContext* c, const char* pass) {
    if (c == nullptr || pass == nullptr) {
        ZLOG(eZLogError, "Null pointer! rc:%p pass:%p\n", static_cast<void*>(c),
             static_cast<const void*>(pass));
        return RT_FAILURE;
    }
    ReplyPtr reply = Command(c, {"AUTH", pass});
    // The password never goes into a log line.
    if (!reply) {
        ZLOG(eZLogError, "Command[AUTH] reply is NULL. err[%s]\n", c->errstr);
        return RT_FAILURE;
    }
    if (!IsStatus(reply.get(), "OK")) {
        ZLOG(eZLogError, "Command[AUTH] reply failed.\n");
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

void RedisDumpReply(const char* cmd, redisReply* reply) {
    ZLOGM("ZComLib", eZLogRaw, "Dump Redis command[%s] reply:\n", cmd != nullptr ? cmd : "");
    if (reply != nullptr) {
        DumpReplyLines(reply, std::string());
    } else {
        ZLOGM("ZComLib", eZLogRaw, "(Unknown!)\n");
    }
    ZLOGM("ZComLib", eZLogRaw, "\n\n");
}

// ---------------------------------------------------------------------------
// Channels
// ---------------------------------------------------------------------------

redisContext* RedisSubscribeFromChannel(std::string channel) {
    // The subscription outlives this call, so the connection is always a new
    // one that the listening thread owns afterwards, never a scoped one.
    redisContext* c = RedisConnect();
    if (c == nullptr) {
        ZLOG(eZLogError, "Failed to call RedisConnect().\n");
        return nullptr;
    }
    ReplyPtr reply = Command(c, {"SUBSCRIBE", channel});
    if (!reply) {
        ZLOG(eZLogError, "Command[SUBSCRIBE %s] reply is NULL.\n", channel.c_str());
        RedisDisconnect(c);
        return nullptr;
    }
    return c;
}

RedisDeferredWrites::RedisDeferredWrites(redisContext* c) : mPrevious(cli::tDeferringOn) {
    cli::tDeferringOn = c;
}

RedisDeferredWrites::~RedisDeferredWrites() {
    cli::tDeferringOn = mPrevious;
}

redisContext* RedisSetDeferring(redisContext* c) {
    redisContext* previous = cli::tDeferringOn;
    cli::tDeferringOn = c;
    return previous;
}

void RedisDrainDeferred(redisContext* c) {
    // A handler may defer more (a count after its length): until none is left.
    do {
        cli::DrainDeferred(c);
        cli::RunDeferredHandlers();
    } while (cli::HasDeferred(c));
}

bool RedisAwaitsReplies(redisContext* c) {
    for (const cli::DeferredReply& d : cli::tDeferred) {
        if (d.c == c && d.kind == cli::DeferKind::kHandler) return true;
    }
    for (const cli::PendingHandler& h : cli::tHandlers) {
        if (h.c == c) return true;
    }
    return false;
}

namespace {

// RedisDeferCommand on the words `wordAt(0..n-1)`, each turned into an
// argument view once (on the stack for the few words most commands have).
template <class WordAt>
bool DeferWords(redisContext* c, size_t n, WordAt wordAt, RedisDeferredHandler handler, void* arg) {
    if (!Deferring(c) || n == 0) return false;
    constexpr size_t kOnStack = 16;
    cli::Arg stackArgs[kOnStack];
    std::vector<cli::Arg> heapArgs;
    cli::Arg* args = stackArgs;
    if (n > kOnStack) {
        heapArgs.resize(n);
        args = heapArgs.data();
    }
    for (size_t i = 0; i < n; ++i) args[i] = cli::Arg(wordAt(i));
    // Without a handler a failure is logged, and the words are kept for it
    // (as many as the text shows).
    return handler != nullptr ? cli::Defer(c, args, n, cli::DeferKind::kHandler, n, n, handler, arg)
                              : cli::Defer(c, args, n, cli::DeferKind::kCommand, 0, kShownWords);
}

}  // namespace

bool RedisDeferCommand(redisContext* c, const std::string_view* words, size_t n,
                       RedisDeferredHandler handler, void* arg) {
    return DeferWords(
        c, n, [words](size_t i) { return words[i]; }, handler, arg);
}

bool RedisDeferCommand(redisContext* c, std::initializer_list<std::string_view> words,
                       RedisDeferredHandler handler, void* arg) {
    return RedisDeferCommand(c, words.begin(), words.size(), handler, arg);
}

bool RedisDeferCommand(redisContext* c, const std::vector<std::string>& argv,
                       RedisDeferredHandler handler, void* arg) {
    return DeferWords(
        c, argv.size(), [&argv](size_t i) { return std::string_view(argv[i]); }, handler, arg);
}

eRtCode RedisPipeline(redisContext* c, const std::vector<std::vector<std::string>>& commands,
                      std::vector<eRtCode>& results) {
    results.assign(commands.size(), RT_FAILURE);
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    DeferredHandlersAtEnd handlers;
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    for (size_t queued = 0; queued < commands.size(); ++queued) {
        const std::vector<std::string>& command = commands[queued];
        argv.clear();
        lens.clear();
        for (const std::string& a : command) {
            argv.push_back(a.data());
            lens.push_back(a.size());
        }
        if (!AppendArgv(ctx.get(), argv.size(), argv.data(), lens.data())) {
            ZLOG(eZLogError, "Failed to queue %u commands.\n",
                 static_cast<unsigned>(commands.size()));
            // What was queued goes out now, so that no later call of the
            // connection reads these replies as its own.
            DrainDeferred(ctx.get());
            for (size_t i = 0; i < queued; ++i)
                results[i] = ReadReply(ctx.get()) ? RT_SUCCESS : RT_FAILURE;
            return RT_FAILURE;
        }
    }
    DrainDeferred(ctx.get());
    for (size_t i = 0; i < commands.size(); ++i) {
        ReplyPtr reply = ReadReply(ctx.get());
        if (!reply) {
            ZLOG(eZLogError, "Command[%s] reply is NULL.\n",
                 commands[i].empty() ? "" : commands[i][0].c_str());
            return RT_FAILURE;
        }
        results[i] = reply->type == REDIS_REPLY_ERROR ? RT_FAILURE : RT_SUCCESS;
    }
    return RT_SUCCESS;
}

eRtCode RedisPipelineArgs(redisContext* c, const sRedisArgs* commands, size_t n,
                          eRtCode* results) {
    for (size_t i = 0; i < n; ++i) results[i] = RT_FAILURE;
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    DeferredHandlersAtEnd handlers;
    for (size_t queued = 0; queued < n; ++queued) {
        if (!AppendArgv(ctx.get(), commands[queued].argc, commands[queued].argv,
                        commands[queued].lens)) {
            ZLOG_AS("RedisPipeline", eZLogError, "Failed to queue %u commands.\n",
                    static_cast<unsigned>(n));
            DrainDeferred(ctx.get());
            for (size_t i = 0; i < queued; ++i)
                results[i] = ReadReply(ctx.get()) ? RT_SUCCESS : RT_FAILURE;
            return RT_FAILURE;
        }
    }
    DrainDeferred(ctx.get());
    for (size_t i = 0; i < n; ++i) {
        ReplyPtr reply = ReadReply(ctx.get());
        if (!reply) {
            ZLOG_AS("RedisPipeline", eZLogError, "Command[%.*s] reply is NULL.\n",
                    static_cast<int>(commands[i].argc != 0 ? commands[i].lens[0] : 0),
                    commands[i].argc != 0 ? commands[i].argv[0] : "");
            return RT_FAILURE;
        }
        results[i] = reply->type == REDIS_REPLY_ERROR ? RT_FAILURE : RT_SUCCESS;
    }
    return RT_SUCCESS;
}

namespace {

// "HSET <key> <field> <value>", "RPUSH <key> <value>", "LSET <key> <index>
// <value>": the command's first words, values masked, as a failure shows it.
std::string ShownCommand(const std::vector<std::string>& argv) {
    std::string shown;
    const std::string word = argv.empty() ? std::string() : argv[0];
    const bool hash = word == "HSET";
    const size_t words = hash || word == "LSET" || word == "LREM" ? kShownWords : 3;
    for (size_t i = 0; i < words && i < argv.size(); ++i) {
        if (i != 0) shown += ' ';
        if (hash ? i == 3 : i >= 2) {
            shown += MaskSecretValue(hash ? argv[2] : argv[1], argv[i].c_str());
        } else {
            shown += argv[i];
        }
    }
    return shown;
}

}  // namespace

eRtCode RedisPipelineWrites(redisContext* c, std::vector<sRedisPipelineCmd>& cmds) {
    if (cmds.empty()) return RT_SUCCESS;
    for (sRedisPipelineCmd& cmd : cmds) cmd.result = RT_FAILURE;
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    DeferredHandlersAtEnd handlers;
    size_t longest = 0;
    for (const sRedisPipelineCmd& cmd : cmds) longest = std::max(longest, cmd.argv.size());
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    argv.reserve(longest);
    lens.reserve(longest);
    size_t queued = 0;
    for (; queued < cmds.size(); ++queued) {
        argv.clear();
        lens.clear();
        for (const std::string& a : cmds[queued].argv) {
            argv.push_back(a.data());
            lens.push_back(a.size());
        }
        if (!AppendArgv(ctx.get(), argv.size(), argv.data(), lens.data())) break;
    }
    // Every queued command is read, so that no later call of the connection
    // reads these replies as its own.
    DrainDeferred(ctx.get());
    eRtCode rt = queued == cmds.size() ? RT_SUCCESS : RT_FAILURE;
    for (size_t i = 0; i < cmds.size(); ++i) {
        sRedisPipelineCmd& cmd = cmds[i];
        ReplyPtr reply = i < queued ? ReadReply(ctx.get()) : ReplyPtr();
        if (!reply) {
            ZLOG(eZLogError, "Command[%s] reply is NULL. err[%s]\n",
                 ShownCommand(cmd.argv).c_str(), ctx.get()->errstr);
            rt = RT_FAILURE;
            continue;
        }
        if (reply->type == REDIS_REPLY_ERROR) {
            RedisDumpReply(cmd.argv.empty() ? "" : cmd.argv[0].c_str(), reply.get());
            ZLOG(eZLogError, "Command[%s] reply failed.\n", ShownCommand(cmd.argv).c_str());
            rt = RT_FAILURE;
            continue;
        }
        if (reply->type == REDIS_REPLY_INTEGER) cmd.integer = reply->integer;
        cmd.result = RT_SUCCESS;
    }
    return rt;
}

eRtCode RedisPublishToChannel(redisContext* c, std::string channel, std::string message,
                              int64_t* receivers) {
    if (receivers != nullptr) *receivers = 0;
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    ReplyPtr reply = Command(ctx.get(), {"PUBLISH", channel, message});
    if (!reply) {
        ZLOG(eZLogError, "Command[PUBLISH %s %s] reply is NULL.\n", channel.c_str(),
             message.c_str());
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_INTEGER || reply->integer < 0) {
        ZLOG(eZLogError, "Command[PUBLISH %s %s] reply failed. reply->int[%lld]\n", channel.c_str(),
             message.c_str(), static_cast<long long>(reply->integer));
        return RT_FAILURE;
    }
    if (receivers != nullptr) *receivers = static_cast<int64_t>(reply->integer);
    return RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// Keys
// ---------------------------------------------------------------------------

namespace {

// The table type a TYPE reply names (RedisType's logging on a failure).
int TableTypeOf(const redisReply* reply, const char* key) {
    if (reply->type != REDIS_REPLY_STATUS || reply->str == nullptr) {
        ZLOG_AS("RedisType", eZLogError, "Command[TYPE %s] reply is failed.\n", key);
        return REDIS_TABLE_UNSUPPORTED;
    }
    if (std::strcmp(reply->str, "none") == 0) return REDIS_TABLE_NONE;
    if (std::strcmp(reply->str, "hash") == 0) return REDIS_TABLE_HASH;
    if (std::strcmp(reply->str, "list") == 0) return REDIS_TABLE_LIST;
    if (std::strcmp(reply->str, "string") == 0) return REDIS_TABLE_STRING;
    ZLOG_AS("RedisType", eZLogError, "Unsupported table type[%s].\n", reply->str);
    return REDIS_TABLE_UNSUPPORTED;
}

}  // namespace

int RedisType(redisContext* c, const char* key) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, REDIS_TABLE_UNSUPPORTED);
    ReplyPtr reply = KeyCommand(__func__, ctx.get(), "TYPE", key, "TYPE");
    if (!reply) return REDIS_TABLE_UNSUPPORTED;
    return TableTypeOf(reply.get(), key);
}

eRtCode RedisSet(redisContext* c, const char* key, const char* value, unsigned int seconds) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    if (key == nullptr || value == nullptr) {
        ZLOG(eZLogError, "NULL arg! key:%p value:%p\n", static_cast<const void*>(key),
             static_cast<const void*>(value));
        return RT_FAILURE;
    }
    // The log texts name an NX option the command does not send; both are
    // kept as they are because log readers and the command's behaviour (an
    // existing lock key is overwritten) rely on them separately.
    ReplyPtr reply = Command(ctx.get(), {"SET", key, value, "EX", DecimalArg(seconds)});
    if (!reply) {
        ZLOG(eZLogError, "Command[SET %s %s EX %u NX] reply is NULL.\n", key,
             MaskSecretValue(key, value), seconds);
        return RT_FAILURE;
    }
    if (reply->type == REDIS_REPLY_STATUS) {
        if (IsStatus(reply.get(), "OK")) return RT_SUCCESS;
        ZLOG(eZLogError, "Command[SET %s %s EX %u NX] reply failed. reply->str[%s]\n", key,
             MaskSecretValue(key, value), seconds, reply->str != nullptr ? reply->str : "");
        return RT_FAILURE;
    }
    RedisDumpReply("SET", reply.get());
    ZLOG(eZLogError, "Command[SET %s %s EX %u NX] reply failed.\n", key,
         MaskSecretValue(key, value), seconds);
    return RT_FAILURE;
}

eRtCode RedisGet(redisContext* c, const char* key, std::string* value) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    ReplyPtr reply = KeyCommand(__func__, ctx.get(), "GET", key, "GET");
    if (!reply) return RT_FAILURE;
    if (reply->type == REDIS_REPLY_NIL) return RT_NO_SUCH_KEY;
    if (reply->type != REDIS_REPLY_STRING) {
        ZLOG(eZLogError, "Command[GET %s] reply failed.\n", key);
        return RT_FAILURE;
    }
    if (value != nullptr && reply->str != nullptr) *value = ReplyText(reply.get());
    return RT_SUCCESS;
}

eRtCode RedisTTL(redisContext* c, const char* key, int* seconds) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    if (key == nullptr || seconds == nullptr) {
        ZLOG(eZLogError, "Invalid argument key:%p rtValue:%p\n", static_cast<const void*>(key),
             static_cast<void*>(seconds));
        return RT_INVALID_ARG;
    }
    ReplyPtr reply = KeyCommand(__func__, ctx.get(), "TTL", key, "TTL");
    if (!reply) return RT_FAILURE;
    if (reply->type != REDIS_REPLY_INTEGER) {
        RedisDumpReply("TTL", reply.get());
        ZLOG(eZLogError, "Command[TTL %s] reply failed.\n", key);
        return RT_FAILURE;
    }
    *seconds = static_cast<int>(reply->integer);
    return RT_SUCCESS;
}

eRtCode RedisKeys(redisContext* c, const char* pattern, std::vector<std::string>& out, bool dump) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    if (pattern == nullptr) {
        ZLOG(eZLogError, "NULL arg! patten:%p\n", static_cast<const void*>(pattern));
        return RT_FAILURE;
    }
    ReplyPtr reply = KeyCommand(__func__, ctx.get(), "KEYS", pattern, "KEYS");
    if (!reply) return RT_FAILURE;
    // Nothing matching is not a failure: `out` is simply left as it was.
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements == 0) return RT_SUCCESS;
    if (dump) ZLOGM("ZComLib", eZLogRaw, "Command[KEYS %s] reply:\n", pattern);
    for (size_t i = 0; i < reply->elements; ++i) {
        out.push_back(ElementText(reply.get(), i));
        if (dump) ZLOGM("ZComLib", eZLogRaw, "  value[%s].\n", out.back().c_str());
    }
    return RT_SUCCESS;
}

eRtCode RedisDelTable(redisContext* c, const char* key) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    if (key == nullptr) {
        // Deleting nothing is treated as done: callers tear down trees and
        // must not stop on a node that never got a path.
        ZLOG(eZLogError, "NULL arg! key:%p\n", static_cast<const void*>(key));
        return RT_SUCCESS;
    }
    std::vector<std::string> keys;
    if (std::strchr(key, '*') != nullptr) {
        RedisKeys(ctx.get(), key, keys, true);
    } else {
        keys.emplace_back(key);
    }
    // UNLINK frees the values in the server's background, so tearing down a
    // large tree does not stall the front end. Replies are not checked: a
    // key that is already gone is as good as deleted.
    for (const std::string& k : keys) {
        if (Deferring(ctx.get()) && Defer(ctx.get(), {"UNLINK", k}, DeferKind::kUnchecked, 2)) {
            continue;
        }
        Command(ctx.get(), {"UNLINK", k});
    }
    return RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// Hashes
// ---------------------------------------------------------------------------

eRtCode RedisHashSize(redisContext* c, const char* key, int& size) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    // The texts say LLEN although HLEN is sent (see KeyLength).
    return KeyLength(__func__, ctx.get(), "HLEN", key, size);
}

eRtCode RedisHashSet(redisContext* c, const char* key, const char* name, const char* value) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    if (key == nullptr || name == nullptr || value == nullptr) {
        ZLOG(eZLogError, "NULL arg! key:%p pptName:%p pptValue:%p\n", static_cast<const void*>(key),
             static_cast<const void*>(name), static_cast<const void*>(value));
        return RT_FAILURE;
    }
    if (Deferring(ctx.get()) &&
        Defer(ctx.get(), {"HSET", key, name, value}, DeferKind::kHashSet, 1)) {
        return RT_SUCCESS;
    }
    ReplyPtr reply = Command(ctx.get(), {"HSET", key, name, value});
    if (!reply) {
        ZLOG(eZLogError, "Command[HSET %s %s %s] reply is NULL. err[%s]\n", key, name,
             MaskSecretValue(name, value), ctx.get()->errstr);
        return RT_FAILURE;
    }
    if (reply->type == REDIS_REPLY_INTEGER && (reply->integer == 0 || reply->integer == 1)) {
        return RT_SUCCESS;
    }
    RedisDumpReply("HSET", reply.get());
    ZLOG(eZLogError, "Command[HSET %s %s %s] reply failed.\n", key, name,
         MaskSecretValue(name, value));
    return RT_FAILURE;
}

eRtCode RedisHashGet(redisContext* c, const char* key, const char* name, std::string& value) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_FIELD_OR_RETURN(ctx, key, name);
    ReplyPtr reply = Command(ctx.get(), {"HGET", key, name});
    if (!reply) {
        value.clear();
        ZLOG(eZLogError, "Command[HGET %s %s] reply is NULL.\n", key, name);
        return RT_FAILURE;
    }
    // Only the text is looked at, not the reply type: callers treat an empty
    // field and a missing one alike, and an error reply's text (a key of
    // another type) comes back as the value.
    if (reply->str == nullptr || reply->len == 0) {
        value.clear();
        return RT_FIELD_MISSING;
    }
    value.assign(reply->str, reply->len);
    return RT_SUCCESS;
}

eRtCode RedisHashDel(redisContext* c, const char* key, const char* name) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_FIELD_OR_RETURN(ctx, key, name);
    ReplyPtr reply = Command(ctx.get(), {"HDEL", key, name});
    if (!reply) {
        ZLOG(eZLogError, "Command[HDEL %s %s] reply is NULL. err[%s]\n", key, name,
             ctx.get()->errstr);
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_INTEGER || (reply->integer != 0 && reply->integer != 1)) {
        ZLOG(eZLogError, "Command[HDEL %s %s] reply failed.\n", key, name);
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode RedisHashGetAll(redisContext* c, const char* key, std::map<std::string, std::string>& out,
                        bool dump) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    ReplyPtr reply = KeyCommand(__func__, ctx.get(), "HGETALL", key, "HGETALL");
    if (!reply) return RT_FAILURE;
    if (reply->type != REDIS_REPLY_ARRAY) {
        ZLOG(eZLogError, "Command[HGETALL %s] reply failed.\n", key);
        return RT_FAILURE;
    }
    if (dump) ZLOGM("ZComLib", eZLogRaw, "Command[HGETALL %s] reply:\n", key);
    for (size_t i = 0; i + 1 < reply->elements; i += 2) {
        std::string name = ElementText(reply.get(), i);
        std::string value = ElementText(reply.get(), i + 1);
        if (dump) {
            ZLOGM("ZComLib", eZLogRaw, "  key[%s] value[%s]:%d.\n", name.c_str(),
                  MaskSecretValue(name, value.c_str()), static_cast<int>(i / 2));
        }
        // The store's value wins over anything the caller left in `out`.
        out.insert_or_assign(std::move(name), std::move(value));
    }
    return RT_SUCCESS;
}

eRtCode RedisHashVisitAll(redisContext* c, const char* key, RedisFieldVisitor visit, void* arg) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    ReplyPtr reply = KeyCommand("RedisHashGetAll", ctx.get(), "HGETALL", key, "HGETALL");
    if (!reply) return RT_FAILURE;
    if (reply->type != REDIS_REPLY_ARRAY) {
        ZLOG_AS("RedisHashGetAll", eZLogError, "Command[HGETALL %s] reply failed.\n", key);
        return RT_FAILURE;
    }
    auto view = [&reply](size_t i) {
        const redisReply* e = reply->element[i];
        return e != nullptr && e->str != nullptr ? std::string_view(e->str, e->len)
                                                 : std::string_view();
    };
    for (size_t i = 0; i + 1 < reply->elements; i += 2) visit(arg, view(i), view(i + 1));
    return RT_SUCCESS;
}

eRtCode RedisHashVisitTyped(redisContext* c, const char* key, int& type, RedisFieldVisitor visit,
                            void* arg) {
    type = REDIS_TABLE_UNSUPPORTED;
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    const size_t keyLen = std::strlen(key);
    const char* typeArgv[2] = {"TYPE", key};
    const char* readArgv[2] = {"HGETALL", key};
    const size_t typeLens[2] = {4, keyLen};
    const size_t readLens[2] = {7, keyLen};
    const bool typeQueued = AppendArgv(ctx.get(), 2, typeArgv, typeLens);
    const bool readQueued = typeQueued && AppendArgv(ctx.get(), 2, readArgv, readLens);
    DrainDeferred(ctx.get());
    // Both replies are read whatever happens, so that no later call of the
    // connection takes one of them for its own.
    ReplyPtr typeReply = typeQueued ? ReadReply(ctx.get()) : ReplyPtr();
    ReplyPtr readReply = readQueued ? ReadReply(ctx.get()) : ReplyPtr();
    if (!typeReply) {
        ZLOG_AS("RedisType", eZLogError, "Command[TYPE %s] reply is NULL.\n", key);
        return RT_FAILURE;
    }
    type = TableTypeOf(typeReply.get(), key);
    // On a key of another type the HGETALL's error reply is expected: the
    // caller reads that key by its type.
    if (type != REDIS_TABLE_HASH) return RT_SUCCESS;
    if (!readReply) {
        ZLOG_AS("RedisHashGetAll", eZLogError, "Command[HGETALL %s] reply is NULL.\n", key);
        return RT_FAILURE;
    }
    if (readReply->type != REDIS_REPLY_ARRAY) {
        ZLOG_AS("RedisHashGetAll", eZLogError, "Command[HGETALL %s] reply failed.\n", key);
        return RT_FAILURE;
    }
    for (size_t i = 0; i + 1 < readReply->elements; i += 2) {
        const redisReply* n = readReply->element[i];
        const redisReply* v = readReply->element[i + 1];
        visit(arg,
              n != nullptr && n->str != nullptr ? std::string_view(n->str, n->len)
                                                : std::string_view(),
              v != nullptr && v->str != nullptr ? std::string_view(v->str, v->len)
                                                : std::string_view());
    }
    return RT_SUCCESS;
}

// ---------------------------------------------------------------------------
// Event service scripts
// ---------------------------------------------------------------------------

eRtCode RedisEvalEnqueueEvent(redisContext* c, const char* payload, int& result) {
    return EvalStoredScript(__func__, c, "enqueueEvent", payload, result, nullptr);
}

eRtCode RedisEvalEnqueueMetricReport(redisContext* c, const char* payload, int& result) {
    return EvalStoredScript(__func__, c, "enqueueMetricReport", payload, result,
                            "RedisEvalEnqueueMetricReport ");
}

}  // namespace Orbel
