// The reader thread: reads from the device and sorts what comes by data type.
//
// Start and join are called by one thread at a time.
#pragma once

inline namespace tavrik_diag_lsm {

// Blocks signal 12 in the calling thread.
void block_signal(void);

// Starts the reader and waits until it has begun. False when the thread cannot be created.
bool start_reader(void);

// Waits for the reader's end and joins it. It ends by itself where the driver announced the end
// (`end_announced`) and does so within a second; otherwise it is interrupted. Returns what
// pthread_join returned: ESRCH without a reader, EDEADLK on the reader itself.
int join_reader(bool end_announced);

}  // namespace tavrik_diag_lsm
