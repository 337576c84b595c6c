// User-input template files: attribute strings, the file grammar with its
// messages and line numbers, the cache and required lists, the dumps, and
// the sharing and recycling of caches.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FixedPaths.h"
#include "ObjectModelFixture.h"
#include "TestEnv.h"
#include "ZUserInputTemplate.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

std::string TemplatePath(const std::string& name) {
    return UserInputTemplateDir() + name + ".dat";
}

// Writes the template file and loads it.
std::unique_ptr<ZUserInputTemplate> Load(const std::string& name, const std::string& text) {
    WriteFile(TemplatePath(name), text);
    std::string n = name;
    return std::make_unique<ZUserInputTemplate>(nullptr, &n, false);
}

TEST(UserInputTemplateAttr, FaultsNameTheirCause) {
    // {text, message ("" when only the caller's PropertyAttr line says it)}
    const std::pair<const char*, const char*> rows[] = {
        {"a@p@@m:R", "'M' is a required attribute for Rigid array.\n"},
        {"x@p@@", "Unknown dataType[x].\n"},
        {"S;n@p@@", "DataTypes is split with [;] not ','.\n"},
        {"S,@p@@", "Unknown dataType[,].\n"},
        {"S@q@@", "Unknown method[q].\n"},
        {"S@p;c@@", "Methods is split with [;] not ','.\n"},
        {"S@prr@@", "Methods is split with [r] not ','.\n"},
        {"S@p@x@", "Unknown flag[x].\n"},
        {"S@p@l;s@", "Flags is split with [;] not ','.\n"},
        {"S@p@@x:1", "Unknown limitTitle[x:].\n"},
        {"S@p@@m", "Unknown limitTitle[m ].\n"},
        {"S@p@@p:", "The limit pattern is empty.\n"},
        {"S@p@@m:1x", ""},     // a number takes digits, '.' and a leading '-' only
        {"S@p@@m:1,m:2", ""},  // a limit given twice
        {"S@p@@m:5,M:2", ""},  // nothing could pass
        {"S@p@@m:1,", ""},     // a separator without an item
        {"S@p@@e:A,,B", ""},
        {"u@p@@e:1,x", ""},     // numeric types take numeric items
        {"S@p@@m:R,M:2", ""},   // Rigid is for arrays
        {"S@p@@p:(a", ""},      // does not compile
        {"S@p@@p:(a)\\1", ""},  // back-references are refused
        // Repetitions the compiler would copy without bound.
        {"S@p@@p:a++", ""},
        {"S@p@@p:a{,9}{,9}", ""},
        {"S@p@@p:((a{200}){200})", ""},
        {"S@p@", ""},  // four sections
        {"@p@@", ""},  // at least one type
    };
    for (const auto& row : rows) {
        const size_t mark = LogMark();
        sPropertyAttrTag attr;
        EXPECT_EQ(ZUserInputTemplate::ParsePropertyAttr(row.first, attr), RT_FAILURE) << row.first;
        if (*row.second != '\0') {
            EXPECT_TRUE(Logged(mark, {row.second})) << row.first;
        }
    }
}

TEST(UserInputTemplateFile, FaultsAreReportedWithTheirLine) {
    const std::string path = TemplatePath("Bad");
    const std::string longName(ZUserInputTemplate::kMaxTokenLength, 'x');
    // {file text, messages}
    const std::pair<std::string, std::vector<std::string>> rows[] = {
        {"", {"UsrInTemplate[" + path + "] is empty file ?\n"}},
        {" {}", {"UsrInTemplate[" + path + "] content is not start with char '{'.\n"}},
        {"{\n'A':'S@p@@',\n'B' 'S@p@@'}", {"Template[Bad]: Format error at line[3].\n"}},
        {"{\n'A':'S@p@@',\n\n}", {"Template[Bad]: Cannot fetch propertyName from line[4].\n"}},
        {"{'A':'S@p@@',\n'A':'u@p@@'}", {"Template[Bad]:line[2]: pptJPath[/A] is duplicated.\n"}},
        {"{\n\n'A':'x@p@@'}",
         {"Unknown dataType[x].\n", "PropertyAttr[x@p@@] format error in " + path + " line:3.\n"}},
        // Truncated in a name, in an item attribute, in a block.
        {"{'A':'S@p@@',\n'B", {"Template[Bad]: Cannot fetch propertyName from line[2].\n"}},
        {"{'A':'a@p@@'[\n'S@p@@", {"Template[Bad]: Cannot fetch itemAttr from line[2].\n"}},
        {"{'A':'o@p@@'{'B':'S@p@@'}", {"Template[Bad]: Format error at line[1].\n"}},
        {"{'A':'S@p@@'}\n}", {"Template[Bad]: Format error at line[2].\n"}},
        // After the item only "]" may follow.
        {"{'A':'a@p@@'[\n'S@p@@'\n'x']}", {"Template[Bad]: Format error at line[3].\n"}},
        // A block needs the matching type.
        {"{'A':'S@p@@'{'B':'S@p@@'}}", {"Template[Bad]: Format error at line[1].\n"}},
        {"{'" + longName + "':'S@p@@'}",
         {"String[" + longName.substr(0, 64) + "...] too long ( >= 4096 ).\n",
          "Template[Bad]: Cannot fetch propertyName from line[1].\n"}},
        {"{'A':'o@p@@'{'{}':'S@p@@'}}",
         {"Template[Bad]: Cannot fetch propertyName from line[1].\n"}},
        // A NUL byte would cut a name or a pattern short.
        {std::string("{\n'A\0B':'S@p@@'}", 16),
         {"Template[Bad]: Cannot fetch propertyName from line[2].\n"}},
        {std::string("{'A':'S@p@@p:^a\0b$'}", 20), {"Template[Bad]: Format error at line[1].\n"}},
    };
    for (const auto& row : rows) {
        const size_t mark = LogMark();
        auto tmpl = Load("Bad", row.first);
        EXPECT_EQ(tmpl->GetLoadResult(), RT_FAILURE) << row.first.substr(0, 80);
        EXPECT_EQ(tmpl->GetCache(), nullptr);
        EXPECT_TRUE(Logged(mark, row.second)) << row.first.substr(0, 80);
    }
    const size_t mark = LogMark();
    std::string missing = "Missing";
    ZUserInputTemplate none(nullptr, &missing, false);
    EXPECT_EQ(none.GetLoadResult(), RT_FAILURE);
    EXPECT_TRUE(Logged(
        mark, {"Failed to open user input template file[" + TemplatePath("Missing") + "].\n"}));
}

TEST(UserInputTemplateFile, NestingIsBoundedAndLongestTokenLoads) {
    std::string deep = "{";
    for (int i = 0; i < 5000; ++i) deep += "'A':'o@p@@'{";
    auto tooDeep = Load("Deep", deep);
    EXPECT_EQ(tooDeep->GetLoadResult(), RT_FAILURE);

    std::string ok = "{", jpath;
    for (unsigned i = 1; i < ZUserInputTemplate::kMaxDepth; ++i) {
        ok += "'A':'o@p@@'{";
        jpath += "/A";
    }
    ok += "'A':'S@p@@'" + std::string(ZUserInputTemplate::kMaxDepth, '}');
    auto deepest = Load("Deepest", ok);
    ASSERT_EQ(deepest->GetLoadResult(), RT_SUCCESS);
    EXPECT_NE(deepest->FindAttr(jpath + "/A"), nullptr);

    const std::string name(ZUserInputTemplate::kMaxTokenLength - 1, 'n');
    auto longest = Load("Longest", "{'" + name + "':'S@p@@'}");
    EXPECT_NE(longest->FindAttr("/" + name), nullptr);
}

// A template with every block form: nested objects, the three array item
// forms, an empty array block, actions, required properties.
const char kFullTemplate[] =
    "{\n"
    "  'AssetTag':'S,n@p@@M:32',\n"
    "  'Boot':'o@p@@' {\n"
    "    'Target':'S@pr@@e:None,Pxe',\n"
    "    'Order':'a@p@@m:R,M:2' [ 'S@p@@' ]\n"
    "  },\n"
    "  'Name':'S@cr@@',\n"
    "  'Password':'S@c@s@',\n"
    "  'Ids':'a@c@@' [ ],\n"
    "  'Servers':'a@p@@m:0,M:4' [ {\n"
    "     'Address':'S@pr@@p:^[0-9.]+$' } ],\n"
    "  'Grid':'a@p@@' [ 'a@p@@' [ 'u@p@@' ] ],\n"
    "  'Links':'o@@@' { 'Chassis':'a@@@' [ 'o@@@' { '@odata.id':'S@@@' } ] },\n"
    "  'Actions':'o@a@@' { '#Sys.Reset':'o@a@@' { 'ResetType':'S@ar@@e:On,Off' } }\n"
    "}\n";

TEST(UserInputTemplateFile, CacheHoldsEveryFormWithItsJPath) {
    auto tmpl = Load("Full", kFullTemplate);
    ASSERT_EQ(tmpl->GetLoadResult(), RT_SUCCESS);
    EXPECT_EQ(tmpl->GetTemplateFilePath(), TemplatePath("Full"));
    const UsrInTemplateCache* cache = tmpl->GetCache();
    ASSERT_NE(cache, nullptr);
    std::string jpaths;
    for (const auto& entry : *cache) jpaths += entry.first + " ";
    EXPECT_EQ(jpaths,
              "/ /Actions /Actions/#Sys.Reset /Actions/#Sys.Reset/ResetType /AssetTag /Boot "
              "/Boot/Order /Boot/Order/{} /Boot/Target /Grid /Grid/{} /Grid/{}/{} /Ids /Links "
              "/Links/Chassis /Links/Chassis/{} /Links/Chassis/{}/@odata.id /Name /Password "
              "/Servers /Servers/{} /Servers/{}/Address ");
    // The root and directly given object items carry the fixed attribute.
    for (const char* jpath : {"/", "/Servers/{}"}) {
        const sPropertyAttrTag* attr = tmpl->FindAttr(jpath);
        ASSERT_NE(attr, nullptr);
        EXPECT_EQ(attr->dataTypes, UIT_TYPE_OBJECT) << jpath;
        EXPECT_EQ(attr->supportMethods,
                  UIT_METHOD_PatchOption | UIT_METHOD_CreateOption | UIT_METHOD_ActionOption)
            << jpath;
    }
    EXPECT_EQ(tmpl->GetRequiredList(eReqCreate), std::vector<std::string>{"/Name"});
    EXPECT_EQ(tmpl->GetRequiredList(eReqUpdate),
              (std::vector<std::string>{"/Boot/Target", "/Servers/{}/Address"}));
    EXPECT_EQ(tmpl->GetRequiredList(eReqAction),
              std::vector<std::string>{"/Actions/#Sys.Reset/ResetType"});
    EXPECT_TRUE(tmpl->GetRequiredList(eReqRead).empty());
}

// Every section, letter and limit of an attribute, as the dump lists them.
TEST(UserInputTemplateFile, DumpsListAttributesAndRequiredLists) {
    auto tmpl = Load("Dump",
                     "{'A':'S@p@@e:A,B', 'B':'S,n@cr,pr@s,l@m:1,M:64,p:^a{1,3}$',\n"
                     // An enumeration ends at the next titled item.
                     "'C':'S@c,a@@e:On,Off,M:5', 'D':'u,s,f@ar@@e:3,-1.5,2,m:-2.5',\n"
                     "'E':'a@p@@m:R,M:3' [ ], 'F':'a@p@@m:2,M:2' [ ],\n"
                     "'G':'a@p@@m:1,M:4' [ ], 'H':'i,b@@@',\n"  // no method letter: read-only
                     "'Boot':'o,n@pr@l@'{'Order':'a@p@@m:R,M:2'['S@p@s@e:Pxe,Hdd,p:^[A-Z]+$']},\n"
                     "'Count':'u,f@c@@m:1,M:8,e:1,2.5'}");
    ASSERT_EQ(tmpl->GetLoadResult(), RT_SUCCESS);
    auto ppt = [](const std::string& jpath, const std::string& types, const std::string& methods,
                  const std::string& flags, const std::string& limits) {
        return "  Property[" + jpath + "]\n    allowTypes = " + types +
               ",\n    supportMethods = " + methods + ",\n    Flags =" + flags + "\n    Limits:\n" +
               limits;
    };
    const std::string patch = "PatchOption";
    EXPECT_EQ(
        tmpl->DumpTemplateCache(),
        "Dump Template[Dump] cache:\n" +
            ppt("/", "object", "CreateOption, PatchOption, ActionOption", "", "") +
            ppt("/A", "string", patch, "", "      enumStrings = A, B,\n") +
            ppt("/B", "null, string", "CreateRequired, PatchRequired",
                " LifeCycleEvent, SecureProperty,",
                "      min = 1.000000\n      max = 64.000000\n      pattern = [ ^a{1,3}$ ]\n") +
            ppt("/Boot", "null, object", "PatchRequired", " LifeCycleEvent,", "") +
            ppt("/Boot/Order", "array", patch, "",
                "      arrayType = Rigid\n      min = 2.000000\n      max = 2.000000\n") +
            ppt("/Boot/Order/{}", "string", patch, " SecureProperty,",
                "      pattern = [ ^[A-Z]+$ ]\n      enumStrings = Pxe, Hdd,\n") +
            ppt("/C", "string", "CreateOption, ActionOption", "",
                "      max = 5.000000\n      enumStrings = On, Off,\n") +
            ppt("/Count", "float, unsigned", "CreateOption", "",
                "      min = 1.000000\n      max = 8.000000\n      enumValues = 1, 2.5,\n") +
            ppt("/D", "float, signed, unsigned", "ActionRequired", "",
                "      min = -2.500000\n      enumValues = -1.5, 2, 3,\n") +
            ppt("/E", "array", patch, "",
                "      arrayType = Rigid\n      min = 3.000000\n      max = 3.000000\n") +
            ppt("/F", "array", patch, "",
                "      arrayType = FixedLength\n      min = 2.000000\n      max = 2.000000\n") +
            ppt("/G", "array", patch, "",
                "      arrayType = VariableLength\n      min = 1.000000\n      max = 4.000000\n") +
            ppt("/H", "bool, ignore", "ReadOnly", "", ""));
    EXPECT_EQ(tmpl->DumpMethodRequiredList(),
              "Dump Template[Dump] CreateRequiredList:\n  /B\n"
              "Dump Template[Dump] PatchRequiredList:\n  /B\n  /Boot\n");
}

TEST(UserInputTemplateShare, AttachPinsAndSharesFreeWaitsForReaders) {
    std::string noName;
    ZUserInputTemplate ignore(nullptr, &noName, true);
    EXPECT_TRUE(ignore.IsMultiExtInfoMode());
    EXPECT_EQ(ignore.AttachCache(nullptr), ZUserInputTemplate::RT_NO_VERIFY);

    auto first = Load("ShareA", "{'A':'S@p@@'}");
    auto second = Load("ShareB", "{'B':'S@pr@@'}");
    UsrInTemplateCache* cache = first->GetCache();
    // The second template gives up its own cache and serves the first's,
    // with the first's required lists.
    ASSERT_EQ(second->AttachCache(cache), RT_SUCCESS);
    EXPECT_EQ(second->GetCache(), cache);
    EXPECT_TRUE(second->GetRequiredList(eReqUpdate).empty());
    first.reset();
    ASSERT_NE(second->FindAttr("/A"), nullptr);  // still owned by the second

    // A reader's pin holds the cache against FreeCache and a change of cache.
    auto third = Load("ShareC", "{'C':'S@p@@'}");
    ASSERT_EQ(second->AttachCache(cache), RT_SUCCESS);
    EXPECT_EQ(second->AttachCache(third->GetCache()), RT_BUSY);
    EXPECT_EQ(second->FreeCache(), RT_BUSY);
    EXPECT_NE(second->FindAttr("/A"), nullptr);
    EXPECT_EQ(second->DetachCache(), RT_SUCCESS);
    EXPECT_EQ(second->DetachCache(), RT_INVALID_ARG);
    EXPECT_EQ(second->FreeCache(), RT_SUCCESS);
    EXPECT_EQ(second->GetCache(), nullptr);
    // A freed cache is no longer live: nobody can attach it again.
    EXPECT_EQ(third->AttachCache(cache), RT_INVALID_ARG);
}

class UserInputTemplateRecycle : public ObjectModelTest {};

TEST_F(UserInputTemplateRecycle, QueueFreesAfterTheDelayAndTheLastPin) {
    auto* pinned = Load("RecycleA", "{'A':'S@p@@'}").release();
    ASSERT_EQ(pinned->AttachCache(pinned->GetCache()), RT_SUCCESS);
    mApp->RecycledListAppend(pinned, 0);
    auto* waiting = Load("RecycleB", "{'B':'S@p@@'}").release();
    ZUserInputTemplate::Recycle(waiting);  // the real delay: still queued at teardown
    Recycle();
    EXPECT_EQ(mApp->RecycledListSize(), 2u);  // one pinned, one within its delay
    EXPECT_NE(pinned->FindAttr("/A"), nullptr);
    ASSERT_EQ(pinned->DetachCache(), RT_SUCCESS);
    Recycle();
    EXPECT_EQ(mApp->RecycledListSize(), 1u);
    // The application's teardown frees the waiting one (a leak shows under ASan).
}

}  // namespace
