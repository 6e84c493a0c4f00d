// The memory of nodes that are made together; for the .cpp files of this folder.
#pragma once

#include <algorithm>
#include <atomic>
#include <new>

#include "json/JSONData.h"

namespace tavrik {

// Nodes of one parse or copy, in one piece of memory that the last of them frees. Parts of a tree
// may belong to different threads later, so the count is atomic.
struct alignas(JSONData) JSONData::Slab {
    explicit Slab(uint32_t capacity) : live(capacity) {}

    JSONData* node(uint32_t i) { return reinterpret_cast<JSONData*>(this + 1) + i; }
    static Slab* of(JSONData* node) { return reinterpret_cast<Slab*>(node - node->slot) - 1; }

    // Gives up the places of `count` nodes.
    void drop(uint32_t count) {
        if (live.fetch_sub(count, std::memory_order_acq_rel) == count) ::operator delete(this);
    }

    std::atomic<uint32_t> live;  // nodes, and places that have none yet
};

// Makes nodes in slabs that double in size. Used by one thread.
class JSONData::NodeSource {
  public:
    NodeSource() = default;
    ~NodeSource() { dropRest(); }
    NodeSource(const NodeSource&) = delete;
    NodeSource& operator=(const NodeSource&) = delete;

    // Returns a node that counts its creator.
    JSONData* make() {
        if (used == capacity) nextSlab();
        JSONData* const node = new (slab->node(used)) JSONData;
        node->slot = static_cast<uint16_t>(used++);
        return node;
    }

  private:
    void nextSlab() {
        constexpr uint32_t kFirst = 4;
        constexpr uint32_t kLargest = 128;
        const uint32_t wanted = std::clamp(2 * capacity, kFirst, kLargest);
        void* const memory = ::operator new(sizeof(Slab) + wanted * sizeof(JSONData));
        dropRest();
        slab = new (memory) Slab(wanted);
        capacity = wanted;
        used = 0;
    }

    void dropRest() {
        if (used != capacity) slab->drop(capacity - used);
    }

    Slab* slab = nullptr;
    uint32_t capacity = 0;
    uint32_t used = 0;
};

}  // namespace tavrik
