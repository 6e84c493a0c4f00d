#include <boost/circular_buffer.hpp>

#include <string>
#include <vector>

#include "bench/Bench.h"
#include "server/ChannelList.h"
#include "server/MarkerBuffer.h"

namespace {

using tavrik::ChannelList;

constexpr int kEntries = 4000;
const char* const kText = "the limit of PMU events";

void append(benchmark::State& state, int count) {
    for (auto _ : state) {
        tavrik::MarkerBuffer buffer;
        for (int i = 0; i < count; ++i)
            buffer.appendValue(i, i, kText);
        benchmark::DoNotOptimize(buffer.getCount());
    }
}

void peerAppend(benchmark::State& state) {
    struct Marker {
        virtual ~Marker() = default;
        double time = 0;
        int value = 0;
        std::string text;
    };
    for (auto _ : state) {
        boost::circular_buffer<Marker> buffer(kEntries);
        for (int i = 0; i < kEntries; ++i) {
            Marker marker;
            marker.time = i;
            marker.value = i;
            marker.text = kText;
            buffer.push_back(std::move(marker));
        }
        benchmark::DoNotOptimize(buffer.size());
    }
}

class Silent : public tavrik::Channel {
  public:
    void reserve() override {}
    bool release() override { return false; }
    void removedFromList() override {}
    void setDescription(const tavrik::JSOM&) override {}
    void channelAdded(const std::string&) override {}
    void channelRemoved(const std::string&) override {}
    void publish(tavrik::Buffer&) override {}
};

// Each name once, among as many. Not the additions: listed channels hear of each other, so these
// take the square by contract.
void reserveEach(benchmark::State& state) {
    static Silent channel;
    static std::vector<std::string> all;
    for (; static_cast<int64_t>(all.size()) > state.range(0); all.pop_back())
        ChannelList::removeChannel(all.back());
    while (static_cast<int64_t>(all.size()) < state.range(0)) {
        all.push_back("channel " + std::to_string(all.size()));
        ChannelList::addChannel(all.back(), &channel);
    }
    for (auto _ : state) {
        for (const std::string& name : all)
            benchmark::DoNotOptimize(ChannelList::reserveChannel(name, nullptr));
    }
}

const bool registered = [] {
    bench::add("marker buffer, append 4000/tavrik",
               [](benchmark::State& state) { append(state, kEntries); });
    bench::add("marker buffer, append 4000/boost", peerAppend);
    bench::addGrowth("append to a marker buffer", [](benchmark::State& state) {
        append(state, static_cast<int>(state.range(0)));
    });
    // 64,000 channels would take a minute to list.
    bench::add("growth: reserve channels/tavrik", reserveEach)
        ->RangeMultiplier(4)
        ->Range(1000, 16000);
    return true;
}();

}  // namespace
