// Triggers, their registry and the queues behind them.
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <future>

#include "log/Time.h"
#include "metric/MetricRegistry.h"
#include "runtime/SelfDestructingObject.h"
#include "tests/SimSupport.h"
#include "trigger/TriggerRegistry.h"

namespace tavrik {
namespace {

using Texts = std::vector<std::string>;
using Notes = Collector<std::string>;

std::string threadName() {
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

// Notes what it hears and its own end.
class Ear : public Trigger::Listener, public SelfDestructingObject {
  public:
    explicit Ear(Notes& destination) : notes(destination) {}
    ~Ear() override { notes.put("gone"); }
    void reserve() override { SelfDestructingObject::reserve(); }
    bool release() override { return SelfDestructingObject::release(); }
    void onTriggerEnabled(Trigger*) override { notes.put("enabled on " + threadName()); }
    void onTriggerDisabled(Trigger*) override { notes.put("disabled on " + threadName()); }
    void onTriggerValueChange(Trigger* trigger) override {
        notes.put(std::to_string(trigger->getPreviousValue()) + " to " +
                  std::to_string(trigger->getValue()) + " on " + threadName());
        if (onChange) onChange(trigger);
    }
    std::function<void(Trigger*)> onChange;

  private:
    Notes& notes;
};

// A metric of the trigger "tested": "description|value"; empty when there is none. Not all are
// collected: the number of subscribers waits for notifications.
std::string metric(const std::string& wanted) {
    struct Walk : MetricRegistry::Visitor {
        bool visitMetric(Metric* metric) override {
            if (metric->instance != "tested" || metric->name != name) return false;
            found = metric->description + "|" + std::to_string(static_cast<int>(metric->collect()));
            return true;
        }
        std::string name;
        std::string found;
    } walk;
    walk.name = wanted;
    MetricRegistry::Instance()->visit(walk);
    return walk.found;
}

int number(const std::string& name) {
    const std::string text = metric(name);
    return std::stoi(text.substr(text.rfind('|') + 1));
}

// The faults that these tests look for are hangs, too: one ends the process.
class TriggerTest : public testing::Test {
  protected:
    void SetUp() override {
        alarm(240);
        ear->reserve();
        trigger->subscribe(ear);
        ear->onChange = [this](Trigger* changed) {
            if (changed->getValue() == held) open.get_future().wait();
        };
    }
    void TearDown() override {
        trigger.reset();
        EXPECT_TRUE(ear->release()) << "the trigger has given its reference back";
        alarm(0);
    }
    // Enables the trigger and holds its drain at a value until `open` is set.
    void holdAt(int value) {
        held = value;
        trigger->setEnabled(true);
        trigger->setValue(value);
        notes.waitFor(2);
    }
    // All that has been heard, once everything queued has been dealt with.
    Texts heard() {
        EXPECT_TRUE(eventually([&] { return number("Queue Size") == 0; }));
        return notes.take();
    }

    Notes notes;
    Ear* const ear = new Ear(notes);
    std::unique_ptr<Trigger> trigger = std::make_unique<Trigger>("tested");
    std::promise<void> open;
    std::atomic<int> held{-1000};
};

}  // namespace

TEST_F(TriggerTest, WhileDisabledValuesAreAppliedSilentlyAndAtOnce) {
    trigger->setValue(0);
    EXPECT_EQ(trigger->getSetCount(), 1);
    EXPECT_EQ(trigger->getChangeCount(), 0);
    const double before = getNow();
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

    for (const bool enable : {false, true, true, false})
        trigger->setEnabled(enable);
    EXPECT_EQ(notes.take(), (Texts{"enabled on " + threadName(), "disabled on " + threadName()}));
    EXPECT_GE(trigger->getEnabledTime(), first);
    EXPECT_GE(trigger->getDisabledTime(), trigger->getEnabledTime());
}

TEST_F(TriggerTest, ChangesOfTheRequestedValueAreHeardInOrderOnAWorker) {
    trigger->setEnabled(true);
    notes.take();
    for (const int value : {1, 2, 3, 3, 4, 3})
        trigger->setValue(value);
    EXPECT_EQ(heard(), (Texts{"0 to 1 on Default Worker", "1 to 2 on Default Worker",
                              "2 to 3 on Default Worker", "3 to 4 on Default Worker",
                              "4 to 3 on Default Worker"}));
    for (const int value : {9, 9})
        trigger->setValueQuietly(value);
    trigger->setValue(3);
    EXPECT_EQ(heard(), Texts{}) << "the last requested value, whatever was applied quietly";
    EXPECT_EQ(trigger->getValue(), 9);
    trigger->setValue(9);
    EXPECT_EQ(heard(), Texts{"9 to 9 on Default Worker"});
    EXPECT_EQ(trigger->getChangeCount(), 7);
    EXPECT_EQ(trigger->getSetCount(), 10);
}

TEST_F(TriggerTest, UnsubscribingIsAppliedByTheNotifier) {
    Notes otherNotes;
    trigger->subscribe(new Ear(otherNotes));
    Ear* const other = new Ear(otherNotes);
    trigger->subscribe(other);
    holdAt(1);
    trigger->unsubscribe(other);
    trigger->setValue(2);
    open.set_value();
    heard();
    const Texts all = otherNotes.take();
    EXPECT_EQ(std::count(all.begin(), all.end(), "0 to 1 on Default Worker"), 2);
    EXPECT_EQ(std::count(all.begin(), all.end(), "1 to 2 on Default Worker"), 1);
    EXPECT_EQ(std::count(all.begin(), all.end(), "gone"), 1);
    EXPECT_EQ(trigger->getChangeCount(), 2) << "a maintenance entry is no change";
    trigger.reset();
    EXPECT_EQ(otherNotes.take(), Texts{"gone"});
}

// Either the enabling comes second, then its listeners find the value, or the value is heard of.
TEST_F(TriggerTest, NoValueIsLostBetweenSettingAndEnabling) {
    std::atomic<int> seen{0};
    struct Watcher : Trigger::Listener {
        explicit Watcher(std::atomic<int>& value) : last(value) {}
        void reserve() override {}
        bool release() override { return false; }
        void onTriggerEnabled(Trigger* changed) override { last = changed->getValue(); }
        void onTriggerValueChange(Trigger* changed) override { last = changed->getValue(); }
        std::atomic<int>& last;
    } watcher(seen);
    trigger->subscribe(&watcher);
    for (int value = 1; value <= 2000; ++value) {
        std::thread setter([&] { trigger->setValue(value); });
        trigger->setEnabled(true);
        setter.join();
        heard();
        ASSERT_EQ(seen, value);
        trigger->setEnabled(false);
    }
    trigger.reset();
}

TEST_F(TriggerTest, MetricsTellWhatHappens) {
    holdAt(1);
    for (const int value : {2, 3, 4, 4})
        trigger->setValue(value);
    EXPECT_EQ(number("Queue Size"), 4);
    open.set_value();
    heard();
    const std::pair<const char*, const char*> expected[] = {
        {"Queue Size", "the size of the queue that manages pending changes.|0"},
        {"Max Queue Size", "the maxium number of events that waited in the queue.|3"},
        {"Set Count", "the number of times the trigger has been set.|5"},
        {"Change Count", "the number of times the trigger has been changed.|4"},
        {"Subscriber Count", "the number of subscribers for trigger events.|1"}};
    for (const auto& each : expected)
        EXPECT_EQ(metric(each.first), each.second);

    for (int value = 101; value <= 200; ++value)
        trigger->setValue(value);
    trigger.reset();
    EXPECT_EQ(notes.take().size(), 100u) << "a trigger that goes delivers first";
    for (const auto& each : expected)
        EXPECT_EQ(metric(each.first), "");
}

// Half of the threads set values of their own, half of them the same few, where a value that is
// queued elsewhere than requested shows as two equal ones in a row, or as a wrong last one.
TEST_F(TriggerTest, EveryAppliedValueReachesEveryListenerInTheOrderOfItsApplication) {
    struct Log : Trigger::Listener {
        void reserve() override {}
        bool release() override { return false; }
        void onTriggerValueChange(Trigger* changed) override {
            EXPECT_EQ(changed->getPreviousValue(), values.back());
            values.push_back(changed->getValue());
        }
        std::vector<int> values{0};
    } first, second;
    constexpr int count = sanitized ? 1000 : 10000;
    trigger->subscribe(&first);
    trigger->subscribe(&second);
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
    EXPECT_EQ(all.size(), first.values.size()) << "whose first is the enabling";
    EXPECT_EQ(first.values, second.values);
    EXPECT_EQ(std::adjacent_find(first.values.begin(), first.values.end()), first.values.end());
    EXPECT_EQ(first.values.back(), trigger->getRequestedValue());
    std::array<int, 5> last{};
    for (const int value : first.values) {
        if (value < 1000000) continue;
        int& previous = last[static_cast<size_t>(value / 1000000)];
        EXPECT_EQ(value % 1000000, ++previous);
    }
    EXPECT_EQ(last, (std::array<int, 5>{0, count, count, count, count}));
    const int changes = static_cast<int>(first.values.size()) - 1;
    EXPECT_EQ(number("Set Count"), 8 * count);
    EXPECT_EQ(number("Change Count"), changes);
    EXPECT_LE(number("Max Queue Size"), changes);
    EXPECT_GE(number("Max Queue Size"), 1);
    trigger.reset();  // before its listeners
}

TEST(TriggerRegistryTest, OneTriggerPerNameHoweverManyAskFirst) {
    for (int trial = 0; trial < 50; ++trial) {
        const std::string name = "trial " + std::to_string(trial);
        std::array<Trigger*, 2> found{};
        std::vector<std::thread> threads;
        for (Trigger*& trigger : found)
            threads.emplace_back([&] { trigger = TriggerRegistry::getTrigger(name); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(found[0], found[1]);
    }
}

TEST(TaskQueueTest, ProducersWaitForRoomUntilCloseLetsThemGo) {
    // Holds its drain at the first entry until told to go on.
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
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([&] {
                for (int entry = 0; entry < (closing ? 1 : 200); ++entry)
                    queue.add(entry);
            });
        if (closing) {
            std::thread closer([&] { queue.close(); });
            for (std::thread& producer : threads)
                producer.join();
            queue.goOn.set_value();
            closer.join();
        } else {
            queue.goOn.set_value();
            for (std::thread& producer : threads)
                producer.join();
            queue.close();
        }
        EXPECT_EQ(queue.all.size(), closing ? 3u : 603u);
    }
}

}  // namespace tavrik
