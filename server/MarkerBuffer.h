#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "metric/Metric.h"
#include "server/BufferBase.h"

namespace tavrik {

// A moment, with a number and a text.
class MarkerEntry : public Entry {
  public:
    double getTimestamp() const override { return timestamp; }

    double timestamp = 0.0;  // seconds since the Unix epoch
    int32_t value = 0;
    std::string text;
};

// A marker buffer as somebody sees it who only appends to it.
class MarkerBufferInterface : public BufferInterface {
  public:
    virtual void appendValue(double time, int value, const std::string& text) = 0;
};

// A buffer of markers. See Buffer for threads and ownership; making and destroying marker buffers
// is safe on any thread. The first one of the process adds markerBufferCountMetric to the
// MetricRegistry: not to be made by a visitor of that registry.
class MarkerBuffer : public BufferBase<MarkerEntry>, public MarkerBufferInterface {
  public:
    MarkerBuffer();
    ~MarkerBuffer() override;
    MarkerBuffer(const MarkerBuffer&) = delete;
    MarkerBuffer& operator=(const MarkerBuffer&) = delete;

    std::string getBufferType() const override { return TYPE_MARKER; }
    std::string getBufferClass() const override { return "MarkerBuffer"; }
    MarkerBufferInterface* getBufferInterface() override { return this; }

    // Append one entry. `text` may be that of an entry of this buffer; a null pointer is an empty
    // text.
    void appendValue(double time, int value, const std::string& text) override;
    virtual void appendValue(double time, int value, const char* text);

    // How many marker buffers there are in the process.
    static std::atomic<unsigned> _bufferCount;

  private:
    template <typename Text>
    void appendMarker(double time, int value, const Text& text);
};

// Reports MarkerBuffer::_bufferCount, without a lock.
class MarkerBufferCountMetric : public Metric {
  public:
    MarkerBufferCountMetric();
    double collect() override { return MarkerBuffer::_bufferCount; }
};

// The one of the process; registered, and never removed or deleted. Null until the first
// MarkerBuffer was made, constant from then on.
extern MarkerBufferCountMetric* markerBufferCountMetric;

}  // namespace tavrik
