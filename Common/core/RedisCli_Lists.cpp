// The store client's set and list wrappers. Part of the store client
// (RedisCli.h); the shared pieces are in RedisCli_Internal.h.
#include <cstdio>
#include <string>
#include <vector>

#include "Orbel.h"
#include "RedisCli.h"
#include "RedisCli_Internal.h"

namespace Orbel {

using namespace cli;

// ---------------------------------------------------------------------------
// Sets (caller's connection only)
// ---------------------------------------------------------------------------

eRtCode RedisSetAdd(redisContext* c, const char* key, const char* value, long long* added) {
    return SetMemberCommand(__func__, c, "SADD", key, value, added);
}

eRtCode RedisSetRem(redisContext* c, const char* key, const char* value) {
    return SetMemberCommand(__func__, c, "SREM", key, value);
}

// ---------------------------------------------------------------------------
// Lists
// ---------------------------------------------------------------------------

eRtCode RedisListSize(redisContext* c, const char* key, int& size) {
    if (c == nullptr || key == nullptr) {
        ZLOG(eZLogError, "NULL arg! c:%p key:%p\n", static_cast<void*>(c),
             static_cast<const void*>(key));
        return RT_FAILURE;
    }
    return KeyLength(__func__, c, "LLEN", key, size);
}

eRtCode RedisListSet(redisContext* c, const char* key, const char* index, const char* value) {
    if (c == nullptr || key == nullptr || value == nullptr) {
        ZLOG(eZLogError, "NULL arg! c:%p key:%p value:%p\n", static_cast<void*>(c),
             static_cast<const void*>(key), static_cast<const void*>(value));
        return RT_FAILURE;
    }
    // The index is not one of the checked arguments; a null one is sent as
    // an empty text, which the server refuses as "not an integer".
    const char* indexText = index != nullptr ? index : "";
    ReplyPtr reply = Command(c, {"LSET", key, indexText, value});
    if (!reply) {
        ZLOG(eZLogError, "Command[LSET %s %s %s] reply is NULL. err[%s]\n", key, indexText,
             MaskSecretValue(key, value), c->errstr);
        return RT_FAILURE;
    }
    if (!IsStatus(reply.get(), "OK")) {
        ZLOG(eZLogError, "Command[LSET %s %s %s] reply failed.\n", key, indexText,
             MaskSecretValue(key, value));
        return RT_FAILURE;
    }
    return RT_SUCCESS;
}

eRtCode RedisListGet(redisContext* c, const char* key, int index, std::string& value) {
    if (c == nullptr || key == nullptr) {
        ZLOG(eZLogError, "NULL arg! c:%p key:%p\n", static_cast<void*>(c),
             static_cast<const void*>(key));
        return RT_FAILURE;
    }
    ReplyPtr reply = Command(c, {"LINDEX", key, DecimalArg(index)});
    if (!reply) {
        ZLOG(eZLogError, "Command[LINDEX %s %d] reply is NULL.\n", key, index);
        return RT_FAILURE;
    }
    if (reply->type == REDIS_REPLY_NIL) return RT_NO_SUCH_KEY;
    if (reply->type != REDIS_REPLY_STRING) {
        ZLOG(eZLogError, "Command[LINDEX %s %d] reply failed.\n", key, index);
        return RT_FAILURE;
    }
    value = ReplyText(reply.get());
    return RT_SUCCESS;
}

eRtCode RedisListPushBack(redisContext* c, const char* key,
                          const std::vector<std::string>& values) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    if (values.empty()) {
        // Redis keeps no empty list, so there is nothing to write; the
        // caller's array simply has no key yet.
        ZLOG(eZLogWarning, "Empty data\n");
        return RT_SUCCESS;
    }
    for (const std::string& v : values) {
        eRtCode rt = PushOne(__func__, ctx.get(), key, v);
        if (rt != RT_SUCCESS) return rt;
    }
    return RT_SUCCESS;
}

eRtCode RedisListPushBack(redisContext* c, const char* key, const char* value) {
    if (key == nullptr || value == nullptr) {
        ZLOG(eZLogError, "NULL arg! key:%p value:%p\n", static_cast<const void*>(key),
             static_cast<const void*>(value));
        return RT_FAILURE;
    }
    // The vector form's steps for one value, without making a vector: this
    // is the append of every applied list item.
    eRtCode rt = RT_FAILURE;
    {
        RedisCallConnection ctx(c);
        if (ctx.get() == nullptr) {
            ZLOG(eZLogError, "Failed to call RedisConnect()\n");
        } else {
            rt = PushOne(__func__, ctx.get(), key, value);
        }
    }
    if (rt != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisListPushBack(). rt:%d\n", static_cast<int>(rt));
    }
    return rt;
}

eRtCode RedisListDel(redisContext* c, const char* key, std::string value) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    return ListRemove(__func__, ctx.get(), key, "1", value);
}

eRtCode RedisListDelAll(redisContext* c, const char* key, std::string value) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    return ListRemove(__func__, ctx.get(), key, "0", value);
}

eRtCode RedisListDel(redisContext* c, const char* key, int index) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    std::vector<std::string> elements;
    if (RedisListGetAll(ctx.get(), key, 0, -1, elements) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisListGetAll( %s )\n", key);
        return RT_FAILURE;
    }
    int size = static_cast<int>(elements.size());
    if (index < 0 || index >= size) {
        ZLOG(eZLogError, "Index[%d] out of LIST[%s] size[%d]\n", index, key, size);
        return RT_FAILURE;
    }
    // Removal goes by value (LREM count 1), so an equal element earlier in
    // the list is the one removed; arrays of the mirror hold distinct
    // values, which makes this the same element there.
    return RedisListDel(ctx.get(), key, elements[static_cast<size_t>(index)]);
}

eRtCode RedisListGetAll(redisContext* c, const char* key, int start, int stop,
                        std::vector<std::string>& out, bool dump) {
    out.clear();
    RedisCallConnection ctx(c);
    ORBEL_OPEN_WITH_KEY_OR_RETURN(ctx, key, RT_FAILURE);
    ReplyPtr reply = Command(ctx.get(), {"LRANGE", key, DecimalArg(start), DecimalArg(stop)});
    if (!reply) {
        ZLOG(eZLogError, "Command[LRANGE %s %d %d] reply is NULL.\n", key, start, stop);
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_ARRAY) {
        ZLOG(eZLogError, "[%s] is not a list. type[%d]\n", key, reply->type);
        return RT_FAILURE;
    }
    if (dump) {
        ZLOGM("ZComLib", eZLogRaw, "Command[LRANGE %s %d %d] elementNum[%d].\n", key, start, stop,
              static_cast<int>(reply->elements));
    }
    out.reserve(reply->elements);
    for (size_t i = 0; i < reply->elements; ++i) {
        out.push_back(ElementText(reply.get(), i));
        if (dump) {
            ZLOGM("ZComLib", eZLogRaw, "    |-- element_%d[%s].\n", static_cast<int>(i),
                  MaskSecretValue(key, out.back().c_str()));
        }
    }
    return RT_SUCCESS;
}

eRtCode RedisListWriteBinData(redisContext* c, const char* key, unsigned char* data,
                              unsigned int len) {
    if (c == nullptr || key == nullptr || (data == nullptr && len != 0)) {
        ZLOG(eZLogError, "NULL arg! c:%p key:%p data:%p\n", static_cast<void*>(c),
             static_cast<const void*>(key), static_cast<void*>(data));
        return RT_FAILURE;
    }
    // One RPUSH with every byte as its own argument. An argument vector keeps
    // a key with blanks one argument, where a joined command text would split
    // it.
    const ByteTexts& table = ByteTextTable();
    std::vector<const char*> argv;
    std::vector<size_t> argvLen;
    argv.reserve(static_cast<size_t>(len) + 2);
    argvLen.reserve(static_cast<size_t>(len) + 2);
    argv.push_back("RPUSH");
    argvLen.push_back(5);
    argv.push_back(key);
    argvLen.push_back(std::strlen(key));
    for (unsigned int i = 0; i < len; ++i) {
        argv.push_back(table.text[data[i]]);
        argvLen.push_back(table.len[data[i]]);
    }
    ReplyPtr reply = CommandArgv(c, argv, argvLen);
    if (reply && reply->type == REDIS_REPLY_INTEGER) return RT_SUCCESS;

    // The log shows the command the way a person would type it.
    std::string command = "RPUSH ";
    command += key;
    for (unsigned int i = 0; i < len; ++i) {
        command += ' ';
        command += table.text[data[i]];
    }
    if (!reply) {
        ZLOG(eZLogError, "Command[%s] reply is NULL.\n", MaskSecretValue(key, command.c_str()));
    } else {
        ZLOG(eZLogError, "Command[%s] reply failed.\n", MaskSecretValue(key, command.c_str()));
    }
    return RT_FAILURE;
}

eRtCode RedisListReadBinData(redisContext* c, const char* key, unsigned char** data,
                             unsigned int& len) {
    RedisCallConnection ctx(c);
    ORBEL_OPEN_OR_RETURN(ctx, RT_FAILURE);
    if (key == nullptr || data == nullptr) {
        ZLOG(eZLogError, "NULL arg! key:%p\n", static_cast<const void*>(key));
        return RT_FAILURE;
    }
    *data = nullptr;
    len = 0;
    ReplyPtr reply = Command(ctx.get(), {"LRANGE", key, "0", "-1"});
    if (!reply) {
        ZLOG(eZLogError, "Command[LRANGE %s 0 -1] reply is NULL.\n", key);
        return RT_FAILURE;
    }
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements == 0) return RT_SUCCESS;

    std::unique_ptr<unsigned char[]> buffer(new unsigned char[reply->elements]);
    for (size_t i = 0; i < reply->elements; ++i) {
        if (!ParseByteText(reply->element[i], buffer[i])) {
            ZLOG(eZLogError, "[%s] element_%d[%s] is not a byte value.\n", key, static_cast<int>(i),
                 ElementText(reply.get(), i).c_str());
            return RT_FAILURE;
        }
    }
    len = static_cast<unsigned int>(reply->elements);
    *data = buffer.release();
    return RT_SUCCESS;
}

}  // namespace Orbel
