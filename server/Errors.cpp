#include "server/Errors.h"

namespace tavrik {

namespace {

struct Row {
    const char* token;
    const char* text;
};

constexpr Row kRows[] = {
    {"NONE", "No error"},
    {"UNKNOWN", "Unknown error"},
    {"NOSESSION", "No session."},
    {"CANTCREATESESSION", "Can't create session."},
    {"BADARGS", "Invalid arguments."},
    {"NOTFOUND", "Not found."},
    {"NOMEM", "Out of memory."},
    {"NOOPEN", "Open failed."},
    {"NOCREATE", "Create failed."},
    {"BADSETUP", "Invalid setup."},
    {"NOTIMPLEMENTED", "Feature not implemented."},
    {"LIMITREACHED", "Limit reached."},
    {"FWUPDATEREQUIRED", "Firmware needs to be updated."},
    {"FWUPDATEFAILED", "Firmware updating failed"},
};
constexpr unsigned int kCount = sizeof kRows / sizeof kRows[0];

}  // namespace

std::string Errors::toToken(unsigned int code) { return code < kCount ? kRows[code].token : ""; }

std::string Errors::toAscii(unsigned int code) { return code < kCount ? kRows[code].text : ""; }

// The copy is part of the interface.
int Errors::toInt(std::string token) {  // NOLINT(performance-unnecessary-value-param)
    for (unsigned int code = 0; code < kCount; ++code) {
        if (token == kRows[code].token) return static_cast<int>(code);
    }
    return 0;
}

}  // namespace tavrik
