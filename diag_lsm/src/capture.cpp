#include "diag_lsm/src/capture.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/src/CancellationDisabled.h"
#include "diag_lsm/src/capture_file.h"
#include "diag_lsm/src/ioctl_records.h"

inline namespace tavrik_diag_lsm {

namespace {

constexpr size_t kBlockBegin = 28;  // of the block: up to the packet
constexpr size_t kEnvelope = 44;    // of the block: all but the packet and its padding
constexpr size_t kHeader = 32;      // of the packet: all but its data

// Restores errno for the caller of a recorded call. The file's calls are no cancellation points.
class Unnoticed {
  public:
    Unnoticed() : error(errno) {}
    ~Unnoticed() { errno = error; }
    Unnoticed(const Unnoticed&) = delete;
    Unnoticed& operator=(const Unnoticed&) = delete;

  private:
    const int error;
    const CancellationDisabled uncancelled{};
};

// Fields of fixed sizes, little-endian; no memory from the heap.
template <size_t capacity>
struct Fields {
    unsigned char bytes[capacity];
    size_t length = 0;

    void put(uint64_t value, int size) {
        for (int i = 0; i < size; ++i)
            bytes[length++] = static_cast<unsigned char>(value >> (8 * i));
    }
};

template <size_t capacity>
void put_block_begin(Fields<capacity>& fields, size_t size, int64_t time, size_t packet) {
    fields.put(6, 4);
    fields.put(size, 4);
    fields.put(0, 4);
    fields.put(static_cast<uint64_t>(time) >> 32, 4);
    fields.put(static_cast<uint64_t>(time), 4);
    fields.put(packet, 4);
    fields.put(packet, 4);
}

template <size_t capacity>
void put_block_end(Fields<capacity>& fields, size_t size, bool inbound) {
    fields.put(2, 2);  // flags: the direction
    fields.put(4, 2);
    fields.put(inbound ? 1 : 2, 4);
    fields.put(0, 4);  // no more options
    fields.put(size, 4);
}

// The size of the record that an ioctl's argument points to; 0 if there is none.
size_t record_size(unsigned long request) {
    switch (request) {
        case DIAG_IOCTL_REGISTER:
            return sizeof(registration_request);
        case DIAG_IOCTL_DELAYED_RSP_ID:
            return sizeof(delayed_rsp_id_request);
        case DIAG_IOCTL_REMOTE_DEVICES:
            return sizeof(uint16_t);
        case DIAG_IOCTL_SWITCH_LOGGING:
        case DIAG_IOCTL_VOTE_REAL_TIME:
        case DIAG_IOCTL_REAL_TIME_STATUS:
            return 4;
        default:
            return 0;
    }
}

}  // namespace

void capture_begin() {
    static std::atomic_flag decided = ATOMIC_FLAG_INIT;
    if (decided.test_and_set()) return;
    const Unnoticed unnoticed;
    const char* const path = secure_getenv("TAVRIK_CAPTURE");
    if (path && *path) capture_file_begin(path);
}

CapturedCall::CapturedCall(capture_kind kind_, uint32_t argument_)
    : kind(kind_),
      argument(argument_),
      begin(capture_file_is_on() ? capture_clock(CLOCK_MONOTONIC) : -1) {
    // A read counts at its return: no block waits for it.
    if (begin >= 0 && kind != CAPTURE_READ) capture_file_enter(begin);
}

int CapturedCall::end(int result, const void* data, size_t length) {
    if (begin < 0) return result;
    const int error = result < 0 ? errno : 0;
    const Unnoticed unnoticed;
    const int64_t now = capture_clock(CLOCK_MONOTONIC);
    const bool inbound = kind == CAPTURE_READ;
    const int64_t time = inbound ? now : begin;
    const size_t padding = (4 - length % 4) % 4;
    const size_t size = kEnvelope + kHeader + length + padding;

    Fields<kBlockBegin + kHeader> front;
    put_block_begin(front, size, capture_file_time(time), kHeader + length);
    put_header(front, {result, error, now - begin, length});
    Fields<20> behind;
    behind.put(0, static_cast<int>(padding));
    put_block_end(behind, size, inbound);
    iovec parts[] = {{front.bytes, front.length},
                     {const_cast<void*>(data), length},
                     {behind.bytes, behind.length}};
    capture_file_append(inbound ? 0 : begin, time, now, parts, 3);
    return result;
}

template <typename FieldsOfHeader>
void CapturedCall::put_header(FieldsOfHeader& fields, const outcome& ended) const {
    fields.put(1, 1);
    fields.put(kind, 1);
    fields.put(0, 2);
    fields.put(static_cast<uint64_t>(syscall(SYS_gettid)), 4);
    fields.put(static_cast<uint64_t>(ended.result), 4);
    fields.put(static_cast<uint64_t>(ended.error), 4);
    fields.put(argument, 4);
    fields.put(ended.length, 4);
    fields.put(static_cast<uint64_t>(ended.duration), 8);
}

CapturedIoctl::CapturedIoctl(unsigned long request_, const void* record_)
    : call(CAPTURE_IOCTL, static_cast<uint32_t>(request_)), request(request_), record(record_) {
    if (record) keep(record, record_size(request));
}

CapturedIoctl::CapturedIoctl(unsigned long request_, unsigned long value)
    : call(CAPTURE_IOCTL, static_cast<uint32_t>(request_)), request(request_), record(nullptr) {
    if (request != DIAG_IOCTL_SWITCH_LOGGING) return;
    const uint64_t wide = value;  // eight bytes: no record of an address has so many
    keep(&wide, sizeof wide);
}

int CapturedIoctl::end(int result) {
    if (record) keep_answer();
    return call.end(result, data, length);
}

void CapturedIoctl::keep(const void* from, size_t size) {
    if (!from || !call.isRecorded() || size > sizeof data - length) return;
    memcpy(data + length, from, size);
    length += size;
}

void CapturedIoctl::keep_answer() {
    switch (request) {
        case DIAG_IOCTL_REMOTE_DEVICES:
        case DIAG_IOCTL_REAL_TIME_STATUS:
            return keep(record, record_size(request));
        case DIAG_IOCTL_DELAYED_RSP_ID: {
            delayed_rsp_id_request asked;
            memcpy(&asked, record, sizeof asked);
            keep(asked.id, 2);
            return keep(asked.bytes_filled, sizeof *asked.bytes_filled);
        }
        default:
            return;
    }
}

}  // namespace tavrik_diag_lsm
