// Input: buffers of the driver: raw ones, or made of fuzzed chunks, or of one fuzzed frame or log
// record, while requests are outstanding and ADSPPM collects. Checks: callbacks get bytes that were
// read; each request gets one response, in the order of sending; the reader goes on.
#include <deque>

#include "diag_lsm/diag_lsm.h"
#include "fuzz/Marks.h"

using fuzz::mustHold;
using tavrik::DIAG;

namespace {

struct Answer : DIAG::ResponseListener {
    static inline size_t heard = 0;  // in this input; the reader counts, await() publishes
    explicit Answer(size_t position_) : position(position_) {}
    bool onResponse(const unsigned char* rsp, int len) override {
        mustHold(position == heard++, "responses come in order, one for each request");
        return rsp[0] != 0 && rsp[len - 1] == 0x7E;
    }
    const size_t position;
};

// Passes on a copy without spare capacity, for the address sanitizer.
int onData(unsigned char* data, int len, void* context) {
    static const unsigned char* const buffer =
        data - 12;  // the first call is a log mask's response
    mustHold(data >= buffer + 12 && data + len <= buffer + num_bytes_read,
             "a callback gets a part of the buffer");
    return DIAG::onDIAGData(fuzz::exactCopy(data, static_cast<size_t>(len)).get(), len, context);
}

void deliver(fuzz::Feed& feed) {
    const uint8_t kind = feed.byte() % 4;
    if (kind == 0) {
        const fuzz::Bytes raw = feed.block();  // type 16 ends the reader; an empty buffer pauses it
        if (!raw.empty() && diagsim::wordAt(raw, 0, 4) != 16) fuzz::device().deliver(raw);
    } else if (kind == 1) {
        std::vector<diagsim::Chunk> chunks(feed.byte() % 4);
        for (diagsim::Chunk& chunk : chunks) {
            if (feed.byte() % 4 == 1) chunk.token = 0u - feed.byte();
            chunk.data = feed.block();
        }
        fuzz::device().deliver(diagsim::chunkBuffer(chunks));
    } else {
        fuzz::Bytes packet{16, 0, 0, 0, feed.byte(), 0, 0x45, 0x16};
        diagsim::append(packet, feed.block());
        fuzz::device().deliverFrame(kind == 2 ? packet
                                              : fuzz::Bytes(packet.begin() + 8, packet.end()));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::SilentListener values;
    static fuzz::Marks marks;
    static const bool ready = [] {
        const bool started = fuzz::startCollection(values, {-2, 5});
        diag_register_callback(onData, DIAG::instance());
        for (int processor = 1; processor < 9; ++processor)
            diag_register_remote_callback(onData, processor, DIAG::instance());
        return DIAG::instance()->registerLogListener(fuzz::Marks::kLogCode, &marks) && started;
    }();
    mustHold(ready, "the session starts");
    fuzz::Feed feed(data, size);
    Answer::heard = 0;
    std::deque<Answer> requests;
    const size_t count = feed.byte() % 4;
    unsigned char stop[20] = {75, 12, 4, 4, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255};
    while (requests.size() < count)
        DIAG::instance()->sendRequest(stop, sizeof stop, &requests.emplace_back(requests.size()));
    while (!feed.empty())
        deliver(feed);
    marks.await();
    const size_t missing = count - Answer::heard;
    for (size_t left = missing; left > 0; --left)
        fuzz::device().deliverFrame({75});
    if (missing > 0) marks.await();
    mustHold(Answer::heard == count, "every request gets its response");
    return 0;
}
