// The store client: listening connections (SUBSCRIBE and the messages that
// follow), the part of the client that request dispatchers build on.
#include <cstring>
#include <memory>

#include "RedisCli.h"
#include "RedisCli_Internal.h"
#include "ZLogPrint.h"

namespace Orbel {

namespace {

struct ReplyFree {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using ReplyHolder = std::unique_ptr<redisReply, ReplyFree>;

// A push of a listening connection: an array whose first element is `kind`.
bool IsPush(const redisReply* r, const char* kind, size_t elements) {
    return r != nullptr && r->type == REDIS_REPLY_ARRAY && r->elements == elements &&
           r->element[0]->type == REDIS_REPLY_STRING && std::strcmp(r->element[0]->str, kind) == 0;
}

}  // namespace

eRtCode RedisSubscribeChannels(redisContext* c, const std::vector<std::string>& channels) {
    if (c == nullptr || channels.empty()) {
        ZLOG(eZLogError, "NULL arg! c:%p channels:%u\n", static_cast<void*>(c),
             static_cast<unsigned>(channels.size()));
        return RT_FAILURE;
    }
    std::vector<const char*> argv;
    std::vector<size_t> argl;
    argv.push_back("SUBSCRIBE");
    argl.push_back(9);
    for (const std::string& ch : channels) {
        argv.push_back(ch.data());
        argl.push_back(ch.size());
    }
    if (!cli::HandOver(c) || redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(),
                                                    argl.data()) != REDIS_OK) {
        ZLOG(eZLogError, "Command[SUBSCRIBE %s] failed: %s\n", channels[0].c_str(), c->errstr);
        return RT_FAILURE;
    }
    for (size_t i = 0; i < channels.size(); ++i) {
        void* raw = nullptr;
        if (redisGetReply(c, &raw) != REDIS_OK) {
            ZLOG(eZLogError, "Command[SUBSCRIBE %s] reply is NULL.\n", channels[i].c_str());
            return RT_FAILURE;
        }
        ReplyHolder reply(static_cast<redisReply*>(raw));
        if (!IsPush(reply.get(), "subscribe", 3)) {
            ZLOG(eZLogError, "Command[SUBSCRIBE %s] reply failed.\n", channels[i].c_str());
            return RT_FAILURE;
        }
    }
    return RT_SUCCESS;
}

eRtCode RedisGetChannelMessage(redisContext* c, std::string& channel, std::string& message) {
    if (c == nullptr) return RT_FAILURE;
    void* raw = nullptr;
    if (redisGetReply(c, &raw) != REDIS_OK) return RT_FAILURE;
    ReplyHolder reply(static_cast<redisReply*>(raw));
    if (!IsPush(reply.get(), "message", 3) || reply->element[1]->type != REDIS_REPLY_STRING ||
        reply->element[2]->type != REDIS_REPLY_STRING) {
        return RT_NO_SUCH_KEY;
    }
    channel.assign(reply->element[1]->str, reply->element[1]->len);
    message.assign(reply->element[2]->str, reply->element[2]->len);
    return RT_SUCCESS;
}

eRtCode RedisListenerPair::Open(const std::vector<std::string>& channels) {
    Close();
    mListen = RedisConnect();
    mCommand = mListen != nullptr ? RedisConnect() : nullptr;
    if (mListen == nullptr || mCommand == nullptr) {
        Close();
        return RT_FAILURE;
    }
    if (RedisSubscribeChannels(mListen, channels) != RT_SUCCESS) {
        Close();
        return RT_NO_SUCH_KEY;
    }
    return RT_SUCCESS;
}

void RedisListenerPair::Close() {
    RedisDisconnect(mListen);
    RedisDisconnect(mCommand);
    mListen = nullptr;
    mCommand = nullptr;
}

}  // namespace Orbel
