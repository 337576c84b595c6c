// The store side of one HTTP request in the development front end: reading
// resources as the front end serves them, and sending a request to a
// plug-in's channel and taking its answer (docs/wire-protocol.md, sections
// 2, 5, 6 and 8, front-end side).
//
// Threads: one object per HTTP request, used by the worker thread that
// serves it. It owns its two connections (commands, and one listening on a
// return channel of its own), so requests proceed in parallel without
// sharing a hiredis context.
#ifndef ORBEL_FRONTEND_STOREREQUEST_H
#define ORBEL_FRONTEND_STOREREQUEST_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace OrbelFrontEnd {

// A request body as stored under "&&RequestData": the commands that write
// its tree, and every key they touch (deleted once the answer is taken).
struct sBodyTree {
    std::vector<std::vector<std::string>> commands;
    std::vector<std::string> keys;
};

// Why a body cannot be stored: a Base message id and its two arguments.
struct sBodyFault {
    std::string messageId;
    nlohmann::json args = nlohmann::json::array();
};

// Bounds a plug-in reads a body within; a deeper or larger one is refused
// before it is sent.
constexpr unsigned kBodyMaxDepth = 32;
constexpr unsigned kBodyMaxValues = 4096;

// Turns a JSON body (object or array) into the request-data tree rooted at
// `rootKey`. Returns false with `*fault` set when it cannot be carried: a
// name or string with an apostrophe, a NUL byte or (names) a quote,
// backslash or control byte, a link name that is not one word, more than
// kBodyMaxDepth levels or kBodyMaxValues values, or a body that is neither
// an object nor an array.
bool BuildBodyTree(const nlohmann::json& body, const std::string& rootKey, sBodyTree* tree,
                   sBodyFault* fault);

class StoreRequest {
public:
    struct sAnswer {
        bool answered = false;  // the key came back in time
        bool noListener = false;  // PUBLISH reached nobody: no plug-in serves the channel
        std::map<std::string, std::string> hash;  // the request hash as answered
        std::string status;                       // "&&ReturnStatus"
        nlohmann::json messages = nlohmann::json::array();  // stored messages, unexpanded
        std::string responseData;  // document of "&&ResponseData" ("" without)
        std::vector<std::string> keptKeys;  // "PROCESSING": the body's keys, left for the task
        bool documentRead = false;  // `alsoRead` was read into `document`
        std::string document;       // its document on one line
    };

    explicit StoreRequest(const std::string& socketPath);
    ~StoreRequest();
    StoreRequest(const StoreRequest&) = delete;
    StoreRequest& operator=(const StoreRequest&) = delete;

    bool Connected() const { return mCmd != nullptr; }

    // What a request needs to know of a resource, in one round trip.
    struct sResourceInfo {
        bool resource = false;  // as IsResource
        bool locked = false;    // its resource lock is held
        std::map<std::string, std::string> channels;  // queue word -> first channel
        bool fresh = false;     // "&&TTL" says the stored content may still be served
    };
    // Fills `*info` for `uri` (the queue words GETQ, PATCHQ, POSTCREATEQ,
    // POSTACTIONQ, DELETEQ); false when the store cannot be asked.
    bool Describe(const std::string& uri, sResourceInfo* info);

    // True when `uri` names a resource: a hash holding "@odata.id" (or a
    // RawJson resource's "&&RawJSON"). Nested objects, message lists and
    // response data hold neither and are not served.
    bool IsResource(const std::string& uri);
    // The first channel of the resource's queue list for `queueWord`
    // ("GETQ", "PATCHQ", ...), "" when it lists none.
    std::string Channel(const std::string& uri, const std::string& queueWord);
    // One field of a hash, "" when missing.
    std::string Field(const std::string& key, const std::string& field);
    // Waits up to `timeoutMs` while the resource lock of `uri` is held;
    // true when it is free.
    bool WaitUnlocked(const std::string& uri, int timeoutMs);
    // The "@odata.type" values of every resource below /redfish/v1.
    std::set<std::string> ResourceTypes();
    // Waits up to `timeoutMs` for `field` to appear in hash `key`; true
    // when it did.
    bool WaitField(const std::string& key, const std::string& field, int timeoutMs);
    // The document of `jpath` on one line; false when it cannot be read.
    bool ReadDoc(const std::string& jpath, std::string* json);

    // The request's hash key (unique per object and process), and the key
    // under which its body's tree is rooted.
    const std::string& Key() const { return mKey; }
    std::string RequestDataKey() const { return "&&" + mKey + "/RequestData"; }

    // Writes `body` when not null and the request hash `fields` (the return
    // channel and, with a body, "&&RequestData" are added), publishes the
    // key on `channel`, waits up to `timeoutMs` and reads the answer. Then
    // the request hash, the body's keys and the lock key the answer names
    // are deleted (for "PROCESSING" only the lock key: the task answers into
    // the hash later). The answer, the documents it names, the document of
    // `alsoRead` (when given) and the clean-up take one round trip (one
    // script run), so the documents are read before the lock is released.
    // One call per object.
    sAnswer Send(const std::string& channel, std::map<std::string, std::string> fields,
                 const sBodyTree* body, int timeoutMs, const std::string& alsoRead = "");

    // A read of `uri` in one round trip up to the plug-in's answer: fills
    // `*info` as Describe and, when the resource has a read channel and is
    // not fresh, forwards the read with `fields` as Send does (`*forwarded`
    // set, `*answer` as Send gives it, with the document of `uri`). False
    // when the store cannot be asked.
    bool Read(const std::string& uri, std::map<std::string, std::string> fields, int timeoutMs,
              sResourceInfo* info, sAnswer* answer, bool* forwarded);

    // The front end's preparation of a task for this request
    // (TaskFollower::Prepare): the task monitor URL for "&&Task", or "".
    std::string PrepareTask();
    // Undoes PrepareTask for a request that was not answered "PROCESSING".
    void DiscardTask(const std::string& taskURL);

private:
    bool _Wait(const std::string& key, int timeoutMs);
    // Send's second half, after the wait: reads the answer, its documents and
    // `alsoRead`, and cleans up (`mayKeep`: a task may keep the request).
    sAnswer _Collect(sAnswer answer, bool mayKeep, const sBodyTree* body,
                     const std::string& alsoRead);
    // Describe's result from its ten replies.
    static void FillInfo(const redisReply* const* replies, sResourceInfo* info);

    redisContext* mCmd = nullptr;
    redisContext* mListen = nullptr;
    std::string mSocket;
    std::string mReturnChannel;
    std::string mKey;
};

}  // namespace OrbelFrontEnd

#endif  // ORBEL_FRONTEND_STOREREQUEST_H
