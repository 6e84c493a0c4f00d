// What the tests share that need no simulated device.
#pragma once

#include <pthread.h>

#include <string>

#include "metric/MetricRegistry.h"

// Of the threads that are made without one of their own from now on.
inline bool setStackSize(size_t size) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    return pthread_setattr_default_np(&attributes) == 0;
}

// Of the thread that asks.
inline std::string threadName() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

// The metrics of that name that an instance has registered: of each "category|description|value".
// Not all are collected, because what collects one may wait.
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
