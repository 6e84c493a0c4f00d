// All calls on the diag device node: open, read, write, ioctl, close.
//
// Any thread. Results and errno are those of the system calls. Calls that a signal interrupts are
// repeated, because nothing was transferred. The read is the exception: interrupting it ends the
// reader. Open, write, ioctl and close are not cancellation points.
#pragma once

#include <cstddef>

inline namespace tavrik_diag_lsm {

// Opens /dev/diag for reading and writing, with close-on-exec. Returns -1 on failure, with errno
// set. Never returns descriptor 0, 1 or 2, even if these are closed: log lines would reach the
// driver.
int diag_device_open(void);

// Reads one buffer of up to `size` bytes. Returns its length, 0 when the driver had none, or -1.
int diag_device_read(int handle, unsigned char* buffer, size_t size);

// Writes one buffer. Returns what the driver returned, which is 0 on success.
int diag_device_write(int handle, const unsigned char* buffer, size_t size);

// `request` is one of DIAG_IOCTL_*, `argument` an address or, where the request wants one, a
// number.
int diag_device_ioctl(int handle, unsigned long request, void* argument);
int diag_device_ioctl(int handle, unsigned long request, unsigned long argument);

// Closes the handle. It is invalid afterwards, also if the call fails.
int diag_device_close(int handle);

}  // namespace tavrik_diag_lsm
