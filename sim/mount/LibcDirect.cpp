// The C library's functions for a program that intercepts none of them.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "sim/mount/Libc.h"

namespace diagsim {

int Libc::open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int Libc::open64(const char* path, int flags, mode_t mode) { return ::open64(path, flags, mode); }
int Libc::openat(int directory, const char* path, int flags, mode_t mode) {
    return ::openat(directory, path, flags, mode);
}
ssize_t Libc::read(int fd, void* data, size_t length) { return ::read(fd, data, length); }
ssize_t Libc::readChecked(int fd, void* data, size_t length, size_t) {
    return ::read(fd, data, length);
}
ssize_t Libc::write(int fd, const void* data, size_t length) { return ::write(fd, data, length); }
int Libc::ioctl(int fd, unsigned long request, void* argument) {
    return ::ioctl(fd, request, argument);
}
int Libc::close(int fd) { return ::close(fd); }

}  // namespace diagsim
