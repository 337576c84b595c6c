// ZSchema base: registration, channel names, the OData print name and the
// resource map as far as the schema itself keeps it.
#include "TestEnv.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZSchema.h"

using Orbel::eReqMethod;
using Orbel::ZApplication;
using Orbel::ZSchema;

namespace {

TEST(SchemaTest, AMethodOutsideTheFiveHasNoChannel) {
    // The five channels ("<application>:<schema>:<word>Q") are those the
    // dispatcher listens on: RequestDispatchTest sends each request kind on
    // its channel by name, SampleResourcesTest the sample's.
    ZApplication app("RF_Root");
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_ALL);
    EXPECT_EQ(schema.GetCRUDqChannel(static_cast<eReqMethod>(7)), "");
}

TEST(SchemaTest, WithoutAnApplicationTheNameIsEmptyAndInitFails) {
    ASSERT_EQ(Orbel::zApp, nullptr);
    ZSchema schema("Manager", "");
    EXPECT_EQ(schema.GetCRUDqChannel(Orbel::eReqRead), ":Manager:GETQ");
    size_t mark = OrbelTest::LogMark();
    EXPECT_EQ(schema.Init(), Orbel::RT_FAILURE);
    EXPECT_NE(OrbelTest::LogSince(mark).find("Schema[Manager]: no application to register with."),
              std::string::npos);
}

TEST(SchemaTest, ThePrintNameDefaultsToTheSchemaName) {
    ZSchema schema("ChassisCollection", "", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_CREATE, "Chassis");
    EXPECT_EQ(schema.GetCRUDqFlag(), 0x3u);  // create is bit 0, read bit 1
    EXPECT_EQ(schema.GetOdataPrintName(), "ChassisCollection");
    schema.SetOdataPrintName("ChassisColl");
    EXPECT_EQ(schema.GetOdataPrintName(), "ChassisColl");
    schema.SetOdataPrintName("");
    EXPECT_EQ(schema.GetOdataPrintName(), "ChassisCollection");
}

}  // namespace
