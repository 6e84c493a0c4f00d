#pragma once

#include <memory>

namespace tavrik {

// A first-in-first-out queue of fixed capacity that drops its oldest entry to make room.
//
// Threads: has no lock of its own; the owner guards it. T is default-constructible and assignable.
template <typename T>
class CircularQueue {
  public:
    // `capacity` is 1 or more. Allocates all entries at once, nothing later.
    explicit CircularQueue(unsigned capacity_) : entries(new T[capacity_]{}), capacity(capacity_) {}
    virtual ~CircularQueue() = default;
    CircularQueue(const CircularQueue&) = delete;
    CircularQueue& operator=(const CircularQueue&) = delete;

    // Called by add(), on its thread and under its owner's locks, with an entry that was just taken
    // out to make room. Does nothing by default.
    virtual void onDrop(const T&) {}

    void add(const T& entry) {
        if (count == capacity) onDrop(*next());
        entries[(head + count) % capacity] = entry;
        ++count;
    }

    // Takes out the oldest entry; null when there is none. What is returned stays valid until
    // add() uses its slot again, which can be the next add().
    T* next() {
        if (count == 0) return nullptr;
        T* const oldest = &entries[head];
        head = (head + 1) % capacity;
        --count;
        return oldest;
    }

    // Forgets all entries, without onDrop().
    void clear() {
        head = 0;
        count = 0;
    }

    unsigned getCount() const { return count; }

  private:
    const std::unique_ptr<T[]> entries;
    unsigned head = 0;  // the oldest entry
    unsigned count = 0;
    const unsigned capacity;
};

}  // namespace tavrik
