// A record of all calls on the device node, in the file that the environment names.
//
// TAVRIK_CAPTURE=FILE turns it on when the device is first opened; TAVRIK_CAPTURE_LIMIT (bytes)
// ends it. docs/capture.md has the format. Any thread. A failure costs the capture and one warning
// of the logger "DIAG", never the call that is recorded: results and errno stay as they are.
//
// Nothing here holds a lock across a call into the driver. Blocks are written whole, in the order
// of the calls: of a read its return counts, of the others their begin. So a block that belongs
// behind a call under way waits in memory, for 10 ms at most. A forked child records nothing.
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

// Decides, at the first call, whether calls are recorded, and begins the file. Wants descriptors 0
// to 2 to be taken.
void capture_begin();

// One call on the node: constructed in front of it, ended behind it.
class CapturedCall {
  public:
    // `argument` is the flags of an open, the request of an ioctl, else 0.
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

// One ioctl: also keeps what the argument points to, from before the call and from after it.
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
