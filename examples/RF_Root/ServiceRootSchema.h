// The service root "/redfish/v1/": the one resource every Redfish client
// reads first. It has no parent; the collections of the service hang below
// it and announce themselves in it with a link (see SystemsSchema).
//
// Threads: the staged hooks run on the application's main thread.
#ifndef RF_ROOT_SERVICEROOTSCHEMA_H
#define RF_ROOT_SERVICEROOTSCHEMA_H

#include "ZSchema.h"

class ServiceRootSchema : public Orbel::ZSchema {
public:
    // The root's URI, which is also its resource name.
    static constexpr const char* kUri = "/redfish/v1/";

    ServiceRootSchema();

    // Creates the root resource (its default OData fields reach the store
    // at once).
    Orbel::eRtCode PreCorvelReady_InitialResources() override;
    // Fills the root's own properties.
    Orbel::eRtCode PreCorvelReady_InitResourceData(Orbel::ZResource* resource) override;
};

#endif  // RF_ROOT_SERVICEROOTSCHEMA_H
