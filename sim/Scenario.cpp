#include "sim/Scenario.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

#include "json/JSOM.h"
#include "sim/model/ErrnoName.h"
#include "sim/model/Request.h"

namespace diagsim {
namespace {

using tavrik::JSOM;

constexpr int64_t kHourMs = 3600 * 1000;
constexpr int64_t kMinuteUs = 60 * 1000 * 1000;
constexpr int64_t kMaxWord = std::numeric_limits<uint32_t>::max();
constexpr int64_t kMinInt = std::numeric_limits<int32_t>::min();
constexpr int64_t kMaxInt = std::numeric_limits<int32_t>::max();

std::string join(const std::vector<std::string>& words) {
    std::string list;
    for (const std::string& word : words)
        list += (list.empty() ? "" : ", ") + word;
    return list;
}

// One JSON object. Every key that is asked for counts as known; finish() refuses the others.
class Section {
  public:
    Section(const JSOM& value, std::string where, const std::string& file)
        : value_(value), where_(std::move(where)), file_(file) {
        if (!value.isObject()) fail("in " + where_ + ": expected an object");
    }

    void flag(const char* key, bool& out) {
        const JSOM found = take(key);
        if (!found.hasNode()) return;
        if (!found.isBoolean()) fail(place(key) + ": expected true or false");
        out = found.booleanValue(false);
    }

    template <typename Int>
    void number(const char* key, Int& out, int64_t min, int64_t max) {
        const JSOM found = take(key);
        if (found.hasNode()) out = static_cast<Int>(toNumber(found, place(key), min, max));
    }

    template <typename Int>
    void number(const char* key, std::optional<Int>& out, int64_t min, int64_t max) {
        const JSOM found = take(key);
        if (found.hasNode()) out = static_cast<Int>(toNumber(found, place(key), min, max));
    }

    void hex(const char* key, Bytes& out) {
        const JSOM found = take(key);
        if (found.hasNode()) out = toHex(found, place(key));
    }

    void hex(const char* key, std::optional<Bytes>& out) {
        const JSOM found = take(key);
        if (found.hasNode()) out = toHex(found, place(key));
    }

    void errorNumber(const char* key, int& out) {
        const JSOM found = take(key);
        if (!found.hasNode()) return;
        if (!found.isString()) {
            out = static_cast<int>(toNumber(found, place(key), 1, 4095));
            return;
        }
        out = errnoNumber(found.stringValue());
        if (out == 0) unknownWord(key, found, errnoNames());
    }

    // Index of the key's text in `words`; nothing when the key is absent.
    std::optional<size_t> choice(const char* key, const std::vector<std::string>& words) {
        const JSOM found = take(key);
        if (!found.hasNode()) return std::nullopt;
        const auto word = found.isString()
                              ? std::find(words.begin(), words.end(), found.stringValue())
                              : words.end();
        if (word == words.end()) unknownWord(key, found, join(words));
        return static_cast<size_t>(word - words.begin());
    }

    // Calls `read` with every element of the list and its place.
    template <typename Read>
    void list(const char* key, Read read) {
        const JSOM found = take(key);
        if (!found.hasNode()) return;
        if (!found.isArray()) fail(place(key) + ": expected a list");
        for (int i = 0; i < found.size(); ++i)
            read(found[i], place(key) + '[' + std::to_string(i) + ']');
    }

    // Calls `read` with the object under `key`.
    template <typename Read>
    void section(const char* key, Read read) {
        const JSOM found = take(key);
        if (!found.hasNode()) return;
        Section inner(found, place(key), file_);
        read(inner);
        inner.finish();
    }

    // The value of `key`, which counts as known from now on; without a node when it is absent.
    JSOM take(const char* key) {
        known_.push_back(key);
        return value_[key];
    }

    void finish() const {
        for (int i = 0; i < value_.size(); ++i) {
            const std::string key = value_.key(i);
            if (std::find(known_.begin(), known_.end(), key) != known_.end()) continue;
            fail("unknown key \"" + key + "\" in " + where_ + " (known: " + join(known_) + ")");
        }
    }

    std::string place(const std::string& key) const {
        return where_ == kTop ? key : where_ + '.' + key;
    }

    int64_t toNumber(const JSOM& value, const std::string& at, int64_t min, int64_t max) const {
        const std::string expected = at + ": expected a whole number from " + std::to_string(min) +
                                     " to " + std::to_string(max);
        const int64_t number = value.longValue(0);
        if (!value.isNumber() || value.doubleValue(0) != static_cast<long double>(number)) {
            fail(expected);
        }
        if (number < min || number > max) fail(expected);
        return number;
    }

    Bytes toHex(const JSOM& value, const std::string& at) const {
        Bytes bytes;
        if (!value.isString() || !parseHex(value.stringValue(), bytes)) {
            fail(at + ": expected a text of hexadecimal digit pairs");
        }
        return bytes;
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw ScenarioError(file_ + ": " + what);
    }

    const std::string& file() const { return file_; }

    static constexpr const char* kTop = "the scenario";

  private:
    [[noreturn]] void unknownWord(const char* key, const JSOM& value,
                                  const std::string& words) const {
        std::string text;
        value.toCompactString(text);
        fail(place(key) + ": unknown value " + text + " (known: " + words + ")");
    }

    const JSOM value_;
    const std::string where_;
    const std::string& file_;
    std::vector<std::string> known_{};
};

void readPlacement(Section& section, const char* key, Fault::Placement& out) {
    const auto choice = section.choice(key, {"own_buffer", "same_buffer", "same_chunk"});
    if (choice) out = static_cast<Fault::Placement>(*choice + 1);
}

void readAnswerFaults(Section& section, Fault& fault) {
    section.flag("drop", fault.drop);
    section.number("delay_ms", fault.delayMs, 0, kHourMs);
    section.flag("refuse", fault.refuse);
    section.number("short", fault.cutTo, 0, kMaxInt);
    section.flag("twice", fault.twice);
    section.flag("wrong_subsystem", fault.wrongSubsystem);
    section.hex("answer", fault.answer);
    section.number("write_result", fault.writeResult, kMinInt, kMaxInt);
    section.errorNumber("write_errno", fault.writeErrno);
    section.flag("fail_read", fault.failRead);
    section.flag("hang_up", fault.hangUp);
}

void readCompanyFaults(Section& section, Fault& fault) {
    readPlacement(section, "log_in_front", fault.logInFront);
    readPlacement(section, "log_behind", fault.logBehind);
    section.number("log_count", fault.logCount, 1, 100000);
    section.hex("frame_in_front", fault.frameInFront);
    section.hex("frame_behind", fault.frameBehind);
    section.hex("raw_in_front", fault.rawInFront);
    section.hex("raw_behind", fault.rawBehind);
    section.hex("buffer_in_front", fault.bufferInFront);
    section.hex("buffer_behind", fault.bufferBehind);
    section.flag("cut_flag", fault.cutFlag);
    section.number("chunk_length", fault.chunkLength, 0, kMaxWord);
    section.number("chunk_count", fault.chunkCount, 0, kMaxWord);
    section.number("token", fault.token, kMinInt, kMaxInt);
}

Fault readFault(const JSOM& value, const std::string& where, const std::string& file) {
    Fault fault;
    Section section(value, where, file);
    section.list("on", [&](const JSOM& element, const std::string& at) {
        fault.on.push_back(static_cast<int>(section.toNumber(element, at, 1, kMaxInt)));
    });
    readAnswerFaults(section, fault);
    readCompanyFaults(section, fault);
    section.finish();
    if (fault.writeErrno != 0 && fault.writeResult.value_or(0) >= 0) {
        section.fail("in " + where + ": write_errno needs a negative write_result");
    }
    return fault;
}

void readRequests(Section& section, Scenario& scenario) {
    for (const std::string& key : requestKeys()) {
        const JSOM found = section.take(key.c_str());
        if (!found.hasNode()) continue;
        std::vector<Fault>& faults = scenario.requests[key];
        const std::string where = section.place(key);
        if (!found.isArray()) {
            faults.push_back(readFault(found, where, section.file()));
            continue;
        }
        for (int i = 0; i < found.size(); ++i) {
            const std::string at = where + '[' + std::to_string(i) + ']';
            faults.push_back(readFault(found[i], at, section.file()));
        }
    }
}

void readModeSwitch(Section& section, Scenario& scenario) {
    const auto choice = section.choice("accepts", {"pointer", "value", "both", "none"});
    if (!choice) return;
    scenario.modeByPointer = *choice == 0 || *choice == 2;
    scenario.modeByValue = *choice == 1 || *choice == 2;
}

void readDriver(Section& top, Scenario& scenario) {
    top.section("open", [&](Section& s) { s.errorNumber("errno", scenario.openErrno); });
    top.section("masks", [&](Section& s) {
        s.flag("message", scenario.masks.message);
        s.flag("log", scenario.masks.log);
        s.flag("event", scenario.masks.event);
        s.number("delay_ms", scenario.masks.delayMs, 0, kHourMs);
    });
    top.section("mode_switch", [&](Section& s) { readModeSwitch(s, scenario); });
    top.section("withdraw",
                [&](Section& s) { s.number("result", scenario.withdrawResult, kMinInt, kMaxInt); });
    top.section("deinit", [&](Section& s) {
        s.number("result", scenario.deinit.result, kMinInt, kMaxInt);
        s.flag("announce", scenario.deinit.announce);
        s.number("delay_ms", scenario.deinit.delayMs, 0, kHourMs);
    });
    top.number("remote_mask", scenario.remoteMask, 0, 0xFFFF);
    top.list("at_open", [&](const JSOM& element, const std::string& at) {
        scenario.atOpen.push_back(top.toHex(element, at));
    });
    top.number("empty_reads", scenario.emptyReads, 0, 100000);
    top.section("unsolicited", [&](Section& s) {
        s.number("period_us", scenario.unsolicited.periodUs, 0, kMinuteUs);
        s.hex("frame", scenario.unsolicited.frame);
    });
}

void readDsp(Section& top, Scenario& scenario) {
    top.section("ranges", [&](Section& s) {
        for (size_t id = 0; id < scenario.ranges.size(); ++id) {
            s.number(std::to_string(id).c_str(), scenario.ranges[id], 0, kMaxWord);
        }
    });
    top.section("adsp", [&](Section& s) {
        Scenario::Dsp& dsp = scenario.adsp;
        s.flag("collecting", dsp.collecting);
        s.number("period_us", dsp.periodUs, 0, kMinuteUs);
        s.flag("ignore_log_mask", dsp.ignoreLogMask);
        s.number("version", dsp.version, 0, 0xFF);
        s.number("record_length", dsp.recordLength, 0, 0xFFFF);
        s.number("claimed_length", dsp.claimedLength, -1, 0xFFFF);
        s.number("clock_khz", dsp.clockKhz, 0, kMaxWord);
    });
    top.section("requests", [&](Section& s) { readRequests(s, scenario); });
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
    const auto end = text.begin() + (position - text.c_str());
    if (nothingMore && end == text.end()) return tree;
    throw ScenarioError(name + ": not valid JSON, line " +
                        std::to_string(1 + std::count(text.begin(), end, '\n')) +
                        (valid ? ": text behind the end" : ""));
}

}  // namespace

Scenario Scenario::parse(const std::string& json, const std::string& nameForErrors) {
    Scenario scenario;
    Section top(readTree(json, nameForErrors), Section::kTop, nameForErrors);
    readDriver(top, scenario);
    readDsp(top, scenario);
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
    return parse(text.str(), path);
}

}  // namespace diagsim
