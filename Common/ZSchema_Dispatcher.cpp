// ZSchema: the dispatcher threads, the request hash reader, and the access log.
//
// One thread per role the schema serves. Each owns two connections: a
// listening one, subscribed to the role's channels, and a command one on
// which every request of the thread is read and answered (a listening
// connection can send nothing else). A connection that fails (the store
// went away or restarted) is dropped with its partner; the thread connects
// and subscribes anew, retrying every 500 ms, and serves the next request.
#include <chrono>
#include <exception>
#include <optional>

#include "CRUDRequest.h"
#include "HTTP_MethodContext.h"
#include "Orbel.h"
#include "RedisCli.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace Orbel {

namespace {

constexpr unsigned kRetrySleepMs = 500;
constexpr int kFirstLockMs = 3000;
constexpr int kLockRetrySleepMs = 100;

// Roles, by the method whose index they carry.
const int kRoles[] = {eReqRead, eReqUpdate, eReqCreate};

const char* RoleName(int role) {
    switch (role) {
        case eReqRead:
            return "CRUDQ:Read";
        case eReqUpdate:
            return "CRUDQ:Update";
        default:
            return "CRUDQ:Create/Action/Delete";
    }
}

// The word that opens the authentication part of an access line.
const char* AuthWord(eReqAuthType type) {
    switch (type) {
        case eReqAuthSession:
            return "SESS[";
        case eReqAuthBasic:
            return "AUTH[";
        case eReqAuthOAuth:
            return "OAUTH2[";
        default:
            return "NOAUTH[";
    }
}

// A resource inside another resource's document: an element of a JSON
// array other than a collection's "Members", or a member of a JSON object.
bool IsEmbeddedResource(ZResource* resource) {
    ZObject* parent = resource->GetParent();
    if (parent == nullptr) return false;
    if (parent->GetType() == ZObject::eJsonObject) return true;
    if (parent->GetType() != ZObject::eJsonArray) return false;
    ZObject* holder = parent->GetParent();
    return !(holder != nullptr && holder->GetType() == ZObject::eResourceCollection &&
             parent->GetId() == "Members");
}

void AnswerNotFound(HTTP_MethodContext& ctx, const std::string& uri) {
    ctx.SetReturnStatus(HTTP_RT_NOT_FOUND,
                        ctx.NewExtendedInfo(RESP_Base_ResourceMissingAtURI, uri.c_str()));
}

void AnswerInternalError(HTTP_MethodContext& ctx) {
    ctx.SetReturnStatus(HTTP_RT_EXCEPTION, ctx.NewExtendedInfo(RESP_Base_InternalError));
}

}  // namespace

// ---------------------------------------------------------------------------
// Threads
// ---------------------------------------------------------------------------

std::vector<std::string> ZSchema::_RoleChannels(int role) {
    std::vector<std::string> channels;
    const int methods[] = {role == eReqCreate ? eReqCreate : role,
                           role == eReqCreate ? eReqDelete : -1,
                           role == eReqCreate ? eReqAction : -1};
    for (int method : methods) {
        if (method < 0 || (mCRUDqFlag & (1u << method)) == 0) continue;
        channels.push_back(GetCRUDqChannel(static_cast<eReqMethod>(method)));
    }
    return channels;
}

void ZSchema::_InitCRUDqDispather() {
    MutexLock lock(mDispatchMutex);
    if (!mDispatchers.empty()) return;
    mDispatchStop.store(false);
    mListening = 0;
    for (int role : kRoles) {
        if (_RoleChannels(role).empty()) continue;
        try {
            mDispatchers.emplace_back(CRUDRequestDispatcher, role, this);
        } catch (const std::exception& e) {
            ZLOG(eZLogError, "Schema[%s]: failed to start thread[%s]: %s\n", mName.c_str(),
                 RoleName(role), e.what());
        }
    }
    const size_t started = mDispatchers.size();
    mDispatchCv.WaitFor(mDispatchMutex, std::chrono::milliseconds(kSubscribeWaitMs),
                         [this, started]() REQUIRES(mDispatchMutex) { return mListening >= started; });
}

size_t ZSchema::GetDispatcherNum() {
    MutexLock lock(mDispatchMutex);
    return mDispatchers.size();
}

void ZSchema::WaitThreadsExit() {
    std::vector<std::thread> threads;
    {
        MutexLock lock(mDispatchMutex);
        threads.swap(mDispatchers);
    }
    if (threads.empty()) return;
    // The flag ends a thread that is between connections; "QUIT" one that
    // is listening.
    mDispatchStop.store(true);
    for (int method = 0; method < eReqMethodNum; ++method) {
        if ((mCRUDqFlag & (1u << method)) == 0) continue;
        const std::string channel = GetCRUDqChannel(static_cast<eReqMethod>(method));
        ZLOG(eZLogInfo, "Send QUIT to channel[%s].\n", channel.c_str());
        RedisPublishToChannel(nullptr, channel, "QUIT");
    }
    for (std::thread& t : threads) t.join();
}

void ZSchema::CRUDRequestDispatcher(int role, ZSchema* schema) {
    schema->_DispatchLoop(role);
}

void ZSchema::_DispatchLoop(int role) {
    ZApplication* app = zApp;
    if (app != nullptr) app->RegisterThreadInfo(mName, RoleName(role));
    const std::vector<std::string> channels = _RoleChannels(role);
    auto stopping = [this, app]() {
        return mDispatchStop.load() || (app != nullptr && app->isExited());
    };

    RedisListenerPair pair;
    bool listened = false;
    while (!stopping()) {
        if (!pair.IsOpen()) {
            const eRtCode opened = pair.Open(channels);
            if (opened != RT_SUCCESS) {
                MyMSleep(kRetrySleepMs);
                if (opened == RT_FAILURE) {
                    ZLOG(eZLogWarning, "Retry to connect Redis for schema[%s] ReqMethod[%d].\n",
                         mName.c_str(), role);
                } else {
                    ZLOG(eZLogWarning, "Retry to subscribe channel[%s].\n", channels[0].c_str());
                }
                continue;
            }
            if (!listened) {
                listened = true;
                MutexLock lock(mDispatchMutex);
                ++mListening;
                mDispatchCv.SignalAll();
            }
        }
        std::string channel, message;
        eRtCode rt = RedisGetChannelMessage(pair.Listen(), channel, message);
        if (rt == RT_FAILURE) {
            // The store went away or restarted: listen anew.
            pair.Close();
            continue;
        }
        if (rt != RT_SUCCESS) {
            ZLOG(eZLogError, "Channel[%s]: Get a nil reply.\n", channels[0].c_str());
            continue;
        }
        if (message == "QUIT") break;
        // A request that came while the resources are being built waits
        // for them (start-up only).
        if (app != nullptr && !app->WaitUntilServing()) break;
        if (pair.Command()->err != 0) {
            pair.Close();
            continue;
        }
        try {
            _ServeRequest(pair.Command(), channel, message);
        } catch (...) {
            // Only the context's own set-up can get here (handlers are
            // caught inside); the thread must go on serving.
            ZLOG(eZLogError, "Schema[%s]: request[%s] could not be served.\n", mName.c_str(),
                 message.c_str());
        }
    }
    pair.Close();
    if (app != nullptr) app->UnregisterThreadInfo();
}

// ---------------------------------------------------------------------------
// One request
// ---------------------------------------------------------------------------

eRtCode ZSchema::CRUDParserReqMessage(redisContext* c, const std::string& key, sCRUD_ReqData& req) {
    // The fields go from the reply into the record: no map in between.
    CRUDReqFieldParser parser(key, req);
    auto visit = [](void* arg, std::string_view name, std::string_view value) {
        static_cast<CRUDReqFieldParser*>(arg)->Field(name, value);
    };
    if (RedisHashVisitAll(c, key.c_str(), visit, &parser) != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call RedisHashGetAll( %s )\n", key.c_str());
        req = sCRUD_ReqData();
        req.reqKey = key;
        return RT_FAILURE;
    }
    eRtCode rt = parser.Finish();
    // Arguments, not a built text: a dropped debug line costs no formatting.
    ZLOGM("ZComLib", eZLogDebug, ORBEL_CRUD_DUMP_FORMAT, ORBEL_CRUD_DUMP_ARGS(req, rt));
    return rt;
}

void ZSchema::_ServeRequest(redisContext* c, const std::string& channel, const std::string& key) {
    // Every store call of this request, the object model's included, goes
    // over the thread's command connection.
    RedisConnectionScope scope(c);
    sCRUD_ReqData req;
    eRtCode rt = CRUDParserReqMessage(c, key, req);
    if (rt != RT_SUCCESS || req.returnChannel.empty()) {
        // Nowhere to answer: the front end times the request out.
        ZLOG(eZLogError, "Schema[%s]: request[%s] is missing, empty or names no return channel.\n",
             mName.c_str(), key.c_str());
        return;
    }
    req.channel = channel;
    // Whatever happens below, no reply is left outstanding on the
    // connection once the request is done.
    struct DrainAtEnd {
        redisContext* c;
        ~DrainAtEnd() { RedisDrainDeferred(c); }
    } drainAtEnd{c};

    // The context's set-up writes (clearing the request's message array,
    // naming it in the request hash) need no answer before the next command:
    // they share its round trip.
    std::optional<RedisDeferredWrites> deferSetUp(std::in_place, c);
    HTTP_MethodContext ctx(this, c, &req);
    deferSetUp.reset();
    ZApplication* app = zApp;
    ZObject* obj = nullptr;
    const bool known = req.method >= 0 && req.method < eReqMethodNum;
    if (known) {
        obj = app != nullptr ? app->GetObject(req.resourceUri) : nullptr;
        if (obj != nullptr && !app->UseIfValid(obj)) obj = nullptr;
        rt = obj != nullptr ? CRUDRequest_GetTargetResource(&req, &ctx, obj) : RT_NO_SUCH_KEY;
        if (rt == RT_SUCCESS) _AssignUserInputFlags(&ctx);  // before the access line
    }
    PrintAccessLog(false, &req, &ctx);
    if (!known) {
        ZLOG(eZLogError, "Unknown Http method[%d].\n", static_cast<int>(req.method));
        AnswerInternalError(ctx);
    } else {
        if (obj == nullptr) {
            ZLOG(eZLogError, "Failed to get targetObj by JPath[%s].\n", req.resourceUri.c_str());
            AnswerNotFound(ctx, req.targetUri);
        } else {
            if (rt == RT_NO_SUCH_KEY) {
                AnswerNotFound(ctx, req.targetUri);
            } else if (rt == RT_INVALID_ARG) {
                ctx.SetReturnStatus(HTTP_RT_NOT_ALLOWED,
                                    ctx.InsertReturnExtendedInfo_NotAllowMethod("Create"));
            } else if (rt != RT_SUCCESS) {
                AnswerInternalError(ctx);
            } else {
                _RunHandler(ctx, req, ctx.GetTargetResource());
            }
        }
    }
    try {
        ctx.SendResponseToCorvel();
    } catch (...) {
        ZLOG(eZLogError, "Schema[%s]: request[%s] failed while answering.\n", mName.c_str(),
             key.c_str());
    }
    PrintAccessLog(true, &req, &ctx);
    if (obj != nullptr) obj->DecreaseUsingCount();
}

void ZSchema::_RunHandler(HTTP_MethodContext& ctx, sCRUD_ReqData& req, ZResource* target) {
    if (IsEmbeddedResource(target)) {
        ZLOGM("ZComLib", eZLogDebug,
              "Target[%s] is a embedded resource so return '404 Not Found'.\n",
              req.targetUri.c_str());
        AnswerNotFound(ctx, req.targetUri);
        return;
    }
    ZApplication* app = zApp;
    eRtCode rt = target->Lock(kFirstLockMs);
    if (rt == RT_BUSY) {
        int budgetMs = 0;
        FillRetStatusWhenLocked_t fill = GetCallBack_FillRetStatusWhenLocked(target, budgetMs);
        while (rt == RT_BUSY && (app == nullptr || !app->isExited()) && budgetMs > 0) {
            budgetMs -= kLockRetrySleepMs;
            MyMSleep(kLockRetrySleepMs);
            rt = target->Lock(-1);
        }
        if (rt == RT_BUSY) {
            ZLOG(eZLogWarning, "Resource[%s] is busy. Locked by thread[%ld]\n",
                 target->GetJPath().c_str(), static_cast<long>(target->LockOwner()));
            if (fill != nullptr) {
                fill(&ctx, target);
            } else {
                FillRetStatusWhenLocked(&ctx, target);
            }
            return;
        }
    }
    if (rt != RT_SUCCESS) {  // retired meanwhile
        AnswerNotFound(ctx, req.targetUri);
        return;
    }
    ZSchema* schema = ctx.GetTargetSchema();
    AsyncUploadTask_t uploadTask = nullptr;
    void* uploadArg = nullptr;
    const bool upload =
        req.transferMethod != eReqTransferNone &&
        schema->GetAsyncUploadTaskParam(target, uploadTask, uploadArg) == RT_SUCCESS;
    // Changes a handler queued on the resources and forgot to apply would
    // reach the store only with a later write: they are applied here, before
    // the answer, and reported once per node.
    ZUnappliedWatch watch;
    try {
        if (upload) {
            // An upload runs as a task: the answer is the task monitor.
            ctx.CreateTask(uploadTask, uploadArg, true);
        } else {
            switch (req.method) {
                case eReqCreate:
                    schema->DoHttpMethodCreate(&ctx);
                    break;
                case eReqRead:
                    schema->DoHttpMethodRead(&ctx);
                    break;
                case eReqUpdate:
                    schema->DoHttpMethodUpdate(&ctx);
                    break;
                case eReqDelete:
                    schema->DoHttpMethodDelete(&ctx);
                    break;
                default:
                    schema->DoHttpMethodAction(&ctx);
                    break;
            }
        }
    } catch (const std::exception& e) {
        ZLOG(eZLogError, "Schema[%s]: the handler of request[%s] threw: %s\n", mName.c_str(),
             req.reqKey.c_str(), e.what());
        AnswerInternalError(ctx);
    } catch (...) {
        ZLOG(eZLogError, "Schema[%s]: the handler of request[%s] threw.\n", mName.c_str(),
             req.reqKey.c_str());
        AnswerInternalError(ctx);
    }
    for (ZObject* node : watch.Unapplied()) {
        if (app != nullptr && app->FirstNodeWarning(node, 2)) {
            ZLOG(eZLogWarning,
                 "Schema[%s]: the handler of %s left changes of node[%s] unapplied; applied "
                 "after it (ApplyRedisChanges).\n",
                 mName.c_str(), req.methodText.c_str(), node->GetJPath().c_str());
        }
        node->ApplyRedisChanges(false, ctx.GetRedisContext());
    }
    target->Unlock();
}

// ---------------------------------------------------------------------------
// Access log
// ---------------------------------------------------------------------------

void ZSchema::PrintAccessLog(bool isResponse, const sCRUD_ReqData* req, HTTP_MethodContext* ctx) {
    if (req == nullptr || ctx == nullptr) return;
    if (isResponse) {
        std::string msgs;
        for (const std::string& id : ctx->GetAllExtInfoMsgIDs()) {
            if (!msgs.empty()) msgs += ",";
            msgs += id;
        }
        ZLOG(eZLogAccess, "RSP[%s] RC[%d] MSG[%s] IP[%s]\n", req->reqKey.c_str(),
             ctx->GetHttpRtCode(), msgs.c_str(), req->remoteIp.c_str());
        return;
    }
    const std::string auth = std::string(AuthWord(req->authType)) + req->userName;
    const std::string params = ctx->GetAllUsrParams();
    if (!req->targetAction.empty()) {
        ZLOG(eZLogAccess, "REQ[%s] %s IP[%s] %s:%08X] URI[%s] ACT[%s] PARAMS[%s]\n",
             req->reqKey.c_str(), req->methodText.c_str(), req->remoteIp.c_str(), auth.c_str(),
             static_cast<unsigned>(req->userPrivileges), req->resourceUri.c_str(),
             req->targetAction.c_str(), params.c_str());
    } else if (!params.empty()) {
        ZLOG(eZLogAccess, "REQ[%s] %s IP[%s] %s:%08X] URI[%s] PARAMS[%s]\n", req->reqKey.c_str(),
             req->methodText.c_str(), req->remoteIp.c_str(), auth.c_str(),
             static_cast<unsigned>(req->userPrivileges), req->targetUri.c_str(), params.c_str());
    } else {
        ZLOG(eZLogAccess, "REQ[%s] %s IP[%s] %s:%08X] URI[%s]\n", req->reqKey.c_str(),
             req->methodText.c_str(), req->remoteIp.c_str(), auth.c_str(),
             static_cast<unsigned>(req->userPrivileges), req->targetUri.c_str());
    }
}

}  // namespace Orbel
