#include "trigger/Trigger.h"

#include "log/Time.h"
#include "metric/MetricRegistry.h"
#include "runtime/DefaultThreadGroup.h"

namespace tavrik {

std::atomic<Logger*> Trigger::logger{nullptr};

// --- Notifier -------------------------------------------------------------------------------

Trigger::Notifier::Notifier(Trigger* owner)
    : TaskQueue<NotifierEntry>(DefaultThreadGroup::Instance(), 0), trigger(owner) {}

Trigger::Notifier::~Notifier() { close(); }

void Trigger::Notifier::request(int newValue) {
    LockGuard guard(lock);
    if (newValue == trigger->requestedValue) return;
    trigger->requestedValue.store(newValue, std::memory_order_release);
    if (!trigger->enabled && !isRunning())
        return trigger->apply(newValue, getNow(), trigger->changeCount);
    ThreadGroup* const drains = append({NotifierEntry::Kind::kValue, newValue, getNow()});
    guard.unlock();
    startDrain(drains);
}

void Trigger::Notifier::maintain() { add({NotifierEntry::Kind::kMaintenance, 0, 0.0}); }

// Under the lock: between another thread's check of the flag and its silent application, the change
// would hide that value from the subscribers.
bool Trigger::Notifier::setEnabled(bool enable) {
    LockGuard guard(lock);
    return trigger->enabled.exchange(enable) != enable;
}

void Trigger::Notifier::exec(const NotifierEntry& entry, int, int) {
    if (entry.kind == NotifierEntry::Kind::kValue) {
        trigger->_setValue(entry.value, entry.time);
    } else {
        trigger->subscribers.optimize();
    }
}

// --- Trigger --------------------------------------------------------------------------------

Trigger::Trigger(const std::string& triggerName) : notifier(this), name(triggerName) {
    if (!logger) logger = Logger::getLogger("Trigger");
    publish(queueSizeMetric, "Queue Size", "the size of the queue that manages pending changes.");
    publish(queueMaxSizeMetric, "Max Queue Size",
            "the maxium number of events that waited in the queue.");
    publish(setCountMetric, "Set Count", "the number of times the trigger has been set.");
    publish(changeCountMetric, "Change Count", "the number of times the trigger has been changed.");
    publish(listenerCountMetric, "Subscriber Count",
            "the number of subscribers for trigger events.");
}

Trigger::~Trigger() {
    for (Metric* const metric :
         {static_cast<Metric*>(&queueSizeMetric), static_cast<Metric*>(&queueMaxSizeMetric),
          static_cast<Metric*>(&setCountMetric), static_cast<Metric*>(&changeCountMetric),
          static_cast<Metric*>(&listenerCountMetric)}) {
        MetricRegistry::Instance()->removeMetric(metric);
    }
    // The drain needs the subscribers.
    notifier.close();
}

void Trigger::publish(TriggerMetric& metric, const char* metricName, const char* description) {
    metric.owner = this;
    metric.category = "Trigger";
    metric.instance = name;
    metric.name = metricName;
    metric.description = description;
    MetricRegistry::Instance()->addMetric(&metric);
}

template <auto notify>
void Trigger::tellSubscribers() {
    subscribers.visitWith([this](SelfDestructingResource* resource) {
        (static_cast<Listener*>(resource)->*notify)(this);
        return false;
    });
}

void Trigger::setValue(int newValue) {
    setCount.fetch_add(1, std::memory_order_relaxed);
    notifier.request(newValue);
}

int Trigger::setValueQuietly(int newValue) {
    setCount.fetch_add(1, std::memory_order_relaxed);
    LockGuard guard(quietLock);
    if (newValue != value) apply(newValue, getNow(), quietChangeCount);
    return value;
}

void Trigger::_setValue(int newValue, double newTime) {
    apply(newValue, newTime, changeCount);
    if (enabled) tellSubscribers<&Listener::onTriggerValueChange>();
}

void Trigger::apply(int newValue, double newTime, std::atomic<int>& count) {
    constexpr auto kRelaxed = std::memory_order_relaxed;
    previousTime.store(time.load(kRelaxed), kRelaxed);
    previousValue.store(value.load(kRelaxed), kRelaxed);
    time.store(newTime, kRelaxed);
    count.store(count.load(kRelaxed) + 1, kRelaxed);
    // The last one: who reads the new value sees what its setter did before.
    value.store(newValue, std::memory_order_release);
}

void Trigger::setEnabled(bool enable) {
    if (!notifier.setEnabled(enable)) return;
    (enable ? enabledTime : disabledTime) = getNow();
    if (enable) {
        tellSubscribers<&Listener::onTriggerEnabled>();
    } else {
        tellSubscribers<&Listener::onTriggerDisabled>();
    }
}

void Trigger::subscribe(Listener* listener) { subscribers.add(listener); }

void Trigger::unsubscribe(Listener* listener) {
    if (!listener) return;
    subscribers.remove(listener);
    // Behind the values that were queued before the removal.
    notifier.maintain();
}

double Trigger::QueueSizeMetric::collect() { return owner->notifier.getSize(); }
double Trigger::QueueMaxSizeMetric::collect() { return owner->notifier.getMaxSize(); }
double Trigger::SetCountMetric::collect() { return owner->setCount; }
double Trigger::ChangeCountMetric::collect() { return owner->getChangeCount(); }
double Trigger::ListenerCountMetric::collect() { return owner->subscribers.getSize(); }

}  // namespace tavrik
