// The answer to a request: what SendResponseToCorvel writes into the request
// hash, in which order, and how it is announced (docs/wire-protocol.md,
// "Requests").
#include <algorithm>
#include <string_view>
#include <string>
#include <vector>

#include "HTTP_MethodContext.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZLogPrint.h"
#include "ZObject.h"
#include "ZResource.h"
#include "ZTask.h"

namespace Orbel {

namespace {

constexpr unsigned kLockPollMs = 100;

void HashSetLogged(redisContext* c, const std::string& key, const std::string& field,
                   const std::string& value) {
    if (RedisHashSet(c, key.c_str(), field.c_str(), value.c_str()) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashSet( %s %s %s ).\n", key.c_str(), field.c_str(),
             MaskSecretValue(field, value.c_str()));
    }
}

}  // namespace

void HTTP_MethodContext::_DropNotWritableNotes() {
    // Notes about read-only properties the client also sent belong to a
    // success; an error answer keeps them only when they are all it has.
    const size_t notes = GetExtendedInfoNum(RESP_Base_PropertyNotWritable);
    if (notes != 0 && GetExtendedInfoNum() > notes)
        RemoveExtendedInfo(RESP_Base_PropertyNotWritable);
}

eRtCode HTTP_MethodContext::SendResponseToCorvel() {
    if (mReqData == nullptr) return RT_FAILURE;
    const std::string& key = mReqData->reqKey;
    redisContext* c = mRedisCtx;

    // 1. The status word; an action's success says whether it has content.
    if (mReqData->method == eReqAction && mReturnStatus <= HTTP_RT_OK_EMPTY &&
        mReturnStatus >= HTTP_RT_OK) {
        mReturnStatus = (mResponseData != nullptr || GetExtendedInfoNum() != 0) ? HTTP_RT_OK_RES
                                                                                : HTTP_RT_OK_EMPTY;
    }
    const char* status = HttpRtStatusWord(mReturnStatus);
    // A plain answer (most reads and updates) writes nothing between its
    // status and its lock: the status then goes out with the last round
    // trip, in the same order.
    const bool plain = GetExtendedInfoNum() == 0 &&
                       (mExtInfosObj == nullptr || mExtInfosObj->GetPendingChangeNum() == 0) &&
                       mReturnStatus != HTTP_RT_PROCESSING && mNewInstance == nullptr &&
                       mResponseData == nullptr && mAdditionalReturnData.empty() &&
                       mRequestDataFieldsToDelete.empty();
    if (!plain) HashSetLogged(c, key, "&&ReturnStatus", status);

    // 2. The messages.
    if (!plain && mReturnStatus > HTTP_RT_OK_EMPTY) _DropNotWritableNotes();
    if (!plain && mExtInfosObj != nullptr) ApplyExtInfoToRedis();

    // 3. Where the result is: the task monitor of a running task, or the new instance.
    if (mReturnStatus == HTTP_RT_PROCESSING) {
        HashSetLogged(c, key, "&&Location", mReqData->taskMonitorUrl);
    } else if (mNewInstance != nullptr) {
        HashSetLogged(c, key, "&&Location", mNewInstance->GetJPath());
    }

    // 4. The response data tree.
    if (mResponseData != nullptr) {
        HashSetLogged(c, key, "&&ResponseData", mResponseData->GetJPath());
        mResponseData->ApplyRedisChanges(true, c);
    }

    // 5. Additional fields, in name order.
    for (const auto& pair : mAdditionalReturnData) HashSetLogged(c, key, pair.first, pair.second);

    // 6. Request-data fields the handler asked to drop.
    for (const std::string& field : mRequestDataFieldsToDelete) {
        RedisHashDel(c, mReqData->requestDataKey.c_str(), field.c_str());
    }

    // 7 and 8. The front end's lock on the resource, held until it has taken
    // the answer, and the announcement, in one round trip: the lock key,
    // the field naming it, the publication. Without the publication the
    // front end never releases the lock.
    std::string lockKey;
    if (mTargetSchema != nullptr && mTargetResource != nullptr) {
        ZResource* locked = mNewInstance != nullptr ? mNewInstance : mTargetResource;
        lockKey = locked->GetCorvelLockKey();
    }
    // Views of texts that live until the replies are read: nothing copied.
    const std::string seconds = std::to_string(ZResource::kCorvelLockKeySeconds);
    sRedisArgs tail[4];
    size_t n = 0;
    if (plain) tail[n++] = {"HSET", key, "&&ReturnStatus", status};
    const size_t lockAt = n;
    if (!lockKey.empty()) {
        tail[n++] = {"SET", lockKey, mReqData->targetUri, "EX", seconds};
        tail[n++] = {"HSET", key, "&&ResourceLock", lockKey};
    }
    tail[n++] = {"PUBLISH", mReqData->returnChannel, key};
    eRtCode results[4];
    RedisPipelineArgs(c, tail, n, results);
    const eRtCode published = results[n - 1];
    if (mTask != nullptr) {
        // The answer is out: the task's work may go on (and end).
        mTask->_ReleaseWork(published == RT_SUCCESS ? lockKey : std::string());
        mTask = nullptr;
    }
    if (plain && results[0] != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashSet( %s %s %s ).\n", key.c_str(),
             "&&ReturnStatus", status);
    }
    if (!lockKey.empty() && results[lockAt] != RT_SUCCESS) {
        // No lock key, so the answer must not name one.
        ZLOG(eZLogError, "Failed to call RedisSet( %s %s ).\n", lockKey.c_str(),
             mReqData->targetUri.c_str());
        RedisHashDel(c, key.c_str(), "&&ResourceLock");
        lockKey.clear();
    } else if (!lockKey.empty() && results[lockAt + 1] != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashSet( %s %s %s ).\n", key.c_str(),
             "&&ResourceLock", lockKey.c_str());
    }
    if (published != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisPublishToChannel( %s, %s ).\n",
             mReqData->returnChannel.c_str(), key.c_str());
        if (!lockKey.empty() && RedisDelTable(c, lockKey.c_str()) != RT_SUCCESS) {
            ZLOG(eZLogError, "Failed to remove resource lock key( %s ).\n", lockKey.c_str());
        }
        return RT_FAILURE;
    }

    // 9. The handler asked to hear when the front end has taken the answer.
    if (mResponsedCallback != nullptr) _WaitLockReleaseThenCallback(lockKey);
    return RT_SUCCESS;
}

void HTTP_MethodContext::_WaitLockReleaseThenCallback(const std::string& lockKey) {
    // No upper bound while the process runs: the key's own expiry ends the
    // wait when the front end has gone. A process that is leaving does not
    // wait for it: the callback is skipped.
    for (;;) {
        MyMSleep(kLockPollMs);
        ZApplication* app = zApp;
        if (app != nullptr && app->isExited()) {
            ZLOG(eZLogWarning, "Leaving: no wait for resource lock key( %s ).\n", lockKey.c_str());
            return;
        }
        int type = lockKey.empty() ? REDIS_TABLE_NONE : RedisType(mRedisCtx, lockKey.c_str());
        if (type == REDIS_TABLE_STRING) continue;
        if (type == REDIS_TABLE_NONE) {
            mResponsedCallback(mResponsedCallbackArg);
        } else {
            ZLOG(eZLogError, "Unexpected resource lock key( %s ) type( %d ).\n", lockKey.c_str(),
                 type);
        }
        return;
    }
}

}  // namespace Orbel
