// What the kernel tells about the threads and descriptors of this process.
#pragma once

#include <cstddef>

namespace fuzz {

// Whether there are other threads and all of them slept at one moment since the call. Always called
// by the same thread.
bool allOthersSleep();

size_t threadCount();
size_t descriptorCount();

// Waits until there are `count` threads: one that was joined may still be listed for a moment. A
// finding when that takes seconds.
void awaitThreads(size_t count);

}  // namespace fuzz
