// The requests the computer systems serve. Each handler runs on one of the
// schema's dispatcher threads with its target locked, reads the client's
// body through the context's typed getters, changes the member's nodes,
// applies them, and leaves the answer (status, messages, location, response
// data) in the context; the library writes it for the front end.
//
// Before a handler runs, the library has checked the body against the
// schema's template (ComputerSystem.dat, generated from the standard's
// schema): unknown and read-only properties, types and enumerations are
// answered already. The handlers check only what this sample narrows
// further: the properties it keeps and the values its backend supports.
#include <set>
#include <string>

#include "ComputerSystemSchema.h"
#include "HTTP_MethodContext.h"
#include "SampleSystemData.h"
#include "ZLogPrint.h"
#include "ZResourceCollection.h"

using Orbel::eRtCode;
using Orbel::HTTP_MethodContext;
using Orbel::ZObject;
using Orbel::ZResource;

namespace {

const std::set<std::string> kBootTargets = {"None", "Pxe", "Hdd", "Usb", "Cd", "BiosSetup"};
const std::set<std::string> kBootEnabled = {"Disabled", "Once", "Continuous"};

sSystemData* DataOf(HTTP_MethodContext* ctx) {
    ZResource* system = ctx->GetTargetResource();
    return system != nullptr ? static_cast<sSystemData*>(system->GetPrivateData()) : nullptr;
}

// A failure of the client's making: status "FAILURE" with its message.
eRtCode Refuse(HTTP_MethodContext* ctx, Orbel::sExtendedInfo* info) {
    ctx->SetReturnStatus(Orbel::HTTP_RT_FAILURE, info);
    return Orbel::RT_SUCCESS;  // answered; not a fault of the plug-in
}

// A client's AssetTag (a text, or null to clear it), when the body has one:
// written to the member and to its data, which the caller keeps.
void TakeAssetTag(HTTP_MethodContext* ctx, ZResource* system, sSystemData* data) {
    auto it = ctx->GetUserInCache().find("/AssetTag");
    if (it == ctx->GetUserInCache().end()) return;
    data->hasAssetTag = it->second.type != Orbel::USRIN_NULL;
    data->assetTag = data->hasAssetTag ? it->second.value : std::string();
    if (data->hasAssetTag) {
        system->HashWrite("AssetTag", data->assetTag);
    } else {
        system->HashWrite("AssetTag");
    }
}

// An AssetTag longer than the platform's settings can keep is refused: an
// acknowledged value must survive a restart.
bool AssetTagFits(HTTP_MethodContext* ctx) {
    auto it = ctx->GetUserInCache().find("/AssetTag");
    if (it == ctx->GetUserInCache().end() || it->second.value.size() <= kMaxAssetTag) return true;
    Orbel::sExtendedInfo* info = ctx->NewExtendedInfo(Orbel::RESP_Base_StringValueTooLong);
    ctx->ExtendedInfo_AppendMsgArg(info, it->second.value);
    ctx->ExtendedInfo_AppendMsgArg(info, static_cast<unsigned int>(kMaxAssetTag));
    ctx->SetReturnStatus(Orbel::HTTP_RT_FAILURE, info);
    return false;
}

}  // namespace

eRtCode ComputerSystemSchema::HttpMethod_READ(HTTP_MethodContext* ctx) {
    // A value the backend owns is refreshed before the front end reads the
    // stored document.
    sSystemData* data = DataOf(ctx);
    if (data == nullptr) return Orbel::RT_FAILURE;
    ZResource* system = ctx->GetTargetResource();
    system->HashWrite("PowerState", data->powerState);
    return system->ApplyRedisChanges(false, ctx->GetRedisContext());
}

eRtCode ComputerSystemSchema::HttpMethod_UPDATE(HTTP_MethodContext* ctx) {
    ZResource* system = ctx->GetTargetResource();
    ZObject* boot = system->GetChild("Boot", true);
    // Check everything first: a PATCH changes all it asks for or nothing.
    // The standard lets a client write more than this sample keeps; those
    // properties are answered as not writable here.
    bool refused = false;
    for (const auto& entry : ctx->GetUserInCache()) {
        const std::string& jpath = entry.first;
        const Orbel::sUsrInCacheItem& item = entry.second;
        const std::string name = jpath.substr(jpath.rfind('/') + 1);
        if (jpath == "/Boot" || jpath == "/AssetTag" || jpath == "/LocationIndicatorActive") continue;
        const std::set<std::string>* allowed =
            jpath == "/Boot/BootSourceOverrideTarget"    ? &kBootTargets
            : jpath == "/Boot/BootSourceOverrideEnabled" ? &kBootEnabled
                                                         : nullptr;
        if (allowed == nullptr) {
            ctx->NewExtendedInfo(Orbel::RESP_Base_PropertyNotWritable, jpath.substr(1).c_str());
            refused = true;
        } else if (allowed->count(item.value) == 0) {
            auto* info = ctx->NewExtendedInfo(Orbel::RESP_Base_PropertyValueNotInList,
                                              item.value.c_str(), name.c_str());
            ctx->ExtendedInfo_AppendRelatedProperty(info, boot, name);
            return Refuse(ctx, info);
        }
    }
    if (refused) return Refuse(ctx, nullptr);
    if (!AssetTagFits(ctx)) return Orbel::RT_SUCCESS;
    sSystemData* data = DataOf(ctx);
    if (data == nullptr) return Orbel::RT_FAILURE;
    std::string text;
    bool on = false;
    TakeAssetTag(ctx, system, data);
    if (ctx->HasUserInputData("/LocationIndicatorActive") &&
        ctx->GetUserInputData("/LocationIndicatorActive", on) == 0) {
        system->HashWrite("LocationIndicatorActive", on);
    }
    for (const char* name : {"BootSourceOverrideTarget", "BootSourceOverrideEnabled"}) {
        const std::string jpath = std::string("/Boot/") + name;
        if (boot != nullptr && ctx->HasUserInputData(jpath) &&
            ctx->GetUserInputData(jpath, text) == 0) {
            boot->HashWrite(name, text);
        }
    }
    // Kept before it is acknowledged (the boot override is not kept: it is
    // the backend's to restore).
    if (ctx->HasUserInputData("/AssetTag") && !SaveSystemState(system->GetId(), data)) {
        system->DiscardRedisChanges(true, nullptr);
        return Orbel::RT_FAILURE;
    }
    return system->ApplyRedisChanges(true, ctx->GetRedisContext());
}

eRtCode ComputerSystemSchema::HttpMethod_CREATE(HTTP_MethodContext* ctx) {
    // The target is the collection; the new member takes a new id.
    ZResource* target = ctx->GetTargetResource();
    if (target == nullptr || target->GetType() != ZObject::eResourceCollection) {
        return Orbel::RT_FAILURE;
    }
    if (!AssetTagFits(ctx)) return Orbel::RT_SUCCESS;
    auto* systems = static_cast<Orbel::ZResourceCollection*>(target);
    // Id and member in one step: a DELETE or a backend create on another
    // thread cannot come between them.
    ZResource* system = systems->CreateMember(this);
    if (system == nullptr) return Orbel::RT_FAILURE;
    const std::string name = "Sample System " + system->GetId();
    auto* data = new sSystemData{kRecordForNewSystems, "Off", name, true};
    system->SetPrivateData(data, RecycleSystemData);
    if (_FillSystem(system) != Orbel::RT_SUCCESS) {
        system->ObjDestroy(ZObject::eDestroyDelete, true);
        return Orbel::RT_FAILURE;
    }
    TakeAssetTag(ctx, system, data);
    // Kept before it is acknowledged: a restart brings the member back.
    if (!SaveSystemState(system->GetId(), data) ||
        system->ApplyRedisChanges(false, ctx->GetRedisContext()) != Orbel::RT_SUCCESS) {
        SaveSystemState(system->GetId(), nullptr);
        system->ObjDestroy(ZObject::eDestroyDelete, true);
        return Orbel::RT_FAILURE;
    }
    ZObject* status = system->GetChild("Status", true);
    if (status != nullptr) {
        status->HashWrite("State", "Enabled");
        status->ApplyRedisChanges(false, ctx->GetRedisContext());
    }
    ctx->AssignNewInstance(system);  // answered as "&&Location"
    return Orbel::RT_SUCCESS;
}

eRtCode ComputerSystemSchema::HttpMethod_DELETE(HTTP_MethodContext* ctx) {
    sSystemData* data = DataOf(ctx);
    if (data == nullptr) return Orbel::RT_FAILURE;
    if (!data->created) {
        // The backend's own systems stay.
        ctx->SetReturnStatus(Orbel::HTTP_RT_NOT_ALLOWED,
                             ctx->NewExtendedInfo(Orbel::RESP_Base_ResourceCannotBeDeleted));
        return Orbel::RT_SUCCESS;
    }
    // Forgotten first: a restart must not bring back what a client deleted.
    if (!SaveSystemState(ctx->GetTargetResource()->GetId(), nullptr)) return Orbel::RT_FAILURE;
    // Retiring the member takes it out of "Members" and deletes its keys.
    ctx->GetTargetResource()->ObjDestroy(ZObject::eDestroyDelete, true);
    ctx->SetReturnStatus(Orbel::HTTP_RT_OK_EMPTY);
    return Orbel::RT_SUCCESS;
}

eRtCode ComputerSystemSchema::ActionReset(HTTP_MethodContext* ctx) {
    sSystemData* data = DataOf(ctx);
    if (data == nullptr) return Orbel::RT_FAILURE;
    std::string type;
    if (!ctx->HasUserInputData("/ResetType") ||
        ctx->GetUserInputData("/ResetType", type) != Orbel::RT_SUCCESS) {
        return Refuse(ctx, ctx->NewExtendedInfo(Orbel::RESP_Base_ActionParameterMissing, "Reset",
                                                "ResetType"));
    }
    const sResetType* found = nullptr;
    for (const sResetType& row : kResetTypes) {
        if (type == row.type) found = &row;
    }
    if (found == nullptr) {
        return Refuse(ctx, ctx->NewExtendedInfo(Orbel::RESP_Base_ActionParameterNotSupported,
                                                type.c_str(), "Reset"));
    }
    // The backend's state changes; the next GET shows it in PowerState. It
    // is kept before it is acknowledged.
    const std::string before = data->powerState;
    data->powerState = found->powerState;
    if (!SaveSystemState(ctx->GetTargetResource()->GetId(), data)) {
        data->powerState = before;
        return Orbel::RT_FAILURE;
    }
    ZObject* result = ctx->NewResponseDataObject(ZObject::eJsonObject);
    if (result == nullptr) return Orbel::RT_FAILURE;
    result->HashWrite("ResetType", type);
    result->HashWrite("PowerState", data->powerState);
    ZLOG(eZLogInfo, "System[%s] reset (%s): power %s.\n", ctx->GetTargetResource()->GetJPath().c_str(),
         type.c_str(), data->powerState.c_str());
    return Orbel::RT_SUCCESS;
}
