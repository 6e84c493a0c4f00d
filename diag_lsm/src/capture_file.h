// The file of a capture: section, order of the blocks, end. Failures are warnings of the logger
// "DIAG". Any thread.
#pragma once

#include <sys/uio.h>
#include <time.h>

#include <cstdint>

inline namespace tavrik_diag_lsm {

// Makes the file, or warns. Requires that descriptors 0 to 2 are in use. Called once.
void capture_file_begin(const char* path);

// False before the begin, after the end and in a forked child. Costs one load if false.
bool capture_file_is_on();

// The clock's time in nanoseconds.
int64_t capture_clock(clockid_t clock);

// The file's time, in nanoseconds since 1970, of one of CLOCK_MONOTONIC.
int64_t capture_file_time(int64_t monotonic);

// A call begins; blocks of later times wait for its own.
void capture_file_enter(int64_t begin);

// Appends the block of the call that was entered at `begin`; 0: not entered. `time` is its place
// among the blocks, `now` the current time.
void capture_file_append(int64_t begin, int64_t time, int64_t now, iovec* parts, int count);

}  // namespace tavrik_diag_lsm
