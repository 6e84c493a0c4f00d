// Triggers, their registry and the queues behind them.
#include <atomic>
#include <future>
#include <limits>
#include <map>

#include "log/Time.h"
#include "runtime/SelfDestructingObject.h"
#include "tests/SimSupport.h"
#include "tests/Support.h"
#include "trigger/Trigger.h"

namespace tavrik {
namespace {

using Texts = std::vector<std::string>;
using Notes = Collector<std::string>;

// Records its callbacks and its own deletion.
class Recorder : public Trigger::Listener, public SelfDestructingObject {
  public:
    explicit Recorder(Notes& destination) : notes(destination) {}
    ~Recorder() override { notes.put("gone"); }
    void reserve() override { SelfDestructingObject::reserve(); }
    bool release() override { return SelfDestructingObject::release(); }
    void onTriggerEnabled(Trigger* trigger) override { note("enabled at ", trigger); }
    void onTriggerDisabled(Trigger* trigger) override { note("disabled at ", trigger); }
    void onTriggerValueChange(Trigger* trigger) override {
        note(std::to_string(trigger->getPreviousValue()) + " to ", trigger);
        if (trigger->getValue() == held) open.get_future().wait();
    }
    std::atomic<int> held{-1000};  // at a change to this value it waits for `open`
    std::promise<void> open;

  private:
    void note(const std::string& what, const Trigger* trigger) {
        notes.put(threadName() + ": " + what + std::to_string(trigger->getValue()));
    }
    Notes& notes;
};

int number(const std::string& name) {
    const std::string text = metric("tested", name);
    return std::stoi(text.substr(text.rfind('|') + 1));
}

class TriggerTest : public testing::Test {
  protected:
    void SetUp() override {
        listener->reserve();
        trigger->subscribe(listener);
    }
    void TearDown() override {
        trigger.reset();
        EXPECT_TRUE(listener->release()) << "the trigger has given its reference back";
    }
    // Enables the trigger and blocks its worker at a value until the listener is opened.
    void holdAt(int value) {
        listener->held = value;
        trigger->setEnabled(true);
        trigger->setValue(value);
        notes.waitFor(2);
    }
    // Waits until the queue is empty; returns what the listener has recorded since the last call.
    Texts heard() {
        EXPECT_TRUE(eventually([&] { return number("Queue Size") == 0; }));
        return notes.take();
    }

    Notes notes;
    Recorder* const listener = new Recorder(notes);
    std::unique_ptr<Trigger> trigger = std::make_unique<Trigger>("tested");
};

}  // namespace

TEST_F(TriggerTest, ADisabledTriggerAppliesValuesSilently) {
    trigger->setValue(0);
    EXPECT_EQ(trigger->getSetCount(), 1);
    EXPECT_EQ(trigger->getChangeCount(), 0);
    const double before = getNow();
    EXPECT_EQ(trigger->getPreviousValue(), 0);
    trigger->setValue(5);
    EXPECT_EQ(trigger->getPreviousTime(), 0.0);
    const double first = trigger->getTime();
    EXPECT_TRUE(before <= first && first <= getNow());
    trigger->setValue(6);
    EXPECT_EQ(trigger->getValue(), 6);
    EXPECT_EQ(trigger->getPreviousValue(), 5);
    EXPECT_EQ(trigger->getPreviousTime(), first);
    EXPECT_EQ(trigger->getChangeCount(), 2);
    EXPECT_EQ(notes.take(), Texts{});
}

TEST_F(TriggerTest, EnablingIsAnnouncedOnTheCallersThread) {
    trigger->setValue(6);
    const double first = trigger->getTime();
    for (const bool enable : {false, true, true, false})
        trigger->setEnabled(enable);
    EXPECT_EQ(notes.take(),
              (Texts{threadName() + ": enabled at 6", threadName() + ": disabled at 6"}));
    EXPECT_GE(trigger->getEnabledTime(), first);
    EXPECT_GE(trigger->getDisabledTime(), trigger->getEnabledTime());
}

TEST_F(TriggerTest, ChangesReachListenersInOrder) {
    trigger->setEnabled(true);
    notes.take();
    for (const int value : {1, 2, 3, 3, 4, 3})
        trigger->setValue(value);
    EXPECT_EQ(heard(),
              (Texts{"Default Worker: 0 to 1", "Default Worker: 1 to 2", "Default Worker: 2 to 3",
                     "Default Worker: 3 to 4", "Default Worker: 4 to 3"}));
    for (const int value : {9, 9})
        trigger->setValueQuietly(value);
    trigger->setValue(3);
    EXPECT_EQ(heard(), Texts{}) << "3 is still the last requested value";
    EXPECT_EQ(trigger->getValue(), 9);
    trigger->setValue(9);
    EXPECT_EQ(heard(), Texts{"Default Worker: 9 to 9"});
    EXPECT_EQ(trigger->getChangeCount(), 7);
    EXPECT_EQ(trigger->getSetCount(), 10);
}

TEST_F(TriggerTest, TheNotifierAppliesUnsubscriptions) {
    Notes otherNotes;
    trigger->subscribe(new Recorder(otherNotes));
    Recorder* const other = new Recorder(otherNotes);
    trigger->subscribe(other);
    holdAt(1);
    trigger->unsubscribe(other);
    trigger->setValue(2);
    listener->open.set_value();
    heard();
    const Texts all = otherNotes.take();
    EXPECT_EQ(std::count(all.begin(), all.end(), "Default Worker: 0 to 1"), 2);
    EXPECT_EQ(std::count(all.begin(), all.end(), "Default Worker: 1 to 2"), 1);
    EXPECT_EQ(std::count(all.begin(), all.end(), "gone"), 1);
    EXPECT_EQ(trigger->getChangeCount(), 2) << "unsubscribing is no change";
    trigger.reset();
    EXPECT_EQ(otherNotes.take(), Texts{"gone"});
}

// If the trigger is enabled after the value is set, listeners see the value at the enabling;
// otherwise they get a change.
TEST_F(TriggerTest, NoValueIsLostBetweenSettingAndEnabling) {
    for (int value = 1; value <= 2000; ++value) {
        std::thread setter([&] { trigger->setValue(value); });
        trigger->setEnabled(true);
        setter.join();
        const std::string last = heard().back();
        ASSERT_EQ(last.substr(last.rfind(' ') + 1), std::to_string(value));
        trigger->setEnabled(false);
    }
}

TEST_F(TriggerTest, MetricsCountChanges) {
    holdAt(1);
    for (const int value : {2, 3, 4, 4})
        trigger->setValue(value);
    EXPECT_EQ(number("Queue Size"), 4);
    listener->open.set_value();
    heard();
    const std::pair<const char*, const char*> expected[] = {
        {"Queue Size", "Trigger|the size of the queue that manages pending changes.|0"},
        {"Max Queue Size", "Trigger|the maxium number of events that waited in the queue.|3"},
        {"Set Count", "Trigger|the number of times the trigger has been set.|5"},
        {"Change Count", "Trigger|the number of times the trigger has been changed.|4"},
        {"Subscriber Count", "Trigger|the number of subscribers for trigger events.|1"}};
    for (const auto& each : expected)
        EXPECT_EQ(metric("tested", each.first), each.second);

    for (int value = 101; value <= 200; ++value)
        trigger->setValue(value);
    trigger.reset();
    EXPECT_EQ(notes.take().size(), 100u) << "the destructor delivers what is queued";
    for (const auto& each : expected)
        EXPECT_EQ(metric("tested", each.first), "");
}

// Four threads set values of their own. Four set the same few values: if the order of queueing
// differed from the order of requests, two equal values would follow each other, or the last value
// would be wrong.
TEST_F(TriggerTest, ConcurrentSettersKeepTheOrderOfValues) {
    struct Log : Trigger::Listener {
        void reserve() override {}
        bool release() override { return false; }
        void onTriggerValueChange(Trigger* changed) override {
            EXPECT_EQ(changed->getPreviousValue(), values.back());
            values.push_back(changed->getValue());
        }
        std::vector<int> values{0};
    } log;
    constexpr int count = kSanitized ? 1000 : 10000;
    trigger->subscribe(&log);
    trigger->setEnabled(true);
    std::vector<std::thread> setters;
    for (int thread = 1; thread <= 8; ++thread)
        setters.emplace_back([&, thread] {
            for (int i = 1; i <= count; ++i)
                trigger->setValue(thread <= 4 ? thread * 1000000 + i : i % 3);
        });
    for (std::thread& setter : setters)
        setter.join();
    const Texts all = heard();
    EXPECT_EQ(all.size(), log.values.size()) << "the first text is the enabling";
    EXPECT_EQ(std::adjacent_find(log.values.begin(), log.values.end()), log.values.end());
    EXPECT_EQ(log.values.back(), trigger->getRequestedValue());
    std::map<int, int> last;
    for (const int value : log.values) {
        if (value < 1000000) continue;
        EXPECT_EQ(value % 1000000, ++last[value / 1000000]);
    }
    EXPECT_EQ(last, (std::map<int, int>{{1, count}, {2, count}, {3, count}, {4, count}}));
    const int changes = static_cast<int>(log.values.size()) - 1;
    EXPECT_EQ(number("Set Count"), 8 * count);
    EXPECT_EQ(number("Change Count"), changes);
    EXPECT_LE(number("Max Queue Size"), changes);
    EXPECT_GE(number("Max Queue Size"), 1);
    trigger.reset();  // before its listeners
}

TEST(TaskQueueTest, ProducersWaitForRoomUntilClose) {
    // Blocks its drain at the first entry until `goOn` is set.
    struct Entries : TaskQueue<int> {
        explicit Entries(ThreadGroup* drains) : TaskQueue<int>(drains, 2) {}
        ~Entries() override { close(); }
        void exec(const int& entry, int index, int count) override {
            if (all.empty()) {
                began.set_value();
                goOn.get_future().wait();
            }
            all.push_back(entry);
            EXPECT_TRUE(index >= 1 && index <= count && count <= 2);
        }
        std::promise<void> began;
        std::promise<void> goOn;
        std::vector<int> all;
    };
    for (const bool closing : {false, true}) {
        ThreadGroup workers("Queue");
        Entries queue(&workers);
        queue.add(0);
        queue.began.get_future().wait();
        for (const int entry : {1, 2})
            queue.add(entry);
        std::thread producers[3];
        for (std::thread& producer : producers)
            producer = std::thread([&] {
                for (int entry = 0; entry < (closing ? 1 : 200); ++entry)
                    queue.add(entry);
            });
        std::thread closer([&] { closing ? queue.close() : queue.goOn.set_value(); });
        for (std::thread& producer : producers)
            producer.join();
        if (closing) queue.goOn.set_value();
        closer.join();
        queue.close();
        EXPECT_EQ(queue.all.size(), closing ? 3u : 603u);
    }
}

TEST(TaskQueueTest, AFailedDrainIsRetried) {
    struct Entries : TaskQueue<int> {
        explicit Entries(ThreadGroup* drains) : TaskQueue<int>(drains, 2) {}
        ~Entries() override { close(); }
        void exec(const int& entry, int, int) override { all.put(entry); }
        Collector<int> all;
    };
    ThreadGroup workers("Queue");
    Entries queue(&workers);
    Entries deaf(&workers);
    testing::internal::CaptureStderr();
    ASSERT_TRUE(setStackSize(std::numeric_limits<size_t>::max() / 65536 * 49152));
    for (const int entry : {1, 2, 3}) {
        queue.add(entry);
        deaf.add(entry);
    }
    ASSERT_TRUE(setStackSize(1 << 20));
    testing::internal::GetCapturedStderr();
    deaf.close();
    EXPECT_TRUE(deaf.all.take().empty());
    queue.add(4);
    EXPECT_EQ(queue.all.waitFor(4), (std::vector<int>{1, 2, 3, 4}));
}

}  // namespace tavrik
