// Reading resources and sending requests for the development front end.
#include "StoreRequest.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>

#include "StoreTreeReader.h"
#include "TaskFollower.h"

namespace OrbelFrontEnd {

namespace {

struct ReplyFree {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

// A resource's request channel lists, in the order Describe and Read's
// script ask for their first elements.
const char* const kQueues[] = {"GETQ", "PATCHQ", "POSTCREATEQ", "POSTACTIONQ", "DELETEQ"};

ReplyPtr Command(redisContext* c, const std::vector<std::string>& args) {
    if (c == nullptr || c->err != 0) return ReplyPtr();
    std::vector<const char*> argv;
    std::vector<size_t> lens;
    for (const auto& a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    return ReplyPtr(static_cast<redisReply*>(
        redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data())));
}

// Sends `cmds` in one round trip; a null reply for each command not
// answered (the connection failed).
std::vector<ReplyPtr> Pipeline(redisContext* c, const std::vector<std::vector<std::string>>& cmds) {
    std::vector<ReplyPtr> replies(cmds.size());
    if (c == nullptr || c->err != 0) return replies;
    size_t sent = 0;
    for (; sent < cmds.size(); ++sent) {
        std::vector<const char*> argv;
        std::vector<size_t> lens;
        for (const auto& a : cmds[sent]) {
            argv.push_back(a.data());
            lens.push_back(a.size());
        }
        if (redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data()) !=
            REDIS_OK) {
            break;
        }
    }
    for (size_t i = 0; i < sent; ++i) {
        void* raw = nullptr;
        if (redisGetReply(c, &raw) != REDIS_OK) break;
        replies[i].reset(static_cast<redisReply*>(raw));
    }
    return replies;
}

std::string Text(const redisReply* r) {
    if (r == nullptr || r->str == nullptr) return std::string();
    return std::string(r->str, r->len);
}

redisContext* Connect(const std::string& socket) {
    redisContext* c = redisConnectUnix(socket.c_str());
    if (c != nullptr && c->err != 0) {
        redisFree(c);
        c = nullptr;
    }
    return c;
}

std::atomic<uint32_t> gSequence{0};

struct ContextFree {
    void operator()(redisContext* c) const {
        if (c != nullptr) redisFree(c);
    }
};
using ContextPtr = std::unique_ptr<redisContext, ContextFree>;

// Each worker thread keeps its connections for the next request: a command
// one, and one subscribed to the thread's own return channel. A connection
// that failed (the store restarted, a wait timed out) is replaced.
struct sThreadStore {
    std::string socket;
    ContextPtr cmd;
    ContextPtr listen;
    std::string channel;
};
thread_local sThreadStore tStore;

redisContext* ThreadCmd(const std::string& socket) {
    if (!tStore.cmd || tStore.cmd->err != 0 || tStore.socket != socket) {
        tStore.cmd.reset(Connect(socket));
        tStore.listen.reset();
        tStore.socket = socket;
    }
    return tStore.cmd.get();
}

redisContext* ThreadListen(const std::string& socket, const std::string& channel) {
    if (!tStore.listen || tStore.listen->err != 0 || tStore.channel != channel) {
        tStore.listen.reset(Connect(socket));
        if (!tStore.listen) return nullptr;
        redisReply* r = static_cast<redisReply*>(
            redisCommand(tStore.listen.get(), "SUBSCRIBE %b", channel.data(), channel.size()));
        if (r == nullptr) {
            tStore.listen.reset();
            return nullptr;
        }
        freeReplyObject(r);
        tStore.channel = channel;
    }
    return tStore.listen.get();
}

std::atomic<uint32_t> gThreadSequence{0};
thread_local uint32_t tThreadNumber = 0;

// A name the plug-in reads between quotes or as one word of a link field.
bool NameIsCarried(const std::string& name, bool linkName) {
    if (linkName && (name.empty() || name.compare(0, 2, "&&") == 0 || name[0] == '/')) {
        return false;
    }
    if (name.compare(0, 2, "&&") == 0) return false;  // meta fields are the system's own
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F || c == '"' || c == '\\' || c == '\'') return false;
        if (linkName && c == ' ') return false;
    }
    return true;
}

// A link target given by a client: one word of printable ASCII.
bool IsLinkTarget(const nlohmann::json& obj, std::string* target) {
    if (!obj.is_object() || obj.size() != 1 || !obj.contains("@odata.id")) return false;
    const auto& id = obj["@odata.id"];
    if (!id.is_string()) return false;
    const std::string t = id.get<std::string>();
    if (t.empty()) return false;
    for (unsigned char c : t) {
        if (c <= 0x20 || c >= 0x7F || c == '"' || c == '\\' || c == '\'') return false;
    }
    *target = t;
    return true;
}

class TreeBuilder {
public:
    TreeBuilder(sBodyTree* tree, sBodyFault* fault) : mTree(tree), mFault(fault) {}

    // Writes `node` (object or array) under `key`; `path` names it for faults.
    bool Node(const nlohmann::json& node, const std::string& key, const std::string& path,
              unsigned depth) {
        if (depth > kBodyMaxDepth) return Fail("Base.1.12.MalformedJSON", {});
        mTree->keys.push_back(key);
        std::vector<std::string> cmd = {node.is_object() ? "HSET" : "RPUSH", key};
        if (node.is_object()) {
            for (auto it = node.begin(); it != node.end(); ++it) {
                const std::string& name = it.key();
                const std::string sub = path + "/" + name;
                const bool nested = it->is_structured();
                if (!NameIsCarried(name, nested)) {
                    return Fail("Base.1.12.PropertyUnknown", {name});
                }
                std::string text;
                if (!Element(*it, sub, depth, name, &text)) return false;
                if (nested) {
                    cmd.push_back(text);
                    cmd.push_back(std::string());
                } else {
                    cmd.push_back(name);
                    cmd.push_back(text);
                }
            }
        } else {
            size_t i = 0;
            for (const auto& e : node) {
                std::string text;
                if (!Element(e, path + "/" + std::to_string(i++), depth, std::string(), &text)) {
                    return false;
                }
                cmd.push_back(text);
            }
        }
        // Redis keeps no empty hash or list: an empty node is a link to a
        // missing key, which the plug-in reads as empty.
        if (cmd.size() > 2) mTree->commands.push_back(std::move(cmd));
        return true;
    }

private:
    // The stored text of one value; for a node, its link text (with the
    // property name `name` when not empty).
    bool Element(const nlohmann::json& v, const std::string& path, unsigned depth,
                 const std::string& name, std::string* text) {
        if (++mValues > kBodyMaxValues) return Fail("Base.1.12.MalformedJSON", {});
        const std::string prefix = name.empty() ? std::string() : name + " ";
        std::string target;
        if (IsLinkTarget(v, &target)) {
            *text = "&&ObjectRef " + prefix + target;
            return true;
        }
        if (v.is_structured()) {
            const std::string key = mTree->keys.front() + "/" + std::to_string(++mNested);
            *text = (v.is_object() ? "&&Object " : "&&Array ") + prefix + key;
            return Node(v, key, path, depth + 1);
        }
        if (v.is_string()) {
            const std::string s = v.get<std::string>();
            // A NUL byte has no place in a stored text; an apostrophe is an
            // ordinary character of the stored JSON string.
            if (s.find('\0') != std::string::npos) {
                return Fail("Base.1.12.PropertyValueFormatError", {s, path.substr(1)});
            }
        }
        // Strings keep their escapes: the stored text is the client's JSON.
        *text = v.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        return true;
    }

    bool Fail(const char* id, std::vector<std::string> args) {
        mFault->messageId = id;
        mFault->args = args;
        return false;
    }

    sBodyTree* mTree;
    sBodyFault* mFault;
    unsigned mValues = 0;
    unsigned mNested = 0;
};

}  // namespace

bool BuildBodyTree(const nlohmann::json& body, const std::string& rootKey, sBodyTree* tree,
                   sBodyFault* fault) {
    tree->commands.clear();
    tree->keys.clear();
    if (!body.is_structured()) {
        fault->messageId = "Base.1.12.MalformedJSON";
        fault->args = nlohmann::json::array();
        return false;
    }
    TreeBuilder b(tree, fault);
    if (b.Node(body, rootKey, std::string(), 1)) return true;
    tree->commands.clear();
    tree->keys.clear();
    return false;
}

StoreRequest::StoreRequest(const std::string& socketPath) : mSocket(socketPath) {
    const uint32_t n = ++gSequence;
    if (tThreadNumber == 0) tThreadNumber = ++gThreadSequence;
    mKey = "Corvel:Req:FE" + std::to_string(getpid()) + ":" + std::to_string(n);
    // One return channel per worker thread: its answers are told apart by
    // the request key they carry.
    mReturnChannel =
        "Corvel:Return:FE" + std::to_string(getpid()) + ":T" + std::to_string(tThreadNumber);
    mCmd = ThreadCmd(socketPath);
}

// The connections stay with the thread.
StoreRequest::~StoreRequest() = default;

bool StoreRequest::IsResource(const std::string& uri) {
    ReplyPtr type = Command(mCmd, {"TYPE", uri});
    if (!type || Text(type.get()) != "hash") return false;
    ReplyPtr id = Command(mCmd, {"HEXISTS", uri, "@odata.id"});
    if (id && id->type == REDIS_REPLY_INTEGER && id->integer == 1) return true;
    ReplyPtr raw = Command(mCmd, {"HEXISTS", uri, "&&RawJSON"});
    return raw && raw->type == REDIS_REPLY_INTEGER && raw->integer == 1;
}

bool StoreRequest::Describe(const std::string& uri, sResourceInfo* info) {
    if (mCmd == nullptr || mCmd->err != 0) return false;
    std::vector<std::vector<std::string>> cmds = {
        {"TYPE", uri},
        {"HEXISTS", uri, "@odata.id"},
        {"HEXISTS", uri, "&&RawJSON"},
        {"EXISTS", "&&ResourceLock:" + uri},
    };
    for (const char* q : kQueues) cmds.push_back({"LINDEX", "&&" + uri + "/" + q, "0"});
    cmds.push_back({"HGET", "&&TTL", uri});
    const std::vector<ReplyPtr> replies = Pipeline(mCmd, cmds);
    // The replies stop at the first the connection lost.
    if (!replies.back()) return false;
    std::vector<const redisReply*> raw;
    for (const ReplyPtr& r : replies) raw.push_back(r.get());
    FillInfo(raw.data(), info);
    return true;
}

void StoreRequest::FillInfo(const redisReply* const* replies, sResourceInfo* info) {
    auto one = [replies](size_t i) {
        return replies[i] && replies[i]->type == REDIS_REPLY_INTEGER && replies[i]->integer == 1;
    };
    info->resource = Text(replies[0]) == "hash" && (one(1) || one(2));
    info->locked = one(3);
    info->channels.clear();
    for (size_t i = 0; i < sizeof kQueues / sizeof kQueues[0]; ++i) {
        const redisReply* r = replies[4 + i];
        if (r != nullptr && r->type == REDIS_REPLY_STRING) info->channels[kQueues[i]] = Text(r);
    }
    const redisReply* ttl = replies[9];
    info->fresh = false;
    if (ttl != nullptr && ttl->type == REDIS_REPLY_STRING) {
        const std::string until = Text(ttl);
        char* end = nullptr;
        const long long t = strtoll(until.c_str(), &end, 10);
        info->fresh = !until.empty() && end != nullptr && *end == '\0' &&
                      t > static_cast<long long>(time(nullptr));
    }
}

bool StoreRequest::Read(const std::string& uri, std::map<std::string, std::string> fields,
                        int timeoutMs, sResourceInfo* info, sAnswer* answer, bool* forwarded) {
    *forwarded = false;
    if (mCmd == nullptr || mCmd->err != 0) return false;
    mListen = ThreadListen(mSocket, mReturnChannel);
    if (mListen == nullptr) return false;
    // Describe's reads, then, for a resource its plug-in refreshes (a read
    // channel, no "&&TTL" in the future), Send's request hash and PUBLISH;
    // the last element is PUBLISH's count, nil when not forwarded. ARGV: the
    // URI, the request key, the time now, the hash's fields and values.
    static const std::string script = R"LUA(
local uri, key, now = ARGV[1], ARGV[2], tonumber(ARGV[3])
local function try(...)
  local r = redis.pcall(...)
  if type(r) == 'table' and r.err then return false end
  return r
end
local out = {redis.call('TYPE', uri).ok, try('HEXISTS', uri, '@odata.id'),
             try('HEXISTS', uri, '&&RawJSON'), try('EXISTS', '&&ResourceLock:' .. uri)}
for _, q in ipairs({'GETQ', 'PATCHQ', 'POSTCREATEQ', 'POSTACTIONQ', 'DELETEQ'}) do
  out[#out + 1] = try('LINDEX', '&&' .. uri .. '/' .. q, 0)
end
local ttl = try('HGET', '&&TTL', uri)
out[#out + 1] = ttl
local fresh = ttl and string.match(ttl, '^%s*[+-]?%d+$') and tonumber(ttl) > now
local channel = out[5]
if out[1] == 'hash' and (out[2] == 1 or out[3] == 1) and channel and channel ~= '' and
   not fresh then
  redis.call('HSET', key, unpack(ARGV, 4))
  out[#out + 1] = redis.call('PUBLISH', channel, key)
else
  out[#out + 1] = false
end
return out
)LUA";
    fields["&&ReturnChannel"] = mReturnChannel;
    std::vector<std::string> args = {uri, mKey, std::to_string(time(nullptr))};
    for (const auto& f : fields) {
        args.push_back(f.first);
        args.push_back(f.second);
    }
    Orbel::StoreReply run = Orbel::StoreEval(mCmd, script, args);
    if (!run) return false;
    if (run->type != REDIS_REPLY_ARRAY || run->elements != 11) {
        // A store that refused the script: the same steps, a round trip each.
        if (!Describe(uri, info)) return false;
        const std::string channel = info->channels["GETQ"];
        if (channel.empty() || info->fresh) return true;
        *forwarded = true;
        *answer = Send(channel, std::move(fields), nullptr, timeoutMs, uri);
        return true;
    }
    std::vector<const redisReply*> raw(run->element, run->element + 10);
    FillInfo(raw.data(), info);
    const redisReply* published = run->element[10];
    if (published->type != REDIS_REPLY_INTEGER) return true;
    *forwarded = true;
    answer->noListener = published->integer == 0;
    answer->answered = !answer->noListener && _Wait(mKey, timeoutMs);
    *answer = _Collect(std::move(*answer), false, nullptr, uri);
    return true;
}

std::string StoreRequest::Channel(const std::string& uri, const std::string& queueWord) {
    ReplyPtr r = Command(mCmd, {"LINDEX", "&&" + uri + "/" + queueWord, "0"});
    return (r && r->type == REDIS_REPLY_STRING) ? Text(r.get()) : std::string();
}

std::string StoreRequest::Field(const std::string& key, const std::string& field) {
    ReplyPtr r = Command(mCmd, {"HGET", key, field});
    return (r && r->type == REDIS_REPLY_STRING) ? Text(r.get()) : std::string();
}

bool StoreRequest::WaitUnlocked(const std::string& uri, int timeoutMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        ReplyPtr r = Command(mCmd, {"EXISTS", "&&ResourceLock:" + uri});
        if (!r || r->type != REDIS_REPLY_INTEGER || r->integer == 0) return true;
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::set<std::string> StoreRequest::ResourceTypes() {
    std::set<std::string> types;
    std::string cursor = "0";
    do {
        ReplyPtr r = Command(mCmd, {"SCAN", cursor, "MATCH", "/redfish/v1*", "COUNT", "1000"});
        if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2) break;
        cursor = Text(r->element[0]);
        const redisReply* keys = r->element[1];
        // One round trip for the batch's types.
        for (size_t i = 0; i < keys->elements; ++i) {
            redisAppendCommand(mCmd, "HGET %b @odata.type", keys->element[i]->str,
                               keys->element[i]->len);
        }
        for (size_t i = 0; i < keys->elements; ++i) {
            void* raw = nullptr;
            if (redisGetReply(mCmd, &raw) != REDIS_OK) return types;
            ReplyPtr t(static_cast<redisReply*>(raw));
            // Stored as a JSON string: "\"#Type.v1_0_0.Type\"".
            std::string v = Text(t.get());
            if (v.size() > 2 && v.front() == '"' && v.back() == '"') v = v.substr(1, v.size() - 2);
            if (!v.empty()) types.insert(v);
        }
    } while (cursor != "0");
    return types;
}

bool StoreRequest::WaitField(const std::string& key, const std::string& field, int timeoutMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        ReplyPtr r = Command(mCmd, {"HEXISTS", key, field});
        if (!r || r->type != REDIS_REPLY_INTEGER) return false;
        if (r->integer == 1) return true;
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool StoreRequest::ReadDoc(const std::string& jpath, std::string* json) {
    Orbel::sStoreTreeOptions options;
    options.pretty = false;
    return Orbel::ReadStoreTree(mCmd, jpath, *json, nullptr, options);
}

StoreRequest::sAnswer StoreRequest::Send(const std::string& channel,
                                         std::map<std::string, std::string> fields,
                                         const sBodyTree* body, int timeoutMs,
                                         const std::string& alsoRead) {
    sAnswer answer;
    if (mCmd == nullptr) return answer;
    mListen = ThreadListen(mSocket, mReturnChannel);
    if (mListen == nullptr) return answer;
    std::vector<std::vector<std::string>> cmds;
    if (body != nullptr) {
        cmds = body->commands;
        fields["&&RequestData"] = RequestDataKey();
    }
    fields["&&ReturnChannel"] = mReturnChannel;
    std::vector<std::string> hset = {"HSET", mKey};
    for (const auto& f : fields) {
        hset.push_back(f.first);
        hset.push_back(f.second);
    }
    cmds.push_back(std::move(hset));
    cmds.push_back({"PUBLISH", channel, mKey});
    // The body, the request hash and the announcement go in one round trip,
    // in this order: the plug-in reads nothing before the PUBLISH.
    std::vector<ReplyPtr> replies = Pipeline(mCmd, cmds);
    const redisReply* published = replies.back().get();
    // Nobody subscribed (a plug-in starting or restarting): no answer will
    // come, so the client is told at once instead of after the time-out.
    answer.noListener =
        published && published->type == REDIS_REPLY_INTEGER && published->integer == 0;
    answer.answered = !answer.noListener && _Wait(mKey, timeoutMs);
    return _Collect(std::move(answer), fields.count("&&Task") != 0, body, alsoRead);
}

StoreRequest::sAnswer StoreRequest::_Collect(sAnswer answer, bool mayKeep, const sBodyTree* body,
                                             const std::string& alsoRead) {
    // One script run reads the answer, the documents it names and the one
    // the caller serves next (while the answer's lock is still held), then
    // cleans up; ARGV after the gathering's limits: the request key, "1"
    // when answered, "1" when a task may keep the request, the document to
    // read too, the digest of this thread's last gathering, the body's keys.
    // The reply: the request hash, the gathering (left out when its digest
    // is the one given: the documents are those rendered last) and its
    // digest (SHA-1 of every key, tag and value, each with its length).
    static const std::string script = Orbel::StoreTreeGatherLua() + R"LUA(
local key, answered, task, also = ARGV[3], ARGV[4] == '1', ARGV[5] == '1', ARGV[6]
local all = redis.pcall('HGETALL', key)
if all.err then all = {} end
local f = {}
for i = 1, #all, 2 do f[all[i]] = all[i + 1] end
local roots = {}
if answered then
  for _, name in ipairs({'&&ExtendedInfo', '&&ResponseData'}) do
    if f[name] and f[name] ~= '' then roots[#roots + 1] = f[name] end
  end
  if also ~= '' then roots[#roots + 1] = also end
end
local docs = gather(roots)
local del = {}
if not (answered and task and f['&&ReturnStatus'] == 'PROCESSING') then
  del[1] = key
  for i = 8, #ARGV do del[#del + 1] = ARGV[i] end
end
local lock = f['&&ResourceLock']
if lock and string.sub(lock, 1, 15) == '&&ResourceLock:' then del[#del + 1] = lock end
if #del > 0 then redis.call('DEL', unpack(del)) end
local parts = {}
for i = 1, #docs, 3 do
  parts[#parts + 1] = #docs[i] .. ':' .. docs[i] .. #docs[i + 1] .. ':' .. docs[i + 1] ..
                      '#' .. #docs[i + 2] .. ';'
  for _, v in ipairs(docs[i + 2]) do parts[#parts + 1] = #v .. ':' .. v end
end
local digest = redis.sha1hex(table.concat(parts))
if digest == ARGV[7] then return {all, digest} end
return {all, docs, digest}
)LUA";
    // The documents this thread rendered last, by the digest of their
    // gathering: a resource read again unchanged is not rendered again.
    struct sRendered {
        std::vector<std::string> roots;
        std::string digest;
        std::vector<Orbel::sStoreTreeDoc> docs;
    };
    thread_local sRendered tRendered;
    std::vector<std::string> args = Orbel::StoreTreeGatherArgs();
    args.insert(args.end(), {mKey, answer.answered ? "1" : "0", mayKeep ? "1" : "0", alsoRead,
                             tRendered.digest});
    if (body != nullptr) args.insert(args.end(), body->keys.begin(), body->keys.end());
    Orbel::StoreReply run = Orbel::StoreEval(mCmd, script, args);
    if (!run) {
        answer.answered = false;  // the store went away
        return answer;
    }
    const bool ran = run->type == REDIS_REPLY_ARRAY &&
                     (run->elements == 2 || run->elements == 3) &&
                     run->element[0]->type == REDIS_REPLY_ARRAY;
    const bool same = ran && run->elements == 2;  // the gathering of the last documents
    // A store that refused the script (busy with another one, say) gets the
    // same steps one command at a time.
    ReplyPtr own = ran ? nullptr : Command(mCmd, {"HGETALL", mKey});
    const redisReply* all = ran ? run->element[0] : own.get();
    if (all != nullptr && all->type == REDIS_REPLY_ARRAY) {
        for (size_t i = 0; i + 1 < all->elements; i += 2) {
            answer.hash[Text(all->element[i])] = Text(all->element[i + 1]);
        }
    }
    auto field = [&answer](const char* name) {
        auto it = answer.hash.find(name);
        return it == answer.hash.end() ? std::string() : it->second;
    };
    std::vector<std::string> roots;
    if (answer.answered) {
        answer.status = field("&&ReturnStatus");
        // No list under the named key: the answer has no messages.
        if (!field("&&ExtendedInfo").empty()) roots.push_back(field("&&ExtendedInfo"));
        if (!field("&&ResponseData").empty()) roots.push_back(field("&&ResponseData"));
        if (!alsoRead.empty()) roots.push_back(alsoRead);
    }
    std::vector<Orbel::sStoreTreeDoc> docs;
    if (same && tRendered.roots == roots && Text(run->element[1]) == tRendered.digest) {
        docs = tRendered.docs;
    } else {
        Orbel::sStoreTreeOptions options;
        options.pretty = false;
        const redisReply* gathered = ran && !same ? run->element[1] : nullptr;
        docs = Orbel::RenderStoreTrees(mCmd, gathered, roots, options);
        // Only documents made of the gathering alone stand for its digest.
        tRendered = sRendered();
        bool whole = gathered != nullptr;
        for (const auto& d : docs) whole = whole && d.gathered;
        if (whole) tRendered = {roots, Text(run->element[2]), docs};
    }
    size_t at = 0;
    if (answer.answered && !field("&&ExtendedInfo").empty() && docs[at++].ok) {
        answer.messages = nlohmann::json::parse(docs[at - 1].json, nullptr, false);
        if (!answer.messages.is_array()) answer.messages = nlohmann::json::array();
    }
    if (answer.answered && !field("&&ResponseData").empty()) {
        answer.responseData = std::move(docs[at++].json);
    }
    if (answer.answered && !alsoRead.empty()) {
        answer.documentRead = docs[at].ok;
        answer.document = std::move(docs[at].json);
    }
    // A task finishes the request later, into the same hash: the task
    // follower deletes it and the body's keys then.
    const bool kept = answer.status == "PROCESSING" && mayKeep;
    if (kept && body != nullptr) answer.keptKeys = body->keys;
    if (!ran) {
        std::vector<std::string> del = {"DEL"};
        if (!kept) {
            del.push_back(mKey);
            if (body != nullptr) del.insert(del.end(), body->keys.begin(), body->keys.end());
        }
        // Only a lock key may be released here, never whatever key a hash
        // names.
        const std::string lock = field("&&ResourceLock");
        if (lock.compare(0, 15, "&&ResourceLock:") == 0) del.push_back(lock);
        if (del.size() > 1) Command(mCmd, del);
    }
    return answer;
}

std::string StoreRequest::PrepareTask() {
    return mCmd != nullptr ? TaskFollower::Prepare(mCmd, mKey) : std::string();
}

void StoreRequest::DiscardTask(const std::string& taskURL) {
    if (mCmd != nullptr) TaskFollower::Discard(mCmd, mKey, taskURL);
}

bool StoreRequest::_Wait(const std::string& key, int timeoutMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              until - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) return false;
        struct timeval tv;
        tv.tv_sec = static_cast<time_t>(left / 1000);
        tv.tv_usec = static_cast<suseconds_t>((left % 1000) * 1000);
        redisSetTimeout(mListen, tv);
        void* raw = nullptr;
        if (redisGetReply(mListen, &raw) != REDIS_OK) return false;
        ReplyPtr reply(static_cast<redisReply*>(raw));
        if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3) continue;
        if (Text(reply->element[2]) == key) return true;
    }
}

}  // namespace OrbelFrontEnd
