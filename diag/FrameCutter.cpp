#include "diag/FrameCutter.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace tavrik {

namespace {

constexpr unsigned char kFrameEnd = 0x7E;
constexpr unsigned char kEscapeByte = 0x7D;
constexpr unsigned char kEscapeMask = 0x20;

// Escapes often stand close to each other: then a search takes longer than the bytes.
constexpr std::ptrdiff_t kShortRun = 16;

// The first `byte` before `last`, or `last`.
unsigned char* find(unsigned char byte, unsigned char* first, unsigned char* last) {
    void* const found = memchr(first, byte, static_cast<size_t>(last - first));
    return found ? static_cast<unsigned char*>(found) : last;
}

}  // namespace

bool FrameCutter::next(Frame& frame) {
    // An empty buffer may be null, which memchr does not allow.
    if (at == end) return false;
    unsigned char* const flag = find(kFrameEnd, at, end);
    if (flag == end) return false;
    unsigned char* const escape = find(kEscapeByte, at, flag);
    if (escape != flag) return unescape(escape, flag, frame);
    frame = {at, static_cast<int>(flag + 1 - at)};
    at = flag + 1;
    return true;
}

bool FrameCutter::unescape(unsigned char* escape, unsigned char* flag, Frame& frame) {
    unsigned char* in = escape;
    unsigned char* out = escape;
    while (in != flag) {
        unsigned char* const shortRun = in + std::min(flag - in, kShortRun);
        while (in != shortRun && *in != kEscapeByte)
            *out++ = *in++;
        if (in == shortRun) {
            const std::ptrdiff_t length = find(kEscapeByte, in, flag) - in;
            memmove(out, in, static_cast<size_t>(length));
            in += length;
            out += length;
        }
        if (in == flag) break;
        *out++ = in[1] ^ kEscapeMask;
        in += 2;
        // The flag stood behind the escape, so it is data.
        if (in > flag) flag = find(kFrameEnd, in, end);
        if (flag == end) return false;
    }
    *out++ = kFrameEnd;
    frame = {at, static_cast<int>(out - at)};
    at = flag + 1;
    return true;
}

}  // namespace tavrik
