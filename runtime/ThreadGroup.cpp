#include "runtime/ThreadGroup.h"

#include "log/Logger.h"
#include "metric/MetricRegistry.h"

namespace tavrik {

std::atomic<Logger*> ThreadGroup::logger{nullptr};

// --- Metrics --------------------------------------------------------------------------------

namespace {

// Adds a metric to the registry for as long as it lives.
class GroupMetric : public Metric {
  public:
    GroupMetric(const std::string& groupName, const char* metricName, const char* text,
                const std::atomic<unsigned>& counter)
        : count(counter) {
        category = "Thread Group";
        instance = groupName;
        name = metricName;
        description = text;
        MetricRegistry::Instance()->addMetric(this);
    }
    ~GroupMetric() override { MetricRegistry::Instance()->removeMetric(this); }

    double collect() override { return count; }

  private:
    const std::atomic<unsigned>& count;
};

}  // namespace

class ThreadGroup::BusyMetric : public GroupMetric {
    using GroupMetric::GroupMetric;
};
class ThreadGroup::CountMetric : public GroupMetric {
    using GroupMetric::GroupMetric;
};

// --- WorkerThread ---------------------------------------------------------------------------

ThreadGroup::WorkerThread::WorkerThread(ThreadGroup* owner)
    : Thread(owner->workerName), group(owner) {}

void ThreadGroup::WorkerThread::assign(Runnable* task, bool deleteUnrun) {
    // Whoever closes the group meanwhile may release the worker as soon as it has the task.
    reserve();
    tryAssign(task, deleteUnrun);
    release();
}

bool ThreadGroup::WorkerThread::tryAssign(Runnable* task, bool deleteUnrun) {
    LockGuard guard(lock);
    // A worker without a thread keeps the last task it was given, to drop it in the end.
    if (hasFailedToStart()) dropTask();
    while (runnable)
        lock.wait();
    if (stopped) {
        if (deleteUnrun) delete task;
        return false;
    }
    runnable = task;
    autoDelete = deleteUnrun;
    const bool willRun = !hasFailedToStart();
    guard.unlock();
    // The woken worker takes the lock first.
    lock.notifyAll();
    return willRun;
}

void ThreadGroup::WorkerThread::run() {
    LockGuard guard(lock);
    while (waitForTask()) {
        Runnable* const task = runnable;
        {
            LockRelease released(lock);
            task->run();
        }
        runnable = nullptr;
        group->putWorker(this);
        lock.notifyAll();
    }
    dropTask();
    lock.notifyAll();
}

// False when the worker is to end.
bool ThreadGroup::WorkerThread::waitForTask() {
    while (!runnable && !stopped)
        lock.wait();
    return !stopped;
}

void ThreadGroup::WorkerThread::dropTask() {
    if (autoDelete) delete runnable;
    runnable = nullptr;
}

void ThreadGroup::WorkerThread::stop() {
    LockGuard guard(lock);
    stopped = true;
    lock.notifyAll();
    // There is no thread that could clear it.
    if (hasFailedToStart()) dropTask();
    while (runnable)
        lock.wait();
}

// --- ThreadGroup ----------------------------------------------------------------------------

ThreadGroup::ThreadGroup(const char* groupName)
    : ThreadGroup(std::string(groupName ? groupName : "")) {}

ThreadGroup::ThreadGroup(const std::string& groupName)
    : name(groupName), workerName(groupName + " Worker") {
    if (!logger) logger = Logger::getLogger("ThreadGroup");
    logger.load()->tracef("constructor: this:%p name:%s", static_cast<void*>(this), name.c_str());
    busyMetric = std::make_unique<BusyMetric>(
        name, "Busy Count", "the number of thread group worker threads that are in use.",
        busyCount);
    countMetric = std::make_unique<CountMetric>(
        name, "Worker Count", "the number of worker threads allocated for thread group",
        workerCount);
}

ThreadGroup::~ThreadGroup() {
    busyMetric.reset();
    countMetric.reset();
    close();
    logger.load()->tracef("destructor: name:%s", name.c_str());
}

void ThreadGroup::spawn(Runnable* runnable, bool autoDelete) {
    if (runnable) handOut(takeWorker(true, false), runnable, autoDelete);
}

bool ThreadGroup::trySpawn(Runnable* runnable) {
    return runnable && handOut(takeWorker(true, true), runnable, false);
}

bool ThreadGroup::handOut(WorkerThread* worker, Runnable* runnable, bool autoDelete) {
    if (!worker) return false;
    logger.load()->debugf("spawn: group:%s worker:%p runner:%p", name.c_str(),
                          static_cast<void*>(worker), static_cast<void*>(runnable));
    const bool accepted = worker->tryAssign(runnable, autoDelete);
    worker->release();
    return accepted;
}

ThreadGroup::WorkerThread* ThreadGroup::getWorker() { return takeWorker(false, false); }

ThreadGroup::WorkerThread* ThreadGroup::takeWorker(bool reserved, bool mustRun) {
    if (closed) return nullptr;
    LockGuard guard(lock);
    if (closed) return nullptr;
    WorkerThread* worker = nullptr;
    if (idleWorkers.empty()) {
        worker = addWorker(mustRun);
    } else {
        worker = idleWorkers.back();
        idleWorkers.pop_back();
    }
    mirrorSizes();
    if (reserved && worker) worker->reserve();
    return worker;
}

ThreadGroup::WorkerThread* ThreadGroup::addWorker(bool mustRun) {
    WorkerThread* const worker = new WorkerThread(this);
    worker->reserve();
    worker->start();
    if (mustRun && worker->hasFailedToStart()) {
        // Both references, also that of the missing thread: nobody else knows the worker.
        worker->release();
        worker->release();
        return nullptr;
    }
    workers.push_back(worker);
    logger.load()->debugf(
        "getWorker: group:%s worker:%p new worker created.  There are %d workers.", name.c_str(),
        static_cast<void*>(worker), static_cast<int>(workers.size()));
    return worker;
}

void ThreadGroup::putWorker(WorkerThread* worker) {
    if (closed) return;
    logger.load()->debugf("putWorker: group:%s worker:%p has returned", name.c_str(),
                          static_cast<void*>(worker));
    LockGuard guard(lock);
    if (closed) return;
    idleWorkers.push_back(worker);
    mirrorSizes();
}

void ThreadGroup::close() {
    std::vector<WorkerThread*> leaving;
    {
        LockGuard guard(lock);
        if (closed) return;
        closed = true;
        leaving.swap(workers);
        idleWorkers.clear();
        mirrorSizes();
    }
    // Without the lock: a worker whose task ends takes it while it holds its own.
    for (WorkerThread* const worker : leaving) {
        worker->stop();
        worker->release();
    }
}

void ThreadGroup::mirrorSizes() {
    // Who sees a worker idle sees what its task did.
    constexpr auto kRelease = std::memory_order_release;
    workerCount.store(static_cast<unsigned>(workers.size()), kRelease);
    busyCount.store(static_cast<unsigned>(workers.size() - idleWorkers.size()), kRelease);
}

}  // namespace tavrik
