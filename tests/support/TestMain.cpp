// The main() of every test binary: the private sysroot, log service and
// store come from the environment registered here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestEnv.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    OrbelTest::RegisterEnvironment();
    return RUN_ALL_TESTS();
}
