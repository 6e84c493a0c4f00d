#pragma once

#include <set>

#include "runtime/Lock.h"
#include "runtime/SelfDestructingResource.h"

namespace tavrik {

// A set of shared resources that can be changed while it is walked: additions and removals are
// queued and applied before the next walk.
//
// Threads: every operation may be called on any thread. Ownership: the set holds one reference on
// each member, and each queued change one more on its resource.
//
// Must not be done, because it would wait for itself for ever: visit(), getSize(), optimize() or
// clear() of a set from its own visitor; touching the set from the destructor of a resource that it
// releases. add() and remove() are allowed in a visitor.
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

    // Queue a change and never wait for a walk. The newest of two opposite changes counts; adding a
    // member and removing a stranger are harmless, and a null pointer changes nothing.
    void add(SelfDestructingResource* resource) TAVRIK_EXCLUDES(pendingLock);
    void remove(SelfDestructingResource* resource) TAVRIK_EXCLUDES(pendingLock);

    // Applies the queued changes, then walks the members in ascending order of their addresses.
    // Changes queued during the walk count from the next one on.
    void visit(Visitor& visitor) TAVRIK_EXCLUDES(setLock, pendingLock);

    // Apply the queued changes; the first also counts the members.
    unsigned getSize() TAVRIK_EXCLUDES(setLock, pendingLock);
    void optimize() TAVRIK_EXCLUDES(setLock, pendingLock);

    // Releases the members and the queued additions and forgets everything. The references that
    // queued removals hold are kept: those resources live on.
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
