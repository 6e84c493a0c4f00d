// The calls of a client of the character device that wait here: reads for what the model delivers,
// writes for what the client reads.
#pragma once

#define FUSE_USE_VERSION 35
#include <fuse3/fuse_lowlevel.h>

#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "sim/mount/UniqueFd.h"

namespace diagsim {

// Answers reads, in the order of their coming, with the messages of a descriptor, and writes with
// what the model says. read(), write() and the interruptions come on the thread of the session's
// loop; answers are given there and on a thread of this class's own, which runs as long as the
// object, with all signals blocked.
//
// A read that a signal interrupts is answered with EINTR and takes no message with it; a write with
// EINTR, or with its result when the driver has taken it.
class CuseCalls {
  public:
    // `fd` is the model's client end and outlives the object. Throws std::system_error.
    explicit CuseCalls(int fd);
    // Answers what still waits with EIO.
    ~CuseCalls();
    CuseCalls(const CuseCalls&) = delete;
    CuseCalls& operator=(const CuseCalls&) = delete;

    // Answer now, or as soon as that is possible; with `waits` false, now in any case.
    void read(fuse_req_t request, size_t size, bool waits);
    void write(fuse_req_t request, const char* data, size_t size, bool waits);

  private:
    class Call;
    class Read;
    class Write;

    void add(const std::shared_ptr<Call>& call, bool waits);

    // Called by libfuse under its lock of the request, so mutex_ is never held while anything of
    // the request but its answer is touched.
    static void onInterrupt(fuse_req_t request, void* self);

    void run();
    // Returns when a call may be answered, or after wake().
    void wait();
    // With the mutex held.
    void answerAll();
    void wake();

    const int fd_;
    UniqueFd wake_{};

    // Guards all below.
    std::mutex mutex_{};
    std::list<std::shared_ptr<Call>> waiting_{};
    bool closing_ = false;

    std::thread thread_{};
};

}  // namespace diagsim
