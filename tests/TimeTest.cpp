// Time helpers. A process computes the start time once: each test needs a process of its own.
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>

#include "log/Time.h"
#include "tests/SimSupport.h"
#include "tests/Support.h"

namespace {

double uptime() {
    double seconds = 0.0;
    std::ifstream("/proc/uptime") >> seconds;
    return seconds;
}

std::string text(double t) {
    std::string out;
    timeToString(t, out);
    return out;
}

void expectOneFailure(const std::string& uptimeFile, const std::string& message) {
    device().redirect("/proc/uptime", uptimeFile);
    const std::string output = outputOf([] {
        EXPECT_EQ(getSystemStartTime(), 0.0);
        device().redirect("/proc/uptime", "");
        EXPECT_EQ(getSystemStartTime(), 0.0) << "tried again";
    });
    EXPECT_EQ(occurrences(output, "\n"), 1);
    EXPECT_EQ(occurrences(output, "[Time]: ERROR getSystemStartTime: " + message + "\n"), 1);
}

}  // namespace

TEST(TimeTest, TheStartTimeIsNowLessTheUptime) {
    const double uptimeBefore = uptime();
    const double before = getNow();
    const long descriptors = openDescriptors();
    const double boot = getSystemStartTime();
    EXPECT_LE(std::abs(before - static_cast<double>(time(nullptr))), getNow() - before + 1.5);
    EXPECT_GE(boot, before - uptime() - 0.02);
    EXPECT_LE(boot, getNow() - uptimeBefore + 0.02);
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(TimeTest, TheStartTimeIsComputedOnceFromAFakeTime) {
    tavrik::Logger::getLogger("Time")->setLevel(*tavrik::LogLevel::valueOf("DEBUG"));
    const double before = getNow();
    double boot = 0.0;
    const std::string output = outputOf([&] {
        setFakeTimeOffset(1e6);
        setFakeTimeOffset(1e6);
        boot = getSystemStartTime();
        EXPECT_GE(getNow(), before + 1e6);
        setFakeTimeOffset(0.0);
        EXPECT_EQ(getSystemStartTime(), boot);
    });
    EXPECT_GE(boot, before + 1e6 - uptime() - 0.02);
    EXPECT_EQ(occurrences(output, "\n"), 4) << output;
    for (const std::string& line :
         {std::string("INFO Fake time offset has been set to 1000000.000000\n"),
          std::string("DEBUG getSystemStartTime: uptime="),
          "INFO The system start time is " + std::to_string(boot) + "\n",
          std::string("INFO Fake time offset has been set to 0.000000\n")})
        EXPECT_EQ(occurrences(output, "[Time]: " + line), 1) << line;
}

TEST(TimeTest, AnAdapterMayAskForTheStartTime) {
    std::vector<double> answers;
    LineAdapter adapter([&](auto&...) { answers.push_back(getSystemStartTime()); });
    tavrik::Logger::setLogAdapter(&adapter);
    const double start = getSystemStartTime();
    tavrik::Logger::setLogAdapter(nullptr);
    EXPECT_EQ(answers, std::vector<double>{start});
}

TEST(TimeTest, AMissingUptimeIsLoggedOnce) {
    expectOneFailure("/nowhere", "Could not open /proc/uptime");
}

TEST(TimeTest, AnUnreadableUptimeIsLoggedOnce) {
    expectOneFailure("/proc/self/comm", "Could not parse /proc/uptime");
}

TEST(TimeTest, TextHasUtcAndUnpaddedMilliseconds) {
    setenv("TZ", "XXX-9", 1);
    tzset();
    EXPECT_EQ(text(0.5), "01/01/70 00:00:00.500");
    EXPECT_EQ(text(1.005), "01/01/70 00:00:01.4");
    EXPECT_EQ(text(1794747530.0625), "11/15/26 12:58:50.62");
    EXPECT_EQ(text(-1.25), "12/31/69 23:59:59.-250");
    char out[80];
    EXPECT_EQ(timeToString(0.0, out), 19u);
}

TEST(TimeTest, TextClampsToWhatTheFormatHolds) {
    EXPECT_EQ(text(2147483647.5), "01/19/38 03:14:07.500");
    const double infinity = std::numeric_limits<double>::infinity();
    for (const double late : {2147483648.0, 1e300, infinity})
        EXPECT_EQ(text(late), "01/19/38 03:14:07.0") << late;
    for (const double early : {-2147483649.0, -1e300, -infinity})
        EXPECT_EQ(text(early).rfind("12/13/01 20:45:52.", 0), 0u) << early;
    EXPECT_EQ(text(std::nan("")), "01/01/70 00:00:00.0");
}
