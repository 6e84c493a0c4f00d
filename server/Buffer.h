#pragma once

#include <string>

namespace tavrik {

// One time-stamped value.
class Entry {
  public:
    virtual ~Entry() = default;

    // Seconds since the Unix epoch, on the scale of getNow().
    virtual double getTimestamp() const = 0;
};

// What a kind of buffer can do beyond Buffer; see getBufferInterface().
class BufferInterface {
  public:
    virtual ~BufferInterface() = default;
};

// A sequence of entries of one kind, oldest first: the unit in which values are handed to a
// channel.
//
// Threads: none of its own. Users of a buffer that is shared between threads take turns.
// Ownership: whoever made it; entries belong to the buffer, and references to them are valid until
// it changes.
class Buffer {
  public:
    // The types of buffers there are, see getBufferType().
    static constexpr const char* TYPE_VOID = "void";
    static constexpr const char* TYPE_MARKER = "marker";
    static constexpr const char* TYPE_BINARY = "binary";
    static constexpr const char* TYPE_STRING = "string";
    static constexpr const char* TYPE_LONG = "long";
    static constexpr const char* TYPE_DOUBLE = "double";

    virtual ~Buffer() = default;

    virtual std::string getBufferType() const = 0;
    // The name of the implementing class.
    virtual std::string getBufferClass() const = 0;

    // The time stamp of the oldest entry; 0.0 when there is none.
    virtual double getStartTime() const = 0;

    // The entry at a position counted from the oldest, 0. `index` is less than getCount(); it is
    // not checked.
    virtual const Entry& getEntry(unsigned index) const = 0;

    // Append a copy of an entry of this buffer's kind; another kind is ignored.
    virtual void appendEntry(const Entry& entry) = 0;

    // Forgets the entries and keeps their memory.
    virtual void clear() = 0;

    // Drops the oldest entry, if there is one.
    virtual void shift() = 0;

    // Take over the entries of a buffer of this kind; another kind is ignored.
    virtual void copy(const Buffer& other) = 0;

    // How many entries there are, and for how many there is memory.
    virtual unsigned getCount() const = 0;
    virtual unsigned getReserveSize() const = 0;

    // Null: no kind of buffer fills itself.
    virtual Buffer* getAutoBuffer() = 0;

    // This object as what its kind can do beyond Buffer.
    virtual BufferInterface* getBufferInterface() = 0;
};

}  // namespace tavrik
