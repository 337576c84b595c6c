#include "LogLines.h"

#include "TestEnv.h"

namespace OrbelTest {

std::string ErrorLine(const std::string& file, const std::string& func, const std::string& text) {
    return "[ERROR] " + file + ":" + func + "(): " + text;
}

::testing::AssertionResult LoggedErrors(
    size_t mark, const std::string& file,
    const std::vector<std::pair<std::string, std::string>>& lines) {
    const std::string log = LogSince(mark);
    std::string missing;
    for (const auto& [func, text] : lines) {
        const std::string line = ErrorLine(file, func, text);
        if (log.find(line) == std::string::npos) missing += "  " + line + "\n";
    }
    if (missing.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not logged:\n" << missing << "log:\n" << log;
}

}  // namespace OrbelTest
