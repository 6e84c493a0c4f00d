// A program that embeds the library and has macros, headers and symbols with the library's names.
#define DEBUG 1
#define ERROR 2
#define TRACE 3
#define NONE 4
#define REQUIRES(x) own_macro
#define RELEASE() own_macro
#define GUARDED_BY(x) own_macro

#include <cstdio>

#include "every_header.h"
#include "log/Logger.h"

int ownNames();

int main() {
    struct : tavrik::ADSPPM::Listener {
        void onADSPPMInput(int, double, long double) override {}
    } listener;
    std::string refusal;
    tavrik::ADSPPM& adsppm = *tavrik::ADSPPM::instance();
    adsppm.registerListener(&listener, -2, "core clock", 100, refusal);
    const bool good = adsppm.startMetricCollection() && adsppm.stopMetricCollection();
    std::printf("%s %s %d %d\n", TAVRIK_VERSION, good ? "good" : "bad", ownNames(),
                OwnLogger::kMark);
    return good ? 0 : 1;
}
