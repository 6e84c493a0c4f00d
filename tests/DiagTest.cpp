// The DIAG session: connection, request queue, response hand-over, frames, log masks.
#include <future>
#include <thread>

#include "diag_lsm/diag_lsm.h"
#include "tests/SimSupport.h"
#include "tests/Support.h"

using tavrik::DIAG;
using testing::HasSubstr;

namespace {

constexpr unsigned short kLogCode = 0x1645;

class Answer : public DIAG::ResponseListener {
  public:
    explicit Answer(bool good = true) : good_(good) {}
    bool onResponse(const unsigned char* rsp, int len) override {
        frame = Bytes(rsp, rsp + len);
        return good_;
    }
    Bytes frame;

  private:
    bool good_;
};

struct Log : DIAG::LogListener, Collector<Bytes> {
    void onLog(const unsigned char* record) override {
        put(Bytes(record, record + 92));  // what a decoder may read
    }
};

Bytes loopback() { return {0x4B, 0x12, 0x2A, 0x00, 0x00}; }

bool send(Answer& answer) {
    Bytes request = loopback();
    return DIAG::instance()->sendRequest(request.data(), static_cast<int>(request.size()), &answer);
}
bool exchange(Answer& answer) { return send(answer) && DIAG::instance()->awaitResponse(answer); }

// Hands over a chunk as the reader does. The buffer has no spare capacity, so the address sanitizer
// sees a read beyond its end.
void receive(const Bytes& data) {
    std::vector<unsigned char> buffer(data);
    buffer.shrink_to_fit();
    DIAG::onDIAGData(buffer.data(), static_cast<int>(buffer.size()), DIAG::instance());
}

std::string warnings(const Bytes& data) {
    return outputOf([&] { receive(data); });
}

class Session : public SimTest {
  protected:
    // Disconnects a session that a test left connected.
    void TearDown() override {
        if (device().isOpen()) diag->unregisterLogListener(0xFFFF, &log);
        SimTest::TearDown();
    }
    // Connects, and disconnects as idle.
    void cycle(unsigned short logCode = kLogCode) {
        ASSERT_TRUE(diag->registerLogListener(logCode, &log));
        ASSERT_TRUE(diag->unregisterLogListener(logCode, &log));
    }

    DIAG* const diag = DIAG::instance();
    Log log;
    Answer answer;
};

const char* const kSetup[] = {"ioctl 7 logging mode by pointer: 6", "message mask request",
                              "event report request", "log disable request", "log ranges request"};

}  // namespace

TEST_F(Session, ConnectsOnFirstUseDisconnectsWhenIdleAndConnectsAgain) {
    EXPECT_TRUE(exchange(answer));
    EXPECT_EQ(answer.frame.size(), 15u) << "check bytes and flag are part of the frame";
    EXPECT_EQ(answer.frame.back(), 0x7E);
    Log other;
    EXPECT_TRUE(diag->registerLogListener(kLogCode, &log));
    EXPECT_FALSE(diag->registerLogListener(kLogCode, &other)) << "a code has one listener";
    EXPECT_FALSE(diag->unregisterLogListener(kLogCode, &other)) << "not the code's listener";
    EXPECT_FALSE(diag->unregisterLogListener(kLogCode + 1, &log));
    EXPECT_TRUE(device().isOpen());
    EXPECT_TRUE(diag->unregisterLogListener(kLogCode, &log));
    EXPECT_FALSE(device().isOpen());
    EXPECT_TRUE(exchange(answer));
    for (const char* step : kSetup)
        EXPECT_EQ(lines(step).size(), 2u) << step;
    EXPECT_FALSE(diag->unregisterLogListener(kLogCode, &log)) << "unknown, but it disconnects";
    EXPECT_FALSE(device().isOpen());
}

TEST_F(Session, KeepsTheModeSwitchFormThatTheDriverAccepts) {
    plug(R"({"mode_switch": {"result": 0}})");
    cycle();
    EXPECT_TRUE(lines("by value").empty()) << "0 is no refusal";
    plug(R"({"mode_switch": {"accepts": "value"}})");
    EXPECT_TRUE(exchange(answer));
    diag->unregisterLogListener(kLogCode, &log);
    EXPECT_TRUE(exchange(answer));
    EXPECT_EQ(lines("ioctl 7 logging mode by pointer").size(), 1u) << "tried once per process";
    EXPECT_EQ(lines("by value: 6 => 1").size(), 2u);
    EXPECT_EQ(lines("by value: 1 => 1").size(), 1u);
}

TEST_F(Session, OneRequestIsOutstandingAtATime) {
    plug(R"({"requests": {"loopback": {"delay_ms": 30}}})");
    Answer first, second, third(false);
    for (Answer* each : {&first, &second, &third})
        EXPECT_TRUE(send(*each));
    EXPECT_FALSE(diag->sendRequest(loopback().data(), 0, &third)) << "empty request";
    EXPECT_TRUE(diag->awaitResponse(second));
    EXPECT_TRUE(first.accepted) << "responses come in order";
    const Stopwatch watch;
    EXPECT_TRUE(diag->awaitResponse(first));
    EXPECT_FALSE(diag->awaitResponse(third));
    EXPECT_LT(watch.milliseconds(), 200) << "an early or refused response costs no time-out";
    const auto request = testing::StartsWith("host"), response = testing::StartsWith("adsp");
    EXPECT_THAT(lines("loopback re"),
                testing::ElementsAre(request, response, request, response, request, response));
}

TEST_F(Session, AFailedWriteFailsOnlyItsOwnRequest) {
    plug(R"({"requests": {"loopback": [{"on": [1], "delay_ms": 20},
                                       {"on": [2, 4], "write_result": 5}]}})");
    Answer first, refused, last;
    for (Answer* each : {&first, &refused, &last})
        EXPECT_TRUE(send(*each));
    EXPECT_TRUE(diag->awaitResponse(last));
    EXPECT_TRUE(diag->awaitResponse(first));
    EXPECT_FALSE(refused.accepted);
    EXPECT_FALSE(diag->awaitResponse(refused));
    EXPECT_FALSE(send(first));
    EXPECT_FALSE(first.accepted) << "a new request resets the listener";
    EXPECT_TRUE(exchange(last));
}

// Stray frames answer most of the requests. The test is that every request is sent and that no
// caller hangs.
TEST_F(Session, AWriteMayBlockUntilTheReaderReads) {
    plug(R"({"write": {"blocks_until_read": true, "returns_after_read": true},
             "requests": {"loopback": {"frame_behind": "7900"}}})");
    outputOf([] {
        inParallel(4, [](int) {
            for (int round = 0; round < 20; ++round) {
                Answer each;
                exchange(each);
            }
        });
    });
    EXPECT_EQ(lines("host    loopback request").size(), 80u);
}

TEST_F(Session, InterruptedCallsAreRepeated) {
    plug(R"({"open": {"eintr": 2}, "write": {"eintr": 3}, "ioctl": {"eintr": 2}})");
    cycle();
    EXPECT_EQ(lines("EINTR").size(), 2u + 3u + 3u * 2u) << "of ioctls 7, 1 and 9";
    EXPECT_TRUE(lines("by value").empty()) << "an interruption is no refusal of the form";
    EXPECT_TRUE(lines("left in callback mode").empty());
}

// The late response must not reach the stack of the canceled thread.
TEST_F(Session, ACancelledCallerWithdrawsItsListener) {
    plug(R"({"requests": {"loopback": {"on": [1], "delay_ms": 50}}})");
    std::thread caller([] {
        Answer own;
        exchange(own);
    });
    ASSERT_TRUE(seen("host    loopback request"));
    pthread_cancel(caller.native_handle());
    caller.join();
    EXPECT_TRUE(exchange(answer)) << "the next request gets its own response";
    EXPECT_EQ(lines("adsp    loopback response").size(), 2u);
}

// --- Frames -----------------------------------------------------------------------------------

TEST_F(Session, FramesAnswerRequestsInOrder) {
    plug(R"({"requests": {"loopback": {"drop": true}}})");
    Answer escaped, lone, third;
    for (Answer* each : {&escaped, &lone, &third})
        EXPECT_TRUE(send(*each));
    receive({75, 0x7D, 0x5E, 0x7D, 0x5D, 0x7D, 0x7E, 1, 0x7E, 0x7E});
    EXPECT_EQ(escaped.frame, (Bytes{75, 0x7E, 0x7D, 0x5E, 1, 0x7E}));
    EXPECT_EQ(lone.frame, (Bytes{0x7E})) << "a lone flag is a frame";
    EXPECT_FALSE(third.accepted);
    receive({1, 0x7E});
    for (Answer* each : {&escaped, &lone, &third})
        EXPECT_TRUE(diag->awaitResponse(*each));
}

TEST_F(Session, StrayAndCutFramesAreDroppedWithOneWarning) {
    expectOnce("[DIAG]: WARN DIAG::onDIAGData() received unsolicited response: 75\n", [] {
        receive({75, 1, 2, 0x7E});
    });
    expectOnce("received unsolicited response: 126\n", [] { receive({0x7E}); });
    EXPECT_EQ(warnings({}), "");
    expectOnce("without an end flag\n", [] { receive({1, 2, 0x7D}); });
}

// A log packet whose record claims a length and has so many bytes.
static Bytes packet(uint64_t claimed, size_t following) {
    Bytes bytes = {16, 0, 0, 0};
    diagsim::appendWord(bytes, claimed, 2);
    diagsim::appendWord(bytes, kLogCode, 2);
    bytes.resize(4 + following, 0x33);
    bytes.push_back(0x7E);
    return bytes;
}

TEST_F(Session, ShortLogRecordsArePadded) {
    ASSERT_TRUE(diag->registerLogListener(kLogCode, &log));
    EXPECT_EQ(warnings(packet(92, 92)), "");
    EXPECT_EQ(warnings(packet(20, 22)), "") << "short, with two check bytes";
    EXPECT_EQ(warnings(packet(0, 30)), "") << "no length";
    EXPECT_EQ(warnings(packet(90, 92)), "");
    const std::vector<Bytes> records = log.take();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0][91], 0x33);
    EXPECT_EQ(records[1][19], 0x33);
    EXPECT_EQ(records[1][20], 0) << "neither check bytes nor flag";
    EXPECT_EQ(records[2][29], 0x33);
    EXPECT_EQ(records[2][30], 0);
    EXPECT_EQ(records[3][89], 0x33);
    EXPECT_EQ(records[3][90], 0);
    EXPECT_TRUE(diag->unregisterLogListener(kLogCode, &log));
}

TEST_F(Session, LogRecordsThatDoNotFitAreDropped) {
    ASSERT_TRUE(diag->registerLogListener(kLogCode, &log));
    for (const Bytes& bad : {packet(93, 92), packet(0xFFFF, 92), packet(31, 30),
                             Bytes{16, 0, 0, 0, 4, 0, 0x45, 0x7E}, Bytes{16, 0x7E}}) {
        expectOnce("DIAG::onDIAGData() dropped a log ", [&] { receive(bad); });
    }
    Bytes foreign = packet(0xFFFF, 30);
    foreign[6] = 0x46;
    EXPECT_EQ(warnings(foreign), "") << "a code without a listener";
    EXPECT_TRUE(log.take().empty());
    EXPECT_TRUE(diag->unregisterLogListener(kLogCode, &log));
}

// The reader is held up, so that the first write waits for its response to be read.
TEST_F(Session, ARequestThatCameDuringAWriteIsSentBehindIt) {
    struct Gate : DIAG::LogListener {
        void onLog(const unsigned char*) override { open.get_future().wait(); }
        std::promise<void> open;
    } gate;
    plug(R"({"write": {"returns_after_read": true}})");
    ASSERT_TRUE(diag->registerLogListener(kLogCode, &gate));
    device().deliverFrame(packet(92, 92));
    Answer first, second;
    std::thread caller([&first] { EXPECT_TRUE(send(first)); });
    EXPECT_TRUE(seen("host    loopback request"));
    EXPECT_TRUE(send(second));
    gate.open.set_value();
    caller.join();
    EXPECT_TRUE(diag->awaitResponse(second));
    EXPECT_TRUE(diag->unregisterLogListener(kLogCode, &gate));
}

// --- Log masks --------------------------------------------------------------------------------

TEST_F(Session, AMaskHoldsTheCodesOfOneEquipmentId) {
    Log a, b, c;
    EXPECT_TRUE(diag->registerLogListener(0x4001, &c));
    EXPECT_TRUE(diag->registerLogListener(0x1645, &a));
    EXPECT_TRUE(diag->registerLogListener(0x1646, &b));
    EXPECT_TRUE(diag->unregisterLogListener(0x1645, &a));
    // Item 0x645 is bit 5 of byte 0xC8.
    for (const auto& [index, bits] : {std::pair(1u, "20"), {2, "60"}, {3, "40"}})
        EXPECT_THAT(line("host    log mask request", index),
                    HasSubstr("A4 06 [00 x 202] " + std::string(bits) + " [00 x 12] => 0"));
    EXPECT_TRUE(diag->unregisterLogListener(0x1646, &b));
    EXPECT_TRUE(diag->unregisterLogListener(0x4001, &c));
    EXPECT_EQ(lines("log mask clear request").size(), 2u);
    EXPECT_FALSE(device().isOpen());
}

TEST_F(Session, MaskBitsStayWithinTheRange) {
    const auto registered = [&](const std::string& range, unsigned short logCode) {
        plug("{\"ranges\": {\"1\": " + range + "}}");
        return outputOf([&] {
            diag->registerLogListener(logCode, &log);
            diag->unregisterLogListener(logCode, &log);
        });
    };
    EXPECT_EQ(occurrences(registered("65537", 0x1645),
                          "[DIAG]: ERROR loggingCfgSetReq failed to allocate message buffer\n"),
              2);
    EXPECT_TRUE(lines("host    log mask").empty());
    EXPECT_EQ(registered("65536", 0x1FFF), "");
    EXPECT_EQ(lines("host    log mask request").size(), 1u) << "an equipment id's last code";
    plug(R"({"ranges": {"15": 4096}})");
    cycle(0xFFFF);
    EXPECT_EQ(registered("8", 0x1008), "") << "the first item beyond the mask";
    EXPECT_EQ(lines("host    log mask clear request").size(), 2u) << "no bit is set";
}

TEST_F(Session, AFailedConnectionIsFinalAndForgetsListeners) {
    cycle();
    plug(R"({"requests": {"log_ranges": {"short": 73}}})");
    expectOnce("[DIAG]: ERROR loggingCfgRetrieveRangesReq response timeout\n",
               [&] { EXPECT_FALSE(send(answer)); });
    EXPECT_TRUE(device().isOpen()) << "left initialised";
    const std::string output = outputOf([&] {
        EXPECT_FALSE(send(answer));
        EXPECT_FALSE(diag->registerLogListener(kLogCode, &log));
        EXPECT_FALSE(diag->unregisterLogListener(kLogCode, &log));
    });
    EXPECT_EQ(occurrences(output, "[DIAG]: ERROR DIAG::connect() => false [already in error]\n"),
              3);
    EXPECT_FALSE(device().isOpen());
}

// --- Threads ----------------------------------------------------------------------------------

// A thread's unregistration may disconnect the idle session just before the others use it.
TEST_F(Session, CallersReconnectAfterAnIdleDisconnect) {
    plug(R"({"requests": {"log_mask_clear": {"log_behind": "own_buffer", "log_count": 20}}})");
    constexpr int kRounds = 150;
    inParallel(3, [this](int thread) {
        Log own;
        const auto code = static_cast<unsigned short>(0x1100 + thread);
        for (int round = 0; round < kRounds; ++round) {
            Answer each;
            ASSERT_TRUE(exchange(each)) << round;
            ASSERT_TRUE(diag->registerLogListener(code, &own)) << round;
            ASSERT_TRUE(diag->unregisterLogListener(code, &own)) << round;
        }
    });
    EXPECT_FALSE(device().isOpen());
    EXPECT_EQ(lines("log ranges request").size(), lines("host    close").size());
}

// The first mask request times out. A second one in flight behind it would time out too.
TEST_F(Session, MaskRequestsTakeTurns) {
    plug(R"({"requests": {"log_mask": {"on": [1], "delay_ms": 400}}})");
    Log a, b;
    std::thread first([&] { EXPECT_FALSE(diag->registerLogListener(0x1001, &a)); });
    ASSERT_TRUE(seen("host    log mask request"));
    EXPECT_TRUE(diag->registerLogListener(0x1002, &b));
    first.join();
    EXPECT_TRUE(diag->unregisterLogListener(0x1001, &a)) << "a failed mask leaves it registered";
    EXPECT_TRUE(diag->unregisterLogListener(0x1002, &b));
}

TEST_F(Session, TenThousandCyclesLeakNothing) {
    const int cycles = memoryIsOurs() ? 10000 : 500;
    device().keepTrace(false);
    const auto repeat = [this](int count) {
        for (int i = 0; i < count && !HasFatalFailure(); ++i)
            cycle();
    };
    repeat(10);
    const long descriptors = openDescriptors();
    const long threads = runningThreads();
    const long resident = processStatus("VmRSS:");
    repeat(cycles - 10);
    EXPECT_EQ(openDescriptors(), descriptors);
    // A thread that was joined just before the first count may be in it.
    EXPECT_TRUE(eventually([=] { return runningThreads() <= threads; })) << runningThreads();
    if (memoryIsOurs()) {
        EXPECT_LE(processStatus("VmRSS:"), resident + 256);
    }
}
