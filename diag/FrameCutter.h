#pragma once

namespace tavrik {

// An unescaped frame with its end flag; `length` counts the flag, so it is at least 1.
struct Frame {
    unsigned char* data;
    int length;
};

// Cuts a buffer of framed data into frames and unescapes them in place. The flag 0x7E ends a frame.
// The escape 0x7D stands in front of a byte that was XORed with 0x20. Takes linear time.
//
// Threads: one thread at a time. Ownership: the buffer belongs to the caller and must outlive the
// cutter and its frames.
class FrameCutter {
  public:
    FrameCutter(unsigned char* data, int length) : at(data), end(data + length) {}

    // Cuts the next frame. False at the end of the buffer, and if the rest has no end flag;
    // bytesLeft() returns the length of the rest.
    bool next(Frame& frame);

    int bytesLeft() const { return static_cast<int>(end - at); }

  private:
    // Cuts a frame whose first escape and flag, as far as it is one, are known.
    bool unescape(unsigned char* escape, unsigned char* flag, Frame& frame);

    unsigned char* at;
    unsigned char* const end;
};

}  // namespace tavrik
