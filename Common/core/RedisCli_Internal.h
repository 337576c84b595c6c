// The store client's private pieces, shared by the files that hold its
// wrappers (RedisCli.cpp, RedisCli_Lists.cpp): the reply holder, command
// arguments, the one sending path, the argument checks and the helpers
// several wrappers use. Not installed; only the store client includes it.
//
// Lines logged from these files name "RedisCli.cpp", the file log readers
// know the store client by, whichever file holds the wrapper.
#ifndef ORBEL_REDISCLI_INTERNAL_H
#define ORBEL_REDISCLI_INTERNAL_H

#include <hiredis/hiredis.h>

#include <charconv>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "OrbelDefs.h"
#include "ZLogPrint.h"

#undef ORBEL_LOG_FILE_NAME
#define ORBEL_LOG_FILE_NAME "RedisCli.cpp"

namespace Orbel {
namespace cli __attribute__((visibility("hidden"))) {

struct ReplyDeleter {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyDeleter>;

// One argument of a command: a text and its length. Caller texts travel
// only this way, byte for byte, so none of them is ever read as a format.
struct Arg {
    Arg(const char* text) : data(text), size(std::strlen(text)) {}  // NOLINT: implicit on purpose
    Arg(const std::string& text) : data(text.data()), size(text.size()) {}  // NOLINT
    Arg(std::string_view text) : data(text.data()), size(text.size()) {}    // NOLINT
    Arg() = default;
    const char* data = nullptr;
    size_t size = 0;
};

// An integer as the decimal text an argument carries ("-1", "20").
class DecimalArg {
public:
    explicit DecimalArg(long long value) {
        std::to_chars_result r = std::to_chars(mText, mText + sizeof(mText), value);
        mSize = static_cast<size_t>(r.ptr - mText);
        *r.ptr = '\0';  // for the log lines that show it
    }
    operator Arg() const {  // NOLINT: implicit on purpose
        Arg a(mText);
        a.size = mSize;
        return a;
    }
    const char* c_str() const { return mText; }

private:
    char mText[24];
    size_t mSize;
};

struct ByteTexts {
    char text[256][4];
    size_t len[256];
    ByteTexts() {
        for (int i = 0; i < 256; ++i) {
            len[i] = static_cast<size_t>(std::snprintf(text[i], sizeof(text[i]), "%d", i));
        }
    }
};

// Checks the call's connection (RedisCallConnection, opened when the
// caller passed none), or logs (under the calling wrapper's name) and
// returns `failRt` from it.
#define ORBEL_OPEN_OR_RETURN(ctx, failRt)                        \
    do {                                                         \
        if ((ctx).get() == nullptr) {                            \
            ZLOG(eZLogError, "Failed to call RedisConnect()\n"); \
            return (failRt);                                     \
        }                                                        \
    } while (0)

// The same, then refuses a null key with the wrappers' common text.
#define ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, failRt)                            \
    do {                                                                           \
        ORBEL_OPEN_OR_RETURN(ctx, failRt);                                         \
        if ((key) == nullptr) {                                                    \
            ZLOG(eZLogError, "NULL arg! key:%p\n", static_cast<const void*>(key)); \
            return (failRt);                                                       \
        }                                                                          \
    } while (0)

// The same for a hash field: refuses a null key or field name.
#define ORBEL_OPEN_WITH_FIELD_OR_RETURN(ctx, key, name)                                      \
    do {                                                                                     \
        ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);                                               \
        if ((key) == nullptr || (name) == nullptr) {                                         \
            ZLOG(eZLogError, "NULL arg! key:%p pptName:%p\n", static_cast<const void*>(key), \
                 static_cast<const void*>(name));                                            \
            return RT_FAILURE;                                                               \
        }                                                                                    \
    } while (0)

// For the steps several wrappers share: the line is logged under the name of
// the wrapper that called the helper (`func`), so log readers see the same
// function name whichever wrapper failed.
#define ZLOG_AS(func, type, ...) \
    ::Orbel::LogPrintf("", ::Orbel::type, ORBEL_LOG_FILE_NAME, func, __LINE__, __VA_ARGS__)

redisContext* UsableScopedConn();
void NoOpSigPipeHandler(int);
void KeepSigPipeFromEndingTheProcess();
ReplyPtr TakeReply(redisContext* c, void* raw);
char* PutCount(char* out, char mark, size_t n);
bool AppendArgv(redisContext* c, size_t argc, const char* const* argv, const size_t* argvLen);
// Hands this thread's deferred commands on `c` to hiredis (they must go
// before anything else sent on `c`, and before any read). False when hiredis
// refused them.
bool HandOver(redisContext * c);
ReplyPtr ReadReply(redisContext* c);
bool HasDeferred(redisContext* c);
void DrainDeferred(redisContext* c);
void RunDeferredHandlers();
// Runs the handlers of deferred replies when the call that read them ends.
struct DeferredHandlersAtEnd {
    ~DeferredHandlersAtEnd() { RunDeferredHandlers(); }
};
ReplyPtr SendArgv(redisContext* c, size_t argc, const char* const* argv, const size_t* argvLen);
ReplyPtr Command(redisContext* c, std::initializer_list<Arg> args);
ReplyPtr CommandArgv(redisContext* c, std::vector<const char*>& argv,
                     const std::vector<size_t>& argvLen);
bool IsStatus(const redisReply* r, const char* text);
std::string ReplyText(const redisReply* r);
std::string ElementText(const redisReply* r, size_t i);
const ByteTexts& ByteTextTable();
bool ParseByteText(const redisReply* e, unsigned char& out);
void DumpReplyLines(const redisReply* r, const std::string& indent);
ReplyPtr KeyCommand(const char* func, redisContext* c, const char* word, const char* key,
                    const char* shown);
eRtCode KeyLength(const char* func, redisContext* c, const char* word, const char* key, int& size);
eRtCode SetMemberCommand(const char* func, redisContext* c, const char* word, const char* key,
                         const char* value, long long* changed = nullptr);
eRtCode ListRemove(const char* func, redisContext* c, const char* key, const char* count,
                   const std::string& value);
eRtCode PushOne(const char* func, redisContext* c, const char* key, Arg value);
eRtCode EvalStoredScript(const char* func, redisContext* caller, const char* script,
                         const char* payload, int& result, const char* dumpAs);

}  // namespace cli
}  // namespace Orbel

#endif  // ORBEL_REDISCLI_INTERNAL_H
