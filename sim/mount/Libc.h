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
    static ssize_t write(int fd, const void* data, size_t length);
    static int ioctl(int fd, unsigned long request, void* argument);
    static int close(int fd);
};

// Owns one descriptor and closes it past the interception. Not copied, moved only.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : fd_(descriptor) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    int release() {
        const int released = fd_;
        fd_ = -1;
        return released;
    }
    // Closes what is owned and takes over `descriptor`. The result is that of close; 0 where
    // nothing was.
    int reset(int descriptor = -1) {
        const int result = fd_ >= 0 ? Libc::close(fd_) : 0;
        fd_ = descriptor;
        return result;
    }

  private:
    int fd_ = -1;
};

}  // namespace diagsim
