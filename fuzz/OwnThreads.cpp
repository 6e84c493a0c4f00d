#include "fuzz/OwnThreads.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "fuzz/Support.h"

namespace fuzz {
namespace {

size_t entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::string firstBytes(const std::string& file) {
    char text[4096];
    const int handle = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t count = read(handle, text, sizeof text);
    close(handle);
    return std::string(text, count > 0 ? static_cast<size_t>(count) : 0);
}

// A thread's folder in /proc and its context switches, as the kernel prints them.
using Sleeper = std::pair<std::string, std::string>;

// All threads but the caller's, or none if one of them is awake. Looks at the newest first, since
// they are awake most often.
std::vector<Sleeper> sleepers() {
    static const std::string self = "/proc/self/task/" + std::to_string(syscall(SYS_gettid));
    std::vector<Sleeper> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        if (entry.path() != self) found.emplace_back(entry.path(), "");
    std::reverse(found.begin(), found.end());
    for (auto& [folder, switches] : found) {
        const std::string status = firstBytes(folder + "/status");
        if (status.find("\nState:\tS") == std::string::npos) return {};
        switches = status.substr(status.find("\nvoluntary_ctxt_switches"));
    }
    return found;
}

}  // namespace

// A thread that is about to sleep may look asleep and still wake up before it leaves the processor;
// the file `syscall` tells whether it has left. A thread whose context switches have not changed
// has slept all the time.
bool allOthersSleep() {
    const std::vector<Sleeper> before = sleepers();
    for (const Sleeper& sleeper : before)
        if (firstBytes(sleeper.first + "/syscall").rfind("running", 0) == 0) return false;
    return !before.empty() && sleepers() == before;
}

size_t descriptorCount() { return entries("/proc/self/fd"); }

size_t threadCount() { return entries("/proc/self/task"); }

void awaitThreads(size_t count) {
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + std::chrono::seconds(10);
    while (threadCount() != count) {
        mustHold(steady_clock::now() < deadline, "no thread is left");
        std::this_thread::yield();
    }
}

}  // namespace fuzz
