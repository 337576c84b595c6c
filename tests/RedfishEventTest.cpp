// Redfish events and metric reports, stored in the private store and queued
// through the real event-service scripts of tests/support/scripts/.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include "ChildProcess.h"
#include "EventScripts.h"
#include "ObjectModelFixture.h"
#include "ZJsonObject.h"
#include "ZRedfishEvent.h"
#include "ZResource.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const char* const kSendFailed = "Failed to call RedisEvalEnqueueEvent() errCode:";

class RedfishEventTest : public ObjectModelTest {
protected:
    void SetUp() override {
        ObjectModelTest::SetUp();
        RedisConn c = RawConnect();
        std::string error;
        ASSERT_TRUE(LoadEventScripts(c.get(), &error)) << error;
        mSchema.reset(new ZSchema("Chassis", "v1_0_0"));
        mChassis = new ZResource(nullptr, mSchema.get(), "/redfish/v1/Chassis/1");
        mBaseline = mApp->ObjectListSize();
    }
    void TearDown() override {
        mSchema.reset();  // retires its resource while the application lives
        ObjectModelTest::TearDown();
    }

    // Every node of the events made so far has been retired and freed.
    void ExpectEventNodesGone() {
        Recycle();
        EXPECT_EQ(mApp->ObjectListSize(), mBaseline);
        EXPECT_EQ(mApp->RecycledListSize(), 0u);
    }

    // The field names of a hash in the order they were first written.
    static std::vector<std::string> FieldOrder(const std::string& key) {
        std::vector<std::string> names;
        Reply r = RawCommand({"HGETALL", key});
        for (size_t i = 0; r && i + 1 < r->elements; i += 2) names.push_back(r->element[i]->str);
        return names;
    }

    // An event with one record, sent; returns its root JPath.
    std::string SendOne() {
        auto* ev = new ZRedfishEvent("Test");
        ev->CreateEventRecord("ResourceEvent.1.0.ResourceChanged", "Changed.", mChassis);
        const std::string root = "&&" + ev->GetEventId();
        ZApplication::SendRedfishEvent(ev);
        return root;
    }

    std::unique_ptr<ZSchema> mSchema;
    ZResource* mChassis = nullptr;
    size_t mBaseline = 0;
};

TEST_F(RedfishEventTest, AnEventIsStoredInItsLayoutQueuedAndItsNodesRetired) {
    const size_t mark = LogMark();
    auto* ev = new ZRedfishEvent("Fan \"2\" event");
    const std::string id = ev->GetEventId();
    const std::string root = "&&" + id;
    const std::string r0 = root + "/Events/0";
    const std::string r1 = root + "/Events/1";
    ZJsonObject* rec = ev->CreateEventRecord("ResourceEvent.1.0", "ResourceErrorsDetected",
                                             "Warning", "Fan 2 is slow.", mChassis);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(ev->EventRecord_AppendMessageArgs(rec, "Fan \"2\""), RT_SUCCESS);
    EXPECT_EQ(ev->EventRecord_AppendMessageArgs(rec, "1200 "), RT_SUCCESS);
    ZJsonObject* alert = ev->EventRecord_NewAlertOemObj(rec);
    ASSERT_NE(alert, nullptr);
    EXPECT_EQ(ev->EventRecord_NewOemObj(rec), alert->GetParent());  // one Oem per record
    // The two-text form: a whole MessageId, severity OK, here without origin.
    ASSERT_NE(ev->CreateEventRecord("Base.1.12.Success", "Done.", nullptr), nullptr);
    // Nothing reaches the store before the send.
    EXPECT_FALSE(Exists(r0));
    ZApplication::SendRedfishEvent(ev);

    EXPECT_EQ(LRange(kEventQueue), Items{root});
    EXPECT_EQ(HGetAll(root), (Fields{{"Id", "\"" + id + "\""},
                                     {"Name", "\"Fan \\\"2\\\" event\""},
                                     {"&&Events", root + "/Events"}}));
    EXPECT_EQ(LRange(root + "/Events"), (Items{r0, r1}));
    EXPECT_EQ(HGetAll(r0), (Fields{{"MessageId", "\"ResourceEvent.1.0.ResourceErrorsDetected\""},
                                   {"&&OriginOfCondition", "/redfish/v1/Chassis/1"},
                                   {"&&ResourceType", "LogService"},
                                   {"MessageSeverity", "\"Warning\""},
                                   {"Message", "\"Fan 2 is slow.\""},
                                   {"&&MessageArgs", r0 + "/MessageArgs"},
                                   {"&&Oem", r0 + "/Oem"}}));
    EXPECT_EQ(FieldOrder(r0),
              (std::vector<std::string>{"MessageId", "&&OriginOfCondition", "&&ResourceType",
                                        "MessageSeverity", "Message", "&&MessageArgs", "&&Oem"}));
    EXPECT_EQ(LRange(r0 + "/MessageArgs"), (Items{"\"Fan \\\"2\\\"\"", "\"1200 \""}));
    EXPECT_EQ(HGetAll(r0 + "/Oem"), (Fields{{"&&Veltra", r0 + "/Oem/Veltra"}}));
    EXPECT_EQ(HGetAll(r0 + "/Oem/Veltra"),
              (Fields{{"SystemUUID", "\"6E2B8F14-A09C-4D3B-8F5A-1C7D2E9B0A63\""},
                      {"SystemSerialNumber", "\"SIM0000001\""},
                      {"SystemMachineTypeModel", "\"7X99CTO1WW\""},
                      {"@odata.type", "\"#VeltraEvent.v1_0_0.VeltraEventRecord\""}}));
    EXPECT_EQ(HGetAll(r1), (Fields{{"MessageId", "\"Base.1.12.Success\""},
                                   {"&&ResourceType", "LogService"},
                                   {"MessageSeverity", "\"OK\""},
                                   {"Message", "\"Done.\""},
                                   {"&&MessageArgs", r1 + "/MessageArgs"}}));
    EXPECT_TRUE(Logged(mark, "New event[" + root + "].\n"));
    EXPECT_THAT(LogSince(mark), Not(HasSubstr(kSendFailed)));
    ExpectEventNodesGone();
}

TEST_F(RedfishEventTest, EventsTheServiceRefusesAreRemovedFromTheStore) {
    // Each case: the store commands that make the service refuse, whether
    // the event has a record, and the lines logged (none: a silent refusal).
    const std::string failed = kSendFailed;
    const struct {
        const char* what;
        std::vector<Items> setup;
        bool withRecord;
        Items logged;
    } cases[] = {
        {"no subscription (2)",
         {{"HSET", kEventServiceState, "EventSubscriptions", "0"}},
         true,
         {}},
        {"no record (3)", {}, false, {}},
        {"queue full (4)",
         {{"HSET", kEventServiceState, "QueueLimit", "1"}, {"RPUSH", kEventQueue, "earlier"}},
         true,
         {failed + "4.\n"}},
        {"no digest",
         {{"HDEL", "redisSHAScripts", "enqueueEvent"}},
         true,
         {"Failed to get script[enqueueEvent] SHA value.\n", failed + "-1.\n"}},
        {"unknown digest",
         {{"SCRIPT", "FLUSH"}},
         true,
         {"reply type[6] is unexpected.\n", failed + "-1.\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string error;
        RedisConn conn = RawConnect();
        ASSERT_TRUE(LoadEventScripts(conn.get(), &error)) << error;
        RawCommand({"DEL", kEventQueue});
        for (const Items& command : c.setup) RawCommand(command);
        const size_t mark = LogMark();
        auto* ev = new ZRedfishEvent("Refused");
        const std::string root = "&&" + ev->GetEventId();
        if (c.withRecord) ev->CreateEventRecord("Base.1.12.Success", "Done.", mChassis);
        ZApplication::SendRedfishEvent(ev);

        EXPECT_THAT(LRange(kEventQueue), Not(::testing::Contains(root)));
        EXPECT_FALSE(Exists(root) || Exists(root + "/Events") || Exists(root + "/Events/0"));
        if (c.logged.empty()) {
            EXPECT_THAT(LogSince(mark), Not(HasSubstr(kSendFailed)));
        } else {
            for (const std::string& text : c.logged) EXPECT_TRUE(Logged(mark, text));
        }
        ExpectEventNodesGone();
    }
}

TEST_F(RedfishEventTest, AnUnreadableMachineRecordLeavesTheAlertBlockWithNulls) {
    const std::string vpd = SysrootDir() + "/var/lib/vpd/machine.vpd";
    // Each case: the record, the line logged, and the three fields' values.
    const struct {
        std::string record;
        const char* logged;
        const char* uuid;
        const char* others;
    } cases[] = {
        {"short", "Failed to call vpdd_machine_vpd_read() res[2].\n", "null", "null"},
        {std::string(1106, '\0'),
         "The machine UUID in the vital product data is not 32 hex digits.\n", "null", "\"\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        WriteFile(vpd, c.record);
        const size_t mark = LogMark();
        auto* ev = new ZRedfishEvent("Alert");
        const std::string veltra = "&&" + ev->GetEventId() + "/Events/0/Oem/Veltra";
        ZJsonObject* rec = ev->CreateEventRecord("Base.1.12.Success", "Done.", mChassis);
        EXPECT_NE(ev->EventRecord_NewAlertOemObj(rec), nullptr);
        ZApplication::SendRedfishEvent(ev);
        EXPECT_EQ(HGetAll(veltra),
                  (Fields{{"SystemUUID", c.uuid},
                          {"SystemSerialNumber", c.others},
                          {"SystemMachineTypeModel", c.others},
                          {"@odata.type", "\"#VeltraEvent.v1_0_0.VeltraEventRecord\""}}));
        EXPECT_TRUE(Logged(mark, c.logged));
        EXPECT_EQ(LRange(kEventQueue).size(), 1u);  // still delivered
        RawCommand({"DEL", kEventQueue});
    }
    std::remove(vpd.c_str());  // the next read makes the default record again
    ExpectEventNodesGone();
}

TEST_F(RedfishEventTest, WithoutAStoreTheEventIsDroppedAndFreed) {
    RedisServer::Instance().Stop();
    const size_t mark = LogMark();
    auto* ev = new ZRedfishEvent("Lost");
    ev->EventRecord_AppendMessageArgs(ev->CreateEventRecord("Base.1.12.Success", "Done.", mChassis),
                                      "x");
    ZApplication::SendRedfishEvent(ev);
    EXPECT_TRUE(Logged(mark, "Failed to connect Redis.\n"));
    ExpectEventNodesGone();
}

TEST_F(RedfishEventTest, EventsFromManyThreadsKeepUniqueIncreasingIdsAndAreAllQueued) {
    constexpr int kThreads = 8;
    constexpr int kEach = 25;
    std::vector<std::vector<std::string>> ids(kThreads);
    ZResource* origin = mChassis;
    OnThreads(kThreads, [&ids, origin](int t) {
        for (int i = 0; i < kEach; ++i) {
            auto* ev = new ZRedfishEvent("Load");
            ids[t].push_back(ev->GetEventId());
            ZJsonObject* rec =
                ev->CreateEventRecord("ResourceEvent.1.0.ResourceChanged", "Changed.", origin);
            ev->EventRecord_AppendMessageArgs(rec, std::to_string(i));
            ZApplication::SendRedfishEvent(ev);
        }
    });

    // Ids order as (seconds, counter); the counter alone never repeats.
    auto order = [](const std::string& id) {
        long long seconds = 0;
        unsigned long long counter = 0;
        EXPECT_EQ(std::sscanf(id.c_str(), "%lld-%*d-%llu", &seconds, &counter), 2) << id;
        return std::make_tuple(seconds, counter);
    };
    std::set<std::string> queued;
    for (const std::string& key : LRange(kEventQueue)) queued.insert(key);
    std::set<std::string> all;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kEach; ++i) {
            const std::string& id = ids[t][i];
            all.insert(id);
            if (i > 0) {
                EXPECT_LT(order(ids[t][i - 1]), order(id));
            }
            const std::string root = "&&" + id;
            EXPECT_EQ(queued.count(root), 1u) << root;
            EXPECT_EQ(LRange(root + "/Events/0/MessageArgs"),
                      Items{"\"" + std::to_string(i) + "\""});
        }
    }
    EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(queued.size(), all.size());
    ExpectEventNodesGone();
}

TEST_F(RedfishEventTest, MetricReportsAreQueuedOrRefusedWithTheirTexts) {
    ZSchema reportSchema("MetricReport", "v1_4_0");
    auto* report =
        new ZResource(nullptr, &reportSchema, "/redfish/v1/TelemetryService/MetricReports/1");
    const std::string key = report->GetJPath();
    const struct {
        std::vector<Items> setup;
        const char* logged;  // null: queued, nothing logged
    } cases[] = {
        {{}, nullptr},
        {{{"HSET", kEventServiceState, "MetricReportSubscriptions", "0"}},
         "RedisEvalEnqueueMetricReport() ignore this event due to no subscription.\n"},
        {{{"DEL", key}}, "Failed to call RedisEvalEnqueueMetricReport() errCode:3.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged ? c.logged : "queued");
        std::string error;
        RedisConn conn = RawConnect();
        ASSERT_TRUE(LoadEventScripts(conn.get(), &error)) << error;
        RawCommand({"DEL", kMetricReportQueue});
        report->HashWrite("Id", "1");
        report->ApplyRedisChanges();
        for (const Items& command : c.setup) RawCommand(command);
        const size_t mark = LogMark();
        ZRedfishEvent::_SendMetricReport(report);
        if (c.logged == nullptr) {
            EXPECT_EQ(LRange(kMetricReportQueue), Items{key});
        } else {
            EXPECT_TRUE(LRange(kMetricReportQueue).empty());
            EXPECT_TRUE(Logged(mark, c.logged));
        }
        EXPECT_FALSE(report->IsDied());  // the report stays with the caller
    }
    const size_t mark = LogMark();
    ZRedfishEvent::_SendMetricReport(nullptr);
    EXPECT_TRUE(Logged(mark, "NULL arg! report:"));
}

TEST_F(RedfishEventTest, MisuseIsRefusedAndAnUnsentEventLeavesNothingStored) {
    auto* ev = new ZRedfishEvent("Mine");
    auto* other = new ZRedfishEvent("Other");
    const std::string root = "&&" + ev->GetEventId();
    const size_t mark = LogMark();
    EXPECT_EQ(ev->CreateEventRecord("NoDot", "x", mChassis), nullptr);
    ZJsonObject* foreign = other->CreateEventRecord("Base.1.12.Success", "Done.", nullptr);
    EXPECT_EQ(ev->EventRecord_AppendMessageArgs(foreign, "x"), RT_FAILURE);
    EXPECT_EQ(ev->EventRecord_NewAlertOemObj(nullptr), nullptr);
    ZJsonObject* rec = ev->CreateEventRecord("Base.1.12.Success", "Done.", mChassis);
    rec->GetChild("MessageArgs")->ObjDestroy(ZObject::eDestroyDelete, false);
    EXPECT_EQ(ev->EventRecord_AppendMessageArgs(rec, "x"), RT_FAILURE);
    ZApplication::SendRedfishEvent(nullptr);
    EXPECT_TRUE(Logged(mark, {"MessageId[NoDot] is not <prefix>.<key>.\n",
                              "is not a record of event[" + ev->GetEventId() + "].\n",
                              "EventRecord_NewAlertOemObj: record[(nil)] is not a valid object.\n",
                              "Failed to get child( 'MessageArgs' ).\n", "NULL arg! event:"}));
    delete ev;
    delete other;
    EXPECT_FALSE(Exists(root));
    EXPECT_TRUE(LRange(kEventQueue).empty());
    ExpectEventNodesGone();
}

}  // namespace
