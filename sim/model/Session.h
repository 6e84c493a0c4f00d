// One open of the node: the pair of sockets between client and model, and the device thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "sim/Bytes.h"
#include "sim/mount/UniqueFd.h"

namespace diagsim {

// The client end is what open() returns: read() on it is the kernel's own. Between start() and
// join() the functions failRead(), hangUp(), takeStray() and wait() belong to the device thread.
// send() may be called by any thread, by one at a time and not beside failRead() or hangUp();
// wake() by any, at any time.
//
// Stopping: the owner makes the thread's body return, calls wake(), then join(), then close(), and
// keeps the object while isRead(): with it the device's end goes, and a blocked read gets 0.
class Session {
  public:
    using Time = std::chrono::steady_clock::time_point;

    enum class Sent {
        kYes,
        kBlocked,  // the client does not read fast enough; wait for room
        kLost,     // nothing can be delivered any more, or the buffer is too big for any message
    };

    // What the device thread waits for.
    struct Wait {
        std::optional<Time> until{};
        bool room = false;  // also until a blocked send may succeed
    };

    // Creates the sockets. The client's end has of `flags`, those of open(), what a descriptor
    // keeps: O_CLOEXEC, O_NONBLOCK, O_APPEND; as a socket it has no access mode. Null, with errno
    // set, when the system has no descriptors left.
    static std::unique_ptr<Session> create(int flags);

    // Starts the device thread, with all signals blocked. False, with errno set, when it cannot.
    bool start(std::function<void()> body);
    void join();

    int clientFd() const { return client_.get(); }

    // False after failRead() and hangUp().
    bool delivers() const { return device_.get() >= 0; }

    // Closes the client's end, the device's stays: a read in which another thread is blocked goes
    // on, as with a driver, until a signal ends it. The result is that of close().
    int close();

    // After close(): whether there still is such a read. Its end is not reported to anybody.
    bool isRead() const;

    void wake();
    void wait(const Wait& wait);

    // What the client had written past write() when wait() returned, one message of it, cut to a
    // kilobyte.
    std::optional<Bytes> takeStray();

    // Sends one message without blocking.
    Sent send(const Bytes& buffer);
    // How many were sent.
    size_t sent() const { return sent_; }

    // Lets the client's blocked read fail with ECONNRESET; later reads return what was unread, then
    // 0.
    void failRead();

    // Lets reads return 0 behind what is unread.
    void hangUp();

  private:
    UniqueFd client_{};
    UniqueFd device_{};
    UniqueFd wake_{};
    size_t sent_ = 0;
    bool mayHaveStray_ = false;
    bool watchesStrays_ = true;  // false once the client's end was closed past close()
    std::thread thread_{};
};

}  // namespace diagsim
