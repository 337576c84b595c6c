// RF_Chassis: a second plug-in beside RF_Root in the same store. It owns
// the collection "/redfish/v1/Chassis" and one chassis in it, and adds the
// collection's link to the service root "/redfish/v1/", which RF_Root owns
// (docs/plugin-guide.md, "A plug-in that adds to another's resource").
//
// - SharedRootSchema holds this process's view of the root: a MultiBackend
//   node of the same URI. The library then writes and, when this process
//   goes, removes only what this process wrote into the root's hash; its
//   schema serves no method, so every request for the root stays with
//   RF_Root, and either process can restart without the other.
// - ChassisCollectionSchema builds the collection below that node and writes
//   the link "Chassis" into the root.
// - ChassisSchema serves the member: GET, a PATCH of AssetTag and
//   IndicatorLED, and the action Chassis.Reset. Its template (Chassis.dat)
//   is generated from the standard's schema and narrowed by chassis.keep.
//
// Threads: the staged hooks run on the application's main thread, the
// handlers on the schema's dispatcher threads with the chassis locked.
#ifndef RF_CHASSIS_CHASSISSCHEMAS_H
#define RF_CHASSIS_CHASSISSCHEMAS_H

#include "ZSchema.h"

class SharedRootSchema : public Orbel::ZSchema {
public:
    SharedRootSchema();
    Orbel::eRtCode PreCorvelReady_InitialResources() override;
};

class ChassisCollectionSchema : public Orbel::ZSchema {
public:
    ChassisCollectionSchema();
    Orbel::eRtCode PreCorvelReady_InitialResources() override;
};

class ChassisSchema : public Orbel::ZSchema {
public:
    ChassisSchema();
    Orbel::eRtCode PreCorvelReady_InitialResources() override;
    Orbel::eRtCode HttpMethod_UPDATE(Orbel::HTTP_MethodContext* ctx) override;
    static Orbel::eRtCode ActionReset(Orbel::HTTP_MethodContext* ctx);
};

#endif  // RF_CHASSIS_CHASSISSCHEMAS_H
