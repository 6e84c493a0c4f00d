#include "sim/model/ScenarioSection.h"

#include <algorithm>
#include <set>

#include "sim/model/ErrnoName.h"
#include "sim/model/Request.h"

namespace diagsim {
namespace {

using tavrik::JSOM;

constexpr size_t kLongestQuote = 60;

std::string join(const std::vector<std::string>& words) {
    std::string list;
    for (const std::string& word : words)
        list += (list.empty() ? "" : ", ") + word;
    return list;
}

// As it stood in the file, on one line.
std::string shorten(const std::string& quote) {
    return quote.size() <= kLongestQuote ? quote : quote.substr(0, kLongestQuote) + "...";
}

std::string quoted(const std::string& key) {
    std::string quote;
    tavrik::JSONData::quoteJsonString(key, quote);
    return shorten(quote);
}

}  // namespace

ScenarioSection::ScenarioSection(const JSOM& value, std::string where, const std::string& file)
    : value_(value), where_(std::move(where)), file_(file) {
    if (!value.isObject()) fail("in " + where_ + ": expected an object");
    refuseDuplicates();
}

// The JSON layer keeps all members of a key, of which the last one would count.
void ScenarioSection::refuseDuplicates() const {
    std::set<std::string> keys;
    for (int i = 0; i < value_.size(); ++i) {
        const std::string key = value_.key(i);
        if (!keys.insert(key).second) fail("duplicate key " + quoted(key) + " in " + where_);
    }
}

void ScenarioSection::finish() const {
    for (int i = 0; i < value_.size(); ++i) {
        const std::string key = value_.key(i);
        if (std::find(known_.begin(), known_.end(), key) != known_.end()) continue;
        fail("unknown key " + quoted(key) + " in " + where_ + " (known: " + join(known_) + ")");
    }
}

// --- one key ---

void ScenarioSection::flag(const char* key, bool& out, const char*) {
    const JSOM found = take(key);
    if (!found.hasNode()) return;
    if (!found.isBoolean()) fail(place(key) + ": expected true or false");
    out = found.booleanValue(false);
}

void ScenarioSection::hex(const char* key, Bytes& out, const char*) {
    const JSOM found = take(key);
    if (found.hasNode()) out = toBytes(found, place(key));
}

void ScenarioSection::hex(const char* key, std::optional<Bytes>& out, const char*) {
    const JSOM found = take(key);
    if (found.hasNode()) out = toBytes(found, place(key));
}

void ScenarioSection::text(const char* key, std::string& out, const char*) {
    const JSOM found = take(key);
    if (!found.hasNode()) return;
    if (!found.isString()) fail(place(key) + ": expected a text");
    out = found.stringValue();
}

void ScenarioSection::hexes(const char* key, std::vector<Bytes>& out, const char*) {
    eachElement(take(key), place(key), [&](const JSOM& element, const std::string& at) {
        out.push_back(toBytes(element, at));
    });
}

void ScenarioSection::numbers(const char* key, std::vector<int>& out, Limits limits, const char*) {
    eachElement(take(key), place(key), [&](const JSOM& element, const std::string& at) {
        out.push_back(static_cast<int>(toNumber(element, at, limits)));
    });
}

void ScenarioSection::errorNumber(const char* key, int& out, const char*) {
    const JSOM found = take(key);
    if (!found.hasNode()) return;
    if (!found.isString()) {
        out = static_cast<int>(toNumber(found, place(key), {1, 4095}));
        return;
    }
    out = errnoNumber(found.stringValue());
    if (out == 0) unknownWord(key, found, errnoNames());
}

void ScenarioSection::faults(const char* key, std::map<std::string, std::vector<Fault>>& out) {
    section(key, [&](ScenarioSection& inner) {
        for (const std::string& name : requestKeys()) {
            const JSOM found = inner.take(name.c_str());
            if (found.hasNode()) out[name] = inner.readFaults(found, inner.place(name));
        }
    });
}

std::optional<int64_t> ScenarioSection::readNumber(const char* key, Limits limits) {
    const JSOM found = take(key);
    if (!found.hasNode()) return std::nullopt;
    return toNumber(found, place(key), limits);
}

std::optional<size_t> ScenarioSection::readChoice(const char* key,
                                                  const std::vector<std::string>& words) {
    const JSOM found = take(key);
    if (!found.hasNode()) return std::nullopt;
    const auto word =
        found.isString() ? std::find(words.begin(), words.end(), found.stringValue()) : words.end();
    if (word == words.end()) unknownWord(key, found, join(words));
    return static_cast<size_t>(word - words.begin());
}

std::vector<Fault> ScenarioSection::readFaults(const JSOM& value, const std::string& where) const {
    if (!value.isArray()) return {readFault(value, where)};
    std::vector<Fault> faults;
    eachElement(value, where, [&](const JSOM& element, const std::string& at) {
        faults.push_back(readFault(element, at));
    });
    return faults;
}

Fault ScenarioSection::readFault(const JSOM& value, const std::string& where) const {
    Fault fault;
    ScenarioSection section(value, where, file_);
    visitFault(section, fault);
    section.finish();
    if (fault.writeErrno != 0 && fault.writeResult.value_or(0) >= 0) {
        fail("in " + where + ": write_errno needs a negative write_result");
    }
    if (fault.writeTaken && !fault.writeResult) {
        fail("in " + where + ": write_taken needs a write_result");
    }
    if (fault.splitAt && fault.split == Fault::Split::kNone) {
        fail("in " + where + ": split_at needs split");
    }
    return fault;
}

// --- values ---

JSOM ScenarioSection::take(const char* key) {
    known_.push_back(key);
    return value_[key];
}

int64_t ScenarioSection::toNumber(const JSOM& value, const std::string& at, Limits limits) const {
    const int64_t number = value.longValue(0);
    const bool whole = value.isNumber() && value.doubleValue(0) == static_cast<long double>(number);
    if (!whole || number < limits.min || number > limits.max) {
        fail(at + ": expected a whole number from " + std::to_string(limits.min) + " to " +
             std::to_string(limits.max));
    }
    return number;
}

Bytes ScenarioSection::toBytes(const JSOM& value, const std::string& at) const {
    Bytes bytes;
    if (!value.isString() || !parseHex(value.stringValue(), bytes)) {
        fail(at + ": expected a text of hexadecimal digit pairs");
    }
    return bytes;
}

template <typename Read>
void ScenarioSection::eachElement(const JSOM& list, const std::string& where, Read read) const {
    if (!list.hasNode()) return;
    if (!list.isArray()) fail(where + ": expected a list");
    for (int i = 0; i < list.size(); ++i)
        read(list[i], where + '[' + std::to_string(i) + ']');
}

std::string ScenarioSection::place(const std::string& key) const {
    return where_ == kTop ? key : where_ + '.' + key;
}

void ScenarioSection::fail(const std::string& what) const {
    throw ScenarioError(file_ + ": " + what);
}

void ScenarioSection::unknownWord(const char* key, const JSOM& value,
                                  const std::string& words) const {
    std::string text;
    value.toCompactString(text);
    fail(place(key) + ": unknown value " + shorten(text) + " (known: " + words + ")");
}

}  // namespace diagsim
