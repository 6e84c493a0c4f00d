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

// The lines of a document that begin with `head`.
std::multiset<std::string> rows(const std::string& document, const std::string& head) {
    std::ifstream file(TESTS_FOLDER "/../" + document);
    std::multiset<std::string> found;
    for (std::string line; std::getline(file, line);)
        if (line.rfind(head, 0) == 0) found.insert(line);
    return found;
}

TEST(ScenarioTest, TheDocumentsNameEveryKeyAndNoOther) {
    std::multiset<std::string> readme, manual;
    for (const std::string& row : rows("sim/README.md", "| `"))
        if (occurrences(row, " |") == 4) readme.insert(row);
    for (const std::string& item : rows("docs/man/diagsim-scenario.5", ".It Cm "))
        manual.insert(item.substr(7, item.find(" Pq") - 7));
    EXPECT_EQ(manual.erase("requests.<name>"), 1u);
    for (const ScenarioKey& key : scenarioKeys()) {
        const std::string row = "| `" + documentedName(key) + "` | " + key.type + " | " +
                                key.standard + " | " + key.meaning + " |";
        EXPECT_EQ(readme.erase(row), 1u) << row;
        EXPECT_EQ(manual.erase(documentedName(key)), 1u) << key.name;
    }
    EXPECT_THAT(readme, testing::ElementsAre()) << "rows without a key";
    EXPECT_THAT(manual, testing::ElementsAre()) << "items without a key";
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
