// A front-end driver: does with the store what the front end does, so tests
// (and benchmarks) can send real requests to a plug-in's dispatchers.
//
// One request: the driver writes the request hash (the "&&" meta keys) and,
// when there is a body, its request-data tree, publishes the hash's key on
// the schema's channel, waits a bounded time for the key on its own return
// channel, and reads back the answered hash and the documents it names
// (extended info, response data). It then deletes the resource lock key the
// answer names, as the front end does once it has taken a response.
//
// Threads: one driver per thread. It owns two connections (a command one and
// one listening on its return channel) and no global state, so several
// drivers can load a plug-in in parallel.
#ifndef ORBEL_TEST_FRONTEND_H
#define ORBEL_TEST_FRONTEND_H

#include <hiredis/hiredis.h>

#include <map>
#include <string>
#include <vector>

namespace OrbelTest {

class FrontEnd {
public:
    using Fields = std::map<std::string, std::string>;

    // A request body as the front end stores it: the top hash's fields (value
    // texts such as "\"text\"", "3", "true", or link forms such as
    // "&&Object Boot <key>"), plus the nested tables they link, by key.
    struct Body {
        Fields top;
        std::map<std::string, Fields> hashes;
        std::map<std::string, std::vector<std::string>> lists;
    };

    struct Answer {
        bool answered = false;  // the key came back on the return channel in time
        std::string key;        // the request hash's key
        Fields hash;            // the request hash after the answer
        std::string status;     // "&&ReturnStatus"
        std::string extInfo;    // the document of "&&ExtendedInfo" ("" without)
        std::string responseData;  // the document of "&&ResponseData" ("" without)
        double micros = 0;      // publish to answer
    };

    // `name` makes the return channel and request keys unique per driver.
    explicit FrontEnd(const std::string& name = "FE");
    ~FrontEnd();
    FrontEnd(const FrontEnd&) = delete;
    FrontEnd& operator=(const FrontEnd&) = delete;

    bool Ready() const { return mCmd != nullptr && mListen != nullptr; }
    const std::string& ReturnChannel() const { return mReturnChannel; }

    // The request hash of the next request: method, target, return channel,
    // the request-data key when `withBody`, and a logged-in user with Login
    // and ConfigurationNetworkingAndSecurity (BasicAuth); `extra` adds or
    // replaces fields (an empty value removes one).
    Fields RequestFields(const std::string& method, const std::string& uri, bool withBody,
                         const Fields& extra = Fields()) const;
    std::string NextKey() const;
    std::string RequestDataKey(const std::string& reqKey) const { return "&&" + reqKey + "/RequestData"; }

    // Sends one request and waits up to `timeoutMs` for its answer.
    Answer Send(const std::string& channel, const Fields& request, const Body* body = nullptr,
                int timeoutMs = 5000, bool releaseLock = true);
    // As Send, with the usual request fields.
    Answer Send(const std::string& channel, const std::string& method, const std::string& uri,
                const Body* body = nullptr, const Fields& extra = Fields());
    // Prepares a task for the request `reqKey` as the front end does before
    // forwarding it (the Task resource and its mapping entry); the result is
    // the task monitor URL for the request's "&&Task".
    std::string PrepareTask(const std::string& reqKey);
    // Publishes `message` on `channel` as it is (e.g. "QUIT" or a key that
    // names no hash) and waits up to `timeoutMs` for anything on the return
    // channel: true when something came.
    bool PublishAndWait(const std::string& channel, const std::string& message, int timeoutMs);

private:
    bool _Connect();
    bool _Relisten();
    bool _Wait(const std::string& key, int timeoutMs);
    std::string _Doc(const std::string& jpath);

    std::string mName;
    std::string mReturnChannel;
    mutable unsigned mSeq = 0;
    redisContext* mCmd = nullptr;
    redisContext* mListen = nullptr;
};

}  // namespace OrbelTest

#endif  // ORBEL_TEST_FRONTEND_H
