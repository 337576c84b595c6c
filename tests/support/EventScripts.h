// The event service's side of the store, as the tests and the bench need it:
// the real Lua scripts of tests/support/scripts/ loaded into the private
// redis-server, their digests in "redisSHAScripts", one queue list per
// script and the service's state hash (docs/events.md, "The event service
// stand-in").
//
// No GoogleTest here: the bench compiles this file too. Call from the
// thread that owns `c`.
#ifndef ORBEL_TEST_EVENTSCRIPTS_H
#define ORBEL_TEST_EVENTSCRIPTS_H

#include <hiredis/hiredis.h>

#include <string>

namespace OrbelTest {

constexpr const char* kEventServiceState = "redisEventService";
constexpr const char* kEventQueue = "redisEventQueue";
constexpr const char* kMetricReportQueue = "redisMetricReportQueue";

// Loads both scripts (SCRIPT LOAD) and fills "redisSHAScripts" with their
// digests under "enqueueEvent" and "enqueueMetricReport"; sets the state to
// one subscription for events and one for metric reports, with no queue
// limit. False, with the reason in `error`, when a script cannot be read
// or loaded.
bool LoadEventScripts(redisContext* c, std::string* error);

}  // namespace OrbelTest

#endif  // ORBEL_TEST_EVENTSCRIPTS_H
