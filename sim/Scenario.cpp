#include "sim/Scenario.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "json/JSOM.h"
#include "sim/model/Capture.h"
#include "sim/model/ScenarioKeys.h"
#include "sim/model/ScenarioSection.h"

namespace diagsim {
namespace {

using tavrik::JSOM;

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

// "line 2, column 5" for the character at `at`; both count from 1.
std::string lineAndColumn(const std::string& text, size_t at) {
    const std::string before = text.substr(0, at);
    const size_t lineBegin = before.rfind('\n') + 1;  // npos + 1 is 0
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const auto continuesCharacter = [](char c) { return (c & 0xC0) == 0x80; };
    const auto column = 1 + std::count_if(before.begin() + static_cast<long>(lineBegin),
                                          before.end(), std::not_fn(continuesCharacter));
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// The tree of the one value that `text` is.
JSOM readTree(const std::string& text, const std::string& name) {
    tavrik::JSONData* const node = new tavrik::JSONData;
    const JSOM tree(node);
    node->release();
    const char* position = text.c_str();
    const bool valid = node->setFromJsonString(position);
    // Comments may follow, in which there is no value.
    tavrik::JSONData more;
    const bool nothingMore = valid && !more.setFromJsonString(position);
    const auto end = static_cast<size_t>(position - text.c_str());
    if (nothingMore && end == text.size()) return tree;
    throw ScenarioError(name + ": not valid JSON, " + lineAndColumn(text, end) +
                        (valid ? ": text behind the end" : ""));
}

// Lists keys with the values that their fields have.
class KeyList {
  public:
    KeyList(std::vector<ScenarioKey>& keys, std::string prefix)
        : keys_(keys), prefix_(std::move(prefix)) {}

    void flag(const char* key, bool value, const char* meaning) {
        add(key, "boolean", value ? "true" : "false", meaning);
    }

    template <typename Number>
    void number(const char* key, Number value, Limits, const char* meaning) {
        add(key, "integer", std::to_string(value), meaning);
    }

    template <typename Number>
    void number(const char* key, const std::optional<Number>&, Limits, const char* meaning) {
        add(key, "integer", "none", meaning);
    }

    void hex(const char* key, const Bytes& value, const char* meaning) {
        add(key, "hex", hexDump(value), meaning);
    }

    void hex(const char* key, const std::optional<Bytes>&, const char* meaning) {
        add(key, "hex", "none", meaning);
    }

    void text(const char* key, const std::string&, const char* meaning) {
        add(key, "text", "none", meaning);
    }

    void hexes(const char* key, const std::vector<Bytes>&, const char* meaning) {
        add(key, "list of hex", "empty", meaning);
    }

    void numbers(const char* key, const std::vector<int>&, Limits, const char* meaning) {
        add(key, "list of integers", "empty", meaning);
    }

    void errorNumber(const char* key, int, const char* meaning) {
        add(key, "error number", "none", meaning);
    }

    template <typename Enum, size_t count>
    void choice(const char* key, Enum value, const char* const (&words)[count],
                const char* meaning) {
        std::string type = words[0];
        for (size_t i = 1; i < count; ++i)
            type += (i + 1 < count ? ", " : " or ") + std::string(words[i]);
        add(key, type, words[static_cast<size_t>(value)], meaning);
    }

    template <size_t count>
    void words(const char* key, const std::array<uint32_t, count>& values, Limits,
               const char* meaning) {
        std::string standard;
        for (size_t i = 0; i < count; ++i) {
            if (values[i] != 0)
                standard += std::to_string(i) + ": " + std::to_string(values[i]) + ", ";
        }
        add((std::string(key) + ".<id>").c_str(), "integer", standard + "others 0", meaning);
    }

    template <typename Visit>
    void section(const char* key, Visit visit) {
        KeyList inner(keys_, prefix_ + key + '.');
        visit(inner);
    }

    void faults(const char* key, const std::map<std::string, std::vector<Fault>>&) {
        KeyList inner(keys_, prefix_ + key + ".<name>.");
        Fault fault;
        visitFault(inner, fault);
    }

  private:
    void add(const char* key, const std::string& type, const std::string& standard,
             const char* meaning) {
        keys_.push_back({prefix_ + key, type, standard, meaning});
    }

    std::vector<ScenarioKey>& keys_;
    const std::string prefix_;
};

// The capture that a scenario names relative to itself. What can be read of a cut one is replayed.
std::shared_ptr<const Capture> loadRecorded(const std::string& scenario, const std::string& name) {
    const std::filesystem::path path = std::filesystem::path(scenario).parent_path() / name;
    auto capture = std::make_shared<Capture>(loadCapture(path.string()));
    if (!capture->calls.empty()) return capture;
    const std::string problem =
        capture->problem.empty() ? path.string() + ": no calls in it" : capture->problem;
    throw ScenarioError(scenario + ": cannot replay: " + problem);
}

}  // namespace

std::vector<ScenarioKey> scenarioKeys() {
    std::vector<ScenarioKey> keys;
    KeyList list(keys, "");
    Scenario scenario;
    visitScenario(list, scenario);
    return keys;
}

Scenario Scenario::parse(const std::string& json, const std::string& nameForErrors) {
    Scenario scenario;
    const bool marked = json.rfind(kByteOrderMark, 0) == 0;
    const std::string text = json.substr(marked ? std::strlen(kByteOrderMark) : 0);
    ScenarioSection top(readTree(text, nameForErrors), ScenarioSection::kTop, nameForErrors);
    visitScenario(top, scenario);
    top.finish();
    return scenario;
}

Scenario Scenario::load(const std::string& path) {
    errno = 0;
    std::ifstream file(path);
    std::ostringstream text;
    if (file) text << file.rdbuf();
    // An empty file also leaves `text` in a failed state, but errno at 0; it is a syntax error.
    if (!file || (!text && errno != 0)) {
        throw ScenarioError(path + ": cannot read: " + std::strerror(errno != 0 ? errno : EIO));
    }
    Scenario scenario = parse(text.str(), path);
    if (!scenario.replay.empty()) scenario.recorded = loadRecorded(path, scenario.replay);
    return scenario;
}

}  // namespace diagsim
