#include "TestPluginProcess.h"

#include <unistd.h>

namespace OrbelTest {

namespace {
constexpr int kTimeoutMs = 15000;
}

std::string ReadyFile(const std::string& app, const std::string& sysroot) {
    return sysroot + "/tmp/Redfish/" + app + ".run";
}

std::unique_ptr<ChildProcess> StartPlugin(const std::string& app, std::vector<std::string> args,
                                          std::map<std::string, std::string> env) {
    const std::string sysroot = env.count("ORBEL_SYSROOT") ? env["ORBEL_SYSROOT"] : SysrootDir();
    unlink(ReadyFile(app, sysroot).c_str());
    args.insert(args.begin(), BuiltProgram("tests/TestPlugin"));
    env["ORBEL_TEST_APP_NAME"] = app;
    auto child = std::make_unique<ChildProcess>(args, env);
    EXPECT_TRUE(child->Start());
    return child;
}

::testing::AssertionResult WaitRunning(ChildProcess& child, const std::string& app,
                                       const std::string& sysroot) {
    if (WaitForFile(ReadyFile(app, sysroot), kTimeoutMs) &&
        child.WaitForOutput("INFO: Register signal(12) \n", kTimeoutMs)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "not running; output:\n" << child.Output();
}

}  // namespace OrbelTest
