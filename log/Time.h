// The framework's one notion of the current time: seconds since 1970-01-01 00:00:00 UTC in a
// double, to microseconds. All functions may be called on any thread and take no lock but the
// logger's.
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

// When the system booted, by /proc/uptime at the first call; logged (info). 0.0, with an error
// logged at that call, when it cannot be told; that is not tried again. Holds the fake offset of
// the first call.
double getSystemStartTime();

// Writes `t` in UTC as "11/15/26 12:58:50.5" into `out`, 80 bytes at most with the terminator. The
// fraction is truncated milliseconds without leading zeros: 50 ms read ".50", 5 ms ".5". Seconds
// beyond 32 bits are taken for the last ones that fit, without a fraction. Returns the length; 0,
// and an empty text, when it did not fit.
size_t timeToString(double t, char* out);
void timeToString(double t, std::string& out);

}  // namespace tavrik_time
