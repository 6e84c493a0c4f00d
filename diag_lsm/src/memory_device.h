// Memory-device logging: the reader fills two pools of three buffers in turn, and a writer empties
// them.
//
// Threads: the reader appends data and hands full pools over. A file-logging service, which is not
// part of this library, takes them on its own thread. Stopping: memory_device_stop() ends all
// waits.
#pragma once

#include <atomic>

inline namespace tavrik_diag_lsm {

// A buffer with more bytes than the threshold makes its pool full. The size of a buffer.
constexpr unsigned MEMORY_DEVICE_THRESHOLD = 131071;
constexpr unsigned MEMORY_DEVICE_BUFFER_SIZE = 143360;

// Non-zero: the reader hands over what it has collected. Set by memory_device_set_flush() only.
extern std::atomic<int> flush_log;
// The pool (0 or 1) that the reader fills.
extern std::atomic<int> curr_read;

// Empties both pools and lets waits happen again. Called while no reader runs.
void memory_device_reset(void);

// Appends a payload to the current pool. Waits while the writer has that pool. Drops the payload if
// memory_device_stop() ends the wait, or if it is longer than a buffer. Reader thread.
void memory_device_append(const unsigned char* payload, unsigned length);

// While flush_log is set: waits for the writer to finish, hands over the current pool, switches to
// the other one and waits until flush_log is cleared. Reader thread.
void memory_device_flush(void);

// Ends every wait, now and until the next memory_device_reset().
void memory_device_stop(void);

// For the writer: waits until `pool` is full, passes its filled buffers to `sink` in order, and
// returns the pool to the reader. Returns false if memory_device_stop() ended the wait.
bool memory_device_take(int pool,
                        void (*sink)(const unsigned char* data, unsigned length, void* context),
                        void* context);

// For the writer: sets or clears flush_log and write_in_progress and wakes the reader.
void memory_device_set_flush(int on);
void memory_device_set_write_in_progress(int on);

}  // namespace tavrik_diag_lsm
