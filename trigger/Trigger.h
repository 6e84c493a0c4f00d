#pragma once

#include <atomic>
#include <string>

#include "log/Logger.h"
#include "metric/Metric.h"
#include "runtime/SelfDestructingResource.h"
#include "runtime/TaskQueue.h"
#include "runtime/XReference.h"

namespace tavrik {

// A named, process-wide integer with subscribers, which are told its changes in the order of the
// requests. Found through TriggerRegistry. Reports five metrics of category "Trigger".
//
// Threads: any thread may call any operation. "The notifier" is a worker of the default thread
// group. It drains this trigger's changes, one drain at a time, and tells the subscribers their
// values.
//
// Ownership: the registry keeps its triggers for ever. A trigger holds a reference on each
// subscriber.
//
// Deadlocks if a listener walks the subscribers of the same trigger (its setEnabled(), its
// "Subscriber Count" metric), looks a trigger up, adds or removes metrics (as creating a thread
// group does), or enables a trigger whose listeners enable this one. The same holds for its
// destructor.
class Trigger {
  public:
    // Is told the changes of one or more triggers. Must not throw.
    class Listener : public SelfDestructingResource {
      public:
        // Called on the thread of setEnabled().
        virtual void onTriggerEnabled(Trigger*) {}
        // Called on the notifier after the trigger took its new value. May set, subscribe and
        // unsubscribe.
        virtual void onTriggerValueChange(Trigger*) {}
        virtual void onTriggerDisabled(Trigger*) {}
    };

    explicit Trigger(const std::string& name);
    // Waits for the notifier.
    virtual ~Trigger();
    Trigger(const Trigger&) = delete;
    Trigger& operator=(const Trigger&) = delete;

    // Requests a value. If the trigger is enabled, or changes are queued, the notifier applies it
    // and tells the subscribers. Otherwise applies it at once and tells nobody. Ignores the last
    // requested value, whatever was applied quietly since.
    void setValue(int newValue);

    // Applies a value at once and tells nobody. Keeps the requested value. Returns the trigger's
    // value.
    int setValueQuietly(int newValue);

    // Applies a value with its time (seconds since the Unix epoch) and tells the subscribers if the
    // trigger is enabled. For the notifier: one call at a time.
    void _setValue(int newValue, double newTime);

    // Enables or disables the trigger and tells the subscribers on the caller's thread. Does
    // nothing if it is in that state already. A new trigger is disabled.
    void setEnabled(bool enable);

    // A subscriber is told from the next notification on. After unsubscribe() it may still be told
    // earlier values. Null changes nothing.
    void subscribe(Listener* listener);
    void unsubscribe(Listener* listener);

    const std::string& getName() const { return name; }

    // Two reads may see different changes. If a quiet value and one of the notifier meet, either
    // may remain, with the time or the predecessor of the other. Times are seconds since the Unix
    // epoch, 0 before the first event.
    int getValue() const { return value; }
    int getPreviousValue() const { return previousValue; }
    int getRequestedValue() const { return requestedValue; }
    double getTime() const { return time; }
    double getPreviousTime() const { return previousTime; }
    double getEnabledTime() const { return enabledTime; }
    double getDisabledTime() const { return disabledTime; }
    bool isEnabled() const { return enabled; }
    // The number of calls of the two set functions, and of applied values.
    int getSetCount() const { return setCount; }
    int getChangeCount() const { return changeCount + quietChangeCount; }

  private:
    // A queued change: a value with the time of its request, or the request to apply the queued
    // changes of subscribers.
    struct NotifierEntry {
        enum class Kind { kValue, kMaintenance };
        Kind kind;
        int value;
        double time;
    };

    // Makes the decisions that depend on the queue, under the queue's lock.
    class Notifier : public TaskQueue<NotifierEntry> {
      public:
        explicit Notifier(Trigger* owner);
        ~Notifier() override;

        // Applies the value at once while the trigger is disabled and nothing is queued; else
        // queues it. Drops the last requested value. Keeps the order of requests.
        void request(int newValue) TAVRIK_EXCLUDES(lock);
        // Queues the request to apply the changes of subscribers.
        void maintain() TAVRIK_EXCLUDES(lock);
        // False if the trigger is in that state already.
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

    // Takes a new value and its time, and keeps their predecessors; `count` is the setter's own.
    void apply(int newValue, double newTime, std::atomic<int>& count);
    // Calls `notify`, an operation of Listener, on every subscriber.
    template <auto notify>
    void tellSubscribers();
    void publish(TriggerMetric& metric, const char* metricName, const char* description);

    static std::atomic<Logger*> logger;

    // Its lock, the quiet setters' and the subscriber set's are never taken under one another.
    Notifier notifier;
    const std::string name;

    // Keeps quiet setters apart.
    Lock quietLock;

    std::atomic<int> requestedValue{0};  // written under the notifier's lock
    // The notifier and the quiet setters write the next four without a lock that both take: a walk
    // would pay for it with each value.
    std::atomic<int> value{0};
    std::atomic<int> previousValue{0};
    std::atomic<double> time{0.0};
    std::atomic<double> previousTime{0.0};
    std::atomic<double> enabledTime{0.0};
    std::atomic<double> disabledTime{0.0};
    std::atomic<int> changeCount{0};       // of the notifier
    std::atomic<int> quietChangeCount{0};  // written under quietLock
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
