// The decoded exchange, line by line: to a file, and kept for tests.
#pragma once

#include <chrono>
#include <condition_variable>
#include <string>
#include <vector>

#include "sim/mount/UniqueFd.h"

namespace diagsim {

// A line is "who     text"; in the file the time stands in front of it, in milliseconds since the
// first open of the node. No locks: guarded by the device's mutex.
class Trace {
  public:
    // Forgets the lines; the time starts anew with the next beginClock().
    void restart();

    // Whether lines are kept for lines().
    void keep(bool on) { keep_ = on; }

    // Names the file that gets the lines; "-" is standard error. It is opened, and emptied, by the
    // first beginClock().
    void toFile(const std::string& path) { path_ = path; }

    // Called at every open of the node; the first one is time 0. Ends the process with status 2 and
    // one line on standard error when the trace file cannot be written.
    void beginClock();

    // Whether anybody reads the lines. Who has to format much for a line looks first.
    bool isRead() const { return keep_ || file_.get() >= 0; }

    // Writes one line and wakes who waits on changed().
    void line(const std::string& who, const std::string& text);

    const std::vector<std::string>& lines() const { return lines_; }

    // Notified after every line.
    std::condition_variable_any& changed() { return changed_; }

  private:
    using Clock = std::chrono::steady_clock;

    void openFile();
    void writeFile(const std::string& line);

    bool keep_ = false;
    bool running_ = false;  // beginClock() was called
    Clock::time_point start_{};
    std::string path_{};
    UniqueFd file_{};
    std::vector<std::string> lines_{};
    std::condition_variable_any changed_{};
};

}  // namespace diagsim
