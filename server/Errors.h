#pragma once

#include <string>

namespace tavrik {

// The error codes for clients of the server: 0 to 13, each with a token for programs and a text for
// people. Constant: any thread, any time.
class Errors {
  public:
    // The code that the framework posts.
    static constexpr int kLimitReached = 11;

    // Return the code's token or text: "NOMEM" and "Out of memory." for 6. Empty for an unknown
    // code.
    static std::string toToken(unsigned int code);
    static std::string toAscii(unsigned int code);

    // Returns the code of the token, which is case-sensitive; 0 if there is none.
    static int toInt(std::string token);
};

}  // namespace tavrik
