// Taking events and metric reports off the store's queues.
#include "EventQueueConsumer.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>

#include "EventScriptsText.h"
#include "StoreTreeReader.h"

namespace OrbelFrontEnd {

namespace {

using Orbel::StoreCommand;
using Orbel::StoreReply;

constexpr const char* kEventQueue = "redisEventQueue";
constexpr const char* kReportQueue = "redisMetricReportQueue";
// A stored event is a few levels deep (record, Oem, Veltra); anything
// deeper or larger than this is not one the library wrote.
constexpr unsigned kMaxDepth = 8;
constexpr size_t kMaxNodes = 2000;

std::string Text(const redisReply* r) {
    return (r == nullptr || r->str == nullptr) ? std::string() : std::string(r->str, r->len);
}

// A stored value text as JSON: the library stores JSON texts; anything
// else is shown as the string it is, an empty text as null.
nlohmann::json Value(const std::string& text) {
    if (text.empty()) return nullptr;
    nlohmann::json v = nlohmann::json::parse(text, nullptr, false);
    if (v.is_discarded()) return text;
    return v;
}

std::string NowIso8601() {
    const time_t now = time(nullptr);
    struct tm tm {};
    gmtime_r(&now, &tm);
    char b[40];
    strftime(b, sizeof b, "%Y-%m-%dT%H:%M:%S+00:00", &tm);
    return b;
}

// The type name of a resource's "@odata.type" ("#ComputerSystem.v1_20_0.ComputerSystem").
std::string TypeName(const std::string& odataType) {
    const size_t dot = odataType.rfind('.');
    return dot == std::string::npos ? std::string() : odataType.substr(dot + 1);
}

// Reads the bare-link tree of a stored event (docs/events.md, "What is
// stored"): hashes become objects, lists arrays; a "&&" field or a list
// element naming a key below `root` is followed. "&&OriginOfCondition"
// becomes a link, "&&ResourceType" is kept aside for the filters.
struct sTreeWalk {
    redisContext* c;
    std::string root;
    std::vector<std::string>* keys;
    std::string resourceType;  // of the record being read
    size_t nodes = 0;

    bool Inside(const std::string& key) const {
        return key.size() > root.size() && key.compare(0, root.size(), root) == 0 &&
               key[root.size()] == '/';
    }

    nlohmann::json Read(const std::string& key, unsigned depth) {
        if (depth > kMaxDepth || ++nodes > kMaxNodes) return nullptr;
        StoreReply type = StoreCommand(c, {"TYPE", key});
        const std::string t = type ? Text(type.get()) : std::string();
        if (t == "list") {
            keys->push_back(key);
            nlohmann::json arr = nlohmann::json::array();
            StoreReply r = StoreCommand(c, {"LRANGE", key, "0", "-1"});
            if (!r || r->type != REDIS_REPLY_ARRAY) return arr;
            for (size_t i = 0; i < r->elements; ++i) {
                const std::string e = Text(r->element[i]);
                arr.push_back(Inside(e) ? Read(e, depth + 1) : Value(e));
            }
            return arr;
        }
        if (t != "hash") return nullptr;
        keys->push_back(key);
        nlohmann::json obj = nlohmann::json::object();
        StoreReply r = StoreCommand(c, {"HGETALL", key});
        if (!r || r->type != REDIS_REPLY_ARRAY) return obj;
        for (size_t i = 0; i + 1 < r->elements; i += 2) {
            const std::string name = Text(r->element[i]);
            const std::string value = Text(r->element[i + 1]);
            if (name.compare(0, 2, "&&") != 0) {
                obj[name] = Value(value);
            } else if (name == "&&OriginOfCondition") {
                if (!value.empty()) obj["OriginOfCondition"] = {{"@odata.id", value}};
            } else if (name == "&&ResourceType") {
                resourceType = value;
            } else if (name.find(' ') == std::string::npos && Inside(value)) {
                nlohmann::json sub = Read(value, depth + 1);
                // Redis keeps no empty list: a missing argument list is [].
                if (sub.is_null() && name == "&&MessageArgs") sub = nlohmann::json::array();
                if (!sub.is_null()) obj[name.substr(2)] = std::move(sub);
            }
        }
        return obj;
    }
};

// The keys of a tree in the nodes' own layout ("&&Object <p> <J>" fields,
// "&&Object <J>" elements), for deleting a metric report stored in the
// meta-key space. A resource (a key beginning "/") is never collected.
void CollectTree(redisContext* c, const std::string& key, unsigned depth,
                 std::set<std::string>* keys) {
    if (depth > Orbel::kStoreTreeMaxDepth || keys->size() > kMaxNodes || key.empty() ||
        key[0] == '/' || !keys->insert(key).second) {
        return;
    }
    auto linked = [](const std::string& text) -> std::string {
        for (const char* w : {"&&Object ", "&&Array ", "&&ArraySimple "}) {
            if (text.compare(0, strlen(w), w) == 0) {
                const size_t sp = text.rfind(' ');
                return text.substr(sp + 1);
            }
        }
        return std::string();
    };
    StoreReply r = StoreCommand(c, {"HKEYS", key});
    if (r && r->type == REDIS_REPLY_ARRAY) {
        for (size_t i = 0; i < r->elements; ++i) {
            const std::string sub = linked(Text(r->element[i]));
            if (!sub.empty()) CollectTree(c, sub, depth + 1, keys);
        }
        if (r->elements > 0) return;
    }
    StoreReply l = StoreCommand(c, {"LRANGE", key, "0", "-1"});
    if (l && l->type == REDIS_REPLY_ARRAY) {
        for (size_t i = 0; i < l->elements; ++i) {
            const std::string sub = linked(Text(l->element[i]));
            if (!sub.empty()) CollectTree(c, sub, depth + 1, keys);
        }
    }
}

}  // namespace

EventQueueConsumer::EventQueueConsumer(std::string socketPath, unsigned queueLimit, Sink sink)
    : mSocket(std::move(socketPath)), mQueueLimit(queueLimit), mSink(std::move(sink)) {}

EventQueueConsumer::~EventQueueConsumer() {
    Stop();
}

bool EventQueueConsumer::_Prepare(redisContext* c, std::string* error) {
    std::string shaEvent;
    std::string shaReport;
    for (auto [script, sha] : {std::pair<const char*, std::string*>{kEnqueueEventLua, &shaEvent},
                               {kEnqueueMetricReportLua, &shaReport}}) {
        StoreReply r = StoreCommand(c, {"SCRIPT", "LOAD", script});
        if (!r || r->type != REDIS_REPLY_STRING) {
            *error = "the store refused an event script (" +
                     (r ? Text(r.get()) : std::string(c->errstr)) + ")";
            return false;
        }
        *sha = Text(r.get());
    }
    // The front end's history takes every event while it runs, so it counts
    // as a subscriber of both kinds; the limit bounds the queue while the
    // front end is not there to take it.
    StoreReply a = StoreCommand(
        c, {"HSET", "redisSHAScripts", "enqueueEvent", shaEvent, "enqueueMetricReport", shaReport});
    StoreReply b = StoreCommand(
        c, {"HSET", "redisEventService", "EventSubscriptions", "1", "MetricReportSubscriptions",
            "1", "QueueLimit", std::to_string(mQueueLimit)});
    if (!a || !b || a->type != REDIS_REPLY_INTEGER || b->type != REDIS_REPLY_INTEGER) {
        *error = "the store refused the event service's state";
        return false;
    }
    return true;
}

bool EventQueueConsumer::Start(std::string* error) {
    redisContext* c = redisConnectUnix(mSocket.c_str());
    if (c == nullptr || c->err != 0) {
        // The store may come later (or back): the thread keeps trying, as
        // the request path answers 503 meanwhile.
        fprintf(stderr, "orbel-frontend: event queue: cannot reach the store at %s yet\n",
                mSocket.c_str());
    } else if (!_Prepare(c, error)) {
        redisFree(c);
        return false;
    }
    if (c != nullptr) redisFree(c);
    mStop = false;
    mThread = std::thread(&EventQueueConsumer::_Run, this);
    return true;
}

void EventQueueConsumer::Stop() {
    mStop = true;
    if (mThread.joinable()) mThread.join();
}

void EventQueueConsumer::_Run() {
    redisContext* c = nullptr;
    while (!mStop) {
        if (c == nullptr) {
            // Started, or the store went away: connect again and reload the
            // scripts (a restarted store has lost them).
            struct timeval tv = {1, 0};
            c = redisConnectUnixWithTimeout(mSocket.c_str(), tv);
            std::string error;
            if (c == nullptr || c->err != 0 || !_Prepare(c, &error)) {
                if (c != nullptr) redisFree(c);
                c = nullptr;
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                continue;
            }
        }
        StoreReply r = StoreCommand(c, {"BLPOP", kEventQueue, kReportQueue, "1"});
        if (!r || c->err != 0) {
            fprintf(stderr, "orbel-frontend: event queue: store connection lost, reconnecting\n");
            redisFree(c);
            c = nullptr;
            continue;
        }
        if (r->type != REDIS_REPLY_ARRAY || r->elements != 2) continue;  // time-out
        const bool report = Text(r->element[0]) == kReportQueue;
        const std::string key = Text(r->element[1]);
        sQueuedPayload payload;
        std::vector<std::string> keys;
        bool assembled = false;
        try {
            assembled = Assemble(c, report, key, &payload, &keys);
        } catch (const std::exception& e) {
            // A tree the library did not write; it is dropped like one that
            // is missing, and the thread goes on.
            fprintf(stderr, "orbel-frontend: queued key[%s]: %s\n", key.c_str(), e.what());
        }
        if (!assembled) {
            fprintf(stderr, "orbel-frontend: queued %s[%s] has no stored tree, skipped\n",
                    report ? "metric report" : "event", key.c_str());
            continue;
        }
        // The tree is the front end's now: nobody else removes it.
        if (!keys.empty()) {
            std::vector<std::string> unlink = {"UNLINK"};
            unlink.insert(unlink.end(), keys.begin(), keys.end());
            StoreCommand(c, unlink);
        }
        mSink(std::move(payload));
    }
    if (c != nullptr) redisFree(c);
}

bool EventQueueConsumer::Assemble(redisContext* c, bool metricReport, const std::string& key,
                                  sQueuedPayload* out, std::vector<std::string>* treeKeys) {
    out->metricReport = metricReport;
    treeKeys->clear();
    if (metricReport) {
        std::string text;
        Orbel::sStoreTreeOptions opts;
        opts.pretty = false;
        if (!Orbel::ReadStoreTree(c, key, text, nullptr, opts)) return false;
        out->doc = nlohmann::json::parse(text, nullptr, false);
        if (!out->doc.is_object()) return false;
        if (!out->doc.contains("@odata.type")) {
            out->doc["@odata.type"] = "#MetricReport.v1_5_2.MetricReport";
        }
        auto def = out->doc.find("MetricReportDefinition");
        if (def != out->doc.end() && def->is_object() && def->contains("@odata.id") &&
            (*def)["@odata.id"].is_string()) {
            out->reportDefinition = (*def)["@odata.id"].get<std::string>();
        }
        // A report kept as a resource stays the plug-in's; one in the
        // meta-key space was stored for the service alone.
        std::set<std::string> keys;
        CollectTree(c, key, 0, &keys);
        treeKeys->assign(keys.begin(), keys.end());
        return true;
    }
    sTreeWalk walk{c, key, treeKeys, std::string()};
    nlohmann::json root = walk.Read(key, 0);
    if (!root.is_object() || root.empty()) return false;
    std::string storedId = root.value("Id", nlohmann::json()).is_string()
                               ? root["Id"].get<std::string>()
                               : key.substr(key.compare(0, 2, "&&") == 0 ? 2 : 0);
    nlohmann::json records = nlohmann::json::array();
    StoreReply list = StoreCommand(c, {"HGET", key, "&&Events"});
    const std::string eventsKey = list ? Text(list.get()) : std::string();
    StoreReply elems = StoreCommand(c, {"LRANGE", eventsKey, "0", "-1"});
    const std::string now = NowIso8601();
    const size_t count = (elems && elems->type == REDIS_REPLY_ARRAY) ? elems->elements : 0;
    for (size_t n = 0; n < count; ++n) {
        const std::string recKey = Text(elems->element[n]);
        walk.resourceType.clear();
        nlohmann::json rec = walk.Inside(recKey) ? walk.Read(recKey, 1) : nlohmann::json();
        if (!rec.is_object()) continue;
        const std::string member = std::to_string(records.size());
        rec["MemberId"] = member;
        if (!rec.contains("EventId"))
            rec["EventId"] = count == 1 ? storedId : storedId + "." + member;
        if (!rec.contains("EventTimestamp")) rec["EventTimestamp"] = now;
        if (!rec.contains("EventType")) rec["EventType"] = "Alert";
        if (!rec.contains("MessageArgs")) rec["MessageArgs"] = nlohmann::json::array();
        sRecordFacts facts;
        facts.eventType = rec["EventType"].is_string() ? rec["EventType"].get<std::string>() : "";
        if (rec.contains("MessageId") && rec["MessageId"].is_string()) {
            facts.messageId = rec["MessageId"].get<std::string>();
            facts.registryPrefix = facts.messageId.substr(0, facts.messageId.find('.'));
        }
        if (!walk.resourceType.empty()) facts.resourceTypes.push_back(walk.resourceType);
        if (rec.contains("OriginOfCondition") && rec["OriginOfCondition"].is_object()) {
            facts.origin = rec["OriginOfCondition"].value("@odata.id", std::string());
            StoreReply t = StoreCommand(c, {"HGET", facts.origin, "@odata.type"});
            const nlohmann::json type = Value(t ? Text(t.get()) : std::string());
            if (type.is_string()) {
                const std::string name = TypeName(type.get<std::string>());
                if (!name.empty()) facts.resourceTypes.push_back(name);
            }
        }
        out->records.push_back(std::move(facts));
        records.push_back(std::move(rec));
    }
    nlohmann::json doc = {
        {"@odata.type", "#Event.v1_13_0.Event"},
        {"Name", root.contains("Name") && root["Name"].is_string() ? root["Name"]
                                                                   : nlohmann::json("Event")},
        {"Events", std::move(records)}};
    out->doc = std::move(doc);
    return true;
}

int EventQueueConsumer::SubmitTestEvent(const nlohmann::json& record) {
    redisContext* c = redisConnectUnix(mSocket.c_str());
    if (c == nullptr || c->err != 0) {
        if (c != nullptr) redisFree(c);
        return -1;
    }
    char id[64];
    snprintf(id, sizeof id, "%lld-%d-T%06u", static_cast<long long>(time(nullptr)),
             static_cast<int>(getpid()), ++mTestSeq);
    const std::string root = std::string("&&") + id;
    const std::string events = root + "/Events";
    const std::string rec = events + "/0";
    const std::string args = rec + "/MessageArgs";
    std::vector<std::vector<std::string>> cmds = {
        {"DEL", root, events, rec, args},
        {"HSET", root, "Id", nlohmann::json(id).dump(), "Name", "\"Test event\"", "&&Events",
         events},
        {"RPUSH", events, rec},
    };
    std::vector<std::string> hset = {"HSET", rec};
    for (const char* name : {"MessageId", "EventType", "EventId", "EventTimestamp", "EventGroupId",
                             "MessageSeverity", "Message"}) {
        if (record.contains(name)) {
            hset.push_back(name);
            hset.push_back(
                record[name].dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
        }
    }
    if (record.contains("OriginOfCondition")) {
        hset.push_back("&&OriginOfCondition");
        hset.push_back(record["OriginOfCondition"].get<std::string>());
    }
    hset.insert(hset.end(), {"&&ResourceType", "LogService", "&&MessageArgs", args});
    cmds.push_back(hset);
    if (record.contains("MessageArgs") && !record["MessageArgs"].empty()) {
        std::vector<std::string> push = {"RPUSH", args};
        for (const auto& a : record["MessageArgs"]) push.push_back(a.dump());
        cmds.push_back(push);
    }
    int result = -1;
    bool written = true;
    for (const auto& cmd : cmds) {
        StoreReply r = StoreCommand(c, cmd);
        if (!r || r->type == REDIS_REPLY_ERROR) written = false;
    }
    if (written) {
        StoreReply sha = StoreCommand(c, {"HGET", "redisSHAScripts", "enqueueEvent"});
        StoreReply r = StoreCommand(c, {"EVALSHA", sha ? Text(sha.get()) : "", "1", root});
        if (r && r->type == REDIS_REPLY_INTEGER) result = static_cast<int>(r->integer);
    }
    if (result != 1) StoreCommand(c, {"UNLINK", root, events, rec, args});
    redisFree(c);
    return result;
}

}  // namespace OrbelFrontEnd
