// What the sample keeps of its systems across restarts, in the platform's
// KOBA settings store (docs/store-client.md, "What survives a restart").
//
// The store is a mirror the library writes from the nodes; it is emptied
// when its server restarts, and the plug-in then starts afresh (status 2).
// Whatever the sample acknowledged to a client must therefore live in the
// platform's settings, as it would on a controller: each member's state in
// "RF_Root.System.<id>", written before the answer goes out, and the
// highest member id handed out in "RF_Root.SystemIds" (the collection keeps
// it, ZResourceCollection::KeepMemberIdsIn), so an old URI never names a new
// member.
//
// A state text: kind ('b' a backend record, 'c' made by a client), the
// record digit, power ('1' On, '0' Off), then 'n' for a null AssetTag or
// 't' followed by the tag. An empty text is a member that was deleted.
#include <string>

#include "Orbel.h"
#include "SampleSystemData.h"
#include "ZLogPrint.h"

namespace {

std::string StateName(const std::string& id) {
    return std::string(kSystemStatePrefix) + id;
}

}  // namespace

bool SaveSystemState(const std::string& id, const sSystemData* data) {
    // A plugged-in system is the platform's to announce again after a
    // restart; only its id stays taken (the collection's mark).
    if (data != nullptr && data->hotPlugged) return true;
    std::string text;
    if (data != nullptr) {
        text += data->created ? 'c' : 'b';
        text += static_cast<char>('0' + data->record);
        text += data->powerState == "On" ? '1' : '0';
        text += data->hasAssetTag ? "t" + data->assetTag : "n";
    }
    if (Orbel::SetKOBA(StateName(id), text) != Orbel::RT_SUCCESS) {
        ZLOG(eZLogError, "System[%s]: state not kept.\n", id.c_str());
        return false;
    }
    return true;
}

bool LoadSystemState(const std::string& id, sSystemData& data) {
    std::string text;
    if (Orbel::GetKOBA(StateName(id), text, true) != Orbel::RT_SUCCESS) return false;
    if (text.size() < 4 || (text[0] != 'b' && text[0] != 'c') || text[1] < '0' ||
        text[1] > '9' || (text[3] != 'n' && text[3] != 't')) {
        return false;  // deleted, or nothing this sample wrote
    }
    data.created = text[0] == 'c';
    data.record = text[1] - '0';
    data.powerState = text[2] == '1' ? "On" : "Off";
    data.hasAssetTag = text[3] == 't';
    data.assetTag = data.hasAssetTag ? text.substr(4) : std::string();
    return true;
}
