#include "log/Time.h"

#include <fcntl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "log/Logger.h"

inline namespace tavrik_time {

namespace {

using tavrik::Logger;

constexpr double kNotComputed = -1.0;
constexpr size_t kTextSize = 80;

std::atomic<double> fakeTimeOffset{0.0};
std::atomic<double> systemStartTime{kNotComputed};

Logger* timeLogger() {
    static std::atomic<Logger*> logger{nullptr};
    if (!logger) logger = Logger::getLogger("Time");
    return logger;
}

// False when the file cannot be opened. `fields` is how many numbers it held.
bool readUptime(double& uptime, double& idletime, double& now, int& fields) {
    const int file = open("/proc/uptime", O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    char text[128];
    const ssize_t length = read(file, text, sizeof text - 1);
    text[length < 0 ? 0 : length] = '\0';
    fields = sscanf(text, "%lf %lf", &uptime, &idletime);
    now = getNow();
    close(file);
    return true;
}

// Stores the start time before it logs, because a log adapter may ask for it.
void computeStartTime() {
    double uptime = 0.0;
    double idletime = 0.0;
    double now = 0.0;
    int fields = 0;
    if (!readUptime(uptime, idletime, now, fields)) {
        systemStartTime = 0.0;
        timeLogger()->errorf("getSystemStartTime: Could not open /proc/uptime");
        return;
    }
    if (fields <= 0) {
        systemStartTime = 0.0;
        timeLogger()->errorf("getSystemStartTime: Could not parse /proc/uptime");
        return;
    }
    systemStartTime = now - uptime;
    timeLogger()->debugf("getSystemStartTime: uptime=%f, idletime=%f, now=%f", uptime, idletime,
                         now);
    timeLogger()->infof("The system start time is %f", now - uptime);
}

// Truncates toward zero. Clamps to the range of the type; not-a-number becomes 0.
int32_t toInt32(double value) {
    if (!(value == value)) return 0;
    if (value >= std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    if (value <= std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(value);
}

}  // namespace

double getNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6 +
           fakeTimeOffset;
}

void setFakeTimeOffset(double offset) {
    if (fakeTimeOffset.exchange(offset) == offset) return;
    timeLogger()->infof("Fake time offset has been set to %f", offset);
}

double getFakeTimeOffset() { return fakeTimeOffset; }

double getSystemStartTime() {
    // Two threads that are first compute it both; either result is right.
    if (systemStartTime == kNotComputed) computeStartTime();
    return systemStartTime;
}

size_t timeToString(double t, char* out) {
    if (out == nullptr) return 0;
    const int32_t secs = toInt32(t);
    const double fraction = t - secs;
    const int32_t millis = fraction > -1.0 && fraction < 1.0 ? toInt32(fraction * 1000.0) : 0;
    char format[kTextSize];
    snprintf(format, sizeof format, "%%x %%X.%d", static_cast<int>(millis));
    const time_t seconds = secs;
    tm broken{};
    gmtime_r(&seconds, &broken);
    out[0] = '\0';
    const size_t length = strftime(out, kTextSize, format, &broken);
    if (length == 0) out[0] = '\0';
    return length;
}

void timeToString(double t, std::string& out) {
    char text[kTextSize + 4];
    timeToString(t, text);
    out = text;
}

}  // namespace tavrik_time
