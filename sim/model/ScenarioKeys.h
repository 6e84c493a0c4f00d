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
    keys.flag("drop", fault.drop, "the request is executed, but its response is lost");
    keys.number("delay_ms", fault.delayMs, kHourMs,
                "delays everything that follows this request; later responses overtake it");
    keys.flag(
        "refuse", fault.refuse,
        "the request is not executed; the response refuses it (loopback: the error response)");
    keys.number("short", fault.cutTo, kCount, "the response is cut to this length before framing");
    keys.flag("twice", fault.twice, "the response comes twice, in two buffers");
    keys.flag("wrong_subsystem", fault.wrongSubsystem,
              "byte 1 of the response is wrong; in a log configuration response, the operation");
    keys.hex("answer", fault.answer, "this packet replaces the response");
    keys.number("write_result", fault.writeResult, kInt,
                "the write returns this value, and the request is lost");
    keys.errorNumber("write_errno", fault.writeErrno,
                     "errno of a negative write_result; none: EIO");
    keys.flag("write_taken", fault.writeTaken,
              "the request is executed and answered although the write returns write_result");
    keys.flag("fail_read", fault.failRead,
              "the client's read fails with ECONNRESET instead of returning the response; later "
              "reads return 0, writes and ioctls still work");
    keys.flag("hang_up", fault.hangUp,
              "the device goes away instead of responding: reads return 0, writes and ioctls fail "
              "with ENODEV until the next open");
}

template <typename Keys>
void visitStrayFaults(Keys& keys, Fault& fault) {
    keys.choice("log_in_front", fault.logInFront, kPlacements,
                "log packets before the response, in any state and with any mask: in buffers of "
                "their own, as chunks of its buffer, or as frames of its chunk");
    keys.choice("log_behind", fault.logBehind, kPlacements, "the same after the response");
    keys.number("log_count", fault.logCount, {1, 100000}, "the number of log packets on each side");
    keys.hex("frame_in_front", fault.frameInFront,
             "a stray frame with this payload, in a buffer of its own");
    keys.hex("frame_behind", fault.frameBehind, "the same after the response");
    keys.hex("raw_in_front", fault.rawInFront,
             "a chunk of these bytes, unframed, in a buffer of its own");
    keys.hex("raw_behind", fault.rawBehind, "the same after the response");
    keys.hex("buffer_in_front", fault.bufferInFront, "a whole buffer, data type included");
    keys.hex("buffer_behind", fault.bufferBehind, "the same after the response");
    keys.hex(
        "remote_in_front", fault.remoteInFront,
        "a frame of remote processor 1 with this payload, as a chunk of the response's buffer");
    keys.hex("remote_behind", fault.remoteBehind, "the same after the response");
}

template <typename Keys>
void visitFramingFaults(Keys& keys, Fault& fault) {
    keys.choice("split", fault.split, kSplits,
                "the response's frame is split over two chunks of one buffer, or over two buffers");
    keys.number("split_at", fault.splitAt, kCount,
                "the bytes of the frame in the first part; none: half of the frame");
    keys.flag("cut_flag", fault.cutFlag, "the response's frame has no end flag");
    keys.number("chunk_length", fault.chunkLength, kWord,
                "the length word of the response's chunk; none: the true length");
    keys.number("chunk_count", fault.chunkCount, kWord,
                "the count word of the response's buffer; none: the true count");
    keys.number(
        "token", fault.token, kInt,
        "a word before the chunk's length: a remote processor's (-3) or an invalid one (-77)");
}

template <typename Keys>
void visitFault(Keys& keys, Fault& fault) {
    keys.numbers("on", fault.on, {1, kCount.max},
                 "applies to these occurrences of the request (for any: of all requests), counted "
                 "from 1 over the life of the device; empty: to all");
    visitAnswerFaults(keys, fault);
    visitStrayFaults(keys, fault);
    visitFramingFaults(keys, fault);
}

template <typename Keys>
void visitCalls(Keys& keys, Scenario& scenario) {
    keys.section("open", [&](Keys& open) {
        open.errorNumber("errno", scenario.openErrno, "every open fails with this error");
        open.number("eintr", scenario.openEintr, kCalls,
                    "this many opens, the first ones, fail with EINTR");
    });
    keys.section("write", [&](Keys& write) {
        write.number("eintr", scenario.write.eintr, kCalls,
                     "this many writes, the first ones, fail with EINTR and transfer nothing");
        write.flag("blocks_until_read", scenario.write.blocksUntilRead,
                   "a write transfers nothing until the client has read everything; see below");
        write.flag("returns_after_read", scenario.write.returnsAfterRead,
                   "an accepted write returns when the client has read everything, an immediate "
                   "response included, and reads again; see below");
    });
    keys.section("ioctl", [&](Keys& ioctl) {
        ioctl.number(
            "eintr", scenario.ioctlEintr, kCalls,
            "this many calls of each ioctl, the first ones, fail with EINTR and do nothing");
    });
}

template <typename Keys>
void visitQueue(Keys& keys, Scenario& scenario) {
    keys.section("masks", [&](Keys& masks) {
        masks.flag("message", scenario.masks.message, "the message masks come after an open");
        masks.flag("log", scenario.masks.log, "the log masks come after an open");
        masks.flag("event", scenario.masks.event, "the event masks come after an open");
        masks.number("delay_ms", scenario.masks.delayMs, kHourMs,
                     "delays the masks and everything after them");
    });
    keys.number("empty_reads", scenario.emptyReads, kCalls,
                "the number of reads of 0 bytes after the masks");
    keys.hexes("at_open", scenario.atOpen,
               "whole buffers, data type included, after those reads, in any mode");
    keys.number("queue_limit", scenario.queueLimit, kCalls,
                "while this many buffers are unread, new user-space data is lost and counted in "
                "the trace; 0: no limit");
}

template <typename Keys>
void visitIoctls(Keys& keys, Scenario& scenario) {
    keys.section("mode_switch", [&](Keys& modeSwitch) {
        modeSwitch.choice("accepts", scenario.modeForm, kModeForms,
                          "the accepted forms of ioctl 7; an argument below 4096 is a value");
        modeSwitch.number("result", scenario.modeResult, kCount,
                          "the result of an accepted ioctl 7");
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
        deinit.number("delay_ms", scenario.deinit.delayMs, kHourMs, "delays that buffer");
    });
    keys.number("remote_mask", scenario.remoteMask, {0, 0xFFFF},
                "the mask that ioctl 32 reports; requests for other remote processors are refused");
}

template <typename Keys>
void visitStrays(Keys& keys, Scenario& scenario) {
    keys.section("unsolicited", [&](Keys& unsolicited) {
        unsolicited.number("period_us", scenario.unsolicited.periodUs, kMinuteUs,
                           "the period of stray frames in mode 6; 0: none");
        unsolicited.hex("frame", scenario.unsolicited.frame, "the payload of stray frames");
    });
}

template <typename Keys>
void visitDsp(Keys& keys, Scenario& scenario) {
    keys.words("ranges", scenario.ranges, kWord, "the item range of each equipment id, 0 to 15");
    keys.section("adsp", [&](Keys& adsp) {
        Scenario::Dsp& dsp = scenario.adsp;
        adsp.flag("collecting", dsp.collecting,
                  "a collection is already running, with a period of 1 ms");
        adsp.number("period_us", dsp.periodUs, kMinuteUs,
                    "the log period, regardless of the request; 0: as requested");
        adsp.flag("ignore_log_mask", dsp.ignoreLogMask, "log packets come with any mask");
        adsp.number("version", dsp.version, {0, 0xFF}, "the version byte of log records");
        adsp.number("record_length", dsp.recordLength, {0, 0xFFFF}, "the bytes of a log record");
        adsp.number("claimed_length", dsp.claimedLength, {-1, 0xFFFF},
                    "the length field of log records; -1: the true length");
        adsp.number("clock_khz", dsp.clockKhz, kWord, "the core clock");
        adsp.number("clock_offset_ms", dsp.clockOffsetMs, {-kSixtyYearsMs, kSixtyYearsMs},
                    "how far the ADSP's time is ahead of the host's at first; its time is never "
                    "before 6 January 1980");
        adsp.number("clock_drift_ppm", dsp.clockDriftPpm, {-1000000, 1000000},
                    "how much faster the ADSP's time runs from then on, in millionths");
    });
}

template <typename Keys>
void visitReplay(Keys& keys, Scenario& scenario) {
    keys.text("replay", scenario.replay,
              "a capture to replay, relative to the scenario's folder; all keys but replay_speed "
              "are then ignored; see below");
    keys.number("replay_speed", scenario.replaySpeed, {0, 1000},
                "the speed of the replay; 0: as fast as the order allows");
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
