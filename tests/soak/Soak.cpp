// Starts and stops collection in a loop in one process, so that leaks add up. script/soak feeds it
// and watches its memory, descriptors and threads.
//
// Each line of standard input is a scenario in which everything succeeds. The program runs one
// cycle with it and prints "done". Ends with its input; on a failure, names it and exits with
// status 1.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <string>

#include "adsppm/ADSPPM.h"
#include "log/Logger.h"
#include "sim/Device.h"

using diagsim::Device;
using tavrik::ADSPPM;
using tavrik::DIAG;

namespace {

constexpr int kCoreClock = -2;
constexpr int kEvents = 4;  // the ADSP has four slots
constexpr unsigned short kOtherLogCode = 0x1644;

class CountingListener : public ADSPPM::Listener {
  public:
    void onADSPPMInput(int, double, long double) override {
        const std::lock_guard<std::mutex> guard(mutex);
        ++count;
        changed.notify_all();
    }
    bool waitFor(int values) {
        std::unique_lock<std::mutex> guard(mutex);
        return changed.wait_for(guard, std::chrono::seconds(10), [&] { return count >= values; });
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;
};

class IgnoringListener : public DIAG::LogListener {
  public:
    void onLog(const unsigned char*) override {}
};

bool add(ADSPPM::Listener& listener, int eventId) {
    std::string refusal;
    return ADSPPM::instance()->registerListener(&listener, eventId, "EVENT", 1, refusal);
}

// Ends the process at once on a failure, because registered listeners must outlive it.
void expect(bool condition, const char* what) {
    if (condition) return;
    tavrik::Logger::flushAll();
    printf("failed: %s\n", what);
    fflush(stdout);
    _exit(1);
}

// One start and stop; if `crowded`, with a second client of the session and the maximum of events.
void cycle(bool crowded) {
    ADSPPM& adsppm = *ADSPPM::instance();
    DIAG& diag = *DIAG::instance();
    CountingListener listener;
    IgnoringListener other;
    const int last = crowded ? kEvents : 0;
    expect(add(listener, kCoreClock), "registration");
    for (int event = 1; event <= last; ++event)
        expect(add(listener, event), "registration of an event");
    if (crowded) expect(diag.registerLogListener(kOtherLogCode, &other), "second client");
    expect(adsppm.startMetricCollection(), "start");
    expect(listener.waitFor(10), "values");
    expect(adsppm.stopMetricCollection(), "stop");
    if (crowded) expect(diag.unregisterLogListener(kOtherLogCode, &other), "second client's end");
    for (int event = 1; event <= last; ++event)
        adsppm.unregisterListener(&listener, event);
    adsppm.unregisterListener(&listener, kCoreClock);
    expect(!Device::instance().isOpen(), "end of the session");
}

}  // namespace

int main() {
    Device& device = Device::instance();
    device.keepTrace(false);
    bool crowded = false;
    for (std::string scenario; std::getline(std::cin, scenario); crowded = !crowded) {
        try {
            device.plug(diagsim::Scenario::parse(scenario, "scenario"));
        } catch (const std::exception& error) {
            printf("%s\n", error.what());
            return 1;
        }
        cycle(crowded);
        device.unplug();
        tavrik::Logger::flushAll();
        puts("done");
        fflush(stdout);
    }
    return 0;
}
