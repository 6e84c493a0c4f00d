#include "runtime/Lock.h"

#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstdio>

namespace tavrik {

namespace {

timespec deadlineAfter(int milliseconds) {
    timeval now{};
    gettimeofday(&now, nullptr);
    timespec deadline{};
    deadline.tv_sec = now.tv_sec + milliseconds / 1000;
    deadline.tv_nsec = (milliseconds % 1000) * 1000000L + now.tv_usec * 1000L;
    if (deadline.tv_nsec > 999999999L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

}  // namespace

void Lock::print(int result, const char* text) {
    errno = result;
    perror(text);
}

Lock::Lock() {
    report(pthread_mutex_init(&mutex, nullptr), "pthread_mutex_init() error");
    report(pthread_cond_init(&condition, nullptr), "pthread_cond_init() error");
}

Lock::~Lock() {
    pthread_mutex_destroy(&mutex);
    pthread_cond_destroy(&condition);
}

void Lock::wait() { report(pthread_cond_wait(&condition, &mutex), "pthread_cond_wait() error"); }

void Lock::wait(int milliseconds) {
    const timespec deadline = deadlineAfter(milliseconds);
    const int result = pthread_cond_timedwait(&condition, &mutex, &deadline);
    if (result != ETIMEDOUT) report(result, "pthread_cond_timedwait() error");
}

void Lock::notify() { report(pthread_cond_signal(&condition), "pthread_cond_signal() error"); }

void Lock::notifyAll() {
    report(pthread_cond_broadcast(&condition), "pthread_cond_broadcast() error");
}

}  // namespace tavrik
