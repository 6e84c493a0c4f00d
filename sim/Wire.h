// What passes through the device node: data-type words, command codes, chunk buffers, HDLC framing.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "sim/Bytes.h"

namespace diagsim {

// First word of every buffer that is read or written.
enum DataType : uint32_t {
    kMessageMasksType = 1,
    kLogMasksType = 2,
    kPacketResponseType = 3,
    kEventMasksType = 4,       // when read
    kDelayedResponseType = 4,  // when written
    kDeinitType = 16,
    kUserSpaceType = 32,
    kCallbackType = 128,
};

// The log packet that the ADSP's power manager sends: equipment 1, item 0x645.
constexpr uint16_t kPowerLogCode = 0x1645;

// First byte of a packet.
enum CommandCode : uint8_t {
    kLogPacketCommand = 0x10,
    kErrorCommand = 0x13,
    kSubsystemCommand = 0x4B,
    kEventReportCommand = 0x60,
    kLogConfigCommand = 0x73,
    kMessageConfigCommand = 0x7D,
};

// CRC-16 of the frame check sequence: polynomial 0x1021 reflected, preset and inverted with 0xFFFF.
uint16_t checkSequence(const Bytes& payload);

// One HDLC frame: the payload and its check sequence (low byte first) with 0x7D and 0x7E escaped,
// then the flag 0x7E.
Bytes frame(const Bytes& payload);

// The payloads of the frames in `data`, unescaped, without check sequence and flag. A frame whose
// check sequence does not fit gives an empty payload; bytes after the last flag give none.
std::vector<Bytes> unframe(const Bytes& data);

// One chunk of a user-space data buffer.
struct Chunk {
    Bytes data;
    std::optional<uint32_t> token{};   // a word in front of the length, as remote processors have
    std::optional<uint32_t> length{};  // what the length word says instead of the truth
};

// A whole buffer of data type 32. `count` is what the count word says instead of the truth.
Bytes chunkBuffer(const std::vector<Chunk>& chunks, std::optional<uint32_t> count = std::nullopt);

}  // namespace diagsim
