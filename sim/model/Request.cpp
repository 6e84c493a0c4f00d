#include "sim/model/Request.h"

#include <cstdio>
#include <iterator>

namespace diagsim {
namespace {

struct Name {
    const char* key;
    const char* title;
};

// The only place where requests get their names; README.md, the tests and the fuzz targets are
// checked against it or read it.
constexpr Name kNames[] = {
    {"message_masks", "message mask"},
    {"event_report", "event report"},
    {"log_disable", "log disable"},
    {"log_ranges", "log ranges"},
    {"loopback", "loopback"},
    {"log_mask", "log mask"},
    {"start", "start"},
    {"stop", "stop"},
    {"log_mask_clear", "log mask clear"},
    {"unknown", "unknown"},
};
static_assert(std::size(kNames) == kRequestKinds, "each kind has a name");

const Name& nameOf(RequestKind kind) { return kNames[static_cast<size_t>(kind)]; }

constexpr size_t kMaskHeader = 16;
constexpr size_t kCodesShown = 8;

std::string hexNumber(uint64_t number, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%0*llX", digits, static_cast<unsigned long long>(number));
    return text;
}

std::string expectLength(const Bytes& bytes, size_t length) {
    if (bytes.size() == length) return {};
    return "length " + std::to_string(bytes.size()) + ", expected " + std::to_string(length);
}

std::string expectZero(const Bytes& bytes, size_t from, size_t to) {
    for (size_t i = from; i < to && i < bytes.size(); ++i) {
        if (bytes[i] != 0) return "byte " + std::to_string(i) + " is not 0";
    }
    return {};
}

// The first objection of a list of checks.
std::string firstOf(std::initializer_list<std::string> objections) {
    for (const std::string& objection : objections) {
        if (!objection.empty()) return objection;
    }
    return {};
}

void decodeMessageConfig(Request& request) {
    if (wordAt(request.bytes, 1, 1) != 5) {
        request.objection = "unknown message configuration sub-command";
        return;
    }
    request.kind = RequestKind::kMessageMasks;
    request.objection = firstOf({expectLength(request.bytes, 8), expectZero(request.bytes, 2, 4)});
}

void decodeEventReport(Request& request) {
    request.kind = RequestKind::kEventReport;
    request.objection = expectLength(request.bytes, 2);
    if (wordAt(request.bytes, 1, 1) > 1) request.objection = "operation is neither 0 nor 1";
}

std::vector<uint16_t> codesInMask(const Bytes& bytes, uint64_t equipment) {
    std::vector<uint16_t> codes;
    for (size_t item = 0; item < (bytes.size() - kMaskHeader) * 8; ++item) {
        if ((bytes[kMaskHeader + item / 8] >> (item % 8) & 1) == 0) continue;
        codes.push_back(static_cast<uint16_t>(equipment << 12 | item));
    }
    return codes;
}

std::string listCodes(const std::vector<uint16_t>& codes) {
    std::string list;
    for (size_t i = 0; i < codes.size() && i < kCodesShown; ++i) {
        list += (i == 0 ? "" : ", ") + hexNumber(codes[i], 4);
    }
    if (codes.size() > kCodesShown) {
        list += " and " + std::to_string(codes.size() - kCodesShown) + " more";
    }
    return list;
}

std::string checkMask(const Bytes& bytes, const Scenario::Ranges& ranges) {
    const auto equipment = static_cast<size_t>(wordAt(bytes, 8, 4));
    if (equipment >= ranges.size()) return "equipment id " + std::to_string(equipment);
    const uint64_t items = wordAt(bytes, 12, 4);
    const uint64_t range = ranges[equipment];
    if (items != range) {
        return std::to_string(items) + " items, expected " + std::to_string(range);
    }
    const auto length = static_cast<size_t>(kMaskHeader + (items + 7) / 8);
    return firstOf({expectLength(bytes, length), expectZero(bytes, 1, 4)});
}

void decodeLogMask(Request& request, const Scenario::Ranges& ranges) {
    request.kind = RequestKind::kLogMask;
    if (request.bytes.size() < kMaskHeader) {
        request.objection = "shorter than its header";
        return;
    }
    const uint64_t equipment = wordAt(request.bytes, 8, 4);
    const std::vector<uint16_t> codes = codesInMask(request.bytes, equipment);
    request.objection = checkMask(request.bytes, ranges);
    request.detail = listCodes(codes);
    if (!codes.empty()) return;
    request.kind = RequestKind::kLogMaskClear;
    request.detail = "equipment " + std::to_string(equipment);
}

void decodeLogConfig(Request& request, const Scenario::Ranges& ranges) {
    if (request.bytes.size() < 8) {
        request.objection = "shorter than its header";
        return;
    }
    switch (wordAt(request.bytes, 4, 4)) {
        case kLogDisable:
            request.kind = RequestKind::kLogDisable;
            request.objection = expectLength(request.bytes, 12);
            return;
        case kLogRanges:
            request.kind = RequestKind::kLogRanges;
            request.objection = expectLength(request.bytes, 12);
            return;
        case kLogSetMask:
            decodeLogMask(request, ranges);
            return;
        default:
            request.objection = "unknown log configuration operation";
    }
}

std::string checkStop(const Bytes& bytes) {
    if (wordAt(bytes, 12, 4) != 0) return "a stop with event slots";
    return wordAt(bytes, 16, 4) == 0xFFFFFFFF ? std::string() : "a stop with a period";
}

void decodeCollection(Request& request) {
    const Bytes& bytes = request.bytes;
    const uint64_t command = wordAt(bytes, 4, 4);
    if (command != 1 && command != 2) {
        request.objection = "command is neither 1 nor 2";
        return;
    }
    const bool stop = command == 2;
    request.kind = stop ? RequestKind::kStop : RequestKind::kStart;
    if (!stop) request.detail = "period " + std::to_string(wordAt(bytes, 16, 4)) + " ms";
    request.objection = firstOf({expectLength(bytes, 20),
                                 wordAt(bytes, 8, 1) == 1 ? std::string() : "byte 8 is not 1",
                                 expectZero(bytes, 9, 12), stop ? checkStop(bytes) : ""});
}

void decodeSubsystem(Request& request) {
    const uint64_t id = wordAt(request.bytes, 1, 1);
    const uint64_t command = wordAt(request.bytes, 2, 2);
    if (id == 0x12 && command == 0x002A) {
        request.kind = RequestKind::kLoopback;
        request.objection =
            firstOf({expectLength(request.bytes, 5), expectZero(request.bytes, 4, 5)});
        return;
    }
    if (id == 0x0C && command == 0x0404) {
        decodeCollection(request);
        return;
    }
    request.objection =
        "unknown subsystem " + hexNumber(id, 2) + " command " + hexNumber(command, 4);
}

}  // namespace

Request decodeRequest(const Bytes& bytes, const Scenario::Ranges& ranges) {
    Request request;
    request.bytes = bytes;
    switch (wordAt(bytes, 0, 1)) {
        case kMessageConfigCommand:
            decodeMessageConfig(request);
            break;
        case kEventReportCommand:
            decodeEventReport(request);
            break;
        case kLogConfigCommand:
            decodeLogConfig(request, ranges);
            break;
        case kSubsystemCommand:
            decodeSubsystem(request);
            break;
        default:
            request.objection = "unknown command " + hexNumber(wordAt(bytes, 0, 1), 2);
    }
    return request;
}

const char* requestKey(RequestKind kind) { return nameOf(kind).key; }

const char* requestTitle(RequestKind kind) { return nameOf(kind).title; }

const std::vector<std::string>& requestKeys() {
    static const auto* const keys = [] {
        auto* const list = new std::vector<std::string>;
        for (const Name& name : kNames)
            list->push_back(name.key);
        list->back() = "any";  // a file cannot name what is unknown
        return list;
    }();
    return *keys;
}

}  // namespace diagsim
