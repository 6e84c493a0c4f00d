// The JSON text of a tree, once for every sink; for the .cpp files of this folder.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "json/JSONData.h"

namespace tavrik {

// Appends to a string, many pieces at a time. flush() appends the last of them.
class StringSink {
  public:
    explicit StringSink(std::string& out) : text(out) {}

    void put(char character) {
        if (used == sizeof buffer) flush();
        buffer[used++] = character;
    }
    void write(const char* data, size_t size) {
        if (size > sizeof buffer - used) flush();
        if (size > sizeof buffer) {
            text.append(data, size);
            return;
        }
        std::memcpy(buffer + used, data, size);
        used += size;
    }
    void flush() { text.append(buffer, std::exchange(used, 0)); }

  private:
    std::string& text;
    size_t used = 0;
    char buffer[512];
};

// What stands behind the backslash in front of which a character is written, 0 if it needs none.
using Escapes = std::array<char, 256>;
constexpr Escapes makeEscapes() {
    Escapes all{};
    all['\b'] = 'b';
    all['\f'] = 'f';
    all['\n'] = 'n';
    all['\r'] = 'r';
    all['\t'] = 't';
    all['"'] = '"';
    all['\\'] = '\\';
    return all;
}

// Writes a text in quotes, runs of characters without escapes in one piece.
template <typename Sink>
void writeQuoted(const std::string& text, Sink& sink) {
    static constexpr Escapes kEscapes = makeEscapes();
    sink.put('"');
    const char* run = text.data();
    const char* const end = run + text.size();
    for (const char* at = run; at != end; ++at) {
        const char escape = kEscapes[static_cast<unsigned char>(*at)];
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
        size_t written, count;  // children
    };

    void begin(const JSONData& node) {
        if (node.isContainer()) {
            sink.put(node.type == kArray ? '[' : '{');
            opened.push_back({&node, 0, static_cast<size_t>(node.length())});
            return;
        }
        if (node.type == kString) return writeQuoted(node.value.text, sink);
        scratch.clear();
        node.appendStringValue(scratch, precision);
        sink.write(scratch.data(), scratch.size());
    }

    void closeFinished() {
        while (!opened.empty() && opened.back().written == opened.back().count) {
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
        const size_t i = parent.written++;
        if (parent.node->type == kArray) return parent.node->value.elements[i];
        const entry& member = parent.node->value.members.list[i];
        key(member.key);
        return member.value;
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
