#include "sim/mount/Libc.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

// A sanitizer that is linked into the same executable has its own wrappers under these names. Where
// this mount's definitions win over them, calls still have to pass through, or the sanitizer would
// lose track of descriptors. A preloaded library must not use them: they lead back to it.
#ifdef DIAGSIM_LINKED
extern "C" {
__attribute__((weak)) int __interceptor_open(const char*, int, ...);
__attribute__((weak)) int __interceptor_open64(const char*, int, ...);
__attribute__((weak)) ssize_t __interceptor_read(int, void*, size_t);
__attribute__((weak)) ssize_t __interceptor_write(int, const void*, size_t);
__attribute__((weak)) int __interceptor_ioctl(int, unsigned long, ...);
__attribute__((weak)) int __interceptor_close(int);
}
#define DIAGSIM_WRAPPER(name) reinterpret_cast<void*>(&__interceptor_##name)
#else
#define DIAGSIM_WRAPPER(name) nullptr
#endif

namespace diagsim {
namespace {

// One function, looked up at its first use. Two threads may both look it up and find the same.
class Next {
  public:
    constexpr explicit Next(const char* name) : name_(name) {}

    template <typename Function>
    Function* get(void* wrapper) {
        void* found = found_.load(std::memory_order_acquire);
        if (found == nullptr) found = look(wrapper);
        return reinterpret_cast<Function*>(found);
    }

  private:
    void* look(void* wrapper) {
        void* const found = wrapper != nullptr ? wrapper : dlsym(RTLD_NEXT, name_);
        if (found == nullptr) {
            std::fprintf(stderr, "diagsim: the C library has no %s\n", name_);
            std::abort();
        }
        found_.store(found, std::memory_order_release);
        return found;
    }

    const char* const name_;
    std::atomic<void*> found_{nullptr};
};

Next nextOpen("open");
Next nextOpen64("open64");
Next nextOpenat("openat");
Next nextRead("read");
Next nextReadChecked("__read_chk");
Next nextWrite("write");
Next nextIoctl("ioctl");
Next nextClose("close");

}  // namespace

int Libc::open(const char* path, int flags, mode_t mode) {
    return nextOpen.get<int(const char*, int, ...)>(DIAGSIM_WRAPPER(open))(path, flags, mode);
}

int Libc::open64(const char* path, int flags, mode_t mode) {
    return nextOpen64.get<int(const char*, int, ...)>(DIAGSIM_WRAPPER(open64))(path, flags, mode);
}

int Libc::openat(int directory, const char* path, int flags, mode_t mode) {
    return nextOpenat.get<int(int, const char*, int, ...)>(nullptr)(directory, path, flags, mode);
}

ssize_t Libc::read(int fd, void* data, size_t length) {
    return nextRead.get<ssize_t(int, void*, size_t)>(DIAGSIM_WRAPPER(read))(fd, data, length);
}

ssize_t Libc::readChecked(int fd, void* data, size_t length, size_t room) {
    return nextReadChecked.get<ssize_t(int, void*, size_t, size_t)>(nullptr)(fd, data, length,
                                                                             room);
}

ssize_t Libc::write(int fd, const void* data, size_t length) {
    return nextWrite.get<ssize_t(int, const void*, size_t)>(DIAGSIM_WRAPPER(write))(fd, data,
                                                                                    length);
}

int Libc::ioctl(int fd, unsigned long request, void* argument) {
    return nextIoctl.get<int(int, unsigned long, ...)>(DIAGSIM_WRAPPER(ioctl))(fd, request,
                                                                               argument);
}

int Libc::close(int fd) { return nextClose.get<int(int)>(DIAGSIM_WRAPPER(close))(fd); }

}  // namespace diagsim
