// The calls on the diag device node; every open, read, write, ioctl and close of it is made here.
//
// Any thread. Results and errno are the system's own. A call that a signal interrupted before
// anything was transferred is repeated, but for the read, whose interruption ends the reader. Open,
// write, ioctl and close are no cancellation points: a thread that is cancelled in one of them ends
// behind it.
#pragma once

#include <cstddef>

inline namespace tavrik_diag_lsm {

// Opens /dev/diag for reading and writing, closed on exec. Never returns one of the descriptors 0,
// 1 and 2: log lines written to a standard stream that was closed would reach the driver. -1 on
// failure, with errno set.
int diag_device_open(void);

// Reads one buffer of up to `size` bytes. Returns its length, 0 when the driver had none, or -1.
int diag_device_read(int handle, unsigned char* buffer, size_t size);

// Writes one buffer. Returns what the driver returned, which is 0 on success.
int diag_device_write(int handle, const unsigned char* buffer, size_t size);

// `request` is one of DIAG_IOCTL_*, `argument` an address or, where the request wants one, a
// number.
int diag_device_ioctl(int handle, unsigned long request, void* argument);
int diag_device_ioctl(int handle, unsigned long request, unsigned long argument);

// Closes the handle, which is not valid afterwards whatever the result.
int diag_device_close(int handle);

}  // namespace tavrik_diag_lsm
