#include "diag_lsm/device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "diag_lsm/src/CancellationDisabled.h"
#include "diag_lsm/src/capture.h"

inline namespace tavrik_diag_lsm {

namespace {

constexpr int kLastStandardStream = 2;

// Occupies the descriptors of closed standard streams for a scope. An O_PATH descriptor fails reads
// and writes with EBADF, so to other threads the streams stay closed.
class StandardStreamsOccupied {
  public:
    StandardStreamsOccupied() {
        int handle = 0;
        do {
            handle = open("/", O_PATH | O_CLOEXEC);
            if (handle >= 0 && handle <= kLastStandardStream) occupied[handle] = true;
        } while (handle >= 0 && handle <= kLastStandardStream);
        if (handle >= 0) close(handle);
    }
    ~StandardStreamsOccupied() {
        const int error = errno;
        for (int handle = 0; handle <= kLastStandardStream; ++handle) {
            if (occupied[handle] && isStillOurs(handle)) close(handle);
        }
        errno = error;
    }
    StandardStreamsOccupied(const StandardStreamsOccupied&) = delete;
    StandardStreamsOccupied& operator=(const StandardStreamsOccupied&) = delete;

  private:
    // Another thread may have put a stream of its own there meanwhile.
    static bool isStillOurs(int handle) {
        const int flags = fcntl(handle, F_GETFL);
        return flags >= 0 && (flags & O_PATH) != 0;
    }

    bool occupied[kLastStandardStream + 1] = {};
};

// Repeats a system call while signals interrupt it. The limit keeps a driver that always fails with
// EINTR from hanging its caller.
template <typename Call>
int uninterrupted(Call call) {
    constexpr int kMaxTries = 1000;
    const CancellationDisabled uncancelled;
    int result = 0;
    for (int tries = 0; tries < kMaxTries; ++tries) {
        result = static_cast<int>(call());
        if (result != -1 || errno != EINTR) break;
    }
    return result;
}

}  // namespace

int diag_device_open(void) {
    const CancellationDisabled uncancelled;
    const StandardStreamsOccupied kept_free;
    capture_begin();
    constexpr int kFlags = O_RDWR | O_CLOEXEC;
    return uninterrupted([] {
        CapturedCall captured(CAPTURE_OPEN, kFlags);
        return captured.end(open("/dev/diag", kFlags));
    });
}

int diag_device_read(int handle, unsigned char* buffer, size_t size) {
    CapturedCall captured(CAPTURE_READ);
    const int count = static_cast<int>(read(handle, buffer, size));
    return captured.end(count, buffer, count > 0 ? static_cast<size_t>(count) : 0);
}

int diag_device_write(int handle, const unsigned char* buffer, size_t size) {
    return uninterrupted([=] {
        CapturedCall captured(CAPTURE_WRITE);
        return captured.end(static_cast<int>(write(handle, buffer, size)), buffer, size);
    });
}

int diag_device_ioctl(int handle, unsigned long request, void* argument) {
    return uninterrupted([=] {
        CapturedIoctl captured(request, argument);
        return captured.end(ioctl(handle, request, argument));
    });
}

int diag_device_ioctl(int handle, unsigned long request, unsigned long argument) {
    return uninterrupted([=] {
        CapturedIoctl captured(request, argument);
        return captured.end(ioctl(handle, request, argument));
    });
}

int diag_device_close(int handle) {
    const CancellationDisabled uncancelled;
    CapturedCall captured(CAPTURE_CLOSE);
    return captured.end(close(handle));
}

}  // namespace tavrik_diag_lsm
