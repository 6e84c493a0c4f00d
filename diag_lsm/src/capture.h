// Records all calls on the device node in the file that the environment names.
//
// TAVRIK_CAPTURE=FILE starts the capture when the device is first opened; TAVRIK_CAPTURE_LIMIT
// (bytes) ends it. docs/capture.md describes the format. Any thread. A failure ends the capture
// with one warning of the logger "DIAG". It never affects the recorded call: results and errno
// stay.
//
// No lock is held across a call into the driver. Blocks are written whole and in the order of the
// calls; a read counts at its return, any other call at its begin. Therefore a block that belongs
// after a call under way waits in memory, for 10 ms at most. A forked child records nothing.
#pragma once

#include <cstddef>
#include <cstdint>

inline namespace tavrik_diag_lsm {

enum capture_kind : uint8_t {
    CAPTURE_OPEN = 1,
    CAPTURE_CLOSE,
    CAPTURE_READ,
    CAPTURE_WRITE,
    CAPTURE_IOCTL
};

// The first call decides whether calls are recorded and begins the file. Requires that descriptors
// 0 to 2 are in use.
void capture_begin();

// One call on the node. Construct it before the call and end it after the call.
class CapturedCall {
  public:
    // `argument`: the flags of an open, the request of an ioctl, else 0.
    explicit CapturedCall(capture_kind kind, uint32_t argument = 0);

    // Records the call with its result, errno and data. Returns the result; keeps errno.
    int end(int result, const void* data = nullptr, size_t length = 0);

    bool isRecorded() const { return begin >= 0; }

  private:
    struct outcome {
        int result;
        int error;
        int64_t duration;
        size_t length;
    };

    template <typename FieldsOfHeader>
    void put_header(FieldsOfHeader& fields, const outcome& ended) const;

    const capture_kind kind;
    const uint32_t argument;
    const int64_t begin;  // monotonic nanoseconds; negative: not recorded
};

// One ioctl. Also keeps the record that the argument points to, before and after the call.
class CapturedIoctl {
  public:
    CapturedIoctl(unsigned long request, const void* record);
    // The argument is a number.
    CapturedIoctl(unsigned long request, unsigned long value);
    int end(int result);

  private:
    void keep(const void* from, size_t size);
    void keep_answer();

    CapturedCall call;
    const unsigned long request;
    const void* const record;
    unsigned char data[64];
    size_t length = 0;
};

}  // namespace tavrik_diag_lsm
