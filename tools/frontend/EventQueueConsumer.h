// The store side of the development front end's event service: it loads the
// "enqueueEvent" / "enqueueMetricReport" scripts and the service's state
// (docs/events.md, "The event service stand-in"), takes every entry off
// "redisEventQueue" and "redisMetricReportQueue", assembles the Event or
// MetricReport document from the stored tree, deletes the tree, and hands
// the document on (docs/frontend.md, "Events").
//
// Threads: one thread of its own takes the queues, on a connection of its
// own; the sink is called on that thread, one payload at a time, in queue
// order. SubmitTestEvent may be called from any thread (a connection per
// call). Start and Stop from one controlling thread.
#ifndef ORBEL_FRONTEND_EVENTQUEUECONSUMER_H
#define ORBEL_FRONTEND_EVENTQUEUECONSUMER_H

#include <hiredis/hiredis.h>

#include <atomic>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace OrbelFrontEnd {

// What the filters of a stream or subscription look at in one event record.
struct sRecordFacts {
    std::string eventType;                   // "Alert" unless the record names its own
    std::string messageId;                   // as stored
    std::string registryPrefix;              // the MessageId up to its first "."
    std::string origin;                      // the OriginOfCondition URI, "" without
    std::vector<std::string> resourceTypes;  // stored "&&ResourceType", the origin's type
};

// One payload taken off a queue.
struct sQueuedPayload {
    bool metricReport = false;
    // Event: "@odata.type", "Name", "Events" (records with "MemberId",
    // "EventId", "EventTimestamp", "EventType" ...); the service adds "Id"
    // (and a subscription's "Context"). MetricReport: the stored report.
    nlohmann::json doc;
    std::vector<sRecordFacts> records;  // events: one per element of "Events"
    std::string reportDefinition;       // metric reports: their definition's URI, or ""
};

class EventQueueConsumer {
public:
    using Sink = std::function<void(sQueuedPayload&&)>;

    // `queueLimit` is written as the service's "QueueLimit" (0: no limit).
    EventQueueConsumer(std::string socketPath, unsigned queueLimit, Sink sink);
    ~EventQueueConsumer();
    EventQueueConsumer(const EventQueueConsumer&) = delete;
    EventQueueConsumer& operator=(const EventQueueConsumer&) = delete;

    // Loads the scripts and the state into the store and starts the thread
    // (which loads them again whenever it connects). False, with the reason
    // in `*error`, when the store refuses a script; nothing runs then. A
    // store that cannot be reached yet is not a failure.
    bool Start(std::string* error);
    // Ends the thread (within about a second). Entries still queued stay in
    // the store for the next start.
    void Stop();

    // Raises a test event through the plug-ins' path: stores the tree of one
    // record (`record`: "MessageId", "Message", "MessageArgs",
    // "MessageSeverity", "OriginOfCondition", "EventType", "EventId",
    // "EventTimestamp", "EventGroupId", already checked) and runs
    // "enqueueEvent". Returns the script's result (1 queued), or -1 when the
    // store failed; a tree that was not queued is deleted again.
    int SubmitTestEvent(const nlohmann::json& record);

    // Assembles the document of a queued key and collects the keys of its
    // tree. False when the key holds no tree. (Also used by the tests.)
    static bool Assemble(redisContext* c, bool metricReport, const std::string& key,
                         sQueuedPayload* out, std::vector<std::string>* treeKeys);

private:
    bool _Prepare(redisContext* c, std::string* error);
    void _Run();

    // Constant after construction.
    const std::string mSocket;
    const unsigned mQueueLimit;
    const Sink mSink;

    std::atomic<bool> mStop{false};
    std::thread mThread;  // no lock: started and joined by the owner's thread
    std::atomic<unsigned> mTestSeq{0};
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_EVENTQUEUECONSUMER_H
