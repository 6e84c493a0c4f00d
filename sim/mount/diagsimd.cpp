// The simulated device as a character device in user space.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "sim/Device.h"
#include "sim/mount/CuseNode.h"

namespace {

constexpr const char* kUsage =
    R"(usage: diagsimd [--name NAME] [--scenario FILE] [--trace FILE] [--foreground]

Makes the character device /dev/NAME and behaves behind it as the diag driver and the ADSP do.
Needs root and the kernel's cuse driver (modprobe cuse). Ends, and takes the node away, on
SIGTERM or SIGINT.

  -n, --name NAME       the node's name (diag)
  -s, --scenario FILE   how the device behaves and misbehaves, JSON (it behaves well)
  -t, --trace FILE      write one decoded line per message; - for standard error
  -f, --foreground      stay in the foreground; otherwise the command returns when the node is
                        there, and prints the process id of the server
  -h, --help            print this

Exit status: 0, or 1 when there is no node, or 2 for a mistake in arguments or scenario.
)";

struct Options {
    std::string name = "diag";
    std::string scenario{};
    std::string trace{};
    bool foreground = false;
};

[[noreturn]] void fail(const std::string& message, int status) {
    std::fprintf(stderr, "diagsimd: %s\n", message.c_str());
    std::exit(status);
}

Options readOptions(int argc, char** argv) {
    static const option known[] = {
        {"name", required_argument, nullptr, 'n'},  {"scenario", required_argument, nullptr, 's'},
        {"trace", required_argument, nullptr, 't'}, {"foreground", no_argument, nullptr, 'f'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
    Options options;
    for (int letter; (letter = getopt_long(argc, argv, "n:s:t:fh", known, nullptr)) != -1;) {
        switch (letter) {
            case 'n':
                options.name = optarg;
                break;
            case 's':
                options.scenario = optarg;
                break;
            case 't':
                options.trace = optarg;
                break;
            case 'f':
                options.foreground = true;
                break;
            case 'h':
                std::fputs(kUsage, stdout);
                std::exit(0);
            default:
                std::fputs(kUsage, stderr);
                std::exit(2);
        }
    }
    if (optind != argc) fail(std::string("unexpected argument ") + argv[optind], 2);
    if (options.name.empty() || options.name.find('/') != std::string::npos) {
        fail("not the name of a node: '" + options.name + '\'', 2);
    }
    return options;
}

void plugDevice(const Options& options) {
    diagsim::Device& device = diagsim::Device::instance();
    device.keepTrace(false);
    // Absolute, because a server does not stay in its caller's directory.
    if (options.trace == "-") {
        device.traceTo("-");
    } else if (!options.trace.empty()) {
        device.traceTo(std::filesystem::absolute(options.trace).string());
    }
    try {
        device.plug(options.scenario.empty() ? diagsim::Scenario()
                                             : diagsim::Scenario::load(options.scenario));
    } catch (const diagsim::ScenarioError& error) {
        fail(error.what(), 2);
    }
}

// Goes on in a child; the caller's process waits there for the node and ends. What is returned is
// to be closed when the node is there.
int continueInBackground() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail(std::string("pipe: ") + std::strerror(errno), 1);
    const pid_t child = fork();
    if (child < 0) fail(std::string("fork: ") + std::strerror(errno), 1);
    if (child == 0) {
        close(ends[0]);
        setsid();
        return ends[1];
    }
    close(ends[1]);
    char ready;
    if (read(ends[0], &ready, 1) == 1) {
        std::printf("%d\n", static_cast<int>(child));
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    std::exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

// Tells the waiting process, and leaves the terminal; standard error stays if the trace goes there.
void detach(int toParent, bool keepError) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        if (!keepError) dup2(null, STDERR_FILENO);
        close(null);
    }
    if (write(toParent, "", 1) != 1) std::exit(1);
    close(toParent);
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    plugDevice(options);
    const int toParent = options.foreground ? -1 : continueInBackground();
    try {
        diagsim::serveCuseNode(options.name, [&] {
            if (toParent >= 0) detach(toParent, options.trace == "-");
        });
    } catch (const diagsim::CuseError& error) {
        fail(error.what(), 1);
    }
    return 0;
}
