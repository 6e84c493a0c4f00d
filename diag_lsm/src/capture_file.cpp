#include "diag_lsm/src/capture_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>

#include <tavrik/version.h>

#include "diag_lsm/src/StaticMutex.h"
#include "diag_lsm/src/diagnostics.h"

inline namespace tavrik_diag_lsm {

namespace {

constexpr uint64_t kDefaultLimit = uint64_t{256} << 20;

std::atomic<bool> capture_on{false};

// Constant while the capture is on.
pid_t capturing_process = 0;
int64_t wall_offset = 0;  // nanoseconds from the monotonic clock to 1970

// Guards the file and the order of the blocks. Only the file's own system calls are made under it.
StaticMutex capture_mutex;
int capture_file TAVRIK_GUARDED_BY(capture_mutex) = -1;
uint64_t capture_length TAVRIK_GUARDED_BY(capture_mutex) = 0;
uint64_t capture_limit TAVRIK_GUARDED_BY(capture_mutex) = kDefaultLimit;

// The begin times of the calls under way, reads excepted; 0: a free place. Blocks do not wait for
// calls that find no place.
int64_t under_way[16] TAVRIK_GUARDED_BY(capture_mutex);

// Blocks that wait for a call that began before them, in the order of their times.
using Waiting = std::multimap<int64_t, std::string>;
Waiting& waiting() TAVRIK_REQUIRES(capture_mutex) {
    static Waiting* const blocks = new Waiting;
    return *blocks;
}

// Fields of a block, little-endian.
class Block {
  public:
    void field(uint64_t value, int size) {
        for (int i = 0; i < size; ++i)
            bytes += static_cast<char>(value >> (8 * i));
    }
    void option(unsigned code, const std::string& value) {
        field(code, 2);
        field(value.size(), 2);
        bytes += value;
        bytes.append((4 - value.size() % 4) % 4, '\0');
    }
    // With its type in front and its length at both ends.
    std::string finished(uint32_t type) const {
        Block whole;
        const size_t length = bytes.size() + 16;
        whole.field(type, 4);
        whole.field(length, 4);
        whole.bytes += bytes;
        whole.field(0, 4);  // no more options
        whole.field(length, 4);
        return whole.bytes;
    }

  private:
    std::string bytes{};
};

// The section: who wrote it, and where.
std::string section_header() {
    utsname machine{};
    uname(&machine);
    Block block;
    block.field(0x1A2B3C4D, 4);
    block.field(1, 2);
    block.field(0, 2);
    block.field(~uint64_t{0}, 8);  // nobody knows its length yet
    block.option(2, machine.machine);
    block.option(3, std::string(machine.sysname) + ' ' + machine.release + ' ' + machine.version);
    block.option(4, std::string(program_invocation_short_name) + " " TAVRIK_VERSION);
    return block.finished(0x0A0D0D0A);
}

std::string interface_description() {
    Block block;
    block.field(147, 2);  // link type: the user's own
    block.field(0, 2);
    block.field(0, 4);
    block.option(2, "/dev/diag");
    block.option(9, "\x09");  // times are in nanoseconds
    return block.finished(1);
}

// Appends one block; truncates one that was written in part. Returns the reason if the capture
// ends, else "".
std::string append(iovec* parts, int count) TAVRIK_REQUIRES(capture_mutex) {
    size_t size = 0;
    for (int i = 0; i < count; ++i)
        size += parts[i].iov_len;
    if (capture_length + size > capture_limit) {
        return "capture ended: limit of " + std::to_string(capture_limit) + " bytes";
    }
    ssize_t written = 0;
    do {
        written = writev(capture_file, parts, count);
    } while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(size)) {
        capture_length += size;
        return {};
    }
    const int error = written < 0 ? errno : ENOSPC;
    if (ftruncate(capture_file, static_cast<off_t>(capture_length)) != 0) errno = error;
    return std::string("capture ended: ") + strerror(error);
}

void end_capture() TAVRIK_REQUIRES(capture_mutex) {
    capture_on.store(false, std::memory_order_release);
    if (capture_file >= 0) close(capture_file);
    capture_file = -1;
    waiting().clear();
}

void warn(const std::string& problem) {
    if (!problem.empty()) diag_logger()->warnf("%s", problem.c_str());
}

// The begin of the oldest call under way: later blocks wait. They do not wait for a long call,
// because a kill loses waiting blocks.
int64_t first_to_wait(int64_t now) TAVRIK_REQUIRES(capture_mutex) {
    constexpr int64_t kLongest = 10000000;
    int64_t first = INT64_MAX;
    for (const int64_t begin : under_way) {
        if (begin != 0 && now - begin < kLongest) first = std::min(first, begin);
    }
    return first;
}

std::string append_waiting(int64_t now) TAVRIK_REQUIRES(capture_mutex) {
    Waiting& blocks = waiting();
    const int64_t limit = first_to_wait(now);
    while (!blocks.empty() && blocks.begin()->first < limit) {
        std::string& block = blocks.begin()->second;
        iovec whole = {block.data(), block.size()};
        const std::string problem = append(&whole, 1);
        if (!problem.empty()) return problem;
        blocks.erase(blocks.begin());
    }
    return {};
}

// Copies a block only if it has to wait.
std::string append_in_order(int64_t time, int64_t now, iovec* parts, int count)
    TAVRIK_REQUIRES(capture_mutex) {
    if (waiting().empty() && time < first_to_wait(now)) return append(parts, count);
    std::string block;
    for (int i = 0; i < count; ++i)
        block.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    waiting().emplace(time, std::move(block));
    return append_waiting(now);
}

void leave(int64_t begin) TAVRIK_REQUIRES(capture_mutex) {
    if (begin == 0) return;
    int64_t* const place = std::find(std::begin(under_way), std::end(under_way), begin);
    if (place != std::end(under_way)) *place = 0;
}

// Refuses a pipe: it could block the recorded program, or end it by SIGPIPE.
int open_file(const char* path) {
    const int file =
        open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, 0666);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) return file;
    if (!S_ISFIFO(status.st_mode) && (ftruncate(file, 0) == 0 || !S_ISREG(status.st_mode)))
        return file;
    close(file);
    errno = ESPIPE;
    return -1;
}

uint64_t limit_from_environment() {
    const char* const text = secure_getenv("TAVRIK_CAPTURE_LIMIT");
    if (!text || *text < '0' || *text > '9') return kDefaultLimit;
    return strtoull(text, nullptr, 10);
}

}  // namespace

void capture_file_begin(const char* path) {
    std::string problem;
    {
        StaticMutexLock guard(capture_mutex);
        capture_file = open_file(path);
        if (capture_file < 0) problem = std::string("no capture: ") + path + ": " + strerror(errno);
        capture_limit = limit_from_environment();
        std::string header = section_header() + interface_description();
        iovec whole = {header.data(), header.size()};
        if (problem.empty()) problem = append(&whole, 1);
        capturing_process = getpid();
        wall_offset = capture_clock(CLOCK_REALTIME) - capture_clock(CLOCK_MONOTONIC);
        capture_on.store(true, std::memory_order_release);
        if (!problem.empty()) end_capture();
    }
    warn(problem);
}

int64_t capture_clock(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

bool capture_file_is_on() {
    return capture_on.load(std::memory_order_acquire) && getpid() == capturing_process;
}

int64_t capture_file_time(int64_t monotonic) { return wall_offset + monotonic; }

void capture_file_enter(int64_t begin) {
    StaticMutexLock guard(capture_mutex);
    int64_t* const place = std::find(std::begin(under_way), std::end(under_way), 0);
    if (place != std::end(under_way)) *place = begin;
}

void capture_file_append(int64_t begin, int64_t time, int64_t now, iovec* parts, int count) {
    std::string problem;
    {
        StaticMutexLock guard(capture_mutex);
        leave(begin);
        if (capture_file < 0) return;
        problem = append_in_order(time, now, parts, count);
        if (!problem.empty()) end_capture();
    }
    warn(problem);
}

}  // namespace tavrik_diag_lsm
