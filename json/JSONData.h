#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tavrik {

// A node of a JSON tree, with a parser and a writer. Programs use it through the handle JSOM.
//
// Ownership: reference-counted. A new node counts its creator, which must release() it. A parent
// holds a reference on each child. The last release() deletes the node and releases its children. A
// node may have several parents. Cycles are not prevented and leak. Pointers to children, keys and
// strings are valid until their node changes.
//
// Threads: not synchronised. One thread at a time uses a tree, its counts included.
//
// Trees may have any depth: nothing recurses. Strings are bytes of any encoding.
class JSONData {
  public:
    // kNone: a new or reset node, which writes nothing.
    enum Type : uint16_t { kNone, kNull, kBoolean, kObject, kArray, kString, kLong, kDouble };

    // A member of an object.
    struct entry {
        std::string key;
        JSONData* value;  // holds one reference
    };

    JSONData() = default;
    // Releases the children. REQUIRES: no other references.
    ~JSONData() {
        if (hasContent()) reset();
    }
    JSONData(const JSONData&) = delete;
    JSONData& operator=(const JSONData&) = delete;

    void reserve() { ++refCount; }
    // Drops a reference; the last one deletes the node.
    void release();

    // A new type empties the node: no members, no elements, "", 0 or false. The present type does
    // nothing.
    void setType(int newType) {
        if (type != newType) changeType(newType);
    }
    int getType() const { return type; }

    // Set type and value. A text may be part of this tree; null is an empty text.
    void setNull() { setType(kNull); }
    void setObject() { setType(kObject); }
    void setArray() { setType(kArray); }
    void setBoolean(bool newValue);
    void setLong(long long newValue);
    void setDouble(long double newValue);
    void setString(const std::string& newValue);
    void setString(const char* newValue);

    // Releases the content; the type becomes kNone.
    void reset();
    // Releases the members or elements, the last one first. Other types keep their value.
    void clear();

    // Number of members or elements; 0 for other types.
    int length() const;

    // Returns the value of element or member i, in the order of insertion; null if there is none.
    JSONData* getByIndex(int i) const;

    // Return the value of the last member with this key; null if there is none, or for other types.
    JSONData* getByKey(const std::string& key) const;
    JSONData* getByKey(const char* key) const;

    // Returns the key of member i; null if there is none, or for other types.
    const std::string* getKeyAtIndex(int i) const;

    // The first byte of the value, whatever its type.
    bool booleanValue() const;
    // Returns a number or boolean, truncated toward zero and clamped to 64 bits; not-a-number is 0.
    // 0 for other types.
    long long longValue() const;
    // Returns a number or boolean; 0.0 for other types.
    long double doubleValue() const;
    // Null for other types.
    const std::string* stringValue() const;

    // Set the value of the last member with this key, or append a member; null removes it. A node
    // of another type becomes an object and loses its content. Take a reference on the value.
    void setByKey(const std::string& key, JSONData* newValue);
    void setByKey(const char* key, JSONData* newValue);

    // Sets element i (i == length() appends) and takes a reference on the value. A node of another
    // type becomes an array and loses its content. Prints "index out of range" for other i. Null
    // removes element i of an array, if any.
    void setByIndex(int i, JSONData* newValue);

    // Remove element or member i, or the last member with this key, if any.
    void erase(int i);
    void erase(const std::string& key);
    void erase(const char* key);

    // Returns a deep copy. Its top node has no references: reserve() it.
    JSONData* clone() const;

    // Becomes a deep copy of `other`, which may be this node, an ancestor or a descendant.
    void copy(const JSONData& other);

    // Exchanges type and content with another node. Each keeps its references.
    void swap(JSONData& other);

    // Parse one value from a text or a stream into this node, and stop behind it. A text ends at
    // its first zero byte. Objects and arrays append to an object or array that is in the node.
    //
    // Return false on failure. The node keeps what was complete, `text` points to the error, and
    // one line is printed to standard error; none if the text ends before a value begins.
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
    struct MemberIndex;
    struct Slab;
    struct ListHead;
    struct Releases;
    class NodeSource;
    class Copier;
    template <typename Source>
    class Parser;
    template <typename Sink>
    class Writer;

    // Puts a list into the slab of the parse or copy that makes it, until it grows.
    template <typename T>
    struct ListAllocator {
        using value_type = T;
        // NOLINTNEXTLINE(bugprone-sizeof-expression): elements of arrays are pointers.
        static constexpr size_t kSize = sizeof(T);
        ListAllocator() = default;
        template <typename U>
        explicit ListAllocator(const ListAllocator<U>&) {}
        T* allocate(size_t count) { return static_cast<T*>(newList(count * kSize)); }
        void deallocate(T* list, size_t count) { deleteList(list, count * kSize); }
        bool operator==(const ListAllocator&) const { return true; }
        bool operator!=(const ListAllocator&) const { return false; }
    };
    template <typename T>
    using List = std::vector<T, ListAllocator<T>>;
    static void* newList(size_t bytes);
    static void deleteList(void* list, size_t bytes);

    // For Source see src/Decimal.h.

    // Skips blanks and comments and looks at what begins there, without taking it. False when
    // nothing that JSON knows begins there.
    template <typename Source>
    static bool fetchNextType(Source& source, const Token*& token);
    // Reads a text in quotes into `out`.
    template <typename Source>
    static bool parseJsonString(Source& source, std::string& out);
    template <typename Source>
    bool parseJsonNumberIntoSelf(Source& source);

    void changeType(int newType);
    bool isContainer() const { return type == kObject || type == kArray; }
    // Whether the value owns memory.
    bool hasContent() const { return isContainer() || type == kString; }
    bool has(int i) const { return i >= 0 && i < length(); }
    // Index of the last member with this key, or -1.
    int find(std::string_view key) const;
    JSONData* valueAt(int i) const;
    // Appends a member or element whose reference passes to this node.
    void adopt(std::string&& key, JSONData* child);
    void adopt(JSONData* child);
    void setMember(std::string&& key, JSONData* newValue);
    void takeString(std::string&& newValue);
    // Destroys the value, which has no children any more.
    void destroyValue();
    // Becomes what the other node is, which becomes kNone. REQUIRES: this node is kNone.
    void moveFrom(JSONData& other);
    // True if a move of this node's content would move the bytes at `text`: short texts lie in
    // their string objects.
    bool holdsInPlace(const char* text) const;
    // Gives up the children.
    void moveChildrenTo(Releases& releases);
    // Takes the value of a number or a boolean.
    void copyScalar(const JSONData& other);

    struct Members {
        List<entry> list{};
        // Made by the first look-up among many members.
        mutable std::unique_ptr<MemberIndex> index{};
    };
    union Value {
        Value() : integer(0) {}
        ~Value() {}

        unsigned char boolean;
        long long integer;
        double real;
        std::string text;
        Members members;
        List<JSONData*> elements;
    };
    static constexpr uint16_t kOwnMemory = 0xFFFF;

    uint16_t type = kNone;
    uint16_t slot = kOwnMemory;  // place in a slab
    uint32_t refCount = 1;       // parents, handles and whoever made it
    Value value{};
};

}  // namespace tavrik
