// Scenario files: the keys and the messages for mistakes.
#include <fstream>
#include <set>

#include "tests/SimSupport.h"

namespace diagsim {
namespace {

// A fault's keys are documented without the request.
std::string documentedName(const ScenarioKey& key) {
    const std::string perRequest = "requests.<name>.";
    return key.name.substr(key.name.rfind(perRequest, 0) == 0 ? perRequest.size() : 0);
}

TEST(ScenarioTest, TheReadmeDocumentsEveryKey) {
    std::ifstream readme(TESTS_FOLDER "/../sim/README.md");
    std::multiset<std::string> rows;
    for (std::string line; std::getline(readme, line);) {
        if (line.rfind("| `", 0) == 0 && occurrences(line, " |") == 4) rows.insert(line);
    }
    for (const ScenarioKey& key : scenarioKeys()) {
        const std::string row = "| `" + documentedName(key) + "` | " + key.type + " | " +
                                key.standard + " | " + key.meaning + " |";
        EXPECT_EQ(rows.erase(row), 1u) << row;
    }
    EXPECT_EQ(rows, std::multiset<std::string>()) << "rows without a key";
}

TEST(ScenarioTest, TheManualPageDocumentsEveryKey) {
    std::ifstream file(TESTS_FOLDER "/../docs/man/diagsim-scenario.5");
    std::multiset<std::string> items;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(".It Cm ", 0) == 0) items.insert(line.substr(7, line.find(" Pq") - 7));
    }
    EXPECT_EQ(items.erase("requests.<name>"), 1u);
    for (const ScenarioKey& key : scenarioKeys())
        EXPECT_EQ(items.erase(documentedName(key)), 1u) << key.name;
    EXPECT_EQ(items, std::multiset<std::string>()) << "items without a key";
}

TEST(ScenarioTest, ErrorsNameThePlaceAndTheMistake) {
    const auto message = [](const std::string& json) -> std::string {
        try {
            Scenario::parse(json, "f.json");
        } catch (const ScenarioError& error) {
            return error.what();
        }
        return "no error";
    };
    const std::pair<const char*, const char*> mistakes[] = {
        {R"({"opne": {}})", "f.json: unknown key \"opne\" in the scenario (known: "},
        {R"({"requests": {"start": {"dorp": true}}})",
         "f.json: unknown key \"dorp\" in requests.start (known: on, drop, "},
        {R"({"requests": {"any": [{}, {"drop": 1}]}})",
         "f.json: requests.any[1].drop: expected true or false"},
        {R"({"requests": {"any": {"split_at": 1}}})",
         "f.json: in requests.any: split_at needs split"},
        {R"({"open": {"errno": "EWHAT"}})",
         "f.json: open.errno: unknown value \"EWHAT\" (known: EACCES, "},
        {R"({"ranges": {"1": 18446744073709551615}})", "f.json: ranges.1: expected a whole number"},
        {R"({"requests": {"any": [{"drop": true, "on": [1], "drop": false}]}})",
         "f.json: duplicate key \"drop\" in requests.any[0]"},
        {R"({"a\nb": 1})", R"(f.json: unknown key "a\nb" in)"},
        {"\xEF\xBB\xBF{\n\t\"\xC3\xA4\": tru}", "f.json: not valid JSON, line 2, column 10"},
        {"{\n", "f.json: not valid JSON, line 2, column 1"},
        {"{} // that is all\nx", "f.json: not valid JSON, line 2, column 1: text behind the end"},
    };
    for (const auto& [json, expected] : mistakes) {
        EXPECT_EQ(message(json).rfind(expected, 0), 0u) << json << " gives " << message(json);
    }
    EXPECT_THROW(Scenario::load("/nonexistent/f.json"), ScenarioError);
}

}  // namespace
}  // namespace diagsim
