// Memory-device logging: the reader fills two pools of three buffers in turn, a writer empties
// them.
//
// Threads: the reader appends and hands over; a file-logging service (not part of this library)
// takes full pools on a thread of its own. Stopping: memory_device_stop() ends every wait here.
#pragma once

#include <atomic>

inline namespace tavrik_diag_lsm {

// Bytes appended to a buffer before its pool goes to the writer, and the room of a buffer beyond
// it.
constexpr unsigned MEMORY_DEVICE_THRESHOLD = 131071;
constexpr unsigned MEMORY_DEVICE_BUFFER_SIZE = 143360;

// Non-zero: hand over what has been collected. Set with memory_device_set_flush() only.
extern std::atomic<int> flush_log;
// The pool (0 or 1) that the reader fills.
extern std::atomic<int> curr_read;

// Empties both pools and lets waits happen again. Called while no reader runs.
void memory_device_reset(void);

// Appends one payload to the current pool, waiting while that pool is with the writer. Dropped when
// the wait is ended by memory_device_stop(), and when it is longer than a buffer. Reader thread.
void memory_device_append(const unsigned char* payload, unsigned length);

// While flush_log is set: waits for the writer to finish, gives it the current pool, goes on with
// the other one and waits until flush_log is cleared. Reader thread.
void memory_device_flush(void);

// Ends every wait, now and until the next memory_device_reset().
void memory_device_stop(void);

// For the writer: waits until `pool` is full, hands each of its filled buffers to `sink` in order,
// and gives the pool back to the reader. Returns false when memory_device_stop() ended the wait.
bool memory_device_take(int pool,
                        void (*sink)(const unsigned char* data, unsigned length, void* context),
                        void* context);

// For the writer: sets or clears flush_log and write_in_progress and wakes the reader.
void memory_device_set_flush(int on);
void memory_device_set_write_in_progress(int on);

}  // namespace tavrik_diag_lsm
