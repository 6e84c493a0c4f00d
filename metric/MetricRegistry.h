#pragma once

#include <atomic>
#include <set>

#include "log/Logger.h"
#include "metric/Metric.h"
#include "runtime/Lock.h"

namespace tavrik {

// All live metrics of the process, for a reporter to walk.
//
// Threads: any thread may call any operation. Ownership: one object, never destroyed. The metrics
// belong to their components.
class MetricRegistry {
  public:
    class Visitor {
      public:
        virtual ~Visitor() = default;

        // Returns true to end the walk. Called with the registry's lock held. Must not add or
        // remove metrics, look triggers up, post server messages, or wait for a thread that does.
        virtual bool visitMetric(Metric* metric) = 0;
    };

    // The registry, created by the first call. Any thread.
    static MetricRegistry* Instance();

    virtual ~MetricRegistry() = default;
    MetricRegistry(const MetricRegistry&) = delete;
    MetricRegistry& operator=(const MetricRegistry&) = delete;

    // Adding null or a registered metric, and removing an unknown one, do nothing.
    void addMetric(Metric* metric) TAVRIK_EXCLUDES(lock);
    void removeMetric(Metric* metric) TAVRIK_EXCLUDES(lock);

    // Visits the metrics in ascending order of their addresses.
    void visit(Visitor& visitor) const TAVRIK_EXCLUDES(lock);

  private:
    MetricRegistry();

    static std::atomic<Logger*> logger;

    std::set<Metric*> metrics TAVRIK_GUARDED_BY(lock);

    // Guards the set; held while a visitor runs. Taken after the trigger map's lock; locks of a
    // metric's component may be taken under it.
    mutable Lock lock;
};

}  // namespace tavrik
