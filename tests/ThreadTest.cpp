// Shared objects, sets of them, threads and pools of threads.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <limits>

#include "runtime/ThreadGroup.h"
#include "runtime/XReference.h"
#include "tests/SimSupport.h"
#include "tests/Support.h"

// The machine may refuse a priority. The tests check what was requested.
static Collector<std::pair<int, int>> priorities;
extern "C" int pthread_setschedparam(pthread_t, int policy,
                                     const sched_param* parameters) noexcept {
    priorities.put({policy, parameters->sched_priority});
    return 0;
}

namespace tavrik {
namespace {

class ThreadTest : public testing::Test {
  protected:
    void SetUp() override {
        // A sanitizer may start a thread of its own with the process's first one.
        std::string first;
        std::thread([&] { first = "/proc/self/task/" + std::to_string(gettid()); }).join();
        ASSERT_TRUE(eventually([&] { return access(first.c_str(), F_OK) != 0; }));
        threadsBefore = runningThreads();
    }
    bool allThreadsEnd() const { return threadsComeTo(threadsBefore); }

    long threadsBefore = 0;
};

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

// Counts its references. The test owns it.
struct Member : SelfDestructingResource {
    void reserve() override { ++references; }
    bool release() override { return --references == 0; }
    int references = 0;
};

class XReferenceTest : public testing::Test, protected XReference::Visitor {
  protected:
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

TEST_F(XReferenceTest, AMemberHoldsOneReference) {
    for (Member* const member : {a, a, b})
        set.add(member);
    for (Member* const member : {b, b, c})
        set.remove(member);
    EXPECT_EQ(references(), (Counts{1, 1, 1}));
    EXPECT_EQ(set.getSize(), 1u);
    EXPECT_EQ(references(), (Counts{1, 0, 0}));
    set.add(a);
    set.remove(b);
    set.add(b);
    EXPECT_EQ(references(), (Counts{2, 1, 0}));
    EXPECT_EQ(set.getSize(), 2u);
    EXPECT_EQ(references(), (Counts{1, 1, 0}));

    set.remove(a);
    set.add(c);
    set.remove(c);
    set.clear();
    EXPECT_EQ(references(), (Counts{1, 0, 1})) << "pending removals keep their references";
    EXPECT_EQ(set.getSize(), 0u);
}

TEST_F(XReferenceTest, AVisitSeesTheMembersAtItsStart) {
    for (Member* const member : {b, a})
        set.add(member);
    for (const std::string all : {"a", "aab", "aabbc"}) {
        set.visit(*this);
        EXPECT_EQ(visited, all);
    }
    EXPECT_EQ(references(), (Counts{0, 1, 1}));
}

TEST_F(ThreadTest, AThreadRunsOnceAndDeletesItself) {
    Task task;
    Thread* const thread = new Thread("thread with a long name", &task);
    Logger::getLogger("Thread")->setLevel(*LogLevel::valueOf("DEBUG"));
    const std::string output = outputOf([&] {
        thread->setPriority(Thread::Priority(1));
        thread->start();
        thread->start();
        task.began.get_future().wait();
        EXPECT_EQ(task.name, "thread with a l");
        thread->setPriority(Thread::Priority(5));
        thread->setPriority(Thread::Priority(0));
        task.finish.set_value();
        EXPECT_TRUE(allThreadsEnd());
    });
    EXPECT_EQ(priorities.take(),
              (std::vector<std::pair<int, int>>{{SCHED_FIFO, 23}, {SCHED_IDLE, 1}}));
    EXPECT_EQ(occurrences(output, "\n"), 5);
    for (const std::string message :
         {"Creating Thread", "Thread Created successfully", "setPriority 5", "setPriority 0",
          "deleting threadinfo in destructor this is [0x"})
        EXPECT_EQ(occurrences(output, "[Thread]: DEBUG " + message), 1) << message;

    Thread* const ended = new Thread("ended");
    ended->reserve();
    ended->start();
    EXPECT_TRUE(allThreadsEnd());
    ended->setPriority(Thread::Priority(5));
    EXPECT_TRUE(priorities.take().empty()) << "the thread has ended";
    EXPECT_TRUE(ended->release());
}

TEST_F(ThreadTest, AStarterNeverDeletesItsThread) {
    struct Brief : Thread {
        explicit Brief(std::atomic<int>* counter)
            : Thread("brief"), starter(gettid()), deletedByStarter(counter) {}
        ~Brief() override {
            if (gettid() == starter) ++*deletedByStarter;
        }
        const pid_t starter;
        std::atomic<int>* const deletedByStarter;
    };
    std::atomic<int> deletedByStarter{0};
    for (int i = 0; i < 5000; ++i)
        (new Brief(&deletedByStarter))->start();
    EXPECT_TRUE(allThreadsEnd());
    EXPECT_EQ(deletedByStarter, 0);
}

TEST_F(ThreadTest, EveryStopWaitsForTheTask) {
    Task task;
    ThreadGroup group("Stopped");
    ThreadGroup::WorkerThread* const worker = group.getWorker();
    worker->assign(&task, false);
    task.began.get_future().wait();
    std::atomic<bool> finishing{false};
    std::atomic<pid_t> ids[3]{};
    std::vector<std::thread> callers;
    for (const int call : {0, 1, 2}) {
        callers.emplace_back([&, call] {
            ids[call] = gettid();
            call == 2 ? worker->assign(&task, false) : worker->stop();
            EXPECT_TRUE(finishing) << "call " << call << " returned while the task ran";
        });
    }
    for (const std::atomic<pid_t>& id : ids)
        EXPECT_TRUE(eventually([&] { return id != 0 && isAtRest(id); }));
    finishing = true;
    task.finish.set_value();
    for (std::thread& caller : callers)
        caller.join();
    group.close();
}

TEST_F(ThreadTest, AFailedThreadCreationBlocksNobody) {
    std::atomic<int> deleted{0};
    ThreadGroup group("Failing");
    // The stack would not fit into the address space.
    ASSERT_TRUE(setStackSize(std::numeric_limits<size_t>::max() / 65536 * 49152));
    testing::internal::CaptureStderr();
    ThreadGroup::WorkerThread* const worker = group.getWorker();
    worker->start();
    Task never;
    EXPECT_FALSE(group.trySpawn(&never));
    EXPECT_TRUE(setStackSize(1 << 20));
    const std::string message = "Thread::start()  pthread_create failed\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message + message);
    worker->setPriority(Thread::Priority(5));
    EXPECT_TRUE(priorities.take().empty());
    worker->assign(new Task(&deleted), true);
    worker->assign(new Task(&deleted), true);
    group.close();
    EXPECT_EQ(deleted, 2);
    EXPECT_TRUE(worker->release()) << "a reference for the missing thread is left";
}

TEST_F(ThreadTest, AGroupReusesTheLastReturnedWorker) {
    const auto expectMetrics = [](const std::string& busy, const std::string& count) {
        const std::string expected =
            "Thread Group|the number of thread group worker threads that are in use.|" + busy +
            "Thread Group|the number of worker threads allocated for thread group|" + count;
        const auto found = [] {
            return metric("Pool", "Busy Count") + metric("Pool", "Worker Count");
        };
        EXPECT_TRUE(eventually([&] { return found() == expected; })) << found();
    };
    std::array<Task, 4> tasks;
    std::array<pid_t, 4> threads{};
    {
        ThreadGroup group("Pool");
        const auto spawn = [&](size_t task) {
            group.spawn(&tasks[task], true);
            threads[task] = tasks[task].began.get_future().get();
            EXPECT_EQ(tasks[task].name, "Pool Worker");
        };
        for (const size_t task : {0u, 1u, 2u})
            spawn(task);
        EXPECT_TRUE(threadsComeTo(threadsBefore + 3));
        for (const size_t task : {0u, 1u}) {
            tasks[task].finish.set_value();
            expectMetrics(task == 0 ? "2" : "1", "3");
        }
        spawn(3);
        EXPECT_EQ(threads[3], threads[1]);
        for (const size_t task : {2u, 3u})
            tasks[task].finish.set_value();
        expectMetrics("0", "3");
        group.close();
        expectMetrics("0", "0");
        EXPECT_TRUE(allThreadsEnd());
        Task neverRun;
        group.spawn(&neverRun, true);
        EXPECT_EQ(group.getWorker(), nullptr);
    }
    EXPECT_EQ(metric("Pool", "Busy Count") + metric("Pool", "Worker Count"), "");
}

TEST_F(ThreadTest, ADestroyedGroupEndsRespawningTasks) {
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
