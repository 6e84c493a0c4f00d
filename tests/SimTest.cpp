// The simulated device as a client of the node sees it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include "tests/SimSupport.h"
#include "tests/Support.h"

namespace diagsim {
namespace {

const Bytes kEventReport{0x60, 0};

Bytes logMask(uint8_t bits) {
    Bytes request{0x73, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0xA4, 6, 0, 0};
    request.resize(16 + (1700 + 7) / 8, 0);
    request[16 + 200] = bits;
    return request;
}

// Makes a call on a thread of its own. The constructor returns when the call blocks or has ended.
class BlockedCall {
  public:
    explicit BlockedCall(std::function<long()> call) : thread_([=] { make(call); }) {
        eventually([this] { return ended() || (id_ != 0 && isAtRest(id_)); });
    }
    ~BlockedCall() { interrupt(); }
    bool ended() const { return error_ >= 0; }
    // The call's errno, 0 for success.
    int error() {
        if (thread_.joinable()) thread_.join();
        return error_;
    }
    // Sends signals until the call ends; returns its errno.
    int interrupt() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        while (!ended()) {
            pthread_kill(thread_.native_handle(), SIGUSR1);
            std::this_thread::yield();
        }
        return error();
    }

  private:
    void make(const std::function<long()>& call) {
        id_ = static_cast<int>(syscall(SYS_gettid));
        error_ = call() < 0 ? errno : 0;
    }

    std::atomic<int> id_{0}, error_{-1};
    std::thread thread_;
};

class Client : public testing::Test {
  protected:
    void TearDown() override {
        if (fd_ >= 0) closeNode();
        Device::instance().unplug();
    }

    // Opens a device with this scenario, reads its masks and switches to callback mode.
    void start(const std::string& json) {
        device_.plug(Scenario::parse(json, "test.json"));
        openNode();
        ASSERT_EQ(switchMode(6), 1);
    }
    void openNode() {
        fd_ = ::open("/dev/diag", O_RDWR);
        ASSERT_GE(fd_, 0);
        for (const int type : {1, 2, 4})
            ASSERT_EQ(readBuffer().at(0), type);
    }
    void closeNode() { EXPECT_EQ(::close(std::exchange(fd_, -1)), 0); }

    int switchMode(int mode) const { return ::ioctl(fd_, 7, &mode); }

    Bytes readBuffer() const {
        Bytes buffer(100000);
        const ssize_t count = ::read(fd_, buffer.data(), buffer.size());
        EXPECT_GE(count, 0) << errno;
        buffer.resize(count < 0 ? 0 : static_cast<size_t>(count));
        return buffer;
    }

    // The payloads of the frames in a buffer of one chunk.
    std::vector<Bytes> readFrames() const {
        const Bytes buffer = readBuffer();
        EXPECT_EQ(wordAt(buffer, 0, 4), 32u);
        EXPECT_EQ(wordAt(buffer, 4, 4), 1u);
        EXPECT_EQ(wordAt(buffer, 8, 4), buffer.size() - 12);
        return unframe(Bytes(buffer.begin() + 12, buffer.end()));
    }

    long send(const Bytes& request, uint32_t type = 128) const {
        Bytes buffer;
        appendWord(buffer, type, 4);
        append(buffer, request);
        return ::write(fd_, buffer.data(), buffer.size());
    }

    Bytes ask(const Bytes& request) const {
        EXPECT_EQ(send(request), 0);
        return readFrames().at(0);
    }

    // A write that the scenario may block, on a thread of its own.
    BlockedCall blockedSend() {
        return BlockedCall([this] { return send(kEventReport); });
    }
    bool waits() { return device_.waitForTrace("write waits", 1, kPatienceMs); }

    Device& device_ = Device::instance();
    int fd_ = -1;
};

TEST_F(Client, RefusesWritesThatTheDriverRefuses) {
    start(R"({"remote_mask": 2})");
    const std::pair<Bytes, uint32_t> refused[] = {{{}, 128},
                                                  {{1, 2}, 64},
                                                  {{0xFD, 0xFF, 0xFF, 0xFF, 0x60, 0}, 128},
                                                  {{0xFE, 0xFF, 0xFF, 0xFF}, 128}};
    for (const auto& [data, type] : refused) {
        errno = 0;
        EXPECT_EQ(send(data, type), -1) << hexDump(data);
        EXPECT_EQ(errno, EINVAL) << hexDump(data);
    }
    EXPECT_EQ(::write(fd_, "abc", 3), -1);
    EXPECT_EQ(send({0xFE, 0xFF, 0xFF, 0xFF, 0x60, 0}), 0) << "a processor in the mask";
    EXPECT_EQ(send({0x4B, 1}, 3), 0);
    EXPECT_EQ(switchMode(2), 1);
    EXPECT_EQ(send(kEventReport), -1) << "outside of callback mode";
    EXPECT_TRUE(device_.waitForTrace("(refused: ", 6, 0));
}

TEST_F(Client, RefusesIoctlsAndASecondClient) {
    start("{}");
    EXPECT_EQ(::ioctl(fd_, 77, 0), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(::ioctl(fd_, 7, 6), -1) << "by value";
    EXPECT_EQ(switchMode(5), -1);
    EXPECT_EQ(::open("/dev/diag", O_RDWR), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(device_.waitForTrace("(refused: ", 4, 0));
}

TEST_F(Client, HonoursReadOnlyAccessAndOpenFlags) {
    device_.plug({});
    fd_ = ::open("/dev/diag", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(readBuffer().size(), 12u);
    EXPECT_EQ(send(kEventReport), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(switchMode(6), 1) << "ioctls need no write access";
    EXPECT_EQ(::fcntl(fd_, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(fd_, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_TRUE(device_.waitForTrace("open /dev/diag (O_RDONLY|O_CLOEXEC) => ok", 1, 0));
    EXPECT_TRUE(device_.waitForTrace("EBADF (refused: opened with O_RDONLY)", 1, 0));
}

TEST_F(Client, HonoursWriteOnlyAccessAndOpenFlags) {
    device_.plug({});
    fd_ = ::open("/dev/diag", O_WRONLY | O_NONBLOCK);
    char byte = 0;
    EXPECT_EQ(::read(fd_, &byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(send({0x4B}, 3), 0);
    EXPECT_EQ(::fcntl(fd_, F_GETFD), 0);
    EXPECT_EQ(::fcntl(fd_, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_TRUE(device_.waitForTrace("open /dev/diag (O_WRONLY|O_NONBLOCK) => ok", 1, 0));
}

TEST_F(Client, InterruptedCallsDoNothing) {
    device_.plug(Scenario::parse(
        R"({"open": {"eintr": 2}, "write": {"eintr": 1}, "ioctl": {"eintr": 1},
            "requests": {"event_report": {"on": [1], "short": 1}}})",
        "test.json"));
    const auto interrupted = [](long result) { return result == -1 && errno == EINTR; };
    EXPECT_TRUE(interrupted(::open("/dev/diag", O_RDWR)));
    EXPECT_TRUE(interrupted(::open("/dev/diag", O_RDWR)));
    openNode();
    EXPECT_TRUE(interrupted(switchMode(6)));
    EXPECT_TRUE(interrupted(::ioctl(fd_, 9, 0))) << "each ioctl";
    EXPECT_EQ(switchMode(6), 1);
    EXPECT_TRUE(interrupted(send(kEventReport)));
    EXPECT_EQ(ask(kEventReport).size(), 1u) << "still the first request";
}

TEST_F(Client, MalformedRequestsGetTheErrorResponse) {
    start("{}");
    Bytes wrongCount = logMask(0x20);
    wrongCount[12] ^= 1;
    for (Bytes request :
         {Bytes{1}, Bytes{0x60, 0, 0}, wrongCount, Bytes{0x73}, Bytes{0x73, 0, 0, 0, 9, 0, 0, 0},
          Bytes{0x4B, 0x0C, 5, 4}, Bytes{0x4B, 0x0D, 4, 4}, Bytes{0x4B, 0x12, 0x2B, 0}}) {
        const Bytes answer = ask(request);
        request.resize(std::min<size_t>(16, request.size()));
        request.insert(request.begin(), 19);
        EXPECT_EQ(answer, request);
    }
    EXPECT_TRUE(device_.waitForTrace("unknown command", 1, 0));
    EXPECT_TRUE(device_.waitForTrace("unknown subsystem", 3, 0));
    EXPECT_FALSE(device_.waitForTrace("shorter than its header", 2, 0));
}

TEST_F(Client, LogPacketsFlowFromTheirMaskToADisable) {
    start(R"({"adsp": {"collecting": true, "period_us": 200000}})");
    EXPECT_EQ(wordAt(ask(logMask(0x20)), 4, 4), 3u);
    const Bytes packet = readFrames().at(0);
    EXPECT_EQ(packet.size(), 4u + 92u);
    EXPECT_EQ(wordAt(packet, 4 + 16, 4), 0u) << "no event was asked for";
    EXPECT_EQ(ask({0x73, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}).size(), 12u);
    pollfd more{fd_, POLLIN, 0};
    EXPECT_EQ(::poll(&more, 1, 400), 0);
}

class Clock : public Client {
  protected:
    // The time in a response, and the host's time before and after it: nanoseconds since 1980.
    struct Sample {
        int64_t before, adsp, after;
    };
    static int64_t host() {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::nanoseconds(now).count() - 315964800 * int64_t{1000000000};
    }
    Sample sample() const {
        const int64_t before = host();
        const uint64_t time = wordAt(ask({0x4B, 0x12, 0x2A, 0, 0}), 4, 8);
        return {before, static_cast<int64_t>((time >> 16) * 1250000 + (time & 0xFFFF) * 25),
                host()};
    }
};

TEST_F(Clock, HasAnOffsetAndADrift) {
    const int64_t plugged = host();
    start(R"({"adsp": {"clock_offset_ms": -7200000, "clock_drift_ppm": 1000000}})");
    const Sample first = sample(), second = sample();
    const int64_t offset = -7200000 * int64_t{1000000}, most = 2 * (first.after - plugged);
    EXPECT_GE(first.adsp, first.before + offset);
    EXPECT_LE(first.adsp, plugged + offset + most);
    EXPECT_GE(second.adsp - first.adsp, 2 * (second.before - first.after) - 5000);
    EXPECT_LE(second.adsp - first.adsp, 2 * (second.after - first.before) + 5000);
}

TEST_F(Clock, StartsIn1980) {
    start(R"({"adsp": {"clock_offset_ms": -1890000000000}})");
    EXPECT_EQ(sample().adsp, 0);
}

TEST_F(Client, TheLoggingModeOutlivesItsClient) {
    start(R"({"adsp": {"collecting": true, "ignore_log_mask": true}})");
    closeNode();
    openNode();
    EXPECT_EQ(readFrames().at(0).at(0), 0x10) << "a log packet, though no mode was asked for";
    EXPECT_EQ(switchMode(1), 1);
    closeNode();
    EXPECT_TRUE(device_.waitForTrace("close => 0 (left in callback mode)", 1, 0));
    EXPECT_FALSE(device_.waitForTrace("close => 0 (left in callback mode)", 2, 0));
}

TEST_F(Client, AnAnswerWithoutDelayIsThereWhenTheWriteReturns) {
    start(R"({"requests": {"event_report": {"on": [1, 3], "delay_ms": 1}}})");
    for (int i = 1; i <= 4; ++i) {
        ASSERT_EQ(send(kEventReport), 0);
        pollfd answer{fd_, POLLIN, 0};
        EXPECT_EQ(::poll(&answer, 1, i % 2 == 0 ? 0 : kPatienceMs), 1);
        EXPECT_EQ(readFrames().at(0), (Bytes{0x60, 0, 0}));
    }
}

TEST_F(Client, DropsBuffersBeyondTheQueueLimit) {
    start(R"({"queue_limit": 3,
        "requests": {"event_report": {"on": [1], "log_behind": "own_buffer", "log_count": 10}}})");
    ASSERT_EQ(send(kEventReport), 0);
    EXPECT_TRUE(device_.waitForTrace("=> lost, queue full (8 so far)", 1, kPatienceMs));
    for (const int command : {0x60, 0x10, 0x10})
        EXPECT_EQ(readFrames().at(0).at(0), command);
    EXPECT_EQ(ask(kEventReport).at(0), 0x60) << "reading made room; nothing else is queued";
    closeNode();
    EXPECT_EQ(device_.trace().back(), "host    close => 0 (left in callback mode, 8 buffers lost)");
}

TEST_F(Client, OtherFilesOpenAsUsual) {
    const std::string name = testing::TempDir() + "SimTest" + std::to_string(getpid());
    fd_ = ::open(name.c_str(), O_CREAT | O_RDWR, 0400);
    struct stat file {};
    EXPECT_TRUE(::fstat(fd_, &file) == 0 && ::unlink(name.c_str()) == 0) << errno;
    EXPECT_EQ(file.st_mode & 0777, 0400u);
}

TEST_F(Client, FramesAreEscapedAndChecked) {
    EXPECT_EQ(checkSequence({'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0x906E);
    EXPECT_EQ(frame({0x7E, 0x7D, 0x60}), (Bytes{0x7D, 0x5E, 0x7D, 0x5D, 0x60, 0xB5, 0x75, 0x7E}));
    EXPECT_EQ(frame({0x60, 0x54}), (Bytes{0x60, 0x54, 0xB3, 0x7D, 0x5E, 0x7E}))
        << "check bytes too";
    Bytes all;
    for (int i = 0; i < 256; ++i)
        all.push_back(static_cast<uint8_t>(i));
    start("{}");
    device_.deliverFrame(all);
    EXPECT_EQ(readFrames(), std::vector<Bytes>{all});
    const Bytes large(100000, 0x7D);
    device_.deliver(large);
    EXPECT_EQ(readBuffer(), large) << "one read returns the whole message";
}

TEST_F(Client, ResponsesMaySplitOrShareABuffer) {
    start(R"({"requests": {"event_report": [
        {"on": [1], "remote_in_front": "7E", "remote_behind": "01"},
        {"on": [2], "split": "chunks", "split_at": 2},
        {"on": [3], "split": "buffers"},
        {"on": [4], "log_behind": "same_chunk"},
        {"on": [5], "write_result": -1, "write_taken": true}]}})");
    const Bytes answer = frame({0x60, 0, 0}), half(answer.begin(), answer.begin() + 3);
    const auto chunk = [](const Bytes& data, size_t from = 0) {
        return Chunk{Bytes(data.begin() + static_cast<long>(from), data.end()), {}, {}};
    };
    Chunk inFront = chunk(frame({0x7E})), behind = chunk(frame({1}));
    const Bytes expected = {32, 0, 0, 0, 1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 9};
    EXPECT_EQ(chunkBuffer({{{9}, 0xFFFFFFFE, {}}}), expected);
    inFront.token = behind.token = 0xFFFFFFFF;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(send(kEventReport), 0);
    EXPECT_EQ(readBuffer(), chunkBuffer({inFront, chunk(answer), behind}));
    EXPECT_EQ(readBuffer(), chunkBuffer({chunk({0x60, 0}), chunk(answer, 2)}));
    EXPECT_EQ(readBuffer(), chunkBuffer({chunk(half)}));
    EXPECT_EQ(readBuffer(), chunkBuffer({chunk(answer, 3)}));
    ASSERT_EQ(send(kEventReport), 0);
    EXPECT_EQ(readBuffer().at(4), 1) << "the number of chunks";
    EXPECT_EQ(send(kEventReport), -1);
    EXPECT_EQ(readFrames().at(0), (Bytes{0x60, 0, 0}));
}

TEST_F(Client, CloseLeavesABlockedReadBlocked) {
    if (kThreadSanitized) GTEST_SKIP() << "it reports a close during another thread's read";
    start("{}");
    const long descriptors = openDescriptors() - 3;  // the client's, the device's, the wake-up
    char byte;
    BlockedCall reader([&, node = fd_] { return ::read(node, &byte, 1); });
    closeNode();
    start("{}");
    EXPECT_EQ(ask(kEventReport).size(), 3u) << "the next session gets its responses";
    closeNode();
    EXPECT_FALSE(reader.ended());
    EXPECT_EQ(reader.interrupt(), EINTR);
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(Client, AWriteMayBlockUntilEverythingIsRead) {
    start(R"({"write": {"blocks_until_read": true}})");
    device_.deliverFrame({1});
    device_.deliverFrame({2});
    BlockedCall whole = blockedSend();
    ASSERT_TRUE(waits());
    EXPECT_EQ(readFrames().at(0), Bytes{1});
    EXPECT_FALSE(device_.waitForTrace("event report request", 1, 0)) << "one buffer is unread";
    EXPECT_EQ(readFrames().at(0), Bytes{2});
    EXPECT_EQ(whole.error(), 0);
    EXPECT_EQ(readFrames().at(0).at(0), 0x60);
}

TEST_F(Client, ABlockedWriteCanBeInterrupted) {
    start(R"({"write": {"blocks_until_read": true}})");
    device_.deliverFrame({3});
    BlockedCall interrupted = blockedSend();
    ASSERT_TRUE(waits());
    EXPECT_EQ(interrupted.interrupt(), EINTR);
    fcntl(fd_, F_SETFL, O_NONBLOCK);
    EXPECT_TRUE(send(kEventReport) == -1 && errno == EAGAIN) << errno;
    fcntl(fd_, F_SETFL, 0);
    EXPECT_EQ(readFrames().at(0), Bytes{3});
}

TEST_F(Client, ABlockedWriteEndsWithTheDevice) {
    start(R"({"write": {"blocks_until_read": true},
        "requests": {"event_report": {"delay_ms": 100, "hang_up": true}}})");
    ASSERT_EQ(send(kEventReport), 0);
    device_.deliverFrame({4});
    EXPECT_EQ(blockedSend().error(), ENODEV);
}

TEST_F(Client, ABlockedWriteEndsWithAClose) {
    start(R"({"write": {"blocks_until_read": true}})");
    device_.deliverFrame({5});
    BlockedCall closed = blockedSend();
    ASSERT_TRUE(waits());
    closeNode();
    EXPECT_EQ(closed.error(), EBADF);
}

TEST_F(Client, AWriteMayReturnAfterTheNextRead) {
    start(R"({"write": {"returns_after_read": true}})");
    BlockedCall first = blockedSend();
    ASSERT_TRUE(device_.waitForTrace("event report response", 1, kPatienceMs));
    EXPECT_FALSE(first.ended());
    EXPECT_EQ(readFrames().at(0).at(0), 0x60);
    EXPECT_FALSE(first.ended());
    char byte;
    BlockedCall reader([&] { return ::read(fd_, &byte, 1); });
    EXPECT_EQ(first.error(), 0);
    EXPECT_EQ(reader.interrupt(), EINTR);
    BlockedCall interrupted = blockedSend();
    ASSERT_TRUE(device_.waitForTrace("event report response", 2, kPatienceMs));
    EXPECT_EQ(interrupted.interrupt(), 0) << "the driver has taken it";
}

}  // namespace
}  // namespace diagsim
