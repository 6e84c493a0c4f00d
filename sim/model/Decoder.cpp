#include "sim/model/Decoder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "sim/Wire.h"
#include "sim/model/ErrnoName.h"
#include "sim/model/IoctlRecords.h"
#include "sim/model/OpenFlags.h"

namespace diagsim {
namespace {

constexpr uint32_t kRemoteProcessors = 9;
constexpr size_t kWord = 4;
constexpr size_t kCheckSize = 2;
constexpr size_t kRemembered = 64;
constexpr size_t kEchoed = 16;  // bytes of a request in the error answer

constexpr const char* kDriver = "driver";
constexpr const char* kAdsp = "adsp";

Bytes from(const Bytes& bytes, size_t offset) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(std::min(offset, bytes.size())),
                 bytes.end());
}

// Takes the chunks of a buffer apart; a step that leaves the buffer ends it.
class ChunkReader {
  public:
    explicit ChunkReader(const Bytes& buffer) : buffer_(buffer) {}

    UserSpaceBuffer read() {
        const uint64_t count = wordAt(buffer_, at_, kWord);
        const bool counted = advance(kWord);
        uint64_t found = 0;
        while (counted && found < count && at_ < buffer_.size()) {
            if (!readChunk()) return std::move(result_);
            ++found;
        }
        if (!counted || found < count || at_ < buffer_.size()) note("false chunk count");
        return std::move(result_);
    }

  private:
    bool advance(size_t size) {
        const bool fits = size <= buffer_.size() - at_;
        at_ = fits ? at_ + size : buffer_.size();
        return fits;
    }

    void note(const char* what) {
        const std::string text = std::string(", ") + what;
        if (result_.damage.find(text) == std::string::npos) result_.damage += text;
    }

    bool readChunk() {
        const unsigned processor = readToken();
        const uint64_t length = wordAt(buffer_, at_, kWord);
        if (!advance(kWord) || length > buffer_.size() - at_) {
            note("false chunk length");
            return false;
        }
        const auto begin = buffer_.begin() + static_cast<std::ptrdiff_t>(at_);
        readFrames(Bytes(begin, begin + static_cast<std::ptrdiff_t>(length)), processor);
        return advance(static_cast<size_t>(length));
    }

    unsigned readToken() {
        const auto word = static_cast<uint32_t>(wordAt(buffer_, at_, kWord));
        if (word < 0x80000000) return 0;
        advance(kWord);
        const uint32_t processor = 0u - word;
        if (processor <= kRemoteProcessors) return processor;
        note("token of nobody");
        return kRemoteProcessors + 1;
    }

    void readFrames(const Bytes& data, unsigned processor) {
        constexpr uint8_t kFlag = 0x7E;
        auto begin = data.begin();
        for (bool first = true; begin != data.end(); first = false) {
            const auto flag = std::find(begin, data.end(), kFlag);
            const bool ended = flag != data.end();
            addFrame(unescape(Bytes(begin, flag)), processor, !first, ended);
            if (!ended) note("no end flag");
            begin = ended ? flag + 1 : flag;
        }
    }

    void addFrame(Bytes raw, unsigned processor, bool sameChunk, bool ended) {
        Frame frame;
        frame.processor = processor;
        frame.sameChunk = sameChunk;
        frame.ended = ended;
        if (raw.size() >= kCheckSize) {
            const uint64_t check = wordAt(raw, raw.size() - kCheckSize, kCheckSize);
            raw.resize(raw.size() - kCheckSize);
            frame.checks = !raw.empty() && check == checkSequence(raw);
        }
        frame.payload = std::move(raw);
        if (ended && !frame.checks) note("false check sequence");
        result_.frames.push_back(std::move(frame));
    }

    static Bytes unescape(const Bytes& raw) {
        Bytes plain;
        bool escaped = false;
        for (const uint8_t byte : raw) {
            const bool escape = !escaped && byte == 0x7D;
            if (!escape) plain.push_back(escaped ? static_cast<uint8_t>(byte ^ 0x20) : byte);
            escaped = escape;
        }
        return plain;
    }

    const Bytes& buffer_;
    size_t at_ = kWord;
    UserSpaceBuffer result_{};
};

std::string logTitle(const Bytes& payload) {
    const LogRecord record = decodeLogPacket(payload);
    char text[64] = "log packet";
    if (record.code) std::snprintf(text, sizeof text, "log packet 0x%04X", *record.code);
    if (record.clockKhz) {
        std::snprintf(text, sizeof text, "log packet 0x%04X (core clock %.1f MHz)", *record.code,
                      *record.clockKhz / 1000.0);
    }
    return text;
}

std::string tableTitle(const Bytes& data) {
    const TableRegistration* const layout = nullptr;
    constexpr size_t kName = sizeof layout->name;
    if (data.size() < kName + kWord) return {};
    const char* const name = reinterpret_cast<const char*>(data.data());
    return ": " + std::to_string(wordAt(data, kName, kWord)) + " of " +
           std::string(name, strnlen(name, kName));
}

std::string modeTitle(const Bytes& data) {
    if (data.empty()) return {};
    const bool byValue = data.size() > sizeof(LoggingMode);
    const auto mode = static_cast<int32_t>(wordAt(data, 0, kWord));
    return std::string(" by ") + (byValue ? "value: " : "pointer: ") + std::to_string(mode);
}

// The last `size` bytes, where the driver's part stands behind the client's.
std::string answerTitle(const char* before, const Bytes& data, size_t size, size_t whole) {
    if (data.size() < whole) return {};
    return before + std::to_string(wordAt(data, data.size() - size, size));
}

std::string delayedTitle(const Bytes& data) {
    constexpr size_t kAnswer = sizeof(DelayedResponseNumber) + kWord;
    const size_t shortest = 12 + kAnswer;
    if (data.size() < shortest || wordAt(data, data.size() - kWord, kWord) != 2) return {};
    return ": " + std::to_string(wordAt(data, data.size() - kAnswer, 2));
}

std::string voteTitle(const Bytes& data) {
    if (data.size() < sizeof(RealTimeVote)) return {};
    return ": processor " + std::to_string(wordAt(data, 0, 2)) + ", vote " +
           std::to_string(wordAt(data, 2, 1));
}

// Start and stop share the form of their answers, and so do mask and mask clear.
bool sharesForm(RequestKind kind) {
    return kind == RequestKind::kStart || kind == RequestKind::kStop ||
           kind == RequestKind::kLogMask || kind == RequestKind::kLogMaskClear;
}

bool isCollection(RequestKind kind) {
    return kind == RequestKind::kStart || kind == RequestKind::kStop;
}

}  // namespace

std::string describe(const std::string& title, const Bytes& bytes) {
    if (bytes.empty()) return title + ", 0 bytes";
    const char* const unit = bytes.size() == 1 ? " byte: " : " bytes: ";
    return title + ", " + std::to_string(bytes.size()) + unit + hexDump(bytes);
}

std::string describeResult(long value, int error) {
    const std::string name = value < 0 && error != 0 ? ' ' + errnoName(error) : "";
    return " => " + std::to_string(value) + name;
}

std::string describeOpen(int flags) { return "open /dev/diag (" + openFlagsName(flags) + ')'; }

std::string describeIoctl(unsigned long request, const Bytes& data) {
    const std::string call = "ioctl " + std::to_string(request);
    switch (request) {
        case kRegisterTables:
            return call + " register command tables" + tableTitle(data);
        case kWithdrawTables:
            return call + " withdraw command tables";
        case kSwitchMode:
            return call + " logging mode" + modeTitle(data);
        case kDelayedResponseId:
            return call + " delayed response id" + delayedTitle(data);
        case kDeinitialise:
            return call + " de-initialise";
        case kRemoteMask:
            return call + " remote processors" + answerTitle(": mask ", data, 2, 4);
        case kVoteRealTime:
            return call + " real-time vote" + voteTitle(data);
        case kRealTimeStatus:
            return call + " real-time status" + answerTitle(": ", data, 4, 8);
        default:
            return call;
    }
}

UserSpaceBuffer takeApart(const Bytes& buffer) { return ChunkReader(buffer).read(); }

// --- requests ---

std::string Decoder::write(const Bytes& data) {
    if (data.size() < kWord) return describe("write", data);
    const Bytes payload = from(data, kWord);
    switch (wordAt(data, 0, kWord)) {
        case kCallbackType:
            return request(payload);
        case kPacketResponseType:
            return describe("packet response", payload);
        case kDelayedResponseType:
            return describe("delayed response", payload);
        default:
            return describe("write", data);
    }
}

std::string Decoder::request(const Bytes& payload) {
    if (payload.empty()) return describe("callback data", payload);
    const uint32_t processor = 0u - static_cast<uint32_t>(wordAt(payload, 0, kWord));
    if (processor >= 1 && processor <= kRemoteProcessors) {
        return describe("request for processor " + std::to_string(processor), from(payload, kWord));
    }
    const Request request = decodeRequest(payload, ranges_);
    asked_.push_back(request);
    if (asked_.size() > kRemembered) asked_.pop_front();
    if (sharesForm(request.kind)) pending_.push_back(request.kind);
    if (pending_.size() > kRemembered) pending_.pop_front();
    const std::string detail = request.detail.empty() ? "" : " (" + request.detail + ')';
    return describe(std::string(requestTitle(request.kind)) + " request" + detail, payload);
}

// --- answers ---

std::vector<DecodedLine> Decoder::read(const Bytes& buffer) {
    if (buffer.empty()) return {{kDriver, describe("empty buffer", buffer)}};
    const uint64_t type = wordAt(buffer, 0, kWord);
    switch (buffer.size() < kWord ? 0 : type) {
        case kMessageMasksType:
            return {{kDriver, describe("message masks", buffer)}};
        case kLogMasksType:
            return {{kDriver, describe("log masks", buffer)}};
        case kEventMasksType:
            return {{kDriver, describe("event masks", buffer)}};
        case kDeinitType:
            return {{kDriver, describe("de-initialisation", buffer)}};
        case kUserSpaceType:
            break;
        default:
            return {{kDriver, describe("raw buffer", buffer)}};
    }
    const UserSpaceBuffer parts = takeApart(buffer);
    std::vector<DecodedLine> lines;
    std::string first;
    for (const Frame& frame : parts.frames) {
        const char* const place = frame.sameChunk ? ", same chunk" : ", same buffer";
        const std::string name = frame.checks ? title(frame) : "";
        if (lines.empty() && !name.empty()) first = ", " + name;
        lines.push_back({kAdsp, describe(name + (lines.empty() ? "" : place), frame.payload)});
    }
    if (parts.damage.empty() && !lines.empty()) return lines;
    return {{kAdsp, describe("raw buffer" + first + parts.damage, buffer)}};
}

std::string Decoder::title(const Frame& frame) {
    if (frame.processor != 0) return "frame of processor " + std::to_string(frame.processor);
    if (isLogPacket(frame.payload)) return logTitle(frame.payload);
    if (frame.payload[0] == kErrorCommand) return errorTitle(frame.payload);
    return responseTitle(frame.payload);
}

std::string Decoder::responseTitle(const Bytes& payload) {
    const Response response = decodeResponse(payload);
    if (response.kind == RequestKind::kUnknown) return "stray frame";
    const bool learns = response.kind == RequestKind::kLogRanges &&
                        response.verdict == Response::Verdict::kAccepted;
    for (size_t i = 0; learns && i < ranges_.size(); ++i)
        ranges_[i] = static_cast<uint32_t>(wordAt(payload, 12 + 4 * i, 4));
    return std::string(requestTitle(kindOf(response.kind, payload))) + " response (" +
           verdictName(response.verdict) + ')';
}

// The oldest request that gets an answer of this form. One that was answered before may get
// another.
RequestKind Decoder::kindOf(RequestKind form, const Bytes& payload) {
    constexpr size_t kMask = 20;
    if (!sharesForm(form)) return form;
    const bool collection = isCollection(form);
    RequestKind& last = lastOf_[collection ? 0 : 1];
    const auto found =
        std::find_if(pending_.begin(), pending_.end(),
                     [collection](RequestKind kind) { return isCollection(kind) == collection; });
    if (found != pending_.end()) {
        last = *found;
        pending_.erase(found);
    }
    const bool repeatsMask = !collection && payload.size() > kMask;
    return repeatsMask ? form : last;
}

// It repeats the request, up to a length.
std::string Decoder::errorTitle(const Bytes& payload) const {
    const Bytes echo = from(payload, 1);
    const auto asked =
        std::find_if(asked_.rbegin(), asked_.rend(), [&echo](const Request& request) {
            const size_t length = std::min(request.bytes.size(), kEchoed);
            return echo.size() == length &&
                   std::equal(echo.begin(), echo.end(), request.bytes.begin());
        });
    if (asked == asked_.rend()) return "error response";
    if (!asked->objection.empty()) return "error response (refused: " + asked->objection + ')';
    return std::string(requestTitle(asked->kind)) + " response (refused)";
}

}  // namespace diagsim
