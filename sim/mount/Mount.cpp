// The intercepted functions: open of the node, and read, write, ioctl and close of its descriptor,
// go to the model; everything else goes on to the C library.

// The C library's fortified headers would define some of these functions inline, and its large-file
// and 64-bit-time settings would rename them.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdarg>

#include "sim/Device.h"
#include "sim/mount/Libc.h"

namespace {

using diagsim::Device;
using diagsim::Libc;

// Opens the node or the redirected path; else calls `forward` with the path.
template <typename Forward>
int openPath(const char* path, int flags, Forward forward) {
    Device& device = Device::instance();
    if (Device::isNode(path) && device.plugged()) return device.open(flags);
    const std::string other = device.redirected(path);
    return forward(other.empty() ? path : other.c_str());
}

int openFile(const char* path, int flags, mode_t mode) {
    return openPath(path, flags, [=](const char* to) { return Libc::open(to, flags, mode); });
}

int openLargeFile(const char* path, int flags, mode_t mode) {
    return openPath(path, flags, [=](const char* to) { return Libc::open64(to, flags, mode); });
}

int openFileAt(int directory, const char* path, int flags, mode_t mode) {
    return openPath(path, flags,
                    [=](const char* to) { return Libc::openat(directory, to, flags, mode); });
}

int control(int fd, unsigned long request, void* argument) {
    Device& device = Device::instance();
    return device.owns(fd) ? device.ioctl(fd, request, argument)
                           : Libc::ioctl(fd, request, argument);
}

bool hasMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

}  // namespace

// The mode argument is there only with flags that create a file.
#define DIAGSIM_MODE(flags)                     \
    mode_t mode = 0;                            \
    if (hasMode(flags)) {                       \
        va_list arguments;                      \
        va_start(arguments, flags);             \
        mode = va_arg(arguments, unsigned int); \
        va_end(arguments);                      \
    }

// The one argument that ioctl passes on.
#define DIAGSIM_ARGUMENT(request)                    \
    va_list arguments;                               \
    va_start(arguments, request);                    \
    void* const argument = va_arg(arguments, void*); \
    va_end(arguments);

#define DIAGSIM_EXPORT __attribute__((visibility("default")))

extern "C" {

DIAGSIM_EXPORT int open(const char* path, int flags, ...) {
    DIAGSIM_MODE(flags)
    return openFile(path, flags, mode);
}

DIAGSIM_EXPORT int open64(const char* path, int flags, ...) {
    DIAGSIM_MODE(flags)
    return openLargeFile(path, flags, mode);
}

DIAGSIM_EXPORT int openat(int directory, const char* path, int flags, ...) {
    DIAGSIM_MODE(flags)
    return openFileAt(directory, path, flags, mode);
}

DIAGSIM_EXPORT int openat64(int directory, const char* path, int flags, ...) {
    DIAGSIM_MODE(flags)
    return openFileAt(directory, path, flags | O_LARGEFILE, mode);
}

// What fortified callers use where no mode is passed.
DIAGSIM_EXPORT int __open_2(const char* path, int flags) { return openFile(path, flags, 0); }

DIAGSIM_EXPORT int __open64_2(const char* path, int flags) { return openLargeFile(path, flags, 0); }

DIAGSIM_EXPORT int __openat_2(int directory, const char* path, int flags) {
    return openFileAt(directory, path, flags, 0);
}

DIAGSIM_EXPORT ssize_t read(int fd, void* data, size_t length) {
    Device& device = Device::instance();
    return device.owns(fd) ? device.read(fd, data, length) : Libc::read(fd, data, length);
}

// What fortified callers use.
DIAGSIM_EXPORT ssize_t __read_chk(int fd, void* data, size_t length, size_t room) {
    const bool fits = length <= room;
    return fits ? read(fd, data, length) : Libc::readChecked(fd, data, length, room);
}

DIAGSIM_EXPORT ssize_t write(int fd, const void* data, size_t length) {
    Device& device = Device::instance();
    return device.owns(fd) ? device.write(fd, data, length) : Libc::write(fd, data, length);
}

DIAGSIM_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
    DIAGSIM_ARGUMENT(request)
    return control(fd, request, argument);
}

#if __SIZEOF_POINTER__ == 4
// What 32-bit callers with 64-bit time use.
DIAGSIM_EXPORT int __ioctl_time64(int fd, unsigned long request, ...) noexcept {
    DIAGSIM_ARGUMENT(request)
    return control(fd, request, argument);
}
#endif

DIAGSIM_EXPORT int close(int fd) {
    Device& device = Device::instance();
    return device.owns(fd) ? device.close(fd) : Libc::close(fd);
}

}  // extern "C"
