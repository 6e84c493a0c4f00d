// Waits until the reader has processed everything that the simulated device delivered.
#pragma once

#include <condition_variable>
#include <mutex>

#include "fuzz/Session.h"

namespace fuzz {

// Listens for the log packets that await() sends. Register it for `kLogCode`.
class Marks : public tavrik::DIAG::LogListener {
  public:
    static constexpr uint16_t kLogCode = 0xB001;

    void onLog(const unsigned char* record) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (diagsim::wordAt(Bytes(record + 12, record + 20), 0, 8) != number) return;
        seen = true;
        changed.notify_all();
    }

    // Waits until the reader has processed everything delivered before this call.
    void await() {
        std::unique_lock<std::mutex> guard(mutex);
        // A large step: an input must not guess the next number.
        number = (number + 1) * 0x9E3779B97F4A7C15;
        seen = false;
        Bytes packet{16, 0, 20, 0, 20, 0, kLogCode & 0xFF, kLogCode >> 8, 0, 0, 0, 0, 0, 0, 0, 0};
        diagsim::appendWord(packet, number, 8);
        device().deliverFrame(packet);
        changed.wait(guard, [this] { return seen; });
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    uint64_t number = 1;
    bool seen = false;
};

}  // namespace fuzz
