// The node behind its calls: one driver, at most one client, and the trace of their exchange.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sim/Bytes.h"
#include "sim/Scenario.h"
#include "sim/model/Driver.h"
#include "sim/model/Gate.h"
#include "sim/model/Mutex.h"
#include "sim/model/Session.h"
#include "sim/model/Trace.h"

namespace diagsim {

// A write on its way: it may have to wait before the driver takes it, and after.
struct PendingWrite {
    const Bytes data;
    unsigned client = 0;                     // whose it is, once it was advanced
    std::optional<Driver::Result> result{};  // once the driver has taken or refused it
};

// The public functions have the contracts of their namesakes in Device; calls on the node return
// their errno instead of setting it. All take the mutex but owns(), so none is called with it held.
class Node {
  public:
    Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    void plug(const Scenario& scenario);
    bool isOpen() const;

    std::vector<std::string> trace(size_t first) const;
    size_t traceLength() const;
    bool waitForTrace(const std::string& text, int count, int timeoutMs) const;
    void keepTrace(bool on);
    void traceTo(const std::string& path);

    // Delivers in any logging mode; ignored while no client has the node open.
    void inject(Outgoing outgoing);
    Bytes logPacket();

    bool owns(int fd) const { return fd >= 0 && fd == clientFd_.load(std::memory_order_acquire); }

    Driver::Result open(int flags);
    Driver::Result close(int fd);
    Driver::Result read(int fd, void* data, size_t length);
    unsigned beginRead();
    void endRead(unsigned client, bool received);
    Driver::Result write(int fd, Bytes data);
    std::shared_ptr<Gate> advance(int fd, PendingWrite& write);
    void abandon(PendingWrite& write, int error);
    Driver::Result ioctl(int fd, unsigned long request, void* argument);

  private:
    Driver::Result openLocked(int flags) DIAGSIM_REQUIRES(mutex_);
    bool isClient(int fd) const DIAGSIM_REQUIRES(mutex_);

    // A write that waits, before it is taken or after.
    struct Waiting {
        std::weak_ptr<Gate> gate;
        bool taken;
    };

    // Whether this thread may wait in a write of a replay: not the one that has to read meanwhile.
    bool mayWaitInReplay() const DIAGSIM_REQUIRES(mutex_);

    // Whether anything that is due has not been read.
    bool standsUnread() DIAGSIM_REQUIRES(mutex_);
    // Whether a write goes on that has or has not been taken.
    bool goesOn(bool taken) DIAGSIM_REQUIRES(mutex_);
    std::shared_ptr<Gate> makeGate(bool taken) DIAGSIM_REQUIRES(mutex_);
    // Of all waiting writes that go on, or, without a client, of all.
    void openGates() DIAGSIM_REQUIRES(mutex_);

    // Lets go of closed sessions that nobody reads any more.
    void dropEndedReads() DIAGSIM_REQUIRES(mutex_);

    void serve(Session& session);
    bool pump(Session& session, Session::Wait& next);
    // Delivers what is due without the device thread. False if that has to go on, at once or
    // earlier than it would.
    bool deliverAtOnce() DIAGSIM_REQUIRES(mutex_);
    // Delivers what is due; `next` is what to wait for then.
    void deliverDue(Session& session, Session::Wait& next) DIAGSIM_REQUIRES(mutex_);
    // False: no room at present.
    bool deliverOne(Session& session, const Outgoing& outgoing) DIAGSIM_REQUIRES(mutex_);
    // What the trace says behind the lines of a buffer; nothing: no room at present.
    std::optional<std::string> send(Session& session, const Outgoing& outgoing)
        DIAGSIM_REQUIRES(mutex_);
    // How many buffers the client has yet to read.
    size_t unread(const Session& session) const DIAGSIM_REQUIRES(mutex_);

    // Of the client, written under mutex_.
    std::atomic<bool> readable_{false};
    std::atomic<unsigned> opens_{0};  // tells one client from the next
    std::atomic<int> clientFd_{-1};
    std::atomic<std::thread::id> reader_{};  // the thread of the last read(), if it was here
    std::atomic<bool> anyClosed_{false};     // whether closed_ has sessions; written under mutex_
    std::atomic<bool> countsReads_{false};   // whether the scenario wants it; written under mutex_

    // Guards everything below, and gives the trace its order. Nothing blocks under it.
    mutable Mutex mutex_{};
    mutable Trace trace_ DIAGSIM_GUARDED_BY(mutex_){};
    std::unique_ptr<Driver> driver_ DIAGSIM_GUARDED_BY(mutex_){};  // null: never plugged in
    // Null: not open. Shared with calls that are about to wake it.
    std::shared_ptr<Session> session_ DIAGSIM_GUARDED_BY(mutex_){};
    // When the device thread looks again without being woken; nothing: never.
    std::optional<Session::Time> sleepsUntil_ DIAGSIM_GUARDED_BY(mutex_){};
    // Of the client, while its reads are counted: messages that it has read, and reads under way.
    size_t reads_ DIAGSIM_GUARDED_BY(mutex_) = 0;
    size_t reading_ DIAGSIM_GUARDED_BY(mutex_) = 0;
    std::vector<Waiting> waiting_ DIAGSIM_GUARDED_BY(mutex_){};
    // Their clients closed them with a thread blocked in read().
    std::vector<std::shared_ptr<Session>> closed_ DIAGSIM_GUARDED_BY(mutex_){};
};

}  // namespace diagsim
