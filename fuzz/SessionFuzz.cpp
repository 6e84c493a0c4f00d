// Input: the faults of a simulated device and a program of two clients' actions in virtual time.
// Checks: no act takes longer than the sum of its time-outs; no act succeeds unless the target
// acknowledged it; every act succeeds if every response comes in time; requests are answered once
// and in the order of sending; no listener is called after its wait; no thread or descriptor leaks.
#include <condition_variable>
#include <deque>
#include <mutex>

#include "fuzz/ForgetSession.h"
#include "fuzz/OwnThreads.h"
#include "fuzz/SessionProgram.h"

using tavrik::ADSPPM;
using tavrik::DIAG;

namespace fuzz {
namespace {

using virtual_time::Milliseconds;
using virtual_time::Nanoseconds;
using virtual_time::now;

// A request that the target does not know. The error response repeats it.
struct Request : DIAG::ResponseListener {
    explicit Request(uint8_t number) : bytes{75, 99, 1, 0, number, 0} {}

    bool onResponse(const unsigned char* rsp, int len) override;

    std::array<unsigned char, 6> bytes;
    std::atomic<int> begun{0}, sent{0};  // ticks before and after the sending; 0: not sent
    std::atomic<bool> heard{false}, closed{false};
    Nanoseconds heardAt{};  // valid once `heard` is set
};

// The state of one input's run.
struct Run {
    explicit Run(const Program& program_) : program(program_), finished(program.steps.size()) {}

    const Program& program;
    std::atomic<int> ticks{0};
    std::mutex mutex{};  // guards the rest
    std::condition_variable changed{};
    std::vector<bool> finished;
    std::vector<Span> spans{};
    std::deque<Request> requests{};
    // Successful starts minus stops, registrations, and acts on ADSPPM under way and begun.
    int collecting = 0, listeners = 0, underWay = 0, entered = 0;
};
Run* run = nullptr;  // set while clients act

SilentListener values;

bool Request::onResponse(const unsigned char* rsp, int len) {
    mustHold(!closed, "no listener is called after its wait");
    mustHold(!heard, "no listener is called twice");
    mustHold(len > 6 && rsp[0] == 19 && std::equal(bytes.begin(), bytes.end(), rsp + 1),
             "a request gets its own response");
    heardAt = now();
    heard = true;
    std::lock_guard<std::mutex> guard(run->mutex);
    const bool passed = std::any_of(run->requests.begin(), run->requests.end(), [&](auto& one) {
        return one.sent != 0 && one.sent < begun && !one.heard && !one.closed;
    });
    mustHold(!passed || run->program.writesFail, "responses come in the order of sending");
    return true;
}

// The number of trace lines, and whether one of them from `from` on shows a delivery of `text`.
size_t traced() { return device().traceLength(); }

bool delivered(const std::string& text, size_t from) {
    if (text.empty()) return true;
    const std::vector<std::string> lines = device().trace(from);
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
        return line.find(text) != std::string::npos && line.find("=>") == std::string::npos;
    });
}

class Client : public DIAG::LogListener {
  public:
    explicit Client(int number_) : number(number_) {}

    void onLog(const unsigned char*) override {}

    void play() {
        for (size_t i = 0; i < run->program.steps.size(); ++i) {
            const Step& step = run->program.steps[i];
            if (step.client != number) continue;
            if (step.afterPrevious && i > 0) {
                std::unique_lock<std::mutex> guard(run->mutex);
                run->changed.wait(guard, [i] { return run->finished[i - 1]; });
            }
            if (step.pause > Milliseconds::zero()) virtual_time::sleep(step.pause);
            perform(step.act);
            std::lock_guard<std::mutex> guard(run->mutex);
            run->finished[i] = true;
            run->changed.notify_all();
        }
        while (!outstanding.empty())
            perform(kAwait);
    }

    void tidy() {
        perform(kStop);
        while (listening > 0)
            perform(kUnregisterEvent);
        if (registered) perform(kUnregisterLog);
        perform(kDisconnect);
    }

  private:
    struct Outcome {
        bool result, expected;
    };

    // Checks that the target has acknowledged a successful act since the act began.
    void perform(Act act) {
        const Nanoseconds begin = now();
        const size_t from = traced();
        const Outcome outcome = act <= kUnregisterEvent ? collect(act) : attempt(act);
        mustHold(!outcome.result || delivered(kRules[act].evidence, from),
                 "the target acknowledged the success");
        const bool harmless = run->program.harmless;
        mustHold(!harmless || outcome.result == outcome.expected,
                 "an act whose responses come in time succeeds");
        std::lock_guard<std::mutex> guard(run->mutex);
        run->spans.push_back({number, act, begin, now()});
    }

    Outcome attempt(Act act) {
        DIAG& diag = *DIAG::instance();
        unsigned char unknown[] = {75, 99, 2, 0};
        const bool wasRegistered = registered;
        switch (act) {
            case kRequest:
                return send();
            case kAwait:
                return awaitOldest();
            case kRegisterLog:
                registered = true;
                return {diag.registerLogListener(logCode, this), !wasRegistered};
            case kUnregisterLog:
                registered = false;
                return {diag.unregisterLogListener(logCode, this), wasRegistered};
            case kConnect:
                return {diag.connect(), true};
            case kPost:
                return {diag.sendRequest(unknown, sizeof unknown, nullptr), true};
            default:
                diag.disconnectIfIdle();
                return {true, true};
        }
    }

    // The outcome is certain only if the other client does nothing with ADSPPM meanwhile.
    Outcome collect(Act act) {
        std::unique_lock<std::mutex> guard(run->mutex);
        bool alone = run->underWay++ == 0;
        const int entry = ++run->entered;
        const bool expected = act == kStart ? run->collecting == 0 && run->listeners > 0
                                            : act != kStop || run->collecting == 1;
        guard.unlock();
        const bool result = callAdsppm(act);
        guard.lock();
        if (result) count(act);
        alone &= run->entered == entry;
        if (--run->underWay == 0)
            mustHold((run->collecting & ~1) == 0, "successful starts and stops alternate");
        mustHold(!alone || expected || !result, "an impossible start or stop returns false");
        return {result, alone ? expected : result};
    }

    bool callAdsppm(Act act) {
        ADSPPM& adsppm = *ADSPPM::instance();
        const int id = number == 0 ? -2 : 5;
        std::string refusal;
        if (act == kStart) return adsppm.startMetricCollection();
        if (act == kStop) return adsppm.stopMetricCollection();
        if (act == kUnregisterEvent) return adsppm.unregisterListener(&values, id);
        return adsppm.registerListener(&values, id, "", 1000 * 1000, refusal);
    }

    // Requires run->mutex.
    void count(Act act) {
        if (act <= kStop) {
            run->collecting += act == kStart ? 1 : -1;
        } else if (act == kRegisterEvent || listening > 0) {
            const int change = act == kRegisterEvent ? 1 : -1;
            run->listeners += change;
            listening += change;
        }
    }

    Outcome send() {
        std::unique_lock<std::mutex> guard(run->mutex);
        Request& fresh = run->requests.emplace_back(static_cast<uint8_t>(run->requests.size()));
        guard.unlock();
        fresh.begun = ++run->ticks;
        const bool sent = DIAG::instance()->sendRequest(
            fresh.bytes.data(), static_cast<int>(fresh.bytes.size()), &fresh);
        if (sent) outstanding.push_back(&fresh);
        fresh.closed = !sent;
        fresh.sent = sent ? ++run->ticks : 0;
        return {sent, true};
    }

    // A wait ends exactly when the response comes or at the time-out.
    Outcome awaitOldest() {
        if (outstanding.empty()) return {true, true};
        Request& oldest = *outstanding.front();
        outstanding.pop_front();
        const Nanoseconds begin = now();
        const bool accepted = DIAG::instance()->awaitResponse(oldest);
        oldest.closed = true;
        mustHold(accepted == oldest.heard, "a wait returns whether the response came");
        const Nanoseconds end =
            accepted ? std::max(begin, oldest.heardAt) : begin + Milliseconds(kAnswerMs);
        mustHold(now() == end, "a wait ends with the response or the time-out");
        return {accepted, true};
    }

    const int number;
    const uint16_t logCode = static_cast<uint16_t>(0x4001 + number * 0x1000);
    bool registered = false;
    int listening = 0;
    std::deque<Request*> outstanding{};
};

bool getsLogs() { return DIAG::instance()->hasLogListenerForTesting(diagsim::kPowerLogCode); }

void check(const Program& program) {
    diag_sync_mask = 0;
    device().plug(program.scenario);
    const size_t threads = threadCount(), descriptors = descriptorCount();
    Run current(program);
    run = &current;
    Client clients[] = {Client(0), Client(1)};
    std::atomic<int> playing{2};
    const auto body = [&](Client& client) {
        client.play();
        if (--playing > 0) return;
        virtual_time::sleep(Milliseconds(kAnswerMs));
        mustHold(!program.harmless || getsLogs() == (current.collecting == 1),
                 "the log listener is registered while collecting");
        for (Client& other : clients)
            other.tidy();
        mustHold(!program.harmless || fd == -1, "an idle session is disconnected");
        forgetSession();
    };
    virtual_time::run({[&] { body(clients[0]); }, [&] { body(clients[1]); }},
                      std::chrono::seconds(5) * (program.steps.size() + 8));
    checkDurations(current.spans);
    mustHold(descriptorCount() == descriptors, "no descriptor leaks");
    awaitThreads(threads);
}

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static const bool ready = [] {
        fuzz::SilentLogs::install();
        ADSPPM::instance();
        fuzz::virtual_time::run({[] {}}, fuzz::Milliseconds(1));  // starts a sanitizer's own thread
        return true;
    }();
    fuzz::check(fuzz::readProgram(fuzz::Feed(data, size)));
    return 0;
}
