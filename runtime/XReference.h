#pragma once

#include <atomic>
#include <list>
#include <unordered_map>
#include <vector>

#include "runtime/Lock.h"
#include "runtime/SelfDestructingResource.h"

namespace tavrik {

// A set of shared resources that may change during a walk: additions and removals are queued and
// applied before the next walk.
//
// Threads: any thread may call any operation. Ownership: the set holds a reference on each member.
// Each queued change holds one more on its resource.
//
// Deadlocks if a visitor calls visit(), getSize(), optimize() or clear() of its own set, or if the
// destructor of a released resource uses the set. A visitor may call add() and remove().
class XReference {
  public:
    class Visitor {
      public:
        virtual ~Visitor() = default;

        // Returns true to end the walk. Called with the set's lock held.
        virtual bool visitReference(SelfDestructingResource* resource) = 0;
    };

    XReference() = default;
    virtual ~XReference();
    XReference(const XReference&) = delete;
    XReference& operator=(const XReference&) = delete;

    // Queue a change without waiting for a walk. Of two opposite changes the later one counts.
    // Adding a member, removing a non-member and passing null do nothing.
    void add(SelfDestructingResource* resource) TAVRIK_EXCLUDES(pendingLock);
    void remove(SelfDestructingResource* resource) TAVRIK_EXCLUDES(pendingLock);

    // Applies the queued changes, then visits the members in ascending order of their addresses.
    // Changes queued during the walk affect the next one.
    void visit(Visitor& visitor) TAVRIK_EXCLUDES(setLock, pendingLock);

    // As visit(), with a function object in the visitor's place: bool visitor(resource).
    template <typename Function>
    void visitWith(Function visitor) TAVRIK_EXCLUDES(setLock, pendingLock) {
        LockGuard guard(setLock);
        maintenance();
        for (SelfDestructingResource* const member : members) {
            if (visitor(member)) return;
        }
    }

    // Apply the queued changes. getSize() returns the number of members.
    unsigned getSize() TAVRIK_EXCLUDES(setLock, pendingLock);
    void optimize() TAVRIK_EXCLUDES(setLock, pendingLock);

    // Empties the set: releases the members and the queued additions. Does not release the
    // references held by queued removals.
    void clear() TAVRIK_EXCLUDES(setLock, pendingLock);

  private:
    using Resources = std::list<SelfDestructingResource*>;
    enum class Change { kAdd, kRemove };
    // A queued change: its place in the list of its kind.
    struct Pending {
        Change change;
        Resources::iterator place;
    };

    // Queues a change, newest first.
    void queue(Change change, SelfDestructingResource* resource) TAVRIK_EXCLUDES(pendingLock);
    Resources& listOf(Change change) TAVRIK_REQUIRES(pendingLock) {
        return change == Change::kAdd ? pendingAdds : pendingRemoves;
    }

    // Apply the queued changes.
    void maintenance() TAVRIK_REQUIRES(setLock) {
        if (changed.load(std::memory_order_acquire)) applyChanges();
    }
    void applyChanges() TAVRIK_REQUIRES(setLock);
    void applyRemoves() TAVRIK_REQUIRES(setLock, pendingLock);
    void applyAdds() TAVRIK_REQUIRES(setLock, pendingLock);
    bool isMember(const SelfDestructingResource* resource) const TAVRIK_REQUIRES(setLock);

    // Lock order: setLock, pendingLock. A resource's own locks may be taken under both.

    // Guards the members and every walk over them.
    Lock setLock TAVRIK_ACQUIRED_BEFORE(pendingLock);
    // Guards the queued changes.
    Lock pendingLock;

    Resources pendingAdds TAVRIK_GUARDED_BY(pendingLock);
    Resources pendingRemoves TAVRIK_GUARDED_BY(pendingLock);
    std::unordered_map<SelfDestructingResource*, Pending> pending TAVRIK_GUARDED_BY(pendingLock);
    // Whether there are any. Written under pendingLock, so that a walk without changes need not
    // take it.
    std::atomic<bool> changed{false};

    // In ascending order.
    std::vector<SelfDestructingResource*> members TAVRIK_GUARDED_BY(setLock);
};

}  // namespace tavrik
