// Helpers of tests that do not need the simulated device.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/LogAdapter.h"
#include "metric/MetricRegistry.h"

// Sets the default stack size of threads created from now on, in bytes. False if the size is
// invalid.
inline bool setStackSize(size_t size) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    return pthread_setattr_default_np(&attributes) == 0;
}

// While it lives, no thread can be created: the stack would not fit into the address space.
struct NoNewThreads {
    NoNewThreads() {
        EXPECT_TRUE(setStackSize(std::numeric_limits<size_t>::max() / 65536 * 49152));
    }
    ~NoNewThreads() { EXPECT_TRUE(setStackSize(1 << 20)); }
};

// The calling thread's name.
inline std::string threadName() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

// Runs `body` on `count` threads, which it numbers from 0. Returns when they have ended.
inline void inParallel(int count, const std::function<void(int thread)>& body) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < count; ++thread)
        threads.emplace_back(body, thread);
    for (std::thread& thread : threads)
        thread.join();
}

inline long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Hands each line that is logged to `code`, on the thread that logs.
struct LineAdapter : tavrik::LogAdapter {
    using Code = std::function<void(const std::string& level, const std::string& logger,
                                    const std::string& message)>;
    explicit LineAdapter(Code code_) : code(std::move(code_)) {}
    int log(const tavrik::LogLevel& level, const std::string& logger, const char* message,
            bool) override {
        code(level.getName(), logger, message);
        return 0;
    }
    int log(const tavrik::LogLevel& level, const std::string& logger, const std::string& message,
            bool buffering) override {
        return log(level, logger, message.c_str(), buffering);
    }
    int flush() override { return 0; }
    const Code code;
};

// "category|description|value" of each registered metric with this instance and name. Collects no
// other metric, since collecting may block.
inline std::string metric(const std::string& instance, const std::string& name) {
    struct Walk : tavrik::MetricRegistry::Visitor {
        bool visitMetric(tavrik::Metric* found) override {
            if (found->instance != instance || found->name != name) return false;
            text += found->category + "|" + found->description + "|";
            text += std::to_string(static_cast<int>(found->collect()));
            return false;
        }
        std::string instance, name, text;
    } walk;
    walk.instance = instance;
    walk.name = name;
    tavrik::MetricRegistry::Instance()->visit(walk);
    return walk.text;
}
