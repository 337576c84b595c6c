// The members of the Systems collection and their content.
#include "ComputerSystemSchema.h"

#include <cstdint>

#include "SampleSystemData.h"
#include "SystemsSchema.h"
#include "ZApplication.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZLogPrint.h"
#include "ZResourceCollection.h"

using Orbel::eRtCode;
using Orbel::ZJsonArray;
using Orbel::ZJsonObject;
using Orbel::ZObject;
using Orbel::ZResource;

namespace {

// What the hardware backend would report about one system.
struct sSampleSystem {
    const char* name;
    const char* systemType;
    const char* model;
    const char* serialNumber;
    unsigned int processorCount;
    int logicalProcessorCount;
    double memoryGiB;
    const char* bootOrder[3];  // unused entries are null
    int suppliedBy;            // index of the record whose system supplies this one, or -1
};

// Two systems: a physical one, and a virtual one realised from it.
const sSampleSystem kSampleSystems[] = {
    {"Sample System 1", "Physical", "SX-100", "SMP0001", 2, 64, 256.0, {"Pxe", "Hdd", "Usb"}, -1},
    {"Sample System 2", "Virtual", "SX-100V", "SMP0002", 1, 8, 16.5, {"Hdd", "Pxe", nullptr}, 0},
};
constexpr int kSampleSystemNum = sizeof(kSampleSystems) / sizeof(kSampleSystems[0]);

// A nested object written into `owner` as owned content ("&&Object ...").
// Null when the library refused it (logged), e.g. for a name already used.
ZJsonObject* AddObject(ZObject* owner, const char* name) {
    auto* obj = new ZJsonObject(owner, name);
    if (obj->GetJPath().empty()) {
        obj->ObjDestroy(ZObject::eDestroyDelete, false);  // retired, never deleted
        return nullptr;
    }
    owner->HashWrite(name, obj);
    return obj;
}

// The same for an array. With ZJsonArray::ARRAY_ATTR_OdataCount the library
// keeps "<name>@odata.count" in `owner` equal to the stored length.
ZJsonArray* AddArray(ZObject* owner, const char* name, uint32_t attributes) {
    auto* array = new ZJsonArray(owner, name, attributes);
    if (array->GetJPath().empty()) {
        array->ObjDestroy(ZObject::eDestroyDelete, false);
        return nullptr;
    }
    owner->HashWrite(name, array);
    return array;
}

}  // namespace

void RecycleSystemData(void* data) {
    delete static_cast<sSystemData*>(data);
}

// Creates arrive on the collection's channel and are handed to this schema,
// the collection's member schema.
ComputerSystemSchema::ComputerSystemSchema()
    : ZSchema("ComputerSystem", "v1_20_0",
              CRUDQ_READ | CRUDQ_UPDATE | CRUDQ_DELETE | CRUDQ_ACTION) {
    AddActionCallback("ComputerSystem.Reset", ActionReset);
    AddActionCallback(std::string("Oem/") + kFirmwareUpdateAction, ActionSimulatedFirmwareUpdate);
    AddActionCallback(std::string("Oem/") + kSelfTestAction, ActionFailingSelfTest);
    // Actions may answer with a task: the front end prepares one for them.
    SetTaskFlag(CRUDQ_ACTION);
    // Event callbacks are taken only while the schemas are created.
    Orbel::zApp->RegisterVexEventCallback(kPresenceEvent, OnPresenceEvent);
    // Every resource of the schema checks its bodies against this template
    // (installed as ComputerSystem.dat in the template directory).
    LoadUserInputTemplate("default", "ComputerSystem");
}

eRtCode ComputerSystemSchema::PreCorvelReady_InitialResources() {
    ZResource* found = Orbel::zApp->GetResource(SystemsSchema::kUri);
    if (found == nullptr || found->GetType() != ZObject::eResourceCollection) {
        ZLOG(eZLogError, "No collection[%s]: no computer system is built.\n", SystemsSchema::kUri);
        return Orbel::RT_FAILURE;
    }
    auto* systems = static_cast<Orbel::ZResourceCollection*>(found);

    mSystemUris.assign(kSampleSystemNum, std::string());
    // Ids are never handed out twice, across restarts too: the mark lives in
    // the platform's settings.
    if (systems->KeepMemberIdsIn(kSystemIdsSetting) != Orbel::RT_SUCCESS) {
        return Orbel::RT_FAILURE;
    }
    // First the members an earlier run acknowledged, under their own ids,
    // as they were left (docs/store-client.md, "What survives a restart").
    const unsigned int mark = systems->MemberIdHighWater();
    for (unsigned int n = 1; n <= mark; ++n) {
        sSystemData kept{0, "On", "", false};
        const std::string id = std::to_string(n);
        if (!LoadSystemState(id, kept) || kept.record >= kSampleSystemNum) continue;
        if (!kept.created && !mSystemUris[kept.record].empty()) continue;
        auto* system = new ZResource(systems, this, id);
        if (system->GetJPath().empty()) {
            system->ObjDestroy(ZObject::eDestroyDelete, false);
            continue;
        }
        kept.name = kept.created ? "Sample System " + id : kSampleSystems[kept.record].name;
        system->SetPrivateData(new sSystemData(kept), RecycleSystemData);
        if (!kept.created) mSystemUris[kept.record] = system->GetJPath();
    }
    for (int i = 0; i < kSampleSystemNum; ++i) {
        if (!mSystemUris[i].empty()) continue;
        // The collection picks the id and builds the member in one step:
        // URI <collection>/<id>, its link in "Members" and the new count are
        // in the store when it returns; null (logged) when it could not.
        ZResource* system = systems->CreateMember(this);
        if (system == nullptr) continue;
        auto* data = new sSystemData{i, "On", kSampleSystems[i].name, false};
        system->SetPrivateData(data, RecycleSystemData);
        SaveSystemState(system->GetId(), data);
        mSystemUris[i] = system->GetJPath();
    }
    return Orbel::RT_SUCCESS;
}

eRtCode ComputerSystemSchema::PreCorvelReady_InitResourceData(ZResource* system) {
    return _FillSystem(system);
}

eRtCode ComputerSystemSchema::_FillSystem(ZResource* system) {
    const auto* data = static_cast<const sSystemData*>(system->GetPrivateData());
    if (data == nullptr) return Orbel::RT_FAILURE;
    const sSampleSystem& sample = kSampleSystems[data->record];

    // Scalars: the overload chosen decides the stored text.
    system->HashWrite("Id", system->GetId());  // string: "1"
    system->HashWrite("Name", data->name);
    system->HashWrite("SystemType", sample.systemType);
    system->HashWrite("Manufacturer", "Orbel Samples");
    system->HashWrite("Model", sample.model);
    system->HashWrite("SerialNumber", sample.serialNumber);
    if (data->hasAssetTag) {
        system->HashWrite("AssetTag", data->assetTag);
    } else {
        system->HashWrite("AssetTag");  // null
    }
    system->HashWrite("PowerState", data->powerState);
    system->HashWrite("LocationIndicatorActive", false);  // boolean

    ZJsonObject* status = AddObject(system, "Status");
    ZJsonObject* processors = AddObject(system, "ProcessorSummary");
    ZJsonObject* memory = AddObject(system, "MemorySummary");
    ZJsonObject* boot = AddObject(system, "Boot");
    if (status == nullptr || processors == nullptr || memory == nullptr || boot == nullptr) {
        return Orbel::RT_FAILURE;
    }
    status->HashWrite("State", "Starting");  // until the front end is ready
    status->HashWrite("Health", "OK");
    processors->HashWrite("Count", sample.processorCount);                         // unsigned
    processors->HashWrite("LogicalProcessorCount", sample.logicalProcessorCount);  // signed
    memory->HashWrite("TotalSystemMemoryGiB", sample.memoryGiB);  // double, six decimals
    boot->HashWrite("BootSourceOverrideEnabled", "Disabled");
    boot->HashWrite("BootSourceOverrideTarget", "None");

    // The boot order is a plain list: no count in the Redfish schema.
    ZJsonArray* bootOrder = AddArray(boot, "BootOrder", 0);
    if (bootOrder == nullptr) return Orbel::RT_FAILURE;
    for (const char* device : sample.bootOrder) {
        if (device != nullptr) bootOrder->ListWrite(-1, device);  // -1 appends
    }

    // The actions a client may call: the entry names its target URI and
    // the values its parameter accepts.
    ZJsonObject* actions = AddObject(system, "Actions");
    if (actions == nullptr) return Orbel::RT_FAILURE;
    actions->HashAppendAction(this, "#ComputerSystem.Reset",
                              system->GetJPath() + "/Actions/ComputerSystem.Reset",
                              "Reset");
    ZObject* reset = actions->GetChild("#ComputerSystem.Reset", true);
    if (reset == nullptr) return Orbel::RT_FAILURE;
    for (const sResetType& type : kResetTypes) reset->HashAppendAllowableValues("ResetType", type.type);
    // The sample's own actions, which run as tasks, are vendor actions:
    // they live under "Oem" and take no parameters.
    ZJsonObject* oem = AddObject(actions, "Oem");
    if (oem == nullptr) return Orbel::RT_FAILURE;
    for (const std::string name : {kFirmwareUpdateAction, kSelfTestAction}) {
        const std::string title = name.substr(name.find('.') + 1);  // without the vendor
        oem->HashAppendAction(this, "#" + name, system->GetJPath() + "/Actions/Oem/" + name, title);
    }

    // Links between members, each array with its count. A link records
    // itself on both nodes: retiring a linked member removes it from here.
    // A member added by a client or plugged in later links to nothing.
    ZJsonObject* links = AddObject(system, "Links");
    if (links == nullptr) return Orbel::RT_FAILURE;
    const int self = data->created || data->hotPlugged ? -2 : data->record;
    for (int i = 0; i < kSampleSystemNum && self >= 0; ++i) {
        const char* relation = nullptr;
        if (kSampleSystems[i].suppliedBy == self) relation = "ConsumingComputerSystems";
        if (sample.suppliedBy == i) relation = "SupplyingComputerSystems";
        ZResource* other = relation != nullptr ? Orbel::zApp->GetResource(mSystemUris[i]) : nullptr;
        if (other == nullptr) continue;
        ZObject* array = links->GetChild(relation, true);
        if (array == nullptr) array = AddArray(links, relation, ZJsonArray::ARRAY_ATTR_OdataCount);
        if (array != nullptr) array->ListWrite(-1, other, true);  // {"@odata.id": ...}
    }

    // One apply for the whole member: its queue and its children's.
    return system->ApplyRedisChanges();
}

eRtCode ComputerSystemSchema::PostCorvelReady_InitResourceData(ZResource* system) {
    ZObject* status = system->GetChild("Status");
    if (status == nullptr) return Orbel::RT_FAILURE;
    status->HashWrite("State", "Enabled");
    return status->ApplyRedisChanges(false);
}

eRtCode ComputerSystemSchema::PostCorvelReady_AfterTreatment() {
    ZLOG(eZLogInfo, "ComputerSystem: %u systems in service.\n",
         static_cast<unsigned>(GetResourceNum()));
    return Orbel::RT_SUCCESS;
}
