#pragma once

#include <atomic>
#include <string>

#include "log/Logger.h"
#include "metric/Metric.h"
#include "runtime/SelfDestructingResource.h"
#include "runtime/TaskQueue.h"
#include "runtime/XReference.h"

namespace tavrik {

// A named, process-wide integer with subscribers, who hear of its changes in the order in which
// they were set. Found through TriggerRegistry. Reports five metrics of category "Trigger".
//
// Threads: every operation may be called on any thread. "The notifier" is a worker of the default
// thread group that drains this trigger's changes, one drain at a time: value changes are heard
// there.
//
// Ownership: the registry keeps its triggers for ever; a trigger holds a reference on each
// subscriber.
//
// Must not be done by a listener, because it would wait for itself for ever: walk the subscribers
// of the same trigger (setEnabled() of it, its "Subscriber Count" metric); look a trigger up, add
// or remove metrics (make or destroy a thread group, ...), in its destructor neither; enable
// another trigger whose listeners enable this one.
class Trigger {
  public:
    // Hears of one or more triggers. Must not throw.
    class Listener : public SelfDestructingResource {
      public:
        // Called on the thread of setEnabled().
        virtual void onTriggerEnabled(Trigger*) {}
        // Called on the notifier once the trigger has its new value; may set and (un)subscribe.
        virtual void onTriggerValueChange(Trigger*) {}
        virtual void onTriggerDisabled(Trigger*) {}
    };

    explicit Trigger(const std::string& name);
    // Waits for the notifier.
    virtual ~Trigger();
    Trigger(const Trigger&) = delete;
    Trigger& operator=(const Trigger&) = delete;

    // Requests a value. While the trigger is enabled, or changes are under way, it is applied and
    // heard of on the notifier; else it is applied at once and nobody hears of it. The last
    // requested value again is dropped, whatever was applied quietly in between.
    void setValue(int newValue);

    // Applies a value at once; nobody hears of it and the requested value stays. Returns the
    // trigger's value.
    int setValueQuietly(int newValue);

    // Applies a value with its time (seconds since the Unix epoch) and tells the subscribers if the
    // trigger is enabled. For the notifier.
    void _setValue(int newValue, double newTime);

    // Enables or disables the trigger, which is disabled at first, and tells the subscribers on the
    // caller's thread. The present state again changes nothing.
    void setEnabled(bool enable);

    // A subscriber takes part from the next notification on. After unsubscribe() it may still hear
    // of what was set before.
    void subscribe(Listener* listener);
    void unsubscribe(Listener* listener);

    const std::string& getName() const { return name; }

    // Each is right by itself; two of them may come from different changes. Times are seconds since
    // the Unix epoch, 0 where nothing happened yet.
    int getValue() const { return value; }
    int getPreviousValue() const { return previousValue; }
    int getRequestedValue() const { return requestedValue; }
    double getTime() const { return time; }
    double getPreviousTime() const { return previousTime; }
    double getEnabledTime() const { return enabledTime; }
    double getDisabledTime() const { return disabledTime; }
    bool isEnabled() const { return enabled; }
    // Calls of the two set functions; values that were applied.
    int getSetCount() const { return setCount; }
    int getChangeCount() const { return changeCount; }

  private:
    // One queued change: a value with the time of its request, or the order to apply the queued
    // changes of subscribers.
    struct NotifierEntry {
        enum class Kind { value, maintenance };
        Kind kind;
        int value;
        double time;
    };

    // Every decision that depends on what is queued is made here, under the queue's lock.
    class Notifier : public TaskQueue<NotifierEntry> {
      public:
        explicit Notifier(Trigger* owner);
        ~Notifier() override;

        // Applies the value at once while the trigger is disabled and nothing is queued; else
        // queues it. Drops the last requested value. Keeps the order of requests.
        void request(int newValue) TAVRIK_EXCLUDES(lock);
        // Queues the order to apply the changes of subscribers.
        void maintain() TAVRIK_EXCLUDES(lock);
        // False when the trigger is in that state already.
        bool setEnabled(bool enable) TAVRIK_EXCLUDES(lock);

      protected:
        void exec(const NotifierEntry& entry, int index, int count) override;

      private:
        Trigger* const trigger;
    };

    class TriggerMetric : public Metric {
      public:
        Trigger* owner = nullptr;
    };
    class QueueSizeMetric : public TriggerMetric {
        double collect() override;
    };
    class QueueMaxSizeMetric : public TriggerMetric {
        double collect() override;
    };
    class SetCountMetric : public TriggerMetric {
        double collect() override;
    };
    class ChangeCountMetric : public TriggerMetric {
        double collect() override;
    };
    // Takes the subscriber set's lock.
    class ListenerCountMetric : public TriggerMetric {
        double collect() override;
    };

    void apply(int newValue, double newTime) TAVRIK_EXCLUDES(valueLock);
    void applyLocked(int newValue, double newTime) TAVRIK_REQUIRES(valueLock);
    // Calls `notify` on every subscriber.
    void tellSubscribers(void (Listener::*notify)(Trigger*));
    void publish(TriggerMetric& metric, const char* metricName, const char* description);

    static std::atomic<Logger*> logger;

    // Lock order: the notifier's lock, valueLock; the subscriber set's own is never taken under
    // them.
    Notifier notifier;
    const std::string name;

    // Makes the changes of value, time and their predecessors one step. Innermost.
    Lock valueLock;

    std::atomic<int> requestedValue{0};  // written under the notifier's lock
    std::atomic<int> value{0};           // written under valueLock, like the next three
    std::atomic<int> previousValue{0};
    std::atomic<double> time{0.0};
    std::atomic<double> previousTime{0.0};
    std::atomic<double> enabledTime{0.0};
    std::atomic<double> disabledTime{0.0};
    std::atomic<int> changeCount{0};
    std::atomic<int> setCount{0};
    std::atomic<bool> enabled{false};  // written under the notifier's lock

    XReference subscribers;

    QueueSizeMetric queueSizeMetric;
    QueueMaxSizeMetric queueMaxSizeMetric;
    SetCountMetric setCountMetric;
    ChangeCountMetric changeCountMetric;
    ListenerCountMetric listenerCountMetric;
};

}  // namespace tavrik
