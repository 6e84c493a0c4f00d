#pragma once

#include <iosfwd>
#include <string>

#include "json/JSONData.h"

namespace tavrik {

// A handle on a place in a JSON tree: on a node, or on a place for one.
//
//     JSOM config;
//     if (config.fromFile("loggers.json") == JSOM::JERROR) return;
//     const bool buffering = config["buffering"].booleanValue(true);
//     config["categories"]["DIAG"].setString("DEBUG");
//
// Reading a missing value returns the caller's default. Writing creates missing nodes and the
// containers on the way. So does indexing beyond one level: config["a"]["b"] creates the object
// "a".
//
// Operations print failures to standard error as "JSOM::<operation>: <message>" and return JERROR,
// false or nothing. They throw nothing.
//
// Ownership: a handle holds references on its node and on the container of its place. Copies of a
// handle share them. Assignment copies content.
//
// Threads: not synchronised. One thread at a time uses a tree and its handles.
class JSOM {
  public:
    // JERROR is the result of failed operations; writing to it fails. BLANK reads as defaults.
    // Static initialisers of other files must not read these three: they may run first. They may
    // use the rest of the class.
    static JSOM& JERROR;
    static const JSOM& BLANK;
    static const std::string& EMPTY_STRING;
    static constexpr int defaultPrecision = 4;  // decimal places of doubles

    // Without a node or a place: the first write creates a tree.
    JSOM() = default;
    // On `node`. On nothing, for good, if it is null.
    explicit JSOM(JSONData* node);
    JSOM(JSONData* node, JSONData* parent);
    // On an empty place of `parent`.
    JSOM(JSONData* parent, int index);
    JSOM(JSONData* parent, const char* key);
    JSOM(JSONData* parent, const std::string& key);
    JSOM(const JSOM& other);
    ~JSOM();

    // Puts a deep copy of `other`'s node, which may be in the same tree, into this place. Does
    // nothing if `other` has no node. Returns JERROR if there is no place.
    JSOM& operator=(const JSOM& other);

    // True if both are on the same node or the same empty place, or both are the error. A handle
    // equals JERROR exactly if a failed operation returned it.
    bool operator==(const JSOM& other) const;
    bool operator!=(const JSOM& other) const { return !(*this == other); }

    // Return a handle on a member or element. A handle without a node first creates an object or
    // array in its place, and replaces a node that was put there since. A const handle uses such a
    // node instead and does not change. Index -1 is the place behind the last element. Return
    // JERROR, with a line printed, for a null key, for other indices beyond the end, and if no node
    // can be created.
    JSOM operator[](const char* key) { return byKey("operator[](char *)", key); }
    JSOM operator[](const std::string& key) { return byKey("operator[](string &)", key); }
    JSOM operator[](int i) { return byIndex("operator[](int32_t)", i); }
    JSOM at(const char* key) { return byKey("at(char *)", key); }
    JSOM at(const std::string& key) { return byKey("at(string &)", key); }
    JSOM at(int i) { return byIndex("at(int32_t)", i); }
    JSOM operator[](const char* key) const { return resolved()[key]; }
    JSOM operator[](const std::string& key) const { return resolved()[key]; }
    JSOM operator[](int i) const { return resolved()[i]; }
    JSOM at(const char* key) const { return resolved().at(key); }
    JSOM at(const std::string& key) const { return resolved().at(key); }
    JSOM at(int i) const { return resolved().at(i); }

    // True if there is a node, of any type.
    bool hasNode() const { return node() != nullptr; }
    // False without a node.
    bool isNull() const { return is(JSONData::kNull); }
    bool isArray() const { return is(JSONData::kArray); }
    bool isObject() const { return is(JSONData::kObject); }
    bool isString() const { return is(JSONData::kString); }
    bool isNumber() const { return is(JSONData::kLong) || is(JSONData::kDouble); }
    bool isBoolean() const { return is(JSONData::kBoolean); }

    // Returns the number of members or elements; 0 otherwise.
    int size() const;
    // Returns the key of member i; empty if there is none.
    std::string key(int i) const;

    // Set type and value. Create the node if needed; do nothing if that is impossible.
    void setLong(long long value);
    void setDouble(long double value);
    void setBoolean(bool value);
    void setString(const char* value);
    void setString(const std::string& value);

    // Return the number of a number, a boolean, or a string that is a decimal number, with a point
    // only for doubleValue(). Return `def` otherwise.
    long long longValue(long long def) const;
    long double doubleValue(long double def) const;

    // Returns the boolean of a boolean, a number (truncated: 0.5 is false) or, ignoring case, the
    // strings true, yes, on, t, y, 1 and off, f, n, 0. Returns `def` otherwise, also for "false"
    // and "no". Side effect: such a string becomes a boolean in the tree.
    bool booleanValue(bool def) const;

    // Return the text of a string, or "true" or "false" for a boolean. Return `def` otherwise. The
    // pointer is valid until the node changes.
    std::string stringValue(const std::string& def = std::string()) const;
    const char* stringValuePtr(const char* def) const;

    // Becomes a deep copy of `other`'s node, which may be in the same tree; false if `other` has
    // none.
    void copy(const JSOM& other);

    // As those of JSONData; nothing without a node.
    void clear();
    void erase(int i);
    void erase(const char* key);
    void erase(const std::string& key);

    // Append the text, one value a line or without blanks. Append nothing without a node.
    void toString(std::string& out, int precision = defaultPrecision) const;
    void toCompactString(std::string& out, int precision = defaultPrecision) const;

    // Parse into the node, which is created if needed. See JSONData::setFromJsonString() for the
    // dialect and for failures. Return this handle, or JERROR for a null or faulty text; faults are
    // printed.
    JSOM& fromString(const char* text);
    JSOM& fromString(const std::string& text);
    // As above, from a regular file. Returns JERROR, with a line printed, if the file cannot be
    // read. Does not wait for a pipe.
    JSOM& fromFile(const char* path);
    // As above, from a stream. Does nothing, and returns this handle, if the stream has failed.
    JSOM& fromStream(std::istream& in);

    // Write the text to a new or truncated file. Return true if the file was opened, even if the
    // disk is full then. Return false, with a line printed, if not.
    bool toFile(const char* path, int precision = defaultPrecision) const;
    bool toCompactFile(const char* path, int precision = defaultPrecision) const;
    // The compact text, with the stream's precision; nothing without a node.
    void toStream(std::ostream& out) const;

    // Replaces each ${NAME} in the strings of this tree, but not in keys, by that environment
    // variable. Keeps the text if it is not set. Does not expand inserted values.
    void expandValues();

  private:
    enum Kind { kEmpty, kNode, kPendingKeyPointer, kPendingKey, kPendingIndex, kNothing };
    struct ErrorMark {};

    explicit JSOM(ErrorMark) : kind(kNothing), error(true) {}
    static JSOM& errorHandle();
    static void print(const char* operation, const std::string& message);

    JSONData* node() const { return kind == kNode ? held : nullptr; }
    bool is(int type) const { return node() != nullptr && node()->getType() == type; }
    // Creates a node in this place. False, with a line printed, if there is no place. `operation`,
    // here and below, is the name in messages.
    bool makeInfoNode(const char* operation);
    bool needNode(const char* operation) { return node() != nullptr || makeInfoNode(operation); }
    // Returns this handle, or one on the node that was put into its place since.
    JSOM resolved() const;
    // Makes the node a deep copy of `original`. False, with a line printed, if there is no place.
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
