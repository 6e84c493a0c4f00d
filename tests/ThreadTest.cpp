// Shared objects, sets of them, threads and pools of threads.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <future>

#include "runtime/ThreadGroup.h"
#include "runtime/XReference.h"
#include "tests/SimSupport.h"
#include "tests/Support.h"

// The machine may refuse a priority. The tests check what was requested.
using Priorities = std::vector<std::pair<int, int>>;
static Collector<Priorities::value_type> priorities;
extern "C" int pthread_setschedparam(pthread_t, int policy,
                                     const sched_param* parameters) noexcept {
    priorities.put({policy, parameters->sched_priority});
    return 0;
}

namespace tavrik {
namespace {

// Runs until the test sets `finish`.
struct Task : Runnable {
    explicit Task(std::atomic<int>* counter = nullptr) : deletions(counter) {}
    ~Task() override {
        if (deletions) ++*deletions;
    }
    void run() override {
        name = threadName();
        began.set_value(gettid());
        finish.get_future().wait();
    }
    std::string name;
    std::promise<pid_t> began;
    std::promise<void> finish;
    std::atomic<int>* const deletions;
};

class ThreadTest : public testing::Test {
  protected:
    void SetUp() override {
        // A sanitizer may start a thread of its own with the process's first one.
        std::string first;
        std::thread([&] { first = "/proc/self/task/" + std::to_string(gettid()); }).join();
        ASSERT_TRUE(eventually([&] { return access(first.c_str(), F_OK) != 0; }));
        threadsBefore = runningThreads();
        priorities.take();
    }
    bool allThreadsEnd() const { return threadsComeTo(threadsBefore); }
    // Returns when the thread runs `task`.
    void start(Thread* thread) {
        thread->start();
        task.began.get_future().wait();
    }
    void finish() {
        task.finish.set_value();
        EXPECT_TRUE(allThreadsEnd());
    }

    long threadsBefore = 0;
    Task task;
};

// Counts its references. The test owns it.
struct Member : SelfDestructingResource {
    void reserve() override { ++references; }
    bool release() override { return --references == 0; }
    int references = 0;
};

class XReferenceTest : public testing::Test, protected XReference::Visitor {
  protected:
    void add(std::initializer_list<Member*> resources) {
        for (Member* const resource : resources)
            set.add(resource);
    }
    void remove(std::initializer_list<Member*> resources) {
        for (Member* const resource : resources)
            set.remove(resource);
    }
    // Ends the first visit at `a`; removes `a` and adds `c` at the same point of the second visit.
    bool visitReference(SelfDestructingResource* resource) override {
        visited += "abc"[static_cast<Member*>(resource) - a];
        if (visited == "aa") set.remove(a), set.add(c);
        return visited == "a";
    }
    std::vector<int> references() const { return {a->references, b->references, c->references}; }

    std::string visited;
    std::array<Member, 3> members;  // in the order of their addresses
    Member* const a = &members[0];
    Member* const b = &members[1];
    Member* const c = &members[2];
    XReference set;
};
using Counts = std::vector<int>;

}  // namespace

TEST_F(XReferenceTest, AMemberAndAPendingChangeHoldOneReferenceEach) {
    add({a, a, b});
    remove({b, b, c});
    EXPECT_EQ(references(), (Counts{1, 1, 1}));
    EXPECT_EQ(set.getSize(), 1u);
    EXPECT_EQ(references(), (Counts{1, 0, 0}));
    set.add(a);
    EXPECT_EQ(references(), (Counts{2, 0, 0}));
    EXPECT_EQ(set.getSize(), 1u);
    EXPECT_EQ(references(), (Counts{1, 0, 0}));
}

TEST_F(XReferenceTest, TheLaterOfOppositeChangesCounts) {
    remove({b});
    add({b, c});
    remove({c});
    EXPECT_EQ(references(), (Counts{0, 1, 1}));
    EXPECT_EQ(set.getSize(), 1u);
    EXPECT_EQ(references(), (Counts{0, 1, 0}));
}

TEST_F(XReferenceTest, ClearKeepsTheReferencesOfPendingRemovals) {
    add({a, b});
    EXPECT_EQ(set.getSize(), 2u);
    remove({a});
    add({c});
    remove({c});
    set.clear();
    EXPECT_EQ(references(), (Counts{1, 0, 1}));
    EXPECT_EQ(set.getSize(), 0u);
}

TEST_F(XReferenceTest, AVisitSeesTheMembersAtItsStart) {
    add({a, b});
    for (const std::string all : {"a", "aab", "aabbc"}) {
        set.visit(*this);
        EXPECT_EQ(visited, all);
    }
    EXPECT_EQ(references(), (Counts{0, 1, 1}));
}

TEST_F(ThreadTest, AThreadRunsOnceUnderItsName) {
    Thread* const thread = new Thread("thread with a long name", &task);
    start(thread);
    thread->start();
    EXPECT_EQ(task.name, "thread with a l");
    finish();
}

TEST_F(ThreadTest, ARunningThreadGetsItsPriorities) {
    Thread* const thread = new Thread("prioritised", &task);
    thread->reserve();
    thread->setPriority(Thread::Priority(1));
    start(thread);
    thread->setPriority(Thread::Priority(5));
    thread->setPriority(Thread::Priority(0));
    finish();
    thread->setPriority(Thread::Priority(6));
    EXPECT_EQ(priorities.take(), (Priorities{{SCHED_FIFO, 23}, {SCHED_IDLE, 1}}));
    EXPECT_TRUE(thread->release());
}

TEST_F(ThreadTest, AThreadTracesItsStepsAndItsDeletion) {
    Logger::getLogger("Thread")->setLevel(*LogLevel::valueOf("DEBUG"));
    const std::string output = outputOf([&] {
        Thread* const thread = new Thread("traced", &task);
        thread->setPriority(Thread::Priority(1));
        start(thread);
        thread->start();
        thread->setPriority(Thread::Priority(5));
        finish();
    });
    EXPECT_EQ(occurrences(output, "\n"), 4) << output;
    for (const std::string message :
         {"Creating Thread", "Thread Created successfully", "setPriority 5",
          "deleting threadinfo in destructor this is [0x"})
        EXPECT_EQ(occurrences(output, "[Thread]: DEBUG " + message), 1) << message;
}

// Notes whether the thread that started it deletes it.
struct Brief : Thread {
    explicit Brief(std::atomic<int>* counter)
        : Thread("brief"), starter(gettid()), deletedByStarter(counter) {}
    ~Brief() override {
        if (gettid() == starter) ++*deletedByStarter;
    }
    const pid_t starter;
    std::atomic<int>* const deletedByStarter;
};

TEST_F(ThreadTest, AStarterNeverDeletesItsThread) {
    std::atomic<int> deletedByStarter{0};
    for (int i = 0; i < 5000; ++i)
        (new Brief(&deletedByStarter))->start();
    EXPECT_TRUE(allThreadsEnd());
    EXPECT_EQ(deletedByStarter, 0);
}

TEST_F(ThreadTest, AGroupReleasesAWorkerThatItGaveAway) {
    ThreadGroup group("Given");
    ThreadGroup::WorkerThread* const worker = group.getWorker();
    worker->reserve();
    worker->reserve();
    group.close();
    EXPECT_TRUE(allThreadsEnd());
    EXPECT_FALSE(worker->release());
    EXPECT_TRUE(worker->release()) << "a reference is left";
}

TEST_F(ThreadTest, StopsAndAssignmentsWaitForTheTask) {
    ThreadGroup group("Stopped");
    ThreadGroup::WorkerThread* const worker = group.getWorker();
    worker->assign(&task, false);
    task.began.get_future().wait();
    std::atomic<bool> finishing{false};
    std::vector<std::thread> callers;
    for (const std::string call : {"stop", "stop", "assign"}) {
        std::atomic<pid_t> id{0};
        callers.emplace_back([&, call] {
            id = gettid();
            call == "stop" ? worker->stop() : worker->assign(&task, false);
            EXPECT_TRUE(finishing) << call << " returned while the task ran";
        });
        EXPECT_TRUE(eventually([&] { return id != 0 && isAtRest(id); })) << call;
    }
    finishing = true;
    finish();
    for (std::thread& caller : callers)
        caller.join();
}

const std::string kCreationFailure = "Thread::start()  pthread_create failed\n";

TEST_F(ThreadTest, WithoutAThreadATrySpawnFails) {
    ThreadGroup group("Failing");
    testing::internal::CaptureStderr();
    const NoNewThreads refused;
    EXPECT_FALSE(group.trySpawn(&task));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kCreationFailure);
}

TEST_F(ThreadTest, AWorkerWithoutAThreadDropsItsTasks) {
    std::atomic<int> deleted{0};
    ThreadGroup group("Failing");
    testing::internal::CaptureStderr();
    const NoNewThreads refused;
    ThreadGroup::WorkerThread* const worker = group.getWorker();
    worker->start();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kCreationFailure) << "of one attempt";
    worker->setPriority(Thread::Priority(5));
    EXPECT_EQ(priorities.take(), Priorities{});
    worker->assign(new Task(&deleted), true);
    worker->assign(new Task(&deleted), true);
    group.close();
    EXPECT_EQ(deleted, 2);
    EXPECT_TRUE(worker->release()) << "a reference for the missing thread is left";
}

class ThreadGroupTest : public ThreadTest {
  protected:
    // Spawns a task; returns the thread that runs it.
    pid_t spawn(size_t index) {
        group->spawn(&tasks[index], true);
        const pid_t thread = tasks[index].began.get_future().get();
        EXPECT_EQ(tasks[index].name, "Pool Worker");
        return thread;
    }
    // Ends a task; waits until the metrics are these.
    void finish(size_t index, const std::string& busy, const std::string& count) {
        tasks[index].finish.set_value();
        expectMetrics(busy, count);
    }
    static std::string metrics() {
        return metric("Pool", "Busy Count") + metric("Pool", "Worker Count");
    }
    static void expectMetrics(const std::string& busy, const std::string& count) {
        const std::string expected =
            "Thread Group|the number of thread group worker threads that are in use.|" + busy +
            "Thread Group|the number of worker threads allocated for thread group|" + count;
        EXPECT_TRUE(eventually([&] { return metrics() == expected; }))
            << metrics() << " instead of " << expected;
    }

    std::array<Task, 4> tasks;
    std::unique_ptr<ThreadGroup> group = std::make_unique<ThreadGroup>("Pool");
};

TEST_F(ThreadGroupTest, ATaskGetsTheWorkerThatReturnedLast) {
    spawn(0);
    const pid_t second = spawn(1);
    spawn(2);
    EXPECT_TRUE(threadsComeTo(threadsBefore + 3));
    finish(0, "2", "3");
    finish(1, "1", "3");
    EXPECT_EQ(spawn(3), second);
    finish(2, "1", "3");
    finish(3, "0", "3");
}

TEST_F(ThreadGroupTest, AClosedGroupRunsNothing) {
    spawn(0);
    spawn(1);
    finish(0, "1", "2");
    finish(1, "0", "2");
    group->close();
    expectMetrics("0", "0");
    EXPECT_TRUE(allThreadsEnd());
    group->spawn(&tasks[2], true);
    EXPECT_EQ(group->getWorker(), nullptr);
    group.reset();
    EXPECT_EQ(metrics(), "") << "they end with the group";
}

// A task that spawns itself again.
struct Chain : Runnable {
    void run() override {
        ++inside;
        ++runs;
        group->spawn(this, false);
        --inside;
    }
    ThreadGroup* group = nullptr;
    std::atomic<int> runs{0};
    std::atomic<int> inside{0};
};

TEST_F(ThreadTest, ADestroyedGroupEndsRespawningTasks) {
    long kilobytes = 0;
    for (int trial = 0; trial < 250; ++trial) {
        Chain chain;
        auto group = std::make_unique<ThreadGroup>("Chain");
        chain.group = group.get();
        for (int i = 0; i < 4; ++i)
            group->spawn(&chain, false);
        while (chain.runs < 100)
            std::this_thread::yield();
        group.reset();
        EXPECT_EQ(chain.inside, 0);
        EXPECT_TRUE(allThreadsEnd());
        if (trial == 50) kilobytes = processStatus("VmRSS:");
    }
    EXPECT_TRUE(!memoryIsOurs() || processStatus("VmRSS:") <= kilobytes + 512) << kilobytes;
}

}  // namespace tavrik
