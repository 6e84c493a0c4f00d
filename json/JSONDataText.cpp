#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

#include "json/JSONData.h"
#include "json/src/Writer.h"

namespace tavrik {

void JSONData::appendJsonString(std::string& out, bool pretty, int precision, int depth) const {
    StringSink sink(out);
    Writer<StringSink>(sink, pretty, precision, depth).write(*this);
    sink.flush();
}

void JSONData::toJsonString(std::string& out, bool pretty, int precision) const {
    out.clear();
    appendJsonString(out, pretty, precision, 0);
}

namespace {

// No double has more decimal places than this; the rest would be zeros, which are cut.
constexpr int kMostPlaces = 1074;

// Writes a number with so many places, rounded as printf does, by multiplying what is behind the
// point. Returns the end, or null for a number that this does not suit.
char* writeByMultiplying(char* out, double number, int places) {
    constexpr int kBits = 60;
    constexpr uint64_t kOne = uint64_t{1} << kBits;
    constexpr double kLeast = 1.0 / 256;      // its last bit is worth 1 of kOne
    constexpr double kBeyond = 4294967296.0;  // nine digits more stay within 64 bits
    const double magnitude = std::fabs(number);
    if (places > 9 || !(magnitude >= kLeast && magnitude < kBeyond)) return nullptr;
    uint64_t digits = static_cast<uint64_t>(magnitude), power = 1;
    const double fraction = magnitude - static_cast<double>(digits);
    uint64_t rest = static_cast<uint64_t>(fraction * static_cast<double>(kOne));
    for (int place = 0; place < places; ++place, power *= 10) {
        rest *= 10;
        digits = digits * 10 + (rest >> kBits);
        rest &= kOne - 1;
    }
    if (rest > kOne / 2 || (rest == kOne / 2 && digits % 2 != 0)) ++digits;
    if (std::signbit(number)) *out++ = '-';
    out = std::to_chars(out, out + 10, digits / power).ptr;
    if (places == 0) return out;
    *out++ = '.';
    digits %= power;
    for (int place = places; place-- > 0; digits /= 10)
        out[place] = static_cast<char>('0' + digits % 10);
    return out + places;
}

// Appends the number with so many places, of which it cuts trailing zeros.
void appendDouble(std::string& out, double number, int precision) {
    char digits[1 + 309 + 1 + kMostPlaces + 16];
    const int places = std::min(precision, kMostPlaces), wanted = places < 0 ? 6 : places;
    const char* end = writeByMultiplying(digits, number, wanted);
    if (end == nullptr)
        end =
            std::to_chars(digits, digits + sizeof digits, number, std::chars_format::fixed, wanted)
                .ptr;
    std::string_view text(digits, static_cast<size_t>(end - digits));
    if (static_cast<int>(text.size()) > places + 1) {
        while (text.size() > 1 && text.back() == '0')
            text.remove_suffix(1);
        if (text.back() == '.') text.remove_suffix(1);
    }
    out += text;
}

void appendInteger(std::string& out, long long number) {
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    out.append(digits, static_cast<size_t>(end - digits));
}

}  // namespace

void JSONData::appendStringValue(std::string& out, int precision) const {
    switch (type) {
        case kNull:
            out += "null";
            return;
        case kBoolean:
            out += value.boolean != 0 ? "true" : "false";
            return;
        case kLong:
            return appendInteger(out, value.integer);
        case kDouble:
            return appendDouble(out, value.real, precision);
        default:
            return;
    }
}

void JSONData::quoteJsonString(const std::string& in, std::string& out) {
    if (&in == &out) return quoteJsonString(std::string(in), out);
    StringSink sink(out);
    writeQuoted(in, sink);
    sink.flush();
}

}  // namespace tavrik
