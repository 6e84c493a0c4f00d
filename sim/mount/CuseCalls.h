// The reads of a client of the character device, which wait here for what the model delivers.
#pragma once

#define FUSE_USE_VERSION 35
#include <fuse3/fuse_lowlevel.h>

#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "sim/mount/UniqueFd.h"

namespace diagsim {

// Answers reads, in the order of their coming, with the messages of a descriptor. add() and the
// interruptions come on the thread of the session's loop; answers are given there and on a thread
// of this class's own, which runs as long as the object, with all signals blocked.
//
// A read that a signal interrupts is answered with EINTR and takes no message with it.
class CuseCalls {
  public:
    // `fd` is the model's client end and outlives the object. Throws std::system_error.
    explicit CuseCalls(int fd);
    // Answers what still waits with EIO.
    ~CuseCalls();
    CuseCalls(const CuseCalls&) = delete;
    CuseCalls& operator=(const CuseCalls&) = delete;

    // Answers now, or as soon as there is a message; with `waits` false, now in any case.
    void add(fuse_req_t request, size_t size, bool waits);

  private:
    struct Read {
        fuse_req_t request;
        size_t size;
    };

    // Called by libfuse under its lock of the request, so mutex_ is never held while anything of
    // the request but its answer is touched.
    static void onInterrupt(fuse_req_t request, void* self);

    void run();
    void wait(bool forMessages);
    // False, and nothing is done, when there is no message.
    bool answer(const Read& read);
    void wake();

    const int fd_;
    UniqueFd wake_{};

    // Guards all below.
    std::mutex mutex_{};
    std::deque<Read> waiting_{};
    bool closing_ = false;
    std::vector<char> message_{};

    std::thread thread_{};
};

}  // namespace diagsim
