// The log service: line layout, the three files per destination, standard
// output echo, rotation into two gzip generations, the debug filter, the
// message cache and its dump, rerouting and the start-up backup.
//
// Every test builds its own ZLogPrint on files in a fresh directory under
// the sysroot; the binary's global service (zLogPrint) is left alone except
// where a test saves and restores it.
#include <gmock/gmock.h>

#include <functional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "TestFiles.h"
#include "ZLogPrint.h"

using namespace Orbel;
using namespace OrbelTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const std::string kStamp = R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{6}[+-]\d{2}:\d{2})";
const char kDumpComment[] =
    "/**\n * Can set the log level to debug to print the last 500 debug messages.\n **/\n";
const char kSummaryRule[] = "\n\n================================================\n";

// Runs `body` (log calls only: an assertion's message would be captured too)
// with standard output captured, and returns what it printed.
std::string Echo(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

// Lines of `text` that contain `marker`.
std::vector<std::string> LinesWith(const std::string& text, const std::string& marker) {
    std::vector<std::string> out;
    for (const auto& l : Lines(text)) {
        if (l.find(marker) != std::string::npos) out.push_back(l);
    }
    return out;
}

// A fresh directory per test; mBase is "<dir>/app".
class ZLogPrintTest : public ::testing::Test {
protected:
    void SetUp() override {
        mDir = FreshTestDir("zlog");
        mBase = mDir + "/app";
    }
    std::string mDir;
    std::string mBase;
};

TEST_F(ZLogPrintTest, PrefixPerTypeInFileAndOnStdout) {
    ZLogPrint log(mBase, 1 << 20);
    log.SetDebugLevel(1);
    EXPECT_EQ(Echo([&] {
                  log.LogPrint("", eZLogInfo, "Foo.cpp", "Bar", 10, "info %d\n", 0);
                  log.LogPrint("", eZLogWarning, "Foo.cpp", "Bar", 11, "warn %s\n", "1");
                  log.LogPrint(nullptr, eZLogError, "Foo.cpp", "Bar", 12, "error %u\n", 2u);
                  log.LogPrint("", eZLogDebug, "Foo.cpp", "Bar", 13, "debug %c\n", '3');
                  log.LogPrint("", eZLogRaw, "Foo.cpp", "Bar", 14, "raw %s\n", "4");
                  // No newline is added: a message without one runs into the next.
                  log.LogPrint("", eZLogRaw, "Foo.cpp", "Bar", 15, "no end");
                  log.LogPrint("", eZLogRaw, "Foo.cpp", "Bar", 16, "|next\n");
              }),
              "Foo.cpp:Bar:INFO: info 0\nFoo.cpp:Bar:WARNING: warn 1\nFoo.cpp:Bar:ERROR: error 2\n"
              "Foo.cpp:Bar:DEBUG: debug 3\nraw 4\nno end|next\n");
    const std::string file = ReadFile(mBase + ".log");
    EXPECT_TRUE(std::regex_match(
        file, std::regex("^" + kStamp + R"(\[INFO\] Foo\.cpp:Bar\(\): info 0\n)" + kStamp +
                         R"(\[WARNING\] Foo\.cpp:Bar\(\): warn 1\n)" + kStamp +
                         R"(\[ERROR\] Foo\.cpp:Bar\(\): error 2\n)" + kStamp +
                         R"(\[DEBUG\] Foo\.cpp:Bar\(\): debug 3\nraw 4\nno end\|next\n$)")))
        << file;

    // Messages are cut to 2047 bytes, in the file and on standard output.
    const std::string longText(3000, 'x');
    EXPECT_EQ(Echo([&] { log.LogPrint("", eZLogRaw, "L.cpp", "l", 1, "%s\n", longText.c_str()); }),
              std::string(2047, 'x'));
    EXPECT_THAT(ReadFile(mBase + ".log"), ::testing::EndsWith("|next\n" + std::string(2047, 'x')));
}

TEST_F(ZLogPrintTest, AccessLinesOnlyInTheAccessFileAndTheErrorFileOnlyAfterInit) {
    ZLogPrint log(mBase, 1 << 20);
    log.LogPrint("", eZLogWarning, "F.cpp", "f", 1, "early warning\n");
    log.LogPrint("", eZLogError, "F.cpp", "f", 1, "early error\n");
    EXPECT_FALSE(FileExists(mBase + ".logerr"));
    EXPECT_THAT(ReadFile(mBase + ".log"), HasSubstr("early error\n"));

    log.SetAppInitDone(true);
    // Access lines are neither echoed nor cached, nor written anywhere else.
    EXPECT_EQ(
        Echo([&] { log.LogPrint("", eZLogAccess, "F.cpp", "f", 1, "GET /redfish/v1 %d\n", 200); }),
        "");
    log.Flush();  // access lines are written by the service's writer thread
    const std::string access = ReadFile(mBase + ".accesslog");
    EXPECT_TRUE(std::regex_match(access, std::regex("^" + kStamp + " GET /redfish/v1 200\n$")))
        << access;
    log.LogPrint("", eZLogInfo, "F.cpp", "f", 1, "late info\n");
    log.LogPrint("", eZLogWarning, "F.cpp", "f", 1, "late warning\n");
    log.LogPrint("", eZLogError, "F.cpp", "f", 1, "late error\n");
    const std::string err = ReadFile(mBase + ".logerr");
    EXPECT_TRUE(std::regex_match(
        err, std::regex("^" + kStamp + R"(\[WARNING\] F\.cpp:f\(\): late warning\n)" + kStamp +
                        R"(\[ERROR\] F\.cpp:f\(\): late error\n$)")))
        << err;
    EXPECT_EQ(LinesWith(ReadFile(mBase + ".log"), "late ").size(), 3u);
    log.DumpMsgCache2File();
    EXPECT_THAT(ReadFile(mBase + ".log"), Not(HasSubstr("GET")));
}

TEST_F(ZLogPrintTest, SizeIsCheckedEveryTwentiethWriteAfterInitAndTwoGenerationsAreKept) {
    const std::string p = mBase + ".log";
    ZLogPrint log(mBase, 100);
    int n = 0;
    auto write = [&](int count) {
        Echo([&] {
            for (int i = 0; i < count; ++i) {
                log.LogPrint("", eZLogInfo, "R.cpp", "r", 1, "line %03d\n", ++n);
            }
        });
    };
    // Far past the threshold during start-up: no rotation.
    write(50);
    EXPECT_EQ(LinesWith(ReadFile(p), "line ").size(), 50u);
    log.SetAppInitDone(true);
    write(19);
    EXPECT_FALSE(FileExists(p + "1.gz"));
    write(1);  // the 20th write after init: checked and rotated (by the writer thread)
    log.Flush();
    EXPECT_FALSE(FileExists(p));
    const auto gen1 = LinesWith(Gunzip(p + "1.gz"), "line ");
    ASSERT_EQ(gen1.size(), 70u);
    EXPECT_THAT(gen1.back(), HasSubstr("line 070"));
    // The next write re-creates the file; the next checks are 20 and 40
    // writes on, and the third rotation drops the oldest generation.
    write(41);
    log.Flush();
    EXPECT_EQ(ListDir(mDir),
              (std::set<std::string>{"app.accesslog", "app.log", "app.log1.gz", "app.log2.gz"}));
    const auto newer = LinesWith(Gunzip(p + "1.gz"), "line ");
    const auto older = LinesWith(Gunzip(p + "2.gz"), "line ");
    ASSERT_TRUE(newer.size() == 20u && older.size() == 20u);
    EXPECT_THAT(newer.front(), HasSubstr("line 091"));
    EXPECT_THAT(older.front(), HasSubstr("line 071"));
    EXPECT_EQ(LinesWith(ReadFile(p), "line ").size(), 1u);
}

TEST_F(ZLogPrintTest, DebugFilterByLevelAndSchemaSet) {
    const std::string p = mBase + ".log";
    ZLogPrint log(mBase, 1 << 20);
    EXPECT_EQ(Echo([&] {
                  log.LogPrint("", eZLogDebug, "D.cpp", "d", 1, "dbg-empty\n");
                  log.LogPrint("MySchema", eZLogDebug, "D.cpp", "d", 1, "dbg-schema\n");
                  log.LogPrint("ZComLib", eZLogRaw, "D.cpp", "d", 1, "raw-zcomlib\n");
                  log.LogPrint(nullptr, eZLogRaw, "D.cpp", "d", 1, "raw-null\n");
                  log.LogPrint("MySchema", eZLogInfo, "D.cpp", "d", 1, "info-always\n");
              }),
              "D.cpp:d:INFO: info-always\n");
    EXPECT_EQ(Lines(ReadFile(p)).size(), 1u);  // only the INFO line
    // The suppressed lines were cached, and the dump shows them in order.
    log.DumpMsgCache2File();
    EXPECT_TRUE(std::regex_search(
        ReadFile(p), std::regex("^" + kStamp + R"(\[DEBUG\] D\.cpp:d\(\): dbg-empty\n)" + kStamp +
                                R"(\[DEBUG\] D\.cpp:d\(\): dbg-schema\nraw-zcomlib\nraw-null\n)" +
                                kStamp + R"(\[INFO\] D\.cpp:d\(\): info-always\n)")))
        << ReadFile(p);

    // Level 0 with names enabled: only those names pass.
    log.EnableSchemaDebug("MySchema");
    EXPECT_TRUE(log.IsSchemaDebugEnabled() && log.IsSchemaDebugEnabled("MySchema"));
    EXPECT_FALSE(log.IsSchemaDebugEnabled("Other"));
    EXPECT_EQ(Echo([&] {
                  log.LogPrint("MySchema", eZLogDebug, "D.cpp", "d", 1, "lvl0-schema\n");
                  log.LogPrint("Other", eZLogDebug, "D.cpp", "d", 1, "lvl0-other\n");
                  log.LogPrint("", eZLogDebug, "D.cpp", "d", 1, "lvl0-empty\n");
              }),
              "D.cpp:d:DEBUG: lvl0-schema\n");
    // A non-zero level lets every name through except "ZComLib", which
    // always needs its own entry in the set.
    log.SetDebugLevel(2);
    EXPECT_EQ(Echo([&] {
                  log.LogPrint("Other", eZLogDebug, "D.cpp", "d", 1, "lvl2-other\n");
                  log.LogPrint("", eZLogRaw, "D.cpp", "d", 1, "lvl2-empty\n");
                  log.LogPrint("ZComLib", eZLogRaw, "D.cpp", "d", 1, "lvl2-zcomlib\n");
                  log.EnableSchemaDebug("ZComLib");
                  log.LogPrint("ZComLib", eZLogRaw, "D.cpp", "d", 1, "lvl2-zcomlib-enabled\n");
              }),
              "D.cpp:d:DEBUG: lvl2-other\nlvl2-empty\nlvl2-zcomlib-enabled\n");
    log.ResetSchemaDebug();
    EXPECT_FALSE(log.IsSchemaDebugEnabled() || log.IsSchemaDebugEnabled("MySchema"));
}

TEST_F(ZLogPrintTest, CacheKeeps512OrPerNamedDestination256AndDumpsWithTheSummary) {
    const std::string routedBase = mDir + "/routed";
    ZLogPrint log(mBase, 1 << 20);
    ASSERT_EQ(log.RerouteMsg({"Sch"}, routedBase, 1 << 20), RT_SUCCESS);
    log.SetSummaryProvider([] { return std::string("RF_Test Summary:\n   ZSchema Num = 2\n"); });
    Echo([&] {
        for (int i = 0; i < 600; ++i) {
            log.LogPrint("NoSuch", eZLogInfo, "C.cpp", "c", 1, "dflt %03d\n", i);
        }
        for (int i = 0; i < 300; ++i)
            log.LogPrint("Sch", eZLogInfo, "C.cpp", "c", 1, "sch %03d\n", i);
    });
    log.DumpMsgCache2File();
    // The file is emptied first: cached lines, the comment, then the summary,
    // which belongs to the application and so only to the default file.
    const std::string dumped = ReadFile(mBase + ".log");
    EXPECT_THAT(dumped,
                ::testing::EndsWith(std::string("dflt 599\n") + kDumpComment + kSummaryRule +
                                    "RF_Test Summary:\n   ZSchema Num = 2\n"));
    auto dflt = LinesWith(dumped, "dflt ");
    ASSERT_EQ(dflt.size(), 512u);
    EXPECT_THAT(dflt.front(), HasSubstr("dflt 088"));
    EXPECT_TRUE(LinesWith(dumped, "sch ").empty());
    const std::string routed = ReadFile(routedBase + ".log");
    EXPECT_THAT(routed, ::testing::EndsWith(std::string("sch 299\n") + kDumpComment));
    auto sch = LinesWith(routed, "sch ");
    ASSERT_EQ(sch.size(), 256u);
    EXPECT_THAT(sch.front(), HasSubstr("sch 044"));
    // A second dump gives the same text.
    log.DumpMsgCache2File();
    EXPECT_EQ(ReadFile(mBase + ".log"), dumped);
}

TEST_F(ZLogPrintTest, RerouteMsgGivesNamesTheirOwnFiles) {
    const std::string routedBase = mDir + "/schema/routed";  // directory made on demand
    ZLogPrint log(mBase, 1234);
    ASSERT_EQ(log.RerouteMsg({"SchA", "SchB"}, routedBase, 1 << 20), RT_SUCCESS);
    EXPECT_TRUE(FileExists(routedBase + ".accesslog"));
    log.SetAppInitDone(true);
    EXPECT_EQ(Echo([&] {
                  log.LogPrint("SchA", eZLogWarning, "A.cpp", "a", 1, "from A\n");
                  log.LogPrint("SchB", eZLogAccess, "B.cpp", "b", 1, "access B\n");
                  log.LogPrint("SchC", eZLogInfo, "C.cpp", "c", 1, "from C\n");
              }),
              "A.cpp:a:WARNING: from A\nC.cpp:c:INFO: from C\n");
    log.Flush();
    EXPECT_THAT(LinesWith(ReadFile(routedBase + ".log"), "from "),
                ElementsAre(HasSubstr("from A")));
    EXPECT_THAT(ReadFile(routedBase + ".logerr"), HasSubstr("from A\n"));
    EXPECT_THAT(ReadFile(routedBase + ".accesslog"), HasSubstr(" access B\n"));
    EXPECT_THAT(LinesWith(ReadFile(mBase + ".log"), "from "), ElementsAre(HasSubstr("from C")));
    EXPECT_EQ(ReadFile(mBase + ".accesslog"), "");
}

TEST_F(ZLogPrintTest, StartUpLogsAreSetAside) {
    // Construction rotates the previous run's files; the access file is only
    // created when missing, never rotated here.
    WriteFile(mBase + ".log", "previous run\n");
    WriteFile(mBase + ".accesslog", "previous access\n");
    ZLogPrint log(mBase, 1 << 20);
    EXPECT_FALSE(FileExists(mBase + ".log"));
    EXPECT_EQ(Gunzip(mBase + ".log1.gz"), "previous run\n");
    EXPECT_EQ(ReadFile(mBase + ".accesslog"), "previous access\n");

    // BackupInitLogFiles keeps the start-up log aside, replacing an older copy.
    WriteFile(mBase + ".loginit.gz", "stale");
    log.SetAppInitDone(true);
    log.LogPrint("", eZLogInfo, "B.cpp", "b", 1, "start-up line\n");
    log.LogPrint("", eZLogError, "B.cpp", "b", 1, "start-up error\n");
    const std::string startupLog = ReadFile(mBase + ".log");
    const std::string startupErr = ReadFile(mBase + ".logerr");
    log.BackupInitLogFiles();
    EXPECT_FALSE(FileExists(mBase + ".log") || FileExists(mBase + ".logerr") ||
                 FileExists(mBase + ".loginit"));
    EXPECT_EQ(Gunzip(mBase + ".loginit.gz"), startupLog);
    EXPECT_EQ(Gunzip(mBase + ".logerrinit.gz"), startupErr);
    Echo([&] { log.LogPrint("", eZLogInfo, "B.cpp", "b", 1, "running\n"); });
    EXPECT_EQ(Lines(ReadFile(mBase + ".log")).size(), 1u);
}

TEST_F(ZLogPrintTest, MacrosRouteThroughTheGlobalService) {
    ZLogPrint log(mBase, 1 << 20);
    ZLogPrint* saved = zLogPrint;
    const std::string out = Echo([&] {
        zLogPrint = &log;
        ZLOG(eZLogError, "via macro %d\n", 7);
        ZLOGM("ZComLib", eZLogRaw, "hidden %d\n", 8);  // filtered: "ZComLib" not enabled
        zLogPrint = nullptr;
        // Before the service exists, lines are echoed; debug and raw lines are not.
        ZLOG(eZLogWarning, "early %s\n", "warning");
        ZLOG(eZLogDebug, "early debug\n");
        ZLOG(eZLogAccess, "early access\n");
        zLogPrint = saved;
    });
    // The macros name this file and the function they stand in.
    EXPECT_EQ(out,
              "ZLogPrintTest.cpp:operator():ERROR: via macro 7\n"
              "ZLogPrintTest.cpp:operator():WARNING: early warning\n");
    const std::string file = ReadFile(mBase + ".log");
    EXPECT_EQ(Lines(file).size(), 1u) << file;
    EXPECT_THAT(file, ::testing::EndsWith("[ERROR] ZLogPrintTest.cpp:operator()(): via macro 7\n"));
}

// The parameter dump reads what SetRotateSize changes on another thread
// under the destination's lock (the tsan build fails on an unlocked read).
TEST_F(ZLogPrintTest, ParameterDumpReadsUnderTheDestinationLock) {
    ZLogPrint log(mBase, 1000);
    const std::string out = Echo([&] {
        std::thread setter([&log] {
            for (int i = 1; i <= 200; ++i) log.SetRotateSize(1000 + i);
        });
        for (int i = 0; i < 5; ++i) log._DumpLogParams();
        setter.join();
        log._DumpLogParams();
    });
    EXPECT_THAT(out, HasSubstr("RotateSize = 1200\n"));
}

// A value never makes a second line: control bytes inside the arguments are
// escaped, the format's own newlines kept; a pre-built "%s" text is kept.
TEST_F(ZLogPrintTest, ControlBytesInValuesAreEscaped) {
    ZLogPrint log(mBase, 1 << 20);
    log.SetDebugLevel(1);
    const struct {
        const char* value;
        const char* logged;
    } rows[] = {
        {"x\nRSP[forged] RC[200] MSG[] IP[6.6.6.6]", "x\\nRSP[forged] RC[200] MSG[] IP[6.6.6.6]"},
        {"a\rb\tc", "a\\rb\\tc"},
        {"\x01\x1b[31m\x7f", "\\x01\\x1B[31m\\x7F"},
        {"caf\xc3\xa9 \"q\" %s", "caf\xc3\xa9 \"q\" %s"},  // high bytes, quotes, percent: kept
    };
    Echo([&] {
        for (const auto& row : rows) {
            log.LogPrint("", eZLogAccess, "A.cpp", "a", 1, "REQ[k] U[%s]\n", row.value);
            log.LogPrint("", eZLogInfo, "A.cpp", "a", 1, "v[%-3s|%.40s]\n", row.value, row.value);
        }
        log.LogPrint("", eZLogInfo, "A.cpp", "a", 1, "C[%c]\n", '\n');
        log.LogPrint("", eZLogRaw, "A.cpp", "a", 1, "%s", "dump line 1\ndump line 2\n");
    });
    log.Flush();
    const auto access = Lines(ReadFile(mBase + ".accesslog"));
    const auto normal = LinesWith(ReadFile(mBase + ".log"), "v[");
    ASSERT_EQ(access.size(), std::size(rows));
    ASSERT_EQ(normal.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_THAT(access[i], HasSubstr(std::string("U[") + rows[i].logged + "]"));
        EXPECT_THAT(normal[i], HasSubstr(std::string("|") + rows[i].logged + "]"));
    }
    EXPECT_THAT(ReadFile(mBase + ".log"), HasSubstr("C[\\n]\n"));
    EXPECT_THAT(ReadFile(mBase + ".log"), HasSubstr("dump line 1\ndump line 2\n"));
}

// A dropped debug line is kept for the dump without being formatted; the
// dump formats it as it would have been then.
TEST_F(ZLogPrintTest, DroppedDebugLinesAreFormattedOnlyByTheDump) {
    ZLogPrint log(mBase, 1 << 20);
    std::string changing = "before\nvalue";
    const uint64_t formatted = ZLogPrint::FormattedLineCount();
    // %hhu of an int converts as printf does (300 prints 44).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    for (int i = 0; i < 100; ++i) {
        log.LogPrint("ZComLib", eZLogDebug, "D.cpp", "d", 1, "n=%d s=%s w=%5.1f %lld %hhu %p\n", i,
                     changing.c_str(), 2.25, -7LL, 300, static_cast<void*>(nullptr));
    }
#pragma GCC diagnostic pop
    changing = "after";
    EXPECT_EQ(ZLogPrint::FormattedLineCount(), formatted);
    log.DumpMsgCache2File();
    const auto lines = LinesWith(ReadFile(mBase + ".log"), "n=");
    ASSERT_EQ(lines.size(), 100u);
    char expected[128];
    std::snprintf(expected, sizeof expected, "n=99 s=before\\nvalue w=  2.2 -7 44 %p",
                  static_cast<void*>(nullptr));
    EXPECT_THAT(lines.back(), ::testing::EndsWith(expected));
}

// Rotation runs on the writer thread while others log: every line is in
// exactly one generation, whole, in each thread's order. Warnings go to the
// normal and the error file, and both must rotate; half the threads name a
// destination nobody rerouted, which writes to the same files.
TEST_F(ZLogPrintTest, NothingIsLostOrReorderedAcrossRotationsUnderLoad) {
    ZLogPrint log(mBase, 50000);
    log.SetAppInitDone(true);
    const int kThreads = 4;
    const int kLines = 400;  // about 130 KB per file: two rotations, three generations
    Echo([&log] {
        OnThreads(kThreads, [&log](int t) {
            for (int i = 0; i < kLines; ++i) {
                log.LogPrint("", eZLogAccess, "T.cpp", "t", 1,
                             "REQ[k] %d %04d ..................................................\n",
                             t, i);
                log.LogPrint(t % 2 == 0 ? "" : "NoSuch", eZLogWarning, "T.cpp", "t", 1,
                             "line %d %04d ..............\n", t, i);
            }
        });
    });
    log.Flush();
    for (const std::string& p : {mBase + ".accesslog", mBase + ".log", mBase + ".logerr"}) {
        SCOPED_TRACE(p);
        ASSERT_TRUE(FileExists(p + "1.gz") && FileExists(p + "2.gz"));
        const auto lines = Lines(Gunzip(p + "2.gz") + Gunzip(p + "1.gz") + ReadFile(p));
        std::vector<int> next(kThreads, 0);
        const std::regex re("^" + kStamp +
                            R"((\[WARNING\] T\.cpp:t\(\): line| REQ\[k\]) (\d) (\d{4}) \.+$)");
        for (const auto& l : lines) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(l, m, re)) << l;
            ASSERT_EQ(std::stoi(m[3].str()), next[std::stoi(m[2].str())]++) << l;
        }
        EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
    }
}

}  // namespace
