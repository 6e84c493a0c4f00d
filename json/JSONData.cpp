#include "json/JSONData.h"

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <utility>

#include "json/src/MemberIndex.h"
#include "json/src/NodeSource.h"
#include "json/src/Parser.h"

namespace tavrik {

namespace {

// With fewer members a look-up compares all keys.
constexpr size_t kIndexedFrom = 16;

// Keys of one object often begin alike.
bool areEqual(std::string_view key, std::string_view other) {
    if (key.size() != other.size()) return false;
    return key.empty() || (key.back() == other.back() && key == other);
}

// Most lists have a few elements: without the first steps of a vector's growth.
template <typename List>
void makeRoom(List& list) {
    constexpr size_t kFirst = 4;
    if (list.capacity() == 0) list.reserve(kFirst);
}

}  // namespace

void* JSONData::newList(size_t bytes) {
    ListHead* head = std::exchange(ListHead::prepared, nullptr);
    if (head == nullptr) head = new (::operator new(sizeof(ListHead) + bytes)) ListHead{kOwnMemory};
    return head + 1;
}

void JSONData::deleteList(void* list, size_t bytes) {
    ListHead* const head = static_cast<ListHead*>(list) - 1;
    if (head->slot == kOwnMemory) {
        ::operator delete(head);
        return;
    }
    Slab* const slab = Slab::of(head, head->slot);
    ASAN_POISON_MEMORY_REGION(head, sizeof(ListHead) + bytes);
    slab->drop(1);
}

// References that are given up, without recursion. The places of a slab are dropped together.
struct JSONData::Releases {
    Releases() = default;
    ~Releases() {
        finish();
        if (count != 0) slab->drop(count);
    }
    Releases(const Releases&) = delete;
    Releases& operator=(const Releases&) = delete;

    void add(JSONData* node) {
        if (node->refCount > 1) {
            --node->refCount;
        } else if (node->isContainer()) {
            makeRoom(containers);
            containers.push_back(node);
        } else {
            destroy(node);
        }
    }

  private:
    void finish() {
        while (!containers.empty()) {
            JSONData* const node = containers.back();
            containers.pop_back();
            node->moveChildrenTo(*this);
            destroy(node);
        }
    }

    // Destroys a node without children.
    void destroy(JSONData* node) {
        if (node->slot == kOwnMemory) {
            delete node;
            return;
        }
        Slab* const its = Slab::of(node, node->slot);
        node->~JSONData();
        ASAN_POISON_MEMORY_REGION(node, sizeof(JSONData));
        if (its != slab && count != 0) slab->drop(std::exchange(count, 0));
        slab = its;
        ++count;
    }

    std::vector<JSONData*> containers{};
    Slab* slab = nullptr;
    uint32_t count = 0;  // places in the slab that are free, but not dropped
};

void JSONData::release() {
    if (refCount > 1) {
        --refCount;
    } else {
        Releases().add(this);
    }
}

void JSONData::changeType(int newType) {
    if (hasContent()) reset();
    value.integer = 0;
    switch (newType) {
        case kObject:
            new (&value.members) Members;
            break;
        case kArray:
            new (&value.elements) List<JSONData*>;
            break;
        case kString:
            new (&value.text) std::string;
            break;
        default:
            break;
    }
    type = static_cast<uint16_t>(newType);
}

void JSONData::setBoolean(bool newValue) {
    setType(kBoolean);
    value.boolean = newValue ? 1 : 0;
}

void JSONData::setLong(long long newValue) {
    setType(kLong);
    value.integer = newValue;
}

void JSONData::setDouble(long double newValue) {
    setType(kDouble);
    value.real = static_cast<double>(newValue);
}

void JSONData::setString(const std::string& newValue) { takeString(std::string(newValue)); }

void JSONData::setString(const char* newValue) {
    takeString(std::string(newValue != nullptr ? newValue : ""));
}

void JSONData::takeString(std::string&& newValue) {
    setType(kString);
    value.text = std::move(newValue);
}

void JSONData::reset() {
    if (length() != 0) clear();
    destroyValue();
}

void JSONData::destroyValue() {
    switch (type) {
        case kObject:
            value.members.~Members();
            break;
        case kArray:
            value.elements.~vector();
            break;
        case kString:
            value.text.~basic_string();
            break;
        default:
            break;
    }
    type = kNone;
    value.integer = 0;
}

void JSONData::clear() {
    Releases releases;
    moveChildrenTo(releases);
}

void JSONData::moveChildrenTo(Releases& releases) {
    if (type == kArray) {
        for (JSONData* const child : value.elements)
            releases.add(child);
        value.elements.clear();
    } else if (type == kObject) {
        for (const entry& member : value.members.list)
            releases.add(member.value);
        value.members.index.reset();
        value.members.list.clear();
    }
}

int JSONData::length() const {
    if (type == kArray) return static_cast<int>(value.elements.size());
    if (type == kObject) return static_cast<int>(value.members.list.size());
    return 0;
}

JSONData* JSONData::getByIndex(int i) const { return has(i) ? valueAt(i) : nullptr; }

JSONData* JSONData::valueAt(int i) const {
    const size_t index = static_cast<size_t>(i);
    return type == kArray ? value.elements[index] : value.members.list[index].value;
}

int JSONData::find(std::string_view key) const {
    if (type != kObject) return -1;
    const Members& members = value.members;
    if (members.list.size() >= kIndexedFrom) {
        if (!members.index) members.index = std::make_unique<MemberIndex>(members.list);
        return members.index->find(members.list, key);
    }
    int i = length() - 1;
    while (i >= 0 && !areEqual(members.list[static_cast<size_t>(i)].key, key))
        --i;
    return i;
}

JSONData* JSONData::getByKey(const std::string& key) const { return getByIndex(find(key)); }

JSONData* JSONData::getByKey(const char* key) const {
    return key != nullptr ? getByIndex(find(key)) : nullptr;
}

const std::string* JSONData::getKeyAtIndex(int i) const {
    if (type != kObject || !has(i)) return nullptr;
    return &value.members.list[static_cast<size_t>(i)].key;
}

bool JSONData::booleanValue() const { return *reinterpret_cast<const unsigned char*>(&value) != 0; }

long long JSONData::longValue() const {
    using Limits = std::numeric_limits<long long>;
    if (type == kLong) return value.integer;
    if (type == kBoolean) return value.boolean;
    if (type != kDouble || std::isnan(value.real)) return 0;
    constexpr double kBeyond = 9223372036854775808.0;
    if (value.real >= kBeyond) return Limits::max();
    if (value.real < -kBeyond) return Limits::min();
    return static_cast<long long>(value.real);
}

long double JSONData::doubleValue() const {
    return type == kDouble ? static_cast<long double>(value.real)
                           : static_cast<long double>(longValue());
}

const std::string* JSONData::stringValue() const { return type == kString ? &value.text : nullptr; }

// Both copy the key: setType() and erase() may free the original.
void JSONData::setByKey(const std::string& key, JSONData* newValue) {
    setMember(std::string(key), newValue);
}

void JSONData::setByKey(const char* key, JSONData* newValue) {
    if (key != nullptr) setMember(std::string(key), newValue);
}

void JSONData::setMember(std::string&& key, JSONData* newValue) {
    if (newValue != nullptr) newValue->reserve();
    setType(kObject);
    const int i = find(key);
    if (newValue == nullptr) {
        erase(i);
    } else if (i < 0) {
        adopt(std::move(key), newValue);
    } else {
        std::swap(value.members.list[static_cast<size_t>(i)].value, newValue);
        newValue->release();
    }
}

void JSONData::setByIndex(int i, JSONData* newValue) {
    if (newValue == nullptr) {
        if (type == kArray) erase(i);
        return;
    }
    newValue->reserve();
    setType(kArray);
    if (i == length()) {
        adopt(newValue);
        return;
    }
    if (has(i)) {
        std::swap(value.elements[static_cast<size_t>(i)], newValue);
    } else {
        fprintf(stderr, "JSONData::%s: %s\n", "setByIndex()", "index out of range");
    }
    newValue->release();
}

void JSONData::adopt(std::string&& key, JSONData* child) {
    Members& members = value.members;
    makeRoom(members.list);
    members.list.push_back({std::move(key), child});
    if (members.index) members.index->addLast(members.list);
}

void JSONData::adopt(JSONData* child) {
    makeRoom(value.elements);
    value.elements.push_back(child);
}

void JSONData::erase(int i) {
    JSONData* const child = getByIndex(i);
    if (child == nullptr) return;
    if (type == kArray) {
        value.elements.erase(value.elements.begin() + i);
    } else {
        // The members behind it move up.
        value.members.index.reset();
        value.members.list.erase(value.members.list.begin() + i);
    }
    child->release();
}

void JSONData::erase(const std::string& key) { erase(find(key)); }

void JSONData::erase(const char* key) {
    if (key != nullptr) erase(std::string(key));
}

bool JSONData::holdsInPlace(const char* text) const {
    const auto liesIn = [text](const void* begin, const void* end) {
        const std::less<const void*> before;
        return !before(text, begin) && before(text, end);
    };
    if (liesIn(this, this + 1)) return true;
    if (type != kObject) return false;
    const List<entry>& list = value.members.list;
    return liesIn(list.data(), list.data() + list.size());
}

bool JSONData::setFromJsonString(const char*& text) {
    if (text == nullptr) return false;
    if (!holdsInPlace(text)) {
        TextSource source(text);
        return Parser<TextSource>(source, "setFromJsonString()").parse(*this);
    }
    const std::string copy(text);
    const char* position = copy.c_str();
    const bool good = setFromJsonString(position);
    text += position - copy.c_str();
    return good;
}

bool JSONData::setFromJsonStlString(const std::string& text) {
    const char* begin = text.c_str();
    return setFromJsonString(begin);
}

}  // namespace tavrik
