// The platform-setting wrappers of Orbel.h (VEX, KOBA, clock, run level,
// shutting-down state) over the simulated platform: their results and the
// exact failure lines they log.
#include <gmock/gmock.h>
#include <paths.h>
#include <unistd.h>
#include <utmp.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "FixedPaths.h"
#include "Orbel.h"
#include "TestEnv.h"

namespace {

using Orbel::RT_FAILURE;
using Orbel::RT_SUCCESS;
using OrbelTest::FileExists;
using OrbelTest::ReadFile;
using OrbelTest::SysrootDir;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string Path(const std::string& fixed) {
    return SysrootDir() + fixed;
}

// The lines logged since `mark`, each from its "[TYPE]" on (the time stamp
// before it changes from run to run).
std::vector<std::string> LinesSince(size_t mark) {
    std::vector<std::string> lines;
    std::string text = OrbelTest::LogSince(mark);
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end == std::string::npos ? end : end - pos);
        size_t bracket = line.find('[');
        lines.push_back(bracket == std::string::npos ? line : line.substr(bracket));
        if (end == std::string::npos) break;
        pos = end + 1;
    }
    return lines;
}

class OrbelSettingsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string cmd = "rm -rf '" + Path("/var/lib/vex") + "' '" + Path("/run/vex") + "' '" +
                          Path("/var/lib/koba") + "' '" + Path("/run/tarnclock") + "' '" +
                          Path("/tmp/.shutting-down-tarn") + "' '" + Path(_PATH_UTMP) + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }
};

// ---------------------------------------------------------------------------
// VEX
// ---------------------------------------------------------------------------

TEST_F(OrbelSettingsTest, VexValuesRoundTripThroughEveryOverload) {
    size_t mark = OrbelTest::LogMark();
    ASSERT_EQ(Orbel::SetVEX("set_b", true), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetVEX("set_i", -42), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetVEX("set_ll", 9000000000LL, true), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetVEX("set_s", std::string("text value")), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetVEX("set_c", "literal"), RT_SUCCESS);

    bool b = false;
    int i = 0;
    long long ll = 0;
    std::string s;
    char buf[8];
    ASSERT_EQ(Orbel::GetVEX("set_b", b), RT_SUCCESS);
    EXPECT_TRUE(b);
    ASSERT_EQ(Orbel::GetVEX("set_i", i), RT_SUCCESS);
    EXPECT_EQ(i, -42);
    ASSERT_EQ(Orbel::GetVEX("set_ll", ll), RT_SUCCESS);
    EXPECT_EQ(ll, 9000000000LL);
    ASSERT_EQ(Orbel::GetVEX("set_s", s), RT_SUCCESS);
    EXPECT_EQ(s, "text value");
    ASSERT_EQ(Orbel::GetVEX("set_c", buf, static_cast<int>(sizeof(buf))), RT_SUCCESS);
    EXPECT_STREQ(buf, "literal");

    // Only the persist flag decides where the value lives.
    EXPECT_EQ(ReadFile(Path("/var/lib/vex/set_ll")), "9000000000");
    EXPECT_EQ(ReadFile(Path("/run/vex/set_b")), "true");
    EXPECT_FALSE(FileExists(Path("/var/lib/vex/set_b")));
    EXPECT_THAT(LinesSince(mark), IsEmpty());

    // The string getter reads through 1024 bytes.
    ASSERT_EQ(Orbel::SetVEX("long", std::string(2000, 'x')), RT_SUCCESS);
    ASSERT_EQ(Orbel::GetVEX("long", s), RT_SUCCESS);
    EXPECT_EQ(s, std::string(1023, 'x'));
}

TEST_F(OrbelSettingsTest, VexFailuresLogTheirTextUnlessQuiet) {
    size_t mark = OrbelTest::LogMark();
    bool b = true;
    EXPECT_EQ(Orbel::GetVEX("get_missing", b), RT_FAILURE);
    EXPECT_FALSE(b) << "the bool getter resets its output first";
    int i = 5;
    EXPECT_EQ(Orbel::GetVEX("get_missing", i), RT_FAILURE);
    EXPECT_EQ(i, 5);
    long long ll = 6;
    EXPECT_EQ(Orbel::GetVEX("get_missing", ll), RT_FAILURE);
    EXPECT_EQ(ll, 6);
    std::string s = "kept";
    EXPECT_EQ(Orbel::GetVEX("get_missing", s), RT_FAILURE);
    EXPECT_EQ(s, "kept");
    char buf[4] = "abc";
    EXPECT_EQ(Orbel::GetVEX("get_missing", buf, 4), RT_FAILURE);
    EXPECT_EQ(Orbel::GetVEX("set_b", nullptr, 4), RT_FAILURE);
    EXPECT_EQ(Orbel::SetVEX("bad/name", 1), RT_FAILURE);
    EXPECT_EQ(Orbel::SetVEX(".hidden", std::string("x"), true), RT_FAILURE);
    EXPECT_EQ(Orbel::SetVEX("null_value", static_cast<const char*>(nullptr)), RT_FAILURE);
    const std::string getLine = "[ERROR] Orbel.cpp:GetVEX(): Get vex[get_missing] variable failed";
    EXPECT_THAT(LinesSince(mark),
                ElementsAre(getLine, getLine, getLine, getLine, getLine,
                            "[ERROR] Orbel.cpp:GetVEX(): Get vex[set_b] variable failed",
                            "[ERROR] Orbel.cpp:SetVEX(): Set vex[bad/name] variable failed",
                            "[ERROR] Orbel.cpp:SetVEX(): Set vex[.hidden] variable failed",
                            "[ERROR] Orbel.cpp:SetVEX(): Set vex[null_value] variable failed"));

    // A value of the wrong type fails like a missing one; quiet keeps the
    // bool reset but drops the line.
    ASSERT_EQ(Orbel::SetVEX("typed", std::string("not a number")), RT_SUCCESS);
    mark = OrbelTest::LogMark();
    b = true;
    EXPECT_EQ(Orbel::GetVEX("typed", b, true), RT_FAILURE);
    EXPECT_FALSE(b);
    EXPECT_EQ(Orbel::GetVEX("typed", ll, true), RT_FAILURE);
    EXPECT_EQ(Orbel::GetVEX("missing", buf, 4, true), RT_FAILURE);
    EXPECT_EQ(Orbel::SetVEX("bad/name", "x", false, true), RT_FAILURE);
    EXPECT_THAT(LinesSince(mark), IsEmpty()) << "quiet suppresses every failure line";
}

// ---------------------------------------------------------------------------
// KOBA
// ---------------------------------------------------------------------------

TEST_F(OrbelSettingsTest, KobaValuesRoundTrip) {
    size_t mark = OrbelTest::LogMark();
    ASSERT_EQ(Orbel::SetKOBA("k_u", 4000000000u), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetKOBA("k_i", -7), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetKOBA("k_b", true), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetKOBA("k_s", std::string("hello")), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetKOBA("k_lit", "literal"), RT_SUCCESS);
    // A string literal is stored as a string, not taken for a bool.
    EXPECT_EQ(ReadFile(Path("/var/lib/koba/k_lit")), "S:literal");

    unsigned u = 0;
    int i = 0;
    bool b = false;
    std::string s;
    ASSERT_EQ(Orbel::GetKOBA("k_u", u), RT_SUCCESS);
    EXPECT_EQ(u, 4000000000u);
    ASSERT_EQ(Orbel::GetKOBA("k_i", i), RT_SUCCESS);
    EXPECT_EQ(i, -7);
    ASSERT_EQ(Orbel::GetKOBA("k_b", b), RT_SUCCESS);
    EXPECT_TRUE(b);
    ASSERT_EQ(Orbel::GetKOBA("k_s", s), RT_SUCCESS);
    EXPECT_EQ(s, "hello");
    EXPECT_THAT(LinesSince(mark), IsEmpty());

    // The setter cuts strings to its 512-byte buffer: 511 bytes and a zero.
    ASSERT_EQ(Orbel::SetKOBA("k_long", std::string(600, 'y')), RT_SUCCESS);
    ASSERT_EQ(Orbel::GetKOBA("k_long", s), RT_SUCCESS);
    EXPECT_EQ(s, std::string(511, 'y'));
}

TEST_F(OrbelSettingsTest, KobaFailuresLogTheStoreErrorCode) {
    ASSERT_EQ(Orbel::SetKOBA("k_num", 1), RT_SUCCESS);
    ASSERT_EQ(Orbel::SetKOBA("k_text", std::string("t")), RT_SUCCESS);
    OrbelTest::WriteFile(Path("/var/lib/koba/k_huge"), "S:" + std::string(1100, 'z'));

    size_t mark = OrbelTest::LogMark();
    unsigned u = 9;
    EXPECT_EQ(Orbel::GetKOBA("k_missing", u), RT_FAILURE);
    EXPECT_EQ(u, 9u);
    bool b = true;
    EXPECT_EQ(Orbel::GetKOBA("k_num", b), RT_FAILURE);
    EXPECT_TRUE(b) << "KOBA getters leave the output alone on failure";
    std::string s = "kept";
    EXPECT_EQ(Orbel::GetKOBA("k_huge", s), RT_FAILURE);
    EXPECT_EQ(s, "kept");
    char small[2];
    EXPECT_EQ(Orbel::GetKOBA("k_text", small, 1), RT_FAILURE);
    int i = 0;
    EXPECT_EQ(Orbel::GetKOBA("k_text", i), RT_FAILURE);
    EXPECT_THAT(LinesSince(mark),
                ElementsAre("[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_missing] failed!! "
                            "ErrCode=1.",
                            "[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_num] failed!! ErrCode=3.",
                            "[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_huge] failed!! ErrCode=4.",
                            "[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_text] failed!! ErrCode=4.",
                            "[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_text] failed!! "
                            "ErrCode=3."));

    // Bool and string setters have their own line for a type clash; the
    // number setters report the code.
    mark = OrbelTest::LogMark();
    EXPECT_EQ(Orbel::SetKOBA("k_num", false), RT_FAILURE);
    EXPECT_EQ(Orbel::SetKOBA("k_num", std::string("s")), RT_FAILURE);
    EXPECT_EQ(Orbel::SetKOBA("k_text", 3), RT_FAILURE);
    EXPECT_EQ(Orbel::SetKOBA("bad/name", true), RT_FAILURE);
    EXPECT_EQ(Orbel::SetKOBA("k_text", static_cast<const char*>(nullptr)), RT_FAILURE);
    EXPECT_THAT(LinesSince(mark),
                ElementsAre("[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[k_num] format error.",
                            "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[k_num] format error.",
                            "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[k_text] failed!! ErrCode=3.",
                            "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[bad/name] failed!! "
                            "ErrCode=2.",
                            "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[k_text] failed!! "
                            "ErrCode=4."));
    EXPECT_EQ(ReadFile(Path("/var/lib/koba/k_num")), "s:1");
    EXPECT_EQ(ReadFile(Path("/var/lib/koba/k_text")), "S:t");
}

// ---------------------------------------------------------------------------
// Clock, run level, shutting-down state
// ---------------------------------------------------------------------------

TEST_F(OrbelSettingsTest, TarnClockFormatsLocalTimeWithItsZone) {
    const char* oldTz = std::getenv("TZ");
    std::string savedTz = oldTz != nullptr ? oldTz : "";
    setenv("TZ", "<-0930>9:30", 1);
    tzset();
    std::string dateTime, zone;
    time_t before = time(nullptr);
    ASSERT_EQ(Orbel::GetTarnClock(dateTime, zone), RT_SUCCESS);
    time_t after = time(nullptr);
    // The local time of some second of the call, then the zone.
    std::vector<std::string> expected;
    for (time_t t = before; t <= after; ++t) {
        struct tm tm;
        char text[32];
        strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S-09:30", localtime_r(&t, &tm));
        expected.push_back(text);
    }
    EXPECT_THAT(expected, ::testing::Contains(dateTime));
    EXPECT_EQ(zone, "-09:30");
    if (oldTz != nullptr) {
        setenv("TZ", savedTz.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();

    // A failing clock is a warning, and leaves both strings as they were.
    OrbelTest::WriteFile(Path("/run/tarnclock/fault"), "9");
    size_t mark = OrbelTest::LogMark();
    std::string keptDate = "date", keptZone = "zone";
    EXPECT_EQ(Orbel::GetTarnClock(keptDate, keptZone), RT_FAILURE);
    EXPECT_EQ(keptDate, "date");
    EXPECT_EQ(keptZone, "zone");
    EXPECT_THAT(LinesSince(mark),
                ElementsAre("[WARNING] Orbel.cpp:GetTarnClock(): Get Tarn Clock, return:9"));
}

std::string UtmpRecord(short type, pid_t pid) {
    struct utmp u;
    std::memset(&u, 0, sizeof(u));
    u.ut_type = type;
    u.ut_pid = pid;
    std::strncpy(u.ut_user, "test", sizeof(u.ut_user) - 1);
    return std::string(reinterpret_cast<const char*>(&u), sizeof(u));
}

TEST_F(OrbelSettingsTest, RunLevelComesFromTheFirstRunLevelRecord) {
    std::string utmp = Path(_PATH_UTMP);
    EXPECT_EQ(Orbel::GetSysRunLevel(), 0) << "no utmp file";
    OrbelTest::WriteFile(utmp, UtmpRecord(BOOT_TIME, 0) + UtmpRecord(LOGIN_PROCESS, 0x35));
    EXPECT_EQ(Orbel::GetSysRunLevel(), 0) << "no run-level record";
    // sysvinit stores the level's character ('5' = 0x35) plus 256 × the previous one.
    OrbelTest::WriteFile(utmp, UtmpRecord(LOGIN_PROCESS, 0x33) +
                                   UtmpRecord(RUN_LVL, 'N' * 256 + '5') + UtmpRecord(RUN_LVL, '3'));
    EXPECT_EQ(Orbel::GetSysRunLevel(), 5);
    OrbelTest::WriteFile(utmp, UtmpRecord(RUN_LVL, 'S'));  // 0x53: low bits 3
    EXPECT_EQ(Orbel::GetSysRunLevel(), 3);
    OrbelTest::WriteFile(utmp, UtmpRecord(RUN_LVL, 0x4E));  // low bits 14, capped
    EXPECT_EQ(Orbel::GetSysRunLevel(), 7);
}

TEST_F(OrbelSettingsTest, ShuttingDownFollowsTheMarkerUnderTheSysroot) {
    std::string marker = Orbel::ShuttingDownMarkerPath();
    ASSERT_EQ(marker, SysrootDir() + "/tmp/.shutting-down-tarn");
    EXPECT_FALSE(Orbel::IsTARNShuttingDown());
    OrbelTest::WriteFile(marker, "");
    EXPECT_TRUE(Orbel::IsTARNShuttingDown());
    ASSERT_EQ(unlink(marker.c_str()), 0);
    EXPECT_FALSE(Orbel::IsTARNShuttingDown());
}

}  // namespace
