// The controller clock on a development host: the host's local time.
//
// A developer or a test can make the clock fail, as the controller's does
// while its time is not yet set, by writing a non-zero number into
// <sysroot>/run/tarnclock/fault (orbel-sim clock fail CODE); getTarnClock
// then returns that number.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "SimStore.h"
#include "tarn_clock.h"

extern "C" int getTarnClock(struct tm* localTime, char* zone, int zoneSize) {
    std::string fault;
    int code = 0;
    if (OrbelSim::ReadRegularFile(OrbelSim::ClockFaultPath(), fault) &&
        OrbelSim::ParseInt32(fault, code) && code != 0) {
        return code;
    }
    // "+hh:mm" and its terminating zero.
    if (localTime == nullptr || zone == nullptr || zoneSize < 7) return EINVAL;
    time_t now = time(nullptr);
    struct tm tm;
    if (localtime_r(&now, &tm) == nullptr) return errno != 0 ? errno : EINVAL;
    long offset = tm.tm_gmtoff;
    char sign = offset < 0 ? '-' : '+';
    if (offset < 0) offset = -offset;
    std::snprintf(zone, static_cast<size_t>(zoneSize), "%c%02ld:%02ld", sign, offset / 3600,
                  (offset % 3600) / 60);
    *localTime = tm;
    return 0;
}
