// What the benchmarks share. A case is named "piece/side": side "tavrik" is ours, any other one a
// peer that does the same work. bench/table.py joins them. A piece that begins with "growth" has
// our side alone, at several sizes.
#pragma once

#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <string>

namespace bench {

using Clock = std::chrono::steady_clock;

// Registers a case. Its time is that of the wall clock, because other threads take part.
template <typename Code>
benchmark::internal::Benchmark* add(const std::string& name, Code code) {
    return benchmark::RegisterBenchmark(name.c_str(), code)->UseRealTime();
}

// Registers a case at 1,000 to 64,000; the code gets the size as range(0).
template <typename Code>
void addGrowth(const std::string& piece, Code code) {
    add("growth: " + piece + "/tavrik", code)->RangeMultiplier(4)->Range(1000, 64000);
}

// As add(), for code that sets the time of each iteration itself.
template <typename Code>
void addTimed(const std::string& name, Code code) {
    benchmark::RegisterBenchmark(name.c_str(), code)->UseManualTime();
}

// Waits without sleeping, and leaves the processor to others.
inline void yieldUntil(const std::atomic<int>& counter, int value) {
    while (counter.load(std::memory_order_acquire) < value)
        sched_yield();
}

// Gives other threads the time to fall asleep.
inline void settle() {
    const auto end = Clock::now() + std::chrono::microseconds(15);
    while (Clock::now() < end)
        sched_yield();
}

// All threads on one processor for a scope: those that are made in it inherit that.
class OneCore {
  public:
    OneCore() {
        pthread_getaffinity_np(pthread_self(), sizeof before, &before);
        cpu_set_t first;
        CPU_ZERO(&first);
        for (int i = 0; i < CPU_SETSIZE && CPU_COUNT(&first) == 0; ++i) {
            if (CPU_ISSET(i, &before)) CPU_SET(i, &first);
        }
        pthread_setaffinity_np(pthread_self(), sizeof first, &first);
    }
    ~OneCore() { pthread_setaffinity_np(pthread_self(), sizeof before, &before); }
    OneCore(const OneCore&) = delete;
    OneCore& operator=(const OneCore&) = delete;

  private:
    cpu_set_t before;
};

// From `post`, which gets a counter to increase, to its effect, with all other threads asleep. On
// one processor: how long another one takes to come out of its idle state depends on the machine.
template <typename Post>
void timeWakeUps(benchmark::State& state, Post post) {
    std::atomic<int> ran{0};
    int count = 0;
    for (auto _ : state) {
        settle();
        const auto begin = Clock::now();
        post(ran);
        yieldUntil(ran, ++count);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
}

}  // namespace bench
