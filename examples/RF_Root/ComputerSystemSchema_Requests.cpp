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

// A client's AssetTag (a text, or null to clear it), when the body has one.
void TakeAssetTag(HTTP_MethodContext* ctx, ZResource* system) {
    auto it = ctx->GetUserInCache().find("/AssetTag");
    if (it == ctx->GetUserInCache().end()) return;
    if (it->second.type == Orbel::USRIN_NULL) {
        system->HashWrite("AssetTag");
    } else {
        system->HashWrite("AssetTag", it->second.value);
    }
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
    std::string text;
    bool on = false;
    TakeAssetTag(ctx, system);
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
    return system->ApplyRedisChanges(true, ctx->GetRedisContext());
}

eRtCode ComputerSystemSchema::HttpMethod_CREATE(HTTP_MethodContext* ctx) {
    // The target is the collection; the new member takes a new id.
    ZResource* target = ctx->GetTargetResource();
    if (target == nullptr || target->GetType() != ZObject::eResourceCollection) {
        return Orbel::RT_FAILURE;
    }
    auto* systems = static_cast<Orbel::ZResourceCollection*>(target);
    // Id and member in one step: a DELETE or a backend create on another
    // thread cannot come between them.
    ZResource* system = systems->CreateMember(this);
    if (system == nullptr) return Orbel::RT_FAILURE;
    const std::string name = "Sample System " + system->GetId();
    system->SetPrivateData(new sSystemData{kRecordForNewSystems, "Off", name, true},
                           RecycleSystemData);
    if (_FillSystem(system) != Orbel::RT_SUCCESS) {
        system->ObjDestroy(ZObject::eDestroyDelete, true);
        return Orbel::RT_FAILURE;
    }
    TakeAssetTag(ctx, system);
    if (system->ApplyRedisChanges(false, ctx->GetRedisContext()) != Orbel::RT_SUCCESS) {
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
    // The backend's state changes; the next GET shows it in PowerState.
    data->powerState = found->powerState;
    ZObject* result = ctx->NewResponseDataObject(ZObject::eJsonObject);
    if (result == nullptr) return Orbel::RT_FAILURE;
    result->HashWrite("ResetType", type);
    result->HashWrite("PowerState", data->powerState);
    ZLOG(eZLogInfo, "System[%s] reset (%s): power %s.\n", ctx->GetTargetResource()->GetJPath().c_str(),
         type.c_str(), data->powerState.c_str());
    return Orbel::RT_SUCCESS;
}
