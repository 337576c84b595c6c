// The RawJson data format: writes and parsed text become one JSON text in
// the root's hash, exact to the byte; escaping; nested nodes and links
// inline; the refusals; a RawJson resource below a normal one, written by
// the normal one's recursive apply; defaults; retirement and discard.
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "ObjectModelFixture.h"
#include "RedisCli.h"
#include "ZJsonArray.h"
#include "ZJsonObject.h"
#include "ZObject_JsonStringTrans.h"
#include "ZResource.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

const char kRaw[] = "/redfish/v1/Raw";

class RawJsonTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        raw = new ZResource(nullptr, nullptr, kRaw, "", ZObject::ATTR_RawJson);
    }

    static std::string Stored(const std::string& key) {
        Fields f = HGetAll(key);
        auto it = f.find("&&RawJSON");
        return it == f.end() ? std::string("<none>") : it->second;
    }

    // The root's stored text, checked against the node's own rendering and
    // against the store reader, which splices a valid text in unchanged
    // (and would quote an invalid one).
    std::string Checked(ZObject* root) {
        const std::string text = Stored(root->GetJPath());
        EXPECT_EQ(root->ObjData2RawJsonString(), text);
        EXPECT_EQ(StoreDoc(root->GetJPath()), text);
        return text;
    }

    ZResource* raw = nullptr;
};

TEST_F(RawJsonTest, WritesBecomeOneEscapedTextInTheRootsHash) {
    // The constructor applied the defaults at once.
    EXPECT_EQ(HGetAll(kRaw), (Fields{{"&&RawJSON", "{\"@odata.id\":\"/redfish/v1/Raw\"}"}}));
    raw->HashWrite("Name", "abc  ");
    raw->HashWrite("Neg", -2);
    raw->HashWrite("Ratio", 0.5);
    raw->HashWrite("On", true);
    raw->HashWrite("X");
    raw->HashWrite("Max", 18446744073709551615ULL);
    raw->HashWriteRawString("Raw", " [1, {\"b\":null}] ");
    raw->HashWrite("Q", std::string("say \"hi\" \\ back\nnew\ttab\x01 caf\xc3\xa9 a\xff"));
    raw->HashWrite("Key \"quoted\"", HUGE_VAL);
    size_t mark = LogMark();
    raw->HashWriteRawString("NotJson", "{'a':1}");
    EXPECT_TRUE(Logged(mark,
                       "Object[/redfish/v1/Raw] property[NotJson]: the raw text is not JSON; "
                       "it is written as a string.\n"));
    // Queued writes are not content yet.
    EXPECT_EQ(raw->ObjData2RawJsonString(), "{\"@odata.id\":\"/redfish/v1/Raw\"}");
    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(Checked(raw),
              "{\"@odata.id\":\"/redfish/v1/Raw\",\"Name\":\"abc\",\"Neg\":-2,"
              "\"Ratio\":0.500000,\"On\":true,\"X\":null,\"Max\":18446744073709551615,"
              "\"Raw\": [1, {\"b\":null}] ,"
              "\"Q\":\"say \\\"hi\\\" \\\\ back\\nnew\\ttab\\u0001 caf\xc3\xa9 a\\u00ff\","
              "\"Key \\\"quoted\\\"\":null,\"NotJson\":\"{'a':1}\"}");
    EXPECT_EQ(HGetAll(kRaw).size(), 1u);

    // A member keeps the place of its first write; a new one goes last.
    raw->HashWrite("Neg", 4);
    raw->HashWrite("Added", "z");
    ASSERT_EQ(raw->ApplyRedisChanges(false), RT_SUCCESS);
    const std::string text = Checked(raw);
    EXPECT_NE(text.find("\"Name\":\"abc\",\"Neg\":4,"), std::string::npos) << text;
    EXPECT_EQ(CountOf(text, ",\"Added\":\"z\"}"), 1u);
}

TEST_F(RawJsonTest, NestedNodesAreInlinedAndLinksRendered) {
    auto* mgr = new ZResource(nullptr, nullptr, "/redfish/v1/Managers/1");
    auto* status = new ZJsonObject(raw, "Status");
    EXPECT_TRUE(status->IsDataFmtRawJson() && !status->IsRawJsonRoot());
    status->HashWrite("State", "On");
    status->HashWrite("@odata.id", "/redfish/v1/Raw#/Status", true);
    raw->HashWrite("Status", status);
    auto* list = new ZJsonArray(raw, "List", ZJsonArray::ARRAY_ATTR_OdataCount);
    raw->HashWrite("List", list);
    list->ListWrite(-1, 1);
    list->ListWrite(-1, "two");
    auto* item = new ZJsonObject(list, "2");
    item->HashWrite("K", false);
    list->ListWrite(-1, item);
    list->ListWrite(-1, static_cast<ZObject*>(mgr), true);
    list->ListWrite(-1, "/redfish/v1/Text", true);
    list->ListWrite(0, 10);
    raw->HashWrite("Manager", mgr, true);
    raw->HashWrite("Chassis", "/redfish/v1/Chassis/1", true);

    // Only a child can be content; anything else is a link.
    size_t mark = LogMark();
    EXPECT_EQ(raw->HashWrite("Mgr", static_cast<ZObject*>(mgr)), RT_FAILURE);
    EXPECT_TRUE(Logged(mark,
                       "Object[/redfish/v1/Raw] is RawJson: only its own child can be its "
                       "content; write Object[/redfish/v1/Managers/1] as a link.\n"));

    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(Checked(raw),
              "{\"@odata.id\":\"/redfish/v1/Raw\","
              "\"Status\":{\"State\":\"On\",\"@odata.id\":\"/redfish/v1/Raw#/Status\"},"
              "\"List@odata.count\":5,"
              "\"List\":[10,\"two\",{\"K\":false},{\"@odata.id\":\"/redfish/v1/Managers/1\"},"
              "{\"@odata.id\":\"/redfish/v1/Text\"}],"
              "\"Manager\":{\"@odata.id\":\"/redfish/v1/Managers/1\"},"
              "\"Chassis\":{\"@odata.id\":\"/redfish/v1/Chassis/1\"}}");
    // The descendants have no keys of their own.
    EXPECT_FALSE(Exists("&&/redfish/v1/Raw/Status") || Exists("&&/redfish/v1/Raw/List") ||
                 Exists("&&/redfish/v1/Raw/List/2"));

    // A retired child reads as null where it was.
    item->ObjDestroy(ZObject::eDestroyDelete, true);
    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(CountOf(Checked(raw), "\"two\",null,{\"@odata.id\""), 1u);
}

TEST_F(RawJsonTest, ParsedTextRoundTripsAndAnArrayIsReplaced) {
    ASSERT_EQ(JsonString2ZObjTree("{'Name':'n','Links':{'Chassis':['/redfish/v1/Chassis/1']},"
                                  "'Fans':[{'Rpm':1},{'Rpm':2}],"
                                  "'target':'/redfish/v1/Raw/Actions/x','Ratio':-1.5}",
                                  raw, J2O_APPLY),
              RT_SUCCESS);
    EXPECT_EQ(Checked(raw),
              "{\"@odata.id\":\"/redfish/v1/Raw\",\"Name\":\"n\","
              "\"Links\":{\"Chassis\":[{\"@odata.id\":\"/redfish/v1/Chassis/1\"}]},"
              "\"Fans\":[{\"Rpm\":1},{\"Rpm\":2}],\"target\":\"/redfish/v1/Raw/Actions/x\","
              "\"Ratio\":-1.500000}");
    ZObject* fan1 = raw->GetChildByJPath("Fans/1");
    ASSERT_NE(fan1, nullptr);

    ASSERT_EQ(JsonString2ZObjTree("{'Fans':[{'Rpm':3}],'Name':'m'}", raw), RT_SUCCESS);
    EXPECT_TRUE(fan1->IsDied());
    // Emptied at once in memory; the store follows at the apply.
    ZObject* fans = raw->GetChild("Fans");
    ASSERT_NE(fans, nullptr);
    EXPECT_EQ(fans->ObjData2RawJsonString(), "[]");
    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(CountOf(Checked(raw),
                      "\"Name\":\"m\",\"Links\":{\"Chassis\":[{\"@odata.id\":"
                      "\"/redfish/v1/Chassis/1\"}]},\"Fans\":[{\"Rpm\":3}],"),
              1u);
}

TEST_F(RawJsonTest, ARawJsonResourceBelowANormalOneIsWrittenByItsApply) {
    auto* sys = new ZResource(nullptr, nullptr, "/redfish/v1/Systems/1");
    auto* oem = new ZResource(sys, nullptr, "Oem", "", ZObject::ATTR_RawJson);
    EXPECT_TRUE(oem->IsRawJsonRoot() && !sys->IsDataFmtRawJson());
    sys->HashWrite("Oem", static_cast<ZObject*>(oem));
    sys->HashWrite("Name", "s");
    oem->HashWrite("Vendor", "x");
    ASSERT_EQ(JsonString2ZObjTree("{'A':{'B':[1,{'C':'d'}]}}", oem), RT_SUCCESS);

    // Applying a node inside the text does nothing: its root writes it.
    ZObject* a = oem->GetChild("A");
    ASSERT_NE(a, nullptr);
    size_t mark = LogMark();
    EXPECT_EQ(a->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_TRUE(
        Logged(mark, "Ignore object[&&/redfish/v1/Systems/1/Oem/A] applyRedisChanges action.\n"));
    EXPECT_EQ(Stored("/redfish/v1/Systems/1/Oem"), "{\"@odata.id\":\"/redfish/v1/Systems/1/Oem\"}");

    ASSERT_EQ(sys->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/1"),
              (Fields{{"@odata.id", "\"/redfish/v1/Systems/1\""},
                      {"&&Object Oem /redfish/v1/Systems/1/Oem", ""},
                      {"Name", "\"s\""}}));
    EXPECT_EQ(Checked(oem),
              "{\"@odata.id\":\"/redfish/v1/Systems/1/Oem\",\"Vendor\":\"x\","
              "\"A\":{\"B\":[1,{\"C\":\"d\"}]}}");

    // A node of the normal format refuses the RawJson calls.
    mark = LogMark();
    EXPECT_EQ(sys->ObjData2RawJsonString(), "");
    EXPECT_EQ(sys->ApplyRawJsonData(nullptr), RT_FAILURE);
    EXPECT_EQ(
        CountOf(LogSince(mark), "Object[/redfish/v1/Systems/1] data format is not RawJson.\n"), 2u);
    // Retiring the root deletes its hash.
    sys->HashRemove("Oem");
    EXPECT_TRUE(oem->IsDied());
    EXPECT_FALSE(Exists("/redfish/v1/Systems/1/Oem"));
}

TEST_F(RawJsonTest, ResourceDefaultsGoInsideTheTextAndNoChannelsAreMade) {
    ZSchema schema("ComputerSystem", "v1_20_0", ZSchema::CRUDQ_READ | ZSchema::CRUDQ_UPDATE);
    schema.SetTaskFlag(ZSchema::CRUDQ_ACTION);
    schema.SetEtagEnabled(true);
    auto* res = new ZResource(nullptr, &schema, "/redfish/v1/Systems/9", "",
                              ZObject::ATTR_RawJson | ZResource::RES_ATTR_EnableChecklist);
    EXPECT_EQ(HGetAll("/redfish/v1/Systems/9"),
              (Fields{{"&&RawJSON",
                       "{\"@odata.id\":\"/redfish/v1/Systems/9\","
                       "\"@odata.type\":\"#ComputerSystem.v1_20_0.ComputerSystem\","
                       "\"@odata.etag\":\"\","
                       "\"@odata.context\":\"/redfish/v1/$metadata#ComputerSystem\"}"},
                      {"&&EnableChecklist", "true"},
                      {"&&Async", "true"}}));
    EXPECT_EQ(res->GetChildNum(), 0u);
    EXPECT_FALSE(Exists("&&/redfish/v1/Systems/9/GETQ"));
}

TEST_F(RawJsonTest, RefusalsAndDiscardLeaveTheTextAndWritesOutliveAFailedConnect) {
    auto* list = new ZJsonArray(raw, "List");
    raw->HashWrite("List", list);
    list->ListWrite(-1, "a");
    auto* status = new ZJsonObject(raw, "Status");
    raw->HashWrite("Status", status);
    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    const std::string before = Stored(kRaw);

    size_t mark = LogMark();
    for (eRtCode rt : {raw->HashRemove("List"), raw->HashRemoveLink("Manager"),
                       list->ListRemove("\"a\""), list->ListRemove(0)}) {
        EXPECT_EQ(rt, RT_FAILURE);
    }
    EXPECT_EQ(
        CountOf(LogSince(mark), "Shouldn't run in this condition when data format is RawJson.\n"),
        4u);
    mark = LogMark();
    const unsigned char bytes[] = {1, 2};
    EXPECT_EQ(raw->HashWriteNumArray("Bytes", bytes, 2), RT_FAILURE);
    EXPECT_EQ(raw->HashAppendAllowableValues("Mode", "On"), RT_FAILURE);
    // Meta fields belong beside the root's text, nowhere inside it.
    EXPECT_EQ(status->HashWrite("&&Async", true), RT_FAILURE);
    EXPECT_TRUE(
        Logged(mark, {"This function is not available when data format is set to RawJson.\n",
                      "Object[&&/redfish/v1/Raw/Status] is inside a RawJson text: meta "
                      "property[&&Async] has no place there.\n"}));
    EXPECT_EQ(raw->GetRedisChangeNum() + list->GetRedisChangeNum() + status->GetRedisChangeNum(),
              0u);

    // Discarded writes, a node's among them, never become content; no node
    // bookkeeping rides on RawJson items, so there is nothing to warn about.
    raw->HashWrite("Dropped", 2);
    status->HashWrite("Also", 3);
    auto* child = new ZJsonObject(raw, "Child");
    raw->HashWrite("Child", child);
    raw->DiscardRedisChanges(true);
    EXPECT_FALSE(Logged(mark, "Should not call DiscardRedisChanges()"));
    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(Stored(kRaw), before);
    EXPECT_FALSE(status->IsDied() || Exists("&&/redfish/v1/Raw/Bytes"));

    // Without a store the writes still become content, and the next apply
    // that reaches the store writes all of it.
    raw->HashWrite("Late", 4);
    RedisServer::Instance().Stop();
    mark = LogMark();
    EXPECT_EQ(raw->ApplyRedisChanges(), RT_FAILURE);
    EXPECT_TRUE(Logged(mark, "Failed to call RedisConnect()\n."));
    EXPECT_EQ(raw->GetRedisChangeNum(), 0u);
    ASSERT_TRUE(RedisServer::Instance().Start());
    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    EXPECT_EQ(CountOf(Checked(raw), "\"Status\":{},\"Late\":4}"), 1u);
}

TEST_F(RawJsonTest, WritersAndAppliesOnSeveralThreadsKeepTheTextWhole) {
    auto* status = new ZJsonObject(raw, "Status");
    raw->HashWrite("Status", status);
    auto* list = new ZJsonArray(raw, "List", ZJsonArray::ARRAY_ATTR_OdataCount);
    raw->HashWrite("List", list);
    constexpr int kWrites = 300;
    std::thread writer([&] {
        for (int i = 0; i < kWrites; ++i) {
            status->HashWrite("N", i);
            list->ListWrite(-1, i);
        }
    });
    std::thread applier([&] {
        for (int i = 0; i < 50; ++i) {
            raw->ApplyRedisChanges();
            // Whatever the moment, what is stored is a document.
            const std::string doc = StoreDoc(kRaw);
            EXPECT_TRUE(doc.compare(0, 1, "{") == 0 && IsJsonValueText(doc)) << doc;
        }
    });
    writer.join();
    applier.join();
    ASSERT_EQ(raw->ApplyRedisChanges(), RT_SUCCESS);
    const std::string text = Checked(raw);
    EXPECT_EQ(CountOf(text, "\"Status\":{\"N\":299}"), 1u);
    EXPECT_EQ(CountOf(text, "\"List@odata.count\":300,"), 1u);
    EXPECT_EQ(CountOf(text, ",298,299]"), 1u);
}

}  // namespace
