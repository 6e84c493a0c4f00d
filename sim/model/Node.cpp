#include "sim/model/Node.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "sim/model/OpenFlags.h"
#include "sim/mount/Libc.h"

namespace diagsim {
namespace {

constexpr unsigned kNotCounted = 0;  // no client's number

Driver::Time now() { return Driver::Clock::now(); }

// A read under way, also one that the cancellation of its thread ends.
class CountedRead {
  public:
    explicit CountedRead(Node& node) : node_(node), client_(node.beginRead()) {}
    ~CountedRead() { node_.endRead(client_, received); }
    CountedRead(const CountedRead&) = delete;
    CountedRead& operator=(const CountedRead&) = delete;

    bool received = false;

  private:
    Node& node_;
    const unsigned client_;
};

// Wakes a session's device thread at the end of a scope that began before the mutex was taken:
// under it, the thread would have to wait for the mutex at once.
struct Waker {
    Waker() = default;
    ~Waker() {
        if (session) session->wake();
    }
    Waker(const Waker&) = delete;
    Waker& operator=(const Waker&) = delete;

    std::shared_ptr<Session> session{};
};

}  // namespace

Node::Node() {
    MutexLock lock(mutex_);
    trace_.keep(true);
}

void Node::plug(const Scenario& scenario) {
    MutexLock lock(mutex_);
    if (session_) throw std::logic_error("diagsim: plugged in while a client is open");
    driver_ = std::make_unique<Driver>(scenario, trace_);
    const Scenario::Write& write = scenario.write;
    countsReads_ = scenario.queueLimit > 0 || write.blocksUntilRead || write.returnsAfterRead ||
                   scenario.recorded != nullptr;
    trace_.restart();
}

bool Node::isOpen() const {
    MutexLock lock(mutex_);
    return session_ != nullptr;
}

// --- trace ---

std::vector<std::string> Node::trace(size_t first) const {
    MutexLock lock(mutex_);
    const std::vector<std::string>& lines = trace_.lines();
    if (first >= lines.size()) return {};
    return {lines.begin() + static_cast<std::ptrdiff_t>(first), lines.end()};
}

size_t Node::traceLength() const {
    MutexLock lock(mutex_);
    return trace_.lines().size();
}

bool Node::waitForTrace(const std::string& text, int count, int timeoutMs) const {
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

void Node::keepTrace(bool on) {
    MutexLock lock(mutex_);
    trace_.keep(on);
}

void Node::traceTo(const std::string& path) {
    MutexLock lock(mutex_);
    trace_.toFile(path);
}

// --- tests ---

void Node::inject(Outgoing outgoing) {
    outgoing.callbackModeOnly = false;
    Waker waker;
    MutexLock lock(mutex_);
    if (!session_) return;
    driver_->enqueue(std::move(outgoing), now());
    waker.session = session_;
}

Bytes Node::logPacket() {
    MutexLock lock(mutex_);
    return driver_ ? driver_->logPacket() : Bytes{};
}

// --- calls ---

bool Node::isClient(int fd) const { return session_ && session_->clientFd() == fd; }

Driver::Result Node::open(int flags) {
    MutexLock lock(mutex_);
    return driver_ ? openLocked(flags) : Driver::Result{-1, ENODEV};
}

Driver::Result Node::openLocked(int flags) {
    trace_.beginClock();
    dropEndedReads();
    if (session_) return driver_->refuseOpen(flags, EBUSY, "open already");
    std::unique_ptr<Session> session = Session::create(flags);
    if (!session) return {-1, errno};
    const Driver::Result result = driver_->open(flags, session->clientFd(), now());
    if (result.value < 0) return result;
    ++opens_;
    reads_ = 0;
    reading_ = 0;
    // Before the thread exists: masks that are due are there when open returns, and come first.
    Session::Wait next;
    deliverDue(*session, next);
    Session* const started = session.get();
    if (!session->start([this, started] { serve(*started); })) {
        const int error = errno;
        driver_->close();
        return {-1, error};
    }
    session_ = std::move(session);
    readable_ = mayRead(flags);
    clientFd_.store(session_->clientFd(), std::memory_order_release);
    return result;
}

Driver::Result Node::close(int fd) {
    std::shared_ptr<Session> session;
    {
        MutexLock lock(mutex_);
        if (!isClient(fd)) return {-1, EBADF};
        session = std::move(session_);
        clientFd_.store(-1, std::memory_order_release);
        driver_->close();
        openGates();
        session->wake();
    }
    session->join();
    const int result = session->close();
    const int error = result == 0 ? 0 : errno;
    MutexLock lock(mutex_);
    closed_.push_back(std::move(session));
    // In this order: a read that ends from now on drops the session, one that has ended is seen
    // here.
    anyClosed_ = true;
    dropEndedReads();
    return {result, error};
}

void Node::dropEndedReads() {
    const auto ended = [](const std::shared_ptr<Session>& session) { return !session->isRead(); };
    closed_.erase(std::remove_if(closed_.begin(), closed_.end(), ended), closed_.end());
    anyClosed_ = !closed_.empty();
}

Driver::Result Node::read(int fd, void* data, size_t length) {
    if (!readable_) {
        MutexLock lock(mutex_);
        return isClient(fd) ? driver_->refuseRead() : Driver::Result{-1, EBADF};
    }
    reader_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    CountedRead counted(*this);
    const ssize_t count = Libc::read(fd, data, length);
    const int error = count < 0 ? errno : 0;
    counted.received = count >= 0 && length > 0;
    if (anyClosed_) {
        MutexLock lock(mutex_);
        dropEndedReads();
    }
    return {count, error};
}

unsigned Node::beginRead() {
    if (!countsReads_) return kNotCounted;
    Waker waker;
    MutexLock lock(mutex_);
    ++reading_;
    waker.session = session_;
    return opens_;
}

void Node::endRead(unsigned client, bool received) {
    if (client == kNotCounted) return;
    Waker waker;
    MutexLock lock(mutex_);
    // A thread that was blocked through a close is none of the present client's.
    if (!session_ || client != opens_) return;
    --reading_;
    if (received) ++reads_;
    waker.session = session_;
}

Driver::Result Node::write(int fd, Bytes data) {
    PendingWrite write{std::move(data)};
    while (const std::shared_ptr<Gate> gate = advance(fd, write)) {
        const bool blocks = (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
        if (blocks && gate->wait()) continue;
        if (!write.result) abandon(write, blocks ? EINTR : EAGAIN);
        break;
    }
    return *write.result;
}

std::shared_ptr<Gate> Node::advance(int fd, PendingWrite& write) {
    Waker waker;
    MutexLock lock(mutex_);
    if (write.client == 0) write.client = opens_;
    if (!isClient(fd) || write.client != opens_) {
        if (!write.result) write.result = Driver::Result{-1, EBADF};
        return nullptr;
    }
    const bool replay = mayWaitInReplay();
    if (!write.result) {
        if (replay) driver_->hasten(now());
        const bool waits = (driver_->writesBlock() || replay) && !goesOn(false);
        if (const auto gate = waits ? makeGate(false) : nullptr) return gate;
        write.result = driver_->write(write.data, now());
        if (!deliverAtOnce()) waker.session = session_;
    }
    const bool lingers =
        driver_->writesLinger() && write.result->taken && (replay || !driver_->replays());
    return lingers && !goesOn(true) ? makeGate(true) : nullptr;
}

bool Node::mayWaitInReplay() const {
    const std::thread::id reader = reader_.load(std::memory_order_relaxed);
    return driver_->replays() && reader != std::thread::id() &&
           reader != std::this_thread::get_id();
}

void Node::abandon(PendingWrite& write, int error) {
    MutexLock lock(mutex_);
    write.result = driver_->abandonWrite(write.data, error);
}

bool Node::standsUnread() { return unread(*session_) > 0 || driver_->due(now()) != nullptr; }

bool Node::goesOn(bool taken) {
    if (!session_ || !readable_ || !session_->delivers()) return true;
    return !standsUnread() && (!taken || reading_ > 0);
}

std::shared_ptr<Gate> Node::makeGate(bool taken) {
    auto gate = std::make_shared<Gate>();
    if (!gate->valid()) return nullptr;
    driver_->tellThatWriteWaits(unread(*session_), now());
    waiting_.push_back({gate, taken});
    return gate;
}

void Node::openGates() {
    std::vector<Waiting> still;
    for (const Waiting& one : waiting_) {
        const std::shared_ptr<Gate> gate = one.gate.lock();
        if (!gate) continue;
        if (goesOn(one.taken)) {
            gate->open();
        } else {
            still.push_back(one);
        }
    }
    waiting_ = std::move(still);
}

Driver::Result Node::ioctl(int fd, unsigned long request, void* argument) {
    Waker waker;
    MutexLock lock(mutex_);
    if (!isClient(fd)) return {-1, EBADF};
    const Driver::Result result = driver_->ioctl(request, argument, now());
    waker.session = session_;
    return result;
}

// --- device thread ---

void Node::serve(Session& session) {
    Session::Wait next;
    while (pump(session, next))
        session.wait(next);
}

// False ends the thread: the session is no longer the open one.
bool Node::pump(Session& session, Session::Wait& next) {
    MutexLock lock(mutex_);
    if (session_.get() != &session) return false;
    while (const std::optional<Bytes> stray = session.takeStray())
        trace_.line("host", describe("written past write()", *stray) + " => lost");
    deliverDue(session, next);
    sleepsUntil_ = next.until;
    openGates();
    return true;
}

bool Node::deliverAtOnce() {
    // Who counts reads has more to decide than what is due.
    if (countsReads_) return false;
    const Driver::Time time = now();
    while (const Outgoing* const outgoing = driver_->due(time)) {
        // The others close the descriptor that the device thread waits for.
        if (outgoing->action != Outgoing::Action::kBuffer) return false;
        if (!deliverOne(*session_, *outgoing)) return false;
        driver_->pop();
    }
    const std::optional<Driver::Time> next = driver_->nextDue();
    return !next || (sleepsUntil_ && *sleepsUntil_ <= *next);
}

void Node::deliverDue(Session& session, Session::Wait& next) {
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

bool Node::deliverOne(Session& session, const Outgoing& outgoing) {
    std::optional<std::string> suffix = "";
    switch (outgoing.action) {
        case Outgoing::Action::kBuffer:
            suffix = send(session, outgoing);
            break;
        case Outgoing::Action::kFailRead:
            session.failRead();
            break;
        case Outgoing::Action::kHangUp:
            session.hangUp();
            break;
    }
    if (!suffix) return false;
    driver_->trace(outgoing, *suffix);
    return true;
}

std::optional<std::string> Node::send(Session& session, const Outgoing& outgoing) {
    if (!driver_->hasRoom(outgoing, unread(session))) return driver_->lose(outgoing);
    switch (session.send(outgoing.bytes)) {
        case Session::Sent::kBlocked:
            return driver_->lose(outgoing);
        case Session::Sent::kLost:
            return " => lost, not readable";
        default:
            return "";
    }
}

size_t Node::unread(const Session& session) const { return session.sent() - reads_; }

}  // namespace diagsim
