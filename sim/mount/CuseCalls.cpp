#include "sim/mount/CuseCalls.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

#include "sim/Device.h"
#include "sim/model/Gate.h"
#include "sim/model/Node.h"

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

// A call that may have to wait.
class CuseCalls::Call {
  public:
    explicit Call(fuse_req_t its) : request(its) {}
    virtual ~Call() = default;
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Answers; false, with nothing done, where that is not possible yet.
    virtual bool answer() = 0;
    // Readable when that may have become possible.
    virtual int fd() const = 0;
    // Answers with this errno.
    virtual void giveUp(int error) = 0;

    const fuse_req_t request;
};

class CuseCalls::Read : public Call {
  public:
    Read(fuse_req_t its, int fd, size_t size)
        : Call(its), fd_(fd), client_(Device::instance().beginRead()), message_(size) {}
    ~Read() override { Device::instance().endRead(client_, received_); }

    bool answer() override {
        const ssize_t length = recv(fd_, message_.data(), message_.size(), MSG_DONTWAIT);
        if (length < 0 && (errno == EAGAIN || errno == EINTR)) return false;
        if (length < 0) {
            giveUp(errno);
        } else {
            received_ = true;
            fuse_reply_buf(request, message_.data(), static_cast<size_t>(length));
        }
        return true;
    }

    int fd() const override { return fd_; }

    void giveUp(int error) override { fuse_reply_err(request, error); }

  private:
    const int fd_;
    const unsigned client_;
    std::vector<char> message_;
    bool received_ = false;
};

class CuseCalls::Write : public Call {
  public:
    Write(fuse_req_t its, int fd, const char* data, size_t size)
        : Call(its), fd_(fd), write_{Bytes(data, data + size)} {}

    bool answer() override {
        if (gate_ && !gate_->isOpen()) return false;
        gate_ = Device::instance().advance(fd_, write_);
        if (gate_) return false;
        reply();
        return true;
    }

    int fd() const override { return gate_->fd(); }

    void giveUp(int error) override {
        if (!write_.result) Device::instance().abandon(write_, error);
        reply();
    }

  private:
    void reply() {
        const Driver::Result& result = *write_.result;
        if (result.value < 0) {
            fuse_reply_err(request, result.error);
        } else {
            fuse_reply_write(request, static_cast<size_t>(result.value));
        }
    }

    const int fd_;
    PendingWrite write_;
    std::shared_ptr<Gate> gate_{};
};

CuseCalls::CuseCalls(int fd) : fd_(fd), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_.get() < 0) throw std::system_error(errno, std::generic_category());
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { run(); });
}

CuseCalls::~CuseCalls() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        closing_ = true;
        for (const std::shared_ptr<Call>& call : waiting_)
            call->giveUp(EIO);
        waiting_.clear();
    }
    wake();
    thread_.join();
}

void CuseCalls::read(fuse_req_t request, size_t size, bool waits) {
    add(std::make_shared<Read>(request, fd_, size), waits);
}

void CuseCalls::write(fuse_req_t request, const char* data, size_t size, bool waits) {
    add(std::make_shared<Write>(request, fd_, data, size), waits);
}

void CuseCalls::add(const std::shared_ptr<Call>& call, bool waits) {
    // First, and without the mutex: where the signal came before the request, this calls back.
    fuse_req_interrupt_func(call->request, onInterrupt, this);
    const bool interrupted = fuse_req_interrupted(call->request) != 0;
    std::lock_guard<std::mutex> guard(mutex_);
    waiting_.push_back(call);
    answerAll();
    if (waiting_.empty() || waiting_.back() != call) return;
    if (waits && !interrupted) return wake();
    waiting_.back()->giveUp(interrupted ? EINTR : EAGAIN);
    waiting_.pop_back();
}

void CuseCalls::onInterrupt(fuse_req_t request, void* self) {
    CuseCalls& calls = *static_cast<CuseCalls*>(self);
    std::lock_guard<std::mutex> guard(calls.mutex_);
    const auto found =
        std::find_if(calls.waiting_.begin(), calls.waiting_.end(),
                     [=](const std::shared_ptr<Call>& call) { return call->request == request; });
    if (found == calls.waiting_.end()) return;
    (*found)->giveUp(EINTR);
    calls.waiting_.erase(found);
}

void CuseCalls::run() {
    for (;;) {
        wait();
        std::lock_guard<std::mutex> guard(mutex_);
        if (closing_) return;
        answerAll();
    }
}

void CuseCalls::wait() {
    std::vector<pollfd> ends{{wake_.get(), POLLIN, 0}};
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const std::shared_ptr<Call>& call : waiting_)
            ends.push_back({call->fd(), POLLIN, 0});
    }
    // A write that the loop's thread answers meanwhile closes its gate. A number that then stands
    // for another file costs one vain round.
    poll(ends.data(), ends.size(), -1);
    eventfd_t ignored;
    eventfd_read(wake_.get(), &ignored);
}

void CuseCalls::answerAll() {
    waiting_.remove_if([](const std::shared_ptr<Call>& call) { return call->answer(); });
}

void CuseCalls::wake() { eventfd_write(wake_.get(), 1); }

}  // namespace diagsim
