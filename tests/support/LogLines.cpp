#include "LogLines.h"

#include "TestEnv.h"

namespace OrbelTest {

::testing::AssertionResult LoggedErrors(
    size_t mark, const std::string& file,
    const std::vector<std::pair<std::string, std::string>>& lines) {
    const std::string log = LogSince(mark);
    std::string missing;
    for (const auto& [func, text] : lines) {
        // An ERROR line as it follows its time stamp.
        const std::string line = "[ERROR] " + file + ":" + func + "(): " + text;
        if (log.find(line) == std::string::npos) missing += "  " + line + "\n";
    }
    if (missing.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not logged:\n" << missing << "log:\n" << log;
}

}  // namespace OrbelTest
