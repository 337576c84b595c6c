// The platform-setting wrappers of Orbel.h (VEX, KOBA, clock, run level)
// over the simulated platform: their results and the exact failure lines
// they log. (The shutting-down state is seen working in the frame's suite.)
#include <gmock/gmock.h>
#include <paths.h>
#include <utmp.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

#include "Orbel.h"
#include "TestEnv.h"
#include "TestFiles.h"

namespace {

using namespace Orbel;
using namespace OrbelTest;

const auto Path = [](const std::string& fixed) { return SysrootDir() + fixed; };

// What was logged since `mark`, each line from its "[TYPE]" on (the time
// stamp in front of it changes from run to run).
std::string LoggedSince(size_t mark) {
    static const std::regex stamp("(^|\n)[^[\n]*");
    return std::regex_replace(LogSince(mark), stamp, "$1");
}

class OrbelSettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* dir :
             {"/var/lib/vex", "/run/vex", "/var/lib/koba", "/run/tarnclock", _PATH_UTMP}) {
            ASSERT_EQ(std::system(("rm -rf '" + Path(dir) + "'").c_str()), 0);
        }
    }
};

// Writes `value` through the VEX or KOBA setter of its type, reads it back
// through the matching getter, and returns what came back.
template <typename T>
T VexRoundTrip(const std::string& name, const T& value, bool persist = false) {
    EXPECT_EQ(SetVEX(name, value, persist), RT_SUCCESS) << name;
    T back{};
    EXPECT_EQ(GetVEX(name, back), RT_SUCCESS) << name;
    return back;
}
template <typename T>
T KobaRoundTrip(const std::string& name, const T& value) {
    EXPECT_EQ(SetKOBA(name, value), RT_SUCCESS) << name;
    T back{};
    EXPECT_EQ(GetKOBA(name, back), RT_SUCCESS) << name;
    return back;
}

TEST_F(OrbelSettingsTest, ValuesRoundTripThroughEveryOverloadWithoutALogLine) {
    size_t mark = LogMark();
    EXPECT_EQ(VexRoundTrip("set_b", true), true);
    EXPECT_EQ(VexRoundTrip("set_ll", 9000000000LL, true), 9000000000LL);
    EXPECT_EQ(VexRoundTrip("set_s", std::string("text value")), "text value");
    // The string getter reads through 1024 bytes.
    EXPECT_EQ(VexRoundTrip("long", std::string(2000, 'x')), std::string(1023, 'x'));
    char buf[8];
    ASSERT_EQ(SetVEX("set_c", "literal"), RT_SUCCESS);
    ASSERT_EQ(GetVEX("set_c", buf, static_cast<int>(sizeof(buf))), RT_SUCCESS);
    EXPECT_STREQ(buf, "literal");
    // Only the persist flag decides where the value lives.
    EXPECT_EQ(ReadFile(Path("/var/lib/vex/set_ll")), "9000000000");
    EXPECT_EQ(ReadFile(Path("/run/vex/set_b")), "true");
    EXPECT_FALSE(FileExists(Path("/var/lib/vex/set_b")));

    EXPECT_EQ(KobaRoundTrip("k_u", 4000000000u), 4000000000u);
    EXPECT_EQ(KobaRoundTrip("k_b", true), true);
    EXPECT_EQ(KobaRoundTrip("k_s", std::string("hello")), "hello");
    // The setter cuts strings to its 512-byte buffer: 511 bytes and a zero.
    EXPECT_EQ(KobaRoundTrip("k_long", std::string(600, 'y')), std::string(511, 'y'));
    // A string literal is stored as a string, not taken for a bool.
    ASSERT_EQ(SetKOBA("k_lit", "literal"), RT_SUCCESS);
    EXPECT_EQ(ReadFile(Path("/var/lib/koba/k_lit")), "S:literal");
    EXPECT_EQ(LoggedSince(mark), "");
}

TEST_F(OrbelSettingsTest, VexFailuresLogTheirTextUnlessQuiet) {
    ASSERT_EQ(SetVEX("typed", std::string("not a number")), RT_SUCCESS);
    size_t mark = LogMark();
    bool b = true;
    std::string s = "kept";
    EXPECT_EQ(GetVEX("get_missing", b), RT_FAILURE);
    EXPECT_FALSE(b) << "the bool getter resets its output first";
    EXPECT_EQ(GetVEX("get_missing", s), RT_FAILURE);
    EXPECT_EQ(s, "kept");
    EXPECT_EQ(SetVEX("bad/name", 1), RT_FAILURE);
    EXPECT_EQ(SetVEX("null_value", static_cast<const char*>(nullptr)), RT_FAILURE);
    // Quiet calls fail alike (a value of the wrong type like a missing one,
    // the bool still reset) but log nothing.
    b = true;
    EXPECT_EQ(GetVEX("typed", b, true), RT_FAILURE);
    EXPECT_FALSE(b);
    EXPECT_EQ(SetVEX("bad/name", "x", false, true), RT_FAILURE);
    EXPECT_EQ(LoggedSince(mark),
              "[ERROR] Orbel.cpp:GetVEX(): Get vex[get_missing] variable failed\n"
              "[ERROR] Orbel.cpp:GetVEX(): Get vex[get_missing] variable failed\n"
              "[ERROR] Orbel.cpp:SetVEX(): Set vex[bad/name] variable failed\n"
              "[ERROR] Orbel.cpp:SetVEX(): Set vex[null_value] variable failed\n");
}

TEST_F(OrbelSettingsTest, KobaFailuresLogTheStoreErrorCode) {
    ASSERT_EQ(SetKOBA("k_num", 1), RT_SUCCESS);
    ASSERT_EQ(SetKOBA("k_text", std::string("t")), RT_SUCCESS);
    WriteFile(Path("/var/lib/koba/k_huge"), "S:" + std::string(1100, 'z'));

    size_t mark = LogMark();
    unsigned u = 9;
    bool b = true;
    std::string s = "kept";
    EXPECT_EQ(GetKOBA("k_missing", u), RT_FAILURE);
    EXPECT_EQ(GetKOBA("k_num", b), RT_FAILURE);
    EXPECT_EQ(GetKOBA("k_huge", s), RT_FAILURE);
    EXPECT_TRUE(u == 9 && b && s == "kept") << "KOBA getters leave the output alone on failure";
    // Bool and string setters have their own line for a type clash; the
    // number setters report the code.
    EXPECT_EQ(SetKOBA("k_num", false), RT_FAILURE);
    EXPECT_EQ(SetKOBA("k_text", 3), RT_FAILURE);
    EXPECT_EQ(SetKOBA("bad/name", true), RT_FAILURE);
    EXPECT_EQ(SetKOBA("k_text", static_cast<const char*>(nullptr)), RT_FAILURE);
    EXPECT_EQ(LoggedSince(mark),
              "[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_missing] failed!! ErrCode=1.\n"
              "[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_num] failed!! ErrCode=3.\n"
              "[ERROR] Orbel.cpp:GetKOBA(): Get kobaName[k_huge] failed!! ErrCode=4.\n"
              "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[k_num] format error.\n"
              "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[k_text] failed!! ErrCode=3.\n"
              "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[bad/name] failed!! ErrCode=2.\n"
              "[ERROR] Orbel.cpp:SetKOBA(): Set kobaName[k_text] failed!! ErrCode=4.\n");
    EXPECT_EQ(ReadFile(Path("/var/lib/koba/k_num")) + ReadFile(Path("/var/lib/koba/k_text")),
              "s:1S:t");
}

TEST_F(OrbelSettingsTest, TarnClockFormatsLocalTimeWithItsZone) {
    std::string dateTime, zone;
    std::vector<std::string> expected;  // the local time of some second of the call
    ScopedTimeZone tz("<-0930>9:30");
    time_t before = time(nullptr);
    ASSERT_EQ(GetTarnClock(dateTime, zone), RT_SUCCESS);
    for (time_t t = before; t <= time(nullptr); ++t) {
        struct tm tm;
        char text[32];
        strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S-09:30", localtime_r(&t, &tm));
        expected.push_back(text);
    }
    EXPECT_THAT(expected, ::testing::Contains(dateTime));
    EXPECT_EQ(zone, "-09:30");

    // A failing clock is a warning, and leaves both strings as they were.
    WriteFile(Path("/run/tarnclock/fault"), "9");
    size_t mark = LogMark();
    dateTime = "date";
    EXPECT_EQ(GetTarnClock(dateTime, zone), RT_FAILURE);
    EXPECT_EQ(dateTime + zone, "date-09:30");
    EXPECT_EQ(LoggedSince(mark), "[WARNING] Orbel.cpp:GetTarnClock(): Get Tarn Clock, return:9\n");
}

std::string UtmpRecord(short type, pid_t pid) {
    struct utmp u {};
    u.ut_type = type;
    u.ut_pid = pid;
    return std::string(reinterpret_cast<const char*>(&u), sizeof(u));
}

TEST_F(OrbelSettingsTest, RunLevelIsReadFromTheUtmpFile) {
    std::string utmp = Path(_PATH_UTMP);
    EXPECT_EQ(GetSysRunLevel(), 0) << "no utmp file";
    // sysvinit stores the level's character ('5' = 0x35) plus 256 × the
    // previous one; only run-level records count.
    WriteFile(utmp, UtmpRecord(LOGIN_PROCESS, 0x33) + UtmpRecord(RUN_LVL, 'N' * 256 + '5') +
                        UtmpRecord(RUN_LVL, '3'));
    EXPECT_EQ(GetSysRunLevel(), 5);
    WriteFile(utmp, UtmpRecord(RUN_LVL, 0x4E));  // low bits 14, capped
    EXPECT_EQ(GetSysRunLevel(), 7);
}

}  // namespace
