// The front-end driver: request hashes, bodies, the return channel.
#include "FrontEnd.h"

#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "StoreTreeReader.h"
#include "TaskFollower.h"
#include "TestEnv.h"

namespace OrbelTest {

namespace {

struct ReplyFree {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

ReplyPtr Command(redisContext* c, const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    for (const auto& a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    return ReplyPtr(static_cast<redisReply*>(
        redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data())));
}

}  // namespace

FrontEnd::FrontEnd(const std::string& name)
    : mName(name),
      mReturnChannel("Corvel:Return:" + std::to_string(getpid()) + ":" + name) {
    _Connect();
}

FrontEnd::~FrontEnd() {
    if (mCmd != nullptr) redisFree(mCmd);
    if (mListen != nullptr) redisFree(mListen);
}

bool FrontEnd::_Connect() {
    // Like the real front end: a write to a store that is restarting fails
    // with EPIPE instead of ending the test process.
    signal(SIGPIPE, SIG_IGN);
    if (mCmd != nullptr) redisFree(mCmd);
    if (mListen != nullptr) redisFree(mListen);
    const std::string sock = RedisServer::Instance().SocketPath();
    mCmd = redisConnectUnix(sock.c_str());
    mListen = redisConnectUnix(sock.c_str());
    if (mCmd == nullptr || mCmd->err != 0 || mListen == nullptr || mListen->err != 0) {
        if (mCmd != nullptr) redisFree(mCmd);
        if (mListen != nullptr) redisFree(mListen);
        mCmd = mListen = nullptr;
        return false;
    }
    ReplyPtr sub = Command(mListen, {"SUBSCRIBE", mReturnChannel});
    if (!sub) {
        redisFree(mListen);
        mListen = nullptr;
        return false;
    }
    return true;
}

std::string FrontEnd::PrepareTask(const std::string& reqKey) {
    return mCmd != nullptr ? OrbelFrontEnd::TaskFollower::Prepare(mCmd, reqKey) : std::string();
}

std::string FrontEnd::NextKey() const {
    return "Corvel:Req:" + mName + ":" + std::to_string(mSeq + 1);
}

FrontEnd::Fields FrontEnd::RequestFields(const std::string& method, const std::string& uri,
                                         bool withBody, const Fields& extra) const {
    const std::string key = NextKey();
    Fields f = {
        {"&&RequestMethod", method},
        {"&&TargetURI", uri},
        {"&&ReturnChannel", mReturnChannel},
        {"&&RemoteIP", "10.0.0.9"},
        {"&&Username", "admin"},
        {"&&AuthHeader", "BasicAuth"},
        {"&&UserPrivNumber", "0x18"},
        {"&&OperationPrivileges", "Login"},
    };
    if (withBody) f["&&RequestData"] = RequestDataKey(key);
    for (const auto& e : extra) {
        if (e.second.empty()) {
            f.erase(e.first);
        } else {
            f[e.first] = e.second;
        }
    }
    return f;
}

FrontEnd::Answer FrontEnd::Send(const std::string& channel, const std::string& method,
                                const std::string& uri, const Body* body, const Fields& extra) {
    return Send(channel, RequestFields(method, uri, body != nullptr, extra), body);
}

FrontEnd::Answer FrontEnd::Send(const std::string& channel, const Fields& request,
                                const Body* body, int timeoutMs, bool releaseLock) {
    Answer answer;
    // A store that restarted leaves both connections dead.
    if ((!Ready() || mCmd->err != 0) && !_Connect()) return answer;
    answer.key = NextKey();
    ++mSeq;
    if (body != nullptr) {
        auto hset = [this](const std::string& key, const Fields& fields) {
            std::vector<std::string> args = {"HSET", key};
            for (const auto& f : fields) {
                args.push_back(f.first);
                args.push_back(f.second);
            }
            if (fields.empty()) return;
            Command(mCmd, args);
        };
        hset(RequestDataKey(answer.key), body->top);
        for (const auto& h : body->hashes) hset(h.first, h.second);
        for (const auto& l : body->lists) {
            std::vector<std::string> args = {"RPUSH", l.first};
            args.insert(args.end(), l.second.begin(), l.second.end());
            Command(mCmd, args);
        }
    }
    std::vector<std::string> args = {"HSET", answer.key};
    for (const auto& f : request) {
        args.push_back(f.first);
        args.push_back(f.second);
    }
    Command(mCmd, args);
    const auto start = std::chrono::steady_clock::now();
    Command(mCmd, {"PUBLISH", channel, answer.key});
    answer.answered = _Wait(answer.key, timeoutMs);
    answer.micros = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() -
                                                             start)
                        .count();
    if (mCmd == nullptr) return answer;  // the store went away while waiting
    ReplyPtr all = Command(mCmd, {"HGETALL", answer.key});
    if (all && all->type == REDIS_REPLY_ARRAY) {
        for (size_t i = 0; i + 1 < all->elements; i += 2) {
            answer.hash[std::string(all->element[i]->str, all->element[i]->len)] =
                std::string(all->element[i + 1]->str, all->element[i + 1]->len);
        }
    }
    auto field = [&answer](const char* name) {
        auto it = answer.hash.find(name);
        return it == answer.hash.end() ? std::string() : it->second;
    };
    answer.status = field("&&ReturnStatus");
    if (!field("&&ExtendedInfo").empty()) {
        // Redis keeps no empty list: no messages leave no key.
        answer.extInfo = _Doc(field("&&ExtendedInfo"));
        if (answer.extInfo == "<no such key>") answer.extInfo = "[]";
    }
    if (!field("&&ResponseData").empty()) answer.responseData = _Doc(field("&&ResponseData"));
    if (releaseLock && !field("&&ResourceLock").empty()) {
        Command(mCmd, {"DEL", field("&&ResourceLock")});
    }
    return answer;
}

bool FrontEnd::PublishAndWait(const std::string& channel, const std::string& message,
                              int timeoutMs) {
    if (!Ready() && !_Connect()) return false;
    Command(mCmd, {"PUBLISH", channel, message});
    return _Wait(std::string(), timeoutMs);
}

bool FrontEnd::_Wait(const std::string& key, int timeoutMs) {
    // The bound is kept with poll() rather than a socket receive time-out:
    // a 32-bit build with 64-bit time sets that option in a form the user
    // emulator the ARM suites run under does not know, and the wait would
    // never end there.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        void* raw = nullptr;
        if (redisGetReplyFromReader(mListen, &raw) != REDIS_OK) return _Relisten();
        if (raw == nullptr) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0) return false;
            struct pollfd pfd = {mListen->fd, POLLIN, 0};
            const int n = poll(&pfd, 1, static_cast<int>(left));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;  // time-out: the connection stays usable
            if (redisBufferRead(mListen) != REDIS_OK) return _Relisten();
            continue;
        }
        ReplyPtr reply(static_cast<redisReply*>(raw));
        if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3) continue;
        const std::string text(reply->element[2]->str != nullptr ? reply->element[2]->str : "",
                               reply->element[2]->len);
        if (key.empty() || text == key) return true;
    }
}

bool FrontEnd::_Relisten() {
    // A broken connection (the store went away) is replaced.
    redisFree(mListen);
    mListen = nullptr;
    _Connect();
    return false;
}

std::string FrontEnd::_Doc(const std::string& jpath) {
    std::string json;
    std::string error;
    Orbel::sStoreTreeOptions options;
    options.pretty = false;
    if (!Orbel::ReadStoreTree(mCmd, jpath, json, &error, options)) return "<" + error + ">";
    return json;
}

}  // namespace OrbelTest
