// The DIAG session: connection, request queue, response hand-over, frames, log masks.
#include <thread>

#include "diag_lsm/diag_lsm.h"
#include "tests/SimSupport.h"

using tavrik::DIAG;
using testing::HasSubstr;

namespace {

constexpr unsigned short code = 0x1645;

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

// As the reader would: the buffer is exactly as long as it says, so that a sanitizer sees a step
// beyond its end.
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
    // Ends what a test left connected.
    void TearDown() override {
        Log log;
        if (device().isOpen()) DIAG::instance()->unregisterLogListener(0xFFFF, &log);
        SimTest::TearDown();
    }
};

const char* const setup[] = {"ioctl 7 logging mode by pointer: 6", "message mask request",
                             "event report request", "log disable request", "log ranges request"};

}  // namespace

TEST_F(Session, ConnectsOnFirstUseDisconnectsWhenIdleAndConnectsAgain) {
    DIAG* const diag = DIAG::instance();
    Answer answer;
    EXPECT_TRUE(exchange(answer));
    EXPECT_EQ(answer.frame.size(), 15u) << "check bytes and flag are part of the frame";
    EXPECT_EQ(answer.frame.back(), 0x7E);
    Log log, other;
    EXPECT_TRUE(diag->registerLogListener(code, &log));
    EXPECT_FALSE(diag->registerLogListener(code, &other)) << "one listener for a code";
    EXPECT_FALSE(diag->unregisterLogListener(code, &other)) << "not its listener";
    EXPECT_FALSE(diag->unregisterLogListener(code + 1, &log));
    EXPECT_TRUE(device().isOpen());
    EXPECT_TRUE(diag->unregisterLogListener(code, &log));
    EXPECT_FALSE(device().isOpen());
    EXPECT_TRUE(exchange(answer));
    for (const char* step : setup)
        EXPECT_EQ(lines(step).size(), 2u) << step;
    EXPECT_FALSE(diag->unregisterLogListener(code, &log)) << "nothing registered; disconnects";
    EXPECT_FALSE(device().isOpen());
}

TEST_F(Session, TakesTheFormOfTheModeThatTheDriverTakes) {
    plug(R"({"mode_switch": {"accepts": "value"}})");
    Answer answer;
    EXPECT_TRUE(exchange(answer));
    Log log;
    DIAG::instance()->unregisterLogListener(code, &log);
    EXPECT_TRUE(exchange(answer));
    EXPECT_EQ(lines("ioctl 7 logging mode by pointer").size(), 1u) << "not tried again";
    EXPECT_EQ(lines("by value: 6 => 1").size(), 2u);
    EXPECT_EQ(lines("by value: 1 => 1").size(), 1u);
}

TEST_F(Session, OneRequestIsOutstandingAtATime) {
    plug(R"({"requests": {"loopback": {"delay_ms": 30}}})");
    Answer first, second, third(false);
    for (Answer* each : {&first, &second, &third})
        EXPECT_TRUE(send(*each));
    EXPECT_FALSE(DIAG::instance()->sendRequest(loopback().data(), 0, &third)) << "nothing to queue";
    EXPECT_TRUE(DIAG::instance()->awaitResponse(second));
    EXPECT_TRUE(first.accepted) << "answered before";
    const Stopwatch watch;
    EXPECT_TRUE(DIAG::instance()->awaitResponse(first));
    EXPECT_FALSE(DIAG::instance()->awaitResponse(third));
    EXPECT_LT(watch.milliseconds(), 200)
        << "neither an early answer nor a refusal costs a time-out";
    std::vector<std::string> kinds;
    for (const std::string& line : lines("loopback re"))
        kinds.push_back(line.substr(0, 4));
    EXPECT_EQ(kinds, (std::vector<std::string>{"host", "adsp", "host", "adsp", "host", "adsp"}));
}

TEST_F(Session, ARequestThatCannotBeSentIsInNobodysWay) {
    plug(R"({"requests": {"loopback": [{"on": [1], "delay_ms": 20},
                                       {"on": [2, 4], "write_result": 5}]}})");
    Answer first, refused, last;
    for (Answer* each : {&first, &refused, &last})
        EXPECT_TRUE(send(*each));
    EXPECT_TRUE(DIAG::instance()->awaitResponse(last));
    EXPECT_TRUE(DIAG::instance()->awaitResponse(first));
    EXPECT_FALSE(refused.accepted);
    EXPECT_FALSE(DIAG::instance()->awaitResponse(refused));
    EXPECT_FALSE(send(first));
    EXPECT_FALSE(first.accepted) << "nothing is left of an earlier answer";
    EXPECT_TRUE(exchange(last));
}

// Stray frames answer in the requests' stead here. What counts is that every request is sent, and
// that nobody waits for ever.
TEST_F(Session, AWriteMayWaitUntilTheReaderHasRead) {
    plug(R"({"write": {"blocks_until_read": true, "returns_after_read": true},
             "requests": {"loopback": {"frame_behind": "7900"}}})");
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([] {
            for (int round = 0; round < 20; ++round) {
                Answer answer;
                exchange(answer);
            }
        });
    }
    outputOf([&] {
        for (std::thread& caller : callers)
            caller.join();
    });
    EXPECT_EQ(lines("host    loopback request").size(), 80u);
}

TEST_F(Session, InterruptedCallsAreRepeated) {
    plug(R"({"open": {"eintr": 2}, "write": {"eintr": 3}, "ioctl": {"eintr": 2}})");
    Log log;
    ASSERT_TRUE(DIAG::instance()->registerLogListener(code, &log));
    EXPECT_TRUE(DIAG::instance()->unregisterLogListener(code, &log));
    EXPECT_EQ(lines("EINTR").size(), 2u + 3u + 3u * 2u) << "of ioctls 7, 1 and 9";
    EXPECT_TRUE(lines("by value").empty()) << "an interruption is no refusal of the form";
    EXPECT_TRUE(lines("left in callback mode").empty());
}

// The late answer finds nobody where the canceled thread's stack was.
TEST_F(Session, ACancelledCallerIsForgotten) {
    plug(R"({"requests": {"loopback": {"on": [1], "delay_ms": 50}}})");
    Answer next;
    std::thread caller([] {
        Answer answer;
        exchange(answer);
    });
    ASSERT_TRUE(seen("host    loopback request"));
    pthread_cancel(caller.native_handle());
    caller.join();
    EXPECT_TRUE(exchange(next)) << "the next request has its own answer";
    EXPECT_EQ(lines("adsp    loopback response").size(), 2u);
}

// --- Frames -----------------------------------------------------------------------------------

TEST_F(Session, FramesAreCutUnescapedAndAnswerInOrder) {
    plug(R"({"requests": {"loopback": {"drop": true}}})");
    Answer escaped, lone, third;
    for (Answer* each : {&escaped, &lone, &third})
        EXPECT_TRUE(send(*each));
    receive({75, 0x7D, 0x5E, 0x7D, 0x5D, 0x7D, 0x7E, 1, 0x7E, 0x7E});
    EXPECT_EQ(escaped.frame, (Bytes{75, 0x7E, 0x7D, 0x5E, 1, 0x7E}));
    EXPECT_EQ(lone.frame, (Bytes{0x7E})) << "even a lone flag answers";
    EXPECT_FALSE(third.accepted);
    receive({1, 0x7E});
    for (Answer* answer : {&escaped, &lone, &third}) {
        EXPECT_TRUE(DIAG::instance()->awaitResponse(*answer));
    }
}

TEST_F(Session, StrayAndCutFramesAreDroppedWithOneWarning) {
    expectOnce("[DIAG]: WARN DIAG::onDIAGData() received unsolicited response: 75\n", [] {
        receive({75, 1, 2, 0x7E});
    });
    expectOnce("received unsolicited response: 126\n", [] { receive({0x7E}); });
    EXPECT_EQ(warnings({}), "");
    for (const Bytes& cut : {Bytes{1, 2, 3}, Bytes{1, 2, 0x7D}, Bytes{0x7D}, Bytes(1, 0x5E)}) {
        expectOnce("without an end flag\n", [&] { receive(cut); });
    }
}

TEST_F(Session, LogRecordsAreCheckedAndPadded) {
    Log log;
    ASSERT_TRUE(DIAG::instance()->registerLogListener(code, &log));
    const auto packet = [](uint64_t claimed, size_t following) {
        Bytes bytes = {16, 0, 0, 0};
        diagsim::appendWord(bytes, claimed, 2);
        diagsim::appendWord(bytes, code, 2);
        bytes.resize(4 + following, 0x33);
        bytes.push_back(0x7E);
        return bytes;
    };
    EXPECT_EQ(warnings(packet(92, 92)), "");
    EXPECT_EQ(warnings(packet(20, 22)), "") << "short but honest, with two check bytes";
    EXPECT_EQ(warnings(packet(0, 30)), "") << "length not filled in";
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
    for (const Bytes& bad : {packet(93, 92), packet(0xFFFF, 92), packet(31, 30),
                             Bytes{16, 0, 0, 0, 4, 0, 0x45, 0x7E}, Bytes{16, 0x7E}}) {
        expectOnce("DIAG::onDIAGData() dropped a log ", [&] { receive(bad); });
    }
    Bytes foreign = packet(0xFFFF, 30);
    foreign[6] = 0x46;
    EXPECT_EQ(warnings(foreign), "") << "nobody asked for it";
    EXPECT_TRUE(log.take().empty());
    EXPECT_TRUE(DIAG::instance()->unregisterLogListener(code, &log));
}

TEST_F(Session, CuttingIsLinearWhateverTheShareOfEscapes) {
    DIAG::instance();
    const auto fastest = [](const Bytes& data) {
        auto best = std::chrono::steady_clock::duration::max();
        for (int i = 0; i < 20; ++i) {
            Bytes buffer = data;
            const auto begin = std::chrono::steady_clock::now();
            DIAG::onDIAGData(buffer.data(), static_cast<int>(buffer.size()), DIAG::instance());
            best = std::min(best, std::chrono::steady_clock::now() - begin);
        }
        return best;
    };
    // Log packets of a code without a listener, so that nothing but the cutting is measured.
    Bytes plain(100000, 0x10), escapes(100000, 0x7D);
    escapes[0] = 0x10;
    plain.back() = escapes.back() = 0x7E;
    std::string ignored = outputOf([&] { EXPECT_LT(fastest(escapes), 3 * fastest(plain)); });
}

// --- Log masks --------------------------------------------------------------------------------

TEST_F(Session, TheMaskHoldsTheCodesOfItsEquipmentId) {
    DIAG* const diag = DIAG::instance();
    Log a, b, c;
    EXPECT_TRUE(diag->registerLogListener(0x4001, &c));
    EXPECT_TRUE(diag->registerLogListener(0x1645, &a));
    EXPECT_TRUE(diag->registerLogListener(0x1646, &b));
    // Item 0x645 is bit 5 of byte 0xC8.
    EXPECT_THAT(line("host    log mask request", 1),
                HasSubstr("A4 06 [00 x 202] 20 [00 x 12] => 0"));
    EXPECT_THAT(line("host    log mask request", 2),
                HasSubstr("A4 06 [00 x 202] 60 [00 x 12] => 0"));
    EXPECT_TRUE(diag->unregisterLogListener(0x1645, &a));
    EXPECT_THAT(line("host    log mask request", 3),
                HasSubstr("A4 06 [00 x 202] 40 [00 x 12] => 0"));
    EXPECT_TRUE(diag->unregisterLogListener(0x1646, &b));
    EXPECT_TRUE(diag->unregisterLogListener(0x4001, &c));
    EXPECT_EQ(lines("log mask clear request").size(), 2u);
    EXPECT_FALSE(device().isOpen());
}

TEST_F(Session, NoBitLeavesTheBufferWhateverTheRange) {
    Log log;
    const auto registered = [&](const std::string& range, unsigned short logCode) {
        plug("{\"ranges\": {\"1\": " + range + "}}");
        return outputOf([&] {
            DIAG::instance()->registerLogListener(logCode, &log);
            DIAG::instance()->unregisterLogListener(logCode, &log);
        });
    };
    EXPECT_EQ(occurrences(registered("65537", 0x1645),
                          "[DIAG]: ERROR loggingCfgSetReq failed to allocate message buffer\n"),
              2);
    EXPECT_TRUE(lines("host    log mask").empty());
    EXPECT_EQ(registered("65536", 0x1FFF), "");
    EXPECT_EQ(lines("host    log mask request").size(), 1u) << "the last code of an equipment id";
    plug(R"({"ranges": {"15": 4096}})");
    EXPECT_TRUE(DIAG::instance()->registerLogListener(0xFFFF, &log));
    EXPECT_TRUE(DIAG::instance()->unregisterLogListener(0xFFFF, &log));
    EXPECT_EQ(registered("8", 0x1008), "") << "the item behind the last byte";
    EXPECT_EQ(lines("host    log mask clear request").size(), 2u) << "no bit fits";
}

TEST_F(Session, AFailedConnectionIsFinalAndForgetsListeners) {
    Log log;
    DIAG* const diag = DIAG::instance();
    ASSERT_TRUE(diag->registerLogListener(code, &log));
    EXPECT_TRUE(diag->unregisterLogListener(code, &log));
    plug(R"({"requests": {"log_ranges": {"short": 73}}})");
    Answer answer;
    expectOnce("[DIAG]: ERROR loggingCfgRetrieveRangesReq response timeout\n",
               [&] { EXPECT_FALSE(send(answer)); });
    EXPECT_TRUE(device().isOpen()) << "left initialised";
    const std::string output = outputOf([&] {
        EXPECT_FALSE(send(answer));
        EXPECT_FALSE(diag->registerLogListener(code, &log));
        EXPECT_FALSE(diag->unregisterLogListener(code, &log));
    });
    EXPECT_EQ(occurrences(output, "[DIAG]: ERROR DIAG::connect() => false [already in error]\n"),
              3);
    EXPECT_FALSE(device().isOpen());
}

// --- Threads ----------------------------------------------------------------------------------

// Each thread's last unregistration may find the session idle while the others are about to use it.
TEST_F(Session, WhoMeetsAnIdleDisconnectConnectsAgain) {
    plug(R"({"requests": {"log_mask_clear": {"log_behind": "own_buffer", "log_count": 20}}})");
    constexpr int rounds = 150;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([i] {
            Log log;
            const auto mine = static_cast<unsigned short>(0x1100 + i);
            for (int round = 0; round < rounds; ++round) {
                Answer answer;
                ASSERT_TRUE(exchange(answer)) << round;
                ASSERT_TRUE(DIAG::instance()->registerLogListener(mine, &log)) << round;
                ASSERT_TRUE(DIAG::instance()->unregisterLogListener(mine, &log)) << round;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(device().isOpen());
    EXPECT_EQ(lines("log ranges request").size(), lines("host    close").size());
}

// The first mask outlasts its time-out; one sent meanwhile would share its fate.
TEST_F(Session, AMaskWaitsForTheOneUnderWay) {
    plug(R"({"requests": {"log_mask": {"on": [1], "delay_ms": 400}}})");
    DIAG* const diag = DIAG::instance();
    Log a, b;
    std::thread first([&] { EXPECT_FALSE(diag->registerLogListener(0x1001, &a)); });
    ASSERT_TRUE(seen("host    log mask request"));
    EXPECT_TRUE(diag->registerLogListener(0x1002, &b));
    first.join();
    EXPECT_TRUE(diag->unregisterLogListener(0x1001, &a)) << "the failure left it registered";
    EXPECT_TRUE(diag->unregisterLogListener(0x1002, &b));
}

TEST_F(Session, TenThousandCyclesLeaveNothingBehind) {
    const int cycles = memoryIsOurs() ? 10000 : 500;
    device().keepTrace(false);
    Log log;
    const auto cycle = [&](int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(DIAG::instance()->registerLogListener(code, &log));
            ASSERT_TRUE(DIAG::instance()->unregisterLogListener(code, &log));
        }
    };
    cycle(10);
    const long descriptors = openDescriptors();
    const long threads = runningThreads();
    const long resident = processStatus("VmRSS:");
    cycle(cycles - 10);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(threadsComeTo(threads));
    if (memoryIsOurs()) {
        EXPECT_LE(processStatus("VmRSS:"), resident + 256);
    }
}
