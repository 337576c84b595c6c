// The collection "/redfish/v1/Systems": the list of the computer systems
// this plug-in serves. Its "Members" array and "Members@odata.count" are
// kept by the library as member resources come and go (see
// ComputerSystemSchema); this schema only creates the collection, names it
// and announces it in the service root.
//
// Threads: the staged hooks run on the application's main thread.
#ifndef RF_ROOT_SYSTEMSSCHEMA_H
#define RF_ROOT_SYSTEMSSCHEMA_H

#include "ZSchema.h"

class SystemsSchema : public Orbel::ZSchema {
public:
    static constexpr const char* kUri = "/redfish/v1/Systems";

    SystemsSchema();

    // Creates the collection below the service root and links it there.
    // Fails (logged) when the service root is missing, e.g. excluded with -e.
    Orbel::eRtCode PreCorvelReady_InitialResources() override;
    Orbel::eRtCode PreCorvelReady_InitResourceData(Orbel::ZResource* resource) override;
};

#endif  // RF_ROOT_SYSTEMSSCHEMA_H
