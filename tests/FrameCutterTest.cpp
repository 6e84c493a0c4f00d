// Cutting of framed data, without a session.
#include "diag/FrameCutter.h"

#include <chrono>
#include <random>

#include "tests/SimSupport.h"

namespace tavrik {
namespace {

// The frames of `data`, which it unescapes. `rest` becomes the number of bytes left.
std::vector<Bytes> cut(Bytes data, int& rest) {
    // No spare capacity: the address sanitizer sees an access beyond the end.
    data.shrink_to_fit();
    FrameCutter cutter(data.data(), static_cast<int>(data.size()));
    std::vector<Bytes> frames;
    for (Frame frame{}; cutter.next(frame);)
        frames.emplace_back(frame.data, frame.data + frame.length);
    rest = cutter.bytesLeft();
    return frames;
}

struct Case {
    Bytes data;
    std::vector<Bytes> frames;
    int rest;
};
void expectEach(std::initializer_list<Case> cases) {
    for (const Case& each : cases) {
        int rest = -1;
        EXPECT_EQ(cut(each.data, rest), each.frames) << diagsim::hexDump(each.data);
        EXPECT_EQ(rest, each.rest) << diagsim::hexDump(each.data);
    }
}

// Bytes that need an escape, and others, in a random mixture.
Bytes randomPayload(std::mt19937& random) {
    Bytes payload(random() % 300);
    const auto escapes = static_cast<unsigned>(random() % 100);  // percent
    for (uint8_t& byte : payload)
        byte = static_cast<uint8_t>(random() % 100 < escapes ? 0x7D + random() % 2 : random());
    return payload;
}

TEST(FrameCutterTest, FlagsEndFrames) {
    expectEach({{{}, {}, 0},
                {{0x7E}, {{0x7E}}, 0},
                {{1, 0x7E, 2, 0x7E}, {{1, 0x7E}, {2, 0x7E}}, 0},
                {{1, 2, 3}, {}, 3},
                {{1, 0x7E, 2, 0x7D}, {{1, 0x7E}}, 2}});
}

TEST(FrameCutterTest, EscapesAreResolvedWithinAFrame) {
    expectEach({{{0x7D}, {}, 1},
                {{0x7D, 0x5E, 0x7D, 0x5D, 0x7E}, {{0x7E, 0x7D, 0x7E}}, 0},
                {{0x7D, 0x7E, 1, 0x7E}, {{0x5E, 1, 0x7E}}, 0},
                {{1, 0x7D, 0x7D, 2, 0x7E, 0x7D, 0x21, 0x7E}, {{1, 0x5D, 2, 0x7E}, {1, 0x7E}}, 0}});
}

TEST(FrameCutterTest, RestoresWhatTheTargetFrames) {
    std::mt19937 random(1);
    for (int round = 0; round < 2000 && !testing::Test::HasFailure(); ++round) {
        Case each{};
        for (size_t frames = random() % 4; frames > 0; --frames) {
            Bytes payload = randomPayload(random);
            diagsim::append(each.data, diagsim::frame(payload));
            diagsim::appendWord(payload, diagsim::checkSequence(payload), 2);
            payload.push_back(0x7E);
            each.frames.push_back(payload);
        }
        expectEach({each});
    }
}

TEST(FrameCutterTest, TakesLinearTimeWithEscapes) {
    using Clock = std::chrono::steady_clock;
    const auto fastest = [](size_t size) {
        Bytes data(size, 0x7D);
        data.back() = 0x7E;
        auto best = Clock::duration::max();
        for (int i = 0, rest = 0; i < 20; ++i) {
            const auto begin = Clock::now();
            EXPECT_EQ(cut(data, rest).size(), 1u);
            best = std::min(best, Clock::now() - begin);
        }
        return best.count();
    };
    EXPECT_LT(fastest(160001), 24 * fastest(20001)) << "eight times the size";
}

}  // namespace
}  // namespace tavrik
