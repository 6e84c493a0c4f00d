#include "sim/model/Delivery.h"

#include <algorithm>
#include <cstddef>

#include "sim/Wire.h"

namespace diagsim {
namespace {

using Placement = Fault::Placement;

constexpr uint32_t kFirstProcessor = 0u - 1;  // its token

Outgoing step(Outgoing::Action action, const char* who, const char* line) {
    Outgoing outgoing;
    outgoing.action = action;
    outgoing.who = who;
    outgoing.line = line;
    return outgoing;
}

// The answer packet as the fault leaves it, before framing.
Bytes spoil(Bytes answer, const Fault& fault) {
    if (fault.answer) answer = *fault.answer;
    if (fault.wrongSubsystem) {
        const bool logConfig = wordAt(answer, 0, 1) == kLogConfigCommand;
        const size_t offset = logConfig ? 4 : 1;
        setWord(answer, offset, wordAt(answer, offset, 1) + 0x40, 1);
    }
    if (fault.cutTo && *fault.cutTo < answer.size()) answer.resize(*fault.cutTo);
    return answer;
}

// Collects the buffers of one request in order.
class Group {
  public:
    Group(const Bytes& answer, const Fault& fault, Adsp& adsp)
        : answer_(spoil(answer, fault)), fault_(fault), adsp_(adsp) {}

    std::vector<Outgoing> build() {
        addFront();
        if (fault_.failRead) {
            out_.push_back(failedRead());
            return std::move(out_);
        }
        if (fault_.hangUp) {
            out_.push_back(step(Outgoing::Action::kHangUp, "driver", "the device is gone"));
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
        if (buffer) out_.push_back(wholeBuffer(*buffer));
    }

    void addRaw(const std::optional<Bytes>& data) {
        if (!data) return;
        Outgoing outgoing = wholeBuffer(chunkBuffer({{*data}}));
        outgoing.callbackModeOnly = true;
        out_.push_back(std::move(outgoing));
    }

    void addStray(const std::optional<Bytes>& payload) {
        if (payload) out_.push_back(frameBuffer(*payload));
    }

    void addLogs() {
        for (int i = 0; i < fault_.logCount; ++i) {
            out_.push_back(frameBuffer(adsp_.logPacket()));
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
        openChunk_ = false;
    }

    void addRemote(const std::optional<Bytes>& payload) {
        if (!payload) return;
        addFrame(frame(*payload), false);
        chunks_.back().token = kFirstProcessor;
    }

    void addSharedLogs(Placement placement, Placement wanted) {
        if (placement != wanted) return;
        for (int i = 0; i < fault_.logCount; ++i) {
            addFrame(frame(adsp_.logPacket()), wanted == Placement::kSameChunk);
        }
    }

    void addAnswerFrame() {
        Bytes framed = frame(answer_);
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
        addFrame(part, share);
        chunks_.back().token = fault_.token;
        chunks_.back().length = fault_.chunkLength;
    }

    void addFrame(const Bytes& framed, bool share) {
        const bool join = share && openChunk_;
        if (!join) chunks_.emplace_back();
        append(chunks_.back().data, framed);
        openChunk_ = share;
    }

    Outgoing finishBuffer() const {
        Outgoing outgoing;
        outgoing.bytes = chunkBuffer(chunks_, fault_.chunkCount);
        outgoing.callbackModeOnly = true;
        return outgoing;
    }

    const Bytes answer_;
    const Fault& fault_;
    Adsp& adsp_;
    std::vector<Outgoing> out_{};

    // The answer's buffer while it is put together.
    std::vector<Chunk> chunks_{};
    bool openChunk_ = false;  // the next frame may go into the last chunk
};

}  // namespace

Outgoing frameBuffer(const Bytes& payload) {
    Outgoing outgoing;
    outgoing.bytes = chunkBuffer({{frame(payload)}});
    outgoing.callbackModeOnly = true;
    return outgoing;
}

Outgoing wholeBuffer(const Bytes& buffer) {
    Outgoing outgoing;
    outgoing.bytes = buffer;
    return outgoing;
}

Outgoing failedRead() { return step(Outgoing::Action::kFailRead, "host", "read => -1 ECONNRESET"); }

std::vector<Outgoing> composeDelivery(const Bytes& answer, const Fault& fault, Adsp& adsp) {
    return Group(answer, fault, adsp).build();
}

}  // namespace diagsim
