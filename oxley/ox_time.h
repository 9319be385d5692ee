/*
 * The real-time clock, and times as the log shows them. Not exported from the DLL.
 *
 * Any thread may call.
 */
#ifndef OX_TIME_H
#define OX_TIME_H

#include <time.h>

#include "ox_types.h"

OX_BEGIN_DECLS

/* Reads a clock; clock 0 is real time. 0 or an error number. */
int ox_clock_gettime(int clock, struct timespec* ts);
/* Microseconds of real time since `start`; 0 when the clock was set back behind `start`. */
ox_u64 ox_usecs_since(const struct timespec* start);

/* Fills in the local time now and returns the milliseconds of its second. */
long ox_local_time(struct tm* local);
/* Writes a time as every log line shows it: "2026-11-16 00:48:16". */
enum { OX_TIME_TEXT_SIZE = 64 };
void ox_time_text(const struct tm* local, char* text);

OX_END_DECLS

#endif
