// orbel-template: templates written from Redfish JSON schemas load in the
// library's parser and say what the schema says; the sample plug-in's
// templates are the tool's output and load when installed.
#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "ChildProcess.h"
#include "FixedPaths.h"
#include "TestEnv.h"
#include "TestFiles.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

const std::string kSchemaDir = SourceDir() + "/tests/data/dmtf";

// Runs the tool; returns its exit status, output in `log`.
int RunTool(const std::vector<std::string>& args, std::string* log = nullptr) {
    std::vector<std::string> argv = {BuiltProgram("tools/template/orbel-template")};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess tool(argv);
    if (!tool.Start()) return -1;
    const int status = tool.Wait(60000);
    if (log != nullptr) *log = tool.Output();
    return status;
}

// Writes the template for `schemaFile` into the template directory as
// `name` and loads it.
std::unique_ptr<ZUserInputTemplate> Generate(const std::string& schemaFile, const std::string& name,
                                             const std::string& dir = kSchemaDir) {
    const std::string out = UserInputTemplateDir() + name + ".dat";
    std::string log;
    EXPECT_EQ(RunTool({"-d", dir, "-o", out, dir + "/" + schemaFile}, &log), 0) << log;
    std::string n = name;
    return std::make_unique<ZUserInputTemplate>(nullptr, &n, false);
}

struct Expect {
    const char* jpath;
    uint16_t types;
    uint8_t methods;
    uint8_t flags;
    const char* enumItem;  // one value the enumeration holds, or ""
};

void CheckRows(ZUserInputTemplate& tmpl, const std::vector<Expect>& rows) {
    for (const Expect& row : rows) {
        SCOPED_TRACE(row.jpath);
        const sPropertyAttrTag* attr = tmpl.FindAttr(row.jpath);
        ASSERT_NE(attr, nullptr);
        EXPECT_EQ(std::make_tuple(attr->dataTypes, attr->supportMethods, attr->flags),
                  std::make_tuple(row.types, row.methods, row.flags));
        const auto& items = attr->limits.enumStrings;
        EXPECT_TRUE(*row.enumItem == '\0' || std::count(items.begin(), items.end(), row.enumItem));
    }
}

constexpr uint8_t kWritable = UIT_METHOD_PatchOption | UIT_METHOD_CreateOption;
constexpr uint16_t kStrNull = UIT_TYPE_STRING | UIT_TYPE_NULL;

TEST(TemplateGenerator, ComputerSystemSaysWhatTheSchemaSays) {
    auto tmpl = Generate("ComputerSystem.v1_20_0.json", "GenComputerSystem");
    ASSERT_EQ(tmpl->GetLoadResult(), RT_SUCCESS);
    CheckRows(*tmpl, {{"/AssetTag", kStrNull, kWritable, 0, ""},
                      {"/Boot", UIT_TYPE_OBJECT, kWritable, 0, ""},
                      {"/Boot/BootSourceOverrideTarget", kStrNull, kWritable, 0, "Pxe"},
                      {"/Boot/BootOrder/{}", kStrNull, kWritable, 0, ""},
                      {"/Id", UIT_TYPE_STRING, UIT_METHOD_ReadOnly, 0, ""},
                      {"/PowerState", kStrNull, UIT_METHOD_ReadOnly, 0, "Paused"},
                      // Objects whose members are all read-only, and Oem.
                      {"/Status", UIT_TYPE_OBJECT, UIT_METHOD_ReadOnly, 0, ""},
                      {"/Oem", UIT_TYPE_OBJECT, UIT_METHOD_ReadOnly, 0, ""},
                      // Links: read-only unless the schema makes the array writable.
                      {"/Bios/@odata.id", UIT_TYPE_STRING, UIT_METHOD_ReadOnly, 0, ""},
                      {"/Links/Chassis/{}/@odata.id", UIT_TYPE_STRING, UIT_METHOD_ReadOnly, 0, ""},
                      {"/Links/ResourceBlocks/{}/@odata.id", UIT_TYPE_STRING, kWritable, 0, ""},
                      {"/Actions/#ComputerSystem.Reset/ResetType", UIT_TYPE_STRING,
                       UIT_METHOD_ActionOption, 0, "ForceOff"},
                      {"/Actions/#ComputerSystem.AddResourceBlock/ResourceBlock", UIT_TYPE_OBJECT,
                       UIT_METHOD_ActionRequired, 0, ""},
                      {"/KeyManagement/KMIPServers/{}/Password", kStrNull, kWritable,
                       UIT_FLAG_SecureProperty, ""},
                      {"/Boot/AutomaticRetryAttempts", UIT_TYPE_UNSIGNED | UIT_TYPE_NULL, kWritable,
                       0, ""}});
    // The schema's pattern arrives in POSIX form and still matches what it should.
    const sPropertyAttrTag* uuid = tmpl->FindAttr("/UUID");
    ASSERT_NE(uuid, nullptr);
    ASSERT_NE(uuid->limits.compiled, nullptr);
    EXPECT_EQ(
        regexec(&uuid->limits.compiled->re, "38947555-7742-3448-3784-823347823834", 0, nullptr, 0),
        0);
    EXPECT_NE(regexec(&uuid->limits.compiled->re, "3894-x", 0, nullptr, 0), 0);
    EXPECT_EQ(tmpl->FindAttr("/Boot/AutomaticRetryAttempts")->limits.min, 0);
    // What a body meets with this template: RF_Root installs the same text
    // (SampleTemplatesAreTheToolsOutput...), SampleResourcesTest and
    // RF_RootKitTest send it accepted and refused bodies.
}

// What the published ComputerSystem does not exercise: create-required
// members, string and number bounds, required action parameters, writable
// link arrays, a recursive definition and a reference to a missing file.
TEST(TemplateGenerator, BoundsRequiredMembersAndRecursion) {
    const std::string dir = FreshTestDir("gen");
    WriteFile(dir + "/Widget.v1_0_0.json", R"({
      "$ref": "#/definitions/Widget",
      "definitions": {
        "Widget": {
          "type": "object", "requiredOnCreate": ["Name"],
          "properties": {
            "Name": {"type": "string", "maxLength": 16, "minLength": 1, "readonly": true},
            "Level": {"anyOf": [{"$ref": "#/definitions/Level"}, {"type": "null"}],
                      "readonly": false},
            "Offset": {"type": "integer", "minimum": -5, "maximum": 5, "readonly": false},
            "Parts": {"type": "array", "readonly": false, "maxItems": 4,
                      "items": {"$ref": "Part.json#/definitions/Part"}},
            "Self": {"$ref": "#/definitions/Tree"},
            "Gadget": {"$ref": "Gadget.json#/definitions/Dial", "readonly": false},
            "Actions": {"type": "object", "properties": {
              "#Widget.Spin": {"$ref": "#/definitions/Spin"}}}
          }
        },
        "Level": {"type": "number", "minimum": 0.5, "maximum": 9.25},
        "Tree": {"type": "object", "properties": {
          "Next": {"$ref": "#/definitions/Tree"},
          "Label": {"type": "string", "readonly": false}}},
        "Spin": {"type": "object", "parameters": {
          "Speed": {"type": "integer", "minimum": 0, "requiredParameter": true}},
          "properties": {"target": {"type": "string"}}}
      }
    })");
    auto tmpl = Generate("Widget.v1_0_0.json", "GenWidget", dir);
    ASSERT_EQ(tmpl->GetLoadResult(), RT_SUCCESS);
    CheckRows(*tmpl, {{"/Name", UIT_TYPE_STRING, UIT_METHOD_CreateRequired, 0, ""},
                      {"/Level", UIT_TYPE_FLOAT | UIT_TYPE_NULL, kWritable, 0, ""},
                      {"/Offset", UIT_TYPE_SIGNED, kWritable, 0, ""},
                      {"/Parts/{}/@odata.id", UIT_TYPE_STRING, kWritable, 0, ""},
                      {"/Self/Label", UIT_TYPE_STRING, kWritable, 0, ""},
                      {"/Self/Next", UIT_TYPE_OBJECT, UIT_METHOD_ReadOnly, 0, ""},
                      {"/Gadget", UIT_TYPE_OBJECT, UIT_METHOD_ReadOnly, 0, ""},
                      {"/Actions/#Widget.Spin/Speed", UIT_TYPE_UNSIGNED, UIT_METHOD_ActionRequired,
                       0, ""}});
    EXPECT_EQ(tmpl->FindAttr("/Actions/#Widget.Spin/target"), nullptr);
    const auto& name = tmpl->FindAttr("/Name")->limits;
    const auto& level = tmpl->FindAttr("/Level")->limits;
    EXPECT_TRUE(name.min == 1 && name.max == 16 && level.min == 0.5 && level.max == 9.25);
    EXPECT_TRUE(tmpl->FindAttr("/Offset")->limits.min == -5 &&
                tmpl->FindAttr("/Parts")->limits.max == 4);
    EXPECT_EQ(tmpl->GetRequiredList(eReqCreate), std::vector<std::string>{"/Name"});
    EXPECT_EQ(tmpl->GetRequiredList(eReqAction),
              std::vector<std::string>{"/Actions/#Widget.Spin/Speed"});

    std::string log;
    EXPECT_EQ(RunTool({dir + "/Missing.json"}, &log), 1);
    EXPECT_NE(log.find("cannot read JSON schema"), std::string::npos) << log;
    EXPECT_EQ(RunTool({"-t", "Nope", dir + "/Widget.v1_0_0.json"}, &log), 1);
    EXPECT_EQ(RunTool({}, &log), 2);
}

// Writes the template of `schema` with `args`; its parsed cache, the
// tool's messages in `log`.
ZUserInputTemplate::sParsed Parsed(const std::vector<std::string>& args, std::string* log) {
    const std::string out = FreshTestDir("gen") + "/out.dat";
    std::vector<std::string> all = {"-o", out};
    all.insert(all.end(), args.begin(), args.end());
    EXPECT_EQ(RunTool(all, log), 0) << *log;
    ZUserInputTemplate::sParsed parsed;
    EXPECT_EQ(ZUserInputTemplate::ParseTemplateText(ReadFile(out), "gen", out, parsed), RT_SUCCESS);
    return parsed;
}

// A reference to a resource definition, the described type's own included,
// is a link: an object whose only member is "@odata.id" (the resource's own
// "@odata.id" aside), and no definition is expanded into itself.
TEST(TemplateGenerator, EveryLinkIsAnOdataIdOnly) {
    for (const char* schema : {"Chassis.json", "ComputerSystem.v1_20_0.json"}) {
        std::string log;
        auto parsed = Parsed({"-d", kSchemaDir, kSchemaDir + "/" + schema}, &log);
        ASSERT_NE(parsed.cache, nullptr);
        EXPECT_EQ(log.find("recursive"), std::string::npos) << schema << log;
        const UsrInTemplateCache& cache = *parsed.cache;
        size_t links = 0;
        for (const auto& entry : cache) {
            const size_t at = entry.first.rfind("/@odata.id");
            if (at == 0 || at == std::string::npos || at + 10 != entry.first.size()) continue;
            const std::string object = entry.first.substr(0, at + 1);
            auto it = cache.lower_bound(object);
            while (it != cache.end() && it->first.compare(0, object.size(), object) == 0) ++it;
            EXPECT_EQ(std::distance(cache.lower_bound(object), it), 1) << schema << ": " << object;
            ++links;
        }
        EXPECT_GT(links, 10u) << schema;
        if (schema[0] == 'C' && schema[1] == 'h') {
            EXPECT_NE(cache.count("/Links/ContainedBy/@odata.id") *
                          cache.count("/Links/Contains/{}/@odata.id"),
                      0u);
        }
    }
}

// Deprecated enum values are left out unless -D keeps them; a keep list
// narrows the writable properties, replaces attributes and picks actions.
TEST(TemplateGenerator, DeprecatedValuesAndKeepList) {
    const std::string chassis = kSchemaDir + "/Chassis.v1_28_0.json";
    std::string log;
    using Enums = std::vector<std::string>;
    EXPECT_EQ(Parsed({chassis}, &log).cache->at("/IndicatorLED")->limits.enumStrings,
              (Enums{"Lit", "Blinking", "Off"}));
    EXPECT_EQ(Parsed({"-D", chassis}, &log).cache->at("/IndicatorLED")->limits.enumStrings.front(),
              "Unknown");

    const std::string keep = FreshTestDir("keep") + "/chassis.keep";
    WriteFile(
        keep,
        "# accepted\n/AssetTag\n  /IndicatorLED   S@p@@e:Lit,Off  \n\n/Actions/#Chassis.Reset\n");
    auto parsed = Parsed({"-k", keep, chassis}, &log);
    const std::pair<const char*, uint8_t> methods[] = {
        {"/AssetTag", kWritable},
        {"/IndicatorLED", UIT_METHOD_PatchOption},
        {"/Location", UIT_METHOD_ReadOnly},
        {"/LocationIndicatorActive", UIT_METHOD_ReadOnly},
        {"/Links/ContainedBy", UIT_METHOD_ReadOnly},
        {"/Actions/#Chassis.Reset/ResetType", UIT_METHOD_ActionOption}};
    for (const auto& row : methods)
        EXPECT_EQ(parsed.cache->at(row.first)->supportMethods, row.second) << row.first;
    EXPECT_EQ(parsed.cache->at("/IndicatorLED")->dataTypes, UIT_TYPE_STRING);
    EXPECT_EQ(parsed.cache->at("/IndicatorLED")->limits.enumStrings, (Enums{"Lit", "Off"}));
    WriteFile(keep, "/Actions/#ComputerSystem.Reset\n");
    auto system = Parsed({"-k", keep, kSchemaDir + "/ComputerSystem.v1_20_0.json"}, &log);
    EXPECT_NE(system.cache->count("/Actions/#ComputerSystem.Reset/ResetType"), 0u);
    EXPECT_EQ(system.cache->count("/Actions/#ComputerSystem.AddResourceBlock"), 0u);

    // A typo, a missing list; -h.
    WriteFile(keep, "/AssetTagg\n");
    const std::pair<std::vector<std::string>, const char*> refused[] = {
        {{"-k", keep, chassis}, "has no property /AssetTagg"},
        {{"-k", keep + ".missing", chassis}, "(option -k)"}};
    for (const auto& row : refused) {
        EXPECT_EQ(RunTool(row.first, &log), 1);
        EXPECT_NE(log.find(row.second), std::string::npos) << log;
    }
    EXPECT_EQ(RunTool({"-h"}, &log), 0);
    for (const char* text : {"-k KEEP", "-D ", "Example:", "orbel-template -d"}) {
        EXPECT_NE(log.find(text), std::string::npos) << text << "\n" << log;
    }
}

TEST(TemplateGenerator, SampleTemplatesAreTheToolsOutputAndLoadWhenInstalled) {
    const std::string examples = SourceDir() + "/examples/";
    // Sample, template, schema file, keep list ("" none).
    const char* const schemas[][4] = {
        {"RF_Root", "ComputerSystem", "ComputerSystem.v1_20_0.json", ""},
        {"RF_Root", "ComputerSystemCollection", "ComputerSystemCollection.json", ""},
        {"RF_Root", "ServiceRoot", "ServiceRoot.v1_15_0.json", ""},
        {"RF_Chassis", "Chassis", "Chassis.v1_28_0.json", "chassis.keep"},
        {"RF_Chassis", "ChassisCollection", "ChassisCollection.json", ""},
    };
    for (const auto& schema : schemas) {
        const std::string dir = examples + schema[0] + "/templates/";
        const std::string committed = ReadFile(dir + schema[1] + ".dat");
        ASSERT_FALSE(committed.empty()) << schema[1];
        std::vector<std::string> args = {kSchemaDir + "/" + schema[2]};
        if (*schema[3] != '\0') args.insert(args.begin(), {"-k", dir + schema[3]});
        std::string written;
        EXPECT_EQ(RunTool(args, &written), 0);
        // The tool's warnings go to standard error, which the child shares.
        EXPECT_NE(written.find(committed), std::string::npos) << schema[1];

        WriteFile(UserInputTemplateDir() + schema[1] + ".dat", committed);
        std::string name = schema[1];
        ZUserInputTemplate tmpl(nullptr, &name, false);
        EXPECT_EQ(tmpl.GetLoadResult(), RT_SUCCESS) << schema[1];
        EXPECT_NE(tmpl.FindAttr("/@odata.id"), nullptr) << schema[1];
    }
}

}  // namespace
