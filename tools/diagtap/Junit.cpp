#include <algorithm>

#include "tools/diagtap/Formats.h"

namespace diagtap {
namespace {

std::string seconds(uint64_t nanoseconds) { return inMs(static_cast<double>(nanoseconds) / 1000); }

std::string testCase(const std::string& suite, StepId id, const Step& step) {
    const std::string begin = std::string("    <testcase name=\"") + nameOf(id) +
                              "\" classname=\"" + suite + "\" time=\"" + seconds(step.duration) +
                              '"';
    const std::string what =
        std::string(nameOf(step.state)) + (remarkOn(step).empty() ? "" : ": " + remarkOn(step));
    switch (step.state) {
        case State::kOk:
            return begin + "/>\n";
        case State::kNotReached:
            return begin + "><skipped/></testcase>\n";
        default:
            return begin + "><failure message=\"" + escaped(what) + "\" type=\"" +
                   nameOf(step.state) + "\"/></testcase>\n";
    }
}

std::string suite(const Session& session, const std::string& name) {
    const auto count = [&session](State state) {
        return std::count_if(std::begin(session.steps), std::end(session.steps),
                             [state](const Step& step) { return step.state == state; });
    };
    const auto skipped = count(State::kNotReached);
    const auto failed = static_cast<long>(kSteps) - skipped - count(State::kOk);
    std::string text = "  <testsuite name=\"" + name + "\" tests=\"" + std::to_string(kSteps) +
                       "\" failures=\"" + std::to_string(failed) + "\" errors=\"0\" skipped=\"" +
                       std::to_string(skipped) + "\" time=\"" + seconds(session.end) + "\">\n";
    for (size_t i = 0; i < kSteps; ++i)
        text += testCase(name, static_cast<StepId>(i), session.steps[i]);
    text += "    <system-out>" + escaped(session.cause) + "</system-out>\n";
    return text + "  </testsuite>\n";
}

}  // namespace

std::string toJunit(const Report& report) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n";
    for (size_t i = 0; i < report.sessions.size(); ++i)
        text += suite(report.sessions[i], "session " + std::to_string(i + 1));
    return text + "</testsuites>\n";
}

}  // namespace diagtap
