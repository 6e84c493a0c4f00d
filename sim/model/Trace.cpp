#include "sim/model/Trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace diagsim {

void Trace::restart() {
    lines_.clear();
    running_ = false;
}

void Trace::beginClock() {
    if (running_) return;
    running_ = true;
    if (!path_.empty() && file_.get() < 0) openFile();
    start_ = Clock::now();
}

void Trace::openFile() {
    UniqueFd file(path_ == "-"
                      ? fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)
                      : Libc::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    file_ = aboveStandardStreams(std::move(file));
    if (file_.get() >= 0) return;
    std::fprintf(stderr, "diagsim: cannot write the trace to %s: %s\n", path_.c_str(),
                 std::strerror(errno));
    _exit(2);
}

void Trace::line(const std::string& who, const std::string& text) {
    if (!isRead()) return;
    char column[16];
    std::snprintf(column, sizeof column, "%-6s  ", who.c_str());
    const std::string line = column + text;
    if (keep_) lines_.push_back(line);
    if (file_.get() >= 0) writeFile(line);
    changed_.notify_all();
}

void Trace::writeFile(const std::string& line) {
    const std::chrono::duration<double, std::milli> elapsed = Clock::now() - start_;
    char time[32];
    std::snprintf(time, sizeof time, "%10.3f ms  ", elapsed.count());
    const std::string whole = time + line + '\n';
    size_t done = 0;
    while (done < whole.size()) {
        const ssize_t written = Libc::write(file_.get(), whole.data() + done, whole.size() - done);
        if (written < 0 && errno != EINTR) return;
        if (written > 0) done += static_cast<size_t>(written);
    }
}

}  // namespace diagsim
