// Shared objects, sets of them, threads and pools of threads.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>

#include "metric/MetricRegistry.h"
#include "runtime/ThreadGroup.h"
#include "runtime/XReference.h"
#include "tests/SimSupport.h"

// What is granted depends on the machine; what counts is what was asked for.
static Collector<std::pair<int, int>> priorities;
extern "C" int pthread_setschedparam(pthread_t, int policy,
                                     const sched_param* parameters) noexcept {
    priorities.put({policy, parameters->sched_priority});
    return 0;
}

namespace tavrik {
namespace {

int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::getline(std::ifstream(thread.path() / "comm"), comm);
        if (comm == name) ++count;
    }
    return count;
}

// The faults that these tests look for are hangs, too: one ends the process.
class ThreadTest : public testing::Test {
  protected:
    void SetUp() override {
        alarm(240);
        // The first thread of a process may bring along one of a sanitizer's.
        std::string first;
        std::thread([&] { first = "/proc/self/task/" + std::to_string(gettid()); }).join();
        ASSERT_TRUE(eventually([&] { return access(first.c_str(), F_OK) != 0; }));
        threadsBefore = runningThreads();
    }
    void TearDown() override { alarm(0); }
    bool allThreadsEnd() const { return threadsComeTo(threadsBefore); }

    long threadsBefore = 0;
};

// While it lives no thread can be created: the stack would not fit into the address space.
class NoThreads {
  public:
    NoThreads() {
        pthread_getattr_default_np(&saved);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::numeric_limits<size_t>::max() / 65536 * 49152);
        EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    }
    ~NoThreads() { pthread_setattr_default_np(&saved); }

  private:
    pthread_attr_t saved;
};

// Runs until it is told to end.
struct Task : Runnable {
    explicit Task(std::atomic<int>* counter = nullptr) : deletions(counter) {}
    ~Task() override {
        if (deletions) ++*deletions;
    }
    void run() override {
        began.set_value(gettid());
        finish.get_future().wait();
    }
    std::promise<pid_t> began;
    std::promise<void> finish;
    std::atomic<int>* const deletions;
};

// Lives as long as its test and counts its references.
struct Member : SelfDestructingResource {
    void reserve() override { ++references; }
    bool release() override { return --references == 0; }
    int references = 0;
};

class XReferenceTest : public testing::Test, protected XReference::Visitor {
  protected:
    bool visitReference(SelfDestructingResource* resource) override {
        visited.push_back(resource);
        if (resource == changes) {
            set.remove(resource);
            set.add(c);
        }
        return resource == stops;
    }
    std::vector<SelfDestructingResource*> walk() {
        visited.clear();
        set.visit(*this);
        return visited;
    }
    std::vector<int> references() const { return {a->references, b->references, c->references}; }

    std::vector<SelfDestructingResource*> visited;
    std::array<Member, 3> members;  // in the order of their addresses
    Member* const a = &members[0];
    Member* const b = &members[1];
    Member* const c = &members[2];
    XReference set;
    SelfDestructingResource* changes = nullptr;  // at whose visit the set is changed
    SelfDestructingResource* stops = nullptr;    // at whose visit the walk ends
};
using Counts = std::vector<int>;

}  // namespace

TEST_F(XReferenceTest, AMemberHoldsOneReferenceWhateverWasQueued) {
    for (Member* const member : {a, a, b})
        set.add(member);
    for (Member* const member : {b, b, c})
        set.remove(member);
    EXPECT_EQ(references(), (Counts{1, 1, 1}));
    EXPECT_EQ(set.getSize(), 1u);
    EXPECT_EQ(references(), (Counts{1, 0, 0}));
    set.add(a);  // a member already
    set.remove(b);
    set.add(b);  // none yet
    EXPECT_EQ(references(), (Counts{2, 1, 0}));
    EXPECT_EQ(set.getSize(), 2u);
    EXPECT_EQ(references(), (Counts{1, 1, 0}));

    set.remove(a);
    set.add(c);
    set.remove(c);
    set.clear();
    EXPECT_EQ(references(), (Counts{1, 0, 1})) << "those of pending removals are kept";
    EXPECT_EQ(set.getSize(), 0u);
}

TEST_F(XReferenceTest, WalksGoInOrderOverWhatWasThereAtTheirBegin) {
    for (Member* const member : {b, a})
        set.add(member);
    stops = a;
    EXPECT_EQ(walk().size(), 1u);
    changes = a;
    stops = nullptr;
    EXPECT_EQ(walk(), (std::vector<SelfDestructingResource*>{a, b}));
    EXPECT_EQ(walk(), (std::vector<SelfDestructingResource*>{b, c}));
    EXPECT_EQ(references(), (Counts{0, 1, 1}));
}

TEST_F(ThreadTest, AThreadHasItsNameRunsOnceAndDeletesItself) {
    Task task;
    Thread* const thread = new Thread("thread with a long name", &task);
    Logger::getLogger("Thread")->setLevel(*LogLevel::valueOf("DEBUG"));
    const std::string output = outputOf([&] {
        thread->setPriority(Thread::Priority(1));
        thread->start();
        thread->start();
        task.began.get_future().wait();
        EXPECT_EQ(threadsNamed("thread with a l"), 1);
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
    EXPECT_TRUE(priorities.take().empty()) << "of a thread that is no more";
    EXPECT_TRUE(ended->release());
}

TEST_F(ThreadTest, AThreadThatCannotBeCreatedHoldsNobodyUp) {
    std::atomic<int> deleted{0};
    ThreadGroup group("Failing");
    ThreadGroup::WorkerThread* worker = nullptr;
    testing::internal::CaptureStderr();
    {
        const NoThreads noThreads;
        worker = group.getWorker();
        worker->start();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Thread::start()  pthread_create failed\n");
    worker->setPriority(Thread::Priority(5));
    EXPECT_TRUE(priorities.take().empty());
    worker->assign(new Task(&deleted), true);
    worker->assign(new Task(&deleted), true);
    group.close();
    EXPECT_EQ(deleted, 2);
    EXPECT_TRUE(worker->release()) << "the reference of the thread that never was is kept";
}

TEST_F(ThreadTest, AGroupGrowsOnDemandAndReusesTheWorkerThatReturnedLast) {
    struct : MetricRegistry::Visitor {
        bool visitMetric(Metric* metric) override {
            if (metric->instance == "Pool")
                texts.push_back(metric->category + "|" + metric->name + "|" + metric->description +
                                "|" + std::to_string(static_cast<int>(metric->collect())));
            return false;
        }
        std::vector<std::string> texts;  // the embedded metrics' addresses ascend
    } metrics;
    const auto collected = [&] {
        metrics.texts.clear();
        MetricRegistry::Instance()->visit(metrics);
        return metrics.texts;
    };
    const auto expectMetrics = [&](const std::string& busy, const std::string& count) {
        const std::vector<std::string> expected = {
            "Thread Group|Busy Count|the number of thread group worker threads that are in use.|" +
                busy,
            "Thread Group|Worker Count|the number of worker threads allocated for thread group|" +
                count};
        EXPECT_TRUE(eventually([&] { return collected() == expected; })) << busy;
    };
    Logger::getLogger("ThreadGroup")->setLevel(*LogLevel::valueOf("DEBUG"));
    std::array<Task, 4> tasks;
    std::array<pid_t, 4> threads{};
    const std::string output = outputOf([&] {
        ThreadGroup group("Pool");
        const auto spawn = [&](size_t task) {
            group.spawn(&tasks[task], true);
            threads[task] = tasks[task].began.get_future().get();
        };
        for (const size_t task : {0, 1, 2})
            spawn(task);
        EXPECT_EQ(threadsNamed("Pool Worker"), 3);
        for (const size_t task : {0, 1}) {
            tasks[task].finish.set_value();
            expectMetrics(task == 0 ? "2" : "1", "3");
        }
        spawn(3);
        EXPECT_EQ(threads[3], threads[1]);
        for (const size_t task : {2, 3})
            tasks[task].finish.set_value();
        expectMetrics("0", "3");
        group.close();
        expectMetrics("0", "0");
        EXPECT_TRUE(allThreadsEnd());
        Task neverRun;
        group.spawn(&neverRun, true);
        EXPECT_EQ(group.getWorker(), nullptr);
    });
    EXPECT_TRUE(collected().empty()) << "still registered";
    for (const std::string count : {"1", "2", "3"})
        EXPECT_EQ(occurrences(output, " new worker created.  There are " + count + " workers.\n"),
                  1);
    EXPECT_EQ(occurrences(output, "[ThreadGroup]: DEBUG putWorker: group:Pool worker:0x"), 4);
    EXPECT_EQ(occurrences(output, "[ThreadGroup]: DEBUG spawn: group:Pool worker:0x"), 4);
}

TEST_F(ThreadTest, CloseEndsWhatKeepsSpawning) {
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
    for (int trial = 0; trial < 50; ++trial) {
        Chain chain;
        ThreadGroup group("Chain");
        chain.group = &group;
        for (int i = 0; i < 4; ++i)
            group.spawn(&chain, false);
        while (chain.runs < 100)
            std::this_thread::yield();
        group.close();
        EXPECT_EQ(chain.inside, 0);
        EXPECT_TRUE(allThreadsEnd());
    }
}

TEST_F(ThreadTest, ClosedGroupsLeaveNothingBehind) {
    struct : Runnable {
        void run() override { ++runs; }
        std::atomic<int> runs{0};
    } task;
    const auto use = [&](int groups) {
        for (; groups > 0; --groups) {
            ThreadGroup group("Many");
            task.runs = 0;
            std::vector<std::thread> users;
            for (int i = 0; i < 4; ++i)
                users.emplace_back([&] { group.spawn(&task, false); });
            for (std::thread& user : users)
                user.join();
            while (task.runs < 4)
                std::this_thread::yield();
        }
    };
    use(10);
    EXPECT_TRUE(allThreadsEnd());
    const long kilobytes = processStatus("VmRSS:");
    use(memoryIsOurs() ? 2000 : 200);
    EXPECT_TRUE(allThreadsEnd());
    if (memoryIsOurs()) {
        EXPECT_LE(processStatus("VmRSS:"), kilobytes + 512);
    }
}

}  // namespace tavrik
