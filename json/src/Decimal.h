// Decimal numbers, and the source of characters that they and the JSON grammar are read from.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tavrik {

// A Source has peek(), the next character as 1 to 255, or 0 at the end; advance(), which takes it;
// back(), which undoes the last advance(); and takePlain(std::string&), which takes and appends
// what stands in front of the next quote, backslash or end.

// The characters that end a run of plain ones.
constexpr std::array<bool, 256> makeEnds() {
    std::array<bool, 256> ends{};
    ends['\0'] = ends['"'] = ends['\\'] = true;
    return ends;
}

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
        static constexpr std::array<bool, 256> kEnds = makeEnds();
        const char* end = position;
        while (!kEnds[static_cast<unsigned char>(*end)])
            ++end;
        out.append(position, static_cast<size_t>(end - position));
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

// What a digit adds at a place behind the point, up to the last 10^k that 64 bits hold.
using Places = std::array<std::array<double, 10>, 18>;
constexpr Places makePlaces() {
    Places places{};
    int64_t power = 1;
    for (auto& place : places) {
        power *= 10;
        for (size_t digit = 0; digit < place.size(); ++digit)
            place[digit] = static_cast<double>(digit) / static_cast<double>(power);
    }
    return places;
}

// Adds the digits behind a point to `integer`. Those beyond the last place are read and change
// nothing.
template <typename Source>
double readFraction(Source& source, double integer) {
    static constexpr Places kPlaces = makePlaces();
    double value = integer;
    for (size_t place = 0; isDigit(source.peek()); source.advance()) {
        if (place < kPlaces.size())
            value += kPlaces[place++][static_cast<size_t>(source.peek() - '0')];
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
