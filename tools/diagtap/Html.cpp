#include <algorithm>
#include <cstdio>

#include "tools/diagtap/Formats.h"
#include "tools/diagtap/Show.h"

namespace diagtap {
namespace {

constexpr size_t kMostPoints = 1500;  // of a plot: more are not told apart
constexpr size_t kMostLines = 2000;   // of the exchange

constexpr const char* kStyle = R"(
:root{--ink:#1c2430;--soft:#5b6675;--line:#d7dde5;--paper:#fff;--ok:#1e8e5a;--bad:#c2382e;--wait:#c77d0a;--none:#b8c1cc;--host:#2b6cb0}
*{box-sizing:border-box}
body{margin:0 auto;max-width:70rem;padding:1rem;font:16px/1.45 system-ui,sans-serif;color:var(--ink);background:var(--paper)}
h1{font-size:1.4rem;margin:.2rem 0}h2{font-size:1.1rem;margin:1.6rem 0 .5rem}
p{margin:.3rem 0}.soft{color:var(--soft);overflow-wrap:anywhere}
.cause{border-left:.4rem solid var(--bad);background:#fdf0ee;padding:.6rem .8rem;font-size:1.05rem;margin:.8rem 0;overflow-wrap:anywhere}
.cause.ok{border-color:var(--ok);background:#edf7f1}
.facts{display:grid;grid-template-columns:repeat(auto-fit,minmax(9.5rem,1fr));gap:.6rem;margin:.8rem 0}
.facts div{border:1px solid var(--line);border-radius:.4rem;padding:.5rem .7rem}
.facts b{display:block;font-size:1.2rem;font-variant-numeric:tabular-nums}.facts span{color:var(--soft);font-size:.85rem}
.row{display:flex;align-items:center;height:1.45rem;font-size:.85rem}
.row span{flex:0 0 7.2rem;white-space:nowrap}
.track{position:relative;overflow:hidden;flex:1;height:1rem;background:#f3f5f8;border-radius:.2rem}
.track i{position:absolute;top:0;bottom:0;min-width:3px;border-radius:.15rem;background:var(--ok)}
.track svg{position:absolute;inset:0;width:100%;height:100%}
i.refused,i.short,i.driver{background:var(--bad)!important}i.late,i.timeout{background:var(--wait)!important}
.scale{display:flex;justify-content:space-between;margin-left:7.2rem;font-size:.8rem;color:var(--soft)}
table{border-collapse:collapse;width:100%;font-size:.9rem}
th,td{text-align:left;padding:.25rem .5rem .25rem 0;border-bottom:1px solid var(--line);vertical-align:top}
td.n,th.n{text-align:right;font-variant-numeric:tabular-nums;white-space:nowrap}
.s{font-weight:600;color:var(--ok)}.s.refused,.s.short,.s.driver{color:var(--bad)}
.s.late,.s.timeout{color:var(--wait)}.s.not{color:var(--soft);font-weight:400}
td small{display:block;font-weight:400;color:var(--soft);white-space:normal;overflow-wrap:anywhere}
.plots{display:grid;grid-template-columns:repeat(auto-fit,minmax(16rem,1fr));gap:1rem}
figure{margin:0;border:1px solid var(--line);border-radius:.4rem;padding:.5rem .7rem}
figcaption{font-size:.85rem;display:flex;justify-content:space-between;gap:.5rem}
figure svg{width:100%;height:5.5rem;display:block}
pre{overflow-x:auto;font-size:.75rem;background:#f3f5f8;padding:.6rem;border-radius:.4rem}
@media print{body{max-width:none;padding:0;font-size:11pt}*{print-color-adjust:exact;-webkit-print-color-adjust:exact}details{display:none}figure,.row,tr{break-inside:avoid}}
)";

std::string decimal(double value, int places) {
    char text[40];
    std::snprintf(text, sizeof text, "%.*f", places, value);
    return text;
}

// A class of the style, which has no blanks: "driver" for a driver error.
std::string classOf(State state) {
    const std::string name = nameOf(state);
    return name.substr(0, name.find(' '));
}

class SessionPage {
  public:
    SessionPage(const Session& session, const std::vector<ShownLine>& lines, uint64_t offset)
        : session_(session),
          lines_(lines),
          offset_(offset),
          whole_(std::max<uint64_t>(session.end, 1)) {}

    std::string write() {
        cause();
        facts();
        timeLine();
        plots();
        table();
        exchange();
        return std::move(out_);
    }

  private:
    struct Point {
        double x;
        double y;
    };

    std::string percent(uint64_t time) const {
        const double part = static_cast<double>(time) / static_cast<double>(whole_);
        return decimal(std::min(part, 1.0) * 100, 3) + '%';
    }

    void cause() {
        const bool good = session_.cause.empty();
        out_ += std::string("<p class=\"cause") + (good ? " ok\">" : "\">") +
                (good ? "Every step is ok." : escaped(session_.cause)) + "</p>\n";
        for (const std::string& remark : session_.remarks)
            out_ += "<p>Remark: " + escaped(remark) + "</p>\n";
    }

    void fact(const std::string& value, const char* what) {
        out_ += "<div><b>" + value + "</b><span>" + what + "</span></div>\n";
    }

    void facts() {
        out_ += "<div class=\"facts\">\n";
        if (const auto& loopback = session_.loopback) {
            fact(inMs(static_cast<double>(loopback->roundTrip)) + " ms", "loopback, round trip");
            fact(decimal(static_cast<double>(loopback->clockShift) / 1000, 1) + " ms",
                 "host's clock ahead of the ADSP's");
        }
        fact(std::to_string(session_.packets.size()), "log packets");
        if (const auto& period = session_.period) {
            fact(inMs(period->mean) + " ms", "their mean period");
            fact(inMs(period->jitter) + " ms", "jitter");
            fact(inMs(period->longest) + " ms", "longest gap");
        }
        if (const auto& clock = session_.clock)
            fact(decimal(clock->median / 1000, 1) + " MHz", "core clock, median");
        out_ += "</div>\n";
    }

    // --- time line ---

    void timeLine() {
        out_ += "<h2>Time line</h2>\n";
        messages("host", true);
        messages("device", false);
        for (size_t i = 0; i < kSteps; ++i)
            bar(static_cast<StepId>(i), session_.steps[i]);
        out_ += "<div class=\"scale\"><span>0</span><span>" + inMs(static_cast<double>(whole_)) +
                " ms</span></div>\n";
    }

    void row(const char* label, const std::string& content) {
        out_ += std::string("<div class=\"row\"><span>") + label + "</span><div class=\"track\">" +
                content + "</div></div>\n";
    }

    // A stroke for each message of one side; many at one place are one.
    void messages(const char* label, bool host) {
        std::string path;
        long last = -1;
        for (const ShownLine& line : lines_) {
            if ((line.who == "host") != host) continue;
            const double part =
                static_cast<double>(line.time - offset_) / static_cast<double>(whole_);
            const long place = static_cast<long>(part * 2000);
            if (place == last) continue;
            last = place;
            path += 'M' + std::to_string(place) + " 0V10";
        }
        row(label, "<svg viewBox=\"0 0 2000 10\" preserveAspectRatio=\"none\"><path d=\"" + path +
                       "\" stroke=\"var(--host)\" stroke-width=\"1.5\" "
                       "vector-effect=\"non-scaling-stroke\"/></svg>");
    }

    void bar(StepId id, const Step& step) {
        if (step.state == State::kNotReached || (step.count == 0 && step.duration == 0)) {
            return row(nameOf(id), "");
        }
        row(nameOf(id), "<i class=\"" + classOf(step.state) + "\" style=\"left:min(" +
                            percent(step.time) + ",100% - 3px);width:" + percent(step.duration) +
                            "\"></i>");
    }

    // --- plots ---

    void plots() {
        if (session_.packets.size() < 2) return;
        out_ += "<h2>Core clock and counters</h2>\n<div class=\"plots\">\n";
        plot("core clock, MHz", 1,
             [](const LogPacket& packet) { return scaled(packet.record.clockKhz, 0.001); });
        for (size_t i = 0; i < diagsim::LogRecord::kTotals; ++i) {
            plot("counter " + std::to_string(i + 1), 0,
                 [i](const LogPacket& packet) { return scaled(packet.record.totals[i], 1); });
        }
        out_ += "</div>\n";
    }

    template <typename Number>
    static std::optional<double> scaled(const std::optional<Number>& value, double factor) {
        if (!value) return std::nullopt;
        return static_cast<double>(*value) * factor;
    }

    template <typename Value>
    void plot(const std::string& title, int places, Value value) {
        std::vector<Point> points;
        const size_t stride = session_.packets.size() / kMostPoints + 1;
        for (size_t i = 0; i < session_.packets.size(); i += stride) {
            const auto y = value(session_.packets[i]);
            if (y) points.push_back({static_cast<double>(session_.packets[i].time), *y});
        }
        if (!points.empty()) draw(title, places, points);
    }

    void draw(const std::string& title, int places, const std::vector<Point>& points) {
        const auto lower = [](const Point& a, const Point& b) { return a.y < b.y; };
        const auto [low, high] = std::minmax_element(points.begin(), points.end(), lower);
        const double span = high->y > low->y ? high->y - low->y : 1;
        const double width = std::max(points.back().x - points.front().x, 1.0);
        std::string path;
        for (const Point& point : points) {
            const double x = (point.x - points.front().x) / width * 1000;
            const double y = high->y > low->y ? 95 - (point.y - low->y) / span * 90 : 50;
            path += (path.empty() ? 'M' : 'L') + decimal(x, 1) + ' ' + decimal(y, 1);
        }
        out_ += "<figure><figcaption><b>" + title + "</b><span>" + decimal(low->y, places) +
                " to " + decimal(high->y, places) +
                "</span></figcaption><svg viewBox=\"0 0 1000 100\" preserveAspectRatio=\"none\">"
                "<path d=\"" +
                path +
                "\" fill=\"none\" stroke=\"var(--host)\" stroke-width=\"2\" "
                "vector-effect=\"non-scaling-stroke\"/></svg></figure>\n";
    }

    // --- tables ---

    void table() {
        out_ +=
            "<h2>Steps</h2>\n<table><tr><th>step</th><th>state</th><th class=\"n\">at, ms</th>"
            "<th class=\"n\">took, ms</th></tr>\n";
        for (size_t i = 0; i < kSteps; ++i)
            tableRow(static_cast<StepId>(i), session_.steps[i]);
        out_ += "</table>\n";
    }

    void tableRow(StepId id, const Step& step) {
        const bool reached = step.state != State::kNotReached;
        const auto time = [reached](uint64_t value) {
            const std::string text = reached ? inMs(static_cast<double>(value)) : "";
            return "<td class=\"n\">" + text + "</td>";
        };
        out_ += std::string("<tr><td>") + nameOf(id) + "</td><td class=\"s " + classOf(step.state) +
                "\">" + nameOf(step.state) + "<small>" + escaped(remarkOn(step)) + "</small></td>" +
                time(step.time) + time(step.duration) + "</tr>\n";
    }

    void exchange() {
        out_ += "<details><summary>Exchange, " + std::to_string(lines_.size()) + " messages" +
                (lines_.size() > kMostLines ? ", the first " + std::to_string(kMostLines) : "") +
                "</summary><pre>";
        for (size_t i = 0; i < std::min(lines_.size(), kMostLines); ++i)
            out_ += escaped(format(lines_[i])) + '\n';
        out_ += "</pre></details>\n";
    }

    const Session& session_;
    const std::vector<ShownLine>& lines_;
    const uint64_t offset_;
    const uint64_t whole_;
    std::string out_{};
};

// The lines from a session's begin to the next one's.
std::vector<ShownLine> linesBetween(const std::vector<ShownLine>& lines, uint64_t begin,
                                    uint64_t end) {
    std::vector<ShownLine> between;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(between),
                 [=](const ShownLine& line) { return line.time >= begin && line.time <= end; });
    return between;
}

}  // namespace

std::string toHtml(const Report& report) {
    const diagsim::Capture& capture = report.capture;
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\"><title>" +
        escaped(report.file) + "</title><style>" + kStyle + "</style></head><body>\n<h1>" +
        escaped(report.file) + "</h1>\n<p class=\"soft\">" + escaped(capture.program) + " on " +
        escaped(capture.hardware) + ", " + std::to_string(capture.calls.size()) + " calls</p>\n";
    if (!capture.problem.empty())
        page += "<p class=\"cause\">" + escaped(capture.problem) + "</p>\n";
    const std::vector<ShownLine> lines = linesOf(capture);
    for (size_t i = 0; i < report.sessions.size(); ++i) {
        const Session& session = report.sessions[i];
        if (report.sessions.size() > 1) page += "<h2>Session " + std::to_string(i + 1) + "</h2>\n";
        const uint64_t begin = session.begin - capture.calls.front().time;
        page +=
            SessionPage(session, linesBetween(lines, begin, begin + session.end), begin).write();
    }
    return page + "</body></html>\n";
}

}  // namespace diagtap
