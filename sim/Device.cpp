#include "sim/Device.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace diagsim {
namespace {

constexpr const char* kTest = "test";

// The errno that a call leaves behind: its own on failure, the caller's on success.
class ErrnoOnReturn {
  public:
    ErrnoOnReturn() : error_(errno) {}
    ~ErrnoOnReturn() { errno = error_; }
    ErrnoOnReturn(const ErrnoOnReturn&) = delete;
    ErrnoOnReturn& operator=(const ErrnoOnReturn&) = delete;

    long finish(const Driver::Result& result) {
        if (result.value < 0) error_ = result.error;
        return result.value;
    }
    int fail(int error) { return static_cast<int>(finish({-1, error})); }

  private:
    int error_;
};

Driver::Time now() { return Driver::Clock::now(); }

}  // namespace

Device& Device::instance() {
    static Device* const device = new Device;
    return *device;
}

// --- for tests ---

void Device::plug(const Scenario& scenario) {
    MutexLock lock(mutex_);
    if (session_) throw std::logic_error("diagsim: plugged in while a client is open");
    driver_ = std::make_unique<Driver>(scenario, trace_);
    trace_.restart();
    plugged_.store(true, std::memory_order_release);
}

void Device::unplug() { plugged_.store(false, std::memory_order_release); }

bool Device::isOpen() const {
    MutexLock lock(mutex_);
    return session_ != nullptr;
}

std::vector<std::string> Device::trace() const {
    MutexLock lock(mutex_);
    return trace_.lines();
}

bool Device::waitForTrace(const std::string& text, int count, int timeoutMs) const {
    const auto deadline = now() + std::chrono::milliseconds(timeoutMs);
    MutexLock lock(mutex_);
    int found = 0;
    size_t seen = 0;  // lines looked at; plug() is not called during a wait
    for (bool inTime = true;;) {
        for (; seen < trace_.lines().size(); ++seen) {
            if (trace_.lines()[seen].find(text) != std::string::npos) ++found;
        }
        if (found >= count) return true;
        if (!inTime) return false;
        inTime = trace_.changed().wait_until(mutex_, deadline) == std::cv_status::no_timeout;
    }
}

void Device::keepTrace(bool on) {
    MutexLock lock(mutex_);
    trace_.keep(on);
}

void Device::traceTo(const std::string& path) {
    MutexLock lock(mutex_);
    trace_.toFile(path);
}

void Device::inject(Outgoing outgoing) {
    outgoing.callbackModeOnly = false;
    MutexLock lock(mutex_);
    if (!session_) return;
    driver_->enqueue(std::move(outgoing), now());
    session_->wake();
}

void Device::deliver(const Bytes& buffer) { inject(wholeBuffer(kTest, "buffer", buffer)); }

void Device::deliverFrame(const Bytes& payload) { inject(frameBuffer(kTest, "frame", payload)); }

Bytes Device::logPacket() {
    MutexLock lock(mutex_);
    return driver_ ? driver_->logPacket() : Bytes{};
}

void Device::redirect(const std::string& path, const std::string& to) {
    MutexLock lock(mutex_);
    if (to.empty()) {
        redirections_.erase(path);
    } else {
        redirections_[path] = to;
    }
    anyRedirection_.store(!redirections_.empty(), std::memory_order_release);
}

// --- for mounts ---

bool Device::isNode(const char* path) { return path != nullptr && std::strcmp(path, kPath) == 0; }

std::string Device::redirected(const char* path) const {
    if (path == nullptr || !anyRedirection_.load(std::memory_order_acquire)) return {};
    MutexLock lock(mutex_);
    const auto found = redirections_.find(path);
    return found == redirections_.end() ? std::string() : found->second;
}

int Device::open(int flags) {
    ErrnoOnReturn leave;
    MutexLock lock(mutex_);
    errno = ENODEV;
    const int fd = driver_ ? openLocked(flags) : -1;
    return fd >= 0 ? fd : leave.fail(errno);
}

int Device::openLocked(int flags) {
    trace_.beginClock();
    if (session_) {
        trace_.line("host", "open /dev/diag => -1 EBUSY (refused: open already)");
        errno = EBUSY;
        return -1;
    }
    std::unique_ptr<Session> session = Session::create(flags);
    if (!session) return -1;
    const Driver::Result result = driver_->open(now());
    if (result.value < 0) {
        errno = result.error;
        return -1;
    }
    // Before the thread exists: masks that are due are there when open returns, and come first.
    Session::Wait next;
    deliverDue(*session, next);
    Session* const started = session.get();
    if (!session->start([this, started] { serve(*started); })) {
        driver_->close();
        return -1;
    }
    session_ = std::move(session);
    clientFd_.store(session_->clientFd(), std::memory_order_release);
    return session_->clientFd();
}

int Device::close(int fd) {
    ErrnoOnReturn leave;
    std::unique_ptr<Session> session;
    {
        MutexLock lock(mutex_);
        if (!session_ || session_->clientFd() != fd) return leave.fail(EBADF);
        session = std::move(session_);
        clientFd_.store(-1, std::memory_order_release);
        driver_->close();
        trace_.line("host", "close => 0");
        session->wake();
    }
    session->join();
    const int result = session->close();
    return result == 0 ? 0 : leave.fail(errno);
}

ssize_t Device::write(int fd, const void* data, size_t length) {
    ErrnoOnReturn leave;
    const auto* const bytes = static_cast<const uint8_t*>(data);
    const Bytes copy(bytes, bytes + length);
    MutexLock lock(mutex_);
    if (!session_ || session_->clientFd() != fd) return leave.fail(EBADF);
    const Driver::Result result = driver_->write(copy, now());
    session_->wake();
    return leave.finish(result);
}

int Device::ioctl(int fd, unsigned long request, void* argument) {
    ErrnoOnReturn leave;
    MutexLock lock(mutex_);
    if (!session_ || session_->clientFd() != fd) return leave.fail(EBADF);
    const Driver::Result result = driver_->ioctl(request, argument, now());
    session_->wake();
    return static_cast<int>(leave.finish(result));
}

// --- device thread ---

void Device::serve(Session& session) {
    Session::Wait next;
    while (pump(session, next))
        session.wait(next);
}

// False ends the thread: the session is no longer the open one.
bool Device::pump(Session& session, Session::Wait& next) {
    MutexLock lock(mutex_);
    if (session_.get() != &session) return false;
    deliverDue(session, next);
    return true;
}

void Device::deliverDue(Session& session, Session::Wait& next) {
    const Driver::Time time = now();
    // While the client is behind, nothing periodic is added to what it has to read.
    if (!driver_->due(time)) driver_->producePeriodic(time);
    while (const Outgoing* const outgoing = driver_->due(time)) {
        if (!deliverOne(session, *outgoing)) {
            next = {std::nullopt, true};
            return;
        }
        const bool gone = outgoing->action == Outgoing::Action::kHangUp;
        driver_->pop();
        if (gone) driver_->vanish();
    }
    next = {driver_->nextDue(), false};
}

bool Device::deliverOne(Session& session, const Outgoing& outgoing) {
    Session::Sent sent = Session::Sent::kYes;
    switch (outgoing.action) {
        case Outgoing::Action::kBuffer:
            sent = session.send(outgoing.bytes);
            break;
        case Outgoing::Action::kFailRead:
            session.failRead();
            break;
        case Outgoing::Action::kHangUp:
            session.hangUp();
            break;
    }
    if (sent == Session::Sent::kBlocked) return false;
    const char* const suffix = sent == Session::Sent::kLost ? " => lost, not readable" : "";
    for (const std::string& line : outgoing.lines)
        trace_.line(outgoing.who, line + suffix);
    return true;
}

}  // namespace diagsim
