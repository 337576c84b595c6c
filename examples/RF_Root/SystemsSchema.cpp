// The Systems collection, placed below the service root.
#include "SystemsSchema.h"

#include "ServiceRootSchema.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZResourceCollection.h"

using Orbel::eRtCode;
using Orbel::ZResource;

// A collection schema names the schema of its members; it has no version of
// its own, so "@odata.type" reads "#ComputerSystemCollection.ComputerSystemCollection".
// It listens for creates (POST to the collection); the library hands each
// one to the member schema, which makes the new member.
SystemsSchema::SystemsSchema()
    : ZSchema("ComputerSystemCollection", "", CRUDQ_READ | CRUDQ_CREATE, "ComputerSystem") {
    // A POST here creates a member: its body is checked against the members'
    // schema's template. This one covers the collection's own methods.
    LoadUserInputTemplate("default", "ComputerSystemCollection");
}

eRtCode SystemsSchema::PreCorvelReady_InitialResources() {
    // Schemas run their stages in table order, so the root exists by now
    // unless its schema was left out.
    ZResource* root = Orbel::zApp->GetResource(ServiceRootSchema::kUri);
    if (root == nullptr) {
        ZLOG(eZLogError, "No service root[%s]: the Systems collection is not built.\n",
             ServiceRootSchema::kUri);
        return Orbel::RT_FAILURE;
    }
    // Below the root, so its URI is the root's plus "Systems".
    auto* systems = new Orbel::ZResourceCollection(root, this, "Systems");
    if (systems->GetJPath().empty()) {
        systems->ObjDestroy(Orbel::ZObject::eDestroyDelete, false);
        return Orbel::RT_FAILURE;
    }
    // A link, not content: the root shows {"@odata.id": "/redfish/v1/Systems"}.
    // The library records it on both nodes, so retiring the collection would
    // also remove this field from the root.
    root->HashWrite("Systems", systems, true);
    return root->ApplyRedisChanges(false);
}

eRtCode SystemsSchema::PreCorvelReady_InitResourceData(ZResource* systems) {
    systems->HashWrite("Name", "Computer System Collection");
    return systems->ApplyRedisChanges();
}
