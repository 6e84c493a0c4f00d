#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <ctime>
#include <functional>
#include <regex>
#include <thread>
#include <utility>
#include <vector>

#include "log/LogAdapterStore.h"
#include "log/Logger.h"
#include "tests/Support.h"

namespace tavrik {
namespace {

// Runs `body` in a process that then ends without flushing; checks its standard output.
void expectOutput(const std::function<void()>& body, const char* pattern) {
    const auto run = [&] {
        if (freopen("/proc/self/fd/2", "w", stdout) != nullptr) body();
        syscall(SYS_exit_group, 0);  // the sanitizers' _exit() flushes
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), pattern);
}

// Installs itself as the log adapter for its lifetime and records the calls.
class Recorder : public LogAdapter {
  public:
    Recorder() { Logger::setLogAdapter(this); }
    ~Recorder() override { Logger::setLogAdapter(nullptr); }

    int log(const LogLevel& level, const std::string& logger, const char* message,
            bool buffering) override {
        lines += level.getName() + " " + logger + " " + message + (buffering ? "+" : "") + "\n";
        return 41;
    }
    int log(const LogLevel& level, const std::string& logger, const std::string& message,
            bool buffering) override {
        return log(level, logger, ("string " + message).c_str(), buffering) + 1;
    }
    int flush() override {
        lines += "flush\n";
        return 43;
    }
    std::string take() { return std::exchange(lines, ""); }

  private:
    std::string lines;
};

struct Factory : LogAdapterFactory {
    explicit Factory(LogAdapter* made_) : made(made_) {}
    LogAdapter* create(const JSOM&) override { return made; }
    LogAdapter* const made;
};

void configure(const std::string& text) {
    const int fd = memfd_create("config", 0);
    dprintf(fd, "%s", text.c_str());
    Logger::loadConfig(("/proc/self/fd/" + std::to_string(fd)).c_str());
    close(fd);
}

void logAtEveryLevel(Logger& logger) {
    logger.errorf("%d", 2);
    logger.warnf("%d", 3);
    logger.infof("%d", 4);
    logger.debugf("%d", 5);
    logger.tracef("%d", 6);
}

// The library's functions, where those above are inline.
void logThroughPointers(Logger& logger) {
    int number = 2;
    for (const auto function :
         {&Logger::errorf, &Logger::warnf, &Logger::infof, &Logger::debugf, &Logger::tracef})
        (logger.*function)("%d", number++);
}

// The thread sanitizer reports a level that is not published properly.
TEST(LoggerTest, LevelsMayBeInitialisedByAnyThread) {
    inParallel(4, [](int) {
        if (!LogLevel::LVL_OFF) LogLevel::_init();
        EXPECT_EQ(LogLevel::LVL_ALL->getLevel(), 8);
    });
    EXPECT_EQ(Logger::getLogger(nullptr), Logger::getLogger(""));
}

TEST(LoggerTest, LevelsAreFoundByNameAndNumber) {
    const char* const names[] = {"off",   "Fatal", "ERROR",   "warn", "Info",
                                 "DEBUG", "trace", "UNKNOWN", "all"};
    const std::string* const constants[] = {
        &LogLevel::OFF_NAME,   &LogLevel::FATAL_NAME,   &LogLevel::ERROR_NAME,
        &LogLevel::WARN_NAME,  &LogLevel::INFO_NAME,    &LogLevel::DEBUG_NAME,
        &LogLevel::TRACE_NAME, &LogLevel::UNKNOWN_NAME, &LogLevel::ALL_NAME};
    for (int number = 0; number < 9; ++number) {
        EXPECT_EQ(LogLevel::valueOf(number)->getLevel(), number);
        EXPECT_EQ(LogLevel::valueOf(number)->getName(), *constants[number]);
        EXPECT_EQ(LogLevel::valueOf(names[number]), LogLevel::valueOf(number));
        EXPECT_STRCASEEQ(LogLevel::valueOf(number)->getName().c_str(), names[number]);
    }
    for (const char* name : {"", "WARNING", " WARN", "3"})
        EXPECT_EQ(LogLevel::valueOf(std::string(name)), LogLevel::LVL_UNKNOWN) << name;
    EXPECT_EQ(LogLevel::valueOf(9), LogLevel::LVL_UNKNOWN);
    EXPECT_EQ(LogLevel::valueOf(-1), LogLevel::LVL_UNKNOWN);
}

// Starts before its process has a logger.
TEST(LoggerTest, DefaultLevelAppliesToLaterLoggers) {
    EXPECT_EQ(Logger::getMasterLogLevel(), LogLevel::valueOf("INFO"));
    EXPECT_EQ(Logger::getDefaultLogLevel(), LogLevel::LVL_INFO);
    Logger::setDefaultLogLevel(*LogLevel::LVL_WARN);
    LogLevel* const level = Logger::getDefaultLogLevel();
    Logger* const early = Logger::getLogger("early");
    EXPECT_EQ(Logger::getMasterLogLevel()->getName(), "ALL");
    Logger::setDefaultLogLevel(*LogLevel::valueOf("TRACE"));
    EXPECT_EQ(Logger::getDefaultLogLevel(), level);
    EXPECT_EQ(early->getLevel().getName(), "WARN");
    EXPECT_EQ(Logger::getLogger("late")->getLevel().getName(), "TRACE");
    EXPECT_EQ(Logger::getLogger(std::string("early")), early);
    Logger::setDefaultLogLevel(LogLevel("trace by another name", 6));
    EXPECT_EQ(level->getName(), "TRACE");
}

TEST(LoggerTest, ALoggersLevelFiltersLines) {
    Recorder adapter;
    Logger logger("f", *LogLevel::valueOf("INFO"));
    for (const auto logAll : {logAtEveryLevel, logThroughPointers}) {
        logger.setLevel(*LogLevel::LVL_INFO);
        logAll(logger);
        EXPECT_EQ(adapter.take(), "ERROR f 2+\nWARN f 3+\nINFO f 4+\n");
        logger.setLevel(*LogLevel::LVL_UNKNOWN);
        logAll(logger);
        EXPECT_EQ(adapter.take(), "ERROR f 2+\nWARN f 3+\nINFO f 4+\nDEBUG f 5+\nTRACE f 6+\n");
    }
}

TEST(LoggerTest, TheMasterLevelFiltersLinesButNotLog) {
    Recorder adapter;
    Logger logger("f", *LogLevel::valueOf("UNKNOWN"));
    Logger::setMasterLogLevel(*LogLevel::LVL_WARN);
    logAtEveryLevel(logger);
    EXPECT_EQ(logger.log(*LogLevel::LVL_TRACE, "unfiltered"), 41);
    EXPECT_EQ(logger.log(*LogLevel::LVL_FATAL, std::string("s")), 42);
    EXPECT_EQ(adapter.take(), "ERROR f 2+\nWARN f 3+\nTRACE f unfiltered+\nFATAL f string s+\n");
}

TEST(LoggerTest, DisablingBufferingFlushesOnce) {
    Recorder adapter;
    Logger logger("f", *LogLevel::valueOf("INFO"));
    Logger::disableBuffering();
    Logger::disableBuffering();
    logger.warnf("unbuffered");
    logger.log(*LogLevel::LVL_FATAL, "f");
    Logger::enableBuffering();
    logger.warnf("buffered");
    EXPECT_EQ(Logger::flushAll(), 43);
    EXPECT_EQ(adapter.take(), "flush\nWARN f unbuffered\nFATAL f f\nWARN f buffered+\nflush\n");
}

std::string now() {
    timeval time{};
    gettimeofday(&time, nullptr);
    char text[80];
    const size_t length = strftime(text, sizeof text, "%b %d %H:%M:%S", localtime(&time.tv_sec));
    snprintf(text + length, sizeof text - length, ".%03ld", static_cast<long>(time.tv_usec / 1000));
    return text;
}

TEST(LoggerTest, ALongLineIsWholeAndInTheCurrentZone) {
    for (const char* zone : {"XXX0", "XXX-9", "YYY0"}) {
        setenv("TZ", zone, 1);
        tzset();
        const std::string before = now();
        testing::internal::CaptureStdout();
        const int result =
            Logger::getLogger("Zone")->log(*LogLevel::valueOf("INFO"), std::string(9000, 'm'));
        const std::string line = testing::internal::GetCapturedStdout();
        EXPECT_EQ(line.substr(19), " [Zone]: INFO " + std::string(9000, 'm') + "\n");
        EXPECT_EQ(result, static_cast<int>(line.size()));
        EXPECT_TRUE(before <= line.substr(0, 19) && line.substr(0, 19) <= now()) << line;
    }
}

TEST(LoggerTest, ALineHasTimeNameLevelAndMessage) {
    const std::string before = now();
    testing::internal::CaptureStdout();
    Logger::getLogger("Line")->warnf("%s %%%d", "x", 7);
    Logger::getLogger("Cut")->errorf("%s", std::string(3000, 'm').c_str());
    const std::string lines = testing::internal::GetCapturedStdout();
    const std::regex expected(".{15}\\.[0-9]{3} \\[Line\\]: WARN x %7\n.* \\[Cut\\]: ERROR (m+)\n");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines, match, expected)) << lines;
    EXPECT_EQ(match.length(1), 2046);
    EXPECT_TRUE(before <= lines.substr(0, 19) && lines.substr(0, 19) <= now()) << lines;
}

TEST(LoggerTest, MessagesAreFormattedAsByPrintf) {
    Recorder recorder;
    Logger* const logger = Logger::getLogger("Format");
    logger->errorf("%d %i %u %s%%|", INT_MIN, -7, UINT_MAX, "text");
    logger->errorf("%s %d %5.1f|%-3d|%ld", "rest", 3, 2.5, 4, LONG_MIN);
    const char* volatile nothing = nullptr;  // unknown to the compiler, which would warn
    logger->errorf("%s %s", "null", nothing);
    EXPECT_EQ(recorder.take(),
              "ERROR Format -2147483648 -7 4294967295 text%|+\n"
              "ERROR Format rest 3   2.5|4  |" +
                  std::to_string(LONG_MIN) + "+\nERROR Format null (null)+\n");
}

TEST(LoggerTest, BufferedLinesWaitForAFlush) {
    const auto log = [] { Logger::getLogger("Buffer")->errorf("line"); };
    expectOutput(log, "^$");
    expectOutput([&] { log(), Logger::flushAll(); }, "line");
    expectOutput([&] { log(), Logger::disableBuffering(); }, "line");
    expectOutput([&] { Logger::disableBuffering(), log(); }, "line");
    expectOutput([&] { log(), configure(R"({"buffering": "off"})"); }, "^$");
    expectOutput([&] { configure(R"({"buffering": false})"), log(); }, "line");
    expectOutput([&] { configure(R"({"buffering": "no"})"), log(); }, "^$");
}

TEST(LoggerTest, LevelsAndAdapterMayChangeWhileThreadsLog) {
    std::atomic<int> lines{0}, applied{0};
    const auto count = [&lines](const auto& level, const auto&, const auto& message) {
        lines += level == message ? 1 : 10000;
    };
    LineAdapter a(count), b(count);
    LogAdapterStore::addFactory("a", new Factory(&a));
    LogAdapterStore::addFactory("b", new Factory(&b));
    inParallel(5, [&applied](int thread) {
        for (; thread == 4 && applied < 100; ++applied) {
            configure(
                R"({"level": "ERROR", "categories": {"q": "INFO"}, "adapter": {"type": "b"}})");
            configure(R"({"level": "ALL", "categories": {"q": "WARN"}, "adapter": {"type": "a"}})");
        }
        for (int i = 0; thread < 4 && i < 1000; ++i) {
            while (applied <= i / 10)
                std::this_thread::yield();
            Logger* const logger = Logger::getLogger("race " + std::to_string(i % 10));
            logger->errorf("ERROR");
            Logger::getLogger("q")->debugf("never admitted");
            logger->setLevel(*LogLevel::valueOf(i % 3 == 0 ? "WARN" : "ALL"));
            Logger::setMasterLogLevel(*LogLevel::valueOf(2 + (i + thread) % 5));
            const LogLevel copy = *Logger::getMasterLogLevel();
            EXPECT_EQ(copy.getName(), LogLevel::valueOf(copy.getLevel())->getName());
        }
    });
    Logger::setLogAdapter(nullptr);
    EXPECT_EQ(lines, 4000);
}

TEST(LoggerTest, ConfigurationIgnoresUnknownLevels) {
    configure(R"({"level": "warn", "categories": {"c": "fatal", "c": "all", "none": "unknown"}})");
    configure(R"({"default": "Trace"})");
    configure(R"({"default": "?", "level": "UNKNOWN", "categories": {"c": 7}})");
    testing::internal::CaptureStderr();
    Logger::loadConfig("/none");
    configure(R"({"level": "OFF", ])");
    const std::regex failures("JS.*: .*\nCould not load file `/none'.\nJS.*: .*\nCould not .*'.\n");
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(printed, failures)) << printed;
    EXPECT_EQ(Logger::getMasterLogLevel()->getName(), "WARN");
    EXPECT_EQ(Logger::getLogger("c")->getLevel().getName(), "FATAL");     // the first comes last
    EXPECT_EQ(Logger::getLogger("none")->getLevel().getName(), "TRACE");  // made only now
}

TEST(LoggerTest, AdaptersComeFromTheFactoryOfTheirType) {
    Recorder recorder;
    LogAdapterStore::addFactory("r", new Factory(nullptr));
    LogAdapterStore::addFactory("r", new Factory(&recorder));
    for (const char* const adapter : {R"({"type":"r"})", R"({"no":1})", R"({"type":"none"})"}) {
        configure(R"({"level": "INFO", "adapter": )" + std::string(adapter) + "}");
        Logger::getLogger("A")->errorf("%s", adapter);
    }
    EXPECT_EQ(recorder.take(), "ERROR A {\"type\":\"r\"}+\nERROR A {\"no\":1}+\n");
}

}  // namespace
}  // namespace tavrik
