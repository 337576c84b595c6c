// The event service of the development front end.
#include "EventService.h"

#include "HttpServer.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <thread>

namespace OrbelFrontEnd {

namespace {

constexpr const char* kService = "/redfish/v1/EventService";
constexpr const char* kSubs = "/redfish/v1/EventService/Subscriptions";
constexpr const char* kSSE = "/redfish/v1/EventService/SSE";
constexpr const char* kSubmit = "/redfish/v1/EventService/Actions/EventService.SubmitTestEvent";
constexpr const char* kResume = "EventDestination.ResumeSubscription";
constexpr uint32_t kLoginBit = 0x8;
constexpr uint32_t kConfigureBit = 0x10;  // ConfigurationNetworkingAndSecurity
constexpr size_t kMaxFilterText = 1024;

std::string Dump(const nlohmann::json& j) {
    return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// ---------------------------------------------------------------------------
// $filter of an SSE stream: Prop eq|ne 'value', "and", "or", "not" and
// parentheses, as DSP0266 writes them for streams.
// ---------------------------------------------------------------------------

struct sFilterNode {
    enum eKind { kCompare, kAnd, kOr, kNot } kind = kCompare;
    std::string prop;
    bool equal = true;
    std::string value;
    std::unique_ptr<sFilterNode> a, b;
};

const std::set<std::string>& FilterProps() {
    static const std::set<std::string> k = {
        "EventFormatType", "EventType",      "MessageId",   "MetricReportDefinition",
        "OriginResource",  "RegistryPrefix", "ResourceType"};
    return k;
}

class FilterParser {
public:
    explicit FilterParser(const std::string& text) : mText(text) {}
    std::unique_ptr<sFilterNode> Parse(std::string* error) {
        std::unique_ptr<sFilterNode> n = _Or(0);
        _Blanks();
        if (n && mPos != mText.size()) n.reset();
        if (!n) *error = mError.empty() ? "cannot be read" : mError;
        return n;
    }

private:
    void _Blanks() {
        while (mPos < mText.size() && mText[mPos] == ' ') ++mPos;
    }
    std::string _Word() {
        _Blanks();
        size_t end = mPos;
        while (end < mText.size() && (isalnum(static_cast<unsigned char>(mText[end])) != 0 ||
                                      mText[end] == '_' || mText[end] == '.')) {
            ++end;
        }
        return mText.substr(mPos, end - mPos);
    }
    bool _Keyword(const char* w) {
        const std::string word = _Word();
        if (word != w) return false;
        mPos += word.size();
        return true;
    }
    std::unique_ptr<sFilterNode> _Or(unsigned depth) {
        std::unique_ptr<sFilterNode> left = _And(depth);
        while (left && _Keyword("or")) {
            auto n = std::make_unique<sFilterNode>();
            n->kind = sFilterNode::kOr;
            n->a = std::move(left);
            n->b = _And(depth);
            if (!n->b) return nullptr;
            left = std::move(n);
        }
        return left;
    }
    std::unique_ptr<sFilterNode> _And(unsigned depth) {
        std::unique_ptr<sFilterNode> left = _Primary(depth);
        while (left && _Keyword("and")) {
            auto n = std::make_unique<sFilterNode>();
            n->kind = sFilterNode::kAnd;
            n->a = std::move(left);
            n->b = _Primary(depth);
            if (!n->b) return nullptr;
            left = std::move(n);
        }
        return left;
    }
    std::unique_ptr<sFilterNode> _Primary(unsigned depth) {
        if (depth > 16) {
            mError = "nests too deep";
            return nullptr;
        }
        _Blanks();
        if (mPos < mText.size() && mText[mPos] == '(') {
            ++mPos;
            std::unique_ptr<sFilterNode> n = _Or(depth + 1);
            _Blanks();
            if (!n || mPos >= mText.size() || mText[mPos] != ')') return nullptr;
            ++mPos;
            return n;
        }
        if (_Keyword("not")) {
            auto n = std::make_unique<sFilterNode>();
            n->kind = sFilterNode::kNot;
            n->a = _Primary(depth + 1);
            return n->a ? std::move(n) : nullptr;
        }
        auto n = std::make_unique<sFilterNode>();
        n->prop = _Word();
        mPos += n->prop.size();
        if (FilterProps().count(n->prop) == 0) {
            mError = n->prop.empty() ? "expects a property" : "cannot filter on " + n->prop;
            return nullptr;
        }
        if (_Keyword("eq")) {
            n->equal = true;
        } else if (_Keyword("ne")) {
            n->equal = false;
        } else {
            mError = "supports only eq and ne";
            return nullptr;
        }
        _Blanks();
        if (mPos >= mText.size() || mText[mPos] != '\'') return nullptr;
        for (++mPos; mPos < mText.size(); ++mPos) {
            if (mText[mPos] == '\'') {
                if (mPos + 1 < mText.size() && mText[mPos + 1] == '\'') {
                    n->value.push_back('\'');
                    ++mPos;
                    continue;
                }
                ++mPos;
                return n;
            }
            n->value.push_back(mText[mPos]);
        }
        mError = "has an unterminated string";
        return nullptr;
    }

    const std::string& mText;
    size_t mPos = 0;
    std::string mError;
};

// A MessageId filter names a message with or without the registry's
// version: "Base.1.12.Success" and "Base.Success" both take
// "Base.1.12.Success".
bool MessageIdMatches(const std::string& want, const std::string& have) {
    if (want == have) return true;
    const size_t first = want.find('.');
    if (first == std::string::npos || want.find('.', first + 1) != std::string::npos) return false;
    const size_t hFirst = have.find('.');
    const size_t hLast = have.rfind('.');
    return hFirst != std::string::npos && have.compare(0, hFirst, want, 0, first) == 0 &&
           have.compare(hLast + 1, std::string::npos, want, first + 1, std::string::npos) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Payloads and destinations
// ---------------------------------------------------------------------------

struct EventService::sPublished {
    uint64_t seq = 0;
    sQueuedPayload payload;
    std::string text;  // the document with its "Id", on one line
};

struct EventService::sDestination {
    std::string id;
    bool sse = false;
    std::string context GUARDED_BY(m);
    // Push subscriptions.
    std::string destination;  // "http://127.0.0.1:<port>/<path>"
    std::string host;         // its parts: "127.0.0.1", "localhost" or "::1"
    int port = 80;
    std::string path = "/";
    std::string format = "Event";
    std::string policy = "TerminateAfterRetries";
    std::set<std::string> prefixes, messageIds, resourceTypes, origins, eventTypes;
    nlohmann::json filterDoc = nlohmann::json::object();  // as the client gave them
    // Streams.
    std::unique_ptr<sFilterNode> filter;

    Mutex m;
    CondVar cv;
    std::deque<std::shared_ptr<const sPublished>> pending GUARDED_BY(m);
    bool closed GUARDED_BY(m) = false;
    bool suspended GUARDED_BY(m) = false;
    uint64_t dropped GUARDED_BY(m) = 0;

    // The records of `p` this destination takes (for a metric report: all
    // or none, as record 0).
    bool RecordMatches(const sPublished& p, const sRecordFacts* f) const {
        if (sse) return filter == nullptr || _Eval(*filter, p, f);
        if ((format == "MetricReport") != p.payload.metricReport) return false;
        if (p.payload.metricReport) return true;
        auto in = [](const std::set<std::string>& s, const std::string& v) {
            return s.empty() || s.count(v) != 0;
        };
        bool idOk = messageIds.empty();
        for (const auto& want : messageIds) idOk = idOk || MessageIdMatches(want, f->messageId);
        bool typeOk = resourceTypes.empty();
        for (const auto& t : f->resourceTypes) typeOk = typeOk || resourceTypes.count(t) != 0;
        return idOk && typeOk && in(prefixes, f->registryPrefix) && in(origins, f->origin) &&
               in(eventTypes, f->eventType);
    }

    // The text this destination is sent for `p`, "" when it takes none of
    // it; a subscription's payloads carry its `ctx`.
    std::string Render(const sPublished& p, const std::string& ctx = std::string()) const {
        const auto& pl = p.payload;
        if (pl.metricReport) {
            if (!RecordMatches(p, nullptr)) return std::string();
            if (sse || ctx.empty()) return p.text;
            nlohmann::json doc = pl.doc;
            doc["Context"] = ctx;
            return Dump(doc);
        }
        std::vector<size_t> take;
        for (size_t i = 0; i < pl.records.size(); ++i) {
            if (RecordMatches(p, &pl.records[i])) take.push_back(i);
        }
        if (take.empty()) return std::string();
        if (take.size() == pl.records.size() && sse) return p.text;
        nlohmann::json doc = pl.doc;
        doc["Id"] = std::to_string(p.seq);
        if (!sse) doc["Context"] = ctx;
        if (take.size() != pl.records.size()) {
            nlohmann::json events = nlohmann::json::array();
            for (size_t i : take) events.push_back(pl.doc["Events"][i]);
            doc["Events"] = std::move(events);
        }
        return Dump(doc);
    }

private:
    static bool _Eval(const sFilterNode& n, const sPublished& p, const sRecordFacts* f) {
        switch (n.kind) {
            case sFilterNode::kAnd:
                return _Eval(*n.a, p, f) && _Eval(*n.b, p, f);
            case sFilterNode::kOr:
                return _Eval(*n.a, p, f) || _Eval(*n.b, p, f);
            case sFilterNode::kNot:
                return !_Eval(*n.a, p, f);
            case sFilterNode::kCompare:
                break;
        }
        const bool report = p.payload.metricReport;
        bool hit = false;
        if (n.prop == "EventFormatType") {
            hit = n.value == (report ? "MetricReport" : "Event");
        } else if (n.prop == "MetricReportDefinition") {
            hit = report && p.payload.reportDefinition == n.value;
        } else if (n.prop == "EventType") {
            hit = report ? n.value == "MetricReport" : f->eventType == n.value;
        } else if (report) {
            hit = false;  // the other properties describe event records
        } else if (n.prop == "MessageId") {
            hit = MessageIdMatches(n.value, f->messageId);
        } else if (n.prop == "RegistryPrefix") {
            hit = f->registryPrefix == n.value;
        } else if (n.prop == "OriginResource") {
            hit = f->origin == n.value;
        } else if (n.prop == "ResourceType") {
            for (const auto& t : f->resourceTypes) hit = hit || t == n.value;
        }
        return n.equal ? hit : !hit;
    }
};

struct EventService::sCall {
    const httplib::Request& req;
    httplib::Response& res;
    std::string uri;
    sUser user;
};

// ---------------------------------------------------------------------------
// Life cycle and publishing
// ---------------------------------------------------------------------------

EventService::EventService(sEventConfig config, const MessageRegistry& registry, Authenticator auth)
    : mConfig(std::move(config)),
      mRegistry(registry),
      mAuth(std::move(auth)),
      mRetryAttempts(mConfig.retryAttempts),
      mRetryInterval(mConfig.retryIntervalSeconds) {
    mResourceTypes["LogService"] = true;
    mConsumer.reset(new EventQueueConsumer(mConfig.socketPath, mConfig.queueLimit,
                                           [this](sQueuedPayload&& p) { Publish(std::move(p)); }));
}

EventService::~EventService() {
    Stop();
}

bool EventService::Start(const httplib::Server* server, std::string* error) {
    mServer = server;
    return mConsumer->Start(error);
}

void EventService::Stop() {
    mConsumer->Stop();
    mStopping = true;
    MutexLock lk(mMutex);
    for (auto& [id, d] : mDests) {
        MutexLock dl(d->m);
        d->closed = true;
        d->cv.SignalAll();
    }
    mThreadsDone.Wait(mMutex, [this]() REQUIRES(mMutex) { return mPushThreads == 0; });
}

void EventService::Publish(sQueuedPayload&& payload) {
    auto p = std::make_shared<sPublished>();
    p->payload = std::move(payload);
    MutexLock lk(mMutex);
    // Numbers go on across restarts of the front end (they begin at its
    // start time), so an old "Last-Event-ID" never names a newer payload.
    if (mSeq == 0) mSeq = static_cast<uint64_t>(time(nullptr)) << 20;
    p->seq = ++mSeq;
    // An event is named by its number; a report keeps an Id of its own.
    if (!p->payload.metricReport || !p->payload.doc.contains("Id")) {
        p->payload.doc["Id"] = std::to_string(p->seq);
    }
    p->text = Dump(p->payload.doc);
    for (const auto& r : p->payload.records) {
        for (const auto& t : r.resourceTypes) mResourceTypes[t] = true;
    }
    mHistory.push_back(p);
    while (mHistory.size() > mConfig.historySize) mHistory.pop_front();
    for (auto& [id, d] : mDests) {
        MutexLock dl(d->m);
        if (d->closed || d->suspended) continue;
        if (d->pending.size() >= mConfig.destinationBacklog) {
            // Too far behind: a stream is closed (the client may resume
            // from the history); a subscription loses its oldest payload.
            if (d->sse) {
                d->closed = true;
                d->cv.SignalAll();
                continue;
            }
            d->pending.pop_front();
            ++d->dropped;
        }
        d->pending.push_back(p);
        d->cv.SignalAll();
    }
}

void EventService::_Remove(const std::string& id) {
    std::shared_ptr<sDestination> d;
    {
        MutexLock lk(mMutex);
        auto it = mDests.find(id);
        if (it == mDests.end()) return;
        d = it->second;
        mDests.erase(it);
    }
    MutexLock dl(d->m);
    d->closed = true;
    d->cv.SignalAll();
}

// ---------------------------------------------------------------------------
// HTTP
// ---------------------------------------------------------------------------

bool EventService::Owns(const std::string& path) {
    const size_t n = strlen(kService);
    return path.compare(0, n, kService) == 0 && (path.size() == n || path[n] == '/');
}

void EventService::LinkFromRoot(nlohmann::json* root) {
    if (root->is_object() && !root->contains("EventService")) {
        (*root)["EventService"] = {{"@odata.id", kService}};
    }
}

std::string EventService::Serve(const httplib::Request& req, httplib::Response& res) {
    sCall call{req, res, req.path, {}};
    if (call.uri.size() > strlen(kService) && call.uri.back() == '/') call.uri.pop_back();
    res.set_header("OData-Version", "4.0");
    if (!mAuth(req, &call.user)) {
        res.set_header("WWW-Authenticate", "Basic realm=\"orbel\"");
        _Error(call, 401, "Base.1.12.NoValidSession");
        return std::string();
    }
    const bool read = req.method == "GET" || req.method == "HEAD";
    const uint32_t needs = read ? kLoginBit : (kLoginBit | kConfigureBit);
    if ((call.user.privileges & needs) != needs) {
        _Error(call, 403, "Base.1.12.InsufficientPrivilege");
        return call.user.name;
    }
    const std::string subsPrefix = std::string(kSubs) + "/";
    if (req.target.find('?') != std::string::npos && call.uri != kSSE) {
        _Error(call, 400, "Base.1.12.QueryNotSupported");
    } else if (call.uri == kService) {
        _Root(call);
    } else if (call.uri == kSubs) {
        _Collection(call);
    } else if (call.uri == kSSE) {
        _Stream(call);
    } else if (call.uri == kSubmit) {
        _SubmitTestEvent(call);
    } else if (call.uri.compare(0, subsPrefix.size(), subsPrefix) == 0) {
        std::string rest = call.uri.substr(subsPrefix.size());
        std::string action;
        const size_t slash = rest.find('/');
        if (slash != std::string::npos) {
            action = rest.substr(slash + 1);
            rest.resize(slash);
            if (action.compare(0, 8, "Actions/") != 0) action = "?";
        }
        _Member(call, rest, action.empty() ? action : action.substr(8));
    } else {
        _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    return call.user.name;
}

void EventService::_Error(sCall& call, int status, const std::string& messageId,
                          const nlohmann::json& args, const std::string& text) {
    nlohmann::json msg = mRegistry.Expand(messageId, args);
    nlohmann::json error = {
        {"code", messageId},
        {"message",
         !text.empty() ? text : msg.value("Message", std::string("See @Message.ExtendedInfo."))},
        {"@Message.ExtendedInfo", nlohmann::json::array({msg})},
    };
    call.res.status = status;
    call.res.set_content(Dump({{"error", error}}), "application/json");
}

nlohmann::json EventService::_ServiceDoc() {
    nlohmann::json types = nlohmann::json::array();
    MutexLock lk(mMutex);
    for (const auto& [t, on] : mResourceTypes) types.push_back(t);
    return {
        {"@odata.id", kService},
        {"@odata.type", "#EventService.v1_12_0.EventService"},
        {"Id", "EventService"},
        {"Name", "Event Service"},
        {"Description", "Events and metric reports that the plug-ins queue in the store"},
        {"ServiceEnabled", true},
        {"Status", {{"State", "Enabled"}, {"Health", "OK"}}},
        {"DeliveryRetryAttempts", mRetryAttempts},
        {"DeliveryRetryIntervalSeconds", mRetryInterval},
        {"EventFormatTypes", {"Event", "MetricReport"}},
        {"RegistryPrefixes", {"Base", "ResourceEvent", "TaskEvent"}},
        {"ResourceTypes", types},
        {"ServerSentEventUri", kSSE},
        {"SSEFilterPropertiesSupported",
         {{"EventFormatType", true},
          {"MessageId", true},
          {"MetricReportDefinition", true},
          {"OriginResource", true},
          {"RegistryPrefix", true},
          {"ResourceType", true},
          {"SubordinateResources", false}}},
        {"Subscriptions", {{"@odata.id", kSubs}}},
        {"Actions",
         {{"#EventService.SubmitTestEvent",
           {{"target", kSubmit}, {"EventType@Redfish.AllowableValues", {"Alert", "Other"}}}}}},
    };
}

void EventService::_Root(sCall& call) {
    if (call.req.method == "GET" || call.req.method == "HEAD") {
        call.res.set_content(Dump(_ServiceDoc()), "application/json");
        return;
    }
    if (call.req.method != "PATCH") {
        call.res.set_header("Allow", "GET, HEAD, PATCH");
        return _Error(call, 405, "Base.1.12.GeneralError");
    }
    const nlohmann::json body = nlohmann::json::parse(call.req.body, nullptr, false);
    if (!body.is_object()) return _Error(call, 400, "Base.1.12.MalformedJSON");
    if (body.empty()) return _Error(call, 400, "Base.1.12.EmptyJSON");
    int attempts = -1;
    int interval = -1;
    for (const auto& [name, v] : body.items()) {
        const bool known =
            name == "DeliveryRetryAttempts" || name == "DeliveryRetryIntervalSeconds";
        if (!known) {
            const nlohmann::json doc = _ServiceDoc();
            if (doc.contains(name))
                return _Error(call, 400, "Base.1.12.PropertyNotWritable", {name});
            return _Error(call, 400, "Base.1.12.PropertyUnknown", {name});
        }
        const int hi = name == "DeliveryRetryAttempts" ? 10 : 3600;
        if (!v.is_number_integer() || v.get<int64_t>() < 0 || v.get<int64_t>() > hi) {
            return _Error(call, 400, "Base.1.12.PropertyValueIncorrect", {name, Dump(v)});
        }
        (name == "DeliveryRetryAttempts" ? attempts : interval) = v.get<int>();
    }
    {
        MutexLock lk(mMutex);
        if (attempts >= 0) mRetryAttempts = attempts;
        if (interval >= 0) mRetryInterval = interval;
    }
    call.res.set_content(Dump(_ServiceDoc()), "application/json");
}

nlohmann::json EventService::_DestinationDoc(const sDestination& d) {
    const std::string uri = std::string(kSubs) + "/" + d.id;
    std::string context;
    bool suspended = false;
    {
        MutexLock dl(const_cast<sDestination&>(d).m);
        context = d.context;
        suspended = d.suspended;
    }
    nlohmann::json doc = {
        {"@odata.id", uri},
        {"@odata.type", "#EventDestination.v1_16_0.EventDestination"},
        {"Id", d.id},
        {"Name", d.sse ? "Server-Sent Events stream " + d.id : "Event subscription " + d.id},
        {"Context", context},
        {"Protocol", "Redfish"},
        {"SubscriptionType", d.sse ? "SSE" : "RedfishEvent"},
        {"EventFormatType", d.format},
    };
    if (!d.sse) {
        doc["Destination"] = d.destination;
        doc["DeliveryRetryPolicy"] = d.policy;
        doc["Status"] = {{"State", suspended ? "Disabled" : "Enabled"}, {"Health", "OK"}};
        doc["Actions"] = {{"#" + std::string(kResume), {{"target", uri + "/Actions/" + kResume}}}};
        for (const auto& [k, v] : d.filterDoc.items()) doc[k] = v;
    } else {
        doc["Status"] = {{"State", "Enabled"}, {"Health", "OK"}};
    }
    return doc;
}

void EventService::_Collection(sCall& call) {
    if (call.req.method == "POST") return _Create(call);
    if (call.req.method != "GET" && call.req.method != "HEAD") {
        call.res.set_header("Allow", "GET, HEAD, POST");
        return _Error(call, 405, "Base.1.12.GeneralError");
    }
    nlohmann::json members = nlohmann::json::array();
    {
        MutexLock lk(mMutex);
        for (const auto& [id, d] : mDests)
            members.push_back({{"@odata.id", std::string(kSubs) + "/" + id}});
    }
    const size_t count = members.size();
    call.res.set_content(
        Dump({{"@odata.id", kSubs},
              {"@odata.type", "#EventDestinationCollection.EventDestinationCollection"},
              {"Name", "Event Subscriptions"},
              {"Members", std::move(members)},
              {"Members@odata.count", count}}),
        "application/json");
}

void EventService::_Member(sCall& call, const std::string& id, const std::string& action) {
    std::shared_ptr<sDestination> d;
    {
        MutexLock lk(mMutex);
        auto it = mDests.find(id);
        if (it != mDests.end()) d = it->second;
    }
    if (!d || (!action.empty() && action != kResume)) {
        return _Error(call, 404, "Base.1.12.ResourceMissingAtURI", {call.uri});
    }
    const std::string& m = call.req.method;
    if (!action.empty()) {
        if (m != "POST") {
            call.res.set_header("Allow", "POST");
            return _Error(call, 405, "Base.1.12.GeneralError");
        }
        if (d->sse) return _Error(call, 400, "Base.1.12.ActionNotSupported", {kResume});
        MutexLock dl(d->m);
        d->suspended = false;
        d->cv.SignalAll();
        call.res.status = 204;
        return;
    }
    if (m == "GET" || m == "HEAD") {
        call.res.set_content(Dump(_DestinationDoc(*d)), "application/json");
    } else if (m == "DELETE") {
        // A stream's resource going closes the stream too.
        _Remove(id);
        call.res.status = 204;
    } else if (m == "PATCH") {
        const nlohmann::json body = nlohmann::json::parse(call.req.body, nullptr, false);
        if (!body.is_object()) return _Error(call, 400, "Base.1.12.MalformedJSON");
        if (body.empty()) return _Error(call, 400, "Base.1.12.EmptyJSON");
        for (const auto& [name, v] : body.items()) {
            if (name != "Context") {
                if (_DestinationDoc(*d).contains(name)) {
                    return _Error(call, 400, "Base.1.12.PropertyNotWritable", {name});
                }
                return _Error(call, 400, "Base.1.12.PropertyUnknown", {name});
            }
            if (!v.is_string() || v.get<std::string>().size() > 256) {
                return _Error(call, 400, "Base.1.12.PropertyValueFormatError", {Dump(v), name});
            }
        }
        {
            MutexLock dl(d->m);
            d->context = body["Context"].get<std::string>();
        }
        call.res.set_content(Dump(_DestinationDoc(*d)), "application/json");
    } else {
        call.res.set_header("Allow", "GET, HEAD, PATCH, DELETE");
        _Error(call, 405, "Base.1.12.GeneralError");
    }
}

void EventService::_SubmitTestEvent(sCall& call) {
    const std::string action = "SubmitTestEvent";
    if (call.req.method != "POST") {
        call.res.set_header("Allow", "POST");
        return _Error(call, 405, "Base.1.12.GeneralError");
    }
    nlohmann::json body = call.req.body.empty()
                              ? nlohmann::json::object()
                              : nlohmann::json::parse(call.req.body, nullptr, false);
    if (!body.is_object()) return _Error(call, 400, "Base.1.12.MalformedJSON");
    static const std::map<std::string, nlohmann::json::value_t> kParams = {
        {"MessageId", nlohmann::json::value_t::string},
        {"Message", nlohmann::json::value_t::string},
        {"MessageSeverity", nlohmann::json::value_t::string},
        {"Severity", nlohmann::json::value_t::string},
        {"EventType", nlohmann::json::value_t::string},
        {"EventId", nlohmann::json::value_t::string},
        {"EventTimestamp", nlohmann::json::value_t::string},
        {"OriginOfCondition", nlohmann::json::value_t::string},
        {"MessageArgs", nlohmann::json::value_t::array},
        {"EventGroupId", nlohmann::json::value_t::number_integer},
    };
    for (const auto& [name, v] : body.items()) {
        auto it = kParams.find(name);
        if (it == kParams.end()) {
            return _Error(call, 400, "Base.1.12.ActionParameterUnknown", {action, name});
        }
        const bool intOk =
            it->second == nlohmann::json::value_t::number_integer && v.is_number_integer();
        bool ok = v.type() == it->second || intOk;
        if (name == "MessageArgs" && ok) {
            for (const auto& a : v) ok = ok && a.is_string();
        }
        if (ok && v.is_string() &&
            (v.get<std::string>().size() > 1024 ||
             v.get<std::string>().find('\0') != std::string::npos)) {
            ok = false;
        }
        if (!ok) {
            return _Error(call, 400, "Base.1.12.ActionParameterValueTypeError",
                          {Dump(v), name, action});
        }
    }
    if (!body.contains("MessageId")) {
        return _Error(call, 400, "Base.1.12.ActionParameterMissing", {action, "MessageId"});
    }
    if (body.contains("OriginOfCondition")) {
        const std::string o = body["OriginOfCondition"].get<std::string>();
        if (o.empty() || o[0] != '/' || o.find(' ') != std::string::npos) {
            return _Error(call, 400, "Base.1.12.ActionParameterValueFormatError",
                          {o, "OriginOfCondition", action});
        }
    }
    if (body.contains("Severity") && !body.contains("MessageSeverity"))
        body["MessageSeverity"] = body["Severity"];
    body.erase("Severity");
    if (!body.contains("MessageSeverity")) body["MessageSeverity"] = "OK";
    const std::string severity = body["MessageSeverity"].get<std::string>();
    if (severity != "OK" && severity != "Warning" && severity != "Critical") {
        return _Error(call, 400, "Base.1.12.ActionParameterValueNotInList",
                      {severity, "MessageSeverity", action});
    }
    if (!body.contains("Message")) {
        const nlohmann::json m =
            mRegistry.Expand(body["MessageId"].get<std::string>(),
                             body.value("MessageArgs", nlohmann::json::array()));
        if (m.contains("Message")) body["Message"] = m["Message"];
    }
    const int result = mConsumer->SubmitTestEvent(body);
    if (result != 1) {
        fprintf(stderr, "orbel-frontend: SubmitTestEvent: enqueueEvent gave %d\n", result);
        call.res.set_header("Retry-After", "5");
        return _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"});
    }
    call.res.status = 204;
}

void EventService::_Create(sCall& call) {
    const nlohmann::json body = nlohmann::json::parse(call.req.body, nullptr, false);
    if (!body.is_object()) return _Error(call, 400, "Base.1.12.MalformedJSON");
    auto d = std::make_shared<sDestination>();
    bool hasDestination = false;
    bool hasProtocol = false;
    for (const auto& item : body.items()) {
        // Named references, not a structured binding: lambdas capture them.
        const std::string& name = item.key();
        const nlohmann::json& v = item.value();
        auto fail = [&](const char* id) {
            _Error(call, 400, std::string("Base.1.12.") + id, {Dump(v), name});
        };
        auto oneOf = [&](std::initializer_list<const char*> words) {
            for (const char* w : words) {
                if (v.is_string() && v.get<std::string>() == w) return true;
            }
            return false;
        };
        auto strings = [&](std::set<std::string>* out, bool links) {
            if (!v.is_array() || v.size() > 64) return false;
            for (const auto& e : v) {
                const nlohmann::json& s =
                    links && e.is_object() && e.size() == 1 && e.contains("@odata.id")
                        ? e["@odata.id"]
                        : e;
                if (!s.is_string() || (links && !e.is_object()) ||
                    s.get<std::string>().size() > 256) {
                    return false;
                }
                out->insert(s.get<std::string>());
            }
            d->filterDoc[name] = v;
            return true;
        };
        if (name == "Destination") {
            hasDestination = true;
            if (!v.is_string()) return fail("PropertyValueTypeError");
            d->destination = v.get<std::string>();
        } else if (name == "Protocol") {
            hasProtocol = true;
            if (!oneOf({"Redfish"})) return fail("PropertyValueNotInList");
        } else if (name == "Context") {
            if (!v.is_string() || v.get<std::string>().size() > 256)
                return fail("PropertyValueFormatError");
            MutexLock dl(d->m);  // not shared yet; the lock only satisfies the checker
            d->context = v.get<std::string>();
        } else if (name == "EventFormatType") {
            if (!oneOf({"Event", "MetricReport"})) return fail("PropertyValueNotInList");
            d->format = v.get<std::string>();
        } else if (name == "SubscriptionType") {
            if (!oneOf({"RedfishEvent"})) return fail("PropertyValueNotInList");
        } else if (name == "DeliveryRetryPolicy") {
            if (!oneOf({"TerminateAfterRetries", "SuspendRetries"}))
                return fail("PropertyValueNotInList");
            d->policy = v.get<std::string>();
        } else if (name == "RegistryPrefixes") {
            if (!strings(&d->prefixes, false)) return fail("PropertyValueFormatError");
        } else if (name == "MessageIds") {
            if (!strings(&d->messageIds, false)) return fail("PropertyValueFormatError");
        } else if (name == "ResourceTypes") {
            if (!strings(&d->resourceTypes, false)) return fail("PropertyValueFormatError");
        } else if (name == "EventTypes") {
            if (!strings(&d->eventTypes, false)) return fail("PropertyValueFormatError");
        } else if (name == "OriginResources") {
            if (!strings(&d->origins, true)) return fail("PropertyValueFormatError");
        } else {
            return _Error(call, 400, "Base.1.12.PropertyUnknown", {name});
        }
    }
    if (!hasDestination) return _Error(call, 400, "Base.1.12.PropertyMissing", {"Destination"});
    if (!hasProtocol) return _Error(call, 400, "Base.1.12.PropertyMissing", {"Protocol"});
    // Only this machine: the front end is a development tool and must not
    // become a way to make requests to other hosts.
    std::string rest;
    for (const char* host : {"127.0.0.1", "localhost", "[::1]"}) {
        const std::string prefix = std::string("http://") + host;
        if (d->destination.compare(0, prefix.size(), prefix) == 0) {
            rest = d->destination.substr(prefix.size());
            d->host = host[0] == '[' ? "::1" : host;
        }
    }
    size_t i = 0;
    if (!rest.empty() && rest[0] == ':') {
        unsigned port = 0;
        for (i = 1; i < rest.size() && isdigit(static_cast<unsigned char>(rest[i])) != 0 && i < 7;
             ++i) {
            port = port * 10 + static_cast<unsigned>(rest[i] - '0');
        }
        if (port == 0 || port > 65535) rest.clear();
        d->port = static_cast<int>(port);
    }
    if (i < rest.size()) d->path = rest.substr(i);
    bool clean = !rest.empty() && d->destination.size() <= 512;
    for (unsigned char c : d->destination) clean = clean && c > 0x20 && c < 0x7F;
    if (!clean || (i < rest.size() && rest[i] != '/')) {
        return _Error(
            call, 400, "Base.1.12.PropertyValueFormatError", {d->destination, "Destination"},
            "Destination must be an http URL on this machine (127.0.0.1, [::1] or localhost); "
            "the development front end sends events nowhere else.");
    }
    {
        MutexLock lk(mMutex);
        size_t pushes = 0;
        for (const auto& [id, other] : mDests) pushes += other->sse ? 0 : 1;
        if (pushes >= mConfig.maxSubscriptions || mStopping) {
            return _Error(call, 400, "Base.1.12.CreateLimitReachedForResource");
        }
        d->id = std::to_string(mNextId++);
        mDests[d->id] = d;
        ++mPushThreads;
    }
    std::thread(&EventService::_Push, this, d).detach();
    const std::string uri = std::string(kSubs) + "/" + d->id;
    call.res.status = 201;
    call.res.set_header("Location", uri);
    call.res.set_content(Dump(_DestinationDoc(*d)), "application/json");
}

// One subscription's sender: its payloads in order, each retried as the
// service says, then the subscription suspended or ended.
void EventService::_Push(std::shared_ptr<sDestination> d) {
    const std::string& url = d->destination;
    const std::string& path = d->path;
    httplib::Client client(d->host, d->port);
    client.set_connection_timeout(2, 0);
    client.set_read_timeout(5, 0);
    client.set_write_timeout(5, 0);
    MutexLock dl(d->m);
    while (!d->closed) {
        d->cv.Wait(d->m, [&]() REQUIRES(d->m) { return d->closed || (!d->pending.empty() && !d->suspended); });
        if (d->closed) break;
        std::shared_ptr<const sPublished> p = d->pending.front();
        const std::string ctx = d->context;
        dl.Unlock();
        const std::string text = d->Render(*p, ctx);
        int attempts;
        int interval;
        {
            MutexLock lk(mMutex);
            attempts = mRetryAttempts;
            interval = mRetryInterval;
        }
        bool sent = text.empty();
        for (int a = 0; !sent && a <= attempts; ++a) {
            if (a > 0) {
                MutexLock wait(d->m);
                if (d->cv.WaitFor(d->m, std::chrono::seconds(interval), [&]() REQUIRES(d->m) { return d->closed; }))
                    break;
            }
            httplib::Result r = client.Post(path.c_str(), text, "application/json");
            sent = r && r->status >= 200 && r->status < 300;
        }
        dl.Lock();
        if (d->closed) break;
        if (!d->pending.empty() && d->pending.front() == p) d->pending.pop_front();
        if (sent) continue;
        fprintf(stderr,
                "orbel-frontend: subscription %s: %s did not take event %llu after %d attempts%s\n",
                d->id.c_str(), url.c_str(), static_cast<unsigned long long>(p->seq), attempts + 1,
                d->policy == "SuspendRetries" ? ", suspended" : ", removed");
        if (d->policy == "SuspendRetries") {
            d->suspended = true;
            d->pending.clear();
            continue;
        }
        dl.Unlock();
        _Remove(d->id);
        dl.Lock();
    }
    dl.Unlock();
    MutexLock lk(mMutex);
    --mPushThreads;
    mThreadsDone.SignalAll();
}

void EventService::_Stream(sCall& call) {
    if (call.req.method != "GET") {
        call.res.set_header("Allow", "GET");
        return _Error(call, 405, "Base.1.12.GeneralError");
    }
    const std::string accept = call.req.get_header_value("Accept");
    if (!accept.empty() && accept.find("text/event-stream") == std::string::npos &&
        accept.find("*/*") == std::string::npos && accept.find("text/*") == std::string::npos) {
        return _Error(call, 400, "Base.1.12.GeneralError", nlohmann::json::array(),
                      "The stream is sent as text/event-stream; the Accept header excludes it.");
    }
    auto d = std::make_shared<sDestination>();
    d->sse = true;
    for (const auto& [name, value] : call.req.params) {
        if (name != "$filter" || value.size() > kMaxFilterText || d->filter) {
            return _Error(call, 400, "Base.1.12.QueryParameterValueFormatError", {value, name});
        }
        std::string why;
        FilterParser parser(value);
        d->filter = parser.Parse(&why);
        if (!d->filter) {
            return _Error(
                call, 400, "Base.1.12.QueryParameterValueFormatError", {value, name},
                "The $filter " + why +
                    "; it takes EventFormatType, EventType, MessageId, "
                    "MetricReportDefinition, OriginResource, RegistryPrefix and ResourceType "
                    "with eq or ne, joined by and, or, not and parentheses.");
        }
    }
    uint64_t last = 0;
    const std::string lastId = call.req.get_header_value("Last-Event-ID");
    for (char c : lastId) {
        if (!isdigit(static_cast<unsigned char>(c)) || last > UINT64_MAX / 10) break;
        last = last * 10 + static_cast<uint64_t>(c - '0');
    }
    {
        MutexLock lk(mMutex);
        size_t streams = 0;
        for (const auto& [id, other] : mDests) streams += other->sse ? 1 : 0;
        if (streams >= mConfig.maxStreams || mStopping) {
            call.res.set_header("Retry-After", "5");
            return _Error(call, 503, "Base.1.12.ServiceTemporarilyUnavailable", {"5"},
                          "All " + std::to_string(mConfig.maxStreams) + " event streams are open.");
        }
        d->id = std::to_string(mNextId++);
        MutexLock dl(d->m);
        char ctx[40];
        snprintf(ctx, sizeof ctx, "SSE-%s-%08lx", d->id.c_str(),
                 static_cast<unsigned long>(
                     std::hash<std::string>()(d->id + std::to_string(time(nullptr)))));
        d->context = ctx;
        // The missed payloads still in the history come first, in order,
        // then whatever is published after this point.
        if (last != 0) {
            for (const auto& p : mHistory) {
                if (p->seq > last) d->pending.push_back(p);
            }
        }
        mDests[d->id] = d;
    }
    call.res.set_header("Cache-Control", "no-cache");
    call.res.set_header("X-Accel-Buffering", "no");
    StreamThisAnswer();
    const std::string id = d->id;
    const httplib::Server* server = mServer;
    call.res.set_chunked_content_provider(
        "text/event-stream",
        [d, server, idle = 0](size_t, httplib::DataSink& sink) mutable {
            std::deque<std::shared_ptr<const sPublished>> batch;
            {
                MutexLock dl(d->m);
                const bool woke = d->cv.WaitFor(d->m, std::chrono::seconds(1),
                                                 [&]() REQUIRES(d->m) { return d->closed || !d->pending.empty(); });
                if (d->closed) return false;
                if (!woke) {
                    dl.Unlock();
                    if (server != nullptr && !server->is_running()) return false;
                    if (++idle < 5) return true;
                    idle = 0;
                    // A comment line keeps proxies open and finds a client
                    // that has gone.
                    static const char kBeat[] = ":\n\n";
                    return sink.write(kBeat, sizeof kBeat - 1);
                }
                batch.swap(d->pending);
            }
            std::string out;
            for (const auto& p : batch) {
                const std::string text = d->Render(*p);
                if (text.empty()) continue;
                out += "id: " + std::to_string(p->seq) + "\ndata: " + text + "\n\n";
            }
            return out.empty() || sink.write(out.data(), out.size());
        },
        [this, id](bool) { _Remove(id); });
}

}  // namespace OrbelFrontEnd
