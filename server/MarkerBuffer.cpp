#include "server/MarkerBuffer.h"

#include <cstdio>
#include <mutex>

#include "metric/MetricRegistry.h"

namespace tavrik {

std::atomic<unsigned> MarkerBuffer::_bufferCount{0};
MarkerBufferCountMetric* markerBufferCountMetric = nullptr;

MarkerBufferCountMetric::MarkerBufferCountMetric() {
    category = "Buffer";
    instance = "MarkerBuffer";
    name = "Count";
    char text[256];
    snprintf(text, sizeof text,
             "the total number of buffers allocated.  Each %u byte buffer may contain a variable "
             "array of %u byte entries.  Each entry may also contain a variable length string.",
             static_cast<unsigned>(sizeof(MarkerBuffer)),
             static_cast<unsigned>(sizeof(MarkerEntry)));
    description = text;
}

MarkerBuffer::MarkerBuffer() {
    ++_bufferCount;
    static std::once_flag once;
    std::call_once(once, [] {
        markerBufferCountMetric = new MarkerBufferCountMetric;
        MetricRegistry::Instance()->addMetric(markerBufferCountMetric);
    });
}

MarkerBuffer::~MarkerBuffer() { --_bufferCount; }

template <typename Text>
void MarkerBuffer::appendMarker(double time, int value, const Text& text) {
    append([&](MarkerEntry& slot) {
        slot.timestamp = time;
        slot.value = value;
        slot.text = text;
    });
}

void MarkerBuffer::appendValue(double time, int value, const std::string& text) {
    appendMarker(time, value, text);
}

void MarkerBuffer::appendValue(double time, int value, const char* text) {
    appendMarker(time, value, text != nullptr ? text : "");
}

}  // namespace tavrik
