// The log service: line layout, the three files per destination, standard
// output echo, rotation into two gzip generations, the debug filter, the
// message cache and its dump, rerouting and the start-up backup.
//
// Every test builds its own ZLogPrint on files in a fresh directory under
// the sysroot; the binary's global service (zLogPrint) is left alone except
// where a test saves and restores it.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Orbel.h"
#include "TestEnv.h"
#include "ZLogPrint.h"

using namespace Orbel;
using OrbelTest::FileExists;
using OrbelTest::ReadFile;

namespace {

const char kStamp[] = R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{6}[+-]\d{2}:\d{2})";
const char kDumpComment[] =
    "/**\n * Can set the log level to debug to print the last 500 debug messages.\n **/\n";
const char kSummaryRule[] = "\n\n================================================\n";

// A fresh directory per test; returns the base path "<dir>/app".
std::string FreshBase(const std::string& leaf = "app") {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string dir =
        OrbelTest::SysrootDir() + "/zlog/" + info->test_suite_name() + "." + info->name();
    DelDirTree(dir);
    EXPECT_EQ(CreateDirTree(dir), RT_SUCCESS);
    return dir + "/" + leaf;
}

std::string DirOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

std::set<std::string> ListDir(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.insert(n);
        }
        closedir(d);
    }
    return names;
}

std::string Gunzip(const std::string& path) {
    std::string out;
    FILE* p = popen(("gzip -dc '" + path + "'").c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    size_t n = 0;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

// Lines of `text` that contain `marker`.
std::vector<std::string> LinesWith(const std::string& text, const std::string& marker) {
    std::vector<std::string> out;
    for (const auto& l : Lines(text)) {
        if (l.find(marker) != std::string::npos) out.push_back(l);
    }
    return out;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Standard output captured between Start() and Take(); released by the
// destructor when an assertion leaves the test early, so the next test can
// capture again.
class StdoutCapture {
  public:
    StdoutCapture() = default;
    ~StdoutCapture() {
        if (mActive) testing::internal::GetCapturedStdout();
    }
    void Start() {
        testing::internal::CaptureStdout();
        mActive = true;
    }
    std::string Take() {
        mActive = false;
        return testing::internal::GetCapturedStdout();
    }

  private:
    bool mActive = false;
};

TEST(ZLogPrintLayout, PrefixPerTypeInFileAndOnStdout) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    log.SetDebugLevel(1);
    cap.Start();
    log.LogPrint("", eZLogInfo, "Foo.cpp", "Bar", 10, "info %d\n", 0);
    log.LogPrint("", eZLogWarning, "Foo.cpp", "Bar", 11, "warn %s\n", "1");
    log.LogPrint(nullptr, eZLogError, "Foo.cpp", "Bar", 12, "error %u\n", 2u);
    log.LogPrint("", eZLogDebug, "Foo.cpp", "Bar", 13, "debug %c\n", '3');
    log.LogPrint("", eZLogRaw, "Foo.cpp", "Bar", 14, "raw %s\n", "4");
    const std::string out = cap.Take();

    EXPECT_EQ(out,
              "Foo.cpp:Bar:INFO: info 0\n"
              "Foo.cpp:Bar:WARNING: warn 1\n"
              "Foo.cpp:Bar:ERROR: error 2\n"
              "Foo.cpp:Bar:DEBUG: debug 3\n"
              "raw 4\n");
    const std::string s = kStamp;
    const std::regex layout("^" + s + R"(\[INFO\] Foo\.cpp:Bar\(\): info 0\n)" + s +
                            R"(\[WARNING\] Foo\.cpp:Bar\(\): warn 1\n)" + s +
                            R"(\[ERROR\] Foo\.cpp:Bar\(\): error 2\n)" + s +
                            R"(\[DEBUG\] Foo\.cpp:Bar\(\): debug 3\n)" + R"(raw 4\n$)");
    const std::string file = ReadFile(base + ".log");
    EXPECT_TRUE(std::regex_match(file, layout)) << file;
    // No newline is added: a message without one runs into the next line.
    log.LogPrint("", eZLogRaw, "Foo.cpp", "Bar", 15, "no end");
    log.LogPrint("", eZLogRaw, "Foo.cpp", "Bar", 16, "|next\n");
    EXPECT_TRUE(Contains(ReadFile(base + ".log"), "\nno end|next\n"));
}

TEST(ZLogPrintLayout, TimeStampIsUtcWhateverTheLocalZone) {
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    const char* oldTz = std::getenv("TZ");
    const std::string savedTz = oldTz != nullptr ? oldTz : "";
    // Five hours east of UTC: local time and UTC differ in the hour.
    setenv("TZ", "XYZ-5", 1);
    tzset();
    char before[32];
    char after[32];
    struct tm tmv;
    time_t t0 = time(nullptr);
    gmtime_r(&t0, &tmv);
    strftime(before, sizeof(before), "%Y-%m-%dT%H:%M", &tmv);
    std::string stamp = ZLogPrint::GetTimeStamp();
    time_t t1 = time(nullptr);
    gmtime_r(&t1, &tmv);
    strftime(after, sizeof(after), "%Y-%m-%dT%H:%M", &tmv);
    if (oldTz != nullptr) {
        setenv("TZ", savedTz.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();

    ASSERT_TRUE(std::regex_match(stamp, std::regex(kStamp))) << stamp;
    const std::string minute = stamp.substr(0, 16);
    EXPECT_TRUE(minute == before || minute == after) << stamp << " vs " << before;
}

TEST(ZLogPrintLayout, AccessLinesGoToTheAccessFileOnly) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    EXPECT_TRUE(FileExists(base + ".accesslog"));  // created with the service
    EXPECT_EQ(log.AccessLogFilePath(), base + ".accesslog");
    EXPECT_EQ(log.LogFilePath(), base + ".log");
    log.SetAppInitDone(true);

    cap.Start();
    log.LogPrint("", eZLogAccess, "Foo.cpp", "Bar", 1, "GET /redfish/v1 %d\n", 200);
    EXPECT_EQ(cap.Take(), "");

    const std::string access = ReadFile(base + ".accesslog");
    EXPECT_TRUE(std::regex_match(
        access, std::regex("^" + std::string(kStamp) + R"( GET /redfish/v1 200\n$)")))
        << access;
    EXPECT_FALSE(FileExists(base + ".log"));
    EXPECT_FALSE(FileExists(base + ".logerr"));
    // Access lines are not cached either: a dump has nothing but the comment.
    log.DumpMsgCache2File();
    EXPECT_EQ(ReadFile(base + ".log"), std::string(kDumpComment) + kSummaryRule);
}

TEST(ZLogPrintFiles, ErrorFileOnlyAfterInitialisation) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    cap.Start();
    log.LogPrint("", eZLogWarning, "F.cpp", "f", 1, "early warning\n");
    log.LogPrint("", eZLogError, "F.cpp", "f", 1, "early error\n");
    const std::string early = cap.Take();
    EXPECT_TRUE(Contains(early, "F.cpp:f:WARNING: early warning\n"));
    EXPECT_FALSE(FileExists(base + ".logerr"));
    EXPECT_TRUE(Contains(ReadFile(base + ".log"), "early error\n"));

    log.SetAppInitDone(true);
    cap.Start();
    log.LogPrint("", eZLogInfo, "F.cpp", "f", 1, "late info\n");
    log.LogPrint("", eZLogWarning, "F.cpp", "f", 1, "late warning\n");
    log.LogPrint("", eZLogError, "F.cpp", "f", 1, "late error\n");
    log.LogPrint("", eZLogDebug, "F.cpp", "f", 1, "late debug\n");
    cap.Take();

    const std::string err = ReadFile(base + ".logerr");
    const std::string s = kStamp;
    EXPECT_TRUE(
        std::regex_match(err, std::regex("^" + s + R"(\[WARNING\] F\.cpp:f\(\): late warning\n)" +
                                         s + R"(\[ERROR\] F\.cpp:f\(\): late error\n$)")))
        << err;
    const std::string normal = ReadFile(base + ".log");
    EXPECT_TRUE(Contains(normal, "late info\n"));
    EXPECT_TRUE(Contains(normal, "late warning\n"));
    EXPECT_TRUE(Contains(normal, "late error\n"));
}

TEST(ZLogPrintFiles, ConstructionRotatesThePreviousRun) {
    const std::string base = FreshBase();
    OrbelTest::WriteFile(base + ".log", "previous run\n");
    OrbelTest::WriteFile(base + ".logerr", "previous errors\n");
    OrbelTest::WriteFile(base + ".accesslog", "previous access\n");
    ZLogPrint log(base, 1 << 20);
    EXPECT_FALSE(FileExists(base + ".log"));
    EXPECT_EQ(Gunzip(base + ".log1.gz"), "previous run\n");
    EXPECT_EQ(Gunzip(base + ".logerr1.gz"), "previous errors\n");
    // The access file is only created when missing, never rotated here.
    EXPECT_EQ(ReadFile(base + ".accesslog"), "previous access\n");
}

TEST(ZLogPrintFiles, SizeIsCheckedEveryTwentiethWriteAfterInitOnly) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    const std::string p = base + ".log";
    ZLogPrint log(base, 100);
    cap.Start();
    int n = 0;
    auto write = [&](int count) {
        for (int i = 0; i < count; ++i)
            log.LogPrint("", eZLogInfo, "R.cpp", "r", 1, "line %03d\n", ++n);
    };
    // Far past the threshold during start-up: no rotation.
    write(50);
    EXPECT_EQ(LinesWith(ReadFile(p), "line ").size(), 50u);
    EXPECT_FALSE(FileExists(p + "1.gz"));

    log.SetAppInitDone(true);
    write(19);
    EXPECT_FALSE(FileExists(p + "1.gz"));
    write(1);  // the 20th write after init: checked and rotated
    EXPECT_FALSE(FileExists(p));
    ASSERT_TRUE(FileExists(p + "1.gz"));
    const auto gen1 = LinesWith(Gunzip(p + "1.gz"), "line ");
    ASSERT_EQ(gen1.size(), 70u);
    EXPECT_TRUE(Contains(gen1.back(), "line 070"));

    // The next write re-creates the file; the next check is 20 writes on.
    write(19);
    EXPECT_EQ(LinesWith(ReadFile(p), "line ").size(), 19u);
    EXPECT_FALSE(FileExists(p + "2.gz"));
    write(1);
    EXPECT_TRUE(FileExists(p + "2.gz"));
    cap.Take();
}

TEST(ZLogPrintFiles, ThreeRotationsKeepExactlyTwoGenerations) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    const std::string p = base + ".log";
    ZLogPrint log(base, 100);
    log.SetAppInitDone(true);
    cap.Start();
    int n = 0;
    for (int i = 0; i < 60; ++i) log.LogPrint("", eZLogInfo, "R.cpp", "r", 1, "line %03d\n", ++n);
    log.LogPrint("", eZLogInfo, "R.cpp", "r", 1, "line %03d\n", ++n);
    cap.Take();

    EXPECT_EQ(ListDir(DirOf(base)),
              (std::set<std::string>{"app.accesslog", "app.log", "app.log1.gz", "app.log2.gz"}));
    // Newest generation first; the first twenty lines are gone.
    const auto gen1 = LinesWith(Gunzip(p + "1.gz"), "line ");
    const auto gen2 = LinesWith(Gunzip(p + "2.gz"), "line ");
    ASSERT_EQ(gen1.size(), 20u);
    ASSERT_EQ(gen2.size(), 20u);
    EXPECT_TRUE(Contains(gen1.front(), "line 041"));
    EXPECT_TRUE(Contains(gen2.front(), "line 021"));
    EXPECT_TRUE(Contains(gen2.back(), "line 040"));
    const auto current = LinesWith(ReadFile(p), "line ");
    ASSERT_EQ(current.size(), 1u);
    EXPECT_TRUE(Contains(current[0], "line 061"));
}

TEST(ZLogPrintFiles, SpecificLogPrintAppendsAndRotatesPast64000) {
    const std::string dir = DirOf(FreshBase());
    const std::string path = dir + "/specific.log";
    ZLogPrint log(dir + "/app", 1 << 20);
    log.SpecificLogPrint(path.c_str(), "entry %d\n", 1);
    EXPECT_EQ(ReadFile(path), "entry 1\n");  // no prefix

    const std::string kilo(999, 'k');
    for (int i = 0; i < 63; ++i) log.SpecificLogPrint(path.c_str(), "%s\n", kilo.c_str());
    EXPECT_EQ(ReadFile(path).size(), 8u + 63000u);
    // Exactly at the threshold is not past it.
    log.SpecificLogPrint(path.c_str(), "%s\n", std::string(991, 'e').c_str());
    EXPECT_EQ(ReadFile(path).size(), 64000u);
    EXPECT_FALSE(FileExists(path + "1.gz"));
    log.SpecificLogPrint(path.c_str(), "+");  // 64001 bytes: rotated
    EXPECT_FALSE(FileExists(path));
    EXPECT_EQ(Gunzip(path + "1.gz").size(), 64001u);
    log.SpecificLogPrint(path.c_str(), "after %s\n", "rotation");
    EXPECT_EQ(ReadFile(path), "after rotation\n");
}

TEST(ZLogPrintFiles, LongMessagesAreCutTo2047Bytes) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    log.SetDebugLevel(1);
    const std::string longText(3000, 'x');
    cap.Start();
    log.LogPrint("", eZLogRaw, "L.cpp", "l", 1, "%s\n", longText.c_str());
    const std::string out = cap.Take();
    EXPECT_EQ(ReadFile(base + ".log"), std::string(2047, 'x'));
    EXPECT_EQ(out, std::string(2047, 'x'));
    const std::string exact(2047, 'y');
    cap.Start();
    log.LogPrint("", eZLogRaw, "L.cpp", "l", 1, "%s", exact.c_str());
    cap.Take();
    EXPECT_EQ(ReadFile(base + ".log"), std::string(2047, 'x') + exact);
}

TEST(ZLogPrintDebug, FilterByLevelAndSchemaSet) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    const std::string p = base + ".log";
    ZLogPrint log(base, 1 << 20);
    ASSERT_EQ(log.GetDebugLevel(), 0);
    ASSERT_FALSE(log.IsSchemaDebugEnabled());

    cap.Start();
    log.LogPrint("", eZLogDebug, "D.cpp", "d", 1, "dbg-empty\n");
    log.LogPrint("MySchema", eZLogDebug, "D.cpp", "d", 1, "dbg-schema\n");
    log.LogPrint("ZComLib", eZLogRaw, "D.cpp", "d", 1, "raw-zcomlib\n");
    log.LogPrint(nullptr, eZLogRaw, "D.cpp", "d", 1, "raw-null\n");
    log.LogPrint("MySchema", eZLogInfo, "D.cpp", "d", 1, "info-always\n");
    EXPECT_EQ(cap.Take(), "D.cpp:d:INFO: info-always\n");
    const std::string before = ReadFile(p);
    for (const char* text : {"dbg-empty", "dbg-schema", "raw-zcomlib", "raw-null"}) {
        EXPECT_FALSE(Contains(before, text)) << text;
    }
    // The suppressed lines were cached, and the dump shows them in order.
    log.DumpMsgCache2File();
    const std::string dumped = ReadFile(p);
    const std::string s = kStamp;
    EXPECT_TRUE(std::regex_search(
        dumped, std::regex("^" + s + R"(\[DEBUG\] D\.cpp:d\(\): dbg-empty\n)" + s +
                           R"(\[DEBUG\] D\.cpp:d\(\): dbg-schema\nraw-zcomlib\nraw-null\n)" + s +
                           R"(\[INFO\] D\.cpp:d\(\): info-always\n)")))
        << dumped;

    // Level 0 with names enabled: only those names pass.
    log.EnableSchemaDebug("MySchema");
    EXPECT_TRUE(log.IsSchemaDebugEnabled());
    EXPECT_TRUE(log.IsSchemaDebugEnabled("MySchema"));
    EXPECT_FALSE(log.IsSchemaDebugEnabled("Other"));
    cap.Start();
    log.LogPrint("MySchema", eZLogDebug, "D.cpp", "d", 1, "lvl0-schema\n");
    log.LogPrint("Other", eZLogDebug, "D.cpp", "d", 1, "lvl0-other\n");
    log.LogPrint("", eZLogDebug, "D.cpp", "d", 1, "lvl0-empty\n");
    EXPECT_EQ(cap.Take(), "D.cpp:d:DEBUG: lvl0-schema\n");

    // A non-zero level lets every name through except "ZComLib", which
    // always needs its own entry in the set.
    log.SetDebugLevel(2);
    cap.Start();
    log.LogPrint("Other", eZLogDebug, "D.cpp", "d", 1, "lvl2-other\n");
    log.LogPrint("", eZLogRaw, "D.cpp", "d", 1, "lvl2-empty\n");
    log.LogPrint("ZComLib", eZLogRaw, "D.cpp", "d", 1, "lvl2-zcomlib\n");
    log.EnableSchemaDebug("ZComLib");
    log.LogPrint("ZComLib", eZLogRaw, "D.cpp", "d", 1, "lvl2-zcomlib-enabled\n");
    EXPECT_EQ(cap.Take(), "D.cpp:d:DEBUG: lvl2-other\nlvl2-empty\nlvl2-zcomlib-enabled\n");

    log.ResetSchemaDebug();
    EXPECT_FALSE(log.IsSchemaDebugEnabled());
    EXPECT_FALSE(log.IsSchemaDebugEnabled(nullptr));
    log.SetDebugLevel(0);
    cap.Start();
    log.LogPrint("MySchema", eZLogDebug, "D.cpp", "d", 1, "after-reset\n");
    EXPECT_EQ(cap.Take(), "");
}

TEST(ZLogPrintCache, DefaultKeeps512AndNamedDestinationsKeep256) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    const std::string routedBase = DirOf(base) + "/routed";
    ZLogPrint log(base, 1 << 20);
    ASSERT_EQ(log.RerouteMsg({"Sch"}, routedBase, 1 << 20), RT_SUCCESS);
    cap.Start();
    for (int i = 0; i < 600; ++i)
        log.LogPrint("NoSuch", eZLogInfo, "C.cpp", "c", 1, "dflt %03d\n", i);
    for (int i = 0; i < 300; ++i) log.LogPrint("Sch", eZLogInfo, "C.cpp", "c", 1, "sch %03d\n", i);
    cap.Take();

    log.DumpMsgCache2File();
    auto dflt = LinesWith(ReadFile(base + ".log"), "dflt ");
    ASSERT_EQ(dflt.size(), 512u);
    EXPECT_TRUE(Contains(dflt.front(), "dflt 088"));
    EXPECT_TRUE(Contains(dflt.back(), "dflt 599"));
    EXPECT_TRUE(LinesWith(ReadFile(base + ".log"), "sch ").empty());
    auto routed = LinesWith(ReadFile(routedBase + ".log"), "sch ");
    ASSERT_EQ(routed.size(), 256u);
    EXPECT_TRUE(Contains(routed.front(), "sch 044"));
    EXPECT_TRUE(Contains(routed.back(), "sch 299"));

    // A full cache drops its oldest entry for an access line too, although
    // the access line itself is not cached.
    log.LogPrint("", eZLogAccess, "C.cpp", "c", 1, "GET /x 200\n");
    log.DumpMsgCache2File();
    dflt = LinesWith(ReadFile(base + ".log"), "dflt ");
    ASSERT_EQ(dflt.size(), 511u);
    EXPECT_TRUE(Contains(dflt.front(), "dflt 089"));
}

TEST(ZLogPrintCache, DumpWritesCacheCommentAndSummary) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    const std::string routedBase = DirOf(base) + "/routed";
    ZLogPrint log(base, 1 << 20);
    ASSERT_EQ(log.RerouteMsg({"Sch"}, routedBase, 1 << 20), RT_SUCCESS);
    log.SetSummaryProvider([] { return std::string("RF_Test Summary:\n   ZSchema Num = 2\n"); });
    cap.Start();
    log.LogPrint("", eZLogInfo, "S.cpp", "s", 1, "first\n");
    log.LogPrint("", eZLogWarning, "S.cpp", "s", 1, "second\n");
    log.LogPrint("Sch", eZLogInfo, "S.cpp", "s", 1, "routed\n");
    cap.Take();
    const std::string before = ReadFile(base + ".log");
    const std::string routedBefore = ReadFile(routedBase + ".log");

    log.DumpMsgCache2File();
    const std::string expected =
        before + kDumpComment + kSummaryRule + "RF_Test Summary:\n   ZSchema Num = 2\n";
    EXPECT_EQ(ReadFile(base + ".log"), expected);
    // The summary belongs to the application: only the default file has it.
    EXPECT_EQ(ReadFile(routedBase + ".log"), routedBefore + kDumpComment);
    // The file is emptied first, so a second dump gives the same text.
    log.DumpMsgCache2File();
    EXPECT_EQ(ReadFile(base + ".log"), expected);
}

TEST(ZLogPrintRoute, RerouteMsgGivesNamesTheirOwnFiles) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    const std::string routedBase = DirOf(base) + "/schema/routed";  // directory made on demand
    ZLogPrint log(base, 1 << 20);
    ASSERT_EQ(log.RerouteMsg({"SchA", "SchB"}, routedBase, 1 << 20), RT_SUCCESS);
    EXPECT_TRUE(FileExists(routedBase + ".accesslog"));
    log.SetAppInitDone(true);
    cap.Start();
    log.LogPrint("SchA", eZLogWarning, "A.cpp", "a", 1, "from A\n");
    log.LogPrint("SchB", eZLogAccess, "B.cpp", "b", 1, "access B\n");
    log.LogPrint("SchC", eZLogInfo, "C.cpp", "c", 1, "from C\n");
    const std::string out = cap.Take();
    EXPECT_EQ(out, "A.cpp:a:WARNING: from A\nC.cpp:c:INFO: from C\n");

    EXPECT_TRUE(Contains(ReadFile(routedBase + ".log"), "from A\n"));
    EXPECT_TRUE(Contains(ReadFile(routedBase + ".logerr"), "from A\n"));
    EXPECT_TRUE(Contains(ReadFile(routedBase + ".accesslog"), " access B\n"));
    EXPECT_FALSE(Contains(ReadFile(routedBase + ".log"), "from C"));
    EXPECT_TRUE(Contains(ReadFile(base + ".log"), "from C\n"));
    EXPECT_FALSE(Contains(ReadFile(base + ".log"), "from A"));
    EXPECT_EQ(ReadFile(base + ".accesslog"), "");

    // An empty set is refused, through the process's own log service.
    size_t mark = OrbelTest::LogMark();
    EXPECT_EQ(log.RerouteMsg({}, DirOf(base) + "/never", 1000), RT_FAILURE);
    EXPECT_TRUE(Contains(OrbelTest::LogSince(mark),
                         "[ERROR] ZLogPrint.cpp:RerouteMsg(): srcFiles is empty!\n"))
        << OrbelTest::LogSince(mark);
    EXPECT_FALSE(FileExists(DirOf(base) + "/never.accesslog"));
}

TEST(ZLogPrintRoute, BackupInitLogFilesKeepsTheStartUpLogAside) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    OrbelTest::WriteFile(base + ".loginit.gz", "stale");
    log.SetAppInitDone(true);
    cap.Start();
    log.LogPrint("", eZLogInfo, "B.cpp", "b", 1, "start-up line\n");
    log.LogPrint("", eZLogError, "B.cpp", "b", 1, "start-up error\n");
    cap.Take();
    const std::string startupLog = ReadFile(base + ".log");
    const std::string startupErr = ReadFile(base + ".logerr");

    log.BackupInitLogFiles();
    EXPECT_FALSE(FileExists(base + ".log"));
    EXPECT_FALSE(FileExists(base + ".logerr"));
    EXPECT_FALSE(FileExists(base + ".loginit"));
    EXPECT_EQ(Gunzip(base + ".loginit.gz"), startupLog);
    EXPECT_EQ(Gunzip(base + ".logerrinit.gz"), startupErr);

    cap.Start();
    log.LogPrint("", eZLogInfo, "B.cpp", "b", 1, "running\n");
    cap.Take();
    EXPECT_EQ(LinesWith(ReadFile(base + ".log"), "").size(), 1u);
    EXPECT_TRUE(Contains(ReadFile(base + ".log"), "running\n"));
}

TEST(ZLogPrintRoute, DumpLogParamsAndRotateSize) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1234);
    cap.Start();
    log._DumpLogParams();
    std::string out = cap.Take();
    EXPECT_EQ(out.rfind("LogParams:   |- File[Default] Param[", 0), 0u) << out;
    EXPECT_TRUE(Contains(out, "]:\n  |  |- normalPath = " + base + ".log\n  |  |- accessPath = " +
                                  base + ".accesslog\n  |  |- RotateSize = 1234\n"))
        << out;
    log.SetRotateSize(99);
    cap.Start();
    log._DumpLogParams();
    out = cap.Take();
    EXPECT_TRUE(Contains(out, "  |  |- RotateSize = 99\n")) << out;
}

TEST(ZLogPrintGlobal, MacrosRouteThroughTheGlobalService) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    ZLogPrint* saved = zLogPrint;
    zLogPrint = &log;
    cap.Start();
    ZLOG(eZLogError, "via macro %d\n", 7);
    ZLOGM("ZComLib", eZLogRaw, "hidden %d\n", 8);  // filtered: "ZComLib" not enabled
    zLogPrint = nullptr;
    // Before the service exists, lines are echoed; debug and raw lines are not.
    ZLOG(eZLogWarning, "early %s\n", "warning");
    ZLOG(eZLogDebug, "early debug\n");
    ZLOG(eZLogAccess, "early access\n");
    zLogPrint = saved;
    const std::string out = cap.Take();

    EXPECT_EQ(out,
              "ZLogPrintTest.cpp:TestBody:ERROR: via macro 7\n"
              "ZLogPrintTest.cpp:TestBody:WARNING: early warning\n");
    const std::string file = ReadFile(base + ".log");
    EXPECT_TRUE(std::regex_match(
        file, std::regex("^" + std::string(kStamp) +
                         R"(\[ERROR\] ZLogPrintTest\.cpp:TestBody\(\): via macro 7\n$)")))
        << file;
}

TEST(ZLogPrintThreads, ConcurrentWritersNeverSplitALine) {
    StdoutCapture cap;
    const std::string base = FreshBase();
    ZLogPrint log(base, 1 << 20);
    log.SetAppInitDone(true);
    ASSERT_EQ(log.RerouteMsg({"Other"}, DirOf(base) + "/other", 1 << 20), RT_SUCCESS);
    const int kThreads = 4;
    const int kLines = 250;
    cap.Start();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < kLines; ++i) {
                log.LogPrint(t % 2 == 0 ? "" : "NoSuch", eZLogWarning, "T.cpp", "t", 1,
                             "thread %d line %d\n", t, i);
                log.LogPrint("Other", eZLogInfo, "T.cpp", "t", 1, "other %d %d\n", t, i);
            }
        });
    }
    for (auto& th : threads) th.join();
    cap.Take();

    const std::regex line("^" + std::string(kStamp) +
                          R"(\[WARNING\] T\.cpp:t\(\): thread (\d) line (\d+)$)");
    for (const std::string& path : {base + ".log", base + ".logerr"}) {
        std::set<std::string> seen;
        const auto lines = Lines(ReadFile(path));
        ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines)) << path;
        for (const auto& l : lines) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(l, m, line)) << l;
            EXPECT_TRUE(seen.insert(m[1].str() + "/" + m[2].str()).second) << l;
        }
    }
    EXPECT_EQ(Lines(ReadFile(DirOf(base) + "/other.log")).size(),
              static_cast<size_t>(kThreads * kLines));
}

}  // namespace
