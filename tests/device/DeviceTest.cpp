// Tests that need a true character device. Run as root where diagsimd serves /dev/diag with
// processors 1 and 3, sends kLongestMessage bytes after its masks, and blocks writes until the
// client has read.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "diag_lsm/diag_lsm.h"

namespace {

constexpr size_t kLongestMessage = 100000;

// Uses the node without the client library. The masks are unread at first.
class Node : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_GE(node = open("/dev/diag", O_RDWR | O_CLOEXEC), 0); }
    void TearDown() override { close(node); }

    ssize_t readMessage() { return read(node, buffer, sizeof buffer); }

    int node = -1;
    unsigned char buffer[128 * 1024] = {};
};

TEST_F(Node, GivesEachMessageWithOneRead) {
    for (const ssize_t mask : {12, 16, 8})
        EXPECT_EQ(readMessage(), mask);
    EXPECT_EQ(readMessage(), static_cast<ssize_t>(kLongestMessage));
    EXPECT_EQ(open("/dev/diag", O_RDWR), -1);
    EXPECT_EQ(errno, EBUSY);
}

// Makes a blocking call on a thread of its own, ends it by signals and returns its errno.
template <typename Call>
int interrupted(Call call) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, nullptr);
    std::atomic<bool> ended{false};
    int error = 0;
    std::thread caller([&] {
        error = call() < 0 ? errno : 0;
        ended = true;
    });
    // A signal that arrives before the call is lost, so one is not enough.
    while (!ended) {
        pthread_kill(caller.native_handle(), SIGUSR2);
        poll(nullptr, 0, 1);
    }
    caller.join();
    return error;
}

TEST_F(Node, ASignalInterruptsAReadAndLosesNothing) {
    for (int i = 0; i < 4; ++i)
        ASSERT_GT(readMessage(), 0);
    EXPECT_EQ(interrupted([this] { return readMessage(); }), EINTR);
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_DEINIT), 1);
    EXPECT_EQ(readMessage(), 4);
    EXPECT_EQ(buffer[0], DIAG_TYPE_DEINIT);
}

TEST_F(Node, AWriteWaitsUntilEverythingIsReadOrASignalInterruptsIt) {
    const unsigned char response[] = {DIAG_TYPE_PKT_RESPONSE, 0, 0, 0, 0x4B};
    const auto send = [&] { return write(node, response, sizeof response); };
    EXPECT_EQ(interrupted(send), EINTR);
    ssize_t result = -1;
    std::thread writer([&] { result = send(); });
    for (int i = 0; i < 4; ++i)
        EXPECT_GT(readMessage(), 0);
    writer.join();
    EXPECT_EQ(result, 0);
}

TEST_F(Node, TakesIoctlsByValueAndByPointer) {
    int mode = DIAG_MODE_CALLBACK;
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_SWITCH_LOGGING, &mode), 1);
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_SWITCH_LOGGING, DIAG_MODE_USB), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_SWITCH_LOGGING, 0x1000), -1);
    EXPECT_EQ(errno, EFAULT);

    uint16_t id = 0;
    uint32_t count = 0;
    struct {
        uint16_t* id;
        uint32_t size;
        uint32_t* count;
    } record{&id, sizeof id, &count};
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_DELAYED_RSP_ID, &record), 0);
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_DELAYED_RSP_ID, &record), 0);
    EXPECT_GE(id, 2);
    EXPECT_EQ(count, sizeof id);

    uint16_t mask = 0;
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_REMOTE_DEVICES, &mask), 1);
    EXPECT_EQ(mask, 5);
    int status = 0;
    EXPECT_EQ(ioctl(node, DIAG_IOCTL_REAL_TIME_STATUS, &status), 0);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(ioctl(node, 77, 0), -1);
    EXPECT_EQ(errno, ENOTTY);
}

}  // namespace
