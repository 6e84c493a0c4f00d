// Helpers of all fuzz targets. A target is a function that one process calls with one input after
// the other, so it must leave no state behind that affects the next input.
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

// Aborts with a finding if the condition is false, in every build type. `what` states the
// condition.
inline void mustHold(bool condition, const char* what) {
    if (condition) return;
    // Only the first thread aborts: a second abort would cut the fuzzer's report short.
    static std::atomic_flag found = ATOMIC_FLAG_INIT;
    while (found.test_and_set())
        pause();
    fprintf(stderr, "fuzz: does not hold: %s\n", what);
    abort();
}

// A copy without spare capacity: the address sanitizer sees an access beyond its end.
inline std::unique_ptr<unsigned char[]> exactCopy(const unsigned char* data, size_t size) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
    std::copy(data, data + size, copy.get());
    return copy;
}

// Parses an input. Beyond its end, values are 0 and blocks are empty, so every input is valid.
class Feed {
  public:
    Feed(const uint8_t* data, size_t size) : at(data), end(data + size) {}

    bool empty() const { return at == end; }
    uint8_t byte() { return empty() ? uint8_t{0} : *at++; }
    uint16_t word() {
        const unsigned low = byte();
        return static_cast<uint16_t>(low | static_cast<unsigned>(byte()) << 8);
    }
    // The next `count` bytes, or all that are left.
    Bytes bytes(size_t count) {
        const uint8_t* const begin = at;
        at += std::min(count, static_cast<size_t>(end - at));
        return Bytes(begin, at);
    }
    // A length byte and that many bytes.
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

// Discards the product's log lines, which would flood the output.
class SilentLogs : public tavrik::LogAdapter {
  public:
    // Installs the process's one adapter.
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
