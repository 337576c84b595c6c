// Every absolute path of the system, defined in this one place.
//
// When the environment variable ORBEL_SYSROOT is set and not empty, each path
// is prefixed by it, so tests, the demo and development hosts run under a
// private directory tree: no root rights, no contact with the controller's
// real /tmp/redis.sock, and several instances side by side. Unset, the paths
// are exactly the production ones.
//
// Thread-safe: the functions read the environment on every call and keep no
// state (set ORBEL_SYSROOT before starting threads).
#ifndef ORBEL_FIXEDPATHS_H
#define ORBEL_FIXEDPATHS_H

#include <string>

namespace Orbel {

// Production paths, without the sysroot.
constexpr const char* kFixedRedfishWorkDir = "/tmp/Redfish/";
constexpr const char* kFixedRedisSocket = "/tmp/redis.sock";
constexpr const char* kFixedUserInputTemplateDir = "/var/PellPlugin/UserInputTemplate/";
constexpr const char* kFixedShuttingDownMarker = "/tmp/.shutting-down-tarn";

// The value of ORBEL_SYSROOT without a trailing "/", or "" when unset or empty.
std::string Sysroot();

// `fixedPath` (absolute) prefixed by the sysroot.
std::string SysrootPath(const std::string& fixedPath);

// The fixed paths, relocated under the sysroot.
std::string RedfishWorkDir();          // "/tmp/Redfish/" (keeps its trailing "/")
std::string RedisSocketPath();         // "/tmp/redis.sock"
std::string UserInputTemplateDir();    // "/var/PellPlugin/UserInputTemplate/"
std::string ShuttingDownMarkerPath();  // "/tmp/.shutting-down-tarn"

}  // namespace Orbel

#endif  // ORBEL_FIXEDPATHS_H
