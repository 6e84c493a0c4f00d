#pragma once

#include <atomic>
#include <deque>

#include "runtime/Lock.h"
#include "runtime/Runnable.h"
#include "runtime/ThreadGroup.h"

namespace tavrik {

// A queue of T that is drained, in order, on a thread of a group: one drain task at a time, which
// runs until it finds the queue empty. Entries come in while others are drained.
//
// Threads: "the drain" is the worker on which run() and exec() happen. Everything else may be
// called on any thread.
//
// Stopping: close() drops what comes later and waits for the drain. A derived class calls it first
// thing in its own destructor: the base's comes too late for exec(). The group must stay open
// longer than the queue.
//
// Must not be done, because it would wait for itself for ever: close() or destruction from exec();
// add() from exec() to a full queue with a limit.
template <typename T>
class TaskQueue : public Runnable {
  public:
    // `limit` is how many entries may wait before producers do; 0: as many as come.
    TaskQueue(ThreadGroup* drainGroup, int entryLimit) : group(drainGroup), limit(entryLimit) {}
    ~TaskQueue() override { TaskQueue::close(); }
    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;

    // Queues an entry, waiting for room if there is a limit. Dropped when closed.
    void add(const T& entry) TAVRIK_EXCLUDES(lock) {
        LockGuard guard(lock);
        append(entry);
    }

  protected:
    // Called on the drain for each entry, with no lock of the queue's held; `index` counts from 1
    // to `count` in each batch.
    virtual void exec(const T& entry, int index, int count) = 0;

  public:
    // Waits until the drain has ended and no producer waits. What is queued is drained before, but
    // for entries whose drain could not be started.
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

    // Whether a drain is under way or about to begin.
    bool isRunning() const { return running; }
    // Entries that wait or are being drained; the largest batch so far.
    int getSize() const { return size; }
    int getMaxSize() const { return maxSize; }

  protected:
    // As add(), for callers that do more under the lock.
    void append(const T& entry) TAVRIK_REQUIRES(lock) {
        if (!waitForRoom()) return;
        input->push_back(entry);
        ++size;
        startDrain();
    }

    // Guards the queues and what follows them. Taken before the group's lock and a worker's.
    Lock lock;

  private:
    // Where the system has no thread for the drain, the next entry tries again.
    void startDrain() TAVRIK_REQUIRES(lock) {
        if (!running) running = group->trySpawn(this);
    }

    bool isFull() const TAVRIK_REQUIRES(lock) {
        return limit != 0 && static_cast<int>(input->size()) >= limit;
    }

    // False when closed. Without a drain nobody would make room, so then there is no wait.
    bool waitForRoom() TAVRIK_REQUIRES(lock) {
        if (!group) return false;
        if (!isFull()) return true;
        startDrain();
        ++blockedProducers;
        while (group && running && isFull())
            lock.wait();
        --blockedProducers;
        if (group) return true;
        lock.notifyAll();
        return false;
    }

    // Swaps the queues; null, with the drain at its end, when nothing has come in.
    std::deque<T>* nextBatch() TAVRIK_REQUIRES(lock) {
        std::deque<T>* const batch = input;
        if (batch->empty()) {
            running = false;
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
            --size;
        }
    }

    // Changed under the lock, read anywhere.
    std::atomic<bool> running{false};

    ThreadGroup* group TAVRIK_GUARDED_BY(lock);  // null once closed
    std::deque<T> queueA;  // the input queue is guarded by the lock, the other one
    std::deque<T> queueB;  // belongs to the drain
    std::deque<T>* input TAVRIK_GUARDED_BY(lock) = &queueA;
    int blockedProducers TAVRIK_GUARDED_BY(lock) = 0;
    const int limit;

    // For the metrics.
    std::atomic<int> size{0};
    std::atomic<int> maxSize{0};
};

}  // namespace tavrik
