// The memory of nodes that are made together; for the .cpp files of this folder.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "json/JSONData.h"

// The address sanitizer does not know which places of a slab are in use; these tell it.
#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(place, size) (static_cast<void>(place), static_cast<void>(size))
#define ASAN_UNPOISON_MEMORY_REGION(place, size) (static_cast<void>(place), static_cast<void>(size))
#endif

namespace tavrik {

// Memory of the nodes and lists of one parse or copy, which the last of them frees. Parts of a tree
// may belong to different threads later, so the count is atomic.
struct alignas(JSONData) JSONData::Slab {
    static constexpr size_t kUnit = alignof(JSONData);
    static constexpr uint32_t kFilling = 0x80000000;

    // The distance of a place from the slab's begin, in units.
    uint16_t slotOf(const void* place) const {
        const auto begin = reinterpret_cast<uintptr_t>(this);
        return static_cast<uint16_t>((reinterpret_cast<uintptr_t>(place) - begin) / kUnit);
    }
    static Slab* of(void* place, uint16_t slot) {
        return reinterpret_cast<Slab*>(static_cast<char*>(place) - slot * kUnit);
    }

    // Gives up `count` places.
    void drop(uint32_t count) {
        if (live.fetch_sub(count, std::memory_order_acq_rel) == count) ::operator delete(this);
    }

    std::atomic<uint32_t> live{kFilling};  // places in use; kFilling while more are given out
};

// Stands in front of each list.
struct alignas(JSONData::entry) JSONData::ListHead {
    uint16_t slot;  // in a slab, or kOwnMemory

    // Where this thread's next list goes; null for memory of its own.
    static inline thread_local ListHead* prepared = nullptr;
};

// Makes nodes and lists in slabs that double in size. Used by one thread.
class JSONData::NodeSource {
  public:
    NodeSource() = default;
    ~NodeSource() { leaveSlab(); }
    NodeSource(const NodeSource&) = delete;
    NodeSource& operator=(const NodeSource&) = delete;

    // Returns a node that counts its creator.
    JSONData* make() {
        JSONData* const node = new (take(sizeof(JSONData))) JSONData;
        node->slot = slab->slotOf(node);
        return node;
    }

    // Makes room in a list that has none yet, in a slab unless it is large. Others grow by
    // themselves.
    template <typename T>
    void reserve(List<T>& list, size_t count) {
        if (list.capacity() != 0 || count == 0) return;
        constexpr size_t kMost = 1024;
        const size_t bytes = sizeof(ListHead) + count * ListAllocator<T>::kSize;
        if (bytes <= kMost) {
            void* const head = take((bytes + Slab::kUnit - 1) / Slab::kUnit * Slab::kUnit);
            ListHead::prepared = new (head) ListHead{slab->slotOf(head)};
        }
        list.reserve(count);
    }

  private:
    void* take(size_t bytes) {
        if (bytes > static_cast<size_t>(end - free)) nextSlab(bytes);
        ++used;
        ASAN_UNPOISON_MEMORY_REGION(free, bytes);
        return std::exchange(free, free + bytes);
    }

    void nextSlab(size_t bytes) {
        constexpr size_t kFirst = 512;
        constexpr size_t kLargest = 16384;
        size = std::clamp(std::max(2 * size, sizeof(Slab) + bytes), kFirst, kLargest);
        void* const memory = ::operator new(size);
        leaveSlab();
        slab = new (memory) Slab;
        free = static_cast<char*>(memory) + sizeof(Slab);
        end = static_cast<char*>(memory) + size;
        used = 0;
        ASAN_POISON_MEMORY_REGION(free, static_cast<size_t>(end - free));
    }

    void leaveSlab() {
        if (slab != nullptr) slab->drop(Slab::kFilling - used);
    }

    Slab* slab = nullptr;
    char* free = nullptr;
    char* end = nullptr;
    size_t size = 0;
    uint32_t used = 0;  // places given out in this slab
};

}  // namespace tavrik
