#pragma once

#include <atomic>
#include <cstddef>
#include <deque>

#include "runtime/Lock.h"
#include "runtime/Runnable.h"
#include "runtime/ThreadGroup.h"

namespace tavrik {

// A queue of T that a thread of a group drains in order. One drain task runs at a time, until the
// queue is empty. Entries may be added while it runs.
//
// Threads: "the drain" is the worker that runs run() and exec(). Any thread may call the other
// operations.
//
// Stopping: close() waits for the drain; later entries are dropped. Derived classes must call it at
// the begin of their destructors, because exec() is theirs. The group must stay open longer than
// the queue.
//
// Deadlocks if exec() closes or destroys the queue, or adds to a full queue with a limit.
template <typename T>
class TaskQueue : public Runnable {
  public:
    // Producers wait while `entryLimit` entries are queued; 0: no limit.
    TaskQueue(ThreadGroup* drainGroup, int entryLimit) : group(drainGroup), limit(entryLimit) {}
    ~TaskQueue() override { TaskQueue::close(); }
    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;

    // Queues an entry. Waits for room if there is a limit. Drops the entry if the queue is closed.
    void add(const T& entry) TAVRIK_EXCLUDES(lock) {
        LockGuard guard(lock);
        ThreadGroup* const drains = append(entry);
        guard.unlock();
        startDrain(drains);
    }

  protected:
    // Handles an entry. Called on the drain with no lock of the queue held. `index` counts from 1
    // to `count` in each batch.
    virtual void exec(const T& entry, int index, int count) = 0;

  public:
    // Closes the queue. Waits until its entries are drained and no producer waits. Entries whose
    // drain could not be started are lost.
    virtual void close() TAVRIK_EXCLUDES(lock) {
        LockGuard guard(lock);
        if (!group) return;
        group = nullptr;
        lock.notifyAll();
        while (running || blockedProducers != 0)
            lock.wait();
    }

    // The drain; called by the group.
    void run() override TAVRIK_EXCLUDES(lock) {
        LockGuard guard(lock);
        while (std::deque<T>* const batch = nextBatch()) {
            LockRelease released(lock);
            drain(*batch);
        }
    }

    // True while a drain runs or is about to.
    bool isRunning() const { return running; }
    // The number of entries that wait or are being drained; the size of the largest batch.
    int getSize() const {
        const unsigned gone = drained;  // first: it never exceeds a later `added`
        return static_cast<int>(added - gone);
    }
    int getMaxSize() const { return maxSize; }

  protected:
    // As add(), for callers that do more under the lock. They pass the result to startDrain().
    [[nodiscard]] ThreadGroup* append(const T& entry) TAVRIK_REQUIRES(lock) {
        if (!waitForRoom()) return nullptr;
        input->push_back(entry);
        added.store(added.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (running) return nullptr;
        setRunning(true);
        return group;
    }

    // Starts the drain on the group that append() returned; nothing if that is null. Without the
    // lock, which the woken worker takes first. If the system has no thread, the next entry tries
    // again.
    void startDrain(ThreadGroup* drains) TAVRIK_EXCLUDES(lock) {
        if (!drains) return;
        DrainStart start(*this);
        // Once started, the drain may end, and the queue be destroyed.
        if (drains->trySpawn(this)) start.succeed();
    }

    // Guards the queues and what follows them. Taken before the group's lock and a worker's.
    Lock lock;

  private:
    // Takes `running` back, unless the drain was started, also if an exception ends the scope.
    class DrainStart {
      public:
        explicit DrainStart(TaskQueue& owner) : queue(&owner) {}
        ~DrainStart() {
            if (queue) queue->noDrain();
        }
        DrainStart(const DrainStart&) = delete;
        DrainStart& operator=(const DrainStart&) = delete;

        void succeed() { queue = nullptr; }

      private:
        TaskQueue* queue;
    };

    void noDrain() TAVRIK_EXCLUDES(lock) {
        LockGuard guard(lock);
        setRunning(false);
        lock.notifyAll();
    }

    // Who sees the drain ended sees what it did.
    void setRunning(bool runs) TAVRIK_REQUIRES(lock) {
        running.store(runs, std::memory_order_release);
    }

    bool isFull() const TAVRIK_REQUIRES(lock) {
        return limit != 0 && static_cast<int>(input->size()) >= limit;
    }

    // False if closed. Does not wait without a drain: nobody would make room.
    bool waitForRoom() TAVRIK_REQUIRES(lock) {
        if (!group) return false;
        if (!isFull()) return true;
        if (!running) setRunning(group->trySpawn(this));
        ++blockedProducers;
        while (group && running && isFull())
            lock.wait();
        --blockedProducers;
        if (group) return true;
        lock.notifyAll();
        return false;
    }

    // Swaps the queues. Null, and the drain ends, if there are no entries.
    std::deque<T>* nextBatch() TAVRIK_REQUIRES(lock) {
        std::deque<T>* const batch = input;
        if (batch->empty()) {
            setRunning(false);
            if (!group) lock.notifyAll();
            return nullptr;
        }
        input = batch == &queueA ? &queueB : &queueA;
        if (blockedProducers != 0) lock.notifyAll();
        return batch;
    }

    // The batch is the drain's own: producers have the other queue.
    void drain(std::deque<T>& batch) {
        const int count = static_cast<int>(batch.size());
        if (count > maxSize) maxSize = count;
        for (int index = 1; index <= count; ++index) {
            exec(batch.front(), index, count);
            batch.pop_front();
            // Released: who sees the queue empty sees what its entries did.
            drained.store(drained.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        }
    }

    // Producers and the drain change their own fields, which lie at least this far apart, so that
    // no processor takes the other's cache line away with each entry.
    static constexpr size_t kCacheLine = 64;

    // Changed under the lock, read anywhere.
    std::atomic<bool> running{false};

    ThreadGroup* group TAVRIK_GUARDED_BY(lock);  // null once closed
    std::deque<T>* input TAVRIK_GUARDED_BY(lock) = &queueA;
    int blockedProducers TAVRIK_GUARDED_BY(lock) = 0;
    const int limit;
    // For the metrics, as `drained` and `maxSize`: the number of entries since the beginning,
    // modulo 2^32. Written under the lock.
    std::atomic<unsigned> added{0};

    // The input queue is guarded by the lock, the other one belongs to the drain.
    std::deque<T> queueA;
    [[maybe_unused]] char gap[kCacheLine];
    std::deque<T> queueB;
    [[maybe_unused]] char secondGap[kCacheLine];

    // Written by the drain.
    std::atomic<unsigned> drained{0};
    std::atomic<int> maxSize{0};
};

}  // namespace tavrik
