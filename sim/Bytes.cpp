#include "sim/Bytes.h"

#include <cctype>

namespace diagsim {
namespace {

constexpr size_t kShortestRun = 8;

size_t runLength(const Bytes& bytes, size_t from) {
    size_t end = from + 1;
    while (end < bytes.size() && bytes[end] == bytes[from])
        ++end;
    return end - from;
}

int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (!std::isxdigit(static_cast<unsigned char>(c))) return -1;
    return std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
}

}  // namespace

void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

void appendWord(Bytes& to, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i)
        to.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

uint64_t wordAt(const Bytes& from, size_t offset, size_t size) {
    if (offset > from.size() || from.size() - offset < size) return 0;
    uint64_t value = 0;
    for (size_t i = size; i > 0; --i)
        value = value << 8 | from[offset + i - 1];
    return value;
}

void setWord(Bytes& in, size_t offset, uint64_t value, size_t size) {
    if (offset > in.size() || in.size() - offset < size) return;
    for (size_t i = 0; i < size; ++i)
        in[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

bool parseHex(const std::string& text, Bytes& out) {
    Bytes result;
    int high = -1;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c))) continue;
        const int digit = digitValue(c);
        if (digit < 0) return false;
        if (high >= 0) result.push_back(static_cast<uint8_t>(high << 4 | digit));
        high = high >= 0 ? -1 : digit;
    }
    if (high >= 0) return false;
    out = std::move(result);
    return true;
}

std::string hexDump(const Bytes& bytes) {
    static const char* const digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(3 * bytes.size());
    for (size_t i = 0; i < bytes.size();) {
        const size_t run = runLength(bytes, i);
        const bool shorten = run >= kShortestRun;
        if (!text.empty()) text += ' ';
        if (shorten) text += '[';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
        if (shorten) text += " x " + std::to_string(run) + ']';
        i += shorten ? run : 1;
    }
    return text;
}

}  // namespace diagsim
