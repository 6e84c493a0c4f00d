#include "metric/MetricRegistry.h"

namespace tavrik {

std::atomic<Logger*> MetricRegistry::logger{nullptr};

MetricRegistry* MetricRegistry::Instance() {
    static MetricRegistry* const instance = new MetricRegistry;
    return instance;
}

MetricRegistry::MetricRegistry() {
    if (!logger) logger = Logger::getLogger("MetricRegistry");
}

void MetricRegistry::addMetric(Metric* metric) {
    if (!metric) return;
    LockGuard guard(lock);
    metrics.insert(metric);
}

void MetricRegistry::removeMetric(Metric* metric) {
    LockGuard guard(lock);
    metrics.erase(metric);
}

void MetricRegistry::visit(Visitor& visitor) const {
    LockGuard guard(lock);
    for (Metric* const metric : metrics) {
        if (visitor.visitMetric(metric)) return;
    }
}

}  // namespace tavrik
