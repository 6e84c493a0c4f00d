#include "json/JSOM.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "json/src/Decimal.h"

namespace tavrik {

// Made on first use and never destroyed: handles are used before main and while the process exits.
JSOM& JSOM::errorHandle() {
    static JSOM* const handle = new JSOM(ErrorMark());
    return *handle;
}

JSOM& JSOM::JERROR = JSOM::errorHandle();
const JSOM& JSOM::BLANK = *new JSOM;
const std::string& JSOM::EMPTY_STRING = *new std::string;

JSOM::JSOM(JSONData* node) : JSOM(node, static_cast<JSONData*>(nullptr)) {}

JSOM::JSOM(JSONData* node, JSONData* parent_)
    : parent(parent_), kind(node != nullptr ? kNode : kNothing), held(node) {
    if (parent != nullptr) parent->reserve();
    if (held != nullptr) held->reserve();
}

JSOM::JSOM(JSONData* parent_, int index)
    : parent(parent_), kind(kPendingIndex), pendingIndex(index) {
    if (parent != nullptr) parent->reserve();
}

JSOM::JSOM(JSONData* parent_, const char* key)
    : parent(parent_), kind(kPendingKeyPointer), pendingKey(key != nullptr ? key : "") {
    if (parent != nullptr) parent->reserve();
}

JSOM::JSOM(JSONData* parent_, const std::string& key)
    : parent(parent_), kind(kPendingKey), pendingKey(key) {
    if (parent != nullptr) parent->reserve();
}

JSOM::JSOM(const JSOM& other)
    : parent(other.parent),
      kind(other.kind),
      held(other.held),
      pendingKey(other.pendingKey),
      pendingIndex(other.pendingIndex),
      error(other.error) {
    if (parent != nullptr) parent->reserve();
    if (held != nullptr) held->reserve();
}

JSOM::~JSOM() {
    if (held != nullptr) held->release();
    if (parent != nullptr) parent->release();
}

JSOM& JSOM::operator=(const JSOM& other) {
    if (&other == this || !other.hasNode()) return *this;
    return takeCopy("operator[](int32_t)", *other.held) ? *this : errorHandle();
}

bool JSOM::takeCopy(const char* operation, const JSONData& original) {
    // First the clone: making the node may change what it is to be a copy of.
    JSONData* const fresh = original.clone();
    const bool good = needNode(operation);
    if (good) held->swap(*fresh);
    fresh->release();
    return good;
}

bool JSOM::operator==(const JSOM& other) const {
    if (error || other.error) return error == other.error;
    if (kind != other.kind || held != other.held) return false;
    if (kind == kNode) return true;
    return parent == other.parent && pendingKey == other.pendingKey &&
           pendingIndex == other.pendingIndex;
}

void JSOM::print(const char* operation, const std::string& message) {
    fprintf(stderr, "JSOM::%s: %s\n", operation, message.c_str());
}

bool JSOM::makeInfoNode(const char* operation) {
    if (kind == kNothing) {
        print(operation, parent == nullptr ? "null reference error" : "internal error, no info");
        return false;
    }
    held = new JSONData;
    if (parent != nullptr && kind == kPendingIndex) {
        parent->setByIndex(pendingIndex, held);
    } else if (parent != nullptr && kind != kEmpty) {
        parent->setByKey(pendingKey, held);
    }
    kind = kNode;
    return true;
}

JSOM JSOM::byKey(const char* operation, const char* key) {
    if (key == nullptr) {
        print(operation, "null key pointer");
        return errorHandle();
    }
    return byKey(operation, std::string(key));
}

JSOM JSOM::byKey(const char* operation, const std::string& key) {
    if (!hasNode()) {
        const std::string copy(key);  // making the node may free it
        if (!makeInfoNode(operation)) return errorHandle();
        held->setObject();
        return JSOM(held, copy);
    }
    JSONData* const found = held->getByKey(key);
    return found != nullptr ? JSOM(found, held) : JSOM(held, key);
}

JSOM JSOM::resolved() const {
    if (parent == nullptr || hasNode()) return *this;
    JSONData* const there = kind == kPendingIndex ? parent->getByIndex(pendingIndex)
                            : kind == kNothing    ? nullptr
                                                  : parent->getByKey(pendingKey);
    return there != nullptr ? JSOM(there, parent) : *this;
}

JSOM JSOM::byIndex(const char* operation, int i) {
    if (!hasNode()) {
        if (!makeInfoNode(operation)) return errorHandle();
        held->setArray();
    }
    const int length = held->length();
    if (i == -1 || i == length) return JSOM(held, length);
    JSONData* const found = held->getByIndex(i);
    if (found != nullptr) return JSOM(found, held);
    print(operation, "index out of bounds");
    return errorHandle();
}

int JSOM::size() const { return hasNode() ? held->length() : 0; }

std::string JSOM::key(int i) const {
    const std::string* const found = hasNode() ? held->getKeyAtIndex(i) : nullptr;
    return found != nullptr ? *found : std::string();
}

void JSOM::setLong(long long value) {
    if (needNode("setLong()")) held->setLong(value);
}

void JSOM::setDouble(long double value) {
    if (needNode("setDouble()")) held->setDouble(value);
}

void JSOM::setBoolean(bool value) {
    if (needNode("setBoolean()")) held->setBoolean(value);
}

void JSOM::setString(const char* value) {
    const std::string copy(value != nullptr ? value : "");  // making the node may free it
    if (needNode("setString(char *)")) held->setString(copy);
}

void JSOM::setString(const std::string& value) {
    const std::string copy(value);
    if (needNode("setString(string &)")) held->setString(copy);
}

namespace {

// Whether the whole of `text` is one number.
bool isDecimal(const std::string& text, Decimal& number) {
    const char* position = text.c_str();
    TextSource source(position);
    return readDecimal(source, number) && source.at() == text.c_str() + text.size();
}

// The boolean that `text` is a word for, in any case of letters. The list is fixed: documents rely
// on "false" and "no" reading as the default.
std::optional<bool> booleanWord(const std::string& text) {
    static constexpr struct {
        const char* word;
        bool value;
    } words[] = {{"true", true}, {"yes", true},  {"on", true}, {"t", true},  {"1", true},
                 {"y", true},    {"off", false}, {"f", false}, {"n", false}, {"0", false}};
    for (const auto& known : words) {
        if (strlen(known.word) == text.size() && strcasecmp(known.word, text.c_str()) == 0) {
            return known.value;
        }
    }
    return std::nullopt;
}

}  // namespace

long long JSOM::longValue(long long def) const {
    if (isNumber() || isBoolean()) return held->longValue();
    Decimal number;
    if (!isString() || !isDecimal(*held->stringValue(), number) || number.hasPoint) return def;
    return number.integer;
}

long double JSOM::doubleValue(long double def) const {
    if (isNumber() || isBoolean()) return held->doubleValue();
    Decimal number;
    if (!isString() || !isDecimal(*held->stringValue(), number)) return def;
    return number.hasPoint ? static_cast<long double>(number.real)
                           : static_cast<long double>(number.integer);
}

bool JSOM::booleanValue(bool def) const {
    if (isBoolean()) return held->booleanValue();
    if (isNumber()) return held->longValue() != 0;
    if (!isString()) return def;
    const std::optional<bool> value = booleanWord(*held->stringValue());
    if (value) held->setBoolean(*value);
    return value.value_or(def);
}

std::string JSOM::stringValue(const std::string& def) const {
    if (isString()) return *held->stringValue();
    return isBoolean() ? stringValuePtr(nullptr) : def;
}

const char* JSOM::stringValuePtr(const char* def) const {
    if (isString()) return held->stringValue()->c_str();
    if (isBoolean()) return held->booleanValue() ? "true" : "false";
    return def;
}

void JSOM::copy(const JSOM& other) {
    if (other.hasNode()) {
        takeCopy("copy()", *other.held);
    } else if (needNode("copy()")) {
        held->setBoolean(false);
    }
}

void JSOM::clear() {
    if (hasNode()) held->clear();
}

void JSOM::erase(int i) {
    if (hasNode()) held->erase(i);
}

void JSOM::erase(const char* key) {
    if (hasNode()) held->erase(key);
}

void JSOM::erase(const std::string& key) {
    if (hasNode()) held->erase(key);
}

void JSOM::toString(std::string& out, int precision) const {
    if (hasNode()) held->appendJsonString(out, true, precision, 0);
}

void JSOM::toCompactString(std::string& out, int precision) const {
    if (hasNode()) held->appendJsonString(out, false, precision, 0);
}

JSOM& JSOM::parse(const char* operation, const char* text) {
    if (text == nullptr) return errorHandle();
    const std::string copy(hasNode() ? "" : text);  // making the node may free it
    const char* position = hasNode() ? text : copy.c_str();
    return needNode(operation) && held->setFromJsonString(position) ? *this : errorHandle();
}

JSOM& JSOM::fromString(const char* text) { return parse("fromString()", text); }

JSOM& JSOM::fromString(const std::string& text) { return parse("fromString()", text.c_str()); }

namespace {

struct Descriptor {
    explicit Descriptor(int openFd) : fd(openFd) {}
    ~Descriptor() {
        if (fd >= 0) close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    const int fd;
};

// The size of a regular file, or -1: a pipe has none, and a directory's means nothing.
off_t sizeOf(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return -1;
    return lseek(fd, 0, SEEK_END);
}

// The text of a file, or null with `problem` set.
std::unique_ptr<char[]> readFile(const char* path, std::string& problem) {
    // Not blocking, because a pipe without a writer would hold the caller.
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.fd < 0) {
        problem = std::string("could not open file '") + path + "'";
        return nullptr;
    }
    const off_t size = sizeOf(file.fd);
    if (size < 0 || lseek(file.fd, 0, SEEK_SET) != 0) {
        problem = "could not read file";
        return nullptr;
    }
    std::unique_ptr<char[]> text;
    if (static_cast<uintmax_t>(size) < std::numeric_limits<size_t>::max() / 2) {
        text.reset(new (std::nothrow) char[static_cast<size_t>(size) + 1]);
    }
    if (!text) {
        problem = "could not allocate memory";
        return nullptr;
    }
    if (read(file.fd, text.get(), static_cast<size_t>(size)) != size) {
        problem = "could not read file";
        return nullptr;
    }
    text[static_cast<size_t>(size)] = '\0';
    return text;
}

}  // namespace

JSOM& JSOM::fromFile(const char* path) {
    std::string problem;
    const std::unique_ptr<char[]> text = readFile(path != nullptr ? path : "", problem);
    if (!text) {
        print("fromFile()", problem);
        return errorHandle();
    }
    return parse("fromFile()", text.get());
}

bool JSOM::write(const char* operation, const char* path, const std::string& text) const {
    FILE* const file = fopen(path != nullptr ? path : "", "we");
    if (file == nullptr) {
        print(operation, "could not write file");
        return false;
    }
    fwrite(text.data(), 1, text.size(), file);
    fclose(file);
    return true;
}

bool JSOM::toFile(const char* path, int precision) const {
    std::string text;
    toString(text, precision);
    return write("toFile()", path, text);
}

bool JSOM::toCompactFile(const char* path, int precision) const {
    std::string text;
    toCompactString(text, precision);
    return write("toCompactFile()", path, text);
}

void JSOM::expandValues() { _expandValues(*this); }

void JSOM::_expandValues(JSOM& top) {
    if (!top.hasNode()) return;
    // A list instead of recursion: trees may be of any depth.
    std::vector<JSONData*> pending{top.held};
    while (!pending.empty()) {
        JSONData* const node = pending.back();
        pending.pop_back();
        if (node->getType() == JSONData::kString) {
            JSOM text(node);
            _expandString(text);
        }
        for (int i = 0; i < node->length(); ++i)
            pending.push_back(node->getByIndex(i));
    }
}

void JSOM::_expandString(JSOM& text) {
    const std::string in = *text.held->stringValue();
    std::string out;
    size_t done = 0;
    for (;;) {
        const size_t begin = in.find("${", done);
        const size_t end = begin != std::string::npos ? in.find('}', begin) : std::string::npos;
        if (end == std::string::npos) break;
        const std::string name = in.substr(begin + 2, end - begin - 2);
        const bool valid = !name.empty() && name.find('\0') == std::string::npos;
        const char* const value = valid ? getenv(name.c_str()) : nullptr;
        out.append(in, done, begin - done);
        out += value != nullptr ? value : in.substr(begin, end + 1 - begin);
        done = end + 1;
    }
    out.append(in, done, std::string::npos);
    text.held->setString(out);
}

}  // namespace tavrik
