#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bench/Bench.h"

namespace {

using State = benchmark::State;
using Texts = std::vector<std::string>;

std::vector<char*> pointers(const Texts& texts) {
    std::vector<char*> all;
    for (const std::string& text : texts)
        all.push_back(const_cast<char*>(text.c_str()));
    all.push_back(nullptr);
    return all;
}

// Runs a program, without output, to its end.
void run(const Texts& arguments, const Texts& environment) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    posix_spawn(&child, arguments[0].c_str(), &actions, nullptr, pointers(arguments).data(),
                pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    waitpid(child, nullptr, 0);
}

long greatestSize(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string word;
    long size = 0;
    while (status >> word && word != "VmHWM:") {
    }
    status >> size;
    return size;
}

// The greatest resident size of a program, in KB. It is stopped at its end: what the kernel reports
// afterwards includes this process, from which it came.
long memoryOf(const Texts& arguments) {
    const std::vector<char*> vector = pointers(arguments);
    char* none[] = {nullptr};
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        dup2(STDOUT_FILENO, STDERR_FILENO);
        execve(vector[0], vector.data(), none);
        _exit(1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACEEXIT);
    long size = 0;
    for (; WIFSTOPPED(status); waitpid(child, &status, 0)) {
        if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8)) size = greatestSize(child);
        ptrace(PTRACE_CONT, child, nullptr, nullptr);
    }
    return size;
}

void runs(State& state, const Texts& arguments, const Texts& environment) {
    for (auto _ : state)
        run(arguments, environment);
}

std::string stormScenario() {
    const std::string path = "/tmp/tavrik-bench-" + std::to_string(getpid()) + ".json";
    FILE* const file = fopen(path.c_str(), "w");
    if (!file) return path;
    fputs(R"({"adsp": {"period_us": 1}})", file);
    fclose(file);
    return path;
}

void checks(State& state, bool storm) {
    Texts environment{"LD_PRELOAD=" BENCH_DEVICE};
    const std::string scenario = stormScenario();
    if (storm) environment.push_back("DIAGSIM_SCENARIO=" + scenario);
    runs(state, {BENCH_CHECK}, environment);
    unlink(scenario.c_str());
}

void starts(State& state, const Texts& arguments) {
    runs(state, arguments, {});
    state.counters["memory"] = static_cast<double>(memoryOf(arguments));
}

const bool registered = [] {
    for (const bool storm : {false, true}) {
        const std::string piece = storm ? "a check, 1M log packets a second" : "a check";
        bench::add(piece + "/sleep", [](State& state) { runs(state, {BENCH_NOTHING, "250"}, {}); });
        bench::add(piece + "/tavrik", [=](State& state) { checks(state, storm); });
    }
    const std::string piece = "static process without a device";
    bench::add(piece + "/tavrik", [](State& state) { starts(state, {BENCH_CHECK_STATIC}); });
    bench::add(piece + "/C++", [](State& state) { starts(state, {BENCH_NOTHING}); });
    return true;
}();

}  // namespace
