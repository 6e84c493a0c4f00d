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
// Ownership: created with new, shared by references. The running thread holds one reference, so an
// otherwise unreferenced object deletes itself, on its own thread, when run() returns. The Runnable
// is not owned.
//
// Stopping: the thread ends when run() returns. It cannot be joined.
class Thread : public Runnable, public SelfDestructingObject {
  public:
    // 0: the thread runs when nothing else does. Other values: a real-time priority step.
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

    // Starts the thread, at most once. The kernel gets the first 15 characters of its name. Prints
    // a failure to standard error; the object then counts as started, never runs, and keeps the
    // reference of the missing thread.
    void start() TAVRIK_EXCLUDES(stateLock);

    // Does nothing before start() and after the end of the thread. Waits while the thread is being
    // created. Does not report whether the system grants the priority.
    void setPriority(const Priority& priority) TAVRIK_EXCLUDES(stateLock);

    // Runs the Runnable, if any. Called on the new thread.
    void run() override;

  protected:
    // True if start() could not create the thread. Any thread.
    bool hasFailedToStart() const { return startFailed; }

    // Entry of the new thread; `thread` is the Thread. Runs it under its name and drops the running
    // thread's reference. Returns null.
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
    enum class Phase { kUnstarted, kStarting, kRunning, kOver };
    Phase phase TAVRIK_GUARDED_BY(stateLock) = Phase::kUnstarted;
    pthread_t* threadInfo TAVRIK_GUARDED_BY(stateLock) = nullptr;  // set once started
};

}  // namespace tavrik
