// Fed: what a simulated device does wrong, and a program that says what two clients of the session
// do, in which order and when, in virtual time. Must hold: no act takes longer than the sum of its
// time-outs; none succeeds that the target did not acknowledge; all succeed when every answer comes
// in time; requests are answered in the order of sending, once, and nobody hears after the wait; in
// the end neither thread nor descriptor is left.
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

// A request that the target does not know: its answer repeats it.
struct Request : DIAG::ResponseListener {
    explicit Request(uint8_t number) : bytes{75, 99, 1, 0, number, 0} {}

    bool onResponse(const unsigned char* rsp, int len) override;

    std::array<unsigned char, 6> bytes;
    std::atomic<int> begun{0}, sent{0};  // ticks around the sending; 0: not yet, or refused
    std::atomic<bool> heard{false}, closed{false};
    Nanoseconds heardAt{};  // read once `heard` is set
};

// One input: its program, and what came of it.
struct Run {
    explicit Run(const Program& program_) : program(program_), finished(program.steps.size()) {}

    const Program& program;
    std::atomic<int> ticks{0};
    std::mutex mutex{};  // guards the rest
    std::condition_variable changed{};
    std::vector<bool> finished;
    std::vector<Span> spans{};
    std::deque<Request> requests{};
    // Starts less stops that succeeded, registrations, and acts that concern these.
    int collecting = 0, listeners = 0, underWay = 0, entered = 0;
};
Run* run = nullptr;  // set while clients act

SilentListener values;

bool Request::onResponse(const unsigned char* rsp, int len) {
    mustHold(!closed, "nobody hears after the wait");
    mustHold(!heard, "nobody hears twice");
    mustHold(len > 6 && rsp[0] == 19 && std::equal(bytes.begin(), bytes.end(), rsp + 1),
             "a request hears of its own answer");
    heardAt = now();
    heard = true;
    std::lock_guard<std::mutex> guard(run->mutex);
    const bool passed = std::any_of(run->requests.begin(), run->requests.end(), [&](auto& one) {
        return one.sent != 0 && one.sent < begun && !one.heard && !one.closed;
    });
    mustHold(!passed || run->program.writesFail, "answers come in the order of sending");
    return true;
}

// How many lines the device has traced, and whether those from the `from`th on tell of a delivery.
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
            perform(await);
    }

    void tidy() {
        perform(stop);
        while (listening > 0)
            perform(unregisterEvent);
        if (registered) perform(unregisterLog);
        perform(disconnect);
    }

  private:
    struct Outcome {
        bool result, expected;
    };

    // What an act says that it achieved, the target has acknowledged since it began.
    void perform(Act act) {
        const Nanoseconds begin = now();
        const size_t from = traced();
        const Outcome outcome = act <= unregisterEvent ? collect(act) : attempt(act);
        mustHold(!outcome.result || delivered(rules[act].evidence, from),
                 "success is acknowledged");
        const bool harmless = run->program.harmless;
        mustHold(!harmless || outcome.result == outcome.expected,
                 "what is answered in time succeeds");
        std::lock_guard<std::mutex> guard(run->mutex);
        run->spans.push_back({number, act, begin, now()});
    }

    Outcome attempt(Act act) {
        DIAG& diag = *DIAG::instance();
        unsigned char unknown[] = {75, 99, 2, 0};
        const bool wasRegistered = registered;
        switch (act) {
            case request:
                return send();
            case await:
                return awaitOldest();
            case registerLog:
                registered = true;
                return {diag.registerLogListener(logCode, this), !wasRegistered};
            case unregisterLog:
                registered = false;
                return {diag.unregisterLogListener(logCode, this), wasRegistered};
            case connect:
                return {diag.connect(), true};
            case post:
                return {diag.sendRequest(unknown, sizeof unknown, nullptr), true};
            default:
                diag.disconnectIfIdle();
                return {true, true};
        }
    }

    // What comes of it is certain only where the other client does nothing of the kind meanwhile.
    Outcome collect(Act act) {
        std::unique_lock<std::mutex> guard(run->mutex);
        bool alone = run->underWay++ == 0;
        const int entry = ++run->entered;
        const bool expected = act == start ? run->collecting == 0 && run->listeners > 0
                                           : act != stop || run->collecting == 1;
        guard.unlock();
        const bool result = callAdsppm(act);
        guard.lock();
        if (result) count(act);
        alone &= run->entered == entry;
        if (--run->underWay == 0)
            mustHold((run->collecting & ~1) == 0, "starts and stops take turns");
        mustHold(!alone || expected || !result, "who cannot start or stop is told");
        return {result, alone ? expected : result};
    }

    bool callAdsppm(Act act) {
        ADSPPM& adsppm = *ADSPPM::instance();
        const int id = number == 0 ? -2 : 5;
        std::string refusal;
        if (act == start) return adsppm.startMetricCollection();
        if (act == stop) return adsppm.stopMetricCollection();
        if (act == unregisterEvent) return adsppm.unregisterListener(&values, id);
        return adsppm.registerListener(&values, id, "", 1000 * 1000, refusal);
    }

    // With the run's mutex held.
    void count(Act act) {
        if (act <= stop) {
            run->collecting += act == start ? 1 : -1;
        } else if (act == registerEvent || listening > 0) {
            const int change = act == registerEvent ? 1 : -1;
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

    // It ends when the answer comes, or at its time-out, not a moment earlier or later.
    Outcome awaitOldest() {
        if (outstanding.empty()) return {true, true};
        Request& oldest = *outstanding.front();
        outstanding.pop_front();
        const Nanoseconds begin = now();
        const bool accepted = DIAG::instance()->awaitResponse(oldest);
        oldest.closed = true;
        mustHold(accepted == oldest.heard, "a wait tells whether the answer came");
        const Nanoseconds end =
            accepted ? std::max(begin, oldest.heardAt) : begin + Milliseconds(answer);
        mustHold(now() == end, "a wait ends when the answer comes, or is given up");
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
        virtual_time::sleep(Milliseconds(answer));
        mustHold(!program.harmless || getsLogs() == (current.collecting == 1),
                 "who collects gets the logs");
        for (Client& other : clients)
            other.tidy();
        mustHold(!program.harmless || fd == -1, "an idle session is disconnected");
        forgetSession();
    };
    virtual_time::run({[&] { body(clients[0]); }, [&] { body(clients[1]); }},
                      std::chrono::seconds(5) * (program.steps.size() + 8));
    checkDurations(current.spans);
    mustHold(descriptorCount() == descriptors, "no descriptor is left");
    awaitThreads(threads);
}

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    [[maybe_unused]] static const bool ready = [] {
        fuzz::SilentLogs::install();
        ADSPPM::instance();
        fuzz::virtual_time::run({[] {}}, fuzz::Milliseconds(1));  // a sanitizer's own thread
        return true;
    }();
    fuzz::check(fuzz::readProgram(fuzz::Feed(data, size)));
    return 0;
}
