// What the tests share that drive the framework against the linked simulated device.
#pragma once

#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TESTS_SANITIZED
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(TESTS_SANITIZED)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

constexpr int patience = 10000;  // milliseconds for what must happen anyway

inline diagsim::Device& device() { return diagsim::Device::instance(); }

// Each test gets a device of its own; the sessions of a process share their singletons, so a test
// that leaves one failed wants a process of its own, which ctest gives it.
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
        return device().waitForTrace(text, count, patience);
    }
    // The lines that contain `text`.
    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> found;
        for (const std::string& line : device().trace()) {
            if (line.find(text) != std::string::npos) found.push_back(line);
        }
        return found;
    }
    // The line of that index among them; a failure, and no text, if there are fewer.
    static std::string line(const std::string& text, size_t index) {
        const std::vector<std::string> found = lines(text);
        EXPECT_LT(index, found.size()) << "lines with " << text;
        return index < found.size() ? found[index] : "";
    }
};

// What a piece of code wrote to standard output.
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

// What callbacks were handed on the reader, for the test to wait for.
template <typename T>
class Collector {
  public:
    void put(T item) {
        std::lock_guard<std::mutex> guard(mutex);
        items.push_back(std::move(item));
        changed.notify_all();
    }
    // Waits until `count` items have come in all.
    std::vector<T> waitFor(size_t count) {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait_for(guard, std::chrono::milliseconds(patience),
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

inline long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

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
// Whether that memory tells about the code under test: a sanitizer keeps what was freed (and finds
// leaks by other means), an emulator has its own.
inline bool memoryIsOurs() { return !sanitized && getenv("TESTS_EMULATED") == nullptr; }
inline long runningThreads() { return processStatus("Threads:"); }

// Tries until the condition holds; for what the system does in its own time.
template <typename Condition>
bool eventually(Condition condition) {
    const Stopwatch watch;
    while (!condition()) {
        if (watch.milliseconds() > patience) return false;
        std::this_thread::yield();
    }
    return true;
}

// Whether a thread of this process sleeps, or has ended.
inline bool isAtRest(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t name = line.rfind(')');
    return name == std::string::npos || line[name + 2] == 'S';
}

// A thread that ended may stay listed for a moment.
inline bool threadsComeTo(long count) {
    return eventually([=] { return runningThreads() == count; });
}
