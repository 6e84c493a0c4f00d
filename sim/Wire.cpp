#include "sim/Wire.h"

namespace diagsim {
namespace {

constexpr uint8_t kFlag = 0x7E;
constexpr uint8_t kEscape = 0x7D;
constexpr uint8_t kEscapeMask = 0x20;
constexpr size_t kCheckSize = 2;

// What a byte does to the check sequence.
struct CheckTable {
    CheckTable() {
        for (unsigned byte = 0; byte < 256; ++byte) {
            unsigned crc = byte;
            for (int bit = 0; bit < 8; ++bit)
                crc = (crc & 1) != 0 ? crc >> 1 ^ 0x8408 : crc >> 1;
            steps[byte] = static_cast<uint16_t>(crc);
        }
    }
    uint16_t steps[256];
};

Bytes checkedPayload(Bytes raw) {
    if (raw.size() < kCheckSize) return {};
    const uint64_t check = wordAt(raw, raw.size() - kCheckSize, kCheckSize);
    raw.resize(raw.size() - kCheckSize);
    return check == checkSequence(raw) ? raw : Bytes{};
}

}  // namespace

uint16_t checkSequence(const Bytes& payload) {
    static const CheckTable table;
    uint16_t crc = 0xFFFF;
    for (uint8_t byte : payload)
        crc = static_cast<uint16_t>(crc >> 8 ^ table.steps[(crc ^ byte) & 0xFF]);
    return static_cast<uint16_t>(~crc);
}

Bytes frame(const Bytes& payload) {
    Bytes plain = payload;
    appendWord(plain, checkSequence(payload), kCheckSize);
    Bytes framed;
    framed.reserve(plain.size() + 8);
    for (uint8_t byte : plain) {
        const bool escape = byte == kFlag || byte == kEscape;
        if (escape) framed.push_back(kEscape);
        framed.push_back(escape ? static_cast<uint8_t>(byte ^ kEscapeMask) : byte);
    }
    framed.push_back(kFlag);
    return framed;
}

std::vector<Bytes> unframe(const Bytes& data) {
    std::vector<Bytes> payloads;
    Bytes raw;
    bool escaped = false;
    for (uint8_t byte : data) {
        if (!escaped && byte == kFlag) {
            payloads.push_back(checkedPayload(std::move(raw)));
            raw = Bytes{};
            continue;
        }
        if (!escaped && byte == kEscape) {
            escaped = true;
            continue;
        }
        raw.push_back(escaped ? static_cast<uint8_t>(byte ^ kEscapeMask) : byte);
        escaped = false;
    }
    return payloads;
}

Bytes chunkBuffer(const std::vector<Chunk>& chunks, std::optional<uint32_t> count) {
    Bytes buffer;
    appendWord(buffer, kUserSpaceType, 4);
    appendWord(buffer, count.value_or(static_cast<uint32_t>(chunks.size())), 4);
    for (const Chunk& chunk : chunks) {
        if (chunk.token) appendWord(buffer, *chunk.token, 4);
        appendWord(buffer, chunk.length.value_or(static_cast<uint32_t>(chunk.data.size())), 4);
        append(buffer, chunk.data);
    }
    return buffer;
}

}  // namespace diagsim
