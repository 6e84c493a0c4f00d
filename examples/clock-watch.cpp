// Prints ten values of the ADSP's core clock, each with the time at which it was measured in
// seconds since the Unix epoch.
//
// What an embedding program does: derive a listener, register it, start collection, use the values
// somewhere else than in the listener, stop, take the listener back.
#include <cstdio>
#include <deque>
#include <string>

#include <tavrik/adsppm/ADSPPM.h>
#include <tavrik/log/Time.h>
#include <tavrik/runtime/Lock.h>

using tavrik::ADSPPM;
using tavrik::LockGuard;

namespace {

struct Sample {
    double time;
    long double megahertz;
};

// Hands the samples from DIAG's reader thread, where listeners are called and must not linger, to
// the thread that prints them.
class ClockListener : public ADSPPM::Listener {
  public:
    void onADSPPMInput(int, double time, long double value) override {
        LockGuard guard(lock);
        samples.push_back({time, value});
        lock.notify();
    }

    // Waits for the next sample; false when none comes within three seconds.
    bool next(Sample& sample) {
        const double deadline = getNow() + 3.0;
        LockGuard guard(lock);
        while (samples.empty()) {
            const int milliseconds = static_cast<int>((deadline - getNow()) * 1000.0);
            if (milliseconds <= 0) return false;
            lock.wait(milliseconds);
        }
        sample = samples.front();
        samples.pop_front();
        return true;
    }

  private:
    tavrik::Lock lock;
    std::deque<Sample> samples TAVRIK_GUARDED_BY(lock);
};

bool printSamples(ClockListener& listener, int count) {
    for (int i = 0; i < count; ++i) {
        Sample sample{};
        if (!listener.next(sample)) {
            fprintf(stderr, "clock-watch: no value came in time\n");
            return false;
        }
        printf("%.3f s  %.1Lf MHz\n", sample.time, sample.megahertz);
    }
    return true;
}

}  // namespace

int main() {
    constexpr int kCoreClock = -2;
    constexpr unsigned int kPeriod = 100;

    ClockListener listener;
    std::string refusal;
    if (!ADSPPM::instance()->registerListener(&listener, kCoreClock, "CORE_CLOCK_FREQ", kPeriod,
                                              refusal)) {
        fprintf(stderr, "clock-watch: %s\n", refusal.c_str());
        return 1;
    }
    bool good = ADSPPM::instance()->startMetricCollection();
    if (!good) {
        fprintf(stderr, "clock-watch: collection did not start\n");
    } else {
        good = printSamples(listener, 10);
        if (!ADSPPM::instance()->stopMetricCollection()) {
            fprintf(stderr, "clock-watch: collection did not stop\n");
            good = false;
        }
    }
    // The listener is on this thread's stack: it must not be called once it is gone.
    ADSPPM::instance()->unregisterListener(&listener, kCoreClock);
    return good ? 0 : 1;
}
