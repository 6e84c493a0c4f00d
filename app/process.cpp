// Prepares the process before main: nobody who started the checker, or reads what it prints, may
// change its exit status.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <tavrik/version.h>

namespace {

// For `strings`, and for who finds the program on a device.
[[gnu::used]] const char version[] = "adsppm-check " TAVRIK_VERSION;

// Room for the log lines of a run. They leave it when the process ends: a pipe or a terminal that
// nobody reads from would otherwise hold up the thread that receives the answers.
char outputBuffer[1 << 20];

// Without this the next file to be opened would become a standard stream. It would get what is
// printed there.
void openClosedStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDWR);
    }
}

// A reader that has gone, or a limit on the size of files, then is an error of the write only.
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
