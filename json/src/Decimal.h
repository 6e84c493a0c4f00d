// Decimal numbers, and the source of characters that they and the JSON grammar are read from.
#pragma once

#include <cstdint>
#include <string>

namespace tavrik {

// A Source has peek(), the next character as 1 to 255, or 0 at the end; advance(), which takes it;
// back(), which undoes the last advance(); and takePlain(std::string&), which takes and appends
// what stands in front of the next quote, backslash or end.

// Reads a text up to its terminator, and at its end moves the caller's pointer along.
class TextSource {
  public:
    explicit TextSource(const char*& caller) : text(caller), position(caller) {}
    ~TextSource() { text = position; }
    TextSource(const TextSource&) = delete;
    TextSource& operator=(const TextSource&) = delete;

    const char* at() const { return position; }
    int peek() const { return static_cast<unsigned char>(*position); }
    void advance() { ++position; }
    void back() { --position; }
    void takePlain(std::string& out) {
        const char* end = position;
        while (*end != '"' && *end != '\\' && *end != '\0')
            ++end;
        out.append(position, end);
        position = end;
    }

  private:
    const char*& text;
    const char* position;
};

// Takes the next character if it is `wanted`.
template <typename Source>
bool accept(Source& source, char wanted) {
    if (source.peek() != static_cast<unsigned char>(wanted)) return false;
    source.advance();
    return true;
}

// A number as it was written: with a point `real` holds it, without one `integer`, modulo 2^64.
struct Decimal {
    bool hasPoint = false;
    long long integer = 0;
    double real = 0.0;
};

inline bool isDigit(int character) { return character >= '0' && character <= '9'; }

template <typename Source>
uint64_t readInteger(Source& source) {
    uint64_t value = 0;  // unsigned: wraps
    for (; isDigit(source.peek()); source.advance())
        value = value * 10 + static_cast<uint64_t>(source.peek() - '0');
    return value;
}

// Adds the digits behind a point to `integer`. Those that 10^k does not reach within 64 bits are
// read and change nothing.
template <typename Source>
double readFraction(Source& source, double integer) {
    constexpr int kReach = 18;
    double value = integer;
    int64_t power = 1;
    for (int place = 0; isDigit(source.peek()); source.advance()) {
        if (place == kReach) continue;
        ++place;
        power *= 10;
        value += static_cast<double>(source.peek() - '0') / static_cast<double>(power);
    }
    return value;
}

// Reads an optional minus, one digit or more, and an optional point with any number of digits. On
// failure `source` stands behind the minus.
template <typename Source>
bool readDecimal(Source& source, Decimal& out) {
    const bool negative = accept(source, '-');
    if (!isDigit(source.peek())) return false;
    const uint64_t integer = readInteger(source);
    out.hasPoint = accept(source, '.');
    if (!out.hasPoint) {
        out.integer = static_cast<long long>(negative ? 0 - integer : integer);
        return true;
    }
    const double magnitude =
        readFraction(source, static_cast<double>(static_cast<int64_t>(integer)));
    out.real = negative ? -magnitude : magnitude;
    return true;
}

}  // namespace tavrik
