#include "FixedPaths.h"

#include <cstdlib>

namespace Orbel {

std::string Sysroot() {
    const char* root = std::getenv("ORBEL_SYSROOT");
    if (root == nullptr || root[0] == '\0') return std::string();
    std::string s(root);
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    if (s == "/") return std::string();
    return s;
}

std::string SysrootPath(const std::string& fixedPath) { return Sysroot() + fixedPath; }

std::string RedfishWorkDir() { return SysrootPath(kFixedRedfishWorkDir); }
std::string RedisSocketPath() { return SysrootPath(kFixedRedisSocket); }
std::string UserInputTemplateDir() { return SysrootPath(kFixedUserInputTemplateDir); }
std::string ShuttingDownMarkerPath() { return SysrootPath(kFixedShuttingDownMarker); }

}  // namespace Orbel
