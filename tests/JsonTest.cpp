#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "json/JSOM.h"
#include "tests/Support.h"

// Defined by a sanitizer, if there is one. Its reports must not vanish in a StderrCapture.
extern "C" void __sanitizer_set_report_fd(void* fd) __attribute__((weak));

namespace tavrik {
namespace {

// Captures standard error for a scope.
class StderrCapture {
  public:
    StderrCapture() {
        if (__sanitizer_set_report_fd) __sanitizer_set_report_fd(reinterpret_cast<void*>(before));
        dup2(file, 2);
    }
    ~StderrCapture() {
        dup2(static_cast<int>(before), 2);
        close(static_cast<int>(before));
        close(file);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // The output since the last call.
    std::string take() {
        std::string text(static_cast<size_t>(lseek(file, 0, SEEK_CUR) - taken), '\0');
        taken += pread(file, &text[0], text.size(), taken);
        return text;
    }

  private:
    const intptr_t before = dup(2);
    const int file = memfd_create("stderr", 0);
    off_t taken = 0;
};

std::string contents(const std::string& name) {
    std::ifstream in(TESTS_FOLDER "/json/" + name);
    EXPECT_TRUE(in.is_open()) << name;
    return {std::istreambuf_iterator<char>(in), {}};
}

JSOM parsed(const std::string& text) { return JSOM().fromString(text); }
std::string compact(const JSOM& handle, int precision = JSOM::defaultPrecision) {
    std::ostringstream out;
    out.precision(precision);
    handle.toStream(out);
    return out.str();
}

size_t doublesIn(const JSONData& node) {
    size_t count = node.getType() == JSONData::kDouble ? 1 : 0;
    for (int i = 0; i < node.length(); ++i)
        count += doublesIn(*node.getByIndex(i));
    return count;
}

std::string describe(JSONData& node, bool good, const char* rest, const std::string& operation,
                     StderrCapture& printed) {
    const std::string head = "JSONData::" + operation + ": syntax error: ";
    std::string lines = printed.take();
    if (lines.rfind(head, 0) == 0) lines.erase(0, head.size()).pop_back();
    const std::string value = compact(JSOM(&node), 1074) + std::string(doublesIn(node), 'd');
    return value + (good ? '|' + (rest + lines) : '!' + lines);
}

// The result of both parsers: the value, a "d" per double, then "|" and the unread rest, or "!" and
// the reason.
std::string read(const std::string& text) {
    const char* rest = text.c_str();
    std::istringstream in(text);
    JSONData node, streamed;
    StderrCapture printed;
    const bool good = node.setFromJsonString(rest);
    const std::string result = describe(node, good, rest, "setFromJsonString()", printed);
    EXPECT_EQ(streamed.setFromStream(in), good) << text;
    EXPECT_FALSE(in.fail()) << text;
    rest = text.c_str() + text.size() - in.rdbuf()->in_avail();
    EXPECT_EQ(describe(streamed, good, rest, "setFromStream()", printed), result) << text;
    return result;
}

// Checks a table: inputs, "=>" and the result that `code` must return for each. "_" is a blank.
void expectEach(std::string (*code)(const std::string&), const char* table) {
    std::istringstream words(contents(table));
    std::vector<std::string> inputs;
    for (std::string word; words >> word;) {
        std::replace(word.begin(), word.end(), '_', ' ');
        inputs.push_back(word);
        if (inputs.size() < 2 || inputs[inputs.size() - 2] != "=>") continue;
        for (size_t i = 0; i + 2 < inputs.size(); ++i)
            EXPECT_EQ(code(inputs[i]), word) << inputs[i];
        inputs.clear();
    }
}

const std::string kObject = contents("object.json");
const std::string kDocument =
    "//\n[" + kObject + "," + kObject + "," + kObject + "," + kObject + "]";

TEST(JsonTest, ADocumentIsReadToItsEndAndNoFurther) {
    EXPECT_EQ(read(kDocument + "//]x"), read(kDocument) + "//]x");
    for (size_t size = 0; size < kDocument.size(); ++size)
        EXPECT_THAT(read(kDocument.substr(0, size)), testing::HasSubstr("!")) << size;
}

using Json = nlohmann::ordered_json;

size_t below(std::mt19937_64& random, size_t limit) {
    return static_cast<size_t>(random() % limit);
}

// A document that both libraries print alike.
Json generate(std::mt19937_64& random, bool decimals, int depth = 0) {
    static const std::string letters = "some \"words\"\\\b\f\n\r\t/{}[]:,'~";
    const auto word = [&] {
        return letters.substr(below(random, letters.size()), below(random, 12));
    };
    const size_t kind = depth == 0 ? 4 + below(random, 2) : below(random, depth < 7 ? 6 : 4);
    const int64_t integer = static_cast<int64_t>(random()) >> random() % 64;
    const Json kinds[] = {nullptr, integer < 0, word(), integer, Json::array(), Json::object()};
    Json made = kinds[kind];
    if (kind == 3 && decimals)
        made = (static_cast<double>(random() % 200000001) - 1e8) / (random() % 2 == 0 ? 1e4 : 10);
    for (size_t children = kind >= 4 ? below(random, 6) : 0; children > 0; --children)
        (kind == 4 ? made.emplace_back() : made[word()]) = generate(random, decimals, depth + 1);
    return made;
}

TEST(JsonTest, AgreesWithAnotherLibrary) {
    std::mt19937_64 random(5);
    for (int i = 0; i < 5000 && !testing::Test::HasFailure(); ++i) {
        const std::string text = generate(random, i % 2 == 0).dump(i % 5 - 1);
        const std::string ours = compact(parsed(text));
        EXPECT_EQ(Json::parse(ours), Json::parse(text)) << text;
        if (i % 2 == 0) continue;
        EXPECT_EQ(ours, Json::parse(text).dump()) << text;
    }
}

constexpr size_t kDepth = 300000;
std::string nested(const std::string& text) {
    return std::string(kDepth, '[') + text + std::string(kDepth, ']');
}
// Runs code whose recursion would overflow the stack.
void onASmallStack(const std::function<void()>& code) {
    ASSERT_TRUE(setStackSize(256 << 10));
    std::thread(code).join();
}

TEST(JsonTest, AnUnclosedTextMayHaveAnyDepth) {
    onASmallStack([] { EXPECT_EQ(read(std::string(kDepth, '[')), "[]!array not closed"); });
}

TEST(JsonTest, ATreeMayHaveAnyDepth) {
    setenv("ENV", "value", 1);
    onASmallStack([] {
        JSOM top = parsed(nested("\"${ENV}\"")), other;
        std::string text, pretty;
        top.expandValues();
        (other = top).toCompactString(text);
        other.toString(pretty);
        EXPECT_TRUE(text == nested("\"value\""));
        EXPECT_TRUE(text == compact(top));
        EXPECT_EQ(pretty.size(), text.size() + 2 * kDepth * 51 - 50 * 50);
    });
}

TEST(JsonTest, ParsesTheGrammar) {
    expectEach(read, "grammar.txt");
    EXPECT_EQ(read("\xFF") + read("\t\r\n1." + std::string(70, '0') + "5"), "!missing value1d|");
}

// `node` is an array of `child`, a text.
class NodeTest : public testing::Test {
  protected:
    void SetUp() override {
        child->setString(text);
        node.setByIndex(0, child);
        child->release();
    }

    const std::string text = R"("a quoted text that is too long to stand in a string object")";
    JSONData other, node;
    JSONData* const child = new JSONData;
};

TEST_F(NodeTest, AChildMayHaveManyParents) {
    for (int i = 1; i < 70000; ++i)
        node.setByIndex(i, child);
    while (node.length() > 1)
        node.erase(node.length() - 1);
    EXPECT_EQ(*node.getByIndex(0)->stringValue(), text);
}

TEST_F(NodeTest, AResetLeavesNothingOfTheValue) {
    other.setLong(-1);
    other.reset();
    EXPECT_FALSE(other.booleanValue());
}

TEST_F(NodeTest, ManyMembersAreFoundByTheirKeys) {
    const auto found = [&](int key) {
        const JSONData* const value = other.getByKey(std::to_string(key));
        return value != nullptr ? value->longValue() : -1;
    };
    std::string members = "{";
    for (int i = 0; i < 300; ++i)
        members += '"' + std::to_string(i % 200) + "\":" + std::to_string(i) + ',';
    ASSERT_TRUE(other.setFromJsonStlString(members + '}'));
    for (int key = 0; key < 200; ++key)
        EXPECT_EQ(found(key), key < 100 ? key + 200 : key) << "the last of two";
    other.erase("99");
    EXPECT_EQ(found(99), 99) << "the one that is left";
    EXPECT_EQ(found(200), -1);
    other.setByKey("200", other.getByKey("1"));
    EXPECT_EQ(found(200), 201);
}

TEST_F(NodeTest, AnIndexBeyondTheEndIsPrinted) {
    StderrCapture printed;
    node.setByIndex(2, child);
    EXPECT_EQ(printed.take(), "JSONData::setByIndex(): index out of range\n");
}

TEST_F(NodeTest, OnlyAnObjectHasKeys) {
    for (const char* const json : {"-1", "0.5", "true", "\"a text of more than fifteen bytes\"",
                                   "[1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20]"}) {
        JSONData value;
        ASSERT_TRUE(value.setFromJsonStlString(json));
        EXPECT_EQ(value.getByKey("key"), nullptr) << json;
        EXPECT_EQ(value.getKeyAtIndex(0), nullptr) << json;
        value.erase("key");
        EXPECT_EQ(compact(JSOM(&value)), json);
    }
}

TEST_F(NodeTest, ANodeMayChangeItsTypeForItsOwnChild) {
    node.setByKey("key", node.getByIndex(0));
    node.setByIndex(0, node.getByKey("key"));
    EXPECT_EQ(compact(JSOM(&node)), "[" + compact(JSOM(child)) + "]");
    node.setByKey(*child->stringValue(), &other);
    EXPECT_EQ(*node.getKeyAtIndex(0), text);
    node.setString(*node.getKeyAtIndex(0));
    EXPECT_EQ(*node.stringValue(), text);
    node.reset();
    EXPECT_EQ(node.getType(), JSONData::kNone);
    node.setString(text);
    EXPECT_EQ(*node.stringValue(), text);
}

TEST_F(NodeTest, ANodeMayBecomeACopyOfItselfAParentOrAChild) {
    const std::string before = compact(JSOM(&node));
    child->copy(node);
    node.copy(node);
    EXPECT_EQ(compact(JSOM(&node)), "[" + before + "]");
    node.copy(*node.getByIndex(0));
    EXPECT_EQ(compact(JSOM(&node)), before);
}

// Checks that `code` prints one line and returns the error handle.
void expectFailure(const std::string& line, const std::function<JSOM()>& code) {
    StderrCapture printed;
    const JSOM result = code();
    EXPECT_TRUE(result == JSOM::JERROR) << line;
    EXPECT_FALSE(result != JSOM::JERROR) << line;
    EXPECT_EQ(printed.take(), line + "\n");
}

class JsonHandleTest : public testing::Test {
  protected:
    JSONData node;
    JSOM list = parsed("[1,2]"), none{static_cast<JSONData*>(nullptr)}, lost{nullptr, &node};
};

TEST_F(JsonHandleTest, AMissingElementIsAFailure) {
    const char* const null = nullptr;
    const std::string key;
    expectFailure("JSOM::operator[](int32_t): index out of bounds", [&] { return list[5]; });
    expectFailure("JSOM::at(int32_t): index out of bounds", [&] { return list.at(-2); });
    expectFailure("JSOM::operator[](char *): null key pointer", [&] { return list[null]; });
    expectFailure("JSOM::at(string &): null reference error", [&] { return none.at(key); });
    expectFailure("JSOM::at(char *): internal error, no info", [&] { return lost.at("a"); });
}

TEST_F(JsonHandleTest, TheErrorHandleCannotBeSet) {
    expectFailure("JSOM::operator[](int32_t): null reference error",
                  [&] { return JSOM::JERROR = list; });
    expectFailure("JSOM::setString(char *): null reference error",
                  [] { return JSOM::JERROR.setString(""), JSOM::JERROR; });
}

TEST_F(JsonHandleTest, AFaultyTextIsAFailure) {
    std::istringstream in("[");
    expectFailure("JSONData::setFromStream(): syntax error: array not closed",
                  [&] { return list.fromStream(in); });
    EXPECT_TRUE(list.fromString(static_cast<const char*>(nullptr)) == JSOM::JERROR);
}

TEST_F(JsonHandleTest, OtherHandlesAreNotTheErrorHandle) {
    std::istream closed(nullptr);
    int number = 0;
    for (const JSOM& other :
         {list, none, lost, list[2], JSOM(), JSOM::BLANK, list.fromStream(closed)}) {
        EXPECT_FALSE(other == JSOM::JERROR) << "handle " << number;
        EXPECT_FALSE(JSOM::JERROR == other) << "handle " << number;
        EXPECT_FALSE(other != other) << "handle " << number++;
    }
}

TEST_F(JsonHandleTest, AMissingValueReadsAsTheDefault) {
    EXPECT_EQ(list["a"].stringValue("d") + compact(list[-1]) + compact(list), "d[1,2]");
}

// Each test leaves no descriptor open.
class JsonFileTest : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(openDescriptors(), descriptors);
        unlink(path);
    }

    const long descriptors = openDescriptors();
    const std::string file = testing::TempDir() + "JsonTest" + std::to_string(getpid());
    const char* const path = file.c_str();
    JSOM list = parsed("[1,2]");
};

TEST_F(JsonFileTest, FilesAreWrittenAndRead) {
    EXPECT_TRUE(JSOM().toFile(path));
    EXPECT_TRUE(list.fromFile(path) == JSOM::JERROR) << "the file is empty";
    EXPECT_TRUE(list.toFile(path));
    EXPECT_EQ(compact(JSOM().fromFile(path)), "[1,2]");
}

TEST_F(JsonFileTest, OtherThanRegularFilesAreFailures) {
    ASSERT_EQ(mkfifo(path, 0600), 0);
    const std::string head = "JSOM::fromFile(): could not ";
    expectFailure(head + "read file", [&] { return list.fromFile("/"); });
    expectFailure(head + "open file '/none'", [&] { return list.fromFile("/none"); });
    expectFailure(head + "read file", [&] { return list.fromFile(path); });
    StderrCapture printed;
    EXPECT_FALSE(list.toFile("/"));
    EXPECT_EQ(printed.take(), "JSOM::toFile(): could not write file\n");
}

TEST(JsonTest, ValuesConvert) {
    setenv("ENV", "${HOME}", 1);
    // The value as integer, decimal, boolean with either default and string; then the tree.
    const auto readings = [](const std::string& text) {
        std::ostringstream out;
        JSOM node = parsed(text);
        node.expandValues();
        out << node.longValue(7) << ' ' << node.doubleValue(7.5) << ' ' << node.booleanValue(false);
        out << node.booleanValue(true) << ' ' << node.stringValue("d") << ' ' << compact(node);
        return out.str();
    };
    expectEach(readings, "readings.txt");
}

// Takes "PRECISION NUMBER"; returns the text and the integer part.
std::string written(const std::string& text) {
    JSOM number;
    number.setDouble(std::stod(text.substr(text.find(' '))));
    return compact(number, std::stoi(text)) + ' ' + std::to_string(number.longValue(7));
}

TEST(JsonTest, NumbersArePrintedWithAPrecision) {
    expectEach(written, "numbers.txt");
    EXPECT_EQ(std::stod(written("1074 1e300")), 1e300);
}

TEST(JsonTest, DecimalsAreRoundedAsByPrintf) {
    std::mt19937_64 random(6);
    for (int i = 0; i < 50000 && !testing::Test::HasFailure(); ++i) {
        const int precision = 1 + static_cast<int>(below(random, 12));
        const int64_t integer = static_cast<int64_t>(random()) >> random() % 64;
        const double number =
            std::ldexp(static_cast<double>(integer), -static_cast<int>(below(random, 70)));
        char expected[64];
        snprintf(expected, sizeof expected, "%.*f", precision, number);
        JSOM handle;
        handle.setDouble(number);
        EXPECT_EQ(std::stod(compact(handle, precision)), std::stod(expected)) << expected;
    }
}

TEST(JsonTest, PrettyTextIsAppendedAndIndented) {
    std::string pretty = "appended: ";
    parsed(R"({"a":[1,2],"b":[],"c":{}})").toString(pretty);
    EXPECT_EQ(pretty, "appended: {\n \"a\": [\n  1,\n  2\n ],\n \"b\": [\n ],\n \"c\": {\n }\n}");
}

}  // namespace
}  // namespace tavrik
