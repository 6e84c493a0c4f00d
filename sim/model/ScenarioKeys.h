// Every key of a scenario file, once: its name, the field behind it, its limits and its meaning.
//
// `Keys` is what is done with them: a ScenarioSection reads them, a KeyList lists them. The texts
// are those of the tables in README.md.
#pragma once

#include <cstdint>
#include <limits>

#include "sim/Scenario.h"

namespace diagsim {

struct Limits {
    int64_t min;
    int64_t max;
};

constexpr Limits kWord{0, std::numeric_limits<uint32_t>::max()};
constexpr Limits kInt{std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()};
constexpr Limits kCount{0, std::numeric_limits<int32_t>::max()};
constexpr Limits kCalls{0, 100000};
constexpr Limits kHourMs{0, 3600 * 1000};
constexpr int64_t kSixtyYearsMs = 60LL * 366 * 24 * 3600 * 1000;
constexpr Limits kMinuteUs{0, 60 * 1000 * 1000};

// In the order of the enumerators.
constexpr const char* kModeForms[] = {"pointer", "value", "both", "none"};
constexpr const char* kSplits[] = {"none", "chunks", "buffers"};
constexpr const char* kPlacements[] = {"none", "own_buffer", "same_buffer", "same_chunk"};

template <typename Keys>
void visitAnswerFaults(Keys& keys, Fault& fault) {
    keys.flag("drop", fault.drop, "the request is executed, but its answer is lost");
    keys.number("delay_ms", fault.delayMs, kHourMs,
                "delay of everything that follows this request; later answers overtake it");
    keys.flag("refuse", fault.refuse,
              "the request is not executed; the answer says no in its own field (loopback: the "
              "error answer)");
    keys.number("short", fault.cutTo, kCount, "the answer is cut to so many bytes before framing");
    keys.flag("twice", fault.twice, "the answer comes in two buffers, one after the other");
    keys.flag("wrong_subsystem", fault.wrongSubsystem,
              "byte 1 of the answer is another one; of a log configuration answer, the operation");
    keys.hex("answer", fault.answer, "this packet comes instead of the answer");
    keys.number("write_result", fault.writeResult, kInt,
                "the write returns this and the request is lost");
    keys.errorNumber("write_errno", fault.writeErrno,
                     "errno of a negative write_result; none: EIO");
    keys.flag("write_taken", fault.writeTaken,
              "the write returns write_result, but the request is executed and answered");
    keys.flag("fail_read", fault.failRead,
              "instead of the answer, the client's read fails with ECONNRESET; later reads return "
              "0, writes and ioctls go on");
    keys.flag("hang_up", fault.hangUp,
              "instead of the answer the device goes: reads return 0, writes and ioctls fail with "
              "ENODEV until the next open");
}

template <typename Keys>
void visitStrayFaults(Keys& keys, Fault& fault) {
    keys.choice("log_in_front", fault.logInFront, kPlacements,
                "log packets in front of the answer, whatever mask and state are: in buffers of "
                "their own, as chunks of its buffer, or as frames of its chunk");
    keys.choice("log_behind", fault.logBehind, kPlacements, "the same behind the answer");
    keys.number("log_count", fault.logCount, {1, 100000}, "how many, at each side");
    keys.hex("frame_in_front", fault.frameInFront, "a stray framed payload in a buffer of its own");
    keys.hex("frame_behind", fault.frameBehind, "the same behind the answer");
    keys.hex("raw_in_front", fault.rawInFront,
             "a chunk of these bytes, unframed, in a buffer of its own");
    keys.hex("raw_behind", fault.rawBehind, "the same behind the answer");
    keys.hex("buffer_in_front", fault.bufferInFront, "a whole buffer, data type included");
    keys.hex("buffer_behind", fault.bufferBehind, "the same behind the answer");
    keys.hex("remote_in_front", fault.remoteInFront,
             "a framed payload of remote processor 1, as a chunk of the answer's buffer");
    keys.hex("remote_behind", fault.remoteBehind, "the same behind the answer");
}

template <typename Keys>
void visitFramingFaults(Keys& keys, Fault& fault) {
    keys.choice("split", fault.split, kSplits,
                "the answer's frame is split over two chunks of one buffer, or over two buffers");
    keys.number("split_at", fault.splitAt, kCount,
                "bytes of the frame in the first part; none: half of them");
    keys.flag("cut_flag", fault.cutFlag, "the answer's frame has no end flag");
    keys.number("chunk_length", fault.chunkLength, kWord,
                "length word of the answer's chunk; none: the truth");
    keys.number("chunk_count", fault.chunkCount, kWord,
                "count word of the answer's buffer; none: the truth");
    keys.number("token", fault.token, kInt,
                "a word in front of the chunk's length, as remote processors have it (-3), or "
                "nobody (-77)");
}

template <typename Keys>
void visitFault(Keys& keys, Fault& fault) {
    keys.numbers("on", fault.on, {1, kCount.max},
                 "only at these occurrences of the request (for any: of all requests), counted "
                 "from 1 over the life of the device; empty: at all of them");
    visitAnswerFaults(keys, fault);
    visitStrayFaults(keys, fault);
    visitFramingFaults(keys, fault);
}

template <typename Keys>
void visitCalls(Keys& keys, Scenario& scenario) {
    keys.section("open", [&](Keys& open) {
        open.errorNumber("errno", scenario.openErrno, "every open fails with it");
        open.number("eintr", scenario.openEintr, kCalls, "the first so many opens fail with EINTR");
    });
    keys.section("write", [&](Keys& write) {
        write.number("eintr", scenario.write.eintr, kCalls,
                     "the first so many writes fail with EINTR and transfer nothing");
        write.flag("blocks_until_read", scenario.write.blocksUntilRead,
                   "a write waits, before anything is transferred, until the client has read "
                   "everything; see below");
        write.flag("returns_after_read", scenario.write.returnsAfterRead,
                   "a write that was taken returns when the client has read everything, an "
                   "immediate answer included, and reads on; see below");
    });
    keys.section("ioctl", [&](Keys& ioctl) {
        ioctl.number("eintr", scenario.ioctlEintr, kCalls,
                     "of each ioctl the first so many calls fail with EINTR and do nothing");
    });
}

template <typename Keys>
void visitQueue(Keys& keys, Scenario& scenario) {
    keys.section("masks", [&](Keys& masks) {
        masks.flag("message", scenario.masks.message, "the message masks come after an open");
        masks.flag("log", scenario.masks.log, "the log masks come after an open");
        masks.flag("event", scenario.masks.event, "the event masks come after an open");
        masks.number("delay_ms", scenario.masks.delayMs, kHourMs,
                     "delay of the masks, and of everything that follows them");
    });
    keys.number("empty_reads", scenario.emptyReads, kCalls,
                "number of reads of 0 bytes after the masks");
    keys.hexes("at_open", scenario.atOpen,
               "whole buffers, data type included, behind those, in any mode");
    keys.number("queue_limit", scenario.queueLimit, kCalls,
                "while so many buffers stand unread, user-space data that comes is lost, and "
                "counted in the trace; 0: no limit");
}

template <typename Keys>
void visitIoctls(Keys& keys, Scenario& scenario) {
    keys.section("mode_switch", [&](Keys& modeSwitch) {
        modeSwitch.choice("accepts", scenario.modeForm, kModeForms,
                          "the forms of ioctl 7 that are taken; an argument below 4096 is a value");
    });
    keys.section("withdraw", [&](Keys& withdraw) {
        withdraw.number("result", scenario.withdrawResult, kInt,
                        "result of ioctl 1; negative: errno EIO");
    });
    keys.section("deinit", [&](Keys& deinit) {
        deinit.number("result", scenario.deinit.result, kInt,
                      "result of ioctl 9; negative: errno EIO");
        deinit.flag("announce", scenario.deinit.announce,
                    "ioctl 9 is followed by the de-initialisation buffer (type 16)");
        deinit.number("delay_ms", scenario.deinit.delayMs, kHourMs, "delay of that buffer");
    });
    keys.number("remote_mask", scenario.remoteMask, {0, 0xFFFF},
                "what ioctl 32 reports; requests for other remote processors are refused");
}

template <typename Keys>
void visitStrays(Keys& keys, Scenario& scenario) {
    keys.section("unsolicited", [&](Keys& unsolicited) {
        unsolicited.number("period_us", scenario.unsolicited.periodUs, kMinuteUs,
                           "period of stray frames while in mode 6; 0: there are none");
        unsolicited.hex("frame", scenario.unsolicited.frame, "their payload");
    });
}

template <typename Keys>
void visitDsp(Keys& keys, Scenario& scenario) {
    keys.words("ranges", scenario.ranges, kWord, "item range of each equipment id, 0 to 15");
    keys.section("adsp", [&](Keys& adsp) {
        Scenario::Dsp& dsp = scenario.adsp;
        adsp.flag("collecting", dsp.collecting, "a collection runs already, with a period of 1 ms");
        adsp.number("period_us", dsp.periodUs, kMinuteUs,
                    "log period, whatever is requested; 0: as requested");
        adsp.flag("ignore_log_mask", dsp.ignoreLogMask, "log packets come whatever the mask says");
        adsp.number("version", dsp.version, {0, 0xFF}, "version byte of the log records");
        adsp.number("record_length", dsp.recordLength, {0, 0xFFFF}, "bytes of a log record");
        adsp.number("claimed_length", dsp.claimedLength, {-1, 0xFFFF},
                    "what its length field says; -1: the truth");
        adsp.number("clock_khz", dsp.clockKhz, kWord, "the core clock");
        adsp.number("clock_offset_ms", dsp.clockOffsetMs, {-kSixtyYearsMs, kSixtyYearsMs},
                    "how far its time is ahead of the host's at first; no time is before 6 January "
                    "1980");
        adsp.number("clock_drift_ppm", dsp.clockDriftPpm, {-1000000, 1000000},
                    "how much faster its time goes from then on, in millionths");
    });
}

template <typename Keys>
void visitReplay(Keys& keys, Scenario& scenario) {
    keys.text("replay", scenario.replay,
              "a capture that is replayed, named relative to the scenario; all other keys but "
              "replay_speed then mean nothing; see below");
    keys.number("replay_speed", scenario.replaySpeed, {0, 1000},
                "how many times as fast; 0: as fast as the order allows");
}

template <typename Keys>
void visitScenario(Keys& keys, Scenario& scenario) {
    visitCalls(keys, scenario);
    visitQueue(keys, scenario);
    visitIoctls(keys, scenario);
    visitStrays(keys, scenario);
    visitDsp(keys, scenario);
    keys.faults("requests", scenario.requests);
    visitReplay(keys, scenario);
}

}  // namespace diagsim
