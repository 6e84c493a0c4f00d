#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/Time.h"
#include "server/ChannelList.h"
#include "server/ChannelStore.h"
#include "server/Errors.h"
#include "server/MarkerBuffer.h"
#include "server/SystemErrorMessages.h"
#include "tests/Support.h"

namespace tavrik {
namespace {

constexpr int kThreads = 8;

std::string heard;  // all channels' notifications, which come one at a time
std::atomic<size_t> channelsAlive{0};

struct TestChannel : Channel, ChannelFactory {
    explicit TestChannel(const std::string& id_) : id(id_) { ++channelsAlive; }
    ~TestChannel() override { --channelsAlive, onEnd(); }
    Channel* create(const std::string& name, const JSOM& config) override {
        return config.toCompactString(heard += name), onCreate(), this;
    }
    void reserve() override { ++references; }
    bool release() override { return --references == 0 ? delete this, true : false; }
    void removedFromList() override { heard += id + "! "; }
    void setDescription(const JSOM& config) override { config.toCompactString(heard += id); }
    void channelAdded(const std::string& other) override { heard += id + "+" + other + " "; }
    void channelRemoved(const std::string& other) override { heard += id + "-" + other + " "; }
    void publish(Buffer& buffer) override { onPublish(dynamic_cast<MarkerBuffer&>(buffer)); }
    const std::string id;
    std::atomic<int> references{0};
    std::function<void()> onCreate = [] {}, onEnd = [] {};
    std::function<void(const MarkerBuffer&)> onPublish = [](const MarkerBuffer&) {};
};

std::string textsOf(const MarkerBuffer& buffer) {
    std::string texts;
    for (unsigned i = 0; i < buffer.getCount(); ++i)
        texts += buffer.getEntry(i).text;
    return texts;
}

TEST(ErrorsTest, TokensAndTextsAreFound) {
    for (int code = 0; code < 14; ++code)
        EXPECT_EQ(Errors::toInt(Errors::toToken(static_cast<unsigned>(code))), code);
    EXPECT_EQ(Errors::toAscii(13), "Firmware updating failed");
    EXPECT_EQ(Errors::toAscii(14) + Errors::toToken(14), "");
    EXPECT_EQ(Errors::toInt("NOMEM"), 6);
    EXPECT_EQ(Errors::toInt("nomem"), 0);
}

// The messages that are queued, and copies of them.
std::vector<std::pair<const error_message_t*, error_message_t>> takeMessages() {
    std::vector<std::pair<const error_message_t*, error_message_t>> taken;
    while (SystemErrorMessages::hasMessages()) {
        const error_message_t* const message = SystemErrorMessages::nextMessage();
        taken.emplace_back(message, *message);
    }
    return taken;
}

// Between lockMessages() and unlockMessages() no message is added and the messages handed out keep
// their contents, although the posters could fill the queue several times over.
TEST(SystemErrorMessagesTest, LockedMessagesIgnoreConcurrentPosts) {
    std::atomic<int> running{kThreads - 1};
    int last[kThreads] = {};
    inParallel(kThreads, [&](int thread) {
        for (int i = 1; thread != 0 && i <= 1000; ++i)
            SystemErrorMessages::add(thread, std::to_string(i)), SystemErrorMessages::hasMessages();
        if (thread != 0) --running;
        for (bool more = thread == 0; more;) {
            more = running != 0;
            SystemErrorMessages::lockMessages();
            const auto taken = takeMessages();
            std::this_thread::yield();
            EXPECT_FALSE(SystemErrorMessages::hasMessages());
            EXPECT_LE(taken.size(), 100u);
            for (const auto& [message, copy] : taken) {
                EXPECT_EQ(message->text, copy.text);
                EXPECT_LT(last[copy.code], std::stoi(copy.text));
                last[copy.code] = std::stoi(copy.text);
            }
            SystemErrorMessages::unlockMessages();
        }
    });
    // The last message of some thread is among the newest hundred.
    EXPECT_NE(std::find(std::begin(last), std::end(last), 1000), std::end(last));
}

constexpr int kMessagesPerThread = 10000;  // a code tells its thread and the number there
std::atomic<int> postersStarted{0};
std::string textOf(int code) { return std::to_string(code) + " is the number of this message"; }

void postFromAllThreads() {
    inParallel(kThreads, [](int thread) {
        ++postersStarted;
        for (int code = thread * kMessagesPerThread; code < (thread + 1) * kMessagesPerThread;
             ++code)
            SystemErrorMessages::add(code, textOf(code));
    });
    int left = 0, last[kThreads] = {};
    for (; const error_message_t* const message = SystemErrorMessages::nextMessage(); ++left) {
        EXPECT_EQ(message->text, textOf(message->code));
        const int before = std::exchange(last[message->code / kMessagesPerThread], message->code);
        EXPECT_TRUE(before == 0 || message->code == before + 1) << message->code;
    }
    EXPECT_EQ(left, 100);
    for (const int code : last)
        EXPECT_TRUE(code == 0 || code % kMessagesPerThread == kMessagesPerThread - 1) << code;
}

TEST(SystemErrorMessagesTest, KeepsTheNewestHundred) {
    postFromAllThreads();
    const error_message_t unqueued{1, "only shown"};
    SystemErrorMessages::recordOnly(&unqueued);
    EXPECT_FALSE(SystemErrorMessages::hasMessages());
    SystemErrorMessages::add(11);
    EXPECT_EQ(SystemErrorMessages::nextMessage()->text, "Limit reached.");
    for (const char* const text : {static_cast<const char*>(nullptr), "text"}) {
        SystemErrorMessages::add(12, text);
        EXPECT_EQ(SystemErrorMessages::nextMessage()->text, text ? text : "");
    }
}

TEST(SystemErrorMessagesTest, TheFirstMessageMakesTheChannel) {
    TestChannel* const channel = new TestChannel("m");
    for (TestChannel* const factory : {new TestChannel("f"), channel, channel})
        ChannelStore::addFactory("basic", factory);
    EXPECT_EQ(channelsAlive, 1u) << "a later factory replaces an earlier one";
    ChannelList::addChannel("o", new TestChannel("o"));
    SystemErrorMessages::add(1, "text");
    EXPECT_EQ(channel->references, 2);
    const std::string config =
        R"({"id":"serverMessages","name":"System Messages","description":"Messages generated by )"
        R"(the server in response to error conditions or to provide other useful information.",)"
        R"("type":"basic","bufferType":"marker","cacheSize":4000,"groups":["Server"],)"
        R"("protected":true})";
    EXPECT_EQ(heard, "serverMessages" + config + "o+serverMessages m" + config);
}

// A message that the channel posts while it publishes is published too, and does not change the
// one being published.
TEST(SystemErrorMessagesTest, PublishesEachMessageOfAllThreadsOnce) {
    const error_message_t nested{0, textOf(kThreads * kMessagesPerThread)};
    std::vector<int> published(kThreads * kMessagesPerThread + 1);
    int depth = 0;
    TestChannel* const channel = new TestChannel("m");
    channel->onCreate = [] {
        SystemErrorMessages::add(0, "only queued");
        while (postersStarted != kThreads || !SystemErrorMessages::hasMessages())
            std::this_thread::yield();
    };
    channel->onPublish = [&, begin = getNow()](const MarkerBuffer& buffer) {
        const MarkerEntry entry = buffer.getEntry(0);
        const int code = std::stoi(entry.text);
        EXPECT_EQ(++depth, code == kThreads * kMessagesPerThread ? 2 : 1);
        if (++published.at(static_cast<size_t>(code)) == 1 && code == 5)
            SystemErrorMessages::recordOnly(&nested);
        SystemErrorMessages::lockMessages(), SystemErrorMessages::unlockMessages();
        if (code == 5) std::thread(SystemErrorMessages::hasMessages).join();
        EXPECT_EQ(textsOf(buffer), textOf(code));
        EXPECT_TRUE(begin <= entry.timestamp && entry.timestamp <= getNow()) << entry.timestamp;
        EXPECT_EQ(entry.value, 0);
        --depth;
    };
    ChannelStore::addFactory("basic", channel);
    postFromAllThreads();
    EXPECT_EQ(published, std::vector<int>(kThreads * kMessagesPerThread + 1, 1));
}

struct Walker : VectorMap<Channel>::Visitor {
    int visit(const std::string& name, Channel*) const override { return (seen += name) == "cb"; }
    mutable std::string seen;
};

TEST(ChannelListTest, ChangesAreAnnouncedAndReservingTradesReferences) {
    struct Access : ChannelList {
        using VectorMap::names;
    };
    TestChannel* const old = new TestChannel("b");
    TestChannel* const next = new TestChannel("B");
    old->onEnd = [] { ChannelList::removeChannel("nobody"); };  // deadlocks under a read lock
    for (TestChannel* const channel : {new TestChannel("a"), old, new TestChannel("c")})
        ChannelList::addChannel(channel->id, channel);
    EXPECT_EQ(ChannelList::reserveChannel("b", nullptr), old);
    EXPECT_EQ(ChannelList::reserveChannel("b", old), old);
    EXPECT_EQ(old->references, 2);
    EXPECT_EQ(ChannelList::visit(Walker()), 1);
    ChannelList::addChannel(old->id, next);
    EXPECT_EQ(ChannelList::reserveChannel("b", old), next);
    EXPECT_EQ(ChannelList::reserveChannel("nobody", next), nullptr);
    ChannelList::removeChannel("c");
    // A name that is listed twice stays listed, and the list keeps a superfluous reference.
    (ChannelList::Instance()->*&Access::names)[1] = "a";
    ChannelList::addChannel("a", next);
    EXPECT_NE(ChannelList::reserveChannel("a", nullptr), next);
    EXPECT_EQ(next->references, 1);
    EXPECT_EQ(heard, "a+b b+c a+c c-b a-b b! c+b a+b B-c a-c c! B! ");
}

TEST(ChannelListTest, ReferencesBalanceUnderLoad) {
    inParallel(kThreads, [](int thread) {
        Channel* held[3] = {};
        for (int step = 0; step < 20000; ++step) {
            const std::string name(1, "abc"[step % 3]);
            Channel*& mine = held[step / 3 % 3];
            const int action = step * (thread + 1) % 7;
            if (action == 0) ChannelList::addChannel(name, new TestChannel(name));
            if (action == 1) ChannelList::removeChannel(name);
            if (action == 2) ChannelList::visit(Walker());
            if (action == 3 && mine != nullptr) ChannelList::addChannel(name, mine);
            if (action > 3) mine = ChannelList::reserveChannel(name, mine);
        }
        for (Channel* const channel : held)
            ChannelList::reserveChannel("nobody", channel);
    });
    for (const char* const name : {"a", "b", "c"})
        ChannelList::removeChannel(name);
    EXPECT_EQ(channelsAlive, 0u);
}

TEST(MarkerBufferTest, GrowsWrapsAndCopies) {
    MarkerBuffer ring, copy;
    std::string sizes;
    for (const char text : std::string("123456789AB")) {
        if (text > '4' && text < 'B') ring.shift();
        if (text == 'B') copy.copy(ring);
        ring.appendValue(text, 7, std::string(1, text));
        sizes += std::to_string(ring.getReserveSize()) + static_cast<char>(ring.getStartTime());
    }
    EXPECT_EQ(sizes + textsOf(ring) + textsOf(copy), "11414141424344454647207789AB9A78");
    EXPECT_EQ(copy.getEntry(0).value, 7);
    copy.copy(ring), ring.shift(), ring.copy(copy);
    EXPECT_EQ(textsOf(ring), "789AB");
    EXPECT_EQ(ring.getReserveSize() - copy.getReserveSize(), 20u - 5u);
    ring.shift(), ring.clear(), ring.shift();
    ring.appendValue(ring.getStartTime(), 7, "C"), copy.copy(ring);
    EXPECT_EQ(textsOf(copy) + std::to_string(copy.getStartTime()), "C0.000000");
}

TEST(MarkerBufferTest, AppendsItsOwnEntriesWhileGrowing) {
    MarkerBuffer buffer;
    buffer.appendValue(1.0, 2, std::string(50, 't'));
    while (buffer.getCount() < 61) {  // grows from 1, 4, 20, 36 and 52
        buffer.appendEntry(buffer.getEntry(0));
        buffer.appendValue(1.0, 2, buffer.getEntry(0).text);
        buffer.appendValue(1.0, 2, buffer.getEntry(0).text.c_str());
    }
    EXPECT_EQ(textsOf(buffer), std::string(61 * 50, 't'));
}

TEST(MarkerBufferTest, OneMetricCountsAllBuffers) {
    inParallel(kThreads, [](int) { std::vector<MarkerBuffer> buffers(1000); });
    const MarkerBuffer buffer;
    EXPECT_EQ(metric("MarkerBuffer", "Count"),
              "Buffer|the total number of buffers allocated.  Each " +
                  std::to_string(sizeof buffer) + " byte buffer may contain a variable array of " +
                  std::to_string(sizeof(MarkerEntry)) +
                  " byte entries.  Each entry may also contain a variable length string.|1");
}

}  // namespace
}  // namespace tavrik
