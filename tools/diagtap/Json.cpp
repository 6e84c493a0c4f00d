#include <cmath>

#include "json/JSOM.h"
#include "sim/model/ErrnoName.h"
#include "tools/diagtap/Formats.h"

namespace diagtap {
namespace {

using tavrik::JSOM;

constexpr int kVersion = 1;

template <typename Number>
void set(JSOM place, Number nanoseconds) {
    place.setLong(std::llround(static_cast<double>(nanoseconds) / 1000));
}

void addStep(JSOM place, StepId id, const Step& step) {
    place["name"].setString(nameOf(id));
    place["state"].setString(nameOf(step.state));
    place["count"].setLong(step.count);
    if (step.state == State::kNotReached) return;
    set(place["time_us"], step.time);
    set(place["duration_us"], step.duration);
    if (step.error != 0) place["errno"].setString(diagsim::errnoName(step.error));
    if (!step.detail.empty()) place["detail"].setString(step.detail);
}

// The counters of the last packet, and what they gained since the first.
template <typename Values>
void addCounters(JSOM place, const Values& first, const Values& last) {
    for (size_t i = 0; i < last.size(); ++i) {
        if (!first[i] || !last[i]) continue;
        JSOM counter = place[static_cast<int>(i)];
        counter["last"].setLong(static_cast<long long>(*last[i]));
        counter["gain"].setLong(static_cast<long long>(*last[i] - *first[i]));
    }
}

void addLogs(JSOM place, const Session& session) {
    place["count"].setLong(static_cast<long long>(session.packets.size()));
    if (const auto& period = session.period) {
        set(place["period_us"]["mean"], period->mean);
        set(place["period_us"]["jitter"], period->jitter);
        set(place["period_us"]["longest_gap"], period->longest);
    }
    if (const auto& clock = session.clock) {
        place["core_clock_khz"]["min"].setLong(clock->min);
        place["core_clock_khz"]["median"].setDouble(clock->median);
        place["core_clock_khz"]["max"].setLong(clock->max);
    }
    if (session.packets.empty()) return;
    const diagsim::LogRecord& first = session.packets.front().record;
    const diagsim::LogRecord& last = session.packets.back().record;
    addCounters(place["slots"], first.slots, last.slots);
    addCounters(place["totals"], first.totals, last.totals);
}

void addSession(JSOM place, const Session& session) {
    for (size_t i = 0; i < kSteps; ++i)
        addStep(place["steps"][static_cast<int>(i)], static_cast<StepId>(i), session.steps[i]);
    if (const auto& loopback = session.loopback) {
        set(place["loopback"]["round_trip_us"], loopback->roundTrip);
        place["loopback"]["clock_shift_us"].setLong(loopback->clockShift);
    }
    addLogs(place["log_packets"], session);
    for (size_t i = 0; i < session.remarks.size(); ++i)
        place["remarks"][static_cast<int>(i)].setString(session.remarks[i]);
    place["cause"].setString(session.cause);
}

}  // namespace

std::string toJson(const Report& report) {
    JSOM top;
    top["version"].setLong(kVersion);
    top["file"].setString(report.file);
    top["program"].setString(report.capture.program);
    top["hardware"].setString(report.capture.hardware);
    top["system"].setString(report.capture.system);
    top["problem"].setString(report.capture.problem);
    for (size_t i = 0; i < report.sessions.size(); ++i)
        addSession(top["sessions"][static_cast<int>(i)], report.sessions[i]);
    std::string text;
    top.toString(text);
    return text + '\n';
}

}  // namespace diagtap
