#include "runtime/Thread.h"

#include <sched.h>
#include <sys/prctl.h>

#include <cstdio>

namespace tavrik {

std::atomic<Logger*> Thread::logger{nullptr};

Thread::Thread(const std::string& threadName) : Thread(threadName, nullptr) {}

Thread::Thread(const char* threadName) : Thread(std::string(threadName), nullptr) {}

Thread::Thread(const char* threadName, Runnable* work) : Thread(std::string(threadName), work) {}

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
    // The new thread may have run and given its reference back before this function is through.
    reserve();
    {
        LockGuard guard(stateLock);
        if (!threadInfo) {
            logger.load()->debugf("Creating Thread");
            reserve();
            if (!create()) {
                startFailed = true;
                fprintf(stderr, "Thread::start()  pthread_create failed\n");
                fflush(stderr);
            }
            logger.load()->debugf("Thread Created successfully");
        }
    }
    release();
}

bool Thread::create() {
    threadInfo = new pthread_t;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    alive = pthread_create(threadInfo, &attributes, bootstrap, this) == 0;
    pthread_attr_destroy(&attributes);
    return alive;
}

void* Thread::bootstrap(void* thread) {
    Thread* const self = static_cast<Thread*>(thread);
    self->runNamed();
    self->release();
    return nullptr;
}

void Thread::runNamed() {
    prctl(PR_SET_NAME, name.c_str());
    run();
    LockGuard guard(stateLock);
    alive = false;
}

void Thread::setPriority(const Priority& priority) {
    LockGuard guard(stateLock);
    if (!threadInfo) return;
    logger.load()->debugf("setPriority %d", priority.value);
    if (!alive) return;
    sched_param parameters{};
    parameters.sched_priority = priority.value == 0 ? 1 : priority.value + 18;
    pthread_setschedparam(*threadInfo, priority.value == 0 ? SCHED_IDLE : SCHED_FIFO, &parameters);
}

void Thread::run() {
    if (runnable) runnable->run();
}

}  // namespace tavrik
