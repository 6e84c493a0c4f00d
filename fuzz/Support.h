// What the fuzz targets share. Each target is one function that is called with one input after the
// other in one process: it leaves nothing behind that the next input could see.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "log/LogAdapter.h"
#include "log/Logger.h"

// Called by libFuzzer, or by Replay.cpp. Always returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

using Bytes = std::vector<uint8_t>;

// A finding that no sanitizer sees. In every build type.
inline void mustHold(bool condition, const char* what) {
    if (condition) return;
    // Of several threads the first one: a second abort would cut the fuzzer's report short.
    static std::atomic_flag found = ATOMIC_FLAG_INIT;
    while (found.test_and_set())
        pause();
    fprintf(stderr, "fuzz: does not hold: %s\n", what);
    abort();
}

// A copy that ends where the data ends, so that the address sanitizer sees a step beyond.
inline std::unique_ptr<unsigned char[]> exactCopy(const unsigned char* data, size_t size) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
    std::copy(data, data + size, copy.get());
    return copy;
}

// Takes an input apart. Behind its end everything reads as 0 or empty, so that each input is a
// program of some kind.
class Feed {
  public:
    Feed(const uint8_t* data, size_t size) : at(data), end(data + size) {}

    bool empty() const { return at == end; }
    uint8_t byte() { return empty() ? uint8_t{0} : *at++; }
    uint16_t word() {
        const unsigned low = byte();
        return static_cast<uint16_t>(low | static_cast<unsigned>(byte()) << 8);
    }
    // `count` bytes, or what is left.
    Bytes bytes(size_t count) {
        const uint8_t* const begin = at;
        at += std::min(count, static_cast<size_t>(end - at));
        return Bytes(begin, at);
    }
    // A length of one byte, and so many bytes.
    Bytes block() {
        const size_t count = byte();
        return bytes(count);
    }
    std::string text() {
        const Bytes letters = block();
        return std::string(letters.begin(), letters.end());
    }

  private:
    const uint8_t* at;
    const uint8_t* const end;
};

// Takes the log lines of the product, which would flood the output.
class SilentLogs : public tavrik::LogAdapter {
  public:
    // Installs the one adapter of the process.
    static SilentLogs& install() {
        static SilentLogs* const adapter = new SilentLogs;
        tavrik::Logger::setLogAdapter(adapter);
        return *adapter;
    }
    int log(const tavrik::LogLevel&, const std::string&, const char*, bool) override { return 0; }
    int log(const tavrik::LogLevel&, const std::string&, const std::string&, bool) override {
        return 0;
    }
    int flush() override { return 0; }
};

}  // namespace fuzz
