// The store side of the change queue shared by the node types: the hash
// commands of JSON objects, resources and collections, and the record of
// what a MultiBackend node wrote into a key it shares with other backends.
#include <mutex>
#include <set>
#include <string>

#include "RedisCli.h"
#include "ZObject.h"

namespace Orbel {

// Several backends fill one MultiBackend key; each clears only its own
// fields or items, which sWrittenTexts records. Only such nodes make one.

void ZObject::_NoteWritten(const std::string& text) {
    sWrittenTexts* written = mWritten.load();
    if (written == nullptr) {
        // Two first writers may race: one set wins, the other is dropped.
        auto* made = new sWrittenTexts();
        if (mWritten.compare_exchange_strong(written, made)) {
            written = made;
        } else {
            delete made;  // `written` now holds the winner
        }
    }
    std::lock_guard<std::mutex> lock(written->mutex);
    written->texts.insert(text);
}

bool ZObject::_ForgetWritten(const std::string& text) {
    sWrittenTexts* written = mWritten.load();
    if (written == nullptr) return false;
    std::lock_guard<std::mutex> lock(written->mutex);
    return written->texts.erase(text) != 0;
}

std::set<std::string> ZObject::_TakeWritten() {
    std::set<std::string> texts;
    sWrittenTexts* written = mWritten.load();
    if (written == nullptr) return texts;
    std::lock_guard<std::mutex> lock(written->mutex);
    texts.swap(written->texts);
    return texts;
}

eRtCode ZObject::_HashFieldSet(redisContext* c, const std::string& key, const std::string& value) {
    // A shared resource's "@odata." fields describe the resource itself, the
    // same from every backend: one backend leaving must not take them along.
    if ((mAttribute & ATTR_MultiBackend) != 0 &&
        !(IsResourceType() && key.compare(0, 7, "@odata.") == 0)) {
        _NoteWritten(key);
    }
    return RedisHashSet(c, mJPath.c_str(), key.c_str(), value.c_str());
}

eRtCode ZObject::_HashFieldDel(redisContext* c, const std::string& key) {
    if ((mAttribute & ATTR_MultiBackend) != 0) _ForgetWritten(key);
    return RedisHashDel(c, mJPath.c_str(), key.c_str());
}

eRtCode ZObject::_HashClean(redisContext* c) {
    if ((mAttribute & ATTR_MultiBackend) == 0) return RedisDelTable(c, mJPath.c_str());
    // Other backends' fields in the same hash stay.
    eRtCode rt = RT_SUCCESS;
    for (const std::string& field : _TakeWritten()) {
        if (RedisHashDel(c, mJPath.c_str(), field.c_str()) != RT_SUCCESS) rt = RT_FAILURE;
    }
    return rt;
}

}  // namespace Orbel
