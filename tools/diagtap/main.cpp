// Shows, reports and runs captures of the calls on the device node.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <tavrik/version.h>

#include "tools/diagtap/Analysis.h"
#include "tools/diagtap/Formats.h"
#include "tools/diagtap/Run.h"
#include "tools/diagtap/Show.h"

namespace {

using Arguments = std::vector<std::string>;

constexpr const char* kUsage =
    "usage: diagtap run [-o FILE] -- PROGRAM [ARG...]   runs PROGRAM with a capture, then reports\n"
    "       diagtap show FILE                           one decoded line for each message\n"
    "       diagtap report FILE [--format FORMAT]       text, json, junit, html or csv\n"
    "       diagtap --help | --version\n"
    "\n"
    "Captures are made by programs with the driver client: TAVRIK_CAPTURE=FILE PROGRAM.\n"
    "Exit status: PROGRAM's; else 0, 1 for a file that cannot be read to its end, 2 for misuse.\n";

constexpr int kMisuse = 2;

int misuse(const std::string& what) {
    std::fprintf(stderr, "diagtap: %s\n%s", what.c_str(), kUsage);
    return kMisuse;
}

// A reader of standard output that is gone is no fault of the file.
void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

int endOf(const diagsim::Capture& capture) {
    std::fflush(stdout);
    if (capture.problem.empty()) return 0;
    std::fprintf(stderr, "diagtap: %s\n", capture.problem.c_str());
    return 1;
}

int show(const Arguments& arguments) {
    if (arguments.size() != 1) return misuse("show takes one file");
    const diagsim::Capture capture = diagsim::loadCapture(arguments[0]);
    for (const diagtap::ShownLine& line : diagtap::linesOf(capture))
        print(format(line) + '\n');
    return endOf(capture);
}

struct Format {
    const char* name;
    std::string (*write)(const diagtap::Report& report);
};
constexpr Format kFormats[] = {{"text", diagtap::toText},
                               {"json", diagtap::toJson},
                               {"junit", diagtap::toJunit},
                               {"html", diagtap::toHtml},
                               {"csv", diagtap::toCsv}};

const Format* formatNamed(const std::string& name) {
    for (const Format& format : kFormats) {
        if (name == format.name) return &format;
    }
    return nullptr;
}

int report(Arguments arguments) {
    std::string name = "text";
    for (auto word = arguments.begin(); word != arguments.end(); ++word) {
        if (*word != "--format" || word + 1 == arguments.end()) continue;
        name = *(word + 1);
        arguments.erase(word, word + 2);
        break;
    }
    const Format* const format = formatNamed(name);
    if (format == nullptr) return misuse("unknown format " + name);
    if (arguments.size() != 1) return misuse("report takes one file");
    const diagtap::Report found =
        diagtap::analyse(arguments[0], diagsim::loadCapture(arguments[0]), {});
    print(format->write(found));
    return endOf(found.capture);
}

// A file of its own for a capture that nobody wants to keep.
class CaptureFile {
  public:
    explicit CaptureFile(std::string path) : path_(std::move(path)), kept_(!path_.empty()) {
        // The program may change its folder before it opens the node.
        if (kept_) path_ = std::filesystem::absolute(path_).string();
        if (kept_) return;
        const char* const folder = std::getenv("TMPDIR");
        path_ = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp");
        path_ += "/diagtap-XXXXXX";
        const int file = mkostemp(path_.data(), O_CLOEXEC);
        if (file >= 0) close(file);
    }
    ~CaptureFile() {
        if (!kept_) unlink(path_.c_str());
    }
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
    const bool kept_;
};

int run(char** words) {
    std::string path;
    if (words[0] != nullptr && std::strcmp(words[0], "-o") == 0 && words[1] != nullptr) {
        path = words[1];
        words += 2;
    }
    if (words[0] != nullptr && std::strcmp(words[0], "--") == 0) ++words;
    if (words[0] == nullptr || words[0][0] == '-') return misuse("run takes a program behind --");
    // What an earlier run left there is none of this one's.
    if (!path.empty() && truncate(path.c_str(), 0) != 0 && errno == EISDIR)
        return misuse(path + " is a folder");
    const CaptureFile file(path);
    const int status = diagtap::runProgram(words, file.path());
    const diagtap::Report found = diagtap::analyse(
        path.empty() ? "capture" : path, diagsim::loadCapture(file.path()), diagtap::lookAround());
    if (found.sessions.empty()) {
        std::fprintf(stderr, "diagtap: %s made no call on the node, or no capture\n", words[0]);
        return status;
    }
    print(toText(found));
    endOf(found.capture);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "--help" || command == "-h") {
        print(kUsage);
        return 0;
    }
    if (command == "--version") {
        print("diagtap " TAVRIK_VERSION "\n");
        return 0;
    }
    if (command == "run") return run(argv + 2);
    const Arguments arguments(argv + (argc > 1 ? 2 : 1), argv + argc);
    if (command == "show") return show(arguments);
    if (command == "report") return report(arguments);
    return misuse(command.empty() ? "a command is missing" : "unknown command " + command);
}
