#include "json/JSONData.h"

#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "json/src/Parser.h"
#include "json/src/Writer.h"

namespace tavrik {

void JSONData::release() {
    if (refCount > 1) {
        --refCount;
        return;
    }
    delete this;
}

void JSONData::setType(int newType) {
    if (type == newType) return;
    reset();
    type = static_cast<uint16_t>(newType);
    switch (type) {
        case kObject:
            value.members = new std::vector<entry*>;
            break;
        case kArray:
            value.elements = new std::vector<JSONData*>;
            break;
        case kString:
            value.text = new std::string;
            break;
        default:
            break;
    }
}

void JSONData::setBoolean(bool newValue) {
    setType(kBoolean);
    value.boolean = newValue ? 1 : 0;
}

void JSONData::setLong(long long newValue) {
    setType(kLong);
    value.integer = newValue;
}

void JSONData::setDouble(long double newValue) {
    setType(kDouble);
    value.real = static_cast<double>(newValue);
}

void JSONData::setString(const std::string& newValue) {
    std::string copy(newValue);  // setType() may free the original
    setType(kString);
    value.text->swap(copy);
}

void JSONData::setString(const char* newValue) {
    setString(std::string(newValue != nullptr ? newValue : ""));
}

void JSONData::reset() {
    std::vector<JSONData*> children;
    moveChildrenTo(children);
    switch (type) {
        case kObject:
            delete value.members;
            break;
        case kArray:
            delete value.elements;
            break;
        case kString:
            delete value.text;
            break;
        default:
            break;
    }
    type = kNone;
    value.integer = 0;
    releaseAll(children);
}

void JSONData::clear() {
    std::vector<JSONData*> children;
    moveChildrenTo(children);
    releaseAll(children);
}

void JSONData::moveChildrenTo(std::vector<JSONData*>& children) {
    if (type == kArray) {
        children.insert(children.end(), value.elements->begin(), value.elements->end());
        value.elements->clear();
    } else if (type == kObject) {
        for (const entry* const member : *value.members) {
            children.push_back(member->value);
            delete member;
        }
        value.members->clear();
    }
}

void JSONData::releaseAll(std::vector<JSONData*>& children) {
    while (!children.empty()) {
        JSONData* const child = children.back();
        children.pop_back();
        if (child->refCount <= 1) child->moveChildrenTo(children);
        child->release();
    }
}

int JSONData::length() const {
    if (type == kArray) return static_cast<int>(value.elements->size());
    if (type == kObject) return static_cast<int>(value.members->size());
    return 0;
}

JSONData* JSONData::getByIndex(int i) const {
    if (!has(i)) return nullptr;
    const size_t index = static_cast<size_t>(i);
    return type == kArray ? (*value.elements)[index] : (*value.members)[index]->value;
}

int JSONData::find(const std::string& key) const {
    if (type != kObject) return -1;
    int i = length() - 1;
    while (i >= 0 && (*value.members)[static_cast<size_t>(i)]->key != key)
        --i;
    return i;
}

JSONData* JSONData::getByKey(const std::string& key) const { return getByIndex(find(key)); }

JSONData* JSONData::getByKey(const char* key) const {
    return key != nullptr ? getByKey(std::string(key)) : nullptr;
}

const std::string* JSONData::getKeyAtIndex(int i) const {
    if (type != kObject || !has(i)) return nullptr;
    return &(*value.members)[static_cast<size_t>(i)]->key;
}

bool JSONData::booleanValue() const {
    unsigned char first;
    std::memcpy(&first, &value, 1);
    return first != 0;
}

long long JSONData::longValue() const {
    using Limits = std::numeric_limits<long long>;
    if (type == kLong) return value.integer;
    if (type == kBoolean) return value.boolean;
    if (type != kDouble || std::isnan(value.real)) return 0;
    constexpr double kBeyond = 9223372036854775808.0;
    if (value.real >= kBeyond) return Limits::max();
    if (value.real < -kBeyond) return Limits::min();
    return static_cast<long long>(value.real);
}

long double JSONData::doubleValue() const {
    return type == kDouble ? static_cast<long double>(value.real)
                           : static_cast<long double>(longValue());
}

const std::string* JSONData::stringValue() const { return type == kString ? value.text : nullptr; }

void JSONData::setByKey(const std::string& key_, JSONData* newValue) {
    const std::string key(key_);  // setType() and erase() may free the original
    if (newValue != nullptr) newValue->reserve();
    setType(kObject);
    const int i = find(key);
    if (newValue == nullptr) {
        erase(i);
    } else if (i < 0) {
        adopt(key, newValue);
    } else {
        std::swap((*value.members)[static_cast<size_t>(i)]->value, newValue);
        newValue->release();
    }
}

void JSONData::setByKey(const char* key, JSONData* newValue) {
    if (key != nullptr) setByKey(std::string(key), newValue);
}

void JSONData::setByIndex(int i, JSONData* newValue) {
    if (newValue == nullptr) {
        if (type == kArray) erase(i);
        return;
    }
    newValue->reserve();
    setType(kArray);
    if (i == length()) {
        adopt(newValue);
        return;
    }
    if (has(i)) {
        std::swap((*value.elements)[static_cast<size_t>(i)], newValue);
    } else {
        fprintf(stderr, "JSONData::%s: %s\n", "setByIndex()", "index out of range");
    }
    newValue->release();
}

void JSONData::adopt(const std::string& key, JSONData* child) {
    value.members->push_back(new entry{key, child});
}

void JSONData::erase(int i) {
    JSONData* const child = getByIndex(i);
    if (child == nullptr) return;
    if (type == kArray) {
        value.elements->erase(value.elements->begin() + i);
    } else {
        delete (*value.members)[static_cast<size_t>(i)];
        value.members->erase(value.members->begin() + i);
    }
    child->release();
}

void JSONData::erase(const std::string& key) { erase(find(key)); }

void JSONData::erase(const char* key) {
    if (key != nullptr) erase(std::string(key));
}

JSONData* JSONData::clone() const {
    JSONData* const top = new JSONData;
    top->refCount = 0;
    std::vector<std::pair<const JSONData*, JSONData*>> pending{{this, top}};
    while (!pending.empty()) {
        const auto [from, to] = pending.back();
        pending.pop_back();
        to->copyShallow(*from);
        for (int i = 0; i < to->length(); ++i)
            pending.emplace_back(from->getByIndex(i), to->getByIndex(i));
    }
    return top;
}

void JSONData::copyShallow(const JSONData& other) {
    setType(other.type);
    switch (type) {
        case kObject:
            for (const entry* const member : *other.value.members)
                adopt(member->key, new JSONData);
            break;
        case kArray:
            for (int i = 0; i < other.length(); ++i)
                adopt(new JSONData);
            break;
        case kString:
            *value.text = *other.value.text;
            break;
        default:
            value = other.value;
            break;
    }
}

void JSONData::copy(const JSONData& other) {
    // First the clone: what this node gives up may hold `other`.
    JSONData* const fresh = other.clone();
    swap(*fresh);
    fresh->release();
}

void JSONData::swap(JSONData& other) {
    std::swap(type, other.type);
    std::swap(value, other.value);
}

bool JSONData::setFromJsonString(const char*& text) {
    if (text == nullptr) return false;
    TextSource source(text);
    return Parser<TextSource>(source, "setFromJsonString()").parse(*this);
}

bool JSONData::setFromJsonStlString(const std::string& text) {
    const char* begin = text.c_str();
    return setFromJsonString(begin);
}

void JSONData::appendJsonString(std::string& out, bool pretty, int precision, int depth) const {
    struct Sink {
        std::string& text;
        void put(char character) { text += character; }
        void write(const char* data, size_t size) { text.append(data, size); }
    };
    Sink sink{out};
    Writer<Sink>(sink, pretty, precision, depth).write(*this);
}

void JSONData::toJsonString(std::string& out, bool pretty, int precision) const {
    out.clear();
    appendJsonString(out, pretty, precision, 0);
}

namespace {

// Puts a point where the process's locale has put its own mark, which may be several bytes.
void usePoint(std::string& number) {
    const size_t mark = number.find_first_not_of("-0123456789");
    if (mark == std::string::npos || isalpha(static_cast<unsigned char>(number[mark]))) return;
    const size_t digits = number.find_first_of("0123456789", mark);
    number.replace(mark, digits - mark, ".");
}

// No double has more decimal places than this; the rest would be zeros, which are cut.
constexpr int kMostPlaces = 1074;

std::string formatDouble(double value, int precision) {
    char digits[1 + 309 + 1 + kMostPlaces + 16];
    snprintf(digits, sizeof digits, "%.*Lf", precision, static_cast<long double>(value));
    std::string text(digits);
    usePoint(text);
    return text;
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
            out += std::to_string(value.integer);
            return;
        case kDouble:
            break;
        default:
            return;
    }
    const int places = std::min(precision, kMostPlaces);
    std::string text = formatDouble(value.real, places);
    if (static_cast<int>(text.size()) > places + 1) {
        while (text.size() > 1 && text.back() == '0')
            text.pop_back();
        if (text.back() == '.') text.pop_back();
    }
    out += text;
}

void JSONData::quoteJsonString(const std::string& in_, std::string& out) {
    const std::string in(in_);  // may be `out`
    out += '"';
    for (const char character : in) {
        switch (character) {
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                out += character;
                break;
        }
    }
    out += '"';
}

}  // namespace tavrik
