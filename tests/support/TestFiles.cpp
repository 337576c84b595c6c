#include "TestFiles.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "TestEnv.h"

namespace OrbelTest {

std::string FreshTestDir(const std::string& area) {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string dir =
        SysrootDir() + "/" + area + "/" + info->test_suite_name() + "." + info->name();
    const std::string cmd = "rm -rf '" + dir + "' && mkdir -p '" + dir + "'";
    EXPECT_EQ(std::system(cmd.c_str()), 0) << dir;
    return dir;
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
    FILE* p = popen(("gzip -dc '" + path + "' 2>/dev/null").c_str(), "r");
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

ScopedTimeZone::ScopedTimeZone(const char* tz) {
    const char* old = std::getenv("TZ");
    mHadTz = old != nullptr;
    if (mHadTz) mSavedTz = old;
    setenv("TZ", tz, 1);
    tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
    if (mHadTz) {
        setenv("TZ", mSavedTz.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

}  // namespace OrbelTest
