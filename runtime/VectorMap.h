#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tavrik {

// A small table of pointers by name, a base of registries. Of entries with the same name the last
// one counts. Compares names byte by byte.
//
// Threads: has no lock; the derived class guards it. Ownership: the destructor does not delete the
// values.
template <typename T>
class VectorMap {
  public:
    class Visitor {
      public:
        virtual ~Visitor() = default;

        // A result other than 0 ends the walk.
        virtual int visit(const std::string& name, T* value) const = 0;
    };

    VectorMap() = default;
    virtual ~VectorMap() = default;
    VectorMap(const VectorMap&) = delete;
    VectorMap& operator=(const VectorMap&) = delete;

  protected:
    // The index of a name that is not there.
    static constexpr size_t kNone = static_cast<size_t>(-1);

    // The index of the last entry of that name, or kNone. Among many entries, does not see names
    // that were changed in place.
    size_t find(const std::string& name) const {
        const size_t known = names.size() >= kIndexedFrom ? findByNumber(name) : kNone;
        if (known != kNone) return known;
        size_t i = names.size();
        while (i != 0 && names[i - 1] != name)
            --i;
        return i - 1;
    }

    // The value of the last entry of that name; null when there is none.
    T* get(const std::string& name) const {
        const size_t i = find(name);
        return i != kNone ? values[i] : nullptr;
    }

    void append(const std::string& name, T* value) {
        numberOf[name] = nextNumber;
        if (values.size() == values.capacity()) reserve(2 * values.size() + 4);
        names.push_back(name);
        values.push_back(value);
        numbers.push_back(nextNumber++);
    }

    // Removes entry i; those behind it move up.
    void removeAt(size_t i) {
        const auto at = static_cast<std::ptrdiff_t>(i);
        numberOf.erase(names[i]);
        names.erase(names.begin() + at);
        values.erase(values.begin() + at);
        numbers.erase(numbers.begin() + at);
    }

    // For tables that own their values: puts `value` under the name and deletes another one that
    // was there.
    void replaceOwned(const std::string& name, T* value) {
        const size_t i = find(name);
        if (i == kNone) {
            append(name, value);
        } else if (values[i] != value) {
            delete std::exchange(values[i], value);
        }
    }

    // Visits the entries from the last to the first. The first result other than 0, or 0.
    int walk(const Visitor& visitor) const {
        for (size_t i = names.size(); i != 0; --i) {
            const int result = visitor.visit(names[i - 1], values[i - 1]);
            if (result != 0) return result;
        }
        return 0;
    }

    std::vector<std::string> names;
    std::vector<T*> values;  // entry i belongs to entry i of names

  private:
    // With fewer entries a look-up compares all names.
    static constexpr size_t kIndexedFrom = 16;

    size_t findByNumber(const std::string& name) const {
        const auto known = numberOf.find(name);
        if (known == numberOf.end()) return kNone;
        const auto at = std::lower_bound(numbers.begin(), numbers.end(), known->second);
        const size_t i = static_cast<size_t>(at - numbers.begin());
        return i < names.size() && numbers[i] == known->second && names[i] == name ? i : kNone;
    }

    // All at once, so that none grows without the others.
    void reserve(size_t count) {
        names.reserve(count);
        numbers.reserve(count);
        values.reserve(count);
    }

    // Entries are numbered as they come, so that removals leave the numbers in order.
    uint64_t nextNumber = 0;
    std::vector<uint64_t> numbers;
    std::unordered_map<std::string, uint64_t> numberOf;  // of the last entry with a name
};

}  // namespace tavrik
