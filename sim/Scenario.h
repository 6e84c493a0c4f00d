// How the simulated device behaves and misbehaves; read from a JSON file or filled in by a test.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/Bytes.h"

namespace diagsim {

struct Capture;

// A scenario that cannot be read; what() is one line: file, place, what is wrong, what is known.
class ScenarioError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What goes wrong with one request. Fields have the names and meanings of the file's keys
// (sim/README.md); a default-constructed fault changes nothing.
struct Fault {
    // Where an additional log packet stands relative to the answer.
    enum class Placement { kNone, kOwnBuffer, kSameBuffer, kSameChunk };

    // Over what the answer's frame is split.
    enum class Split { kNone, kChunks, kBuffers };

    std::vector<int> on{};  // occurrences of the request, 1-based; empty: all
    bool drop = false;
    int delayMs = 0;
    bool refuse = false;
    std::optional<size_t> cutTo{};  // "short"
    bool twice = false;
    bool wrongSubsystem = false;
    std::optional<Bytes> answer{};
    std::optional<int> writeResult{};
    int writeErrno = 0;  // 0: EIO
    bool writeTaken = false;
    bool failRead = false;
    bool hangUp = false;
    Placement logInFront = Placement::kNone;
    Placement logBehind = Placement::kNone;
    int logCount = 1;
    std::optional<Bytes> frameInFront{};
    std::optional<Bytes> frameBehind{};
    std::optional<Bytes> rawInFront{};
    std::optional<Bytes> rawBehind{};
    std::optional<Bytes> bufferInFront{};
    std::optional<Bytes> bufferBehind{};
    std::optional<Bytes> remoteInFront{};
    std::optional<Bytes> remoteBehind{};
    Split split = Split::kNone;
    std::optional<size_t> splitAt{};
    bool cutFlag = false;
    std::optional<uint32_t> chunkLength{};
    std::optional<uint32_t> chunkCount{};
    std::optional<uint32_t> token{};  // two's complement
};

struct Scenario {
    static constexpr size_t kEquipmentIds = 16;
    using Ranges = std::array<uint32_t, kEquipmentIds>;

    // Which argument of the mode switch the driver takes.
    enum class ModeForm { kPointer, kValue, kBoth, kNone };

    struct Write {
        int eintr = 0;
        bool blocksUntilRead = false;
        bool returnsAfterRead = false;
    };
    struct Masks {
        bool message = true;
        bool log = true;
        bool event = true;
        int delayMs = 0;
    };
    struct Deinit {
        int result = 1;
        bool announce = true;
        int delayMs = 0;
    };
    struct Unsolicited {
        int periodUs = 0;  // 0: none
        Bytes frame{0x79, 0x00, 0x00, 0x00};
    };
    struct Dsp {
        bool collecting = false;
        int periodUs = 0;  // 0: as requested
        bool ignoreLogMask = false;
        uint8_t version = 1;
        size_t recordLength = 92;
        int claimedLength = -1;  // negative: the truth
        uint32_t clockKhz = 576000;
        int64_t clockOffsetMs = 0;  // of its time, not of the core clock
        int64_t clockDriftPpm = 0;
    };

    int openErrno = 0;  // 0: open succeeds
    int openEintr = 0;
    Write write{};
    int ioctlEintr = 0;
    Masks masks{};
    ModeForm modeForm = ModeForm::kPointer;
    int modeResult = 1;
    int withdrawResult = 1;
    Deinit deinit{};
    uint16_t remoteMask = 0;
    std::vector<Bytes> atOpen{};
    int emptyReads = 0;
    int queueLimit = 0;  // 0: none
    Unsolicited unsolicited{};
    Ranges ranges{{0, 1700, 0, 0, 2400, 1200, 0, 1024, 0, 0, 512, 3000, 0, 0, 0, 0}};
    Dsp adsp{};
    std::map<std::string, std::vector<Fault>> requests{};  // by request name or "any"
    std::string replay{};                                  // name of a capture; empty: none
    int replaySpeed = 1;                                   // 0: without waits
    std::shared_ptr<const Capture> recorded{};             // what is replayed instead of the rest

    // Reads a scenario from text; `nameForErrors` stands for it in messages. Throws ScenarioError.
    // Opens no file: a capture to replay is only named.
    static Scenario parse(const std::string& json, const std::string& nameForErrors);

    // Reads the file, and the capture that it names. Throws ScenarioError, also when one of them
    // cannot be opened.
    static Scenario load(const std::string& path);
};

// One key of a scenario file, as the tables of README.md have it.
struct ScenarioKey {
    std::string name{};      // e.g. "masks.delay_ms", "requests.<name>.drop"
    std::string type{};      // e.g. "boolean", "hex", or the words to choose from
    std::string standard{};  // what an absent key means
    std::string meaning{};
};

// All keys, in the order of README.md.
std::vector<ScenarioKey> scenarioKeys();

}  // namespace diagsim
