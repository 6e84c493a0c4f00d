#pragma once

namespace tavrik {

// An unescaped frame with its end flag; `length` counts the flag, so it is at least 1.
struct Frame {
    unsigned char* data;
    int length;
};

// Cuts a buffer of framed data into frames: each ends with the flag 0x7E, and within it the byte
// behind 0x7D stands for itself XOR 0x20. Unescapes in place; takes time in proportion to the
// buffer.
//
// Threads: used by one thread. Ownership: the buffer is the caller's and outlives cutter and
// frames.
class FrameCutter {
  public:
    FrameCutter(unsigned char* data, int length) : at(data), end(data + length) {}

    // The next frame. False when the buffer is used up, or what is left has no end flag;
    // bytesLeft() then tells how much that is.
    bool next(Frame& frame);

    int bytesLeft() const { return static_cast<int>(end - at); }

  private:
    unsigned char* at;
    unsigned char* const end;
};

}  // namespace tavrik
