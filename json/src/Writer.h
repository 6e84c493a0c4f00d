// The JSON text of a tree, once for every sink; for the .cpp files of this folder.
#pragma once

#include <algorithm>

#include "json/JSONData.h"

namespace tavrik {

struct StringSink {
    std::string& text;
    void put(char character) { text += character; }
    void write(const char* data, size_t size) { text.append(data, size); }
};

// What stands behind the backslash in front of which a character is written, 0 if it needs none.
inline char escapeOf(char character) {
    // Nearly all.
    if (character > '"' && character != '\\') return 0;
    switch (character) {
        case '\b':
            return 'b';
        case '\f':
            return 'f';
        case '\n':
            return 'n';
        case '\r':
            return 'r';
        case '\t':
            return 't';
        case '"':
        case '\\':
            return character;
        default:
            return 0;
    }
}

// Writes a text in quotes, runs of characters without escapes in one piece.
template <typename Sink>
void writeQuoted(const std::string& text, Sink& sink) {
    sink.put('"');
    const char* run = text.data();
    const char* const end = run + text.size();
    for (const char* at = run; at != end; ++at) {
        const char escape = escapeOf(*at);
        if (escape == 0) continue;
        sink.write(run, static_cast<size_t>(at - run));
        sink.put('\\');
        sink.put(escape);
        run = at + 1;
    }
    sink.write(run, static_cast<size_t>(end - run));
    sink.put('"');
}

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
        if (node.type == kString) return writeQuoted(node.value.text, sink);
        scratch.clear();
        node.appendStringValue(scratch, precision);
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
        writeQuoted(text, sink);
        sink.put(':');
        if (pretty) sink.put(' ');
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
