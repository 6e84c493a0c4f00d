#pragma once

#include <iosfwd>
#include <string>

#include "json/JSONData.h"

namespace tavrik {

// A handle on a place in a JSON tree: on the node that is there, or on where one would be.
//
//     JSOM config;
//     if (config.fromFile("loggers.json") == JSOM::JERROR) return;
//     const bool buffering = config["buffering"].booleanValue(true);
//     config["categories"]["DIAG"].setString("DEBUG");
//
// Reading never fails: what is missing reads as the caller's default. Writing makes what is
// missing, the containers on the way included. (So does looking beyond one level: config["a"]["b"]
// makes "a", an object.)
//
// Failures are printed to standard error as "JSOM::<operation>: <message>" and yield JERROR, false
// or nothing; nothing is thrown.
//
// Ownership: a handle holds a reference on its node and on the container of its place, so both
// outlive whatever happens to the tree. A copy of a handle shares them. Assignment copies content.
//
// Threads: none of its own. A tree, with all handles on it, is used by one thread at a time.
class JSOM {
  public:
    // What every failed operation yields, and a handle to read defaults from. Writing to JERROR
    // fails and leaves it as it is. These three are not to be read by static initialisers of other
    // files, which may run before they are set; the rest of the class may be used there.
    static JSOM& JERROR;
    static const JSOM& BLANK;
    static const std::string& EMPTY_STRING;
    static constexpr int defaultPrecision = 4;  // decimal places of doubles

    // No node, and no place for one: the first write makes a tree of its own.
    JSOM() = default;
    // On `node`; on nothing at all, for good, when it is null.
    explicit JSOM(JSONData* node);
    JSOM(JSONData* node, JSONData* parent);
    // On a place of `parent` that is empty as yet.
    JSOM(JSONData* parent, int index);
    JSOM(JSONData* parent, const char* key);
    JSOM(JSONData* parent, const std::string& key);
    JSOM(const JSOM& other);
    ~JSOM();

    // Makes the place that this handle views hold a deep copy of `other`'s node, which may stand in
    // the same tree. No effect when `other` has no node. JERROR when there is no place.
    JSOM& operator=(const JSOM& other);

    // Whether both are the same result: the same node or the same empty place, or both the error.
    // True for JERROR and whatever an operation yielded as JERROR, and for nothing else.
    bool operator==(const JSOM& other) const;
    bool operator!=(const JSOM& other) const { return !(*this == other); }

    // Handles on a member or element. A handle without a node gets one first, an object or array,
    // in its place, in which it replaces what has come there meanwhile; not so a const one, which
    // looks there first and stays as it is. An index of -1 is the place behind the last element.
    // JERROR, with a line printed, for a null key, any other index beyond
    // the end, and where no node can be made.
    JSOM operator[](const char* key) { return byKey("operator[](char *)", key); }
    JSOM operator[](const std::string& key) { return byKey("operator[](string &)", key); }
    JSOM operator[](int i) { return byIndex("operator[](int32_t)", i); }
    JSOM at(const char* key) { return byKey("at(char *)", key); }
    JSOM at(const std::string& key) { return byKey("at(string &)", key); }
    JSOM at(int i) { return byIndex("at(int32_t)", i); }
    JSOM operator[](const char* key) const { return looked()[key]; }
    JSOM operator[](const std::string& key) const { return looked()[key]; }
    JSOM operator[](int i) const { return looked()[i]; }
    JSOM at(const char* key) const { return looked().at(key); }
    JSOM at(const std::string& key) const { return looked().at(key); }
    JSOM at(int i) const { return looked().at(i); }

    // Whether there is a node, of whatever type.
    bool hasNode() const { return node() != nullptr; }
    // False without a node.
    bool isNull() const { return is(JSONData::kNull); }
    bool isArray() const { return is(JSONData::kArray); }
    bool isObject() const { return is(JSONData::kObject); }
    bool isString() const { return is(JSONData::kString); }
    bool isNumber() const { return is(JSONData::kLong) || is(JSONData::kDouble); }
    bool isBoolean() const { return is(JSONData::kBoolean); }

    // Number of members or elements; 0 for everything else.
    int size() const;
    // The key of member i; empty when there is none.
    std::string key(int i) const;

    // Set type and value, making the node if need be; do nothing where that is not possible.
    void setLong(long long value);
    void setDouble(long double value);
    void setBoolean(bool value);
    void setString(const char* value);
    void setString(const std::string& value);

    // A number from a number, a boolean, or a string that is nothing but a decimal number, with a
    // point only for doubleValue(); `def` from everything else.
    long long longValue(long long def) const;
    long double doubleValue(long double def) const;

    // A boolean from a boolean, a number (truncated: 0.5 is false), or, in any case of letters, the
    // strings true, yes, on, t, y, 1 and off, f, n, 0; `def` from everything else, "false" and "no"
    // among it. Beware: a string that was recognised becomes a boolean in the tree.
    bool booleanValue(bool def) const;

    // The text of a string, or "true" and "false"; `def` from everything else. The pointer is valid
    // until the node changes.
    std::string stringValue(const std::string& def = std::string()) const;
    const char* stringValuePtr(const char* def) const;

    // Makes the node a deep copy of `other`'s, which may stand in the same tree; the boolean false
    // when `other` has none.
    void copy(const JSOM& other);

    // As those of JSONData; nothing without a node.
    void clear();
    void erase(int i);
    void erase(const char* key);
    void erase(const std::string& key);

    // Append the text, one value to a line or without any blank; nothing without a node.
    void toString(std::string& out, int precision = defaultPrecision) const;
    void toCompactString(std::string& out, int precision = defaultPrecision) const;

    // Parse into the node, making it if need be; see JSONData::setFromJsonString() for the dialect
    // and for what is left in it on failure. This handle, or JERROR for a null or faulty text, with
    // a line printed where there was a text at all.
    JSOM& fromString(const char* text);
    JSOM& fromString(const std::string& text);
    // As above with the text of a regular file. JERROR, with a line printed, when the file cannot
    // be read; never waits for a pipe.
    JSOM& fromFile(const char* path);
    // As above; a stream that has failed already changes nothing and is no error here.
    JSOM& fromStream(std::istream& in);

    // Write the text to a new or emptied file. True once the file was opened, false with a line
    // printed when it could not be. What the disk has no room for is missing from the file.
    bool toFile(const char* path, int precision = defaultPrecision) const;
    bool toCompactFile(const char* path, int precision = defaultPrecision) const;
    // The compact text, with the stream's precision; nothing without a node.
    void toStream(std::ostream& out) const;

    // Replaces each ${NAME} in the strings of this tree, keys apart, by that environment variable.
    // One that is not set stays as it stands; what was inserted is not looked at again.
    void expandValues();

  private:
    enum Kind { kEmpty, kNode, kPendingKeyPointer, kPendingKey, kPendingIndex, kNothing };
    struct ErrorMark {};

    explicit JSOM(ErrorMark) : kind(kNothing), error(true) {}
    static JSOM& errorHandle();
    static void print(const char* operation, const std::string& message);

    JSONData* node() const { return kind == kNode ? held : nullptr; }
    bool is(int type) const { return node() != nullptr && node()->getType() == type; }
    // Where `operation` stands, it is the name that messages give.

    // Makes a node in this handle's place. False, with a line printed, when there is none.
    bool makeInfoNode(const char* operation);
    bool needNode(const char* operation) { return node() != nullptr || makeInfoNode(operation); }
    // This handle, or one on the node that its place has got meanwhile.
    JSOM looked() const;
    // Makes the node a deep copy of `original`. False, with a line printed, when there is no place.
    bool takeCopy(const char* operation, const JSONData& original);
    JSOM byKey(const char* operation, const char* key);
    JSOM byKey(const char* operation, const std::string& key);
    JSOM byIndex(const char* operation, int i);
    JSOM& parse(const char* operation, const char* text);
    bool write(const char* operation, const char* path, const std::string& text) const;

    static void _expandValues(JSOM& top);
    static void _expandString(JSOM& text);

    // The container of the place, one reference held, or null.
    JSONData* parent = nullptr;
    Kind kind = kEmpty;
    // By kind: the node, one reference held; the key, a copy; the index, -1 in the others.
    JSONData* held = nullptr;
    std::string pendingKey{};
    int pendingIndex = -1;
    // Whether this is JERROR or a copy of it.
    bool error = false;
};

}  // namespace tavrik
