// The application frame: options and usage text, the start-up steps, the
// wait for the front end, the ready file, "&&AccessBlockList", signals,
// VEX events, diagnostics and teardown.
//
// Process behaviour is observed on the test plug-in (tests/programs/
// TestPlugin.cpp) started as a child; what only shows inside a process
// (threads started, descriptors left open, globals restored) is tested on
// applications built in this process.
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "ChildProcess.h"
#include "FixedPaths.h"
#include "TestEnv.h"
#include "TestFiles.h"
#include "TestPluginProcess.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZSchema.h"
#include "vex.h"

using namespace OrbelTest;
using Orbel::ZApplication;
using Texts = std::vector<std::string>;

namespace {

constexpr int kTimeoutMs = 15000;

// The test plug-in's usage text, byte for byte.
const std::string kUsage =
    "Usage: TestPlugin [Options] \n\nOptions: \n"
    "  -d < 0 | 1 | SchemaIDs >  Enable debug log message for all Schemas. (default: 0) \n"
    "                            e.g, -d 1 or -d 2,4,5 \n"
    "  -i <SchemaIDs>            A Schema would be created when it is included by this white "
    "list. (default: all) \n"
    "                            e.g, i 2,4,5 \n"
    "  -e <SchemaIDs>            A Schema would not be created when it is included by this black "
    "list. (default: empty) \n"
    "                            The priority is higher than -i option. For example: -e 5,7 \n"
    "SchemaIDs: \n  2  Alpha \n  3  Bravo \n  4  Charlie \n  5  Delta \n  6  Echo \n\n";

const auto RedfishDir = [](const std::string& sysroot) { return sysroot + "/tmp/Redfish/"; };
const auto Has = [](const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
};

// Each text of `texts` appears in `out`, after the one before it.
::testing::AssertionResult InOrder(const std::string& out, const Texts& texts) {
    size_t pos = 0;
    for (const auto& text : texts) {
        size_t at = out.find(text, pos);
        if (at == std::string::npos) {
            return ::testing::AssertionFailure()
                   << "missing or out of order: [" << text << "] in:\n"
                   << out;
        }
        pos = at + text.size();
    }
    return ::testing::AssertionSuccess();
}

void SetCorvelReady(bool ready) {
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", ready ? 1 : 0, 0), 0);
}

std::string GetVexString(const std::string& name) {
    char buf[256] = {};
    return vex_config_get_str_n(name.c_str(), buf, sizeof(buf)) != 0 ? buf : "<unset>";
}

Texts CreatedSchemas(const std::string& output) {
    Texts names;
    for (const auto& line : Lines(output))
        if (line.rfind("Created schema[", 0) == 0)
            names.push_back(line.substr(15, line.size() - 16));
    return names;
}

int RunSimTool(const Texts& args, std::map<std::string, std::string> env = {}) {
    Texts argv = args;
    argv.insert(argv.begin(), BuiltProgram("platform/sim/orbel-sim"));
    ChildProcess tool(argv, env);
    return tool.Start() ? tool.Wait(kTimeoutMs) : -1;
}

// Process-level checks run with the store up and empty, and the front end
// reported ready unless the test says otherwise.
class PluginProcessTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        SetCorvelReady(true);
    }
};

// ---------------------------------------------------------------------------
// Options and usage
// ---------------------------------------------------------------------------

TEST_F(PluginProcessTest, UsageAndDebugOptionsEndExecWithZeroBeforeAnySchema) {
    // -h, an unknown option and a missing option argument all print the
    // usage and end Exec with 0 before any schema is created; options before
    // -h are still applied. Each case: the arguments, texts printed in
    // order, and the value left in <app>_dbg_MsgLvl.
    const struct {
        Texts args, printed;
        std::string variable;
    } cases[] = {
        {{"-h"}, {}, "0"},  // without any -d the variable is reset to "0"
        {{"-x"}, {}, "0"},
        {{"-i"}, {}, "0"},
        {{"-d", "0", "-h"}, {"INFO: Disable debug message for all Schemas.\n"}, "0"},
        {{"-d", "1", "-h"}, {"INFO: Enable debug message for all Schemas.\n"}, "1"},
        {{"-d", "2,4", "-h"},
         {"INFO: Enable debug log for Schemas: 2,4\nDebug log for Schemas: Alpha Charlie \n"},
         "2,4"},
        // A comma makes a list even around 0 and 1; IDs below 2 are skipped.
        {{"-d", "1,3", "-h"}, {"Debug log for Schemas: Bravo \n"}, "1,3"},
        // An ID past the table stops the parse: 3 is never read.
        {{"-d", "2,9,3", "-h"},
         {"outFlagIdx:7 out of buffer size.\n", "Debug log for Schemas: Alpha \n"},
         "2,9,3"},
    };
    // Another instance of RF_Dbg0 is starting: its entry is not ours to drop.
    RawCommand({"SADD", "&&AccessBlockList", "RF_Dbg0"});
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (size_t i = 0; i < std::size(cases); ++i) {
        const std::string app = "RF_Dbg" + std::to_string(i);
        ASSERT_NE(vex_config_set_str_n((app + "_dbg_MsgLvl").c_str(), "junk", 4, 0), 0);
        children.push_back(StartPlugin(app, cases[i].args));
    }
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        ASSERT_EQ(children[i]->Wait(kTimeoutMs), 0);
        std::string out = children[i]->Output();
        EXPECT_TRUE(InOrder(out, cases[i].printed));
        EXPECT_TRUE(Has(out, kUsage + "Exec returned 0\n")) << out;
        EXPECT_TRUE(CreatedSchemas(out).empty()) << out;
        EXPECT_FALSE(Has(out, "initialed.") || Has(out, "Failed to call RedisConnect()")) << out;
        EXPECT_EQ(GetVexString("RF_Dbg" + std::to_string(i) + "_dbg_MsgLvl"), cases[i].variable);
    }
    EXPECT_EQ(SMembers("&&AccessBlockList"), std::set<std::string>{"RF_Dbg0"});
}

TEST(ApplicationOptionsTest, IncludeAndExcludeSelectTheSchemasCreated) {
    SetCorvelReady(false);  // the children stop in the wait; nothing else is needed
    const struct {
        Texts args, created;
        std::string printed;
        bool echoTried;  // Echo (ID 6) selected: its factory runs and fails
    } cases[] = {
        {{}, {"Alpha", "Bravo", "Charlie", "Delta"}, "", true},
        // Exclusion wins over inclusion.
        {{"-i", "2,3", "-e", "3"}, {"Alpha"}, "Include Schemas: Alpha Bravo \n", false},
        {{"-e", "2,5"}, {"Bravo", "Charlie"}, "Exclude Schemas: Alpha Delta \n", true},
        // Junk tokens convert to 0 and are skipped; "4y" reads as 4.
        {{"-i", "x,4y,,-1,0,1,5"},
         {"Charlie", "Delta"},
         "Include Schemas: Charlie Delta \n",
         false},
        // Repeated lists add up.
        {{"-i", "3", "-i", "4,6"},
         {"Bravo", "Charlie"},
         "Include Schemas: Bravo Charlie Echo \n",
         true},
    };
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (size_t i = 0; i < std::size(cases); ++i)
        children.push_back(StartPlugin("RF_Sel" + std::to_string(i), cases[i].args));
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        std::string marker = "ZApplication[RF_Sel" + std::to_string(i) + "] initialed.\n";
        ASSERT_TRUE(children[i]->WaitForOutput(marker, kTimeoutMs)) << children[i]->Output();
        std::string out = children[i]->Output();
        EXPECT_EQ(CreatedSchemas(out), cases[i].created) << out;
        EXPECT_TRUE(Has(out, cases[i].printed)) << out;
        EXPECT_EQ(Has(out, "WARNING: Failed to initial Schema[Echo]. res:-3\n"), cases[i].echoTried)
            << out;
    }
}

// ---------------------------------------------------------------------------
// Start-up, readiness, signals and shutdown
// ---------------------------------------------------------------------------

TEST_F(PluginProcessTest, WaitsForTheFrontEndThenReportsReadyAndExitsInOrder) {
    SetCorvelReady(false);
    const std::string app = "RF_Session";
    auto child = StartPlugin(app, {"-d", "1"});
    ASSERT_TRUE(child->WaitForOutput("Waiting Corvel Orbel ready!\n", kTimeoutMs))
        << child->Output();
    // Still starting: listed as such, not ready, pre-ready stage done only.
    EXPECT_EQ(SMembers("&&AccessBlockList").count(app), 1u);
    EXPECT_FALSE(FileExists(ReadyFile(app)));
    std::string out = child->Output();
    EXPECT_TRUE(Has(out, "Stage pre[Alpha] step[2]\n") && !Has(out, "Stage post[")) << out;

    SetCorvelReady(true);
    ASSERT_TRUE(WaitRunning(*child, app));
    EXPECT_EQ(ReadFile(ReadyFile(app)), "Ready\n");
    EXPECT_TRUE(WaitUntil([&] { return SMembers("&&AccessBlockList").count(app) == 0; }, 5000));
    out = child->Output();
    EXPECT_TRUE(
        InOrder(out, {"Stage post[Alpha] step[3]\n", "Stage post[Delta] step[3]\n",
                      "PostCorvelReady_InitAllSchemaResources done!\n",
                      "Stage after[Alpha] step[3]\n", "Stage after[Delta] step[3]\n",
                      "PostCorvelReady_AfterTreatment done!\n", "AppInitDoneProcess step[4]\n"}));
    EXPECT_TRUE(Has(out, "Success to call vex_init( RF_Session, 0x7266736e ) \n"));
    // Event callbacks: accepted before Exec and from a factory, a duplicate
    // refused, and refused once VEX registration has run.
    for (const char* line :
         {"Register[TestEvent] at main: rt=0\n",
          "VEX event[TestEvent] has been registered.\nRegister[TestEvent] at factory: rt=2\n",
          "Register[FactoryEvent] at factory: rt=0\n",
          "Should call this function not before the step 2.\nRegister[LateEvent] at init-done: "
          "rt=2\n"})
        EXPECT_TRUE(Has(out, line)) << line;

    ASSERT_TRUE(child->Signal(SIGTERM));
    ASSERT_EQ(child->Wait(kTimeoutMs), 0) << child->Output();
    out = child->Output();
    // The shutdown order: the signal, the exit hook, the schemas' threads in
    // list order, the process loop, then the schemas are deleted in list order.
    // The signal thread and the process loop end on their own threads; by
    // the time Exec returns both are done.
    EXPECT_TRUE(InOrder(out, {"SigHandle(15)\n", "AppSysSigHandle:INFO: Exit\n", "zApp Exit.\n"}));
    EXPECT_TRUE(InOrder(out, {"ZApp thread exited\n", "zApp Exit.\n"}));
    EXPECT_TRUE(
        InOrder(out, {"AppExitProcess\n", "Wait Schema[Alpha] threads exiting..\n",
                      "Wait Schema[Delta] threads exiting..\n", "zApp Exit.\n", "Exec returned 0\n",
                      "Deleted schema[Alpha]\n", "Deleted schema[Bravo]\n",
                      "Deleted schema[Charlie]\n", "Deleted schema[Delta]\n"}));
}

// A name outside the fixed table is unsupported until the author registers
// it with the simulated platform; then the process registers with VEX.
TEST_F(PluginProcessTest, AnAuthorRegistersANewApplicationName) {
    const std::string app = "RF_Chassis";
    for (bool registered : {false, true}) {
        if (registered) {
            ASSERT_EQ(RunSimTool({"vex", "app", "add", app, "0x72666368"}), 0);
        }
        auto child = StartPlugin(app, {});
        ASSERT_TRUE(WaitRunning(*child, app));
        ASSERT_TRUE(child->Signal(SIGTERM));
        ASSERT_EQ(child->Wait(kTimeoutMs), 0);
        const std::string out = child->Output();
        EXPECT_EQ(Has(out, "Unsupported app name[ RF_Chassis ]\n"), !registered) << out;
        EXPECT_EQ(Has(out, "Success to call vex_init( RF_Chassis, 0x72666368 ) \n"), registered);
    }
    EXPECT_EQ(RunSimTool({"vex", "app", "remove", app}), 0);
    EXPECT_EQ(RunSimTool({"vex", "app", "add", app, "0"}), 2);
}

TEST_F(PluginProcessTest, TerminationIsIgnoredWhileTheControllerShutsDown) {
    const std::string app = "RF_Session";
    auto child = StartPlugin(app, {});
    ASSERT_TRUE(WaitRunning(*child, app));
    const std::string marker = Orbel::ShuttingDownMarkerPath();
    WriteFile(marker, "");
    struct MarkerCleanup {
        std::string path;
        ~MarkerCleanup() { unlink(path.c_str()); }
    } cleanup{marker};

    ASSERT_TRUE(child->Signal(SIGTERM));
    // The signal thread ends...
    ASSERT_TRUE(child->WaitForOutput("AppSysSigHandle:INFO: Exit\n", kTimeoutMs))
        << child->Output();
    // ...but Exec is not woken: the process keeps running, also through a
    // second SIGTERM, until the controller kills it.
    ASSERT_TRUE(child->Signal(SIGTERM));
    EXPECT_EQ(child->Wait(1500), -1);
    std::string out = child->Output();
    EXPECT_TRUE(Has(out, "SigHandle(15)\n"));
    EXPECT_FALSE(Has(out, "zApp Exit.") || Has(out, "AppExitProcess")) << out;
    ASSERT_TRUE(child->Signal(SIGKILL));
    EXPECT_EQ(child->Wait(kTimeoutMs), 128 + SIGKILL);
}

TEST_F(PluginProcessTest, StartsWithoutAnyStore) {
    // A sysroot of its own, with no redis-server on its socket.
    const std::string sysroot = SysrootDir() + "/nostore";
    WriteFile(sysroot + "/tmp/.keep", "");
    const std::string app = "RF_Session";
    auto child = StartPlugin(app, {"-d", "1"}, {{"ORBEL_SYSROOT", sysroot}});
    ASSERT_TRUE(child->WaitForOutput("Waiting Corvel Orbel ready!\n", kTimeoutMs))
        << child->Output();
    EXPECT_TRUE(Has(child->Output(), "ERROR: Failed to call RedisConnect()!\n")) << child->Output();
    // The front end's readiness comes from another process, through the sim.
    ASSERT_EQ(
        RunSimTool({"vex", "set", "nginx_redfish_ready", "true"}, {{"ORBEL_SYSROOT", sysroot}}), 0);
    ASSERT_TRUE(WaitRunning(*child, app, sysroot));
    ASSERT_TRUE(child->Signal(SIGTERM));
    EXPECT_EQ(child->Wait(kTimeoutMs), 0) << child->Output();
    EXPECT_TRUE(Has(child->Output(), "zApp Exit.\n"));
}

TEST_F(PluginProcessTest, FirstHourMistakesDiagnosticsAndEventsOfARunningPlugin) {
    const std::string app = "RF_Diag";
    auto child = StartPlugin(app, {}, {{"ORBEL_TEST_MISTAKES", "1"}});
    ASSERT_TRUE(WaitRunning(*child, app));
    // The first-hour mistakes are reported once each.
    const std::string out = child->Output();
    for (const char* line :
         {"After stage[PreCorvelReady]: node[&&/redfish/v1/Mistakes/Orphan] is linked by no "
          "property or list of its parent[/redfish/v1/Mistakes], so it never reaches the store.\n",
          "After stage[PreCorvelReady]: node[/redfish/v1/Mistakes] has changes that were never "
          "applied to the store (ApplyRedisChanges).\n",
          "Collection[/redfish/v1/Things]: schema[Alpha] names no member schema",
          "Schema[Bravo]: PostCorvelReady_InitialResources() returned 2.\n"})
        EXPECT_EQ(CountOf(out, line), 1u) << line << "\n" << out;
    // Nothing else is taken for a mistake (Echo's factory fails on purpose).
    EXPECT_EQ(CountOf(out, ":WARNING: "), 5u) << out;

    // SIGUSR1: the log is rewritten from the cache, which also holds the
    // debug lines the level suppressed, followed by the summary.
    const std::string logPath = RedfishDir(SysrootDir()) + app + ".log";
    ASSERT_TRUE(child->Signal(SIGUSR1));
    const std::string summary =
        "/**\n * Can set the log level to debug to print the last 500 debug messages.\n **/\n"
        "\n\n================================================\n"
        "RF_Diag Summary:\n   ZSchema Num = 4\n";
    ASSERT_TRUE(WaitUntil([&] { return Has(ReadFile(logPath), summary); }, kTimeoutMs))
        << ReadFile(logPath);
    EXPECT_TRUE(Has(ReadFile(logPath), "Waiting Corvel Orbel ready!\n"));

    // SIGUSR2: the debug level is read again from its variable.
    ASSERT_NE(vex_config_set_str_n((app + "_dbg_MsgLvl").c_str(), "1", 1, 0), 0);
    ASSERT_TRUE(child->Signal(SIGUSR2));
    ASSERT_TRUE(child->WaitForOutput("Change debug message level to [1].\n", kTimeoutMs))
        << child->Output();

    // The process loop answers the debug-info variable, then clears it.
    const std::string dbgInfoVar = app + "_dbg_Info";
    ASSERT_NE(vex_config_set_str_n(dbgInfoVar.c_str(), "ru", 2, 0), 0);
    const std::string dbgInfoPath = RedfishDir(SysrootDir()) + app + ".dbginfo";
    ASSERT_TRUE(WaitForFile(dbgInfoPath, 10000)) << child->Output();
    ASSERT_TRUE(WaitUntil([&] { return GetVexString(dbgInfoVar).empty(); }, 5000));
    EXPECT_TRUE(Has(ReadFile(dbgInfoPath), "Resource usage of RF_Diag:\n"));

    // An event raised by another process (the sim tool) reaches the callback
    // the plug-in registered; one it never registered does not.
    ASSERT_NE(vex_event_raise("LateEvent", "ignored", 7), 0);
    ASSERT_EQ(RunSimTool({"event", "raise", "TestEvent", "hello"}), 0);
    ASSERT_TRUE(child->WaitForOutput("Event[TestEvent] type[1] len[5] data[hello]\n", kTimeoutMs))
        << child->Output();
    EXPECT_FALSE(Has(child->Output(), "Event[LateEvent]"));
    ASSERT_TRUE(child->Signal(SIGINT));
    EXPECT_EQ(child->Wait(kTimeoutMs), 0);
}

// ---------------------------------------------------------------------------
// Applications inside this process
// ---------------------------------------------------------------------------

std::vector<std::string> gCreated;
int SoloFactory(void*) {
    gCreated.push_back("Solo");
    auto* schema = new Orbel::ZSchema("Solo", "v1_0_0");
    return schema->Init() == Orbel::RT_SUCCESS ? 0 : -1;
}
const ZApplication::sSchemaFactory kSoloTable[] = {{"Solo", SoloFactory}};

// Events arrive on the platform's listener thread.
std::mutex gEventsMutex;
Texts gEvents;
void RecordEvent(EVENT_TYPE, char* name, int len, void*) {
    std::lock_guard<std::mutex> lock(gEventsMutex);
    gEvents.push_back(std::string(name) + ":" + std::to_string(len));
}
Texts TakeEvents() {
    std::lock_guard<std::mutex> lock(gEventsMutex);
    return std::exchange(gEvents, {});
}

TEST(ApplicationInProcessTest, GlobalsAreRestoredAndHelpStartsNoThread) {
    Orbel::ZApplication* prevApp = Orbel::zApp;
    Orbel::ZLogPrint* prevLog = Orbel::zLogPrint;
    const size_t threadsBefore = ListDir("/proc/self/task").size();
    const size_t fdsBefore = ListDir("/proc/self/fd").size();
    gCreated.clear();
    {
        ZApplication app("plugins/RF_Path");
        EXPECT_EQ(Orbel::zApp, &app);
        ASSERT_NE(Orbel::zLogPrint, prevLog);
        EXPECT_EQ(app.WorkDir(), Orbel::RedfishWorkDir() + "RF_Path");
        EXPECT_EQ(Orbel::zLogPrint->LogFilePath(), app.WorkDir() + ".log");
        EXPECT_EQ(app.GetDbgLvlVexName(), "plugins/RF_Path_dbg_MsgLvl");
        {
            // A nested application (tests build several) restores the first.
            ZApplication inner("RF_Inner");
            EXPECT_EQ(Orbel::zApp, &inner);
        }
        EXPECT_EQ(Orbel::zApp, &app);
        EXPECT_EQ(Orbel::zLogPrint->LogFilePath(), app.WorkDir() + ".log");

        char prog[] = "prog";
        char h[] = "-h";
        char* argv[] = {prog, h, nullptr};
        ZApplication::sExecParams params{2, argv, kSoloTable, 1};
        EXPECT_EQ(app.Exec(params), 0);
        EXPECT_EQ(app.GetInitStep(), 1u);
        EXPECT_EQ(ListDir("/proc/self/task").size(), threadsBefore);
    }
    EXPECT_TRUE(gCreated.empty());
    EXPECT_EQ(ListDir("/proc/self/fd").size(), fdsBefore);
    EXPECT_EQ(Orbel::zApp, prevApp);
    EXPECT_EQ(Orbel::zLogPrint, prevLog);
}

TEST(ApplicationInProcessTest, SchemaListKeepsOrderRefusesDuplicatesAndOwnsSchemas) {
    struct Tracked : Orbel::ZSchema {
        Tracked(const char* name, Texts* deleted) : ZSchema(name, ""), mDeleted(deleted) {}
        ~Tracked() override { mDeleted->push_back(GetName()); }
        Texts* mDeleted;
    };
    Texts deleted;
    {
        ZApplication app("RF_List");
        auto* a = new Tracked("A", &deleted);
        auto* b = new Tracked("B", &deleted);
        auto* c = new Tracked("C", &deleted);
        for (Tracked* s : {a, b, c}) ASSERT_EQ(s->Init(), Orbel::RT_SUCCESS);
        auto* dup = new Tracked("B", &deleted);
        EXPECT_EQ(dup->Init(), Orbel::RT_FAILURE);
        delete dup;  // refused, so still the caller's
        // A schema deleted by its author leaves the list.
        delete b;
        EXPECT_EQ(app.GetSchemaObj("B"), nullptr);
        EXPECT_EQ(app.GetSchemaList(), (std::deque<Orbel::ZSchema*>{a, c}));
        deleted.clear();
    }
    // The application deletes what it holds, in list order.
    EXPECT_EQ(deleted, (Texts{"A", "C"}));
}

class ApplicationInProcessStoreTest : public StoreTest {};

TEST_F(ApplicationInProcessStoreTest, FullLifeLeavesNoThreadDescriptorOrHandler) {
    SetCorvelReady(true);
    // The platform's event listener keeps a socket and a pipe for the life of
    // the process; have it started before counting descriptors.
    ASSERT_NE(vex_event_callback_register(ZApplication::VexEventCallback), 0);
    const size_t fdsBefore = ListDir("/proc/self/fd").size();
    const size_t threadsBefore = ListDir("/proc/self/task").size();
    gCreated.clear();
    TakeEvents();
    char inEv[] = "InEv";
    {
        ZApplication app("RF_Log");
        // Callbacks are registered once; the platform may deliver at any
        // time, but without a running Exec nothing is called.
        ASSERT_EQ(app.RegisterVexEventCallback("InEv", RecordEvent), Orbel::RT_SUCCESS);
        ZApplication::VexEventCallback(VEX_EVENT_RAISED, inEv, 3, nullptr);
        EXPECT_TRUE(TakeEvents().empty());

        char prog[] = "prog";
        char* argv[] = {prog, nullptr};
        ZApplication::sExecParams params{1, argv, kSoloTable, 1};
        int rt = -1;
        std::thread exec([&] { rt = app.Exec(params); });
        ASSERT_TRUE(WaitUntil([&] { return app.isAppInitDone(); }, kTimeoutMs));
        EXPECT_EQ(gCreated, (Texts{"Solo"}));
        EXPECT_EQ(ReadFile(ReadyFile("RF_Log")), "Ready\n");
        EXPECT_EQ(SMembers("&&AccessBlockList").count("RF_Log"), 0u);
        // While Exec runs, raised events reach the callback.
        ASSERT_NE(vex_event_raise("InEv", "12345", 5), 0);
        Texts events;
        EXPECT_TRUE(WaitUntil([&] { return !(events = TakeEvents()).empty(); }, kTimeoutMs));
        EXPECT_EQ(events, (Texts{"InEv:5"}));

        app.Exit();
        exec.join();
        EXPECT_EQ(rt, 0);
        // Once Exec has returned, a late delivery reaches nobody.
        ZApplication::VexEventCallback(VEX_EVENT_RAISED, inEv, 0, nullptr);
        EXPECT_TRUE(TakeEvents().empty());
        // The start-up log was set aside once start-up was over.
        EXPECT_TRUE(FileExists(app.WorkDir() + ".loginit.gz"));
    }
    // Every thread was joined; under a user emulator a joined thread may
    // still be listed for a moment while the host thread behind it ends.
    EXPECT_TRUE(WaitUntil([&] { return ListDir("/proc/self/task").size() == threadsBefore; }, 5000))
        << ListDir("/proc/self/task").size() << " threads, " << threadsBefore << " before";
    EXPECT_EQ(ListDir("/proc/self/fd").size(), fdsBefore);
    struct sigaction sa;
    for (int sig : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
        ASSERT_EQ(sigaction(sig, nullptr, &sa), 0);
        EXPECT_EQ(sa.sa_handler, SIG_DFL) << "signal " << sig;
    }
}

}  // namespace
