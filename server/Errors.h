#pragma once

#include <string>

namespace tavrik {

// The error codes that are shown to clients of the server: 0 to 13, each with a token for programs
// and a text for people. Constant, so any thread may ask at any time.
class Errors {
  public:
    // The code that the framework itself posts.
    static constexpr int kLimitReached = 11;

    // The code's token or text, "NOMEM" and "Out of memory." for 6; empty for a code that is none.
    static std::string toToken(unsigned int code);
    static std::string toAscii(unsigned int code);

    // The code whose token is exactly `token`, upper case included; 0 when there is none.
    static int toInt(std::string token);
};

}  // namespace tavrik
