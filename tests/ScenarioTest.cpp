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

// Checks how the error begins that a text gives.
void expectErrors(const std::vector<std::pair<std::string, std::string>>& texts) {
    for (const auto& [json, expected] : texts) {
        try {
            Scenario::parse(json, "f.json");
            ADD_FAILURE() << json << " is accepted";
        } catch (const ScenarioError& error) {
            EXPECT_THAT(error.what(), testing::StartsWith(expected)) << json;
        }
    }
}

TEST(ScenarioTest, ErrorsNameTheKeyAndTheMistake) {
    expectErrors({
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
    });
}

TEST(ScenarioTest, ErrorsOfSyntaxNameLineAndColumn) {
    expectErrors({
        {"\xEF\xBB\xBF{\n\t\"\xC3\xA4\": tru}", "f.json: not valid JSON, line 2, column 10"},
        {"{\n", "f.json: not valid JSON, line 2, column 1"},
        {"{} // that is all\nx", "f.json: not valid JSON, line 2, column 1: text behind the end"},
    });
}

TEST(ScenarioTest, AMissingFileIsAnError) {
    EXPECT_THROW(Scenario::load("/nonexistent/f.json"), ScenarioError);
}

}  // namespace
}  // namespace diagsim
