// A plug-in's test built outside the library's tree against the installed
// package: the test kit runs the plug-in in this process (its main as a
// function), with a private store behind the installed orbel-frontend, and
// the test reads it over HTTP.
#include <string>

#include "OrbelTestKit.h"
#include "ZApplication.h"
#include "ZResource.h"
#include "ZSchema.h"

namespace {

const char kUri[] = "/redfish/v1/Chassis/7";

// One read-only resource.
class ChassisSchema : public Orbel::ZSchema {
public:
    ChassisSchema() : ZSchema("Chassis", "v1_25_0", CRUDQ_READ) {}
    Orbel::eRtCode PreCorvelReady_InitialResources() override {
        auto* chassis = new Orbel::ZResource(nullptr, this, kUri);
        if (chassis->GetJPath().empty()) {
            chassis->ObjDestroy(Orbel::ZObject::eDestroyDelete, false);
            return Orbel::RT_FAILURE;
        }
        chassis->HashWrite("Name", "Kit Chassis");
        chassis->HashWrite("ChassisType", "RackMount");
        return chassis->ApplyRedisChanges();
    }
};

int ChassisFactory(void*) {
    auto* schema = new ChassisSchema();
    if (schema->Init() != Orbel::RT_SUCCESS) {
        delete schema;
        return -1;
    }
    return 0;
}

int PluginMain(int argc, char** argv) {
    static const Orbel::ZApplication::sSchemaFactory table[] = {{"Chassis", ChassisFactory}};
    Orbel::ZApplication app("KitConsumer");
    Orbel::ZApplication::sExecParams params;
    params.argc = argc;
    params.argv = argv;
    params.schemaTable = table;
    params.schemaNum = 1;
    return app.Exec(params);
}

class KitConsumerTest : public OrbelTestKit::PluginTest<KitConsumerTest> {
public:
    static OrbelTestKit::sConfig KitConfig() {
        OrbelTestKit::sConfig config;
        config.appName = "KitConsumer";
        config.pluginMain = PluginMain;
        return config;
    }
};

TEST_F(KitConsumerTest, ServesItsResourceOverHttp) {
    OrbelTestKit::sResponse r = Kit().Get(kUri);
    ASSERT_EQ(r.status, 200) << r.text;
    EXPECT_EQ(r.body["Name"], "Kit Chassis");
    EXPECT_EQ(r.body["@odata.id"], kUri);
    // The schema serves reads only: the front end refuses a PATCH itself.
    EXPECT_EQ(Kit().Patch(kUri, {{"Name", "x"}}).status, 405);
    EXPECT_EQ(Kit().Get("/redfish/v1/Chassis/8").status, 404);
}

}  // namespace
