// The test plug-in (tests/programs/TestPlugin.cpp) as a child process, under
// an application name of the test's choosing, so ready and log files of
// children running side by side never meet.
#ifndef ORBEL_TEST_TESTPLUGINPROCESS_H
#define ORBEL_TEST_TESTPLUGINPROCESS_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"

namespace OrbelTest {

// The ready file of `app` under `sysroot`.
std::string ReadyFile(const std::string& app, const std::string& sysroot = SysrootDir());

// Starts the test plug-in as `app` with `args`; `env` may name another
// ORBEL_SYSROOT. A stale ready file is removed first (it would look like success).
std::unique_ptr<ChildProcess> StartPlugin(const std::string& app,
                                          std::vector<std::string> args = {},
                                          std::map<std::string, std::string> env = {});

// Waits until the plug-in has written its ready file and registered its
// last signal, so it is fully running.
::testing::AssertionResult WaitRunning(ChildProcess& child, const std::string& app,
                                       const std::string& sysroot = SysrootDir());

}  // namespace OrbelTest

#endif  // ORBEL_TEST_TESTPLUGINPROCESS_H
