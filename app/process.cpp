// Prepares the process before main: neither the caller of the checker nor the reader of its output
// may change its exit status.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <tavrik/version.h>

namespace {

// For `strings`: tells the version of a program found on a device.
[[gnu::used, gnu::retain]] const char version[] = "adsppm-check " TAVRIK_VERSION;

// Holds the log lines until the process ends. A pipe or a terminal that nobody reads would
// otherwise block the thread that receives the answers.
char outputBuffer[1 << 20];

// Otherwise the next file to be opened would become a standard stream and get what is printed.
void openClosedStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDWR);
    }
}

// Turns a missing reader, and a limit on the size of files, into an error of the write.
void survivePrinting() {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

[[gnu::constructor]] void prepareProcess() {
    openClosedStreams();
    survivePrinting();
    setvbuf(stdout, outputBuffer, _IOFBF, sizeof outputBuffer);
}

}  // namespace
