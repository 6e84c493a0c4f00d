// The reader thread: reads from the device and dispatches buffers by data type.
//
// One thread at a time may start or join it.
#pragma once

inline namespace tavrik_diag_lsm {

// Blocks signal 12 in the calling thread.
void block_signal(void);

// Starts the reader and waits until it runs. False if the thread cannot be created.
bool start_reader(void);

// Joins the reader. If `end_announced`, gives the driver a second to end it; otherwise, and after
// that second, interrupts it. Returns the result of pthread_join: ESRCH without a reader, EDEADLK
// on the reader itself.
int join_reader(bool end_announced);

}  // namespace tavrik_diag_lsm
