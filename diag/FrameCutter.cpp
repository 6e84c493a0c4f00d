#include "diag/FrameCutter.h"

namespace tavrik {

namespace {

constexpr unsigned char kFrameEnd = 0x7E;
constexpr unsigned char kEscapeByte = 0x7D;
constexpr unsigned char kEscapeMask = 0x20;

}  // namespace

bool FrameCutter::next(Frame& frame) {
    unsigned char* out = at;
    for (unsigned char* in = at; in != end;) {
        const unsigned char byte = *in++;
        if (byte == kEscapeByte) {
            if (in == end) return false;
            *out++ = *in++ ^ kEscapeMask;
            continue;
        }
        *out++ = byte;
        if (byte != kFrameEnd) continue;
        frame = {at, static_cast<int>(out - at)};
        at = in;
        return true;
    }
    return false;
}

}  // namespace tavrik
