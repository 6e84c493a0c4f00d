// The simulated device node of this process: what the mounts call, and what tests call.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "sim/Scenario.h"
#include "sim/Wire.h"
#include "sim/model/Driver.h"
#include "sim/model/Mutex.h"
#include "sim/model/Session.h"
#include "sim/model/Trace.h"

namespace diagsim {

// One per process, never destroyed: the device thread may outlive main(). All functions may be
// called by any thread; none blocks but waitForTrace() and close(), which joins the device thread.
//
// Every open of the node has one device thread; it delivers due buffers in time order and is joined
// by close. There is one client at a time.
class Device {
  public:
    static constexpr const char* kPath = "/dev/diag";

    static Device& instance();

    // --- for tests ---

    // From now on the node exists and behaves like this; the ADSP, the counts of requests and the
    // trace start anew. Throws std::logic_error while a client has it open.
    void plug(const Scenario& scenario);

    // From now on open() of the node reaches the real file system. A client that has it open keeps
    // its session.
    void unplug();

    // Whether a client has the node open.
    bool isOpen() const;

    // The lines since plug(), without the time column.
    std::vector<std::string> trace() const;

    // Waits until `count` lines contain `text`; false when `timeoutMs` milliseconds were not
    // enough.
    bool waitForTrace(const std::string& text, int count, int timeoutMs) const;

    // Whether lines are kept for trace(): on unless a mount says otherwise. For runs of such length
    // that the lines would fill the memory.
    void keepTrace(bool on);

    // Names the file for the trace, "-" for standard error; it is emptied by the next first open.
    void traceTo(const std::string& path);

    // Delivers one buffer as read() will return it, data-type word included, in any logging mode.
    // Ignored while no client has the node open.
    void deliver(const Bytes& buffer);

    // Delivers a payload framed, in a buffer of data type 32 with one chunk for the local
    // processor, in any logging mode. Ignored while no client has the node open.
    void deliverFrame(const Bytes& payload);

    // A log packet as the ADSP would send it now, unframed, from its command code on. Empty while
    // the node was never plugged in.
    Bytes logPacket();

    // open(path) opens `to` instead; an empty `to` ends that.
    void redirect(const std::string& path, const std::string& to);

    // --- for mounts ---

    // Whether open() of this path is open() of the node.
    static bool isNode(const char* path);
    bool plugged() const { return plugged_.load(std::memory_order_acquire); }

    // The path that replaces `path`; empty for none.
    std::string redirected(const char* path) const;

    // Whether the descriptor is the client's. No locks: every write of the process asks.
    bool owns(int fd) const { return fd >= 0 && fd == clientFd_.load(std::memory_order_acquire); }

    // The calls on the node, with results and errno as the system calls have them.
    int open(int flags);
    int close(int fd);
    ssize_t write(int fd, const void* data, size_t length);
    int ioctl(int fd, unsigned long request, void* argument);

  private:
    Device() { trace_.keep(true); }

    void serve(Session& session);
    bool pump(Session& session, Session::Wait& next);
    // Delivers what is due; `next` is what to wait for then.
    void deliverDue(Session& session, Session::Wait& next) DIAGSIM_REQUIRES(mutex_);
    // False: no room at present.
    bool deliverOne(Session& session, const Outgoing& outgoing) DIAGSIM_REQUIRES(mutex_);
    void inject(Outgoing outgoing);
    int openLocked(int flags) DIAGSIM_REQUIRES(mutex_);

    std::atomic<bool> plugged_{false};
    std::atomic<int> clientFd_{-1};            // written under mutex_
    std::atomic<bool> anyRedirection_{false};  // written under mutex_

    // Guards everything below, and gives the trace its order. Nothing blocks under it.
    mutable Mutex mutex_{};
    mutable Trace trace_ DIAGSIM_GUARDED_BY(mutex_){};
    std::unique_ptr<Driver> driver_ DIAGSIM_GUARDED_BY(mutex_){};
    std::unique_ptr<Session> session_ DIAGSIM_GUARDED_BY(mutex_){};  // null: not open
    std::unordered_map<std::string, std::string> redirections_ DIAGSIM_GUARDED_BY(mutex_){};
};

}  // namespace diagsim
