#include "runtime/Thread.h"

#include <sched.h>
#include <sys/prctl.h>

#include <cstdio>

#include "log/Logger.h"

namespace tavrik {

std::atomic<Logger*> Thread::logger{nullptr};

Thread::Thread(const std::string& threadName) : Thread(threadName, nullptr) {}

Thread::Thread(const char* threadName) : Thread(threadName, nullptr) {}

Thread::Thread(const char* threadName, Runnable* work)
    : Thread(std::string(threadName ? threadName : ""), work) {}

Thread::Thread(const std::string& threadName, Runnable* work) : name(threadName), runnable(work) {
    if (!logger) logger = Logger::getLogger("Thread");
}

Thread::~Thread() {
    // Nobody else is left; the lock is for the analysis alone.
    LockGuard guard(stateLock);
    if (!threadInfo) return;
    logger.load()->debugf("deleting threadinfo in destructor this is [%p]",
                          static_cast<void*>(this));
    delete threadInfo;
}

void Thread::start() {
    if (!beginStart()) return;
    if (!create()) {
        failStart();
        fprintf(stderr, "Thread::start()  pthread_create failed\n");
        fflush(stderr);
    }
    // Not `this` any more: the new thread may have run, given its reference back and deleted it.
    logger.load()->debugf("Thread Created successfully");
}

// False when it was started before.
bool Thread::beginStart() {
    LockGuard guard(stateLock);
    if (threadInfo) return false;
    logger.load()->debugf("Creating Thread");
    reserve();
    threadInfo = new pthread_t{};
    phase = Phase::kStarting;
    return true;
}

// The new thread itself notes its handle: this object may be gone when pthread_create returns.
bool Thread::create() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t handle;
    const bool created = pthread_create(&handle, &attributes, bootstrap, this) == 0;
    pthread_attr_destroy(&attributes);
    return created;
}

void Thread::failStart() {
    startFailed = true;
    LockGuard guard(stateLock);
    phase = Phase::kOver;
    stateLock.notifyAll();
}

void* Thread::bootstrap(void* thread) {
    Thread* const self = static_cast<Thread*>(thread);
    self->runNamed();
    self->release();
    return nullptr;
}

void Thread::runNamed() {
    prctl(PR_SET_NAME, name.c_str());
    {
        LockGuard guard(stateLock);
        *threadInfo = pthread_self();
        phase = Phase::kRunning;
        stateLock.notifyAll();
    }
    run();
    LockGuard guard(stateLock);
    phase = Phase::kOver;
}

void Thread::setPriority(const Priority& priority) {
    LockGuard guard(stateLock);
    if (!threadInfo) return;
    logger.load()->debugf("setPriority %d", priority.value);
    while (phase == Phase::kStarting)
        stateLock.wait();
    if (phase != Phase::kRunning) return;
    sched_param parameters{};
    parameters.sched_priority = priority.value == 0 ? 1 : priority.value + 18;
    pthread_setschedparam(*threadInfo, priority.value == 0 ? SCHED_IDLE : SCHED_FIFO, &parameters);
}

void Thread::run() {
    if (runnable) runnable->run();
}

}  // namespace tavrik
