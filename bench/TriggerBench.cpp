#include "trigger/Trigger.h"

#include <sigc++/sigc++.h>
#include <boost/asio.hpp>
#include <boost/signals2.hpp>

#include <memory>
#include <vector>

#include "bench/Bench.h"
#include "runtime/SelfDestructingObject.h"
#include "runtime/XReference.h"
#include "trigger/TriggerRegistry.h"

namespace {

using tavrik::Trigger;
using tavrik::TriggerRegistry;

// How many subscribers were told a value. One thread at a time tells them.
std::atomic<int> told{0};

void countTold() {
    told.store(told.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

struct Subscriber : Trigger::Listener {
    void reserve() override {}
    bool release() override { return false; }
    void onTriggerValueChange(Trigger* trigger) override {
        sum += trigger->getValue();
        countTold();
    }
    long sum = 0;
};

struct PeerSubscriber {
    void onValue(int value) {
        sum += value;
        countTold();
    }
    long sum = 0;
};

// A trigger with subscribers, kept for all rounds: the registry never forgets it.
Trigger& triggerFor(int subscribers) {
    const std::string name = "bench " + std::to_string(subscribers);
    Trigger* const trigger = TriggerRegistry::getTrigger(name);
    if (!trigger->isEnabled()) {
        trigger->setEnabled(true);
        for (int i = 0; i < subscribers; ++i)
            trigger->subscribe(new Subscriber);
    }
    return *trigger;
}

template <typename Signal>
void connect(Signal& signal, std::vector<PeerSubscriber>& subscribers) {
    for (PeerSubscriber& each : subscribers)
        signal.connect([&each](int value) { each.onValue(value); });
}

void walk(benchmark::State& state, int subscribers) {
    Trigger& trigger = triggerFor(subscribers);
    int value = 0;
    for (auto _ : state)
        trigger._setValue(++value, 0.0);
}

template <typename Signal>
void peerWalk(benchmark::State& state, int subscribers) {
    Signal signal;
    std::vector<PeerSubscriber> all(static_cast<size_t>(subscribers));
    connect(signal, all);
    int value = 0;
    for (auto _ : state)
        signal(++value);
}

void trip(benchmark::State& state, int subscribers) {
    const bench::OneCore pinned;
    Trigger& trigger = triggerFor(subscribers);
    int value = 0;
    for (auto _ : state) {
        told = 0;
        trigger.setValue(trigger.getRequestedValue() + ++value);
        bench::yieldUntil(told, subscribers);
    }
}

void peerTrip(benchmark::State& state, int subscribers) {
    const bench::OneCore pinned;
    boost::asio::thread_pool pool(1);
    auto strand = boost::asio::make_strand(pool);
    boost::signals2::signal<void(int)> signal;
    std::vector<PeerSubscriber> all(static_cast<size_t>(subscribers));
    connect(signal, all);
    int value = 0;
    for (auto _ : state) {
        told = 0;
        boost::asio::post(strand, [&signal, next = ++value] { signal(next); });
        bench::yieldUntil(told, subscribers);
    }
    pool.join();
}

// A member of a set, without work of its own.
struct Member : tavrik::SelfDestructingResource {
    void reserve() override {}
    bool release() override { return false; }
};

void changeSet(benchmark::State& state) {
    std::vector<Member> members(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        tavrik::XReference set;
        for (Member& member : members)
            set.add(&member);
        set.optimize();
        for (Member& member : members)
            set.remove(&member);
        set.optimize();
    }
}

const bool registered = [] {
    using State = benchmark::State;
    for (const int count : {1, 10, 100}) {
        const std::string piece = "notify " + std::to_string(count) + ", the walk";
        bench::add(piece + "/tavrik", [=](State& state) { walk(state, count); });
        bench::add(piece + "/signals2", [=](State& state) {
            peerWalk<boost::signals2::signal<void(int)>>(state, count);
        });
        // Without a lock, so not for several threads.
        bench::add(piece + "/sigc++",
                   [=](State& state) { peerWalk<sigc::signal<void, int>>(state, count); });
    }
    for (const int count : {1, 100}) {
        const std::string piece = "notify " + std::to_string(count) + ", the whole trip";
        bench::add(piece + "/tavrik", [=](State& state) { trip(state, count); });
        bench::add(piece + "/signals2", [=](State& state) { peerTrip(state, count); });
    }
    bench::addGrowth("changes of a set before a walk", changeSet);
    return true;
}();

}  // namespace
