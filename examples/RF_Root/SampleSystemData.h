// What the sample plug-in keeps about each computer system besides its
// stored document: the member's private data (ZResource::SetPrivateData),
// standing in for the state a real plug-in reads from its hardware backend.
//
// Threads: a member's data is read and written by the handlers of requests
// on that member, which the library runs one at a time per member.
#ifndef RF_ROOT_SAMPLESYSTEMDATA_H
#define RF_ROOT_SAMPLESYSTEMDATA_H

#include <string>

struct sSystemData {
    int record;              // the sample record the member was built from
    std::string powerState;  // "On" or "Off"; changed by ComputerSystem.Reset
    std::string name;
    bool created;            // added by a client's POST (may be deleted)
    bool hotPlugged = false; // plugged in after start-up; only the platform removes it
    bool hasAssetTag = false;  // AssetTag as a client set it (null when false)
    std::string assetTag = std::string();
};

// Frees an sSystemData; the library calls it when the member is retired.
void RecycleSystemData(void* data);

// The member states kept in the platform's settings (SampleSystemStore.cpp):
// "RF_Root.System.<id>" per member, "RF_Root.SystemIds" the id mark.
constexpr const char* kSystemStatePrefix = "RF_Root.System.";
constexpr const char* kSystemIdsSetting = "RF_Root.SystemIds";
// The longest AssetTag the settings can keep (a setting holds 511 bytes).
constexpr size_t kMaxAssetTag = 500;
// Keeps the member's state (null data: the member was deleted); false,
// logged, when the settings store refused it. Called before a change is
// acknowledged.
bool SaveSystemState(const std::string& id, const sSystemData* data);
// The kept state of member `id`; false when there is none (or it was
// deleted). Fills record, created, powerState and the AssetTag.
bool LoadSystemState(const std::string& id, sSystemData& data);

// The record a member added by a POST is built from (the virtual system).
constexpr int kRecordForNewSystems = 1;

// The values of ComputerSystem.Reset's ResetType, in the order they are
// announced, and the power state each leads to.
struct sResetType {
    const char* type;
    const char* powerState;
};
constexpr sResetType kResetTypes[] = {
    {"On", "On"}, {"ForceOff", "Off"}, {"GracefulShutdown", "Off"}, {"ForceRestart", "On"}};

#endif  // RF_ROOT_SAMPLESYSTEMDATA_H
