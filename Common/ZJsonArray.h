// A JSON array of the resource tree, stored as one Redis list under its
// JPath. Its elements are value texts or node texts (docs/wire-protocol.md).
//
// The array keeps the nodes written into it (its member objects) in the order
// they were added, and, with class attribute bit 0, publishes its length in
// the parent's hash as <name>@odata.count after every applied change.
//
// Threads: as ZObject; the member vector and the published count have their
// own lock.
#ifndef ORBEL_ZJSONARRAY_H
#define ORBEL_ZJSONARRAY_H

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "Orbel_Mutex.h"
#include "ZObject.h"

namespace Orbel {

struct sRedisDeferredReply;

class ZJsonArray : public ZObject {
public:
    // Class attribute: publish the element count in the parent.
    static constexpr uint32_t ARRAY_ATTR_OdataCount = 1u;
    // Class attribute: a resource's request channel list ("<app>:<schema>:
    // <word>" elements). Several plug-ins may list their channels in it, so
    // clearing it removes only this application's channels, never another
    // process's (a restarting owner keeps the channels of the others).
    static constexpr uint32_t ARRAY_ATTR_ChannelList = 2u;

    // Runs Initial(), then writes <name>@odata.count = 0 into the parent
    // (with ARRAY_ATTR_OdataCount), or, on a MultiBackend node, takes the
    // node texts other backends stored under the JPath as existing members.
    ZJsonArray(ZObject* parent, const std::string& name, uint32_t attributes = 0);
    ~ZJsonArray() override;

    uint32_t Attributes() const { return mClassAttributes; }

    // Member objects (nodes written into the array).
    eRtCode AddObjectItem(ZObject* obj);  // a duplicate is logged and ignored
    eRtCode DelObjectItem(ZObject* obj);
    int GetIdxByObject(ZObject* obj);     // -1 when absent
    void GetMemberObjects(std::vector<ZObject*>& out);
    void DumpMemberObjs();
    void CleanObjectItem();

    // The element count in the store (0 when it cannot be read, logged).
    unsigned int ItemNum();

    // Writes at once on `c`, outside the change queue (an apply sends its
    // own pipeline); each refreshes the parent's count.
    eRtCode AppendItem(redisContext* c, const std::string& value);
    eRtCode UpdateItem(redisContext* c, const std::string& index, const std::string& value);
    eRtCode RemoveItem(redisContext* c, const std::string& text);
    // Writes <name>@odata.count into the parent when the stored length
    // changed since the last publication. `c` may be null.
    eRtCode UpdateParentOdataCount(redisContext* c);
    // The same with the stored length `length` already read by the caller
    // (an apply reads it in its own round trip).
    eRtCode PublishCount(redisContext* c, long long length);
    // Whether the array publishes its count in its parent.
    bool PublishesCount();
    eRtCode CleanItemsFromRedis(redisContext* c);
    // A channel list whose clearing left other processes' channels in it.
    // Read by the thread that made the array, right after its constructor.
    bool KeptForeignChannels() const { return mKeptForeignChannels; }
    // While the constructor's clearing of a channel list waits for its read
    // (a deferred write, RedisDeferredWrites), keeps `channel` to be put into
    // the list right after the clearing, and returns true; false when the
    // clearing is done and the caller puts it there itself.
    bool PushChannelAfterClear(const std::string& channel);

    // Deletes the parent's <name>@odata.navigationLink and <name>@odata.count
    // fields, then retires the array.
    void _Destroy(eDestroyMode mode, bool clearStore);

private:
    void _InitFillDefaultContents();
    void _InitMultiBackendMembers();
    static void _OnChannelsRead(void* arg, const sRedisDeferredReply& reply);
    // Member bookkeeping.
    bool _IsMemberLocked(ZObject* obj) const REQUIRES(mMemberMutex);
    void _AddMemberLocked(ZObject* obj) REQUIRES(mMemberMutex);

    // From this many members on, an array also keeps mMemberIndex, so that
    // the duplicate check of an append does not search the whole vector (a
    // collection's "Members" is checked once per new member). Smaller arrays,
    // nearly all of them, spend no memory on it.
    static constexpr size_t kMemberIndexFrom = 32;

    const uint32_t mClassAttributes;
    Mutex mMemberMutex;
    std::vector<ZObject*> mMembers GUARDED_BY(mMemberMutex);
    // Null below kMemberIndexFrom.
    std::unique_ptr<std::unordered_set<ZObject*>> mMemberIndex GUARDED_BY(mMemberMutex);
    int32_t mPublishedCount GUARDED_BY(mMemberMutex) = -1;
    // No lock: set by the constructor and read right after it by the same thread.
    bool mKeptForeignChannels = false;
    // The same thread: set while a deferred clearing of the channel list
    // waits for its read; it carries the channel to put in after it (see
    // PushChannelAfterClear).
    struct sChannelClear;
    sChannelClear* mPendingClear = nullptr;
};

}  // namespace Orbel

#endif  // ORBEL_ZJSONARRAY_H
