#pragma once

#include <pthread.h>

#include <atomic>
#include <string>

#include "runtime/Runnable.h"
#include "runtime/SelfDestructingObject.h"

namespace tavrik {

class Logger;

// A detached thread that runs one Runnable, or an overridden run().
//
// Ownership: made with new and shared by references; the running thread holds one of its own, so a
// thread that nobody else holds deletes itself when it has run. The Runnable is not owned.
//
// Stopping: a thread ends when run() returns; nobody can join it.
class Thread : public Runnable, public SelfDestructingObject {
  public:
    // How urgent a thread is: 0 runs when nothing else does, any other value is a real-time step.
    class Priority {
      public:
        explicit Priority(int step) : value(step) {}
        int value;
    };

    explicit Thread(const std::string& name);
    explicit Thread(const char* name);
    Thread(const std::string& name, Runnable* runnable);
    Thread(const char* name, Runnable* runnable);
    ~Thread() override;

    // Starts the thread, at most once; the kernel sees the first 15 characters of its name. A
    // failure is printed to standard error; the thread then counts as started, never runs and keeps
    // the reference that would have been its own.
    void start() TAVRIK_EXCLUDES(stateLock);

    // Does nothing before start() and after the thread has ended; waits for a thread that is just
    // being created. Whether the system granted the priority is not told.
    void setPriority(const Priority& priority) TAVRIK_EXCLUDES(stateLock);

    // Called on the new thread: runs the Runnable, if there is one.
    void run() override;

  protected:
    // Whether start() was called and could not create the thread. Any thread.
    bool hasFailedToStart() const { return startFailed; }

    // The new thread's entry; `thread` is the Thread. Runs it under its name and gives the running
    // thread's reference back. Null.
    static void* bootstrap(void* thread);

  private:
    bool beginStart() TAVRIK_EXCLUDES(stateLock);
    bool create();
    void failStart() TAVRIK_EXCLUDES(stateLock);
    void runNamed();

    static std::atomic<Logger*> logger;

    // Constant after construction.
    const std::string name;
    Runnable* const runnable;

    std::atomic<bool> startFailed{false};

    // Guards what follows; innermost but for the logger's. Notified when the phase changes.
    Lock stateLock;
    enum class Phase { unstarted, starting, running, over };
    Phase phase TAVRIK_GUARDED_BY(stateLock) = Phase::unstarted;
    pthread_t* threadInfo TAVRIK_GUARDED_BY(stateLock) = nullptr;  // set once started
};

}  // namespace tavrik
