// The C library's own functions behind the intercepted ones.
#pragma once

#include <sys/types.h>

namespace diagsim {

// Each forwards to the next definition in the process, whatever this library intercepts. Results
// and errno are those of that definition. Safe in signal handlers once called before; no locks.
struct Libc {
    static int open(const char* path, int flags, mode_t mode);
    static int open64(const char* path, int flags, mode_t mode);
    static int openat(int directory, const char* path, int flags, mode_t mode);
    static ssize_t read(int fd, void* data, size_t length);
    // read() for callers that know how much room there is; ends the process when that is too
    // little.
    static ssize_t readChecked(int fd, void* data, size_t length, size_t room);
    static ssize_t write(int fd, const void* data, size_t length);
    static int ioctl(int fd, unsigned long request, void* argument);
    static int close(int fd);
};

}  // namespace diagsim
