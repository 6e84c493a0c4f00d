// What the ADSP says: the answers to requests, and log packets.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "sim/Bytes.h"
#include "sim/model/Request.h"

namespace diagsim {

// One frame's payload, decoded from its bytes alone. `kind` is that of the request: of the two that
// share an answer's form, start and stop or mask and mask clear, the first where nothing tells them
// apart.
struct Response {
    enum class Verdict { kAccepted, kRefused, kShort };

    RequestKind kind = RequestKind::kUnknown;  // unknown: no answer to any request
    Verdict verdict = Verdict::kShort;
};
Response decodeResponse(const Bytes& payload);

const char* verdictName(Response::Verdict verdict);

// The log packet that the ADSP's power manager sends, as far as its bytes go.
struct LogRecord {
    static constexpr size_t kSlots = 4;
    static constexpr size_t kTotals = 5;

    std::optional<uint16_t> code{};
    std::optional<uint64_t> time{};  // as the ADSP counts it, see adspMicroseconds()
    std::optional<uint8_t> version{};
    std::array<std::optional<uint32_t>, kSlots> slots{};
    std::optional<uint32_t> busHz{};
    std::optional<uint32_t> clockKhz{};
    std::array<std::optional<uint64_t>, kTotals> totals{};
};

bool isLogPacket(const Bytes& payload);
// Wants a log packet. Fields behind the code are those of the power manager's record.
LogRecord decodeLogPacket(const Bytes& payload);

// Microseconds since 6 January 1980 of an ADSP's time stamp.
uint64_t adspMicroseconds(uint64_t stamp);

}  // namespace diagsim
