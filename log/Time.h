// The framework's current time: seconds since 1970-01-01 00:00:00 UTC as a double, with
// microseconds. Any thread may call any function. They take no lock but the logger's.
#pragma once

#include <cstddef>
#include <string>

// Used like global names. The inline namespace keeps their symbols apart from a program's own.
inline namespace tavrik_time {

// The wall clock plus the fake offset.
double getNow();

// Shifts every later getNow() by `offset` seconds, for tests and replays. A change is logged
// (info).
void setFakeTimeOffset(double offset);
double getFakeTimeOffset();

// The time of the system's boot, including the fake offset of the first call. The first call reads
// /proc/uptime and logs the result (info). If that fails, it logs an error; all calls return 0.0
// then.
double getSystemStartTime();

// Writes `t` in UTC as "11/15/26 12:58:50.5" into `out`, at most 80 bytes with the terminator. The
// fraction is in truncated milliseconds without leading zeros: 50 ms read ".50", 5 ms ".5". Seconds
// are clamped to 32 bits, without a fraction then. Returns the length, or 0 and an empty text if it
// does not fit or `out` is null.
size_t timeToString(double t, char* out);
void timeToString(double t, std::string& out);

}  // namespace tavrik_time
