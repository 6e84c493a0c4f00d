#include <cstdio>

#include "sim/model/ErrnoName.h"
#include "tools/diagtap/Formats.h"

namespace diagtap {
namespace {

std::string stepLine(StepId id, const Step& step) {
    char text[128];
    if (step.state == State::kNotReached) {
        std::snprintf(text, sizeof text, "  %-15s %-12s", nameOf(id), nameOf(step.state));
        return std::string(text, 30) + '\n';
    }
    std::snprintf(text, sizeof text, "  %-15s %-12s %10s ms %10s ms", nameOf(id),
                  nameOf(step.state), inMs(static_cast<double>(step.time)).c_str(),
                  inMs(static_cast<double>(step.duration)).c_str());
    const std::string remark = remarkOn(step);
    return text + (remark.empty() ? "" : "  " + remark) + '\n';
}

std::string loopbackLine(const Loopback& loopback) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "Loopback: round trip %s ms, host's clock %.3f ms ahead of the ADSP's\n",
                  inMs(static_cast<double>(loopback.roundTrip)).c_str(),
                  static_cast<double>(loopback.clockShift) / 1000);
    return text;
}

std::string logLines(const Session& session) {
    std::string text = "Log packets: " + std::to_string(session.packets.size());
    if (const auto& period = session.period) {
        text += ", period " + inMs(period->mean) + " ms, jitter " + inMs(period->jitter) +
                " ms, longest gap " + inMs(period->longest) + " ms";
    }
    text += '\n';
    if (const auto& clock = session.clock) {
        char line[96];
        std::snprintf(line, sizeof line, "Core clock: min %.1f, median %.1f, max %.1f MHz\n",
                      clock->min / 1000.0, clock->median / 1000.0, clock->max / 1000.0);
        text += line;
    }
    return text;
}

std::string counterLine(const Session& session) {
    if (session.packets.size() < 2) return {};
    const auto& first = session.packets.front().record.totals;
    const auto& last = session.packets.back().record.totals;
    std::string text;
    for (size_t i = 0; i < first.size(); ++i) {
        if (!first[i] || !last[i]) continue;
        text += (text.empty() ? "Counters gained: " : ", ") +
                std::to_string(static_cast<int64_t>(*last[i] - *first[i]));
    }
    return text.empty() ? text : text + '\n';
}

std::string sessionText(const Session& session) {
    std::string text = "  step            state             time          took\n";
    for (size_t i = 0; i < kSteps; ++i)
        text += stepLine(static_cast<StepId>(i), session.steps[i]);
    if (session.loopback) text += loopbackLine(*session.loopback);
    text += logLines(session) + counterLine(session);
    for (const std::string& remark : session.remarks)
        text += "Remark: " + remark + '\n';
    return text +
           (session.cause.empty() ? "Every step is ok.\n" : "First cause: " + session.cause + '\n');
}

}  // namespace

std::string inMs(double nanoseconds) {
    char text[40];
    std::snprintf(text, sizeof text, "%.3f", nanoseconds / 1e6);
    return text;
}

std::string escaped(const std::string& text) {
    std::string safe;
    for (const char c : text) {
        switch (c) {
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '&':
                safe += "&amp;";
                break;
            case '"':
                safe += "&quot;";
                break;
            default:
                safe += c >= ' ' && c <= '~' ? c : '?';
        }
    }
    return safe;
}

std::string remarkOn(const Step& step) {
    std::string text = step.error != 0 ? diagsim::errnoName(step.error) : "";
    if (!step.detail.empty()) text += (text.empty() ? "" : ", ") + step.detail;
    return text;
}

std::string toText(const Report& report) {
    const diagsim::Capture& capture = report.capture;
    std::string text = report.file + ": " + capture.program + " on " + capture.hardware + ", " +
                       std::to_string(capture.calls.size()) + " calls\n";
    for (size_t i = 0; i < report.sessions.size(); ++i) {
        if (report.sessions.size() > 1) text += "Session " + std::to_string(i + 1) + '\n';
        text += sessionText(report.sessions[i]);
    }
    return text;
}

}  // namespace diagtap
