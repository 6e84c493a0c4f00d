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

// A sequence of entries of one kind, oldest first. Values reach a channel in buffers.
//
// Threads: not synchronised. Ownership: its creator's. Entries belong to the buffer; references to
// them are valid until it changes.
class Buffer {
  public:
    // The results of getBufferType().
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

    // Returns the time stamp of the oldest entry; 0.0 if there is none.
    virtual double getStartTime() const = 0;

    // Returns the entry at a position; 0 is the oldest. REQUIRES: index < getCount(), unchecked.
    virtual const Entry& getEntry(unsigned index) const = 0;

    // Appends a copy of an entry. Ignores entries of another kind.
    virtual void appendEntry(const Entry& entry) = 0;

    // Removes the entries and keeps their memory.
    virtual void clear() = 0;

    // Removes the oldest entry, if any.
    virtual void shift() = 0;

    // Replaces the entries by those of `other`. Ignores buffers of another kind.
    virtual void copy(const Buffer& other) = 0;

    // Return the number of entries, and the capacity.
    virtual unsigned getCount() const = 0;
    virtual unsigned getReserveSize() const = 0;

    // Null: no kind of buffer fills itself.
    virtual Buffer* getAutoBuffer() = 0;

    // Returns the interface of this kind of buffer.
    virtual BufferInterface* getBufferInterface() = 0;
};

}  // namespace tavrik
