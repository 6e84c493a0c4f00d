// Virtual time passes only while all threads sleep. A wait costs nothing, and no result depends on
// the speed or load of the machine.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace fuzz::virtual_time {

using Milliseconds = std::chrono::milliseconds;
using Nanoseconds = std::chrono::nanoseconds;

// Runs each body on a thread of its own and returns when all have ended. Until then, every thread
// but the caller lives in virtual time: clocks stand still until all threads sleep, then leap to
// the earliest deadline and wake its waiter. A finding if all threads sleep without a deadline, or
// if `limit` passes. Threads that the bodies start must end before the bodies do. Call it from one
// thread only.
void run(const std::vector<std::function<void()>>& bodies, Milliseconds limit);

// The virtual time that all clocks show. Never goes back; continues from one run() to the next.
Nanoseconds now();

// Sleeps in virtual time. Call it from a thread in virtual time.
void sleep(Milliseconds duration);

}  // namespace fuzz::virtual_time
