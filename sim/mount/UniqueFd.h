// Descriptors of the simulator's own.
#pragma once

#include "sim/mount/Libc.h"

namespace diagsim {

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

// `fd`, under another number if it is one of the standard streams': a program that runs with one of
// them closed must not find the simulator's file there. Stays as it is where no number is left.
UniqueFd aboveStandardStreams(UniqueFd fd);

}  // namespace diagsim
