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
// Threads: the staged hooks run on the application's main thread.
#ifndef RF_ROOT_COMPUTERSYSTEMSCHEMA_H
#define RF_ROOT_COMPUTERSYSTEMSCHEMA_H

#include <string>
#include <vector>

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

private:
    // The member URI of each sample record, by record index ("" when the
    // member could not be made). Written in the pre-ready stage only.
    std::vector<std::string> mSystemUris;
};

#endif  // RF_ROOT_COMPUTERSYSTEMSCHEMA_H
