// The application frame: options and usage text, the start-up steps, the
// wait for the front end, the ready file, "&&AccessBlockList", signals,
// VEX events, diagnostics and teardown.
//
// Process behaviour is observed on the test plug-in (tests/programs/
// TestPlugin.cpp) started as a child; what only shows inside a process
// (threads started, descriptors left open, globals restored) is tested on
// applications built in this process.
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <thread>

#include "ChildProcess.h"
#include "FixedPaths.h"
#include "TestEnv.h"
#include "ZApplication.h"
#include "ZLogPrint.h"
#include "ZSchema.h"
#include "vex.h"

using namespace OrbelTest;
using Orbel::ZApplication;

namespace {

constexpr int kStartTimeoutMs = 15000;
constexpr int kExitTimeoutMs = 15000;

// The usage text of a program, built here independently of the library.
std::string ExpectedUsage(const std::string& prog, const std::vector<std::string>& schemas) {
    std::string text =
        "Usage: " + prog +
        " [Options] \n\nOptions: \n"
        "  -d < 0 | 1 | SchemaIDs >  Enable debug log message for all Schemas. (default: 0) \n"
        "                            e.g, -d 1 or -d 2,4,5 \n"
        "  -i <SchemaIDs>            A Schema would be created when it is included by this "
        "white list. (default: all) \n"
        "                            e.g, i 2,4,5 \n"
        "  -e <SchemaIDs>            A Schema would not be created when it is included by this "
        "black list. (default: empty) \n"
        "                            The priority is higher than -i option. For example: -e 5,7 "
        "\nSchemaIDs: \n";
    char line[64];
    for (size_t i = 0; i < schemas.size(); ++i) {
        std::snprintf(line, sizeof(line), "  %-2d %s \n", static_cast<int>(i + 2),
                      schemas[i].c_str());
        text += line;
    }
    return text + "\n";
}

const std::vector<std::string> kPluginSchemas = {"Alpha", "Bravo", "Charlie", "Delta", "Echo"};

std::string PluginPath() {
    return BuiltProgram("tests/TestPlugin");
}
std::string SimToolPath() {
    return BuiltProgram("platform/sim/orbel-sim");
}

std::string RedfishDir(const std::string& sysroot = SysrootDir()) {
    return sysroot + "/tmp/Redfish/";
}
std::string ReadyFile(const std::string& app, const std::string& sysroot = SysrootDir()) {
    return RedfishDir(sysroot) + app + ".run";
}

// Each text of `texts` appears in `out`, after the one before it.
::testing::AssertionResult InOrder(const std::string& out, const std::vector<std::string>& texts) {
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

bool WaitUntil(const std::function<bool()>& pred, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

void SetCorvelReady(bool ready) {
    ASSERT_NE(vex_config_set_bool("nginx_redfish_ready", ready ? 1 : 0, 0), 0);
}

std::string GetVexString(const std::string& name) {
    char buf[256] = {};
    if (vex_config_get_str_n(name.c_str(), buf, sizeof(buf)) == 0) return "<unset>";
    return buf;
}

// Lines of `text` that start with `prefix`, in order.
std::vector<std::string> LinesStartingWith(const std::string& text, const std::string& prefix) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
        pos = end + 1;
    }
    return out;
}

std::vector<std::string> CreatedSchemas(const std::string& output) {
    std::vector<std::string> names;
    for (const auto& line : LinesStartingWith(output, "Created schema[")) {
        names.push_back(line.substr(15, line.size() - 16));
    }
    return names;
}

// The test plug-in as a child, under its own application name (so ready
// and log files of children running side by side never meet).
std::unique_ptr<ChildProcess> StartPlugin(const std::string& app, std::vector<std::string> args,
                                          std::map<std::string, std::string> env = {}) {
    std::string sysroot = env.count("ORBEL_SYSROOT") ? env["ORBEL_SYSROOT"] : SysrootDir();
    unlink(ReadyFile(app, sysroot).c_str());  // a stale one would look like success
    args.insert(args.begin(), PluginPath());
    env["ORBEL_TEST_APP_NAME"] = app;
    auto child = std::make_unique<ChildProcess>(args, env);
    EXPECT_TRUE(child->Start());
    return child;
}

// Waits until the plug-in has written its ready file.
::testing::AssertionResult WaitReady(ChildProcess& child, const std::string& app,
                                     const std::string& sysroot = SysrootDir()) {
    if (WaitForFile(ReadyFile(app, sysroot), kStartTimeoutMs)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no ready file; output:\n" << child.Output();
}

// Threads of this process that carry one of the frame's thread names.
size_t CountFrameThreads() {
    size_t n = 0;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return 0;
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::string comm = ReadFile(std::string("/proc/self/task/") + e->d_name + "/comm");
        if (comm == "ZAppProcLoop\n" || comm == "ZAppSigHandler\n") ++n;
    }
    closedir(dir);
    return n;
}

size_t CountDirEntries(const char* path) {
    size_t n = 0;
    DIR* dir = opendir(path);
    if (dir == nullptr) return 0;
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(dir);
    return n;
}

// Each process-level check of one scenario runs through this fixture: the
// store is up and empty, and the front end is reported ready unless the
// test says otherwise.
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

TEST(ApplicationOptionsTest, UsageTextIsExactAndExitIsZero) {
    // -h, an unknown option and a missing option argument all print the
    // usage and end Exec with 0 before any schema is created.
    std::vector<std::vector<std::string>> cases = {{"-h"}, {"-x"}, {"-i"}, {"-d", "3", "-h"}};
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (size_t i = 0; i < cases.size(); ++i) {
        children.push_back(StartPlugin("RF_Usage" + std::to_string(i), cases[i]));
    }
    const std::string usage = ExpectedUsage("TestPlugin", kPluginSchemas);
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        ASSERT_EQ(children[i]->Wait(kExitTimeoutMs), 0);
        std::string out = children[i]->Output();
        EXPECT_NE(out.find(usage + "Exec returned 0\n"), std::string::npos) << out;
        EXPECT_TRUE(CreatedSchemas(out).empty()) << out;
        EXPECT_EQ(out.find("initialed."), std::string::npos) << out;
    }
    // Options before -h are still applied: -d 3 printed its schema list.
    EXPECT_NE(children[3]->Output().find("Debug log for Schemas: Bravo \n"), std::string::npos);
}

TEST(ApplicationOptionsTest, DebugOptionSwitchesAllOrAList) {
    struct Case {
        std::vector<std::string> args;
        std::string printed;   // expected stdout text
        std::string variable;  // expected value of <app>_dbg_MsgLvl
    };
    const std::vector<Case> cases = {
        {{"-d", "0", "-h"}, "INFO: Disable debug message for all Schemas.\n", "0"},
        {{"-d", "1", "-h"}, "INFO: Enable debug message for all Schemas.\n", "1"},
        {{"-d", "2,4", "-h"}, "Debug log for Schemas: Alpha Charlie \n", "2,4"},
        // A comma makes a list even around 0 and 1; IDs below 2 are skipped.
        {{"-d", "1,3", "-h"}, "Debug log for Schemas: Bravo \n", "1,3"},
        // An ID past the table stops the parse: 3 is never read.
        {{"-d", "2,9,3", "-h"}, "outFlagIdx:7 out of buffer size.\n", "2,9,3"},
        // Without any -d the variable is reset to "0".
        {{"-h"}, "Usage: ", "0"},
    };
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (size_t i = 0; i < cases.size(); ++i) {
        std::string app = "RF_Dbg" + std::to_string(i);
        ASSERT_NE(vex_config_set_str_n((app + "_dbg_MsgLvl").c_str(), "junk", 4, 0), 0);
        children.push_back(StartPlugin(app, cases[i].args));
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        ASSERT_EQ(children[i]->Wait(kExitTimeoutMs), 0);
        std::string out = children[i]->Output();
        EXPECT_NE(out.find(cases[i].printed), std::string::npos) << out;
        EXPECT_EQ(GetVexString("RF_Dbg" + std::to_string(i) + "_dbg_MsgLvl"), cases[i].variable);
    }
    EXPECT_NE(children[2]->Output().find("INFO: Enable debug log for Schemas: 2,4\n"),
              std::string::npos);
    EXPECT_TRUE(InOrder(children[4]->Output(),
                        {"outFlagIdx:7 out of buffer size.\n", "Debug log for Schemas: Alpha \n"}));
}

TEST(ApplicationOptionsTest, IncludeAndExcludeSelectTheSchemasCreated) {
    SetCorvelReady(false);  // the children stop in the wait; nothing else is needed
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> created;
        std::string printed;
        bool echoTried;  // Echo (ID 6) selected: its factory runs and fails
    };
    const std::vector<Case> cases = {
        {{}, {"Alpha", "Bravo", "Charlie", "Delta"}, "", true},
        // Exclusion wins over inclusion.
        {{"-i", "2,3", "-e", "3"}, {"Alpha"}, "Include Schemas: Alpha Bravo \n", false},
        {{"-e", "2,5"}, {"Bravo", "Charlie"}, "Exclude Schemas: Alpha Delta \n", true},
        {{"-i", "2,9,3"}, {"Alpha"}, "outFlagIdx:7 out of buffer size.\n", false},
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
    for (size_t i = 0; i < cases.size(); ++i) {
        children.push_back(StartPlugin("RF_Sel" + std::to_string(i), cases[i].args));
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        std::string marker = "ZApplication[RF_Sel" + std::to_string(i) + "] initialed.\n";
        ASSERT_TRUE(children[i]->WaitForOutput(marker, kStartTimeoutMs)) << children[i]->Output();
        std::string out = children[i]->Output();
        EXPECT_EQ(CreatedSchemas(out), cases[i].created) << out;
        EXPECT_NE(out.find(cases[i].printed), std::string::npos) << out;
        EXPECT_EQ(
            out.find("WARNING: Failed to initial Schema[Echo]. res:-3\n") != std::string::npos,
            cases[i].echoTried)
            << out;
    }
}

// ---------------------------------------------------------------------------
// Start-up, readiness and orderly shutdown
// ---------------------------------------------------------------------------

TEST_F(PluginProcessTest, WaitsForTheFrontEndThenReportsReadyAndExitsInOrder) {
    SetCorvelReady(false);
    const std::string app = "RF_Session";
    auto child = StartPlugin(app, {"-d", "1"});

    ASSERT_TRUE(child->WaitForOutput("Waiting Corvel Orbel ready!\n", kStartTimeoutMs))
        << child->Output();
    // Still starting: listed as such, not ready, pre-ready stage done only.
    EXPECT_EQ(SMembers("&&AccessBlockList").count(app), 1u);
    EXPECT_FALSE(FileExists(ReadyFile(app)));
    std::string out = child->Output();
    EXPECT_NE(out.find("Stage pre[Alpha] step[2]\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("Stage post["), std::string::npos) << out;

    SetCorvelReady(true);
    ASSERT_TRUE(WaitReady(*child, app));
    EXPECT_EQ(ReadFile(ReadyFile(app)), "Ready\n");
    EXPECT_TRUE(WaitUntil([&] { return SMembers("&&AccessBlockList").count(app) == 0; }, 5000));
    ASSERT_TRUE(child->WaitForOutput("INFO: Register signal(12) \n", kStartTimeoutMs));

    out = child->Output();
    EXPECT_TRUE(InOrder(
        out, {"Stage post[Alpha] step[3]\n", "Stage post[Delta] step[3]\n",
              "PostCorvelReady_InitAllSchemaResources done!\n", "Stage after[Alpha] step[3]\n",
              "Stage after[Delta] step[3]\n", "PostCorvelReady_AfterTreatment done!\n"}));
    EXPECT_NE(out.find("AppInitDoneProcess step[4]\n"), std::string::npos);
    EXPECT_NE(out.find("Success to call vex_init( RF_Session, 0x7266736e ) \n"), std::string::npos);
    // Event callbacks: accepted before Exec and from a factory, a duplicate
    // refused, and refused once VEX registration has run.
    EXPECT_NE(out.find("Register[TestEvent] at main: rt=0\n"), std::string::npos);
    EXPECT_NE(out.find("VEX event[TestEvent] has been registered.\n"
                       "Register[TestEvent] at factory: rt=2\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Register[FactoryEvent] at factory: rt=0\n"), std::string::npos);
    EXPECT_NE(out.find("Should call this function not before the step 2.\n"
                       "Register[LateEvent] at init-done: rt=2\n"),
              std::string::npos)
        << out;

    ASSERT_TRUE(child->Signal(SIGTERM));
    ASSERT_EQ(child->Wait(kExitTimeoutMs), 0) << child->Output();
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

TEST_F(PluginProcessTest, TerminationIsIgnoredWhileTheControllerShutsDown) {
    const std::string app = "RF_Session";
    const std::string marker = Orbel::ShuttingDownMarkerPath();
    auto child = StartPlugin(app, {});
    ASSERT_TRUE(WaitReady(*child, app));
    ASSERT_TRUE(child->WaitForOutput("INFO: Register signal(12) \n", kStartTimeoutMs));

    WriteFile(marker, "");
    struct MarkerCleanup {
        std::string path;
        ~MarkerCleanup() { unlink(path.c_str()); }
    } cleanup{marker};

    ASSERT_TRUE(child->Signal(SIGTERM));
    // The signal thread ends...
    ASSERT_TRUE(child->WaitForOutput("AppSysSigHandle:INFO: Exit\n", kExitTimeoutMs))
        << child->Output();
    // ...but Exec is not woken: the process keeps running, also through a
    // second SIGTERM, until the controller kills it.
    ASSERT_TRUE(child->Signal(SIGTERM));
    EXPECT_EQ(child->Wait(1500), -1);
    EXPECT_TRUE(child->IsRunning());
    std::string out = child->Output();
    EXPECT_NE(out.find("SigHandle(15)\n"), std::string::npos);
    EXPECT_EQ(out.find("zApp Exit."), std::string::npos) << out;
    EXPECT_EQ(out.find("AppExitProcess"), std::string::npos) << out;
    ASSERT_TRUE(child->Signal(SIGKILL));
    EXPECT_EQ(child->Wait(kExitTimeoutMs), 128 + SIGKILL);
}

TEST_F(PluginProcessTest, AnEarlyReturnLeavesNothingInTheAccessBlockList) {
    auto child = StartPlugin("RF_Session", {"-h"});
    ASSERT_EQ(child->Wait(kExitTimeoutMs), 0);
    EXPECT_EQ(child->Output().find("Failed to call RedisConnect()"), std::string::npos);
    EXPECT_TRUE(SMembers("&&AccessBlockList").empty());
}

TEST_F(PluginProcessTest, StartsWithoutAnyStore) {
    // A sysroot of its own, with no redis-server on its socket.
    const std::string sysroot = SysrootDir() + "/nostore";
    WriteFile(sysroot + "/tmp/.keep", "");
    const std::string app = "RF_Session";
    auto child = StartPlugin(app, {"-d", "1"}, {{"ORBEL_SYSROOT", sysroot}});
    ASSERT_TRUE(child->WaitForOutput("Waiting Corvel Orbel ready!\n", kStartTimeoutMs))
        << child->Output();
    EXPECT_NE(child->Output().find("ERROR: Failed to call RedisConnect()!\n"), std::string::npos)
        << child->Output();

    ChildProcess tool({SimToolPath(), "vex", "set", "nginx_redfish_ready", "true"},
                      {{"ORBEL_SYSROOT", sysroot}});
    ASSERT_TRUE(tool.Start());
    ASSERT_EQ(tool.Wait(kExitTimeoutMs), 0) << tool.Output();

    ASSERT_TRUE(WaitReady(*child, app, sysroot));
    ASSERT_TRUE(child->WaitForOutput("INFO: Register signal(12) \n", kStartTimeoutMs));
    ASSERT_TRUE(child->Signal(SIGTERM));
    EXPECT_EQ(child->Wait(kExitTimeoutMs), 0) << child->Output();
    EXPECT_NE(child->Output().find("zApp Exit.\n"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Signals, diagnostics and events of a running plug-in
// ---------------------------------------------------------------------------

TEST_F(PluginProcessTest, DiagnosticsOfARunningPlugin) {
    const std::string app = "RF_Diag";
    const std::string dbgLvlVar = app + "_dbg_MsgLvl";
    const std::string dbgInfoVar = app + "_dbg_Info";
    auto child = StartPlugin(app, {});
    ASSERT_TRUE(WaitReady(*child, app));
    ASSERT_TRUE(child->WaitForOutput("INFO: Register signal(12) \n", kStartTimeoutMs));

    // SIGUSR1: the log is rewritten from the cache, which also holds the
    // debug lines the level suppressed, followed by the summary.
    const std::string logPath = RedfishDir() + app + ".log";
    ASSERT_TRUE(child->Signal(SIGUSR1));
    const std::string summary =
        " **/\n\n\n================================================\n"
        "RF_Diag Summary:\n   ZSchema Num = 4\n";
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(logPath).find(summary) != std::string::npos; },
                          kExitTimeoutMs))
        << ReadFile(logPath);
    std::string log = ReadFile(logPath);
    EXPECT_NE(log.find("Waiting Corvel Orbel ready!\n"), std::string::npos) << log;
    EXPECT_NE(log.find("/**\n * Can set the log level to debug to print the last 500 debug "
                       "messages.\n **/\n"),
              std::string::npos);
    ASSERT_TRUE(child->WaitForOutput("SigHandle(10)\n", kExitTimeoutMs));
    // At debug level 0 the frame's own debug line about the signal is not shown.
    EXPECT_EQ(child->Output().find("SigHandle() Entry. sig[10]"), std::string::npos);

    // SIGUSR2: the debug level is read again from its variable.
    ASSERT_NE(vex_config_set_str_n(dbgLvlVar.c_str(), "1", 1, 0), 0);
    ASSERT_TRUE(child->Signal(SIGUSR2));
    ASSERT_TRUE(child->WaitForOutput("ZApplication::SigHandle() Entry. sig[12]\n", kExitTimeoutMs))
        << child->Output();
    EXPECT_NE(child->Output().find("Change debug message level to [1].\n"), std::string::npos);

    // The process loop writes the thread list and answers the debug-info
    // variable, then clears it.
    ASSERT_NE(vex_config_set_str_n(dbgInfoVar.c_str(), "ru", 2, 0), 0);
    const std::string dbgInfoPath = RedfishDir() + app + ".dbginfo";
    ASSERT_TRUE(WaitForFile(dbgInfoPath, 10000)) << child->Output();
    ASSERT_TRUE(WaitUntil([&] { return GetVexString(dbgInfoVar).empty(); }, 5000));
    std::string info = ReadFile(dbgInfoPath);
    EXPECT_NE(info.find("Resource usage of RF_Diag:\n"), std::string::npos) << info;
    EXPECT_NE(info.find("Max RSS"), std::string::npos) << info;

    std::string threads = ReadFile(RedfishDir() + app + ".threads");
    for (const char* name : {" ZApp Main\n", " ZApp ZAppProcLoop\n", " ZApp SigHandler\n"}) {
        EXPECT_NE(threads.find(name), std::string::npos) << threads;
        EXPECT_NE(info.find(name), std::string::npos) << info;
    }
    EXPECT_EQ(LinesStartingWith(threads, "").size(), 3u) << threads;

    ASSERT_TRUE(child->Signal(SIGTERM));
    EXPECT_EQ(child->Wait(kExitTimeoutMs), 0);
}

TEST_F(PluginProcessTest, RaisedEventsReachTheRegisteredCallbacks) {
    const std::string app = "RF_Session";
    auto child = StartPlugin(app, {});
    ASSERT_TRUE(WaitReady(*child, app));
    std::string out = child->Output();
    EXPECT_NE(out.find("Register VEX event[TestEvent]\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Success to register VEX events callback function.\n"), std::string::npos);

    ASSERT_NE(vex_event_raise("LateEvent", "ignored", 7), 0);  // never registered
    ChildProcess tool({SimToolPath(), "event", "raise", "TestEvent", "hello"});
    ASSERT_TRUE(tool.Start());
    ASSERT_EQ(tool.Wait(kExitTimeoutMs), 0) << tool.Output();
    ASSERT_TRUE(
        child->WaitForOutput("Event[TestEvent] type[1] len[5] data[hello]\n", kStartTimeoutMs))
        << child->Output();
    ASSERT_NE(vex_event_raise("FactoryEvent", nullptr, 0), 0);
    ASSERT_TRUE(
        child->WaitForOutput("Event[FactoryEvent] type[1] len[0] data[]\n", kStartTimeoutMs))
        << child->Output();
    EXPECT_EQ(child->Output().find("Event[LateEvent]"), std::string::npos);

    ASSERT_TRUE(child->Signal(SIGINT));
    EXPECT_EQ(child->Wait(kExitTimeoutMs), 0);
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
std::vector<std::string> gEvents;
void RecordEvent(EVENT_TYPE, char* name, int len, void*) {
    std::lock_guard<std::mutex> lock(gEventsMutex);
    gEvents.push_back(std::string(name) + ":" + std::to_string(len));
}
std::vector<std::string> RecordedEvents() {
    std::lock_guard<std::mutex> lock(gEventsMutex);
    return gEvents;
}
void ClearEvents() {
    std::lock_guard<std::mutex> lock(gEventsMutex);
    gEvents.clear();
}
void OtherEvent(EVENT_TYPE, char*, int, void*) {}

TEST(ApplicationInProcessTest, ConstructionPublishesAndDestructionRestores) {
    Orbel::ZApplication* prevApp = Orbel::zApp;
    Orbel::ZLogPrint* prevLog = Orbel::zLogPrint;
    {
        ZApplication app("plugins/RF_Path");
        EXPECT_EQ(Orbel::zApp, &app);
        ASSERT_NE(Orbel::zLogPrint, prevLog);
        EXPECT_EQ(app.WorkDir(), Orbel::RedfishWorkDir() + "RF_Path");
        EXPECT_EQ(Orbel::zLogPrint->LogFilePath(), app.WorkDir() + ".log");
        EXPECT_EQ(app.GetDbgLvlVexName(), "plugins/RF_Path_dbg_MsgLvl");
        EXPECT_EQ(app.GetDbgInfoVexName(), "plugins/RF_Path_dbg_Info");
        EXPECT_EQ(app.GetInitStep(), 0u);
        EXPECT_FALSE(app.isExited());
        EXPECT_TRUE(
            std::regex_match(ZApplication::CommLibVer(), std::regex("[0-9]+\\.[0-9]+\\.[0-9]+")));
        {
            // A nested application (tests build several) restores the first.
            ZApplication inner("RF_Inner");
            EXPECT_EQ(Orbel::zApp, &inner);
            EXPECT_EQ(inner.WorkDir(), Orbel::RedfishWorkDir() + "RF_Inner");
        }
        EXPECT_EQ(Orbel::zApp, &app);
        EXPECT_EQ(Orbel::zLogPrint->LogFilePath(), app.WorkDir() + ".log");
        app.Exit();
        EXPECT_TRUE(app.isExited());
    }
    EXPECT_EQ(Orbel::zApp, prevApp);
    EXPECT_EQ(Orbel::zLogPrint, prevLog);
}

TEST(ApplicationInProcessTest, SchemaListKeepsOrderRefusesDuplicatesAndOwnsSchemas) {
    struct Tracked : Orbel::ZSchema {
        Tracked(const char* name, std::vector<std::string>* deleted)
            : ZSchema(name, ""), mDeleted(deleted) {}
        ~Tracked() override { mDeleted->push_back(GetName()); }
        std::vector<std::string>* mDeleted;
    };
    std::vector<std::string> deleted;
    {
        ZApplication app("RF_List");
        auto* a = new Tracked("A", &deleted);
        auto* b = new Tracked("B", &deleted);
        auto* c = new Tracked("C", &deleted);
        ASSERT_EQ(a->Init(), Orbel::RT_SUCCESS);
        ASSERT_EQ(b->Init(), Orbel::RT_SUCCESS);
        ASSERT_EQ(c->Init(), Orbel::RT_SUCCESS);
        auto* dup = new Tracked("B", &deleted);
        EXPECT_EQ(dup->Init(), Orbel::RT_FAILURE);
        delete dup;  // refused, so still the caller's
        EXPECT_EQ(app.SchemaListSize(), 3u);
        EXPECT_EQ(app.GetSchemaObj("B"), b);
        EXPECT_EQ(app.GetSchemaObj("Z"), nullptr);
        EXPECT_EQ(app.SchemaListAppend(nullptr), Orbel::RT_INVALID_ARG);

        // A schema deleted by its author leaves the list.
        delete b;
        EXPECT_EQ(app.GetSchemaObj("B"), nullptr);
        EXPECT_EQ(app.SchemaListRemove(a), Orbel::RT_SUCCESS);
        EXPECT_EQ(app.SchemaListRemove(a), Orbel::RT_FAILURE);
        ASSERT_EQ(app.SchemaListAppend(a), Orbel::RT_SUCCESS);  // now after C
        std::deque<Orbel::ZSchema*> list = app.GetSchemaList();
        ASSERT_EQ(list.size(), 2u);
        EXPECT_EQ(list[0], c);
        EXPECT_EQ(list[1], a);
        deleted.clear();
    }
    // The application deletes what it holds, in list order.
    EXPECT_EQ(deleted, (std::vector<std::string>{"C", "A"}));
}

TEST(ApplicationInProcessTest, VexEventCallbacksAreRegisteredOnceAndOnlyDeliveredDuringExec) {
    ZApplication app("RF_Events");
    EXPECT_EQ(app.RegisterVexEventCallback("Ev1", RecordEvent), Orbel::RT_SUCCESS);
    EXPECT_EQ(app.RegisterVexEventCallback("Ev1", OtherEvent), Orbel::RT_FAILURE);
    EXPECT_EQ(app.RegisterVexEventCallback("Ev2", nullptr), Orbel::RT_INVALID_ARG);
    EXPECT_EQ(app.GetVexEventCallback("Ev1"), &RecordEvent);  // the first one stays
    EXPECT_EQ(app.GetVexEventCallback("Ev2"), nullptr);

    // The platform may deliver at any time; without a running Exec there
    // is nobody to hand the event to, and nothing is called.
    ClearEvents();
    char ev1[] = "Ev1";
    ZApplication::VexEventCallback(VEX_EVENT_RAISED, ev1, 3, nullptr);
    EXPECT_TRUE(RecordedEvents().empty());
}

TEST(ApplicationInProcessTest, HelpStartsNoThreadAndExecCanRunAgain) {
    const size_t threadsBefore = CountDirEntries("/proc/self/task");
    const size_t fdsBefore = CountDirEntries("/proc/self/fd");
    gCreated.clear();
    {
        ZApplication app("RF_Help");
        char prog[] = "prog";
        char h[] = "-h";
        char* argv1[] = {prog, h, nullptr};
        ZApplication::sExecParams p1{2, argv1, kSoloTable, 1};
        EXPECT_EQ(app.Exec(p1), 0);
        EXPECT_EQ(app.GetInitStep(), 1u);
        EXPECT_EQ(CountDirEntries("/proc/self/task"), threadsBefore);

        // A second Exec parses its own command line from the start.
        char d[] = "-d";
        char two[] = "2";
        char* argv2[] = {prog, d, two, h, nullptr};
        ZApplication::sExecParams p2{4, argv2, kSoloTable, 1};
        EXPECT_EQ(app.Exec(p2), 0);
        EXPECT_TRUE(Orbel::zLogPrint->IsSchemaDebugEnabled("Solo"));
        EXPECT_TRUE(Orbel::zLogPrint->IsSchemaDebugEnabled("ZComLib"));
        EXPECT_EQ(CountDirEntries("/proc/self/task"), threadsBefore);
    }
    EXPECT_TRUE(gCreated.empty());
    EXPECT_EQ(CountDirEntries("/proc/self/fd"), fdsBefore);
}

class ApplicationInProcessStoreTest : public StoreTest {};

TEST_F(ApplicationInProcessStoreTest, FullLifeLeavesNoThreadDescriptorOrHandler) {
    SetCorvelReady(true);
    // The platform's event listener keeps a socket and a pipe for the life of
    // the process; have it started before counting descriptors.
    ASSERT_NE(vex_event_callback_register(ZApplication::VexEventCallback), 0);
    const size_t fdsBefore = CountDirEntries("/proc/self/fd");
    gCreated.clear();
    ClearEvents();
    char inEv[] = "InEv";
    {
        ZApplication app("RF_Log");
        ASSERT_EQ(app.RegisterVexEventCallback("InEv", RecordEvent), Orbel::RT_SUCCESS);
        char prog[] = "prog";
        char* argv[] = {prog, nullptr};
        ZApplication::sExecParams params{1, argv, kSoloTable, 1};
        int rt = -1;
        std::thread exec([&] { rt = app.Exec(params); });

        ASSERT_TRUE(WaitUntil([&] { return app.isAppInitDone(); }, kStartTimeoutMs));
        app.WaitAppInitDone();  // returns at once now
        EXPECT_EQ(gCreated, (std::vector<std::string>{"Solo"}));
        EXPECT_EQ(ReadFile(ReadyFile("RF_Log")), "Ready\n");
        EXPECT_EQ(SMembers("&&AccessBlockList").count("RF_Log"), 0u);
        EXPECT_TRUE(Orbel::zLogPrint->IsAppInitDone());
        // The process loop and the signal thread.
        EXPECT_EQ(CountFrameThreads(), 2u);

        size_t mark = ReadFile(app.WorkDir() + ".log").size();
        EXPECT_EQ(app.RegisterVexEventCallback("Late", RecordEvent), Orbel::RT_FAILURE);
        EXPECT_NE(ReadFile(app.WorkDir() + ".log")
                      .substr(mark)
                      .find("Should call this function not before the step 2.\n"),
                  std::string::npos);

        // While Exec runs, raised events reach the callback.
        ASSERT_NE(vex_event_raise("InEv", "12345", 5), 0);
        EXPECT_TRUE(WaitUntil([] { return !RecordedEvents().empty(); }, kStartTimeoutMs));
        EXPECT_EQ(RecordedEvents(), (std::vector<std::string>{"InEv:5"}));

        app.Exit();
        exec.join();
        EXPECT_EQ(rt, 0);
        // Once Exec has returned, a late delivery reaches nobody.
        ClearEvents();
        ZApplication::VexEventCallback(VEX_EVENT_RAISED, inEv, 0, nullptr);
        EXPECT_TRUE(RecordedEvents().empty());
        std::string log = ReadFile(app.WorkDir() + ".log");
        EXPECT_NE(log.find("[INFO] ZApplication.cpp:Exec(): zApp Exit.\n"), std::string::npos)
            << log;
        EXPECT_NE(log.find("ZApp thread exited\n"), std::string::npos);
        // The start-up log was set aside once start-up was over.
        EXPECT_TRUE(FileExists(app.WorkDir() + ".loginit.gz"));
    }
    EXPECT_EQ(CountFrameThreads(), 0u);
    EXPECT_EQ(CountDirEntries("/proc/self/fd"), fdsBefore);
    struct sigaction sa;
    for (int sig : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
        ASSERT_EQ(sigaction(sig, nullptr, &sa), 0);
        EXPECT_EQ(sa.sa_handler, SIG_DFL) << "signal " << sig;
    }
}

}  // namespace
