// The index of an object with many members; for the .cpp files of this folder.
#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "json/JSONData.h"

namespace tavrik {

// Finds members by their keys. Among equal keys it knows the last one.
struct JSONData::MemberIndex {
    explicit MemberIndex(const List<entry>& list) { rebuild(list); }

    int find(const List<entry>& list, std::string_view key) const {
        return static_cast<int>(places[placeOf(list, key)]) - 1;
    }

    // Adds the last member of the list.
    void addLast(const List<entry>& list) {
        if (2 * list.size() > places.size()) return rebuild(list);
        places[placeOf(list, list.back().key)] = static_cast<uint32_t>(list.size());
    }

  private:
    void rebuild(const List<entry>& list) {
        size_t size = 64;
        while (size < 4 * list.size())
            size *= 2;
        places.assign(size, 0);
        for (size_t i = 0; i < list.size(); ++i)
            places[placeOf(list, list[i].key)] = static_cast<uint32_t>(i + 1);
    }

    // The place with that key, or the empty one where it belongs.
    size_t placeOf(const List<entry>& list, std::string_view key) const {
        const size_t mask = places.size() - 1;
        size_t place = std::hash<std::string_view>()(key) & mask;
        while (places[place] != 0 && list[places[place] - 1].key != key)
            place = (place + 1) & mask;
        return place;
    }

    std::vector<uint32_t> places{};  // a member's index + 1; 0: empty. At most half are used
};

}  // namespace tavrik
