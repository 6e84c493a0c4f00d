// Input: packets that replace up to nine responses of one start and one stop. Checks: the start
// succeeds exactly if the responses of the set-up and its own accept it, the stop if its own does;
// the session can be reset for the next input.
#include "fuzz/ForgetSession.h"

using fuzz::Bytes;
using fuzz::mustHold;
using tavrik::ADSPPM;

namespace {

struct Field {
    size_t offset, size;
    uint64_t value;
};
// The fields of a good response and its least length, check bytes included. A rule without fields
// accepts any response.
struct Rule {
    const char* request;
    size_t length;
    std::vector<Field> fields;
};
const Rule kRules[] = {{"message_masks", 3, {{1, 1, 5}, {2, 1, 1}}},
                       {"event_report", 3, {{1, 2, 0}}},
                       {"log_disable", 12, {{4, 4, 0}, {8, 4, 0}}},
                       {"log_ranges", 76, {{4, 4, 1}, {8, 4, 0}}},
                       {"start", 8, {{1, 1, 12}, {2, 2, 0x0404}, {4, 4, 1}}},
                       {"stop", 8, {{1, 1, 12}, {2, 2, 0x0404}, {4, 4, 1}}},
                       {"loopback", 0, {}},
                       {"log_mask", 0, {}},
                       {"log_mask_clear", 0, {}}};

bool accepts(const Rule& rule, Bytes answer) {
    diagsim::appendWord(answer, diagsim::checkSequence(answer), 2);
    if (answer.size() < rule.length) return false;
    return std::all_of(rule.fields.begin(), rule.fields.end(), [&](const Field& field) {
        return diagsim::wordAt(answer, field.offset, field.size) == field.value;
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::SilentListener listener;
    [[maybe_unused]] static const bool ready =
        (fuzz::SilentLogs::install(), fuzz::listen(listener, -2), true);
    fuzz::Feed feed(data, size);
    diagsim::Scenario scenario;
    const uint16_t replaced = feed.word();
    bool startAccepted = true, stopAccepted = true;
    for (size_t i = 0; i < std::size(kRules); ++i) {
        if ((replaced >> i & 1) == 0) continue;
        Bytes answer = feed.block();
        // A log packet is no response, and a missing response would cost a time-out.
        if (!answer.empty() && answer[0] == 16) answer[0] = 75;
        const bool good = accepts(kRules[i], answer);
        (i < 5 ? startAccepted : stopAccepted) &= good;
        scenario.requests[kRules[i].request].emplace_back().answer = answer;
    }
    fuzz::plug(scenario);
    const bool started = ADSPPM::instance()->startMetricCollection();
    mustHold(started == startAccepted, "a start succeeds if its responses accept it");
    const bool stopped = ADSPPM::instance()->stopMetricCollection();
    mustHold(stopped == (started && stopAccepted), "a stop succeeds if its response accepts it");
    fuzz::forgetSession();
    return 0;
}
