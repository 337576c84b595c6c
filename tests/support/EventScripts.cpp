// Loads the event service's scripts into the private store.
#include "EventScripts.h"

#include <fstream>
#include <memory>
#include <sstream>

#ifndef ORBEL_SOURCE_DIR
#error "ORBEL_SOURCE_DIR names the source tree, where the scripts are"
#endif

namespace OrbelTest {

namespace {

struct ReplyFree {
    void operator()(redisReply* r) const {
        if (r != nullptr) freeReplyObject(r);
    }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

bool ReadScript(const std::string& name, std::string& text, std::string* error) {
    const std::string path = std::string(ORBEL_SOURCE_DIR) + "/tests/support/scripts/" + name;
    std::ifstream in(path);
    std::stringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    if (!in || text.empty()) {
        if (error != nullptr) *error = "cannot read " + path;
        return false;
    }
    return true;
}

// SCRIPT LOAD `name` and store its digest under `field` of "redisSHAScripts".
bool LoadOne(redisContext* c, const char* name, const char* field, std::string* error) {
    std::string text;
    if (!ReadScript(name, text, error)) return false;
    ReplyPtr sha(
        static_cast<redisReply*>(redisCommand(c, "SCRIPT LOAD %b", text.data(), text.size())));
    if (!sha || sha->type != REDIS_REPLY_STRING) {
        if (error != nullptr) {
            *error = std::string("SCRIPT LOAD ") + name + ": " +
                     (sha && sha->type == REDIS_REPLY_ERROR ? sha->str : "no reply");
        }
        return false;
    }
    ReplyPtr set(
        static_cast<redisReply*>(redisCommand(c, "HSET redisSHAScripts %s %s", field, sha->str)));
    if (!set || set->type != REDIS_REPLY_INTEGER) {
        if (error != nullptr) *error = "HSET redisSHAScripts failed";
        return false;
    }
    return true;
}

}  // namespace

bool LoadEventScripts(redisContext* c, std::string* error) {
    if (c == nullptr || c->err != 0) {
        if (error != nullptr) *error = "no store connection";
        return false;
    }
    if (!LoadOne(c, "enqueueEvent.lua", "enqueueEvent", error) ||
        !LoadOne(c, "enqueueMetricReport.lua", "enqueueMetricReport", error)) {
        return false;
    }
    ReplyPtr state(static_cast<redisReply*>(
        redisCommand(c, "HSET %s EventSubscriptions 1 MetricReportSubscriptions 1 QueueLimit 0",
                     kEventServiceState)));
    if (!state || state->type != REDIS_REPLY_INTEGER) {
        if (error != nullptr) *error = "HSET of the service state failed";
        return false;
    }
    return true;
}

}  // namespace OrbelTest
