// What passes through the node, in words for people. The simulated device's trace and the tools
// that show captures use it, so that both say the same of the same bytes.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "sim/Bytes.h"
#include "sim/Scenario.h"
#include "sim/model/Request.h"
#include "sim/model/Response.h"

namespace diagsim {

// "title, 8 bytes: 7D 05 ...".
std::string describe(const std::string& title, const Bytes& bytes);

// " => 0", " => -1 EIO".
std::string describeResult(long value, int error);

// "open /dev/diag (O_RDWR)".
std::string describeOpen(int flags);

// "ioctl 7 logging mode by pointer: 6". `data` is the record that the argument points to and,
// behind it, what the driver wrote, as a capture has them (docs/capture.md); empty: there is none.
std::string describeIoctl(unsigned long request, const Bytes& data);

// One unescaped packet of a buffer of user-space data.
struct Frame {
    Bytes payload{};         // without check sequence
    unsigned processor = 0;  // 0: the local one
    bool sameChunk = false;  // it is not the first of its chunk
    bool ended = false;      // by a flag; else the client drops it
    bool checks = false;     // its check sequence fits
};

// A buffer of user-space data, taken apart as far as its words are true.
struct UserSpaceBuffer {
    std::vector<Frame> frames{};
    std::string damage{};  // ", no end flag, false chunk length"; empty: it is in order
};
UserSpaceBuffer takeApart(const Bytes& buffer);

struct DecodedLine {
    std::string who;
    std::string text;
};

// Remembers the requests of one session: some answers can only be named with them. No locks.
class Decoder {
  public:
    // The item ranges that log masks have to match until an answer says others.
    explicit Decoder(const Scenario::Ranges& ranges) : ranges_(ranges) {}

    // A buffer that the client writes: "start request (period 100 ms), 20 bytes: ...".
    std::string write(const Bytes& data);

    // A buffer that it reads, as one line for each frame, or one for what is no plain frame.
    std::vector<DecodedLine> read(const Bytes& buffer);

  private:
    std::string request(const Bytes& payload);
    std::string title(const Frame& frame);
    std::string responseTitle(const Bytes& payload);
    std::string errorTitle(const Bytes& payload) const;
    RequestKind kindOf(RequestKind form, const Bytes& payload);

    Scenario::Ranges ranges_;
    std::deque<Request> asked_{};        // the last ones
    std::deque<RequestKind> pending_{};  // of those that share the form of their answers
    RequestKind lastOf_[2] = {RequestKind::kStart, RequestKind::kLogMask};
};

}  // namespace diagsim
