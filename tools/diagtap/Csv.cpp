#include "tools/diagtap/Formats.h"

namespace diagtap {
namespace {

class Table {
  public:
    void add(size_t session, const Session& from) {
        session_ = session;
        for (packet_ = 0; packet_ < from.packets.size(); ++packet_)
            addPacket(from.packets[packet_]);
    }

    std::string text{"session,packet,time_us,name,value\n"};

  private:
    void addPacket(const LogPacket& packet) {
        time_ = packet.time / 1000;
        const diagsim::LogRecord& record = packet.record;
        if (record.time) row("adsp_time_us", diagsim::adspMicroseconds(*record.time));
        if (record.clockKhz) row("core_clock_khz", *record.clockKhz);
        if (record.busHz) row("bus_hz", *record.busHz);
        for (size_t i = 0; i < record.slots.size(); ++i) {
            if (record.slots[i]) row("slot" + std::to_string(i), *record.slots[i]);
        }
        for (size_t i = 0; i < record.totals.size(); ++i) {
            if (record.totals[i]) row("total" + std::to_string(i), *record.totals[i]);
        }
    }

    void row(const std::string& name, uint64_t value) {
        text += std::to_string(session_) + ',' + std::to_string(packet_ + 1) + ',' +
                std::to_string(time_) + ',' + name + ',' + std::to_string(value) + '\n';
    }

    size_t session_ = 0;
    size_t packet_ = 0;
    uint64_t time_ = 0;
};

}  // namespace

std::string toCsv(const Report& report) {
    Table table;
    for (size_t i = 0; i < report.sessions.size(); ++i)
        table.add(i + 1, report.sessions[i]);
    return table.text;
}

}  // namespace diagtap
