#include <pthread.h>

#include <tbb/concurrent_queue.h>
#include <boost/asio.hpp>

#include <condition_variable>
#include <future>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <utility>

#include "bench/Bench.h"
#include "runtime/RWLock.h"
#include "runtime/TaskQueue.h"

namespace {

using State = benchmark::State;
using tavrik::Lock;
using tavrik::RWLock;
using tavrik::ThreadGroup;
namespace asio = boost::asio;

// --- Locks ----------------------------------------------------------------------------------

void lockAndUnlock(State& state) {
    static Lock lock;
    for (auto _ : state) {
        lock.lock();
        lock.unlock();
    }
}

void peerLockAndUnlock(State& state) {
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}

void readLock(State& state) {
    static RWLock lock;
    for (auto _ : state) {
        lock.readLock();
        lock.readUnlock();
    }
}

void peerReadLock(State& state) {
    static std::shared_mutex mutex;
    for (auto _ : state) {
        mutex.lock_shared();
        mutex.unlock_shared();
    }
}

// --- Workers --------------------------------------------------------------------------------

struct Count : tavrik::Runnable {
    void run() override { counter->fetch_add(1, std::memory_order_release); }
    std::atomic<int>* counter = nullptr;
};

class CountQueue : public tavrik::TaskQueue<std::atomic<int>*> {
  public:
    explicit CountQueue(ThreadGroup* drains) : TaskQueue(drains, 0) {}
    ~CountQueue() override { close(); }

  protected:
    void exec(std::atomic<int>* const& counter, int, int) override {
        counter->fetch_add(1, std::memory_order_release);
    }
};

void wakePool(State& state) {
    const bench::OneCore pinned;
    ThreadGroup group("bench");
    Count count;
    bench::timeWakeUps(state, [&](std::atomic<int>& ran) {
        count.counter = &ran;
        group.spawn(&count, false);
    });
    group.close();
}

void peerWakePool(State& state) {
    const bench::OneCore pinned;
    asio::thread_pool pool(1);
    bench::timeWakeUps(state, [&](std::atomic<int>& ran) {
        asio::post(pool, [&ran] { ran.fetch_add(1, std::memory_order_release); });
    });
    pool.join();
}

// The least that a thread with a mutex and a condition can do: no tasks, no choice of a thread.
void wakeThread(State& state) {
    const bench::OneCore pinned;
    std::mutex mutex;
    std::condition_variable wanted;
    std::atomic<int>* counter = nullptr;
    bool ended = false;
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wanted.wait(lock, [&] { return counter || ended; });
            if (ended) return;
            std::atomic<int>& ran = *std::exchange(counter, nullptr);
            lock.unlock();
            ran.fetch_add(1, std::memory_order_release);
            lock.lock();
        }
    });
    const auto change = [&](auto code) {
        std::unique_lock<std::mutex> lock(mutex);
        code();
        lock.unlock();
        wanted.notify_one();
    };
    bench::timeWakeUps(state, [&](std::atomic<int>& ran) { change([&] { counter = &ran; }); });
    change([&] { ended = true; });
    waiter.join();
}

void wakeQueue(State& state) {
    const bench::OneCore pinned;
    ThreadGroup group("bench");
    CountQueue queue(&group);
    bench::timeWakeUps(state, [&](std::atomic<int>& ran) { queue.add(&ran); });
    queue.close();
}

void peerWakeQueue(State& state) {
    const bench::OneCore pinned;
    asio::thread_pool pool(1);
    auto strand = asio::make_strand(pool);
    bench::timeWakeUps(state, [&](std::atomic<int>& ran) {
        asio::post(strand, [&ran] { ran.fetch_add(1, std::memory_order_release); });
    });
    pool.join();
}

// A caller that sleeps until its task has run.
struct Promise : tavrik::Runnable {
    void run() override { done.set_value(); }
    std::promise<void> done{};
};

void dispatchAndWait(State& state) {
    const bench::OneCore pinned;
    ThreadGroup group("bench");
    for (auto _ : state) {
        Promise task;
        auto ran = task.done.get_future();
        group.spawn(&task, false);
        ran.wait();
        // The worker uses its task until it is idle again.
        state.PauseTiming();
        bench::settle();
        state.ResumeTiming();
    }
    group.close();
}

void peerDispatchAndWait(State& state) {
    const bench::OneCore pinned;
    asio::thread_pool pool(1);
    for (auto _ : state) {
        std::promise<void> done;
        auto ran = done.get_future();
        asio::post(pool, [&done] { done.set_value(); });
        ran.wait();
        state.PauseTiming();
        bench::settle();
        state.ResumeTiming();
    }
    pool.join();
}

void drain(State& state, int entries) {
    ThreadGroup group("bench");
    CountQueue queue(&group);
    for (auto _ : state) {
        std::atomic<int> ran{0};
        for (int i = 0; i < entries; ++i)
            queue.add(&ran);
        bench::yieldUntil(ran, entries);
    }
    queue.close();
}

void peerDrain(State& state, int entries) {
    tbb::concurrent_bounded_queue<std::atomic<int>*> queue;
    std::thread consumer([&queue] {
        std::atomic<int>* counter = nullptr;
        for (queue.pop(counter); counter; queue.pop(counter))
            counter->fetch_add(1, std::memory_order_release);
    });
    for (auto _ : state) {
        std::atomic<int> ran{0};
        for (int i = 0; i < entries; ++i)
            queue.push(&ran);
        bench::yieldUntil(ran, entries);
    }
    queue.push(nullptr);
    consumer.join();
}

const bool registered = [] {
    bench::add("Lock/tavrik", lockAndUnlock);
    bench::add("Lock/pthread", peerLockAndUnlock);
    for (const int threads : {1, 2}) {
        const std::string piece = "RWLock, " + std::to_string(threads) + " reader(s)";
        bench::add(piece + "/tavrik", readLock)->Threads(threads);
        bench::add(piece + "/std", peerReadLock)->Threads(threads);
    }
    bench::addTimed("wake an idle pool/tavrik", wakePool);
    bench::addTimed("wake an idle pool/asio", peerWakePool);
    bench::addTimed("wake an idle pool/thread", wakeThread);
    bench::addTimed("wake an ordered queue/tavrik", wakeQueue);
    bench::addTimed("wake an ordered queue/asio", peerWakeQueue);
    bench::add("dispatch and wait/tavrik", dispatchAndWait);
    bench::add("dispatch and wait/asio", peerDispatchAndWait);
    for (const int entries : {1000, 100000}) {
        const std::string piece = "ordered queue, " + std::to_string(entries) + " entries";
        bench::add(piece + "/tavrik", [=](State& state) { drain(state, entries); });
        bench::add(piece + "/TBB", [=](State& state) { peerDrain(state, entries); });
    }
    return true;
}();

}  // namespace
