// Input: log records of 92 bytes while ADSPPM collects. Checks: a record of version 1 that follows
// one with a log code gives values, and no other record does; times, values and rates are those of
// the two records.
#include <cmath>
#include <map>

#include "fuzz/Session.h"

using diagsim::wordAt;
using fuzz::Bytes;
using fuzz::mustHold;
using tavrik::ADSPPM;

namespace {

constexpr size_t kRecordLength = 92;

struct Values : ADSPPM::Listener {
    void onADSPPMInput(int id, double time_, long double value) override {
        time = time_;
        last[id] = value;
        ++calls[id];
    }
    double time = 0;
    std::map<int, long double> last{};
    std::map<int, int> calls{};
};

double timeOf(const Bytes& record) {
    const uint64_t low = wordAt(record, 4, 4), high = wordAt(record, 8, 4);
    return ADSPPM::instance()->convertTimeStamp(unsigned(low), unsigned(high));
}

void receive(const Bytes& record) {
    ADSPPM::instance()->onLog(fuzz::exactCopy(record.data(), record.size()).get());
}

void check(Values& values, const Bytes& record, const Bytes& before) {
    const auto field = [&](size_t at) { return static_cast<double>(wordAt(record, at, 4)); };
    const double factor = 1000.0 / (timeOf(record) - timeOf(before));
    for (const int id : {1, 2, 255})
        mustHold(values.calls[id] == std::count(&record[16], &record[20], id), "one value a slot");
    mustHold(values.time == timeOf(record), "the time is the record's");
    mustHold(values.last[-1] == field(36) / 1e6, "value -1 is the record's");
    mustHold(values.last[-2] == field(40) / 1e3, "the core clock is the record's");
    for (const int id : {-3, -7}) {
        const size_t at = 44 + 8 * static_cast<size_t>(-3 - id);
        const uint64_t gain = wordAt(record, at, 8) - wordAt(before, at, 8);
        const long double rate = values.last[id], expected = static_cast<double>(gain) * factor;
        // 0 / 0 is no number: neither the time nor the counter changed.
        mustHold(rate == expected || (std::isnan(rate) && std::isnan(expected)),
                 "the rate is the counter's");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Values values;
    static const bool ready = fuzz::startCollection(values, {1, 2, 255, -1, -2, -3, -7});
    mustHold(ready, "the session starts");
    fuzz::Feed feed(data, size);
    // Replaces the record that the decoder keeps from the previous input.
    Bytes before(kRecordLength, 0);
    before[2] = before[12] = 1;
    receive(before);
    while (!feed.empty()) {
        Bytes record = feed.bytes(kRecordLength);
        record.resize(kRecordLength);
        values.calls.clear();
        receive(record);
        const bool expected = record[12] == 1 && wordAt(before, 2, 2) != 0;
        mustHold(values.calls.empty() == !expected, "values come when there are two records");
        if (expected) check(values, record, before);
        if (record[12] == 1) before = record;
    }
    return 0;
}
