/* The controller clock. */
#ifndef ORBEL_PLATFORM_TARN_CLOCK_H
#define ORBEL_PLATFORM_TARN_CLOCK_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Fills `localTime` with the controller's broken-down local time (tm_year
 * counts from 1900, tm_mon from 0, as in <time.h>) and `zone` with its zone
 * text, e.g. "+08:00", zero-terminated within `zoneSize` bytes.
 * Returns 0 on success. */
int getTarnClock(struct tm* localTime, char* zone, int zoneSize);

#ifdef __cplusplus
}
#endif

#endif /* ORBEL_PLATFORM_TARN_CLOCK_H */
