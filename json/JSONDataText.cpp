#include <algorithm>
#include <charconv>
#include <string_view>

#include "json/JSONData.h"
#include "json/src/Writer.h"

namespace tavrik {

void JSONData::appendJsonString(std::string& out, bool pretty, int precision, int depth) const {
    StringSink sink{out};
    Writer<StringSink>(sink, pretty, precision, depth).write(*this);
}

void JSONData::toJsonString(std::string& out, bool pretty, int precision) const {
    out.clear();
    appendJsonString(out, pretty, precision, 0);
}

namespace {

// No double has more decimal places than this; the rest would be zeros, which are cut.
constexpr int kMostPlaces = 1074;

// Appends the number with so many places, of which it cuts trailing zeros.
void appendDouble(std::string& out, double number, int precision) {
    char digits[1 + 309 + 1 + kMostPlaces + 16];
    const int places = std::min(precision, kMostPlaces);
    const char* const end = std::to_chars(digits, digits + sizeof digits, number,
                                          std::chars_format::fixed, places < 0 ? 6 : places)
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
    out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
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
    StringSink sink{out};
    writeQuoted(in, sink);
}

}  // namespace tavrik
