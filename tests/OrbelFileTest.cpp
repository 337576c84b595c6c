// File and directory helpers on real files under the test sysroot, with the
// real /bin/gzip; byte arrays in files; the millisecond clock.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "Orbel.h"
#include "TestEnv.h"

using namespace Orbel;
using OrbelTest::FileExists;
using OrbelTest::ReadFile;
using OrbelTest::WriteFile;

namespace {

// A fresh directory per test, so tests never see each other's files.
std::string TestDir() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string dir =
        OrbelTest::SysrootDir() + "/files/" + info->test_suite_name() + "." + info->name();
    DelDirTree(dir);
    EXPECT_EQ(CreateDirTree(dir), RT_SUCCESS);
    return dir;
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

TEST(OrbelFiles, CreateDirTreeMakesEveryComponent) {
    const std::string dir = TestDir();
    const std::string deep = dir + "/a/b/c";
    EXPECT_FALSE(_PathIsDir(dir + "/a"));
    ASSERT_EQ(CreateDirTree(deep), RT_SUCCESS);
    EXPECT_TRUE(_PathIsDir(dir + "/a"));
    EXPECT_TRUE(_PathIsDir(deep));
    struct stat st;
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777u, 0755u & ~static_cast<unsigned>(mask));
    // Existing directories, a trailing slash and a doubled slash are fine.
    EXPECT_EQ(CreateDirTree(deep), RT_SUCCESS);
    EXPECT_EQ(CreateDirTree(deep + "/"), RT_SUCCESS);
    EXPECT_EQ(CreateDirTree(dir + "/a//b/d"), RT_SUCCESS);
    EXPECT_TRUE(_PathIsDir(dir + "/a/b/d"));
    EXPECT_FALSE(_PathIsDir(dir + "/missing"));
}

TEST(OrbelFiles, CreateDirTreeThroughAFileFailsAndLogs) {
    const std::string dir = TestDir();
    WriteFile(dir + "/plain", "x");
    size_t mark = OrbelTest::LogMark();
    EXPECT_EQ(CreateDirTree(dir + "/plain/sub"), RT_FAILURE);
    // The walk stops at the first component that is not a directory, and
    // reports the errno mkdir gave for it.
    EXPECT_NE(
        OrbelTest::LogSince(mark).find("[ERROR] Orbel.cpp:CreateDirTree(): Failed to call mkdir(" +
                                       dir + "/plain) errno(" + std::to_string(EEXIST) + ")\n"),
        std::string::npos)
        << OrbelTest::LogSince(mark);
    EXPECT_FALSE(FileExists(dir + "/plain/sub"));
    // A file where the last directory should be is no directory either.
    EXPECT_EQ(CreateDirTree(dir + "/plain"), RT_FAILURE);
    EXPECT_FALSE(_PathIsDir(dir + "/plain"));
    EXPECT_EQ(CreateDirTree(""), RT_FAILURE);
}

TEST(OrbelFiles, DelDirTreeRemovesDepthFirstWithoutFollowingLinks) {
    const std::string dir = TestDir();
    const std::string tree = dir + "/tree";
    WriteFile(tree + "/f1", "1");
    WriteFile(tree + "/sub/f2", "2");
    WriteFile(tree + "/sub/deeper/f3", "3");
    ASSERT_EQ(CreateDirTree(tree + "/empty"), RT_SUCCESS);
    // A link to a directory outside the tree: the link goes, not its target.
    WriteFile(dir + "/outside/keep", "k");
    ASSERT_EQ(symlink((dir + "/outside").c_str(), (tree + "/sub/link").c_str()), 0);

    EXPECT_EQ(DelDirTree(tree), RT_SUCCESS);
    EXPECT_FALSE(FileExists(tree));
    EXPECT_EQ(ReadFile(dir + "/outside/keep"), "k");
    // A missing directory is left alone without error.
    EXPECT_EQ(DelDirTree(tree), RT_SUCCESS);
}

TEST(OrbelFiles, TouchFileTruncatesOrAppendsAndMakesParents) {
    const std::string dir = TestDir();
    const std::string path = dir + "/x/y/ready";
    EXPECT_EQ(TouchFile(path, false), 0);
    EXPECT_TRUE(FileExists(path));
    EXPECT_EQ(ReadFile(path), "");

    WriteFile(path, "kept");
    EXPECT_EQ(TouchFile(path, false), 0);
    EXPECT_EQ(ReadFile(path), "kept");
    EXPECT_EQ(TouchFile(path, true), 0);
    EXPECT_EQ(ReadFile(path), "");
}

TEST(OrbelFiles, TouchFileRefusesNonPrintablePaths) {
    const std::string dir = TestDir();
    EXPECT_EQ(TouchFile(dir + "/tab\there", false), -1);
    EXPECT_FALSE(FileExists(dir + "/tab\there"));
    EXPECT_EQ(TouchFile(dir + "/new\nline/file", true), -1);
    EXPECT_FALSE(FileExists(dir + "/new\nline"));
    EXPECT_EQ(TouchFile(dir + "/caf\xC3\xA9", false), -1);
    // A parent that is a file makes it fail with the general failure code.
    WriteFile(dir + "/plain", "x");
    EXPECT_EQ(TouchFile(dir + "/plain/file", false), RT_FAILURE);
}

TEST(OrbelFiles, IsFileExistedNeedsAReadWriteFile) {
    const std::string dir = TestDir();
    EXPECT_FALSE(IsFileExisted(dir + "/nothing"));
    WriteFile(dir + "/file", "x");
    EXPECT_TRUE(IsFileExisted(dir + "/file"));
    // A directory opens for reading but never for writing.
    EXPECT_FALSE(IsFileExisted(dir));
}

TEST(OrbelFiles, CompressFileReplacesTheFileByItsGzipForm) {
    const std::string dir = TestDir();
    const std::string path = dir + "/app.log1";
    std::string content;
    for (int i = 0; i < 200; ++i) content += "line " + std::to_string(i) + "\n";
    WriteFile(path, content);
    WriteFile(path + ".gz", "stale");  // -f: an older .gz is overwritten

    EXPECT_EQ(CompressFile(path), RT_SUCCESS);
    EXPECT_FALSE(FileExists(path));
    ASSERT_TRUE(FileExists(path + ".gz"));
    EXPECT_EQ(Gunzip(path + ".gz"), content);

    EXPECT_EQ(CompressFile(dir + "/missing"), RT_FAILURE);
    EXPECT_FALSE(FileExists(dir + "/missing.gz"));
}

TEST(OrbelByteArrayFile, LayoutAndRoundTrip) {
    const std::string dir = TestDir();
    const std::string path = dir + "/bytes";
    const unsigned char three[] = {0, 7, 255};
    ASSERT_EQ(NumStrArray2File(three, 3, path), RT_SUCCESS);
    EXPECT_EQ(ReadFile(path), "0 7 255\n");

    // Every byte value, twice, in a scrambled order; the file is replaced.
    std::vector<unsigned char> all;
    for (int i = 0; i < 512; ++i) all.push_back(static_cast<unsigned char>((i * 37 + 11) % 256));
    ASSERT_EQ(NumStrArray2File(all.data(), static_cast<unsigned int>(all.size()), path),
              RT_SUCCESS);
    char* data = nullptr;
    ASSERT_EQ(File2NumStrArray(path, &data), 512);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::vector<unsigned char>(data, data + 512), all);
    delete[] data;

    // An empty buffer is an empty line, and reads back as zero bytes.
    ASSERT_EQ(NumStrArray2File(nullptr, 0, path), RT_SUCCESS);
    EXPECT_EQ(ReadFile(path), "\n");
    data = nullptr;
    EXPECT_EQ(File2NumStrArray(path, &data), 0);
    EXPECT_NE(data, nullptr);
    delete[] data;
}

TEST(OrbelByteArrayFile, RejectsAnythingElse) {
    const std::string dir = TestDir();
    const std::string path = dir + "/bytes";
    const char* const bad[] = {
        "",      "1 2",       "1 2 \n",  " 1 2\n",    "1  2\n",
        "256\n", "1 256 3\n", "1000\n",  "-1\n",      "+1\n",
        "01\n",  "1,2\n",     "1 2\r\n", "1\n2\n",    "1 2\n\n",
        "\n\n",  "x\n",       "1 a\n",   "12 3 4x\n", "99999999999999999999\n",
        " \n",
    };
    for (const char* text : bad) {
        WriteFile(path, text);
        char sentinel = 0;
        char* data = &sentinel;
        size_t mark = OrbelTest::LogMark();
        EXPECT_EQ(File2NumStrArray(path, &data), -1) << "[" << text << "]";
        EXPECT_EQ(data, nullptr) << "[" << text << "]";
        EXPECT_NE(OrbelTest::LogSince(mark).find("[ERROR]"), std::string::npos) << text;
    }
    char* data = nullptr;
    EXPECT_EQ(File2NumStrArray(dir + "/missing", &data), -1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(File2NumStrArray(path, nullptr), -1);

    // The writer refuses a null buffer with a length, and an unwritable path.
    EXPECT_EQ(NumStrArray2File(nullptr, 3, path), RT_FAILURE);
    const unsigned char one[] = {1};
    EXPECT_EQ(NumStrArray2File(one, 1, dir + "/no/such/dir/bytes"), RT_FAILURE);
}

TEST(OrbelClock, MiniTimeTickIsMonotonicMilliseconds) {
    auto nowMs = [] {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint32_t>(ts.tv_sec) * 1000u +
               static_cast<uint32_t>(ts.tv_nsec / 1000000);
    };
    // Bracketed by the monotonic clock read directly: same unit, same origin.
    uint32_t before = nowMs();
    uint32_t tick = MiniTimeTick();
    uint32_t after = nowMs();
    EXPECT_LE(tick - before, after - before);

    uint32_t last = MiniTimeTick();
    for (int i = 0; i < 20000; ++i) {
        uint32_t t = MiniTimeTick();
        // Differences only: the counter may wrap, but never steps back.
        ASSERT_LT(t - last, 0x80000000u) << "tick went back from " << last << " to " << t;
        last = t;
    }
    // A sleep never ends early, so the tick has advanced at least that far.
    uint32_t start = MiniTimeTick();
    MyMSleep(1030);
    EXPECT_GE(MiniTimeTick() - start, 1030u);
}

}  // namespace
