#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace tavrik {

// One value of a JSON tree, with a parser and a writer. Programs use it through JSOM, a handle that
// never fails loudly.
//
// Ownership: counted. new JSONData counts its maker, who release()s it; a parent counts for each of
// its children; the last release() deletes the node and gives its children up. A node may have
// several parents, but circles are neither prevented nor ever freed. Pointers to children, keys and
// strings stay valid until their node changes.
//
// Threads: none of its own. A tree, its counts included, is used by one thread at a time.
//
// Trees may be of any depth: nothing here recurses.
//
// Strings are bytes; no encoding is looked at.
class JSONData {
  public:
    // kNone is a fresh or reset node; it writes nothing.
    enum Type : uint16_t { kNone, kNull, kBoolean, kObject, kArray, kString, kLong, kDouble };

    // A member of an object.
    struct entry {
        std::string key;
        JSONData* value;  // holds one reference
    };

    JSONData() { value.integer = 0; }
    // Gives up the children. Nobody else may hold a reference.
    ~JSONData() { reset(); }
    JSONData(const JSONData&) = delete;
    JSONData& operator=(const JSONData&) = delete;

    void reserve() { ++refCount; }
    // Deletes the node when this was the last reference.
    void release();

    // A new type empties the node: no members, no elements, "", 0 or false. The present type
    // changes nothing.
    void setType(int newType);
    int getType() const { return type; }

    // Set type and value. A text may be one that this tree holds; a null pointer is an empty text.
    void setNull() { setType(kNull); }
    void setObject() { setType(kObject); }
    void setArray() { setType(kArray); }
    void setBoolean(bool newValue);
    void setLong(long long newValue);
    void setDouble(long double newValue);
    void setString(const std::string& newValue);
    void setString(const char* newValue);

    // Gives up all content; the type becomes kNone.
    void reset();
    // Gives up the members or elements, the last one first; other types keep their value.
    void clear();

    // Number of members or elements; 0 for other types.
    int length() const;

    // The value of element or member i, in the order of insertion; null when there is none.
    JSONData* getByIndex(int i) const;

    // The value of the last member with exactly this key; null when there is none, or no object.
    JSONData* getByKey(const std::string& key) const;
    JSONData* getByKey(const char* key) const;

    // The key of member i; null when there is none, or no object.
    const std::string* getKeyAtIndex(int i) const;

    // The first byte of the value, whatever its type.
    bool booleanValue() const;
    // Number or boolean as a number, truncated toward zero; what 64 bits cannot hold becomes the
    // nearest that they can, not-a-number 0. 0 for other types.
    long long longValue() const;
    // Number or boolean as a number; 0.0 for other types.
    long double doubleValue() const;
    // Null for other types.
    const std::string* stringValue() const;

    // Make the last member with this key hold `newValue`, or append one; null removes it. A node of
    // another type becomes an object and loses its content. Takes a reference of its own.
    void setByKey(const std::string& key, JSONData* newValue);
    void setByKey(const char* key, JSONData* newValue);

    // Makes element i hold `newValue` (i == length() appends) and takes a reference of its own. A
    // node of another type becomes an array and loses its content. Another i is printed as "index
    // out of range". A null `newValue` removes element i, if this is an array that has it.
    void setByIndex(int i, JSONData* newValue);

    // Remove element or member i, or the last member with this key; nothing when there is none.
    void erase(int i);
    void erase(const std::string& key);
    void erase(const char* key);

    // A deep copy whose top nobody holds yet: reserve() it.
    JSONData* clone() const;

    // Becomes a deep copy of `other`, which may be this node, one above it or one below it.
    void copy(const JSONData& other);

    // Exchanges type and content with another node; each keeps its holders.
    void swap(JSONData& other);

    // Parse one value from a text or a stream into this node, up to the end of that value; what
    // stands behind it is not looked at. A text ends at its first zero byte. An object or array is
    // parsed into the object or array that is there: members and elements accumulate.
    //
    // False on failure, with what was complete so far left in the node and one line printed to
    // standard error; nothing is printed where the text ended before a value began. `text` is then
    // somewhere in what was wrong.
    //
    // Comments and a comma behind the last member or element are allowed; exponents are not; \u
    // gives one byte; integers wrap at 64 bits; duplicate keys are kept, see getByKey().
    bool setFromJsonString(const char*& text);
    bool setFromJsonStlString(const std::string& text);
    bool setFromStream(std::istream& in);

    // Append this value's text to `out`: compact, or one value to a line and one blank for each
    // level (50 at most). `precision`, for doubles, see appendStringValue(). `depth` is the level
    // at which the value stands. toJsonString() clears `out` first.
    void appendJsonString(std::string& out, bool pretty, int precision, int depth) const;
    void toJsonString(std::string& out, bool pretty, int precision) const;

    // Writes the compact text to a stream, with the stream's precision.
    void appendStream(std::ostream& out) const;

    // Appends the text of a scalar that is not a string; nothing for other types. A double gets
    // `precision` decimal places (6 when that is negative), of which trailing zeros are cut. Beware
    // of precision 0: 100.0 gives "1".
    void appendStringValue(std::string& out, int precision) const;

    // Appends `in` in quotes. Control characters without an escape of their own stay as they are.
    static void quoteJsonString(const std::string& in, std::string& out);

  private:
    struct Token;
    struct Release;
    template <typename Source>
    class Parser;
    template <typename Sink>
    class Writer;

    // For Source see src/Decimal.h.

    // Skips blanks and comments and looks at what begins there, without taking it. False when
    // nothing that JSON knows begins there.
    template <typename Source>
    static bool fetchNextType(Source& source, Token& token);
    // Reads a text in quotes into `out`.
    template <typename Source>
    static bool parseJsonString(Source& source, std::string& out);
    template <typename Source>
    bool parseJsonNumberIntoSelf(Source& source);

    bool isContainer() const { return type == kObject || type == kArray; }
    bool has(int i) const { return i >= 0 && i < length(); }
    // Index of the last member with this key, or -1.
    int find(const std::string& key) const;
    // Appends a member or element whose reference passes to this node.
    void adopt(const std::string& key, JSONData* child);
    void adopt(JSONData* child) { value.elements->push_back(child); }
    // Moves the children, with their references, behind those in `children`; none are left here.
    void moveChildrenTo(std::vector<JSONData*>& children);
    static void releaseAll(std::vector<JSONData*>& children);
    // Makes this node, fresh as it is, like `other`, with new fresh nodes for the children.
    void copyShallow(const JSONData& other);

    union Value {
        unsigned char boolean;
        long long integer;
        double real;
        std::string* text;
        std::vector<entry*>* members;
        std::vector<JSONData*>* elements;
    };

    uint16_t type = kNone;
    uint32_t refCount = 1;  // parents, handles and whoever made it
    Value value;
};

}  // namespace tavrik
