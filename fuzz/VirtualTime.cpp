#include "fuzz/VirtualTime.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <list>
#include <mutex>
#include <thread>

#include "fuzz/OwnThreads.h"
#include "fuzz/Support.h"

using fuzz::virtual_time::Nanoseconds;
using fuzz::virtual_time::now;
using std::chrono::steady_clock;

// The linker redirects calls in the product and the simulated device to __wrap_*; __real_* are the
// original functions.
extern "C" {
int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int __real_pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
int __real_ppoll(pollfd*, nfds_t, const timespec*, const sigset_t*);
int __real_clock_gettime(clockid_t, timespec*);
}

namespace {

struct Waiter {
    Nanoseconds deadline;
    std::function<void()> wake;
    int wakes = 0;
};

// Never destroyed: threads may outlive main().
struct World {
    std::mutex mutex{};  // guards waiters and running; held while `wake` is called
    std::list<Waiter> waiters{};
    int running = 0;
    std::condition_variable ended{};  // `running` has become 0
    std::atomic<bool> active{false};
    std::atomic<Nanoseconds::rep> now{1000000000000000000};  // in 2001; no clock is before 1980
};
World& world = *new World;

// The fuzzer's own thread moves the clocks and uses the true ones.
thread_local bool movesClocks = false;

bool isVirtual() { return world.active && !movesClocks; }

Nanoseconds duration(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + Nanoseconds(time.tv_nsec);
}

// Calls `wait`, which `wake` ends. Returns its result, or ETIMEDOUT at the deadline.
template <typename Wait>
int waitUntil(Nanoseconds deadline, std::function<void()> wake, Wait wait) {
    if (deadline <= now()) return ETIMEDOUT;
    std::unique_lock<std::mutex> guard(world.mutex);
    const auto place = world.waiters.insert(world.waiters.end(), {deadline, std::move(wake)});
    guard.unlock();
    const int result = wait();
    guard.lock();
    const bool expired = place->wakes > 0;
    world.waiters.erase(place);
    return expired ? ETIMEDOUT : result;
}

int waitUntil(const timespec& deadline, pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return waitUntil(
        duration(deadline), [=] { pthread_cond_broadcast(condition); },
        [=] { return pthread_cond_wait(condition, mutex); });
}

// Leaps to the earliest deadline; false if there is none up to `end`. Repeats a lost wake-up. A
// waiter that still does not return waits for something else by now, such as the mutex.
bool advance(Nanoseconds end) {
    constexpr int kMaxWakes = 3;
    Waiter* next = nullptr;
    for (Waiter& waiter : world.waiters) {
        if (waiter.wakes == kMaxWakes || waiter.deadline > end) continue;
        if (!next || waiter.deadline < next->deadline) next = &waiter;
    }
    if (!next) return false;
    world.now = std::max(world.now.load(), next->deadline.count());
    ++next->wakes;
    next->wake();
    return true;
}

void moveClocks(Nanoseconds end) {
    constexpr std::chrono::microseconds kPause(50);
    // The thread of another finding waits while its report is written.
    constexpr std::chrono::seconds kPatience(10);
    const auto over = [] { return world.running == 0; };
    auto moved = steady_clock::now();
    std::unique_lock<std::mutex> guard(world.mutex);
    while (!world.ended.wait_for(guard, kPause, over)) {
        guard.unlock();
        const bool still = fuzz::allOthersSleep();
        guard.lock();
        if (!still || over()) continue;
        if (advance(end)) moved = steady_clock::now();
        fuzz::mustHold(steady_clock::now() < moved + kPatience, "the clients do not hang");
    }
}

}  // namespace

namespace fuzz::virtual_time {

Nanoseconds now() { return Nanoseconds(world.now.load()); }

void sleep(Milliseconds duration) {
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock<std::mutex> guard(mutex);
    never.wait_until(guard, steady_clock::time_point(now() + duration), [] { return false; });
}

void run(const std::vector<std::function<void()>>& bodies, Milliseconds limit) {
    movesClocks = true;
    world.active = true;
    world.running = static_cast<int>(bodies.size());
    std::vector<std::thread> threads;
    for (const auto& body : bodies) {
        threads.emplace_back([&body] {
            body();
            std::lock_guard<std::mutex> guard(world.mutex);
            if (--world.running == 0) world.ended.notify_all();
        });
    }
    moveClocks(now() + limit);
    for (std::thread& thread : threads)
        thread.join();
    world.active = false;
}

}  // namespace fuzz::virtual_time

extern "C" {

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
    return isVirtual() ? waitUntil(*deadline, condition, mutex)
                       : __real_pthread_cond_timedwait(condition, mutex, deadline);
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* deadline) {
    return isVirtual() ? waitUntil(*deadline, condition, mutex)
                       : __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
}

// Its only caller drains its first descriptor, an event counter, whatever ppoll() returns.
int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals) {
    if (!isVirtual() || !timeout) return __real_ppoll(fds, count, timeout, signals);
    const auto wake = [counter = fds[0].fd] { eventfd_write(counter, 1); };
    const auto wait = [=] { return __real_ppoll(fds, count, nullptr, signals); };
    return waitUntil(now() + duration(*timeout), wake, wait);
}

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    constexpr Nanoseconds::rep kSecond = 1000000000;
    if (!isVirtual()) return __real_clock_gettime(clock, time);
    *time = {static_cast<time_t>(now().count() / kSecond),
             static_cast<long>(now().count() % kSecond)};
    return 0;
}

int __wrap_gettimeofday(timeval* time, void*) {
    timespec precise{};
    const int result = __wrap_clock_gettime(CLOCK_REALTIME, &precise);
    *time = {precise.tv_sec, precise.tv_nsec / 1000};
    return result;
}

}  // extern "C"

steady_clock::time_point virtualSteadyNow() asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
steady_clock::time_point virtualSteadyNow() {
    timespec precise{};
    __wrap_clock_gettime(CLOCK_MONOTONIC, &precise);
    return steady_clock::time_point(duration(precise));
}
