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
};

// Frees an sSystemData; the library calls it when the member is retired.
void RecycleSystemData(void* data);

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
