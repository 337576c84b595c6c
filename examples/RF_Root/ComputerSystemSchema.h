// The computer systems "/redfish/v1/Systems/<n>": the members of the Systems
// collection. Each member is built from a record of a small sample table
// (standing in for what a real plug-in reads from its hardware backend),
// which the resource carries as its private data.
//
// A member shows the kinds of content a resource can have: scalar
// properties of every kind, nested objects (Status, ProcessorSummary,
// MemorySummary, Boot), an array without a count (Boot.BootOrder), arrays
// with "@odata.count" holding links to other members (Links), and a
// property changed once the front end is ready (Status.State).
//
// It also serves requests (ComputerSystemSchema_Requests.cpp): a GET
// refreshes PowerState from the backend record, a PATCH changes AssetTag,
// LocationIndicatorActive and the boot override, a POST into the Systems
// collection adds a member (with an AssetTag when given), a DELETE removes
// one that a POST added, and the action ComputerSystem.Reset changes the
// power state and answers with response data. Two more actions run as tasks
// (ComputerSystemSchema_Tasks.cpp). Every body has been checked
// against the schema's template (ComputerSystem.dat) before a handler runs.
//
// And it follows the platform (ComputerSystemSchema_Backend.cpp): a system
// plugged in or pulled out, announced by the VEX event "SampleSystemPresence"
// ("present" or "absent"), appears in or leaves the collection through the
// backend paths, and its removal raises an alert event.
//
// Threads: the staged hooks run on the application's main thread; the
// request handlers on the schema's dispatcher threads, one request per
// member at a time (the library locks the member around a handler); the
// backend handlers on the VEX event thread, under the same lock.
#ifndef RF_ROOT_COMPUTERSYSTEMSCHEMA_H
#define RF_ROOT_COMPUTERSYSTEMSCHEMA_H

#include <string>
#include <vector>

#include "Orbel_Mutex.h"
#include "vex.h"
#include "ZSchema.h"

class ComputerSystemSchema : public Orbel::ZSchema {
public:
    ComputerSystemSchema();

    // Creates one member of the Systems collection per sample record. Fails
    // (logged) when the collection is missing, e.g. excluded with -e.
    Orbel::eRtCode PreCorvelReady_InitialResources() override;
    // Fills a member from its record: every member exists by then, so links
    // between members can be written.
    Orbel::eRtCode PreCorvelReady_InitResourceData(Orbel::ZResource* system) override;
    // The front end routes requests now: the member goes from "Starting" to
    // "Enabled".
    Orbel::eRtCode PostCorvelReady_InitResourceData(Orbel::ZResource* system) override;
    Orbel::eRtCode PostCorvelReady_AfterTreatment() override;

    Orbel::eRtCode HttpMethod_READ(Orbel::HTTP_MethodContext* ctx) override;
    Orbel::eRtCode HttpMethod_UPDATE(Orbel::HTTP_MethodContext* ctx) override;
    Orbel::eRtCode HttpMethod_CREATE(Orbel::HTTP_MethodContext* ctx) override;
    Orbel::eRtCode HttpMethod_DELETE(Orbel::HTTP_MethodContext* ctx) override;
    // The handler of "ComputerSystem.Reset" (an action callback).
    static Orbel::eRtCode ActionReset(Orbel::HTTP_MethodContext* ctx);
    // Vendor actions that run as tasks (ComputerSystemSchema_Tasks.cpp),
    // posted to <system>/Actions/Oem/<name>: a simulated firmware update in
    // four steps with progress, and a self test whose task fails.
    static constexpr const char* kFirmwareUpdateAction = "Orbel.SimulatedFirmwareUpdate";
    static constexpr const char* kSelfTestAction = "Orbel.FailingSelfTest";
    static Orbel::eRtCode ActionSimulatedFirmwareUpdate(Orbel::HTTP_MethodContext* ctx);
    static Orbel::eRtCode ActionFailingSelfTest(Orbel::HTTP_MethodContext* ctx);

    // The platform's side (ComputerSystemSchema_Backend.cpp): a plugged-in
    // system joins the collection, a pulled one leaves it with an alert.
    static constexpr const char* kPresenceEvent = "SampleSystemPresence";
    static void OnPresenceEvent(EVENT_TYPE type, char* eventName, int dataLen, void* data);
    Orbel::eRtCode BackendMethod_CREATE(Orbel::Backend_MethodContext* ctx, void* arg) override;
    Orbel::eRtCode BackendMethod_DELETE(Orbel::Backend_MethodContext* ctx, void* arg) override;
    // A task's change of its system (ComputerSystemSchema_Tasks.cpp): `arg`
    // is the new firmware version (std::string*).
    Orbel::eRtCode BackendMethod_UPDATE(Orbel::Backend_MethodContext* ctx, void* arg) override;

private:
    // Writes a member's content from its private data and applies it.
    Orbel::eRtCode _FillSystem(Orbel::ZResource* system);

    // The member URI of each sample record, by record index ("" when the
    // member could not be made). Written in the pre-ready stage only.
    std::vector<std::string> mSystemUris;

    // The URI of the plugged-in system, "" while there is none.
    Orbel::Mutex mHotPlugMutex;
    std::string mHotPlugUri GUARDED_BY(mHotPlugMutex);
};

#endif  // RF_ROOT_COMPUTERSYSTEMSCHEMA_H
