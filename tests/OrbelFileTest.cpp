// File and directory helpers on real files under the test sysroot, with the
// real /bin/gzip; byte arrays in files; the millisecond clock.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "Orbel.h"
#include "TestEnv.h"
#include "TestFiles.h"

using namespace Orbel;
using namespace OrbelTest;

namespace {

TEST(OrbelFiles, CreateDirTreeMakesEveryComponentAndStopsAtAFile) {
    const std::string dir = FreshTestDir("files");
    const std::string deep = dir + "/a/b/c";
    ASSERT_EQ(CreateDirTree(deep), RT_SUCCESS);
    struct stat st;
    ASSERT_EQ(stat(deep.c_str(), &st), 0);
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777u, 0755u & ~static_cast<unsigned>(mask));
    // An existing directory and a doubled slash are fine.
    EXPECT_EQ(CreateDirTree(dir + "/a//b/d"), RT_SUCCESS);
    EXPECT_TRUE(_PathIsDir(dir + "/a/b/d"));

    // The walk stops at the first component that is not a directory, and
    // reports the errno mkdir gave for it.
    WriteFile(dir + "/plain", "x");
    size_t mark = LogMark();
    EXPECT_EQ(CreateDirTree(dir + "/plain/sub"), RT_FAILURE);
    EXPECT_THAT(LogSince(mark),
                ::testing::HasSubstr("[ERROR] Orbel.cpp:CreateDirTree(): Failed to call mkdir(" +
                                     dir + "/plain) errno(" + std::to_string(EEXIST) + ")\n"));
    EXPECT_EQ(CreateDirTree(""), RT_FAILURE);
}

TEST(OrbelFiles, DelDirTreeRemovesDepthFirstWithoutFollowingLinks) {
    const std::string dir = FreshTestDir("files");
    const std::string tree = dir + "/tree";
    WriteFile(tree + "/sub/deeper/f3", "3");
    // A link to a directory outside the tree: the link goes, not its target.
    WriteFile(dir + "/outside/keep", "k");
    ASSERT_EQ(symlink((dir + "/outside").c_str(), (tree + "/sub/link").c_str()), 0);
    EXPECT_EQ(DelDirTree(tree), RT_SUCCESS);
    EXPECT_FALSE(FileExists(tree));
    EXPECT_EQ(ReadFile(dir + "/outside/keep"), "k");
    EXPECT_EQ(DelDirTree(tree), RT_SUCCESS);  // a missing directory is no error
}

TEST(OrbelFiles, TouchFileAndIsFileExisted) {
    const std::string dir = FreshTestDir("files");
    const std::string path = dir + "/x/y/ready";
    EXPECT_EQ(TouchFile(path, false), 0);  // parents are made
    EXPECT_EQ(ReadFile(path), "");
    EXPECT_TRUE(IsFileExisted(path));
    EXPECT_FALSE(IsFileExisted(dir));  // a directory never opens for writing
    WriteFile(path, "kept");
    EXPECT_EQ(TouchFile(path, false), 0);
    EXPECT_EQ(ReadFile(path), "kept");
    EXPECT_EQ(TouchFile(path, true), 0);
    EXPECT_EQ(ReadFile(path), "");

    // Paths with non-printable bytes are refused before anything is made;
    // a parent that is a file gives the general failure code.
    EXPECT_EQ(TouchFile(dir + "/new\nline/file", true), -1);
    EXPECT_FALSE(FileExists(dir + "/new\nline"));
    EXPECT_EQ(TouchFile(dir + "/x/y/ready/file", false), RT_FAILURE);
}

TEST(OrbelFiles, CompressFileReplacesTheFileByItsGzipForm) {
    const std::string dir = FreshTestDir("files");
    const std::string path = dir + "/app.log1";
    const std::string content(5000, 'z');
    WriteFile(path, content);
    WriteFile(path + ".gz", "stale");  // -f: an older .gz is overwritten
    EXPECT_EQ(CompressFile(path), RT_SUCCESS);
    EXPECT_FALSE(FileExists(path));
    EXPECT_EQ(Gunzip(path + ".gz"), content);
    EXPECT_EQ(CompressFile(dir + "/missing"), RT_FAILURE);
}

TEST(OrbelByteArrayFile, LayoutRoundTripAndRejectedTexts) {
    const std::string dir = FreshTestDir("files");
    const std::string path = dir + "/bytes";
    const unsigned char three[] = {0, 7, 255};
    ASSERT_EQ(NumStrArray2File(three, 3, path), RT_SUCCESS);
    EXPECT_EQ(ReadFile(path), "0 7 255\n");
    // Every byte value, twice, in a scrambled order; the file is replaced.
    std::vector<unsigned char> all;
    for (int i = 0; i < 512; ++i) all.push_back(static_cast<unsigned char>((i * 37 + 11) % 256));
    ASSERT_EQ(NumStrArray2File(all.data(), 512u, path), RT_SUCCESS);
    char* data = nullptr;
    ASSERT_EQ(File2NumStrArray(path, &data), 512);
    EXPECT_EQ(std::vector<unsigned char>(data, data + 512), all);
    delete[] data;
    // An empty buffer is an empty line, and reads back as zero bytes.
    ASSERT_EQ(NumStrArray2File(nullptr, 0, path), RT_SUCCESS);
    EXPECT_EQ(ReadFile(path), "\n");
    data = nullptr;
    EXPECT_EQ(File2NumStrArray(path, &data), 0);
    EXPECT_NE(data, nullptr);
    delete[] data;

    // Anything but one line of decimal bytes between single blanks.
    for (const char* text :
         {"",        "1 2",  "1 2 \n", " 1 2\n", "1  2\n", "256\n",     "1 256 3\n",
          "1000\n",  "-1\n", "+1\n",   "01\n",   "1,2\n",  "1 2\r\n",   "1\n2\n",
          "1 2\n\n", "\n\n", "x\n",    "1 a\n",  " \n",    "12 3 4x\n", "99999999999999999999\n"}) {
        WriteFile(path, text);
        char sentinel = 0;
        data = &sentinel;
        size_t mark = LogMark();
        EXPECT_EQ(File2NumStrArray(path, &data), -1) << "[" << text << "]";
        EXPECT_EQ(data, nullptr) << "[" << text << "]";
        EXPECT_NE(LogSince(mark).find("[ERROR]"), std::string::npos) << text;
    }
    EXPECT_EQ(File2NumStrArray(dir + "/missing", &data), -1);
    // The writer refuses a null buffer with a length, and an unwritable path.
    EXPECT_EQ(NumStrArray2File(nullptr, 3, path), RT_FAILURE);
    EXPECT_EQ(NumStrArray2File(three, 1, dir + "/no/such/dir/bytes"), RT_FAILURE);
}

TEST(OrbelClock, MiniTimeTickIsMonotonicMilliseconds) {
    // steady_clock is CLOCK_MONOTONIC here.
    auto nowMs = [] {
        using namespace std::chrono;
        return static_cast<uint32_t>(
            duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
    };
    // Bracketed by the monotonic clock read directly: same unit, same origin.
    uint32_t before = nowMs();
    uint32_t tick = MiniTimeTick();
    EXPECT_LE(tick - before, nowMs() - before);
    // A sleep never ends early, so the tick has advanced at least that far.
    MyMSleep(1030);
    EXPECT_GE(MiniTimeTick() - tick, 1030u);
}

}  // namespace
