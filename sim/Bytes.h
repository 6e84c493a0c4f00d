// Byte strings: little-endian fields, hexadecimal text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace diagsim {

using Bytes = std::vector<uint8_t>;

// Appends `more` to `to`.
void append(Bytes& to, const Bytes& more);

// Appends the low `size` bytes (1 to 8) of `value`, little-endian.
void appendWord(Bytes& to, uint64_t value, size_t size);

// The little-endian field of `size` bytes (1 to 8) at `offset`; 0 where it reaches past the end.
uint64_t wordAt(const Bytes& from, size_t offset, size_t size);

// Overwrites the little-endian field at `offset`; nothing where it reaches past the end.
void setWord(Bytes& in, size_t offset, uint64_t value, size_t size);

// Reads pairs of hexadecimal digits with blanks anywhere between them. False, with `out` unchanged,
// when the text holds anything else or an odd number of digits.
bool parseHex(const std::string& text, Bytes& out);

// "7D 05 00 [00 x 200] 20": runs of eight or more equal bytes are written once with their count.
std::string hexDump(const Bytes& bytes);

}  // namespace diagsim
