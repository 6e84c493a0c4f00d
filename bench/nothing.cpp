// The least that a C++ program does: starts, sleeps as many milliseconds as it is told to, ends.
#include <cstdlib>
#include <string>

#include <time.h>

int main(int argc, char** argv) {
    const std::string milliseconds(argc > 1 ? argv[1] : "0");
    const timespec pause{0, atol(milliseconds.c_str()) * 1000000L};
    if (pause.tv_nsec != 0) nanosleep(&pause, nullptr);
    return 0;
}
