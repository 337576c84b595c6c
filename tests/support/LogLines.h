// Checks of what the library logged, for suites that assert the exact
// failure texts of one source file. Test thread only.
#ifndef ORBEL_TEST_LOGLINES_H
#define ORBEL_TEST_LOGLINES_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace OrbelTest {

// Success when every {func, text} of `lines` was logged as an ERROR line of
// `file` since `mark` (text may be the start of a line); the failure names
// each missing line and shows the log.
::testing::AssertionResult LoggedErrors(
    size_t mark, const std::string& file,
    const std::vector<std::pair<std::string, std::string>>& lines);

}  // namespace OrbelTest

#endif  // ORBEL_TEST_LOGLINES_H
