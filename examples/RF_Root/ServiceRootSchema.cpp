// The service root: created before the front end is ready, so that the
// collections below it can be attached in the same stage.
#include "ServiceRootSchema.h"

#include "ZLogPrint.h"
#include "ZResource.h"

using Orbel::eRtCode;
using Orbel::ZResource;

ServiceRootSchema::ServiceRootSchema() : ZSchema("ServiceRoot", "v1_15_0", CRUDQ_READ) {
    // Read-only today; a method added later finds its bodies checked already.
    LoadUserInputTemplate("default", "ServiceRoot");
}

eRtCode ServiceRootSchema::PreCorvelReady_InitialResources() {
    // No parent: the id is the whole URI. The schema keeps the resource in
    // its resource map (by URI) and retires it when the schema goes.
    auto* root = new ZResource(nullptr, this, kUri);
    if (root->GetJPath().empty()) {  // refused (logged): retire, never delete
        root->ObjDestroy(Orbel::ZObject::eDestroyDelete, false);
        return Orbel::RT_FAILURE;
    }
    return Orbel::RT_SUCCESS;
}

eRtCode ServiceRootSchema::PreCorvelReady_InitResourceData(ZResource* root) {
    // Writes are queued on the node; the apply below sends them.
    root->HashWrite("Id", "RootService");
    root->HashWrite("Name", "Root Service");
    root->HashWrite("RedfishVersion", "1.15.0");
    root->HashWrite("UUID", "4f0d1e6a-5b2c-4c8e-9a3d-7e1f2b6c8d90");
    return root->ApplyRedisChanges();
}
