// Reads the keys of one JSON object of a scenario file.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "json/JSOM.h"
#include "sim/Scenario.h"
#include "sim/model/ScenarioKeys.h"

namespace diagsim {

// Each function reads one key into its field, which stays as it is when the key is absent. Every
// key that is asked for counts as known; finish() refuses the others. All throw ScenarioError.
class ScenarioSection {
  public:
    static constexpr const char* kTop = "the scenario";

    // `where` is kTop or the path of keys to this object. `file` stands for the scenario in
    // messages and outlives the section. Throws when `value` is no object, or has a key twice.
    ScenarioSection(const tavrik::JSOM& value, std::string where, const std::string& file);

    void flag(const char* key, bool& out, const char* meaning);
    void hex(const char* key, Bytes& out, const char* meaning);
    void hex(const char* key, std::optional<Bytes>& out, const char* meaning);
    void text(const char* key, std::string& out, const char* meaning);
    void hexes(const char* key, std::vector<Bytes>& out, const char* meaning);
    void numbers(const char* key, std::vector<int>& out, Limits limits, const char* meaning);
    void errorNumber(const char* key, int& out, const char* meaning);
    void faults(const char* key, std::map<std::string, std::vector<Fault>>& out);

    // Also into a std::optional.
    template <typename Number>
    void number(const char* key, Number& out, Limits limits, const char*) {
        if (const auto found = readNumber(key, limits)) out = cast(*found, out);
    }

    // An object whose keys are the indices of `out`.
    template <size_t count>
    void words(const char* key, std::array<uint32_t, count>& out, Limits limits,
               const char* meaning) {
        section(key, [&](ScenarioSection& inner) {
            for (size_t i = 0; i < count; ++i)
                inner.number(std::to_string(i).c_str(), out[i], limits, meaning);
        });
    }

    // A text; its index in `words` is the enumerator.
    template <typename Enum, size_t count>
    void choice(const char* key, Enum& out, const char* const (&words)[count], const char*) {
        const auto found = readChoice(key, {words, words + count});
        if (found) out = static_cast<Enum>(*found);
    }

    template <typename Visit>
    void section(const char* key, Visit visit) {
        const tavrik::JSOM found = take(key);
        if (!found.hasNode()) return;
        ScenarioSection inner(found, place(key), file_);
        visit(inner);
        inner.finish();
    }

    void finish() const;

  private:
    template <typename Number>
    static Number cast(int64_t value, const Number&) {
        return static_cast<Number>(value);
    }
    template <typename Number>
    static Number cast(int64_t value, const std::optional<Number>&) {
        return static_cast<Number>(value);
    }

    // The value of `key`, which counts as known from now on; without a node when it is absent.
    tavrik::JSOM take(const char* key);
    void refuseDuplicates() const;
    std::optional<int64_t> readNumber(const char* key, Limits limits);
    std::optional<size_t> readChoice(const char* key, const std::vector<std::string>& words);
    std::vector<Fault> readFaults(const tavrik::JSOM& value, const std::string& where) const;
    Fault readFault(const tavrik::JSOM& value, const std::string& where) const;

    int64_t toNumber(const tavrik::JSOM& value, const std::string& at, Limits limits) const;
    Bytes toBytes(const tavrik::JSOM& value, const std::string& at) const;

    // Calls `read` with every element of the list and its place.
    template <typename Read>
    void eachElement(const tavrik::JSOM& list, const std::string& where, Read read) const;

    std::string place(const std::string& key) const;
    [[noreturn]] void fail(const std::string& what) const;
    [[noreturn]] void unknownWord(const char* key, const tavrik::JSOM& value,
                                  const std::string& words) const;

    const tavrik::JSOM value_;
    const std::string where_;
    const std::string& file_;
    std::vector<std::string> known_{};
};

}  // namespace diagsim
