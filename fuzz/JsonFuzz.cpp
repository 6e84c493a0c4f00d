// Fed: a JSON text. Must hold:
// - the parsers from text and from stream agree: result, tree, and what they leave unread;
// - clones and copies have the text of the original; expanding values twice is expanding them once;
// - what is written, compact or pretty, and parsed again has the same text (but see survives()).
#include <cmath>
#include <sstream>

#include "fuzz/Support.h"
#include "json/JSOM.h"

using namespace tavrik;
using fuzz::mustHold;

namespace {

// The text; with `places`, which are more than the parser reads, doubles are equal if it is.
constexpr int kPlaces = 60, few = JSOM::defaultPrecision;
std::string written(const JSONData& node, int precision = kPlaces, bool pretty = false) {
    std::string text;
    node.appendJsonString(text, pretty, precision, 0);
    return text;
}

bool hasZero(const std::string* text) { return text && text->find('\0') != std::string::npos; }

// Whether the text of the tree can say what stands in it. It cannot say a zero byte, which ends a
// text, nor "-0"; and of large doubles the parser, which adds digit after digit, rounds the places.
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
    mustHold(streamed.setFromStream(in) == good && !in.fail(), "the parsers agree on the verdict");
    const std::string tree = written(node);
    mustHold(written(streamed) == tree, "the parsers agree on the tree");
    mustHold(!good || in.rdbuf()->in_avail() == text.c_str() + text.size() - rest, "and the rest");
    checkCopies(node, tree);
    for (const bool pretty : {false, true}) {
        JSONData again;
        if (!good || !survives(node)) break;
        mustHold(again.setFromJsonStlString(written(node, few, pretty)), "it can be read again");
        mustHold(written(again, few) == written(node, few), "and says the same");
    }
    return 0;
}
