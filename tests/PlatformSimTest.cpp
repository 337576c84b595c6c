// The simulated platform through its C functions and through the orbel-sim
// tool run as a child process: both must see one state under the sysroot.
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "koba.h"
#include "proc_system.h"
#include "vex.h"
#include "vpdd.h"

namespace {

using namespace OrbelTest;

struct ToolResult {
    int status;
    std::string output;  // stdout and stderr together
    std::string Text() const { return std::to_string(status) + ":" + output; }
};

ToolResult Sim(std::vector<std::string> args) {
    args.insert(args.begin(), BuiltProgram("platform/sim/orbel-sim"));
    ChildProcess child(args);
    if (!child.Start()) return {-1, "could not start orbel-sim"};
    int status = child.Wait(10000);
    return {status, child.Output()};
}

const auto Path = [](const std::string& fixed) { return SysrootDir() + fixed; };

std::string GetStr(const char* name) {
    char buffer[256];
    return vex_config_get_str_n(name, buffer, sizeof(buffer)) != 0 ? buffer : "<failed>";
}

// Each test starts from empty stores; run/vex/events stays, it holds this
// process's listener socket.
class PlatformSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string cmd = "rm -rf";
        for (const char* dir : {"/var/lib/vex", "/var/lib/koba", "/var/lib/vpd", "/run/vex/apps"}) {
            cmd += " '" + Path(dir) + "'";
        }
        cmd += " && find '" + Path("/run/vex") + "' -maxdepth 1 -type f -delete 2>/dev/null; true";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }
};

TEST_F(PlatformSimTest, VexValuesCrossBetweenToolAndLibraryAndVolatileHidesPersistent) {
    ASSERT_NE(vex_config_set_int("sim_level", 1, 1), 0);
    EXPECT_EQ(ReadFile(Path("/var/lib/vex/sim_level")), "1");
    EXPECT_FALSE(FileExists(Path("/run/vex/sim_level")));
    // A volatile value hides the persistent one until the next "restart".
    ASSERT_EQ(Sim({"vex", "set", "sim_level", "2"}).status, 0);
    EXPECT_EQ(GetStr("sim_level"), "2");
    ASSERT_EQ(unlink(Path("/run/vex/sim_level").c_str()), 0);
    EXPECT_EQ(GetStr("sim_level"), "1");
    // A persistent set replaces both, so the value read is the one just set.
    ASSERT_EQ(Sim({"vex", "set", "sim_level", "2"}).status, 0);
    ASSERT_EQ(Sim({"vex", "set", "sim_level", "3", "--persist"}).status, 0);
    EXPECT_FALSE(FileExists(Path("/run/vex/sim_level")));
    EXPECT_EQ(GetStr("sim_level"), "3");
    ASSERT_NE(vex_config_set_str_n("sim_text", "a\tb\\", 16, 0), 0);
    EXPECT_EQ(Sim({"vex", "list"}).output,
              "sim_level\tpersist\t3\nsim_text\tvolatile\ta\\x09b\\\\\n");
    ASSERT_NE(vex_config_set_int64("sim_big", 5000000000LL, 0), 0);
    EXPECT_EQ(Sim({"vex", "get", "sim_big"}).Text(), "0:5000000000\n");
    EXPECT_EQ(Sim({"vex", "get", "sim_missing"}).Text(),
              "1:orbel-sim: no VEX variable sim_missing\n");
    EXPECT_EQ(Sim({"vex", "set", "a/b", "1"}).status, 1);
    EXPECT_EQ(Sim({}).output.rfind("Usage: orbel-sim COMMAND [ARGS]\n", 0), 0u);
}

// The front end's ready flag is read as a bool: the tool stores what a
// bool set stores, and refuses text a bool reader would fail on (and keeps
// the value it had).
TEST_F(PlatformSimTest, TheReadyFlagTakesOnlyBoolValues) {
    const struct {
        const char* given;
        const char* expected;  // tool status and output, then the stored value
        const char* stored;
    } cases[] = {
        {"1", "0:", "true"},
        {"false", "0:", "false"},
        {"true", "0:", "true"},
        {"yes",
         "2:orbel-sim: nginx_redfish_ready is a bool VEX variable: 'yes' is not one of true, "
         "false, 1, 0\n",
         "true"},
        {"",
         "2:orbel-sim: nginx_redfish_ready is a bool VEX variable: '' is not one of true, "
         "false, 1, 0\n",
         "true"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Sim({"vex", "set", "nginx_redfish_ready", c.given}).Text(), c.expected) << c.given;
        EXPECT_EQ(GetStr("nginx_redfish_ready"), c.stored) << c.given;
    }
    int ready = 0;
    EXPECT_NE(vex_config_get_bool("nginx_redfish_ready", &ready), 0);
    EXPECT_EQ(ready, 1);
    // Other variables stay plain text.
    EXPECT_EQ(Sim({"vex", "set", "sim_word", "yes"}).status, 0);
    EXPECT_EQ(GetStr("sim_word"), "yes");
}

TEST_F(PlatformSimTest, KobaReportsItsErrorCodes) {
    // (Codes through the library's wrappers are checked in its settings suite.)
    int err = -1, s = 0;
    unsigned u = 0;
    ASSERT_EQ(SetVarValueSINT(-1, 0, 0, 0, "sim_k", &err, -5), KOBA_OK);
    EXPECT_EQ(ReadFile(Path("/var/lib/koba/sim_k")), "s:-5");
    // The type is fixed when the variable is created; the error word repeats the code.
    EXPECT_EQ(GetVarValueUINT(-1, 0, 0, 0, "sim_k", &err, &u), KOBA_ERR_FORMAT);
    EXPECT_EQ(err, KOBA_ERR_FORMAT);
    WriteFile(Path("/var/lib/koba/sim_bad"), "s:12x");  // stored text that does not parse
    EXPECT_EQ(GetVarValueSINT(-1, 0, 0, 0, "sim_bad", &err, &s), KOBA_ERR_FORMAT);
    // Strings come back whole or not at all.
    ASSERT_EQ(SetVarValueSTRING(-1, 0, 0, 0, "sim_str", &err, "abcd"), KOBA_OK);
    char buf[5] = {'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(GetVarValueSTRING(-1, 0, 0, 0, "sim_str", &err, buf, 4), KOBA_ERR_BUFFER);
    EXPECT_EQ(buf[0], 'x');
    ASSERT_EQ(GetVarValueSTRING(-1, 0, 0, 0, "sim_str", &err, buf, 5), KOBA_OK);
    EXPECT_STREQ(buf, "abcd");
    // Only the controller's own instance exists here; the error word is optional.
    EXPECT_EQ(GetVarValueSINT(0, 0, 0, 0, "sim_k", &err, &s), KOBA_ERR_IO);
    EXPECT_EQ(SetVarValueSINT(-1, 1, 0, 0, "sim_k", nullptr, 1), KOBA_ERR_IO);
}

TEST_F(PlatformSimTest, KobaThroughTheTool) {
    ASSERT_EQ(Sim({"koba", "set", "sim_u", "u", "4294967295"}).status, 0);
    ASSERT_EQ(Sim({"koba", "set", "sim_b", "b", "true"}).status, 0);
    unsigned u = 0;
    int err = 0, b = 0;
    EXPECT_TRUE(GetVarValueUINT(-1, 0, 0, 0, "sim_u", &err, &u) == KOBA_OK && u == 4294967295u);
    EXPECT_TRUE(GetVarValueBOOL(-1, 0, 0, 0, "sim_b", &err, &b) == KOBA_OK && b == 1);
    ASSERT_EQ(SetVarValueSTRING(-1, 0, 0, 0, "sim_s", &err, "two words"), KOBA_OK);
    EXPECT_EQ(Sim({"koba", "list"}).output,
              "sim_b\tb\ttrue\nsim_s\tS\ttwo words\nsim_u\tu\t4294967295\n");
    EXPECT_EQ(Sim({"koba", "set", "sim_u", "s", "1"}).Text(),
              "1:orbel-sim: cannot set KOBA variable sim_u (error 3)\n");
    EXPECT_EQ(Sim({"koba", "set", "sim_x", "u", "-1"}).status, 2);
    EXPECT_FALSE(FileExists(Path("/var/lib/koba/sim_x")));
}

TEST_F(PlatformSimTest, AnotherProcessReceivesEventsAndRemovesItsSocketAtExit) {
    ChildProcess child({BuiltProgram("tests/SimEventListener"), "sim.ev.child"});
    ASSERT_TRUE(child.Start());
    ASSERT_TRUE(child.WaitForOutput("ready\n", 10000)) << child.Output();
    std::string sock = Path("/run/vex/events/" + std::to_string(child.Pid()) + ".sock");
    EXPECT_TRUE(FileExists(sock));
    ASSERT_NE(vex_event_raise("sim.ev.ignored", "no", 2), 0);
    ASSERT_NE(vex_event_raise("sim.ev.child", "hi there", 8), 0);
    ASSERT_NE(vex_event_raise("quit", nullptr, 0), 0);
    ASSERT_EQ(child.Wait(10000), 0) << child.Output();
    EXPECT_EQ(child.Output(), "ready\nevent 1 sim.ev.child hi there\nevent 1 quit \n");
    EXPECT_FALSE(FileExists(sock)) << "the listener removes its socket when the process ends";
}

TEST_F(PlatformSimTest, TheDefaultMachineRecordIsGeneratedOnce) {
    std::vector<unsigned char> record(VPDD_MACHINE_RECORD_SIZE + 4, 0xEE);
    EXPECT_EQ(vpdd_machine_vpd_read(record.data(), VPDD_MACHINE_RECORD_SIZE - 1), VPDD_ERR_ARG);
    ASSERT_EQ(vpdd_machine_vpd_read(record.data(), static_cast<int>(record.size())), VPDD_OK);
    const std::string pad6(6, '\0');
    const std::string text(record.begin(), record.begin() + VPDD_MACHINE_RECORD_SIZE);
    EXPECT_EQ(text, "6E2B8F14A09C4D3B8F5A1C7D2E9B0A63SIM0000001" + pad6 + "7X99CTO1WW" + pad6 +
                        std::string(VPDD_MACHINE_RECORD_SIZE - 64, '\0'));
    EXPECT_EQ(record[VPDD_MACHINE_RECORD_SIZE], 0xEE) << "nothing written past the record";
    EXPECT_EQ(ReadFile(Path("/var/lib/vpd/machine.vpd")), text);
    EXPECT_EQ(Sim({"vpd", "show"}).output,
              "uuid: 6E2B8F14A09C4D3B8F5A1C7D2E9B0A63\nserial: SIM0000001\nmtm: 7X99CTO1WW\n");
}

// A plain absolute command runs without the shell; anything the shell would
// interpret (or a builtin, or a missing program) still goes through it.
TEST(ProcSystem, RunsPlainCommandsDirectlyAndTheRestThroughTheShell) {
    const std::string mark = SysrootDir() + "/proc-system-mark";
    const std::pair<std::string, int> kCases[] = {
        {"/bin/true", 0},          {"/bin/false  ", 1},
        {"exit 4", 4},             {"/bin/sh -c 'exit 3'", 3},
        {"/no/such/program", 127}, {"/bin/touch " + mark + " && exit 5", 5},
    };
    for (const auto& [command, status] : kCases) {
        EXPECT_EQ(proc_system(command.c_str()), status) << command;
    }
    EXPECT_EQ(access(mark.c_str(), F_OK), 0);
    EXPECT_EQ(proc_system(nullptr), -1);
}

}  // namespace
