// The development front end's event service: the EventService resource
// with SubmitTestEvent, the Server-Sent Events stream, and push
// subscriptions to destinations on this machine, fed by the events and
// metric reports that plug-ins queue in the store (docs/frontend.md,
// "Events").
//
// Every payload taken off the queues gets a sequence number, goes into a
// bounded history (for "Last-Event-ID") and into a bounded queue per open
// stream and per subscription; each stream is written by its own HTTP worker
// thread and each subscription pushed by a thread of its own, so a client
// that stops reading or a dead destination delays nobody else. A stream that
// falls too far behind is closed (it may resume from the history).
//
// Threads: Start() and Stop() from the main thread; Serve() on the HTTP
// worker threads; the queue consumer's thread publishes. Streams and
// subscriptions are guarded by mMutex; each destination's queue by its own
// mutex, never taken while waiting on another.
#ifndef ORBEL_FRONTEND_EVENTSERVICE_H
#define ORBEL_FRONTEND_EVENTSERVICE_H

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "EventQueueConsumer.h"
#include "MessageRegistry.h"
#include "Orbel_Mutex.h"
#include "UserTable.h"

namespace OrbelFrontEnd {

using Orbel::CondVar;
using Orbel::Mutex;
using Orbel::MutexLock;

struct sEventConfig {
    std::string socketPath;
    unsigned queueLimit = 1000;        // the store queues' "QueueLimit"
    size_t historySize = 1024;         // payloads kept for "Last-Event-ID"
    size_t maxStreams = 4;             // open SSE streams (each holds a worker thread)
    size_t maxSubscriptions = 16;      // push subscriptions
    size_t destinationBacklog = 2048;  // payloads waiting for one stream or subscription
    int retryAttempts = 3;             // DeliveryRetryAttempts
    int retryIntervalSeconds = 5;      // DeliveryRetryIntervalSeconds
};

class EventService {
public:
    // Checks a request's credentials; fills `*user` and returns true when
    // they name a user. (Basic authentication today; sessions slot in here.)
    using Authenticator = std::function<bool(const httplib::Request&, sUser*)>;

    EventService(sEventConfig config, const MessageRegistry& registry, Authenticator auth);
    ~EventService();
    EventService(const EventService&) = delete;
    EventService& operator=(const EventService&) = delete;

    // Starts taking the store's queues. False, with the reason, when the
    // store cannot be prepared. `server` is polled so streams end with it.
    bool Start(const httplib::Server* server, std::string* error);
    // Closes every stream, ends the subscriptions' threads and the consumer.
    void Stop();

    // True for the URIs this service answers (below /redfish/v1/EventService).
    static bool Owns(const std::string& path);
    // Answers one request for such a URI; returns the user's name for the
    // access line ("" when unauthenticated).
    std::string Serve(const httplib::Request& req, httplib::Response& res);
    // Adds the "EventService" link to the service root's document.
    static void LinkFromRoot(nlohmann::json* root);

    struct sPublished;    // one payload with its number (EventService.cpp)
    struct sDestination;  // a stream or a subscription

    // Hands one payload to the history and every destination (the
    // consumer's sink; public for the tests).
    void Publish(sQueuedPayload&& payload);

private:
    struct sCall;
    void _Root(sCall& call);
    void _Collection(sCall& call);
    void _Member(sCall& call, const std::string& id, const std::string& action);
    void _Stream(sCall& call);
    void _SubmitTestEvent(sCall& call);
    void _Create(sCall& call);
    void _Error(sCall& call, int status, const std::string& messageId,
                const nlohmann::json& args = nlohmann::json::array(),
                const std::string& text = std::string());
    nlohmann::json _ServiceDoc();
    nlohmann::json _DestinationDoc(const sDestination& d);
    void _Push(std::shared_ptr<sDestination> d);
    void _Remove(const std::string& id);

    // Constant after construction.
    const sEventConfig mConfig;
    const MessageRegistry& mRegistry;
    const Authenticator mAuth;
    std::unique_ptr<EventQueueConsumer> mConsumer;
    const httplib::Server* mServer = nullptr;  // no lock: set by Start, before the server listens

    Mutex mMutex;
    CondVar mThreadsDone;
    uint64_t mSeq GUARDED_BY(mMutex) = 0;
    std::deque<std::shared_ptr<const sPublished>> mHistory GUARDED_BY(mMutex);
    std::map<std::string, std::shared_ptr<sDestination>> mDests GUARDED_BY(mMutex);
    unsigned mNextId GUARDED_BY(mMutex) = 1;
    unsigned mPushThreads GUARDED_BY(mMutex) = 0;
    std::map<std::string, bool> mResourceTypes GUARDED_BY(mMutex);
    int mRetryAttempts GUARDED_BY(mMutex);
    int mRetryInterval GUARDED_BY(mMutex);
    std::atomic<bool> mStopping{false};
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_EVENTSERVICE_H
