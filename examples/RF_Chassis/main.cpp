// RF_Chassis: the second sample plug-in (ChassisSchemas.h says what it
// shows). It runs beside RF_Root in one store: `./run demo` and `./run
// serve` start both, and each can be restarted on its own.
#include "ChassisSchemas.h"
#include "ZApplication.h"

using Orbel::ZApplication;

namespace {

template <class Schema>
int SchemaFactory(void*) {
    auto* schema = new Schema();
    if (schema->Init() != Orbel::RT_SUCCESS) {
        delete schema;
        return -1;
    }
    return 0;
}

// The shared root first: the collection hangs below it, the chassis below
// the collection.
const ZApplication::sSchemaFactory kSchemaTable[] = {
    {"ServiceRoot", SchemaFactory<SharedRootSchema>},               // ID 2
    {"ChassisCollection", SchemaFactory<ChassisCollectionSchema>},  // ID 3
    {"Chassis", SchemaFactory<ChassisSchema>},                      // ID 4
};

}  // namespace

int main(int argc, char** argv) {
    // A name outside VEX's own table: register it once per development
    // sysroot with `orbel-sim vex app add RF_Chassis` (docs/platform.md).
    ZApplication app("RF_Chassis");
    ZApplication::sExecParams params;
    params.argc = argc;
    params.argv = argv;
    params.schemaTable = kSchemaTable;
    params.schemaNum = sizeof(kSchemaTable) / sizeof(kSchemaTable[0]);
    return app.Exec(params);
}
