// The threads and descriptors of this process.
#pragma once

#include <cstddef>

namespace fuzz {

// Whether there are other threads and all of them slept at one moment during the call. Call it from
// one thread only.
bool allOthersSleep();

size_t threadCount();
size_t descriptorCount();

// Waits until there are `count` threads, since a joined thread may stay listed for a moment. Aborts
// with a finding after 10 seconds.
void awaitThreads(size_t count);

}  // namespace fuzz
