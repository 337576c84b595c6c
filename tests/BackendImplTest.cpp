// Backend helpers: platform flags from the environment, the per-schema work
// directory under the private sysroot, and the e-mail check.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "TestEnv.h"
#include "ZBackendImpl.h"
#include "ZSchema.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

// Sets (or, for null, unsets) the platform variables for one case.
void SetPlatformEnv(const char* flags, const char* codename, const char* family) {
    const std::pair<const char*, const char*> vars[] = {
        {"PLATFLAGS", flags}, {"TARN_CODENAME", codename}, {"FEN_FAMILY", family}};
    for (const auto& [name, value] : vars) {
        if (value == nullptr) {
            unsetenv(name);
        } else {
            setenv(name, value, 1);
        }
    }
}

bool IsDir(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(BackendImplTest, PlatformFlagsFollowTheEnvironmentAndTheConfiguredWords) {
    const ZBackendImpl::sPlatformWords& w = ZBackendImpl::ConfiguredWords();
    const std::string bladed = w.bladedFamily + "_X";
    const std::string dense = w.denseFamilies[1] + "Y";
    const std::string almost = w.codenames[0] + "X";
    const std::string shortFamily = w.bladedFamily.substr(0, 7);
    const struct {
        const char* flags;
        const char* codename;
        const char* family;
        bool amd, morwen, bladed, dense;
    } cases[] = {
        {"8000", w.codenames[0].c_str(), bladed.c_str(), true, true, true, false},
        {"0x18001", w.codenames[1].c_str(), dense.c_str(), true, true, false, true},
        {"7FFF", almost.c_str(), shortFamily.c_str(), false, false, false, false},
        {"FFFF0000", nullptr, nullptr, false, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        SetPlatformEnv(c.flags, c.codename, c.family);
        ZBackendImpl backend(nullptr);
        EXPECT_EQ(backend.IsAMDPlatform(), c.amd);
        EXPECT_EQ(backend.IsMorwen(), c.morwen);
        EXPECT_EQ(backend.IsBladedPlatform(), c.bladed);
        EXPECT_EQ(backend.IsDensePlatform(), c.dense);
    }
    SetPlatformEnv(nullptr, nullptr, nullptr);
    const size_t mark = LogMark();
    ZBackendImpl unset(nullptr);
    EXPECT_FALSE(unset.IsAMDPlatform());
    EXPECT_EQ(CountOf(LogSince(mark), "getenv( PLATFLAGS ) return NULL\n"), 1u);
}

TEST(BackendImplTest, PlatformNamePrefersFenOverTarnAndIsReadEachTime) {
    ZBackendImpl backend(nullptr);
    setenv("FEN_PLATFORM", "fen-name", 1);
    setenv("TARN_PLATFORM", "tarn-name", 1);
    EXPECT_EQ(backend.GetPlatformName(), "fen-name");
    unsetenv("FEN_PLATFORM");
    EXPECT_EQ(backend.GetPlatformName(), "tarn-name");
    unsetenv("TARN_PLATFORM");
    const size_t mark = LogMark();
    EXPECT_EQ(backend.GetPlatformName(), "");
    EXPECT_THAT(LogSince(mark),
                ::testing::HasSubstr("getenv( FEN_PLATFORM and TARN_PLATFORM ) return NULL\n"));
}

TEST(BackendImplTest, WorkDirectoriesStartEmptyAndStayInsideTheirSchemasTree) {
    ZSchema schema("ComputerSystem", "v1_20_0");
    const std::string expected = SysrootDir() + "/tmp/Redfish/ComputerSystem/BackendImpl";
    // What a previous process left there goes.
    WriteFile(expected + "/stale", "x");
    ASSERT_TRUE(FileExists(expected + "/stale"));
    ZBackendImpl backend(&schema);
    EXPECT_EQ(backend.GetOwnedBySchema(), &schema);
    size_t mark = LogMark();
    EXPECT_EQ(backend.GetTempWorkDirPath(), expected);
    EXPECT_EQ(backend.GetTempWorkDirPath(), expected);
    EXPECT_EQ(CountOf(LogSince(mark), "Create temp work dir[" + expected + "]\n"), 1u);
    EXPECT_TRUE(IsDir(expected));
    EXPECT_FALSE(FileExists(expected + "/stale"));

    // Same name within one second: the same directory, made afresh.
    std::string first;
    std::string second;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const time_t before = time(nullptr);
        first = backend.CreateATempWorkDir("job");
        WriteFile(first + "/partial", "x");
        ASSERT_TRUE(FileExists(first + "/partial"));
        second = backend.CreateATempWorkDir("job");
        if (time(nullptr) == before) break;
    }
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.rfind(expected + "/job_", 0), 0u) << first;
    EXPECT_TRUE(IsDir(second));
    EXPECT_FALSE(FileExists(second + "/partial"));

    mark = LogMark();
    EXPECT_EQ(backend.CreateATempWorkDir("../escape"), "");
    const std::string outside = SysrootDir() + "/tmp/Redfish/keep";
    WriteFile(outside + "/file", "x");
    for (const std::string& path : {outside, expected, expected + "/../../keep"}) {
        EXPECT_EQ(backend.RemoveTempWorkDir(path), RT_FAILURE) << path;
    }
    EXPECT_TRUE(FileExists(outside + "/file"));
    EXPECT_TRUE(IsDir(expected));
    EXPECT_THAT(LogSince(mark), ::testing::HasSubstr("Invalid temp work dir name[../escape].\n"));
    EXPECT_EQ(backend.RemoveTempWorkDir(second), RT_SUCCESS);
    EXPECT_FALSE(IsDir(second));

    ZBackendImpl orphan(nullptr);
    EXPECT_EQ(orphan.CreateATempWorkDir("job"), "");
}

TEST(BackendImplTest, EmailAddressesNeedADottedDomainAndNoPlus) {
    const std::string local64(64, 'a');
    const std::string domain64 = std::string(60, 'd') + ".com";
    const std::vector<std::pair<std::string, bool>> cases = {
        {"first.last-1_x@mail.example.com", true},
        {"a@b.c", true},
        {local64 + "@x.org", true},
        {"a" + local64 + "@x.org", false},  // 65 characters before '@'
        {"a@" + domain64, true},
        {"a@x" + domain64, false},  // 65 after it
        {"user@localhost", false},
        {"user+tag@example.com", false},
        {"user@exa+mple.com", false},
        {"@example.com", false},
        {"user.example.com", false},
        {"user@example.com.", false},
        {"us er@example.com", false},
    };
    for (const auto& [address, valid] : cases) {
        EXPECT_EQ(ZBackendImpl::IsValidEmailFormat(address.c_str()), valid) << address;
    }
    EXPECT_FALSE(ZBackendImpl::IsValidEmailFormat(nullptr));
}

}  // namespace
