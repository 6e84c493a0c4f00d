#pragma once

#include <set>

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

    // Apply the queued changes. getSize() returns the number of members.
    unsigned getSize() TAVRIK_EXCLUDES(setLock, pendingLock);
    void optimize() TAVRIK_EXCLUDES(setLock, pendingLock);

    // Empties the set: releases the members and the queued additions. Does not release the
    // references held by queued removals.
    void clear() TAVRIK_EXCLUDES(setLock, pendingLock);

  private:
    struct Node {
        SelfDestructingResource* resource;
        Node* next;
    };

    // Moves the first node of `resource` from one list to the front of another. False when there is
    // none.
    static bool move(Node*& from, Node*& to, const SelfDestructingResource* resource);
    static bool contains(const Node* list, const SelfDestructingResource* resource);
    static void destroy(Node*& list);

    // Takes a reference and queues it on `list`.
    void push(Node*& list, SelfDestructingResource* resource) TAVRIK_REQUIRES(pendingLock);
    // Takes the front node off `list`, keeps it as a spare and returns its resource.
    SelfDestructingResource* pop(Node*& list) TAVRIK_REQUIRES(pendingLock);
    void maintenance() TAVRIK_REQUIRES(setLock);

    // Lock order: setLock, pendingLock. A resource's own locks may be taken under both.

    // Guards the members and every walk over them.
    Lock setLock TAVRIK_ACQUIRED_BEFORE(pendingLock);
    // Guards the three lists.
    Lock pendingLock;

    Node* freeNodes TAVRIK_GUARDED_BY(pendingLock) = nullptr;  // spares, kept until clear()
    Node* pendingAdds TAVRIK_GUARDED_BY(pendingLock) = nullptr;
    Node* pendingRemoves TAVRIK_GUARDED_BY(pendingLock) = nullptr;

    std::set<SelfDestructingResource*> members TAVRIK_GUARDED_BY(setLock);
};

}  // namespace tavrik
