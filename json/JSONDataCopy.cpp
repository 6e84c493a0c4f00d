// Copies and exchanges of whole trees.
#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "json/JSONData.h"
#include "json/src/MemberIndex.h"
#include "json/src/NodeSource.h"

namespace tavrik {

// Copies a tree. What is left to copy stands in a list, so trees may be of any depth.
class JSONData::Copier {
  public:
    void copy(const JSONData& from, JSONData& to) {
        begin(from, to);
        while (!pending.empty()) {
            const auto [container, copied] = pending.back();
            pending.pop_back();
            const auto waiting = static_cast<std::ptrdiff_t>(pending.size());
            copyChildren(*container, *copied);
            // The first one is next: so the copy lies in memory as a parsed tree does.
            std::reverse(pending.begin() + waiting, pending.end());
        }
    }

  private:
    void begin(const JSONData& from, JSONData& to) {
        to.setType(from.type);
        if (from.isContainer()) {
            pending.emplace_back(&from, &to);
        } else if (from.type == kString) {
            to.value.text = from.value.text;
        } else {
            to.copyScalar(from);
        }
    }

    JSONData* beginChild(const JSONData& from) {
        JSONData* const child = nodes.make();
        begin(from, *child);
        return child;
    }

    void copyChildren(const JSONData& from, JSONData& to) {
        if (from.type == kArray) {
            nodes.reserve(to.value.elements, from.value.elements.size());
            for (const JSONData* const element : from.value.elements)
                to.value.elements.push_back(beginChild(*element));
        } else {
            nodes.reserve(to.value.members.list, from.value.members.list.size());
            for (const entry& member : from.value.members.list)
                to.value.members.list.push_back({member.key, beginChild(*member.value)});
        }
    }

    NodeSource nodes{};
    std::vector<std::pair<const JSONData*, JSONData*>> pending{};
};

JSONData* JSONData::clone() const {
    Copier copier;
    JSONData* const top = new JSONData;
    top->refCount = 0;
    copier.copy(*this, *top);
    return top;
}

void JSONData::copy(const JSONData& other) {
    // First the clone: what this node gives up may hold `other`.
    JSONData* const fresh = other.clone();
    swap(*fresh);
    fresh->release();
}

void JSONData::copyScalar(const JSONData& other) {
    if (type == kLong) value.integer = other.value.integer;
    if (type == kDouble) value.real = other.value.real;
    if (type == kBoolean) value.boolean = other.value.boolean;
}

void JSONData::swap(JSONData& other) {
    JSONData between;
    between.moveFrom(*this);
    moveFrom(other);
    other.moveFrom(between);
}

void JSONData::moveFrom(JSONData& other) {
    setType(other.type);
    switch (type) {
        case kObject:
            std::swap(value.members, other.value.members);
            break;
        case kArray:
            value.elements.swap(other.value.elements);
            break;
        case kString:
            value.text.swap(other.value.text);
            break;
        default:
            copyScalar(other);
            break;
    }
    other.destroyValue();
}

}  // namespace tavrik
