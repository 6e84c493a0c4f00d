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

// The part of a marker buffer that appends.
class MarkerBufferInterface : public BufferInterface {
  public:
    virtual void appendValue(double time, int value, const std::string& text) = 0;
};

// A buffer of markers. See Buffer for threads and ownership. Any thread may create and destroy
// marker buffers. The first one adds markerBufferCountMetric to the MetricRegistry, and deadlocks
// if a visitor of that registry creates it.
class MarkerBuffer : public BufferBase<MarkerEntry>, public MarkerBufferInterface {
  public:
    MarkerBuffer();
    ~MarkerBuffer() override;
    MarkerBuffer(const MarkerBuffer&) = delete;
    MarkerBuffer& operator=(const MarkerBuffer&) = delete;

    std::string getBufferType() const override { return TYPE_MARKER; }
    std::string getBufferClass() const override { return "MarkerBuffer"; }
    MarkerBufferInterface* getBufferInterface() override { return this; }

    // Append an entry. `text` may be the text of an entry of this buffer; null is an empty text.
    void appendValue(double time, int value, const std::string& text) override;
    virtual void appendValue(double time, int value, const char* text);

    // The number of marker buffers in the process.
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

// The metric of the process, never removed or deleted. Null until the first MarkerBuffer, then
// constant.
extern MarkerBufferCountMetric* markerBufferCountMetric;

}  // namespace tavrik
