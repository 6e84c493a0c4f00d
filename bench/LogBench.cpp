#include "log/Logger.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "bench/Bench.h"

namespace {

using tavrik::Logger;
using tavrik::LogLevel;

Logger& ours() {
    static Logger* const logger = new Logger("Bench", *LogLevel::valueOf("INFO"));
    return *logger;
}

spdlog::logger& peer() {
    static spdlog::logger* const logger = [] {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>("/dev/null");
        sink->set_pattern("%b %d %H:%M:%S.%e [%n]: %l %v");
        return new spdlog::logger("Bench", std::move(sink));
    }();
    return *logger;
}

void line(benchmark::State& state) {
    int i = 0;
    for (auto _ : state)
        ours().infof("received %d bytes of %s", ++i, "log data");
}

void peerLine(benchmark::State& state) {
    int i = 0;
    for (auto _ : state)
        peer().info("received {} bytes of {}", ++i, "log data");
}

const bool registered = [] {
    bench::add("log line, 1 thread/tavrik", line);
    bench::add("log line, 1 thread/spdlog", peerLine);
    bench::add("log line, 2 threads/tavrik", line)->Threads(2);
    bench::add("log line, 2 threads/spdlog", peerLine)->Threads(2);
    bench::add("log line, suppressed/tavrik", [](benchmark::State& state) {
        int i = 0;
        for (auto _ : state)
            ours().debugf("received %d bytes of %s", ++i, "log data");
    });
    bench::add("log line, suppressed/spdlog", [](benchmark::State& state) {
        int i = 0;
        for (auto _ : state)
            peer().debug("received {} bytes of {}", ++i, "log data");
    });
    return true;
}();

}  // namespace
