// The computer systems as the platform changes them: a system plugged in
// or pulled out while the plug-in runs.
//
// The platform announces it with the VEX event "SampleSystemPresence",
// payload "present" or "absent" (on a development host:
// `orbel-sim event raise SampleSystemPresence present`). Nobody sent a
// request, so the change goes through the schema's backend paths:
// DoBackend_Create builds the new member through BackendMethod_CREATE and
// unlocks it when the handler is done; DoBackend_Delete locks the member,
// and BackendMethod_DELETE raises an alert event (with the machine's
// identity in its OEM block) before it retires the member.
//
// Threads: the VEX event thread runs all of it, one event at a time.
#include <string>

#include "Backend_MethodContext.h"
#include "ComputerSystemSchema.h"
#include "SampleSystemData.h"
#include "SystemsSchema.h"
#include "ZApplication.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZRedfishEvent.h"
#include "ZResourceCollection.h"

using Orbel::eRtCode;
using Orbel::ZObject;
using Orbel::ZResource;

void ComputerSystemSchema::OnPresenceEvent(EVENT_TYPE, char* eventName, int dataLen, void* data) {
    std::string payload;
    if (data != nullptr && dataLen > 0) payload.assign(static_cast<const char*>(data), dataLen);
    while (!payload.empty() && (payload.back() == '\n' || payload.back() == ' '))
        payload.pop_back();
    auto* self = dynamic_cast<ComputerSystemSchema*>(Orbel::zApp->GetSchemaObj("ComputerSystem"));
    if (self == nullptr) return;  // left out with -e

    std::string uri;
    {
        Orbel::MutexLock lock(self->mHotPlugMutex);
        uri = self->mHotPlugUri;
    }
    if (payload == "present" && uri.empty()) {
        self->DoBackend_Create(nullptr);
    } else if (payload == "absent" && !uri.empty()) {
        self->DoBackend_Delete(uri, nullptr);
    } else {
        // Repeated or unknown news changes nothing.
        ZLOG(eZLogWarning, "VEX event[%s]: '%s' ignored (plugged-in system[%s]).\n", eventName,
             payload.c_str(), uri.c_str());
    }
}

eRtCode ComputerSystemSchema::BackendMethod_CREATE(Orbel::Backend_MethodContext* ctx, void*) {
    ZResource* found = Orbel::zApp->GetResource(SystemsSchema::kUri);
    if (found == nullptr || found->GetType() != ZObject::eResourceCollection) {
        return Orbel::RT_FAILURE;
    }
    auto* systems = static_cast<Orbel::ZResourceCollection*>(found);
    ZResource* system = systems->CreateMember(this);
    if (system == nullptr) return Orbel::RT_FAILURE;
    // A request for the new member waits until it is complete; the backend
    // path unlocks it.
    system->Lock(-1, ZResource::LOCK_IGNORE_CORVEL_KEY);
    ctx->AssignNewInstance(system);
    system->SetPrivateData(
        new sSystemData{kRecordForNewSystems, "On", "Plugged-in System", false, true},
        RecycleSystemData);
    if (_FillSystem(system) != Orbel::RT_SUCCESS) {
        system->ObjDestroy(ZObject::eDestroyDelete, true);
        return Orbel::RT_FAILURE;
    }
    ZObject* status = system->GetChild("Status", true);
    if (status != nullptr) {
        status->HashWrite("State", "Enabled");
        status->ApplyRedisChanges(false, ctx->GetRedisContext());
    }
    {
        Orbel::MutexLock lock(mHotPlugMutex);
        mHotPlugUri = system->GetJPath();
    }
    ZLOG(eZLogInfo, "System[%s] plugged in.\n", system->GetJPath().c_str());
    return Orbel::RT_SUCCESS;
}

eRtCode ComputerSystemSchema::BackendMethod_DELETE(Orbel::Backend_MethodContext* ctx, void*) {
    ZResource* system = ctx->GetTargetResource();
    const std::string uri = system->GetJPath();

    // The alert names the system while it still exists: the record links to
    // it as the origin of the condition.
    auto* event = new Orbel::ZRedfishEvent("System removed");
    Orbel::ZJsonObject* record =
        event->CreateEventRecord("ResourceEvent.1.0", "ResourceRemoved", "Warning",
                                 "The system " + uri + " was removed from the platform.", system);
    // The machine's UUID, serial number and type-model.
    if (record != nullptr) event->EventRecord_NewAlertOemObj(record);
    Orbel::ZApplication::SendRedfishEvent(event);  // stores, queues and deletes it

    // Leaves "Members" and the store.
    system->ObjDestroy(ZObject::eDestroyDelete, true);
    {
        Orbel::MutexLock lock(mHotPlugMutex);
        mHotPlugUri.clear();
    }
    ZLOG(eZLogInfo, "System[%s] pulled out.\n", uri.c_str());
    return Orbel::RT_SUCCESS;
}
