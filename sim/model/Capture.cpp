#include "sim/model/Capture.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace diagsim {
namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kByteOrder = 0x1A2B3C4D;
constexpr uint32_t kInterface = 1;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint64_t kUserLinkType = 147;
constexpr size_t kBlockHeader = 8;
constexpr size_t kShortestBlock = 12;
constexpr size_t kPacketHeader = 20;  // behind the block's
constexpr size_t kCallHeader = 32;

// One block, without its lengths.
struct Block {
    uint32_t type = 0;
    Bytes body{};
};

class Reader {
  public:
    explicit Reader(const Bytes& file) : file_(file) {}

    Capture read() {
        Block block;
        while (capture_.problem.empty() && at_ < file_.size() && next(block)) {
            take(block);
            if (capture_.problem.empty()) at_ += block.body.size() + kShortestBlock;
        }
        if (file_.empty()) fail("the file is empty");
        sort();
        return std::move(capture_);
    }

  private:
    void fail(const std::string& what) {
        if (capture_.problem.empty())
            capture_.problem = "offset " + std::to_string(at_) + ": " + what;
    }

    // False where there is no whole block.
    bool next(Block& block) {
        const size_t left = file_.size() - at_;
        block.type = static_cast<uint32_t>(wordAt(file_, at_, 4));
        if (at_ == 0 && (block.type != kSectionHeader || wordAt(file_, 8, 4) != kByteOrder)) {
            fail("no little-endian pcapng file");
            return false;
        }
        const uint64_t length = wordAt(file_, at_ + 4, 4);
        if (left < kShortestBlock || length > left) {
            fail("block cut off");
            return false;
        }
        if (length < kShortestBlock || length % 4 != 0 ||
            wordAt(file_, at_ + static_cast<size_t>(length) - 4, 4) != length) {
            fail("false block length");
            return false;
        }
        const auto begin = file_.begin() + static_cast<std::ptrdiff_t>(at_);
        block.body.assign(begin + kBlockHeader, begin + static_cast<std::ptrdiff_t>(length) - 4);
        return true;
    }

    void take(const Block& block) {
        switch (block.type) {
            case kSectionHeader:
                return takeSection(block.body);
            case kInterface:
                return takeInterface(block.body);
            case kEnhancedPacket:
                return takePacket(block.body);
            default:
                return;  // of other tools
        }
    }

    // Calls `visit` with the code and value of each option from `at` on.
    template <typename Visit>
    static void eachOption(const Bytes& body, size_t at, Visit visit) {
        while (at + 4 <= body.size()) {
            const uint64_t code = wordAt(body, at, 2);
            const auto length = static_cast<size_t>(wordAt(body, at + 2, 2));
            at += 4;
            if (code == 0 || length > body.size() - at) return;
            const auto begin = body.begin() + static_cast<std::ptrdiff_t>(at);
            visit(code, std::string(begin, begin + static_cast<std::ptrdiff_t>(length)));
            at += (length + 3) / 4 * 4;
        }
    }

    void takeSection(const Bytes& body) {
        if (wordAt(body, 0, 4) != kByteOrder) return fail("section of another byte order");
        resolutions_.clear();
        eachOption(body, 16, [this](uint64_t code, const std::string& value) {
            if (code == 2) capture_.hardware = value;
            if (code == 3) capture_.system = value;
            if (code == 4) capture_.program = value;
        });
    }

    void takeInterface(const Bytes& body) {
        const uint64_t link = wordAt(body, 0, 2);
        if (link != kUserLinkType) {
            return fail("link type " + std::to_string(link) + ", expected " +
                        std::to_string(kUserLinkType));
        }
        uint64_t perSecond = 1000000;
        eachOption(body, 8, [&perSecond](uint64_t code, const std::string& value) {
            if (code == 9 && value.size() == 1)
                perSecond = powerOfTen(static_cast<unsigned char>(value[0]));
        });
        if (perSecond == 0) return fail("unknown resolution of times");
        resolutions_.push_back(1000000000 / perSecond);
    }

    static uint64_t powerOfTen(unsigned exponent) {
        uint64_t power = 1;
        if (exponent > 9) return 0;
        for (unsigned i = 0; i < exponent; ++i)
            power *= 10;
        return power;
    }

    void takePacket(const Bytes& body) {
        const auto interface = static_cast<size_t>(wordAt(body, 0, 4));
        const auto length = static_cast<size_t>(wordAt(body, 12, 4));
        if (interface >= resolutions_.size()) return fail("packet of an unknown interface");
        // Not a sum, which a size of 32 bits would not hold.
        if (body.size() < kPacketHeader || length > body.size() - kPacketHeader)
            return fail("packet longer than its block");
        const uint64_t stamp = wordAt(body, 4, 4) << 32 | wordAt(body, 8, 4);
        const auto begin = body.begin() + kPacketHeader;
        takeCall(Bytes(begin, begin + static_cast<std::ptrdiff_t>(length)),
                 stamp * resolutions_[interface]);
    }

    void takeCall(const Bytes& packet, uint64_t time) {
        if (packet.size() < kCallHeader) return fail("packet too short for a call");
        if (packet[0] != 1) return fail("unknown version " + std::to_string(packet[0]));
        if (packet[1] < 1 || packet[1] > 5)
            return fail("unknown call " + std::to_string(packet[1]));
        const uint64_t length = wordAt(packet, 20, 4);
        if (length > packet.size() - kCallHeader) return fail("call longer than its packet");
        CapturedCall call;
        call.kind = static_cast<CapturedCall::Kind>(packet[1]);
        call.thread = static_cast<uint32_t>(wordAt(packet, 4, 4));
        call.result = static_cast<int32_t>(wordAt(packet, 8, 4));
        call.error = static_cast<int32_t>(wordAt(packet, 12, 4));
        call.argument = static_cast<uint32_t>(wordAt(packet, 16, 4));
        call.duration = wordAt(packet, 24, 8);
        call.time = time;
        const auto data = packet.begin() + kCallHeader;
        call.data.assign(data, data + static_cast<std::ptrdiff_t>(length));
        capture_.calls.push_back(std::move(call));
    }

    // A call is written at its end, so that an answer may stand in front of its request.
    void sort() {
        const auto earlier = [](const CapturedCall& a, const CapturedCall& b) {
            return a.time < b.time;
        };
        std::stable_sort(capture_.calls.begin(), capture_.calls.end(), earlier);
    }

    const Bytes& file_;
    size_t at_ = 0;
    std::vector<uint64_t> resolutions_{};  // nanoseconds in a unit of time, by interface
    Capture capture_{};
};

}  // namespace

Capture readCapture(const Bytes& file) { return Reader(file).read(); }

Capture loadCapture(const std::string& path) {
    errno = 0;
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    Capture capture;
    // An empty file also leaves `text` in a failed state, but errno at 0.
    if (!in || (!text && errno != 0)) {
        capture.problem = std::strerror(errno != 0 ? errno : EIO);
    } else {
        const std::string content = text.str();
        capture = readCapture(Bytes(content.begin(), content.end()));
    }
    if (!capture.problem.empty()) capture.problem = path + ": " + capture.problem;
    return capture;
}

}  // namespace diagsim
