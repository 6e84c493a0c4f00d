// Time that passes only while nothing else can happen, so that a wait costs nothing and no result
// depends on how fast or busy the machine is.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace fuzz::virtual_time {

using Milliseconds = std::chrono::milliseconds;
using Nanoseconds = std::chrono::nanoseconds;

// Runs each body on a thread of its own and returns when all have ended. Until then every other
// thread of the process but the caller's lives in virtual time: its clocks stand still, and its
// timed waits last, until all of them sleep; then the clocks leap to the earliest deadline, and the
// one who waits for it is woken. A finding when they all sleep and nobody has a deadline, or when
// `limit` has passed. Whatever thread the bodies start has ended when they have, or would wait by
// true time from then on. Always called by the same thread.
void run(const std::vector<std::function<void()>>& bodies, Milliseconds limit);

// What all clocks show to the threads in virtual time. It never goes back, and goes on from one
// run() to the next.
Nanoseconds now();

// Lets virtual time pass. Called by threads in virtual time.
void sleep(Milliseconds duration);

}  // namespace fuzz::virtual_time
