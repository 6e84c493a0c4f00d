// The simulated device node of this process: what the mounts call, and what tests call.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "sim/Bytes.h"
#include "sim/Scenario.h"

namespace diagsim {

class Gate;
struct PendingWrite;

// One per process, never destroyed: the device thread may outlive main(). All functions may be
// called by any thread; none blocks but waitForTrace(), read(), which is the kernel's own, write(),
// where the scenario says so, and close(), which joins the device thread.
//
// Buffers are delivered in the order of their time: inside the write that causes them if they are
// due at once, else by the device thread, which every open of the node has and close joins. There
// is one client at a time.
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

    // The lines since plug(), without the time column, from line `first` on.
    std::vector<std::string> trace(size_t first = 0) const;

    // How many lines there are since plug().
    size_t traceLength() const;

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
    bool plugged() const;

    // The path that replaces `path`; empty for none.
    std::string redirected(const char* path) const;

    // Whether the descriptor is the client's. No locks: every read and write of the process asks.
    bool owns(int fd) const;

    // The calls on the node, with results and errno as the system calls have them.
    int open(int flags);
    int close(int fd);
    ssize_t read(int fd, void* data, size_t length);
    ssize_t write(int fd, const void* data, size_t length);
    int ioctl(int fd, unsigned long request, void* argument);

    // write() for a mount that must not block. Returns the gate at which to wait before the next
    // advance(), or null when the write has its result.
    std::shared_ptr<Gate> advance(int fd, PendingWrite& write);

    // Ends a write that waits and has no result yet: it gets this errno.
    void abandon(PendingWrite& write, int error);

    // read() for a mount that takes messages from the descriptor by other means: around each read,
    // the first as long as it waits. `client` is what beginRead() returned.
    unsigned beginRead();
    void endRead(unsigned client, bool received);

  private:
    struct State;

    Device();

    const std::unique_ptr<State> state_;
};

}  // namespace diagsim
