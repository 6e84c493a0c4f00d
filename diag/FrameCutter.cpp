#include "diag/FrameCutter.h"

namespace tavrik {

namespace {

constexpr unsigned char frameEnd = 0x7E;
constexpr unsigned char escapeByte = 0x7D;
constexpr unsigned char escapeMask = 0x20;

}  // namespace

bool FrameCutter::next(Frame& frame) {
    unsigned char* out = at;
    for (unsigned char* in = at; in != end;) {
        const unsigned char byte = *in++;
        if (byte == escapeByte) {
            if (in == end) return false;
            *out++ = *in++ ^ escapeMask;
            continue;
        }
        *out++ = byte;
        if (byte != frameEnd) continue;
        frame = {at, static_cast<int>(out - at)};
        at = in;
        return true;
    }
    return false;
}

}  // namespace tavrik
