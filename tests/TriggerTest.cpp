// Triggers, their registry and the queues behind them.
#include <atomic>
#include <functional>
#include <future>

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
    void set(std::initializer_list<int> values) {
        for (const int value : values)
            trigger->setValue(value);
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
        EXPECT_TRUE(eventually([] { return number("Queue Size") == 0; })) << number("Queue Size");
        return notes.take();
    }

    Notes notes;
    Recorder* const listener = new Recorder(notes);
    std::unique_ptr<Trigger> trigger = std::make_unique<Trigger>("tested");
};

}  // namespace

TEST_F(TriggerTest, ADisabledTriggerAppliesValuesSilently) {
    trigger->setValue(0);
    EXPECT_EQ(trigger->getChangeCount(), 0);
    EXPECT_EQ(trigger->getPreviousValue(), 0);
    set({5, 6});
    EXPECT_EQ(trigger->getValue(), 6);
    EXPECT_EQ(trigger->getPreviousValue(), 5);
    EXPECT_EQ(trigger->getSetCount(), 3);
    EXPECT_EQ(trigger->getChangeCount(), 2);
    EXPECT_EQ(notes.take(), Texts{});
}

TEST_F(TriggerTest, AChangeHasItsTimeAndTheTimeOfTheOneBefore) {
    const double before = getNow();
    trigger->setValue(5);
    EXPECT_EQ(trigger->getPreviousTime(), 0.0);
    const double first = trigger->getTime();
    EXPECT_GE(first, before);
    EXPECT_LE(first, getNow());
    trigger->setValue(6);
    EXPECT_EQ(trigger->getPreviousTime(), first);
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
    set({1, 2, 3, 3, 4, 3});
    EXPECT_EQ(heard(),
              (Texts{"Default Worker: 0 to 1", "Default Worker: 1 to 2", "Default Worker: 2 to 3",
                     "Default Worker: 3 to 4", "Default Worker: 4 to 3"}));
    EXPECT_EQ(trigger->getChangeCount(), 5);
    EXPECT_EQ(trigger->getSetCount(), 6);
}

TEST_F(TriggerTest, AQuietValueIsNoRequest) {
    trigger->setValue(3);
    trigger->setEnabled(true);
    notes.take();
    for (const int value : {9, 9})
        trigger->setValueQuietly(value);
    trigger->setValue(3);
    EXPECT_EQ(heard(), Texts{}) << "3 is still the last requested value";
    EXPECT_EQ(trigger->getValue(), 9);
    trigger->setValue(9);
    EXPECT_EQ(heard(), Texts{"Default Worker: 9 to 9"});
    EXPECT_EQ(trigger->getChangeCount(), 3);
    EXPECT_EQ(trigger->getSetCount(), 5);
}

TEST_F(TriggerTest, TheNotifierAppliesUnsubscriptions) {
    Notes stayed, left;
    Recorder* const leaving = new Recorder(left);
    trigger->subscribe(new Recorder(stayed));
    trigger->subscribe(leaving);
    holdAt(1);
    trigger->unsubscribe(leaving);
    listener->open.set_value();
    heard();
    EXPECT_THAT(left.take(), testing::ElementsAre(testing::_, "Default Worker: 0 to 1", "gone"));
    trigger->setValue(2);
    heard();
    EXPECT_EQ(trigger->getChangeCount(), 2) << "unsubscribing is no change";
    trigger.reset();
    EXPECT_THAT(stayed.take(), testing::ElementsAre(testing::_, "Default Worker: 0 to 1",
                                                    "Default Worker: 1 to 2", "gone"));
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

TEST_F(TriggerTest, MetricsCountChangesUntilTheTriggerIsDeleted) {
    holdAt(1);
    set({2, 3, 4, 4});
    EXPECT_EQ(number("Queue Size"), 4);
    listener->open.set_value();
    heard();
    const std::pair<const char*, const char*> expected[] = {
        {"Queue Size", "Trigger|the size of the queue that manages pending changes.|0"},
        {"Max Queue Size", "Trigger|the maxium number of events that waited in the queue.|3"},
        {"Set Count", "Trigger|the number of times the trigger has been set.|5"},
        {"Change Count", "Trigger|the number of times the trigger has been changed.|4"},
        {"Subscriber Count", "Trigger|the number of subscribers for trigger events.|1"}};
    MetricRegistry::Instance()->addMetric(nullptr);
    for (const auto& each : expected)
        EXPECT_EQ(metric("tested", each.first), each.second);
    trigger.reset();
    for (const auto& each : expected)
        EXPECT_EQ(metric("tested", each.first), "");
}

TEST_F(TriggerTest, TheDestructorDeliversWhatIsQueued) {
    trigger->setEnabled(true);
    for (int value = 1; value <= 100; ++value)
        trigger->setValue(value);
    trigger.reset();
    EXPECT_EQ(notes.take().size(), 1u + 100u) << "the enabling and the changes";
}

// Records the values of a trigger, which eight threads set. The test owns it.
class ConcurrentSetters : public TriggerTest, protected Trigger::Listener {
  protected:
    static constexpr int kCount = kSanitized ? 1000 : 10000;  // of each thread

    // Sets values, waits until they are delivered and checks the counts.
    void setOnEachThread(const std::function<int(int thread, int i)>& value) {
        trigger->subscribe(this);
        trigger->setEnabled(true);
        inParallel(8, [&](int thread) {
            for (int i = 0; i < kCount; ++i)
                trigger->setValue(value(thread, i));
        });
        const size_t notices = heard().size();
        EXPECT_EQ(notices, values.size()) << "the first text is the enabling";
        const int changes = static_cast<int>(values.size()) - 1;
        EXPECT_EQ(number("Set Count"), 8 * kCount);
        EXPECT_EQ(number("Change Count"), changes);
        EXPECT_LE(number("Max Queue Size"), changes);
        EXPECT_GE(number("Max Queue Size"), 1);
    }
    void reserve() override {}
    bool release() override { return false; }
    void onTriggerValueChange(Trigger* changed) override {
        EXPECT_EQ(changed->getPreviousValue(), values.back());
        values.push_back(changed->getValue());
    }

    std::vector<int> values{0};
};

TEST_F(ConcurrentSetters, KeepTheOrderOfTheirOwnValues) {
    setOnEachThread([](int thread, int i) { return thread * 1000000 + i + 1; });
    int last[8] = {};
    for (size_t i = 1; i < values.size(); ++i)
        ASSERT_EQ(values[i] % 1000000, ++last[values[i] / 1000000]) << values[i];
    EXPECT_THAT(last, testing::Each(kCount));
}

// If the order of queueing differed from the order of requests, two equal values would follow each
// other, or the last value would be wrong.
TEST_F(ConcurrentSetters, NeverRepeatAValue) {
    setOnEachThread([](int, int i) { return i % 3; });
    EXPECT_EQ(std::adjacent_find(values.begin(), values.end()), values.end());
    EXPECT_EQ(values.back(), trigger->getRequestedValue());
}

// Records its entries. The drain waits at entry 0 until `goOn` is set.
struct Entries : TaskQueue<int> {
    explicit Entries(ThreadGroup* drains) : TaskQueue<int>(drains, 2) {}
    ~Entries() override { close(); }
    void exec(const int& entry, int index, int count) override {
        EXPECT_TRUE(index >= 1 && index <= count) << index << " of " << count;
        most = std::max(most, count);
        if (entry == 0) began.set_value(), goOn.get_future().wait();
        all.put(entry);
    }
    std::promise<void> began, goOn;
    Collector<int> all;
    int most = 0;  // entries that were drained at a time
};

// Its drain waits.
class FullTaskQueue : public testing::Test {
  protected:
    void SetUp() override {
        queue.add(0);
        queue.began.get_future().wait();
        for (const int entry : {1, 2})
            queue.add(entry);
    }

    ThreadGroup workers{"Queue"};
    Entries queue{&workers};
};

TEST_F(FullTaskQueue, TakesNoMoreThanItsDrainMakesRoomFor) {
    inParallel(4, [this](int thread) {
        if (thread == 3) queue.goOn.set_value();
        for (int entry = 1; thread < 3 && entry <= 200; ++entry)
            queue.add(entry);
    });
    queue.close();
    EXPECT_EQ(queue.all.take().size(), 603u);
    EXPECT_EQ(queue.most, 2);
}

TEST_F(FullTaskQueue, ReleasesItsProducersWhenItIsClosed) {
    std::thread closer([&] { queue.close(); });
    inParallel(3, [this](int) { queue.add(3); });
    queue.goOn.set_value();
    closer.join();
    EXPECT_EQ(queue.all.take(), (std::vector<int>{0, 1, 2}));
}

TEST(TaskQueueTest, AFailedDrainIsRetried) {
    ThreadGroup workers("Queue");
    Entries queue(&workers), deaf(&workers);
    testing::internal::CaptureStderr();
    {
        const NoNewThreads refused;
        for (const int entry : {1, 2, 3})
            queue.add(entry), deaf.add(entry);
    }
    testing::internal::GetCapturedStderr();
    deaf.close();
    EXPECT_EQ(deaf.all.take(), std::vector<int>{});
    queue.add(4);
    EXPECT_EQ(queue.all.waitFor(4), (std::vector<int>{1, 2, 3, 4}));
}

}  // namespace tavrik
