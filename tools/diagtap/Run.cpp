#include "tools/diagtap/Run.h"

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

namespace diagtap {
namespace {

constexpr const char* kNode = "/dev/diag";

// The names in a folder of /proc; empty where it cannot be read.
std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(folder.c_str()), closedir);
    while (const dirent* const entry = open ? readdir(open.get()) : nullptr)
        names.emplace_back(entry->d_name);
    return names;
}

bool holdsNode(const std::string& process) {
    const std::string folder = "/proc/" + process + "/fd";
    const std::vector<std::string> names = namesIn(folder);
    return std::any_of(names.begin(), names.end(), [&folder](const std::string& name) {
        char target[64] = {};
        const ssize_t length = readlink((folder + '/' + name).c_str(), target, sizeof target - 1);
        return length > 0 && std::strcmp(target, kNode) == 0;
    });
}

std::string holders() {
    std::string list;
    for (const std::string& process : namesIn("/proc")) {
        if (process.find_first_not_of("0123456789") != std::string::npos) continue;
        if (!holdsNode(process)) continue;
        std::string name;
        std::getline(std::ifstream("/proc/" + process + "/comm") >> std::ws, name);
        list += (list.empty() ? "" : ", ") + process + " (" + name + ')';
    }
    return list;
}

// A static program has no name service, so the account files themselves are read.
std::string accountName(const char* file, unsigned id) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        const size_t name = line.find(':');
        const size_t password = name == std::string::npos ? name : line.find(':', name + 1);
        if (password == std::string::npos) continue;
        if (std::strtoul(line.c_str() + password + 1, nullptr, 10) == id)
            return line.substr(0, name);
    }
    return std::to_string(id);
}

std::string nodeText() {
    struct stat status {};
    if (stat(kNode, &status) != 0) return {};
    char mode[16];
    std::snprintf(mode, sizeof mode, "%04o ", static_cast<unsigned>(status.st_mode & 07777));
    return mode + accountName("/etc/passwd", status.st_uid) + ':' +
           accountName("/etc/group", status.st_gid);
}

[[noreturn]] void start(char* const* command) {
    execvp(command[0], command);
    const int error = errno;
    std::fprintf(stderr, "diagtap: cannot run %s: %s\n", command[0], std::strerror(error));
    _exit(error == ENOENT ? 127 : 126);
}

}  // namespace

int runProgram(char* const* command, const std::string& capture) {
    setenv("TAVRIK_CAPTURE", capture.c_str(), 1);
    std::fflush(stdout);
    // The terminal's Ctrl-C ends the program, and then there is a report.
    const auto onInterrupt = signal(SIGINT, SIG_IGN), onQuit = signal(SIGQUIT, SIG_IGN);
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGINT, onInterrupt);
        signal(SIGQUIT, onQuit);
        start(command);
    }
    if (child < 0) {
        std::fprintf(stderr, "diagtap: cannot run %s: %s\n", command[0], std::strerror(errno));
        return 126;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Surroundings lookAround() { return {nodeText(), holders(), "uid " + std::to_string(getuid())}; }

}  // namespace diagtap
