#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "runtime/Thread.h"

namespace tavrik {

class Logger;

// A pool of worker threads that grows on demand: a task gets an idle worker, or a new one. Reports
// two metrics of category "Thread Group".
//
// Threads: any thread may call any operation. Ownership: the group holds a reference on each
// worker. Tasks belong to their owners; autoDelete concerns tasks that never ran.
//
// Stopping: close() waits for the running tasks and ends all workers. So does the destructor.
//
// Deadlocks if one of the group's own tasks closes or destroys it, or if a task calls assign() or
// stop() of the worker that runs it.
class ThreadGroup {
  public:
    class WorkerThread : public Thread {
      public:
        explicit WorkerThread(ThreadGroup* group);

        // Gives the worker a task. Waits while it has one. A stopped worker drops the task, and
        // deletes it if `autoDelete`.
        void assign(Runnable* runnable, bool autoDelete) TAVRIK_EXCLUDES(lock);

        // Ends the worker for good. Every call waits until the task at hand has run. A task that
        // the worker has not begun is dropped, and deleted if it was assigned so.
        void stop() TAVRIK_EXCLUDES(lock);

        // The thread's body: runs task after task.
        void run() override TAVRIK_EXCLUDES(lock);

      private:
        friend class ThreadGroup;

        // assign(), for a caller with a reference on the worker; false when the task will never
        // run.
        bool tryAssign(Runnable* runnable, bool autoDelete) TAVRIK_EXCLUDES(lock);
        bool waitForTask() TAVRIK_REQUIRES(lock);
        void dropTask() TAVRIK_REQUIRES(lock);

        ThreadGroup* const group;  // not touched once stop() has returned

        // Guards the fields below. Free while a task runs: `runnable` stays set then, and assign()
        // and stop() wait until it is null. Taken before the group's lock.
        Lock lock;
        bool stopped TAVRIK_GUARDED_BY(lock) = false;
        bool autoDelete TAVRIK_GUARDED_BY(lock) = false;
        Runnable* runnable TAVRIK_GUARDED_BY(lock) = nullptr;  // null: idle
    };

    explicit ThreadGroup(const char* name);
    explicit ThreadGroup(const std::string& name);
    virtual ~ThreadGroup();
    ThreadGroup(const ThreadGroup&) = delete;
    ThreadGroup& operator=(const ThreadGroup&) = delete;

    // Runs a task on a worker. The task must live until it has run. It is deleted only if it never
    // ran and `autoDelete` is set. A closed group neither runs nor deletes it. Ignores null.
    void spawn(Runnable* runnable, bool autoDelete) TAVRIK_EXCLUDES(lock);

    // As spawn() without autoDelete. False when the task will never run, because the group is
    // closed or the system has no thread for it; another try may succeed in the second case.
    bool trySpawn(Runnable* runnable) TAVRIK_EXCLUDES(lock);

    // Returns an idle worker, the one that returned last, or a new one; null if the group is
    // closed. The caller assigns one task to it, before the group is closed.
    WorkerThread* getWorker() TAVRIK_EXCLUDES(lock);

    // Takes a worker back. Called by the worker after each task, under its own lock. Does nothing
    // in a closed group.
    void putWorker(WorkerThread* worker) TAVRIK_EXCLUDES(lock);

    // Stops all workers, in the order of their creation, and releases them. Only the first call
    // waits.
    void close() TAVRIK_EXCLUDES(lock);

    // The metrics "Busy Count" (workers that are not idle) and "Worker Count" (all workers). Found
    // in the MetricRegistry; they read counters and take no lock.
    class BusyMetric;
    class CountMetric;

  private:
    // Assigns a task to a worker, unless null, and drops the caller's reference on it. False if the
    // task will never run.
    bool handOut(WorkerThread* worker, Runnable* runnable, bool autoDelete) TAVRIK_EXCLUDES(lock);
    // Returns an idle or a new worker; null if the group is closed. With `reserved`, the caller
    // gets a reference: once it is not idle, close() may release the worker at any time. With
    // `mustRun`, returns null instead of a worker whose thread cannot be created, and does not keep
    // it.
    WorkerThread* takeWorker(bool reserved, bool mustRun) TAVRIK_EXCLUDES(lock);
    WorkerThread* addWorker(bool mustRun) TAVRIK_REQUIRES(lock);
    void mirrorSizes() TAVRIK_REQUIRES(lock);
    static std::atomic<Logger*> logger;

    // Constant after construction.
    const std::string name;
    const std::string workerName;

    // Guards the vectors, and changes of `closed`. Taken after a worker's lock; only a worker's
    // count, a new worker's state and the logger's locks are taken under it.
    Lock lock;
    std::vector<WorkerThread*> workers TAVRIK_GUARDED_BY(lock);  // in order of creation
    std::vector<WorkerThread*> idleWorkers
        TAVRIK_GUARDED_BY(lock);  // the one that returned last is last
    std::atomic<bool> closed{false};

    // All workers, and those that are not idle; for the metrics.
    std::atomic<unsigned> workerCount{0};
    std::atomic<unsigned> busyCount{0};

    std::unique_ptr<BusyMetric> busyMetric;  // set by the constructor
    std::unique_ptr<CountMetric> countMetric;
};

}  // namespace tavrik
