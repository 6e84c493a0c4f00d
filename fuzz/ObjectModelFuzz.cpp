// Input: a program of bytes. It drives six handles that start on one tree: moves, writes, erasures,
// copies and assignments, also within the tree, and reads. Checks: no use after free; a value that
// was written, copied or assigned is read back, even from the same tree; a handle has one type; a
// copy of a node prints the node's text.
#include <memory>
#include <utility>

#include "fuzz/Support.h"
#include "json/JSOM.h"

using fuzz::mustHold;
using tavrik::JSOM;

namespace {

std::string compact(const JSOM& handle) {
    std::string text;
    handle.toCompactString(text);
    return text;
}

void writeText(JSOM& to, const JSOM& from) {
    const std::string text = from.stringValuePtr("");
    to.setString(from.stringValuePtr(""));
    mustHold(to == JSOM::JERROR || to.stringValue("none") == text, "a written text is read back");
}

// Parsing adds elements to an existing array or object.
void parse(JSOM& to, const std::string& own, const char* text) {
    JSOM other;
    if (to.hasNode()) other.copy(to);
    other.fromString(own);
    const bool good = to.fromString(text) != JSOM::JERROR;
    mustHold(!good || compact(to) == compact(other), "a node may parse its own text");
}

void assign(JSOM& to, const JSOM& from) {
    const std::string text = compact(from.hasNode() ? from : to);
    to = from;
    mustHold(to == JSOM::JERROR || compact(to) == text, "an assigned value is read back");
}

void copy(JSOM& to, const JSOM& from) {
    const std::string text = from.hasNode() ? compact(from) : "false";
    to.copy(from);
    mustHold(to == JSOM::JERROR || compact(to) == text, "a copied value is read back");
}

struct Program : fuzz::Feed {
    using Feed::Feed;

    std::unique_ptr<JSOM> handles[6];
    JSOM& one() { return *handles[byte() % 6]; }
    void put(const JSOM& led) { handles[byte() % 6] = std::make_unique<JSOM>(led); }
    int index() { return byte() % 8 - 2; }
    // Few keys, so that steps collide; some too long for a string object.
    std::string key() {
        const size_t length = byte() % 4 == 0 ? 40 : 1;
        return std::string(length, "abc"[byte() % 3]);
    }
};

void (*const kSteps[])(Program&, JSOM&) = {
    [](Program& p, JSOM& h) { p.put(h[p.key()]); },
    [](Program& p, JSOM& h) { p.put(h[p.index()]); },
    [](Program& p, JSOM& h) { p.put(std::as_const(h)[p.key()]); },
    [](Program& p, JSOM& h) { p.put(std::as_const(h)[p.index()]); },
    [](Program& p, JSOM& h) { p.put(h.at(h.stringValuePtr("a"))); },
    [](Program& p, JSOM& h) { p.put(h); },
    [](Program& p, JSOM& h) { writeText(h, p.one()); },
    [](Program& p, JSOM& h) { h.setLong(p.byte()); },
    [](Program& p, JSOM& h) { h.setDouble(p.byte() / 4.0L); },
    [](Program& p, JSOM& h) { h.setString(p.text()); },
    [](Program& p, JSOM& h) { h.erase(p.index()); },
    [](Program& p, JSOM& h) { h.erase(p.key()); },
    [](Program&, JSOM& h) { h.clear(); },
    [](Program& p, JSOM& h) { assign(h, p.one()); },
    [](Program& p, JSOM& h) { copy(h, p.one()); },
    [](Program& p, JSOM& h) {
        const JSOM& from = p.one();
        const std::string def = p.text();
        parse(h, from.stringValuePtr(def.c_str()), from.stringValuePtr(def.c_str()));
    },
    [](Program&, JSOM& h) { h.expandValues(); },
    [](Program&, JSOM& h) { mustHold(h.booleanValue(true) || h.hasNode(), "the default returns"); },
    [](Program& p, JSOM& h) {
        h.setBoolean(static_cast<long double>(h.longValue(1)) < h.doubleValue(p.byte()));
    }};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setenv("FUZZ", "value", 1);
    Program program(data, size);
    JSOM top;
    top.fromString(R"({"a":[1,{"b":"${FUZZ}"},"yes"],"b":-1.5,"c":"[{}]","a":null})");
    for (auto& handle : program.handles)
        handle = std::make_unique<JSOM>(top);
    // A copy into its own tree may double the tree at each step.
    while (!program.empty() && compact(top).size() < 2000)
        kSteps[program.byte() % std::size(kSteps)](program, program.one());
    for (const auto& handle : program.handles) {
        JSOM copy;
        copy.copy(*handle);
        mustHold(!handle->hasNode() || compact(copy) == compact(*handle), "a copy is equal");
        const int types = handle->isNull() + handle->isArray() + handle->isObject() +
                          handle->isString() + handle->isNumber() + handle->isBoolean();
        mustHold(types <= (handle->hasNode() ? 1 : 0), "a handle has one type at most");
    }
    return 0;
}
