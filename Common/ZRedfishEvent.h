// Redfish events and metric reports, handed to the controller's event service.
//
// A plug-in raises an event by building a ZRedfishEvent, adding one or more
// records (with message arguments and, for alerts, an OEM block carrying the
// machine's vital product data), and handing it to the application:
//
//     auto* ev = new ZRedfishEvent("Fan event");
//     ZJsonObject* rec = ev->CreateEventRecord("ResourceEvent.1.0", "ResourceErrorsDetected",
//                                              "Warning", "Fan 2 is slow.", fanResource);
//     ev->EventRecord_AppendMessageArgs(rec, "Fan 2");
//     ev->EventRecord_NewAlertOemObj(rec);
//     ZApplication::SendRedfishEvent(ev);  // stores, queues and deletes the event
//
// The event is written into the store as a node tree under "&&<event id>"
// and queued by running the event service's "enqueueEvent" script on that
// key. The service reads the tree and removes it. docs/events.md gives the
// stored layout, the id text and what the script results mean.
//
// Metric reports are node trees the plug-in builds and applies itself;
// _SendMetricReport queues one through the "enqueueMetricReport" script.
//
// Threads. Events may be raised from any thread at once: ids are made under
// one process-wide mutex, and each event does its store work on a
// connection of its own (or on the calling thread's RedisConnectionScope
// when it has one). One event object is used by one thread at a time; it may
// be built on one thread and sent from another.
//
// Ownership. The caller owns the event until it hands it to
// SendRedfishEvent/_SendEvent, which delete it on every path. The records
// and OEM objects returned are nodes of the event's tree: valid until the
// event is sent or deleted, never destroyed by the caller.
//
// Misuse (a null or foreign record, an origin that is not a live node) is
// logged at ERROR and the call returns null or 2 without changing anything.
#ifndef ORBEL_ZREDFISHEVENT_H
#define ORBEL_ZREDFISHEVENT_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <optional>
#include <string>

#include "OrbelDefs.h"

namespace Orbel {

class RedisConnectionScope;
class ZJsonArray;
class ZJsonObject;
class ZObject;
class ZResource;

class ZRedfishEvent {
public:
    // Takes a new event id and builds the root ("Id", "Name", "Events").
    explicit ZRedfishEvent(std::string name);
    // Retires the tree. The stored copy stays when the event service took
    // the event (it removes it); otherwise it is deleted from the store.
    virtual ~ZRedfishEvent();

    ZRedfishEvent(const ZRedfishEvent&) = delete;
    ZRedfishEvent& operator=(const ZRedfishEvent&) = delete;

    const std::string& GetEventId() const { return mEventId; }
    const std::string& GetName() const { return mName; }
    // The root node, JPath "&&" + event id; null when it could not be made.
    ZJsonObject* GetRootObj() const { return mRoot; }

    // A new record under "Events": MessageId = prefix + "." + key, the
    // severity and message texts, an empty "MessageArgs" list, and the link
    // to `origin` (none when origin is null). Returns the record, or null
    // (logged).
    ZJsonObject* CreateEventRecord(const std::string& prefix, const std::string& key,
                                   const std::string& severity, const std::string& message,
                                   ZResource* origin);
    // The same from a whole MessageId ("<registry prefix>.<key>", split at
    // its last '.') and a message; the severity is "OK". A MessageId without
    // a '.' (or with nothing on either side of the last one) is refused.
    ZJsonObject* CreateEventRecord(const std::string& messageId, const std::string& message,
                                   ZResource* origin);

    // Appends `arg` (stored as a JSON string) to the record's MessageArgs.
    eRtCode EventRecord_AppendMessageArgs(ZJsonObject* record, const std::string& arg);
    // The record's "Oem" object, made and linked on first use.
    ZJsonObject* EventRecord_NewOemObj(ZJsonObject* record);
    // The "Veltra" object inside the record's "Oem", with the machine's
    // UUID, serial number and machine type-model from the vital product
    // data. When the record cannot be read (logged) those three are null.
    ZJsonObject* EventRecord_NewAlertOemObj(ZJsonObject* record);

    // Applies the event's tree to the store, queues it with the
    // "enqueueEvent" script and deletes the event, on every path. Failures
    // are logged; script results 2 and 3 are normal refusals and are not.
    // A null event is logged and ignored.
    static void _SendEvent(ZRedfishEvent* event);
    // Queues the (already applied) report with the "enqueueMetricReport"
    // script. The report stays with the caller.
    static void _SendMetricReport(ZObject* report);

private:
    // "<seconds>-<pid>-<counter>" (docs/events.md); unique in the store and
    // increasing within the process.
    static std::string _NewEventId();
    ZJsonObject* _CreateEventRecord(const std::string& prefix, const std::string& key,
                                    const std::string& severity, const std::string& message,
                                    ZResource* origin);
    // True when `record` is a live record of this event (logged otherwise).
    bool _IsOwnRecord(ZJsonObject* record, const char* func);
    ZJsonObject* _FindOrCreateOem(ZJsonObject* record);
    // The connection the event's store work goes on: the thread's scoped
    // connection when it has a usable one (`scope` stays empty), else the
    // event's own, opened on first use and lent to the thread through
    // `scope`. Null when no connection can be had (logged).
    redisContext* _UseConnection(std::optional<RedisConnectionScope>& scope);

    // Constant after construction.
    const std::string mEventId;
    const std::string mName;
    ZJsonObject* mRoot = nullptr;
    ZJsonArray* mEvents = nullptr;

    uint32_t mNextRecord = 0;          // id of the next record under "Events"
    bool mClearStoreOnDelete = false;  // the flag given to the root's Destroy
    redisContext* mCtx = nullptr;      // the event's own connection, or null
};

}  // namespace Orbel

#endif  // ORBEL_ZREDFISHEVENT_H
