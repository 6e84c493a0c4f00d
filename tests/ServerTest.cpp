#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/CircularQueue.h"
#include "server/Errors.h"
#include "server/SystemErrorMessages.h"

namespace tavrik {
namespace {

void drain() {
    while (SystemErrorMessages::nextMessage() != nullptr) {
    }
}

TEST(ErrorsTest, TokensAndTextsAreFound) {
    for (int code = 0; code < 14; ++code)
        EXPECT_EQ(Errors::toInt(Errors::toToken(static_cast<unsigned>(code))), code);
    EXPECT_EQ(Errors::toAscii(11), "Limit reached.");
    EXPECT_EQ(Errors::toAscii(13), "Firmware updating failed");
    EXPECT_EQ(Errors::toAscii(14) + Errors::toToken(14), "");
    EXPECT_EQ(Errors::toInt("NOMEM"), 6);
    EXPECT_EQ(Errors::toInt("nomem"), 0);
}

TEST(SystemErrorMessagesTest, KeepsTheNewestHundred) {
    drain();
    for (int i = 1; i <= 100; ++i)
        SystemErrorMessages::add(i, std::to_string(i));
    SystemErrorMessages::add(11);
    const error_message_t unqueued{1, "only shown"};
    SystemErrorMessages::recordOnly(&unqueued);
    for (int i = 2; i <= 100; ++i) {
        const error_message_t* const message = SystemErrorMessages::nextMessage();
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message->code, i);
        EXPECT_EQ(message->text, std::to_string(i));
    }
    EXPECT_TRUE(SystemErrorMessages::hasMessages());
    EXPECT_EQ(SystemErrorMessages::nextMessage()->text, "Limit reached.");
    EXPECT_FALSE(SystemErrorMessages::hasMessages());
    EXPECT_EQ(SystemErrorMessages::nextMessage(), nullptr);
}

// Between lockMessages() and unlockMessages() nothing comes in and what was handed out stays as it
// is, although the posters could fill the queue several times over meanwhile.
TEST(SystemErrorMessagesTest, ReaderIsUndisturbedByPosters) {
    constexpr int POSTERS = 4;
    constexpr int EACH = 1000;
    drain();
    std::atomic<int> running{POSTERS};
    std::vector<std::thread> posters;
    for (int poster = 0; poster < POSTERS; ++poster)
        posters.emplace_back([poster, &running] {
            for (int i = 0; i < EACH; ++i) {
                SystemErrorMessages::add(poster, std::to_string(i));
                SystemErrorMessages::hasMessages();
            }
            --running;
        });
    int last[POSTERS] = {-1, -1, -1, -1};
    for (bool more = true; more;) {
        more = running != 0;
        std::vector<std::pair<const error_message_t*, error_message_t>> taken;
        SystemErrorMessages::lockMessages();
        while (SystemErrorMessages::hasMessages()) {
            const error_message_t* const message = SystemErrorMessages::nextMessage();
            taken.emplace_back(message, *message);
        }
        std::this_thread::yield();
        EXPECT_FALSE(SystemErrorMessages::hasMessages());
        for (const auto& [message, copy] : taken)
            EXPECT_EQ(message->text, copy.text);
        SystemErrorMessages::unlockMessages();
        EXPECT_LE(taken.size(), 100u);
        for (const auto& [message, copy] : taken) {
            EXPECT_LT(last[copy.code], std::stoi(copy.text));
            last[copy.code] = std::stoi(copy.text);
        }
    }
    for (std::thread& poster : posters)
        poster.join();
    // The very last message of all is among the newest hundred.
    EXPECT_NE(std::find(std::begin(last), std::end(last), EACH - 1), std::end(last));
}

}  // namespace
}  // namespace tavrik
