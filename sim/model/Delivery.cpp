#include "sim/model/Delivery.h"

#include <algorithm>
#include <cstddef>

#include "sim/Wire.h"

namespace diagsim {
namespace {

using Placement = Fault::Placement;

constexpr const char* kAdsp = "adsp";
constexpr uint32_t kFirstProcessor = 0u - 1;  // its token

Outgoing step(Outgoing::Action action, const char* line) {
    Outgoing outgoing;
    outgoing.action = action;
    outgoing.who = "driver";
    outgoing.lines.push_back({line, std::nullopt});
    return outgoing;
}

// The answer packet as the fault leaves it, before framing.
Answer spoil(Answer answer, const Fault& fault) {
    if (fault.answer) {
        answer.packet = *fault.answer;
        answer.verdict = "replaced";
    }
    if (fault.wrongSubsystem) {
        const bool logConfig = wordAt(answer.packet, 0, 1) == kLogConfigCommand;
        const size_t offset = logConfig ? 4 : 1;
        setWord(answer.packet, offset, wordAt(answer.packet, offset, 1) + 0x40, 1);
        answer.verdict = "wrong subsystem";
    }
    if (fault.cutTo && *fault.cutTo < answer.packet.size()) {
        answer.packet.resize(*fault.cutTo);
        answer.verdict += ", cut";
    }
    return answer;
}

// Collects the buffers of one request in order.
class Group {
  public:
    Group(const Answer& answer, const Fault& fault, Adsp& adsp)
        : answer_(spoil(answer, fault)), fault_(fault), adsp_(adsp) {}

    std::vector<Outgoing> build() {
        addFront();
        if (fault_.failRead) {
            out_.push_back(step(Outgoing::Action::kFailRead, "read fails"));
            return std::move(out_);
        }
        if (fault_.hangUp) {
            out_.push_back(step(Outgoing::Action::kHangUp, "the device is gone"));
            return std::move(out_);
        }
        addAnswers();
        addBehind();
        return std::move(out_);
    }

  private:
    bool answered() const { return !fault_.drop && !fault_.failRead && !fault_.hangUp; }

    // A log packet that has no answer to share a buffer with goes alone.
    bool alone(Placement placement) const {
        return placement == Placement::kOwnBuffer || (placement != Placement::kNone && !answered());
    }

    void addFront() {
        addWhole(fault_.bufferInFront);
        addRaw(fault_.rawInFront);
        addStray(fault_.frameInFront);
        if (alone(fault_.logInFront)) addLogs();
    }

    void addBehind() {
        if (alone(fault_.logBehind)) addLogs();
        addStray(fault_.frameBehind);
        addRaw(fault_.rawBehind);
        addWhole(fault_.bufferBehind);
    }

    void addAnswers() {
        if (fault_.drop) return;
        addAnswer(true, !fault_.twice);
        if (fault_.twice) addAnswer(false, true);
    }

    void addWhole(const std::optional<Bytes>& buffer) {
        if (buffer) out_.push_back(wholeBuffer(kAdsp, "raw buffer", *buffer));
    }

    void addRaw(const std::optional<Bytes>& data) {
        if (!data) return;
        Outgoing outgoing = wholeBuffer(kAdsp, "raw chunk", chunkBuffer({{*data}}));
        outgoing.callbackModeOnly = true;
        out_.push_back(std::move(outgoing));
    }

    void addStray(const std::optional<Bytes>& payload) {
        if (payload) out_.push_back(frameBuffer(kAdsp, "stray frame", *payload));
    }

    void addLogs() {
        for (int i = 0; i < fault_.logCount; ++i) {
            const Bytes packet = adsp_.logPacket();
            out_.push_back(frameBuffer(kAdsp, adsp_.logTitle(), packet));
        }
    }

    // With what stands in front of it if it is the first answer, and behind if it is the last.
    void addAnswer(bool first, bool last) {
        const Placement front = first ? fault_.logInFront : Placement::kNone;
        const Placement behind = last ? fault_.logBehind : Placement::kNone;
        beginBuffer();
        addSharedLogs(front, Placement::kSameBuffer);
        if (first) addRemote(fault_.remoteInFront);
        addSharedLogs(front, Placement::kSameChunk);
        addAnswerFrame();
        addSharedLogs(behind, Placement::kSameChunk);
        openChunk_ = false;
        if (last) addRemote(fault_.remoteBehind);
        addSharedLogs(behind, Placement::kSameBuffer);
        out_.push_back(finishBuffer());
    }

    void beginBuffer() {
        chunks_.clear();
        frames_.clear();
        openChunk_ = false;
    }

    void addRemote(const std::optional<Bytes>& payload) {
        if (!payload) return;
        addFrame("frame of processor 1", *payload, frame(*payload), false);
        chunks_.back().token = kFirstProcessor;
    }

    void addSharedLogs(Placement placement, Placement wanted) {
        if (placement != wanted) return;
        for (int i = 0; i < fault_.logCount; ++i) {
            const Bytes packet = adsp_.logPacket();
            addFrame(adsp_.logTitle(), packet, frame(packet), wanted == Placement::kSameChunk);
        }
    }

    void addAnswerFrame() {
        Bytes framed = frame(answer_.packet);
        if (fault_.cutFlag) framed.pop_back();
        const Bytes rest = splitOff(framed);
        addAnswerPart(framed, openChunk_);
        if (!rest.empty()) {
            if (fault_.split == Fault::Split::kBuffers) nextBuffer();
            addAnswerPart(rest, false);
        }
        openChunk_ = true;
    }

    // What the fault moves from the end of the frame into a second part.
    Bytes splitOff(Bytes& framed) const {
        if (fault_.split == Fault::Split::kNone) return {};
        const size_t at = std::min(fault_.splitAt.value_or(framed.size() / 2), framed.size());
        Bytes rest(framed.begin() + static_cast<std::ptrdiff_t>(at), framed.end());
        framed.resize(at);
        return rest;
    }

    void nextBuffer() {
        out_.push_back(finishBuffer());
        beginBuffer();
    }

    void addAnswerPart(const Bytes& part, bool share) {
        addFrame(answer_.title + " (" + answer_.verdict + ')', answer_.packet, part, share);
        chunks_.back().token = fault_.token;
        chunks_.back().length = fault_.chunkLength;
    }

    void addFrame(const std::string& title, const Bytes& payload, const Bytes& framed, bool share) {
        const bool join = share && openChunk_;
        if (!join) chunks_.emplace_back();
        append(chunks_.back().data, framed);
        openChunk_ = share;
        const char* const place = join ? ", same chunk" : ", same buffer";
        frames_.push_back({title + (frames_.empty() ? "" : place), payload});
    }

    Outgoing finishBuffer() const {
        Outgoing outgoing;
        outgoing.bytes = chunkBuffer(chunks_, fault_.chunkCount);
        outgoing.callbackModeOnly = true;
        outgoing.who = kAdsp;
        const std::string damage = damageName();
        if (!damage.empty()) {
            outgoing.lines.push_back(
                {"raw buffer, " + frames_.front().title + damage, outgoing.bytes});
        } else {
            outgoing.lines = frames_;
        }
        return outgoing;
    }

    std::string damageName() const {
        std::string name;
        if (fault_.split == Fault::Split::kChunks) name += ", split over two chunks";
        if (fault_.split == Fault::Split::kBuffers) name += ", split over two buffers";
        if (fault_.cutFlag) name += ", no end flag";
        if (fault_.chunkLength) name += ", false chunk length";
        if (fault_.chunkCount) name += ", false chunk count";
        if (fault_.token) name += ", token";
        return name;
    }

    const Answer answer_;
    const Fault& fault_;
    Adsp& adsp_;
    std::vector<Outgoing> out_{};

    // The answer's buffer while it is put together.
    std::vector<Chunk> chunks_{};
    std::vector<Outgoing::Line> frames_{};
    bool openChunk_ = false;  // the next frame may go into the last chunk
};

}  // namespace

std::string describe(const std::string& title, const Bytes& bytes) {
    if (bytes.empty()) return title + ", 0 bytes";
    const char* const unit = bytes.size() == 1 ? " byte: " : " bytes: ";
    return title + ", " + std::to_string(bytes.size()) + unit + hexDump(bytes);
}

Outgoing frameBuffer(const char* who, const std::string& title, const Bytes& payload) {
    Outgoing outgoing;
    outgoing.bytes = chunkBuffer({{frame(payload)}});
    outgoing.callbackModeOnly = true;
    outgoing.who = who;
    outgoing.lines.push_back({title, payload});
    return outgoing;
}

Outgoing wholeBuffer(const char* who, const std::string& title, const Bytes& buffer) {
    Outgoing outgoing;
    outgoing.bytes = buffer;
    outgoing.who = who;
    outgoing.lines.push_back({title, buffer});
    return outgoing;
}

std::vector<Outgoing> composeDelivery(const Answer& answer, const Fault& fault, Adsp& adsp) {
    return Group(answer, fault, adsp).build();
}

}  // namespace diagsim
