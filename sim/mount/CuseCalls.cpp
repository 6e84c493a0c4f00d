#include "sim/mount/CuseCalls.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "sim/Device.h"

namespace diagsim {

namespace {

// Blocks all signals for a scope; a thread that is made in it inherits that.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t before_{};
};

}  // namespace

CuseCalls::CuseCalls(int fd) : fd_(fd), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_.get() < 0) throw std::system_error(errno, std::generic_category());
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { run(); });
}

CuseCalls::~CuseCalls() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        closing_ = true;
        for (const Read& read : waiting_)
            fuse_reply_err(read.request, EIO);
        waiting_.clear();
    }
    wake();
    thread_.join();
}

void CuseCalls::add(fuse_req_t request, size_t size, bool waits) {
    // First, and without the mutex: where the signal came before the request, this calls back.
    fuse_req_interrupt_func(request, onInterrupt, this);
    const bool interrupted = fuse_req_interrupted(request) != 0;
    std::lock_guard<std::mutex> guard(mutex_);
    const Read read{request, size};
    if (waiting_.empty() && answer(read)) return;
    if (interrupted || !waits) {
        fuse_reply_err(request, interrupted ? EINTR : EAGAIN);
        return;
    }
    waiting_.push_back(read);
    wake();
}

void CuseCalls::onInterrupt(fuse_req_t request, void* self) {
    CuseCalls& reads = *static_cast<CuseCalls*>(self);
    std::lock_guard<std::mutex> guard(reads.mutex_);
    const auto found = std::find_if(reads.waiting_.begin(), reads.waiting_.end(),
                                    [=](const Read& read) { return read.request == request; });
    if (found == reads.waiting_.end()) return;
    reads.waiting_.erase(found);
    fuse_reply_err(request, EINTR);
}

void CuseCalls::run() {
    for (bool forMessages = false;;) {
        wait(forMessages);
        std::lock_guard<std::mutex> guard(mutex_);
        if (closing_) return;
        while (!waiting_.empty() && answer(waiting_.front()))
            waiting_.pop_front();
        forMessages = !waiting_.empty();
    }
}

void CuseCalls::wait(bool forMessages) {
    pollfd ends[] = {{wake_.get(), POLLIN, 0}, {fd_, POLLIN, 0}};
    poll(ends, forMessages ? 2 : 1, -1);
    eventfd_t ignored;
    eventfd_read(wake_.get(), &ignored);
}

bool CuseCalls::answer(const Read& read) {
    message_.resize(read.size);
    const ssize_t length = recv(fd_, message_.data(), message_.size(), MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (length < 0) {
        fuse_reply_err(read.request, errno);
    } else {
        Device::instance().received(fd_);
        fuse_reply_buf(read.request, message_.data(), static_cast<size_t>(length));
    }
    return true;
}

void CuseCalls::wake() { eventfd_write(wake_.get(), 1); }

}  // namespace diagsim
