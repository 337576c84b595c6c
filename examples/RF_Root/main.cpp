// RF_Root: the sample plug-in, and the file a new plug-in author copies first.
//
// A plug-in process is one ZApplication plus a table of schema factories.
// Exec() does the rest: it parses the options (-d, -i, -e, -h), creates the
// schemas the options allow, registers with VEX, builds the resources,
// waits until the front end reports itself ready ("nginx_redfish_ready"),
// writes the ready file /tmp/Redfish/RF_Root.run, and then serves requests
// until SIGINT or SIGTERM. See docs/plugin-guide.md.
#include "ZApplication.h"

using Orbel::ZApplication;

namespace {

// The schema table: one entry per Redfish resource type this plug-in
// serves. A schema's ID (for -d, -i and -e) is its index in this table plus
// 2. Each factory creates its ZSchema subclass and hands it to the
// application with Init(); a negative result reports a failure. For example:
//
//     int ServiceRootFactory(void*) {
//         auto* schema = new ServiceRootSchema();   // derives from ZSchema
//         if (schema->Init() != Orbel::RT_SUCCESS) {
//             delete schema;                         // not taken by the application
//             return -1;
//         }
//         return 0;
//     }
//
// RF_Root has no schema of its own yet, so the table is empty.
const ZApplication::sSchemaFactory kSchemaTable[] = {
    {nullptr, nullptr},  // placeholder: an array cannot be empty
};
constexpr int kSchemaNum = 0;

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
