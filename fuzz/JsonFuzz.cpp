// Input: a JSON text. Checks:
// - the parsers of text and stream agree on result, tree and unread rest;
// - clones and copies print the same text; expanding values twice equals expanding them once;
// - printed text, compact or pretty, parses to a tree that prints the same (but see survives()).
#include <cmath>
#include <sstream>

#include "fuzz/Support.h"
#include "json/JSOM.h"

using namespace tavrik;
using fuzz::mustHold;

namespace {

// The printed text. kPlaces is more than the parser reads: equal texts mean equal doubles.
constexpr int kPlaces = 60, kFewPlaces = JSOM::defaultPrecision;
std::string written(const JSONData& node, int precision = kPlaces, bool pretty = false) {
    std::string text;
    node.appendJsonString(text, pretty, precision, 0);
    return text;
}

bool hasZero(const std::string* text) { return text && text->find('\0') != std::string::npos; }

// Whether the printed text has all of the tree. A zero byte ends a text, -0 has none, and the
// parser rounds large doubles.
bool survives(const JSONData& top) {
    std::vector<const JSONData*> pending{&top};
    while (!pending.empty()) {
        const JSONData& node = *pending.back();
        pending.pop_back();
        if (hasZero(node.stringValue())) return false;
        const long double value = node.doubleValue();
        const bool isDouble = node.getType() == JSONData::kDouble;
        if (isDouble && (std::abs(value) > 1e9 || (value > -1e-4 && std::signbit(value))))
            return false;
        for (int i = 0; i < node.length(); ++i) {
            if (hasZero(node.getKeyAtIndex(i))) return false;
            pending.push_back(node.getByIndex(i));
        }
    }
    return true;
}

void checkCopies(JSONData& node, const std::string& text) {
    JSONData* const clone = node.clone();
    JSOM holder(clone), assigned, copied;
    copied.copy(assigned = holder);
    std::string copy;
    copied.toCompactString(copy, kPlaces);
    mustHold(copy == text && written(*clone) == text, "copies are equal");
    holder.expandValues();
    const std::string once = written(*clone);
    holder.expandValues();
    mustHold(written(*clone) == once, "expanded once is expanded");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setenv("FUZZ", "value", 1);
    const std::string text(data, data + size);
    const char* rest = text.c_str();
    std::istringstream in(text);
    JSONData node, streamed;
    const bool good = node.setFromJsonString(rest);
    mustHold(streamed.setFromStream(in) == good && !in.fail(), "the parsers agree on the result");
    const std::string tree = written(node);
    mustHold(written(streamed) == tree, "the parsers agree on the tree");
    mustHold(!good || in.rdbuf()->in_avail() == text.c_str() + text.size() - rest,
             "the parsers agree on the rest");
    checkCopies(node, tree);
    for (const bool pretty : {false, true}) {
        JSONData again;
        if (!good || !survives(node)) break;
        mustHold(again.setFromJsonStlString(written(node, kFewPlaces, pretty)),
                 "printed text can be parsed");
        mustHold(written(again, kFewPlaces) == written(node, kFewPlaces),
                 "parsed text prints the same");
    }
    return 0;
}
