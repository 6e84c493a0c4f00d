// Cutting of framed data, without a session.
#include "diag/FrameCutter.h"

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

TEST(FrameCutterTest, CutsAndUnescapesAtEveryEdge) {
    struct {
        Bytes data;
        std::vector<Bytes> frames;
        int rest;
    } const cases[] = {
        {{}, {}, 0},
        {{0x7E}, {{0x7E}}, 0},
        {{1, 0x7E, 2, 0x7E}, {{1, 0x7E}, {2, 0x7E}}, 0},
        {{1, 2, 3}, {}, 3},
        {{1, 0x7E, 2, 0x7D}, {{1, 0x7E}}, 2},
        {{0x7D}, {}, 1},
        {{0x7D, 0x5E, 0x7D, 0x5D, 0x7E}, {{0x7E, 0x7D, 0x7E}}, 0},
        {{0x7D, 0x7E, 1, 0x7E}, {{0x5E, 1, 0x7E}}, 0},
        {{1, 0x7D, 0x7D, 2, 0x7E, 0x7D, 0x21, 0x7E}, {{1, 0x5D, 2, 0x7E}, {1, 0x7E}}, 0},
    };
    for (const auto& each : cases) {
        int rest = -1;
        EXPECT_EQ(cut(each.data, rest), each.frames) << diagsim::hexDump(each.data);
        EXPECT_EQ(rest, each.rest) << diagsim::hexDump(each.data);
    }
}

TEST(FrameCutterTest, RestoresWhatTheTargetFrames) {
    std::mt19937 random(1);
    for (int round = 0; round < 2000 && !testing::Test::HasFailure(); ++round) {
        Bytes data;
        std::vector<Bytes> expected;
        for (size_t frames = random() % 4; frames > 0; --frames) {
            Bytes payload(random() % 300);
            const auto escapes = static_cast<unsigned>(random() % 100);  // percent
            for (uint8_t& byte : payload)
                byte =
                    static_cast<uint8_t>(random() % 100 < escapes ? 0x7D + random() % 2 : random());
            diagsim::append(data, diagsim::frame(payload));
            diagsim::appendWord(payload, diagsim::checkSequence(payload), 2);
            payload.push_back(0x7E);
            expected.push_back(payload);
        }
        int rest = -1;
        EXPECT_EQ(cut(data, rest), expected) << diagsim::hexDump(data);
        EXPECT_EQ(rest, 0);
    }
}

TEST(FrameCutterTest, TakesLinearTimeWithEscapes) {
    const auto fastest = [](size_t size) {
        auto best = std::chrono::steady_clock::duration::max();
        for (int i = 0; i < 20; ++i) {
            Bytes data(size, 0x7D);
            data.back() = 0x7E;
            const auto begin = std::chrono::steady_clock::now();
            FrameCutter cutter(data.data(), static_cast<int>(size));
            Frame frame{};
            EXPECT_TRUE(cutter.next(frame));
            best = std::min(best, std::chrono::steady_clock::now() - begin);
        }
        return best;
    };
    EXPECT_LT(fastest(160001), 24 * fastest(20001)) << "eight times the size";
}

}  // namespace
}  // namespace tavrik
