// ADSPPM: registration, start and stop against the simulated ADSP, decoding.
#include <regex>
#include <sstream>
#include <thread>

#include "adsppm/ADSPPM.h"
#include "runtime/SelfDestructingObject.h"
#include "server/SystemErrorMessages.h"
#include "tests/SimSupport.h"
#include "tests/Support.h"
#include "trigger/TriggerRegistry.h"

using tavrik::ADSPPM;
using tavrik::SystemErrorMessages;

namespace {

struct Value {
    int id;
    double time;
    long double value;
};

struct Inbox : ADSPPM::Listener, Collector<Value> {
    void onADSPPMInput(int eventId, double time, long double value) override {
        put({eventId, time, value});
    }
};

ADSPPM& adsppm() { return *ADSPPM::instance(); }

std::string refusal;
bool add(ADSPPM::Listener& listener, int id, unsigned period = 100000) {
    return adsppm().registerListener(&listener, id, "EVENT", period, refusal);
}

class Adsppm : public SimTest {
  protected:
    void TearDown() override {
        if (device().isOpen()) {
            EXPECT_TRUE(adsppm().stopMetricCollection());
        }
        SimTest::TearDown();
    }
    // Starts and stops; returns the slots and the period of the start request in hexadecimal.
    std::string startRequest() {
        const size_t before = lines("host    start request").size();
        EXPECT_TRUE(adsppm().startMetricCollection());
        EXPECT_TRUE(adsppm().stopMetricCollection());
        const std::vector<std::string> starts = lines("host    start request");
        if (starts.size() != before + 1) return "none";
        const std::string& line = starts.back();
        return line.substr(line.find("01 00 00 00 01 00 00 00 ") + 24, 23);
    }
    void startWithOneEvent() {
        ASSERT_TRUE(add(inbox, -2));
        ASSERT_TRUE(adsppm().startMetricCollection());
    }
    static void deliverPackets(int count) {
        for (int i = 0; i < count; ++i)
            device().deliverFrame(device().logPacket());
    }

    Inbox inbox;
};

// Hands ADSPPM a log record. Bytes that the decoder ignores are 0xEE.
void receive(uint64_t stamp, uint32_t gained) {
    Bytes record = {0xEE, 0xEE, 0x45, 0x16};
    diagsim::appendWord(record, stamp, 8);
    for (uint32_t word : {0xEEEEEE01u, 0x00040003u, 0xFFFFFFF0u + gained, 0xEEEEEEEEu, gained,
                          0xEEEEEEEEu, 2500000u, 576500u})
        diagsim::appendWord(record, word, 4);
    for (uint64_t i = 1; i <= 5; ++i)
        diagsim::appendWord(record, 0xFFFFFFFFFFFFFF00 + gained * 16 * i, 8);
    record.resize(92, 0xEE);
    adsppm().onLog(record.data());
}

constexpr uint64_t kMillisecond = 65536 * 8 / 10;  // the ADSP's clock counts 65536 in 1.25 ms

}  // namespace

TEST_F(Adsppm, StartRequestsTheRegisteredEvents) {
    Inbox a, b;
    EXPECT_FALSE(adsppm().startMetricCollection()) << "nobody registered";
    EXPECT_TRUE(device().trace().empty());
    EXPECT_TRUE(add(a, -2, 0xFFFFFFFF));
    EXPECT_FALSE(adsppm().startMetricCollection()) << "no period";
    EXPECT_TRUE(add(a, 5, 100));
    EXPECT_EQ(startRequest(), "05 00 00 00 64 00 00 00");
    EXPECT_TRUE(add(a, 7, 300));
    EXPECT_TRUE(add(b, 1, 200));
    EXPECT_TRUE(add(b, 5, 50));
    EXPECT_TRUE(add(a, -7, 60));
    EXPECT_EQ(startRequest(), "05 07 01 00 32 00 00 00");
}

TEST_F(Adsppm, UnregisteringFreesSlotsAndRaisesThePeriod) {
    Inbox a, b;
    for (const auto& [id, period] : {std::pair(5, 100u), {7, 300u}, {-7, 60u}})
        EXPECT_TRUE(add(a, id, period)) << id;
    EXPECT_TRUE(add(b, 1, 200));
    EXPECT_TRUE(add(b, 5, 50));
    EXPECT_TRUE(adsppm().unregisterListener(&a, 7));
    EXPECT_EQ(startRequest(), "05 01 00 00 32 00 00 00");
    EXPECT_TRUE(adsppm().unregisterListener(&b, 5)) << "a is still registered for 5";
    EXPECT_EQ(startRequest(), "05 01 00 00 3C 00 00 00");
    EXPECT_TRUE(adsppm().unregisterListener(&b, -7)) << "not registered";
    EXPECT_TRUE(adsppm().unregisterListener(&a, -7));
    EXPECT_TRUE(adsppm().unregisterListener(&a, 5));
    EXPECT_EQ(startRequest(), "01 00 00 00 C8 00 00 00");
    EXPECT_TRUE(adsppm().unregisterListener(&b, 1));
    EXPECT_FALSE(adsppm().startMetricCollection()) << "nobody left";
}

TEST_F(Adsppm, SlotsOfLargeIdsAndWithoutAPeriodStay) {
    EXPECT_TRUE(add(inbox, -1, 200));
    EXPECT_TRUE(add(inbox, 0x103)) << "its slot has the 3";
    for (const int id : {11, 12, 13})
        EXPECT_TRUE(add(inbox, id, 0xFFFFFFFF)) << "without a period";
    EXPECT_TRUE(adsppm().unregisterListener(&inbox, 0x103));
    EXPECT_TRUE(adsppm().unregisterListener(&inbox, 11));
    EXPECT_EQ(startRequest(), "03 0B 0C 0D C8 00 00 00");
}

TEST_F(Adsppm, AFifthEventIsRefusedWithAMessage) {
    std::string logged;
    LineAdapter adapter([&](const auto& level, const auto& logger, const auto& message) {
        adsppm().unregisterListener(nullptr, 1);  // as an adapter may
        logged += logger + " " + level + " " + message;
    });
    for (int id = 1; id <= 4; ++id)
        EXPECT_TRUE(add(inbox, id)) << id;
    const std::string text =
        "Cannot add event EVENT to ADSP PMU, the event limit has been reached.";
    tavrik::Logger::setLogAdapter(&adapter);
    EXPECT_FALSE(add(inbox, 5));
    tavrik::Logger::setLogAdapter(nullptr);
    EXPECT_EQ(logged, "ADSPPM WARN ADSPPM::registerListener: " + text);
    EXPECT_EQ(refusal, text);
    const tavrik::error_message_t* message = SystemErrorMessages::nextMessage();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->code, 11);
    EXPECT_EQ(message->text, text);
}

TEST_F(Adsppm, ListenersWithoutASlotOfTheirOwnAreNotLimited) {
    for (const int id : {1, 2, 3, 4, 4, -1, 0})
        EXPECT_TRUE(add(inbox, id)) << id;
    EXPECT_TRUE(adsppm().unregisterListener(&inbox, 1));
    EXPECT_EQ(startRequest(), "02 03 04 00 A0 86 01 00");
}

TEST_F(Adsppm, AFailedStartOrStopIsFinal) {
    plug(R"({"requests": {"start": {"refuse": true}}})");
    EXPECT_TRUE(add(inbox, -2));
    EXPECT_FALSE(adsppm().stopMetricCollection()) << "not collecting";
    expectOnce("[ADSPPM]: ERROR ADSPPM::startMetricCollection() ADSPPMConfigReq timeout\n",
               [] { EXPECT_FALSE(adsppm().startMetricCollection()); });
    EXPECT_FALSE(device().isOpen()) << "unregistered and disconnected";
    const size_t before = device().trace().size();
    EXPECT_FALSE(add(inbox, -3));
    EXPECT_EQ(refusal, "Failed to start ADSP PMU.");
    EXPECT_FALSE(adsppm().startMetricCollection());
    EXPECT_FALSE(adsppm().stopMetricCollection());
    EXPECT_EQ(device().trace().size(), before);
}

TEST_F(Adsppm, AFailedStopLeavesTheRefusalTextEmpty) {
    plug(R"({"requests": {"stop": {"refuse": true}, "start": {"short": 8}}})");
    startWithOneEvent();
    EXPECT_TRUE(lines("(short)").empty()) << "8 bytes are the whole response";
    EXPECT_FALSE(adsppm().startMetricCollection()) << "already collecting";
    tavrik::LogLevel::_init();
    tavrik::Logger::getLogger("ADSPPM")->setLevel(*tavrik::LogLevel::LVL_TRACE);
    expectOnce("TRACE ADSPPM::stopMetricCollection() ADSPPMConfigReq timeout\n",
               [] { EXPECT_FALSE(adsppm().stopMetricCollection()); });
    tavrik::Logger::getLogger("ADSPPM")->setLevel(*tavrik::LogLevel::LVL_INFO);
    refusal = "untouched";
    EXPECT_FALSE(add(inbox, -3));
    EXPECT_EQ(refusal, "");
    EXPECT_FALSE(adsppm().startMetricCollection());
}

TEST_F(Adsppm, ACycleTracesItsSteps) {
    tavrik::LogLevel::_init();
    for (const char* name : {"ADSPPM", "DIAG"}) {
        tavrik::Logger::getLogger(name)->setLevel(*tavrik::LogLevel::LVL_TRACE);
    }
    const std::string output = outputOf([&] {
        EXPECT_TRUE(add(inbox, -2, 100));
        EXPECT_TRUE(adsppm().startMetricCollection());
        EXPECT_TRUE(adsppm().stopMetricCollection());
        EXPECT_TRUE(adsppm().unregisterListener(&inbox, -2));
    });
    static const std::regex prefix("(^|\n).*\\]: [A-Z]+ "), pointer("0x[0-9a-f]+");
    std::stringstream expected;
    expected << std::ifstream(TESTS_FOLDER "/adsppm.trace").rdbuf();
    EXPECT_EQ(std::regex_replace(std::regex_replace(output, prefix, "$1"), pointer, "P"),
              expected.str());
}

// --- Decoding ---------------------------------------------------------------------------------

TEST_F(Adsppm, TimeStampsBecomeHostTime) {
    EXPECT_DOUBLE_EQ(adsppm().convertTimeStamp(0, 0), 315964800.0);
    EXPECT_DOUBLE_EQ(adsppm().convertTimeStamp(0x000100FF, 0), 315964800.0 + 0.001256);
    EXPECT_DOUBLE_EQ(adsppm().convertTimeStamp(0xFF00, 1), 315964800.0 + 65536 * 0.00125);
    timeval sent = {1000, 900000}, received = {1001, 100000};
    adsppm().updateTimeShift(800 << 16, 0, &sent, &received);  // 1 s, read at 1001.0
    EXPECT_NEAR(adsppm().convertTimeStamp(800 << 16, 0), 1001.0, 1e-6);
    EXPECT_NEAR(adsppm().convertTimeStamp(1600 << 16, 0), 1002.0, 1e-6);
}

TEST_F(Adsppm, PacketsBecomeValues) {
    Inbox second;
    for (int id : {0, 3, 4, -1, -2, -3, -4, -5, -6, -7})
        ASSERT_TRUE(add(inbox, id)) << id;
    ASSERT_TRUE(add(second, 3, 50000));
    ASSERT_TRUE(adsppm().startMetricCollection());
    receive(1000 * kMillisecond, 0);
    receive(3000 * kMillisecond, 32);  // 2 s later
    const std::vector<Value> values = inbox.take();
    const std::vector<std::pair<int, long double>> expected = {
        {3, 16000},   {4, 16000},   {-1, 2.5L},    {-2, 576.5L}, {-3, 256000},
        {-4, 512000}, {-5, 768000}, {-6, 1024000}, {-7, 1280000}};
    ASSERT_EQ(values.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(values[i].id, expected[i].first);
        EXPECT_NEAR(static_cast<double>(values[i].value), static_cast<double>(expected[i].second),
                    static_cast<double>(expected[i].second) * 1e-4)
            << "id " << expected[i].first;
        EXPECT_EQ(values[i].time, values[0].time);
    }
    EXPECT_EQ(second.take().size(), 1u);
}

TEST_F(Adsppm, TheFirstPacketOfEachCollectionPrimesTheDecoder) {
    ASSERT_TRUE(add(inbox, -2));
    for (const unsigned second : {1u, 3u}) {
        receive(second * 1000 * kMillisecond, 0);  // not collecting
        ASSERT_TRUE(adsppm().startMetricCollection());
        receive((second + 1) * 1000 * kMillisecond, 0);
        EXPECT_TRUE(inbox.take().empty()) << second;
        EXPECT_TRUE(adsppm().stopMetricCollection());
    }
}

// --- Interleavings ----------------------------------------------------------------------------

// The packet behind the start response primes the decoder, so the next one gives values. The packet
// in front of the stop response is ignored.
TEST_F(Adsppm, ValuesFlowFromTheStartResponseToTheStop) {
    plug(R"({"requests": {"start": {"log_behind": "same_chunk"},
                          "stop": {"log_in_front": "same_chunk"}}})");
    ASSERT_TRUE(add(inbox, -2));
    for (size_t round = 1; round <= 50; ++round) {
        ASSERT_TRUE(adsppm().startMetricCollection());
        deliverPackets(1);
        EXPECT_EQ(inbox.waitFor(round).size(), round);
        ASSERT_TRUE(adsppm().stopMetricCollection());
        EXPECT_EQ(inbox.waitFor(round).size(), round);
    }
}

// The write of the start request returns after the reader has read the response and the packets.
TEST_F(Adsppm, AStartResponseCountsBeforeItsWriteReturns) {
    plug(R"({"write": {"returns_after_read": true},
             "requests": {"start": {"log_behind": "same_buffer", "log_count": 3}}})");
    startWithOneEvent();
    EXPECT_TRUE(inbox.take().empty()) << "packets before the end of the start prime the decoder";
    deliverPackets(1);
    EXPECT_EQ(inbox.waitFor(1).size(), 1u);
}

// A start during a stop waits until the stop has cleared the log mask; then values arrive.
TEST_F(Adsppm, AStartWaitsForARunningStop) {
    plug(R"({"requests": {"log_mask_clear": {"on": [1], "delay_ms": 100}}})");
    startWithOneEvent();
    std::thread stopper([] { EXPECT_TRUE(adsppm().stopMetricCollection()); });
    ASSERT_TRUE(seen("host    log mask clear request"));
    ASSERT_TRUE(add(inbox, -1)) << "a registration does not wait for a stop";
    EXPECT_TRUE(lines("adsp    log mask clear response").empty());
    EXPECT_TRUE(adsppm().startMetricCollection());
    EXPECT_EQ(lines("host    close").size(), 1u) << "the stop has ended";
    stopper.join();
    deliverPackets(2);
    EXPECT_EQ(inbox.waitFor(2).size(), 2u);
}

TEST_F(Adsppm, ARegistrationWaitsForARunningStart) {
    plug(R"({"requests": {"start": [{"on": [1], "delay_ms": 50},
                                    {"on": [2], "delay_ms": 50, "refuse": true}]}})");
    ASSERT_TRUE(add(inbox, -2));
    ASSERT_TRUE(add(inbox, -3));
    std::thread first([] { EXPECT_TRUE(adsppm().startMetricCollection()); });
    ASSERT_TRUE(seen("host    start request"));
    EXPECT_TRUE(adsppm().unregisterListener(&inbox, -3));
    EXPECT_EQ(lines("adsp    start response").size(), 1u);
    first.join();
    EXPECT_TRUE(adsppm().stopMetricCollection());
    std::thread second([] { EXPECT_FALSE(adsppm().startMetricCollection()); });
    ASSERT_TRUE(seen("host    start request", 2));
    EXPECT_FALSE(add(inbox, -1)) << "the start failed";
    second.join();
}

TEST_F(Adsppm, TheLoopbackResponseSetsTheTimeShift) {
    plug(R"({"requests": {"loopback": {"on": [1], "short": 9}}})");
    outputOf([this] { startWithOneEvent(); });
    EXPECT_DOUBLE_EQ(adsppm().convertTimeStamp(0, 0), 315964800.0) << "unchanged";
    EXPECT_TRUE(adsppm().stopMetricCollection());
    timeval zero{};
    adsppm().updateTimeShift(0, 0, &zero, &zero);
    EXPECT_TRUE(adsppm().startMetricCollection());
    deliverPackets(2);
    const std::vector<Value> values = inbox.waitFor(1);
    ASSERT_FALSE(values.empty());
    EXPECT_NEAR(values[0].time, static_cast<double>(time(nullptr)), 2);
}

// A second subscriber of the run level. It hears of a change after ADSPPM has handled the one
// before.
struct Follower : tavrik::Trigger::Listener, tavrik::SelfDestructingObject, Collector<int> {
    void reserve() override { SelfDestructingObject::reserve(); }
    bool release() override { return SelfDestructingObject::release(); }
    void onTriggerValueChange(tavrik::Trigger* trigger) override { put(trigger->getValue()); }
};

class RunLevel : public Adsppm {
  protected:
    void SetUp() override {
        Adsppm::SetUp();
        startWithOneEvent();
        level->subscribe(follower);
        level->setEnabled(true);
    }
    // Returns when ADSPPM has handled a change.
    void change() {
        level->setValue(++changes);
        level->setValue(++changes);
        follower->waitFor(static_cast<size_t>(changes));
    }
    static size_t starts() { return lines("host    start request").size(); }

    tavrik::Trigger* const level = tavrik::TriggerRegistry::getTrigger("_RunLevel");
    Follower* const follower = new Follower;
    int changes = 0;
};

TEST_F(RunLevel, AChangeRestartsWithNewRegistrations) {
    ASSERT_TRUE(add(inbox, 7));  // takes a slot, keeps the period
    change();
    EXPECT_EQ(lines("host    stop request").size(), 1u);
    EXPECT_EQ(starts(), 2u);
    EXPECT_THAT(line("host    start request", 1), testing::HasSubstr("07 00 00 00 A0 86 01 00"));
    change();
    EXPECT_EQ(starts(), 2u) << "nothing new";
    ASSERT_TRUE(add(inbox, -1, 50));  // takes no slot, changes the period
    change();
    EXPECT_EQ(starts(), 3u);
}

TEST_F(RunLevel, AChangeStartsAnIdleAdspIfRegistrationsAreNew) {
    ASSERT_TRUE(add(inbox, 7));
    change();
    EXPECT_TRUE(adsppm().stopMetricCollection());
    change();
    EXPECT_EQ(starts(), 2u) << "nothing new";
    ASSERT_TRUE(adsppm().unregisterListener(&inbox, 7));
    change();
    EXPECT_EQ(starts(), 3u);
    EXPECT_EQ(lines("host    stop request").size(), 2u);
}
