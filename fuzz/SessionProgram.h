// The input of SessionFuzz: what a simulated device does wrong, and what two clients do.
#pragma once

#include <array>
#include <cerrno>

#include "fuzz/Support.h"
#include "fuzz/VirtualTime.h"
#include "sim/Scenario.h"
#include "sim/model/Request.h"

namespace fuzz {

// What a client does. Events are ADSPPM's, logs DIAG's; a `request` is awaited by a later `await`,
// a `post` by nobody.
enum Act {
    start,
    stop,
    registerEvent,
    unregisterEvent,
    request,
    await,
    registerLog,
    unregisterLog,
    connect,
    disconnect,
    post,
    acts
};

constexpr int answer = 250, connecting = 21 + 4 * answer, disconnecting = 1020;  // milliseconds

// What an act may take while nobody else acts, and the trace of the answer that it needs to
// succeed.
struct Rule {
    int milliseconds;
    const char* evidence;
};
constexpr Rule rules[acts] = {
    {connecting + 4 * answer + disconnecting, "start response (accepted)"},
    {connecting + 2 * answer + disconnecting, "stop response (accepted)"},
    {0, ""},
    {0, ""},
    {connecting, ""},
    {answer, ""},
    {connecting + answer, "log mask response (accepted)"},
    {connecting + answer + disconnecting, "log mask clear response (accepted)"},
    {connecting, ""},
    {disconnecting, ""},
    {connecting, ""}};

// An act that was done.
struct Span {
    int client;
    Act act;
    virtual_time::Nanoseconds begin, end;
};

// A finding when one took too long. An act may have to wait for all that the other client does
// meanwhile, and then connect again.
inline void checkDurations(const std::vector<Span>& spans) {
    for (const Span& span : spans) {
        int allowed = rules[span.act].milliseconds;
        for (const Span& other : spans) {
            if (other.client == span.client || other.end < span.begin || span.end < other.begin)
                continue;
            allowed += rules[other.act].milliseconds + connecting;
        }
        mustHold(span.end - span.begin <= virtual_time::Milliseconds(allowed),
                 "an act ends in time");
    }
}

// An act of a client: at once, or when the step in front of it, whoever does that, has ended; then
// behind a pause.
struct Step {
    int client;
    Act act;
    bool afterPrevious;
    virtual_time::Milliseconds pause;
};

struct Program {
    diagsim::Scenario scenario{};
    int delays = 0;           // all together, milliseconds
    bool harmless = true;     // every answer comes, and comes in time
    bool writesFail = false;  // some queued request may never be sent
    std::vector<Step> steps{};
};

inline void readDriver(Feed& feed, Program& program) {
    const unsigned bits = feed.byte();
    diagsim::Scenario& scenario = program.scenario;
    scenario.deinit.announce = (bits & 3) != 1;
    scenario.deinit.delayMs = (bits & 3) == 2 ? 300 : 0;
    scenario.deinit.result = (bits & 3) == 3 ? -1 : 1;
    scenario.masks.delayMs = std::array<int, 4>{0, 5, 19, 25}[bits >> 2 & 3];
    const unsigned mode = bits >> 4 & 3;
    using Form = diagsim::Scenario::ModeForm;
    scenario.modeForm =
        std::array<Form, 4>{Form::kPointer, Form::kValue, Form::kNone, Form::kPointer}[mode];
    scenario.openErrno = mode == 3 ? EACCES : 0;
    scenario.adsp.periodUs = (bits & 64) != 0 ? 50000 : 0;
    program.harmless = scenario.masks.delayMs < 20 && mode < 2;
}

inline void readFault(Feed& feed, Program& program) {
    const auto kind = static_cast<diagsim::RequestKind>(feed.byte() % diagsim::kRequestKinds);
    diagsim::Fault& fault = program.scenario.requests[diagsim::requestKey(kind)].emplace_back();
    fault.on = {feed.byte() % 4 + 1};
    const uint8_t effect = feed.byte() % 8, amount = feed.byte();
    using Placement = diagsim::Fault::Placement;
    if (effect < 2) fault.delayMs = amount + 150 * effect;
    if (effect == 2) fault.logInFront = amount % 2 ? Placement::kOwnBuffer : Placement::kSameBuffer;
    fault.drop = effect == 3;
    fault.refuse = effect == 4;
    if (effect == 5) fault.writeResult = -1;
    fault.hangUp = effect == 6;
    fault.failRead = effect == 7;
    program.delays += fault.delayMs;
    program.harmless &= effect < 3;
    program.writesFail |= effect == 5;
}

inline Program readProgram(Feed feed) {
    constexpr size_t most = 24;
    Program program;
    readDriver(feed, program);
    for (int faults = feed.byte() % 8; faults > 0; --faults)
        readFault(feed, program);
    program.harmless &= program.delays < answer;
    while (!feed.empty() && program.steps.size() < most) {
        const uint8_t bits = feed.byte();
        const int pause = (bits & 64) != 0 ? feed.byte() : 0;
        program.steps.push_back({bits >> 4 & 1, static_cast<Act>((bits & 15) % acts),
                                 (bits & 32) != 0, virtual_time::Milliseconds(pause)});
    }
    return program;
}

}  // namespace fuzz
