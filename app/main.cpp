#include <time.h>

#include <string>

#include "adsppm/ADSPPM.h"

using tavrik::ADSPPM;

// Exit status 0 when the ADSP acknowledged both the start and the stop of metric collection,
// else 1. Why not is in the log lines on standard output.
int main() {
    // Whether collection starts and stops is what matters here, not the values.
    class MetricListener : public ADSPPM::Listener {
      public:
        void onADSPPMInput(int, double, long double) override {}
    };
    constexpr int kCoreClock = -2;
    constexpr unsigned int kPeriod = 100;

    MetricListener listener;
    const std::string name = "CORE_CLOCK_FREQ";
    std::string error;
    // A registration that fails shows up as a start that fails.
    ADSPPM::instance()->registerListener(&listener, kCoreClock, name, kPeriod, error);
    int status = 1;
    if (ADSPPM::instance()->startMetricCollection()) {
        const timespec pause = {0, 250000000};
        nanosleep(&pause, nullptr);
        if (ADSPPM::instance()->stopMetricCollection()) status = 0;
    }
    ADSPPM::instance()->unregisterListener(&listener, kCoreClock);
    return status;
}
