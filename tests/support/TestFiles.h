// File and text helpers shared by the suites that work on real files under
// the sysroot: a fresh directory per test, directory listings, reading a
// gzip file back, splitting a text into lines, and a scoped time zone.
//
// For the test's own thread; ScopedTimeZone changes the process environment
// and must not overlap with threads that read the local time.
#ifndef ORBEL_TEST_TESTFILES_H
#define ORBEL_TEST_TESTFILES_H

#include <set>
#include <string>
#include <vector>

namespace OrbelTest {

// "<sysroot>/<area>/<suite>.<test>", removed if present and created empty,
// so a test never sees what an earlier one (or an earlier run) left.
std::string FreshTestDir(const std::string& area);

// Names in `dir` other than "." and ".."; empty when it cannot be read.
std::set<std::string> ListDir(const std::string& dir);

// The uncompressed text of a gzip file, read with the system's gzip; ""
// when the file is missing or not gzip.
std::string Gunzip(const std::string& path);

// The lines of `text` without their "\n"; a last line without one counts.
std::vector<std::string> Lines(const std::string& text);

// Sets TZ for its lifetime; the destructor puts back the previous value
// (or its absence) and calls tzset() both times.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* tz);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    bool mHadTz;
    std::string mSavedTz;
};

}  // namespace OrbelTest

#endif  // ORBEL_TEST_TESTFILES_H
