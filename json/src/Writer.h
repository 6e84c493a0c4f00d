// The JSON text of a tree, once for every sink; for the .cpp files of this folder.
#pragma once

#include <algorithm>

#include "json/JSONData.h"

namespace tavrik {

// Writes a tree to a Sink, which has put(char) and write(const char*, size_t). The arrays and
// objects that are open at a place stand on a stack of its own, so trees may be of any depth.
template <typename Sink>
class JSONData::Writer {
  public:
    Writer(Sink& out, bool prettyForm, int doublePrecision, int topDepth)
        : sink(out), pretty(prettyForm), precision(doublePrecision), depth(topDepth) {}

    void write(const JSONData& top) {
        const JSONData* node = &top;
        do {
            begin(*node);
            closeFinished();
            node = next();
        } while (!opened.empty());
    }

  private:
    struct Open {
        const JSONData* node;
        int written;  // children
    };

    void begin(const JSONData& node) {
        if (node.isContainer()) {
            sink.put(node.type == kArray ? '[' : '{');
            opened.push_back({&node, 0});
            return;
        }
        scratch.clear();
        if (node.type == kString) {
            quoteJsonString(*node.value.text, scratch);
        } else {
            node.appendStringValue(scratch, precision);
        }
        sink.write(scratch.data(), scratch.size());
    }

    void closeFinished() {
        while (!opened.empty() && opened.back().written == opened.back().node->length()) {
            const char bracket = opened.back().node->type == kArray ? ']' : '}';
            opened.pop_back();
            lineBreak();
            sink.put(bracket);
        }
    }

    // Writes what stands in front of the next child; null when nothing is open any more.
    const JSONData* next() {
        if (opened.empty()) return nullptr;
        Open& parent = opened.back();
        if (parent.written != 0) sink.put(',');
        lineBreak();
        if (parent.node->type == kObject) key(*parent.node->getKeyAtIndex(parent.written));
        return parent.node->getByIndex(parent.written++);
    }

    void key(const std::string& text) {
        scratch.clear();
        quoteJsonString(text, scratch);
        scratch += pretty ? ": " : ":";
        sink.write(scratch.data(), scratch.size());
    }

    // In pretty form: a new line, indented for what is open.
    void lineBreak() {
        if (!pretty) return;
        static constexpr char kLineBreak[] = "\n                                                  ";
        const size_t level = opened.size() + static_cast<size_t>(std::max(depth, 0));
        sink.write(kLineBreak, std::min(1 + level, sizeof kLineBreak - 1));
    }

    Sink& sink;
    const bool pretty;
    const int precision;
    const int depth;
    std::vector<Open> opened{};
    std::string scratch{};
};

}  // namespace tavrik
