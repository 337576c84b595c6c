// RF_Root: the sample plug-in, and the file a new plug-in author copies first.
//
// A plug-in process is one ZApplication plus a table of schema factories.
// Exec() does the rest: it parses the options (-d, -i, -e, -h), creates the
// schemas the options allow, registers with VEX, builds the resources,
// waits until the front end reports itself ready ("nginx_redfish_ready"),
// writes the ready file /tmp/Redfish/RF_Root.run, and then serves requests
// until SIGINT or SIGTERM. See docs/plugin-guide.md.
//
// Its resources: the service root "/redfish/v1/" (ServiceRootSchema), the
// collection "/redfish/v1/Systems" (SystemsSchema) and two computer systems
// in it (ComputerSystemSchema), one class per file.
#include "ComputerSystemSchema.h"
#include "ServiceRootSchema.h"
#include "SystemsSchema.h"
#include "ZApplication.h"

using Orbel::ZApplication;

namespace {

// Creates one schema and hands it to the application with Init(). A
// negative result reports a failure; a schema that Init() refused is still
// ours to delete.
template <class Schema>
int SchemaFactory(void*) {
    auto* schema = new Schema();
    if (schema->Init() != Orbel::RT_SUCCESS) {
        delete schema;
        return -1;
    }
    return 0;  // the application owns it now
}

// The schema table: one entry per Redfish resource type this plug-in
// serves. A schema's ID (for -d, -i and -e) is its index in this table plus
// 2. The stages run schema by schema in this order, so a schema may build
// below the resources of the schemas above it: the Systems collection hangs
// below the service root, the systems below the collection.
const ZApplication::sSchemaFactory kSchemaTable[] = {
    {"ServiceRoot", SchemaFactory<ServiceRootSchema>},           // ID 2
    {"ComputerSystemCollection", SchemaFactory<SystemsSchema>},  // ID 3
    {"ComputerSystem", SchemaFactory<ComputerSystemSchema>},     // ID 4
};
constexpr int kSchemaNum = sizeof(kSchemaTable) / sizeof(kSchemaTable[0]);

}  // namespace

int main(int argc, char** argv) {
    // The name selects the VEX application code, the work directory and the
    // log files (/tmp/Redfish/RF_Root.log, .logerr, .accesslog).
    ZApplication app("RF_Root");

    ZApplication::sExecParams params;
    params.argc = argc;
    params.argv = argv;
    params.schemaTable = kSchemaTable;
    params.schemaNum = kSchemaNum;

    // Returns after the exit signal, or at once after -h or a bad option.
    return app.Exec(params);
}
