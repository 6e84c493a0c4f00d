#include "runtime/XReference.h"

#include <algorithm>
#include <functional>
#include <iterator>

namespace tavrik {

namespace {

// Pointers to different objects have no order of their own.
constexpr std::less<const SelfDestructingResource*> kInOrder{};

}  // namespace

XReference::~XReference() { clear(); }

void XReference::add(SelfDestructingResource* resource) { queue(Change::kAdd, resource); }

void XReference::remove(SelfDestructingResource* resource) { queue(Change::kRemove, resource); }

void XReference::queue(Change change, SelfDestructingResource* resource) {
    if (!resource) return;
    LockGuard guard(pendingLock);
    Resources& list = listOf(change);
    const auto found = pending.find(resource);
    if (found == pending.end()) {
        Resources node{resource};
        pending.emplace(resource, Pending{change, node.begin()});
        list.splice(list.begin(), node);
        resource->reserve();
    } else if (found->second.change != change) {
        // The later one counts and takes over the reference.
        list.splice(list.begin(), listOf(found->second.change), found->second.place);
        found->second.change = change;
    }
    changed.store(true, std::memory_order_release);
}

void XReference::visit(Visitor& visitor) {
    visitWith(
        [&visitor](SelfDestructingResource* member) { return visitor.visitReference(member); });
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
    for (SelfDestructingResource* const resource : pendingAdds)
        resource->release();
    pendingAdds.clear();
    pendingRemoves.clear();
    pending.clear();
    for (SelfDestructingResource* const member : members)
        member->release();
    members.clear();
}

bool XReference::isMember(const SelfDestructingResource* resource) const {
    return std::binary_search(members.begin(), members.end(), resource, kInOrder);
}

void XReference::applyChanges() {
    LockGuard guard(pendingLock);
    applyRemoves();
    applyAdds();
    pending.clear();
    changed.store(false, std::memory_order_relaxed);
}

// A resource may be gone after its release; its address alone is compared then.
void XReference::applyRemoves() {
    std::vector<SelfDestructingResource*> leaving(pendingRemoves.begin(), pendingRemoves.end());
    for (SelfDestructingResource* const resource : leaving) {
        if (isMember(resource)) resource->release();
        resource->release();
    }
    pendingRemoves.clear();
    std::sort(leaving.begin(), leaving.end(), kInOrder);
    const auto leaves = [&leaving](const SelfDestructingResource* member) {
        return std::binary_search(leaving.begin(), leaving.end(), member, kInOrder);
    };
    if (leaving.empty()) return;
    members.erase(std::remove_if(members.begin(), members.end(), leaves), members.end());
}

void XReference::applyAdds() {
    const auto old = static_cast<std::ptrdiff_t>(members.size());
    std::vector<SelfDestructingResource*> coming;
    coming.reserve(pendingAdds.size());
    members.reserve(members.size() + pendingAdds.size());
    for (SelfDestructingResource* const resource : pendingAdds) {
        if (!isMember(resource)) {
            // The reference of the change becomes the member's.
            coming.push_back(resource);
        } else {
            resource->release();
        }
    }
    pendingAdds.clear();
    std::sort(coming.begin(), coming.end(), kInOrder);
    members.insert(members.end(), coming.begin(), coming.end());
    std::inplace_merge(members.begin(), members.begin() + old, members.end(), kInOrder);
}

}  // namespace tavrik
