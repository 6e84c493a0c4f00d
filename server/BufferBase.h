#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

#include "server/Buffer.h"

namespace tavrik {

// A ring of T, which is derived from Entry, default-constructible and assignable. Grows as needed
// and never drops an entry; users limit it with shift() or clear().
template <typename T>
class BufferBase : public Buffer {
  public:
    double getStartTime() const override {
        return count != 0 ? BufferBase::getEntry(0).getTimestamp() : 0.0;
    }

    const T& getEntry(unsigned index) const override { return entries[physical(index)]; }

    // `entry` may be one of this buffer's own.
    void appendEntry(const Entry& entry) override {
        const T* const own = dynamic_cast<const T*>(&entry);
        if (own != nullptr) append([&](T& slot) { slot = *own; });
    }

    void clear() override {
        count = 0;
        start = 0;
    }

    void shift() override {
        if (count == 0) return;
        --count;
        if (++start == reserveSize) start = 0;
    }

    // Copies the first getCount() slots of the other's memory as they are. If its oldest entry is
    // not in the first slot, the copy is rotated. Readers depend on that order.
    void copy(const Buffer& other) override {
        const BufferBase* const source = dynamic_cast<const BufferBase*>(&other);
        if (source == nullptr) return;
        if (source->count > reserveSize) {
            entries.reset(new T[source->count]);
            allocated = source->count;
            reserveSize = source->count;
        }
        count = source->count;
        start = 0;
        for (uint32_t i = 0; i < count; ++i)
            entries[i] = source->entries[i];
    }

    unsigned getCount() const override { return count; }
    unsigned getReserveSize() const override { return reserveSize; }
    Buffer* getAutoBuffer() override { return nullptr; }

  protected:
    // Appends an entry that `store(T&)` sets. It may read entries of this buffer.
    template <typename Store>
    void append(const Store& store) {
        if (count < reserveSize) {
            store(entries[physical(count)]);
        } else {
            grow(store);
        }
        ++count;
    }

  private:
    uint32_t physical(uint32_t index) const {
        const uint32_t sum = start + index;
        return sum < reserveSize ? sum : sum - reserveSize;
    }

    // Makes room for an entry and stores it.
    template <typename Store>
    void grow(const Store& store) {
        const uint32_t capacity = count == 0 ? 1 : count < 4 ? 4 : count + 16;
        if (start == 0 && capacity <= allocated) {
            store(entries[count]);
        } else {
            reallocate(std::max(capacity, 2 * allocated), store);
        }
        reserveSize = capacity;
    }

    // Moves the entries to new memory, the oldest one first, and the new one behind them. Stores it
    // before, while the others are where it may read them.
    template <typename Store>
    void reallocate(uint32_t capacity, const Store& store) {
        std::unique_ptr<T[]> larger(new T[capacity]);
        store(larger[count]);
        for (uint32_t i = 0; i < count; ++i)
            larger[i] = std::move(entries[physical(i)]);
        entries = std::move(larger);
        allocated = capacity;
        start = 0;
    }

    uint32_t reserveSize = 0;  // the ring's places
    uint32_t count = 0;
    uint32_t start = 0;      // place of the oldest entry
    uint32_t allocated = 0;  // entries that there is memory for; from reserveSize on never used
    std::unique_ptr<T[]> entries{};
};

}  // namespace tavrik
