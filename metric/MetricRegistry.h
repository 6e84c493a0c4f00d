#pragma once

#include <atomic>
#include <set>

#include "log/Logger.h"
#include "metric/Metric.h"
#include "runtime/Lock.h"

namespace tavrik {

// All live metrics of the process, for a reporter to walk.
//
// Threads: every operation may be called on any thread. Ownership: one object, never destroyed; the
// metrics belong to their components.
class MetricRegistry {
  public:
    class Visitor {
      public:
        virtual ~Visitor() = default;

        // Returns true to end the walk. Called with the registry's lock held: must not add or
        // remove metrics, nor look triggers up, nor post server messages, nor wait for a thread
        // that does.
        virtual bool visitMetric(Metric* metric) = 0;
    };

    // The registry; made on the first call, which may come from any thread.
    static MetricRegistry* Instance();

    virtual ~MetricRegistry() = default;
    MetricRegistry(const MetricRegistry&) = delete;
    MetricRegistry& operator=(const MetricRegistry&) = delete;

    // Adding a metric twice and removing one that is not there change nothing.
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
