// A Redfish resource: a tree node with its own URI, owned by a schema.
//
// A new resource is stored complete at once: its default OData properties,
// and, per request method its schema serves, the list of channels on which
// the front end publishes requests for it (docs/wire-protocol.md, section 2).
// The resource enters its schema's resource map (by resource name; an empty
// name means "use the URI") and leaves it when it is retired.
//
// A resource can be locked by one request thread at a time (nested locks by
// the same thread count), and it defers to the front end's own lock key while
// the front end is still taking a previous response.
//
// Threads: as ZObject. The lock state has its own mutexes; the private data
// and settings are meant to be set by the thread that creates the resource.
#ifndef ORBEL_ZRESOURCE_H
#define ORBEL_ZRESOURCE_H

#include <atomic>
#include <cstdint>
#include <string>

#include "Orbel_Mutex.h"
#include "ZObject.h"

namespace Orbel {

class ZJsonArray;
class ZSchema;

class ZResource : public ZObject {
public:
    // Class attribute bits. Bits 0 and 1 are the node attributes RawJson and
    // MultiBackend (ZObject::ATTR_*): a resource does not inherit
    // MultiBackend, it is asked for here.
    static constexpr uint32_t RES_ATTR_EnableChecklist = 4u;  // "&&EnableChecklist" = true
    // On a collection the same bit asks reads to recount the members.
    static constexpr uint32_t RES_ATTR_MemberCount = 4u;

    // Lock flags.
    static constexpr uint32_t LOCK_IGNORE_CORVEL_KEY = 1u;  // do not wait for the front end's key

    // The lock key's expiry, seconds.
    static constexpr unsigned int kCorvelLockKeySeconds = 20;

    enum eResStatus : uint32_t {
        eResIdle = 0,   // not locked
        eResBusy = 1,   // locked by a request thread
        eResDied = 2,   // retired
    };

    typedef void (*RecyclePrivDataCallback_t)(void* data);

    // Builds the resource below `parent` (null for the service root), runs
    // Initial() and stores the default contents. `schema` may be null only
    // for tests and tools; `name` defaults to the URI.
    ZResource(ZObject* parent, ZSchema* schema, const std::string& id,
              const std::string& name = std::string(), uint32_t attributes = 0);
    ~ZResource() override;

    ZSchema* OwnedBySchema() const { return mSchema; }
    uint32_t Attributes() const { return mClassAttributes; }

    std::string GetOdataId();
    void SetOdataId(const std::string& odataId);
    // Recomputes "@odata.id" (for a resource embedded in a JSON array: the
    // owning resource's URI + "#/" + the array's path + "/" + position).
    void UpdateOdataId();

    // Lock. timeoutMs > 0 polls every 100 ms up to that long; <= 0 tries
    // once. Returns 0, RT_BUSY when someone else holds it (or the front
    // end's key outlives the budget), 2 for a died or invalid resource.
    // Gives up early when the application exits.
    eRtCode Lock(int timeoutMs, uint32_t flags = 0);
    eRtCode Unlock();
    // The thread holding the lock (0 when free) and the nesting depth.
    unsigned long LockOwner();
    int LockDepth();
    void GetStatus(eResStatus& status, bool& lockedByMe);

    // The front end's lock: "&&ResourceLock:<URI>" = `value`, 20 s expiry.
    // Returns the key, or "" on failure (logged).
    std::string CreateCorvelLockKey(redisContext* c, const std::string& value);
    // "" before the resource has its URI.
    std::string GetCorvelLockKey() const;
    bool IsCorvelLockKeyExist();

    // Time-to-live of the stored content, seconds (0: none).
    void SetTTL(uint16_t seconds) { mTTL = seconds; }
    uint16_t GetTTL() const { return mTTL; }
    // Records now + TTL in the "&&TTL" hash (removes the field for TTL 0).
    eRtCode UpdateTtlTable();

    // Private data of the plug-in, freed through `recycle` when the resource
    // is retired. Both must be non-null.
    eRtCode SetPrivateData(void* data, RecyclePrivDataCallback_t recycle);
    void* GetPrivateData() const { return mPrivateData; }

    // Methods the resource allows (ZSchema::CRUDQ_* bits).
    void ResetAllowMethod(uint32_t methods) { mAllowMethods = methods; }
    uint32_t GetAllowMethod() const { return mAllowMethods; }

    void SetUserInTemplateFilePath(const std::string& path) { mUserInTemplatePath = path; }
    void SetUserInTemplateMultiExtInfoMode(bool on) { mUserInTemplateMultiExtInfo = on; }
    void GetUserInTemplateParams(std::string& path, bool& multiExtInfo) const {
        path = mUserInTemplatePath;
        multiExtInfo = mUserInTemplateMultiExtInfo;
    }

    // Store side of the change queue (called while applying): ZObject's
    // hash commands, shared with ZJsonObject; clearing also drops the
    // resource's "&&TTL" entry.
    eRtCode AppendProperty(redisContext* c, const std::string& key, const std::string& value);
    eRtCode RemoveProperty(redisContext* c, const std::string& key);
    eRtCode CleanPropertiesFromRedis(redisContext* c);

    // Called by ObjDestroy: leaves the schema's map, recycles the private data.
    void ResourceDestroy();

protected:
    // For derived node types (collections): builds the ZObject part only;
    // the derived constructor runs Initial() and the default contents.
    ZResource(ZObject* parent, ZSchema* schema, eType type, const std::string& id,
              const std::string& name, uint32_t attributes);
    // Initial(), the schema's map and the default contents (without apply).
    bool _InitResource();
    void _InitFillDefaultContents();
    void _InitFillCRUDChannel(ZJsonArray* channelArray, int method);
    // A member leaving its collection's "Members" tells the collection its id.
    void _ReleaseMemberId();

    ZSchema* const mSchema;
    const uint32_t mClassAttributes;

private:
    // Short sections only; no call into another node or the store under it.
    Mutex mLockMutex;
    // Empty while "@odata.id" is the URI (nearly every resource): only an
    // embedded resource keeps a text of its own.
    std::string mOdataId GUARDED_BY(mLockMutex);
    unsigned long mLockOwner GUARDED_BY(mLockMutex) = 0;
    int mLockDepth GUARDED_BY(mLockMutex) = 0;

    // No lock for the plug-in's settings (mTTL, mPrivateData, mRecyclePrivData,
    // mAllowMethods, the template path and mode): the plug-in sets them while
    // it builds the resource, before a dispatcher serves it.
    uint16_t mTTL = 0;
    // False once the store is known to hold no "&&TTL" field of this
    // resource: a read of a resource without a time-to-live then costs no
    // HDEL. True until then (a field may be left from an earlier run).
    std::atomic<bool> mTtlFieldMayExist{true};
    void* mPrivateData = nullptr;
    RecyclePrivDataCallback_t mRecyclePrivData = nullptr;
    uint32_t mAllowMethods = 0;
    std::string mUserInTemplatePath;
    bool mUserInTemplateMultiExtInfo = false;

};

}  // namespace Orbel

#endif  // ORBEL_ZRESOURCE_H
