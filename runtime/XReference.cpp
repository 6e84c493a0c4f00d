#include "runtime/XReference.h"

namespace tavrik {

XReference::~XReference() { clear(); }

void XReference::add(SelfDestructingResource* resource) {
    if (!resource) return;
    LockGuard guard(pendingLock);
    if (contains(pendingAdds, resource)) return;
    if (move(pendingRemoves, pendingAdds, resource)) return;
    push(pendingAdds, resource);
}

void XReference::remove(SelfDestructingResource* resource) {
    if (!resource) return;
    LockGuard guard(pendingLock);
    if (contains(pendingRemoves, resource)) return;
    if (move(pendingAdds, pendingRemoves, resource)) return;
    push(pendingRemoves, resource);
}

void XReference::visit(Visitor& visitor) {
    LockGuard guard(setLock);
    maintenance();
    for (SelfDestructingResource* const member : members) {
        if (visitor.visitReference(member)) return;
    }
}

unsigned XReference::getSize() {
    LockGuard guard(setLock);
    maintenance();
    return static_cast<unsigned>(members.size());
}

void XReference::optimize() {
    LockGuard guard(setLock);
    maintenance();
}

void XReference::clear() {
    LockGuard setGuard(setLock);
    LockGuard guard(pendingLock);
    for (const Node* node = pendingAdds; node; node = node->next)
        node->resource->release();
    destroy(pendingAdds);
    destroy(pendingRemoves);
    destroy(freeNodes);
    for (SelfDestructingResource* const member : members)
        member->release();
    members.clear();
}

bool XReference::contains(const Node* list, const SelfDestructingResource* resource) {
    while (list && list->resource != resource)
        list = list->next;
    return list != nullptr;
}

bool XReference::move(Node*& from, Node*& to, const SelfDestructingResource* resource) {
    Node** link = &from;
    while (*link && (*link)->resource != resource)
        link = &(*link)->next;
    Node* const node = *link;
    if (!node) return false;
    *link = node->next;
    node->next = to;
    to = node;
    return true;
}

void XReference::destroy(Node*& list) {
    while (list) {
        Node* const node = list;
        list = node->next;
        delete node;
    }
}

void XReference::push(Node*& list, SelfDestructingResource* resource) {
    Node* node = freeNodes;
    if (node) {
        freeNodes = node->next;
    } else {
        node = new Node;
    }
    resource->reserve();
    *node = {resource, list};
    list = node;
}

SelfDestructingResource* XReference::pop(Node*& list) {
    Node* const node = list;
    SelfDestructingResource* const resource = node->resource;
    list = node->next;
    *node = {nullptr, freeNodes};
    freeNodes = node;
    return resource;
}

void XReference::maintenance() {
    LockGuard guard(pendingLock);
    while (pendingRemoves) {
        SelfDestructingResource* const resource = pop(pendingRemoves);
        if (members.erase(resource) != 0) resource->release();
        resource->release();
    }
    while (pendingAdds) {
        SelfDestructingResource* const resource = pop(pendingAdds);
        // The reference of the node becomes the member's.
        if (!members.insert(resource).second) resource->release();
    }
}

}  // namespace tavrik
