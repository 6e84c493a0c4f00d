// Helpers of tests that drive the framework against the linked simulated device.
#pragma once

#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "diag/DIAG.h"
#include "log/LogLevel.h"
#include "log/Logger.h"
#include "sim/Device.h"
#include "sim/Wire.h"

using diagsim::Bytes;

#if defined(__has_feature)
constexpr bool kThreadSanitized = __has_feature(thread_sanitizer);
constexpr bool kSanitized = kThreadSanitized || __has_feature(address_sanitizer);
#elif defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitized = true, kSanitized = true;
#elif defined(__SANITIZE_ADDRESS__)
constexpr bool kThreadSanitized = false, kSanitized = true;
#else
constexpr bool kThreadSanitized = false, kSanitized = false;
#endif

constexpr int kPatienceMs = 10000;  // limit of waits that succeed unless the test fails

inline diagsim::Device& device() { return diagsim::Device::instance(); }

// Each test gets a device of its own. Sessions share the singletons of their process: a test that
// leaves a failed session needs a process of its own, which ctest provides.
class SimTest : public ::testing::Test {
  protected:
    void SetUp() override { plug("{}"); }
    void TearDown() override {
        if (!device().isOpen()) device().unplug();
    }
    static void plug(const std::string& scenario) {
        device().plug(diagsim::Scenario::parse(scenario, "test"));
    }
    static bool seen(const std::string& text, int count = 1) {
        return device().waitForTrace(text, count, kPatienceMs);
    }
    // The trace lines that contain `text`.
    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> found;
        for (const std::string& line : device().trace()) {
            if (line.find(text) != std::string::npos) found.push_back(line);
        }
        return found;
    }
    // The line at `index` of lines(text). If there are fewer, fails the test and returns "".
    static std::string line(const std::string& text, size_t index) {
        const std::vector<std::string> found = lines(text);
        EXPECT_LT(index, found.size()) << "lines with " << text;
        return index < found.size() ? found[index] : "";
    }
};

// What `code` writes to standard output.
template <typename Code>
std::string outputOf(Code code) {
    tavrik::Logger::flushAll();
    testing::internal::CaptureStdout();
    code();
    tavrik::Logger::flushAll();
    return testing::internal::GetCapturedStdout();
}

inline int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

template <typename Code>
void expectOnce(const std::string& text, Code code) {
    EXPECT_EQ(occurrences(outputOf(code), text), 1) << text;
}

// Collects what callbacks receive on other threads; the test waits for it.
template <typename T>
class Collector {
  public:
    void put(T item) {
        std::lock_guard<std::mutex> guard(mutex);
        items.push_back(std::move(item));
        changed.notify_all();
    }
    // Waits until there are `count` items; returns them all.
    std::vector<T> waitFor(size_t count) {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait_for(guard, std::chrono::milliseconds(kPatienceMs),
                         [&] { return items.size() >= count; });
        return items;
    }
    std::vector<T> take() {
        std::lock_guard<std::mutex> guard(mutex);
        return std::exchange(items, {});
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<T> items;
};

class Stopwatch {
  public:
    long milliseconds() const {
        const auto passed = std::chrono::steady_clock::now() - begin;
        return static_cast<long>(passed / std::chrono::milliseconds(1));
    }

  private:
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

// A number of /proc/self/status, such as "Threads:" or "VmRSS:" (kilobytes).
inline long processStatus(const std::string& key) {
    std::ifstream status("/proc/self/status");
    std::string word;
    long value = 0;
    while (status >> word && word != key) {
    }
    status >> value;
    return value;
}
// Whether the process's memory is that of the code under test. A sanitizer keeps freed memory and
// finds leaks itself; an emulator adds its own memory.
inline bool memoryIsOurs() { return !kSanitized && getenv("TESTS_EMULATED") == nullptr; }
inline long runningThreads() { return processStatus("Threads:"); }

// Polls until the condition holds. For system state that no event announces.
template <typename Condition>
bool eventually(Condition condition) {
    const Stopwatch watch;
    while (!condition()) {
        if (watch.milliseconds() > kPatienceMs) return false;
        std::this_thread::yield();
    }
    return true;
}

// Whether a thread of this process sleeps or has ended.
inline bool isAtRest(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t name = line.rfind(')');
    return name == std::string::npos || line[name + 2] == 'S';
}

// A joined thread may stay listed for a moment.
inline bool threadsComeTo(long count) {
    return eventually([=] { return runningThreads() == count; });
}
