// The JSON grammar, once for every source of characters; for the .cpp files of this folder.
#pragma once

#include <array>
#include <cstdio>
#include <iterator>
#include <utility>

#include "json/JSONData.h"
#include "json/src/Decimal.h"
#include "json/src/MemberIndex.h"
#include "json/src/NodeSource.h"

namespace tavrik {

// What begins at a place: the type of a value, kLong for every number, or one of the flags. `end`
// goes with the type of what it closes.
struct JSONData::Token {
    Type type = kNone;
    bool comma = false;
    bool colon = false;
    bool end = false;
    bool known = false;  // whether anything begins with that character

    // By the character.
    using Table = std::array<Token, 256>;
    static constexpr Table makeTable() {
        Table all{};
        for (Token& token : all)
            token.type = kLong;
        for (size_t digit = '0'; digit <= '9'; ++digit)
            all[digit].known = true;
        all['-'] = all['+'] = {kLong, false, false, false, true};
        all['"'] = {kString, false, false, false, true};
        all['['] = {kArray, false, false, false, true};
        all[']'] = {kArray, false, false, true, true};
        all['{'] = {kObject, false, false, false, true};
        all['}'] = {kObject, false, false, true, true};
        all['t'] = all['f'] = {kBoolean, false, false, false, true};
        all['n'] = {kNull, false, false, false, true};
        all[','] = {kNone, true, false, false, true};
        all[':'] = {kNone, false, true, false, true};
        return all;
    }

    static const Token kNothing;

    bool closes(int container) const { return end && type == container; }
    bool beginsValue() const { return !comma && !colon && !end; }
};

inline constexpr JSONData::Token JSONData::Token::kNothing{};

// Takes the text of a comment behind its first slash, to the end of the line or the closing mark.
template <typename Source>
bool skipComment(Source& source) {
    const bool line = source.peek() == '/';
    source.advance();
    while (source.peek() != 0) {
        const int last = source.peek();
        source.advance();
        if (line ? last == '\n' : last == '*' && accept(source, '/')) return true;
    }
    return false;
}

// False at a slash that begins no comment and where a comment does not end.
template <typename Source>
bool skipBlanksAndComments(Source& source) {
    for (;;) {
        const int character = source.peek();
        if (character == '/') {
            source.advance();
            if (source.peek() != '/' && source.peek() != '*') {
                source.back();
                return false;
            }
            if (!skipComment(source)) return false;
        } else if (character == '\t' || character == '\n' || character == '\r' ||
                   character == ' ') {
            source.advance();
        } else {
            return true;
        }
    }
}

template <typename Source>
bool JSONData::fetchNextType(Source& source, const Token*& token) {
    static constexpr Token::Table kTokens = Token::makeTable();
    token = &kTokens[static_cast<size_t>(source.peek())];
    // Nearly always there is nothing to skip.
    if (token->known) return true;
    token = skipBlanksAndComments(source) ? &kTokens[static_cast<size_t>(source.peek())]
                                          : &Token::kNothing;
    return token->known;
}

// The value of a hexadecimal digit, or -1. Upper-case letters count from 5 on: writers of this
// dialect rely on it.
inline int hexDigit(int character) {
    if (isDigit(character)) return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    if (character >= 'A' && character <= 'F') return character - 60;
    return -1;
}

// Reads the four digits of a \u escape; of their value only the low byte is kept.
template <typename Source>
bool readHexEscape(Source& source, std::string& out) {
    unsigned code = 0;
    for (int i = 0; i < 4; ++i) {
        const int digit = hexDigit(source.peek());
        if (digit < 0) return false;
        code = code * 16 + static_cast<unsigned>(digit);
        source.advance();
    }
    out += static_cast<char>(code & 0xFF);
    return true;
}

// Reads what stands behind a backslash.
template <typename Source>
bool readEscape(Source& source, std::string& out) {
    const int character = source.peek();
    if (character == 0) return false;
    source.advance();
    switch (character) {
        case 'b':
            out += '\b';
            return true;
        case 'f':
            out += '\f';
            return true;
        case 'n':
            out += '\n';
            return true;
        case 'r':
            out += '\r';
            return true;
        case 't':
            out += '\t';
            return true;
        case '"':
        case '\\':
        case '/':
            out += static_cast<char>(character);
            return true;
        case 'u':
            return readHexEscape(source, out);
        default:
            return false;
    }
}

template <typename Source>
bool JSONData::parseJsonString(Source& source, std::string& out) {
    out.clear();
    if (!accept(source, '"')) return false;
    for (;;) {
        source.takePlain(out);
        if (accept(source, '"')) return true;
        if (!accept(source, '\\') || !readEscape(source, out)) return false;
    }
}

template <typename Source>
bool JSONData::parseJsonNumberIntoSelf(Source& source) {
    Decimal number;
    if (!readDecimal(source, number)) return false;
    setType(number.hasPoint ? kDouble : kLong);
    if (number.hasPoint) {
        value.real = number.real;
    } else {
        value.integer = number.integer;
    }
    return true;
}

// Parses one value. The arrays and objects that are open at a place stand on a stack of its own, so
// that a hostile text cannot use up the thread's.
//
// Children wait on a stack, too, until their parent ends: then their number is known. A failure
// frees the one that was under way and leaves the complete ones where they belong.
template <typename Source>
class JSONData::Parser {
  public:
    // `operation` is what messages name.
    Parser(Source& characters, const char* operation_)
        : source(characters), operation(operation_) {}

    bool parse(JSONData& top) {
        JSONData* target = &top;
        while (readValue(*target) && findNextValue(target)) {
            if (target == nullptr) return true;
        }
        for (; !opened.empty(); close())
            dropChild();
        return false;
    }

  private:
    struct Open {
        JSONData* node;
        size_t begin;         // of its children among those that wait
        bool inside = false;  // whether the last of them is under way
        bool isArray() const { return node->type == kArray; }
    };

    bool fail(const char* message) const {
        fprintf(stderr, "JSONData::%s: %s\n", operation, message);
        return false;
    }

    // Reads a scalar, or opens an array or object.
    bool readValue(JSONData& node) {
        const bool found = std::exchange(isFetched, false) || fetchNextType(source, next);
        if (!found || !next->beginsValue()) {
            return source.peek() != 0 && fail("syntax error: missing value");
        }
        switch (next->type) {
            case kNull:
                return readNull(node);
            case kBoolean:
                return readBoolean(node);
            case kString:
                return readString(node);
            case kLong:
                return node.parseJsonNumberIntoSelf(source) || fail("syntax error: invalid number");
            default:
                return open(node, next->type);
        }
    }

    bool literal(const char* word) {
        while (*word != '\0' && accept(source, *word))
            ++word;
        return *word == '\0';
    }

    bool readNull(JSONData& node) {
        if (!literal("null")) return fail("syntax error: invalid null value");
        node.setNull();
        return true;
    }

    bool readBoolean(JSONData& node) {
        const bool isTrue = source.peek() == 't';
        if (!literal(isTrue ? "true" : "false")) return fail("syntax error: invalid boolean value");
        node.setBoolean(isTrue);
        return true;
    }

    bool readString(JSONData& node) {
        // Apart from a string that the node has, of which the source may be reading.
        std::string apart;
        const bool isNew = node.type == kNone;
        if (isNew) node.setType(kString);
        const bool good = parseJsonString(source, isNew ? node.value.text : apart);
        if (!isNew) node.takeString(std::move(apart));
        return good || fail("syntax error: invalid string");
    }

    bool open(JSONData& node, Type container) {
        source.advance();
        become(node, container);
        if (opened.capacity() == 0) makeRoom();
        opened.push_back({&node, container == kArray ? elements.size() : members.size()});
        return true;
    }

    // For most texts all that is needed.
    void makeRoom() {
        opened.reserve(8);
        elements.reserve(16);
        members.reserve(16);
    }

    // Sets the type. What the top node held stays alive to the end of the parse: the text that is
    // being parsed may be part of it.
    void become(JSONData& node, Type wanted) {
        if (node.type != kNone && node.type != wanted) node.swap(retired);
        node.setType(wanted);
    }

    // Called when a value has been read: closes what ends behind it and makes the next place for a
    // value the target, null when the top value is complete.
    bool findNextValue(JSONData*& target) {
        for (target = nullptr; !opened.empty(); close()) {
            Open& innermost = opened.back();
            bool closed = false;
            if (innermost.inside && !finishChild(innermost, closed)) return false;
            if (!closed && !beginChild(innermost, closed, target)) return false;
            if (!closed) break;
        }
        return true;
    }

    // Behind the value of a child: a comma, or the end of its parent.
    bool finishChild(Open& parent, bool& closed) {
        // Nearly always there is a comma, and no blank in front of it.
        if (!accept(source, ',')) {
            const Token* token = nullptr;
            fetchNextType(source, token);
            closed = token->closes(parent.node->type);
            if (!closed && !token->comma) {
                return fail(parent.isArray() ? "syntax error: array comma or end expected"
                                             : "syntax error: object comma or end expected");
            }
            source.advance();
        }
        parent.inside = false;
        return true;
    }

    // In front of a child: its value, behind its key in an object, or the end of its parent.
    bool beginChild(Open& parent, bool& closed, JSONData*& target) {
        const bool found = fetchNextType(source, next);
        closed = next->closes(parent.node->type);
        if (closed) {
            source.advance();
            return true;
        }
        if (!found || next->end) {
            return fail(parent.isArray() ? "syntax error: array not closed"
                                         : "syntax error: object not closed");
        }
        target = nodes.make();
        parent.inside = true;
        isFetched = parent.isArray();
        if (parent.isArray()) {
            elements.push_back(target);
            return true;
        }
        entry& member = members.emplace_back();
        member.value = target;
        return readKey(*next, member.key);
    }

    // Gives the innermost container its children.
    void close() {
        const Open& parent = opened.back();
        if (parent.isArray()) {
            hand(elements, parent.begin, parent.node->value.elements);
        } else {
            hand(members, parent.begin, parent.node->value.members.list);
            parent.node->value.members.index.reset();
        }
        opened.pop_back();
    }

    template <typename T>
    void hand(std::vector<T>& waiting, size_t begin, List<T>& children) {
        nodes.reserve(children, waiting.size() - begin);
        const auto first = waiting.begin() + static_cast<std::ptrdiff_t>(begin);
        children.insert(children.end(), std::make_move_iterator(first),
                        std::make_move_iterator(waiting.end()));
        waiting.erase(first, waiting.end());
    }

    // Frees the child of the innermost container that is under way, if there is one.
    void dropChild() {
        if (!opened.back().inside) return;
        if (opened.back().isArray()) {
            elements.back()->release();
            elements.pop_back();
        } else {
            members.back().value->release();
            members.pop_back();
        }
    }

    bool readKey(const Token& begin, std::string& key) {
        if (begin.type != kString) return fail("syntax error: object key must be a string");
        if (!parseJsonString(source, key))
            return fail("syntax error: invalid string for object key");
        if (accept(source, ':')) return true;
        const Token* token = nullptr;
        if (!fetchNextType(source, token) || !token->colon) {
            return fail("syntax error: object colon expected");
        }
        source.advance();
        return true;
    }

    Source& source;
    const char* const operation;
    const Token* next = nullptr;  // what was fetched last
    bool isFetched = false;       // and begins the value that is read next
    NodeSource nodes{};
    std::vector<Open> opened{};
    std::vector<JSONData*> elements{};  // of arrays that are open
    std::vector<entry> members{};       // of objects that are open
    JSONData retired{};
};

}  // namespace tavrik
