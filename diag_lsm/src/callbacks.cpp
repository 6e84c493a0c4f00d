#include "diag_lsm/src/callbacks.h"

#include "diag_lsm/diag_bytes.h"
#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/src/StaticMutex.h"
#include "diag_lsm/src/diagnostics.h"

#define UNREGISTERED                    \
    {                                   \
        0, {-1}, {nullptr}, { nullptr } \
    }

inline namespace tavrik_diag_lsm {

diag_client client_tbl[DIAG_PROCESSORS] = {UNREGISTERED, UNREGISTERED, UNREGISTERED, UNREGISTERED,
                                           UNREGISTERED, UNREGISTERED, UNREGISTERED, UNREGISTERED,
                                           UNREGISTERED, UNREGISTERED};
const int token_list[DIAG_PROCESSORS] = {0, -1, -2, -3, -4, -5, -6, -7, -8, -9};

namespace {

// Guards client_tbl, so that a callback gets its own context. Taken alone, never held during a
// call.
StaticMutex client_mutex;

// Walks the chunks of a type-32 buffer. Checks the length before every step.
class ChunkReader {
  public:
    ChunkReader(unsigned char* data, int length) : at(data), left(length) {}

    bool word(uint32_t& value) {
        if (left < 4) return false;
        value = diag_get_u32(at);
        skip(4);
        return true;
    }

    bool data(uint32_t length, unsigned char*& bytes) {
        if (length > static_cast<uint32_t>(left)) return false;
        bytes = at;
        skip(static_cast<int>(length));
        return true;
    }

    int bytesLeft() const { return left; }

  private:
    void skip(int count) {
        at += count;
        left -= count;
    }

    unsigned char* at;
    int left;
};

struct chunk {
    int proc;
    unsigned char* data;
    uint32_t length;
};

int processor_of(int token) {
    for (int proc = 0; proc < DIAG_PROCESSORS; ++proc) {
        if (token_list[proc] == token) return proc;
    }
    return -1;
}

bool next_chunk(ChunkReader& reader, chunk& next) {
    uint32_t word = 0;
    if (!reader.word(word)) return false;
    next.proc = 0;
    const int token = static_cast<int32_t>(word);
    if (token < 0) {
        next.proc = processor_of(token);
        if (next.proc < 0) {
            qsprintf("diag: Invalid token in %s, CALLBACK MODE", "log_to_device");
            return false;
        }
        if (!reader.word(word)) return false;
    }
    next.length = word;
    return reader.data(word, next.data);
}

// False without a callback.
bool invoke_callback(const chunk& received) {
    diag_callback callback = nullptr;
    void* context = nullptr;
    {
        StaticMutexLock guard(client_mutex);
        callback = client_tbl[received.proc].callback;
        context = client_tbl[received.proc].context;
    }
    if (!callback) {
        qsprintf("diag: no callback function registered for proc %d", received.proc);
        return false;
    }
    const int result = callback(received.data, static_cast<int>(received.length), context);
    if (result < 0) qsprintf("diag: failed to invoke callback funtion %d\n", result);
    return true;
}

void deliver_to_callbacks(unsigned char* payload, int length) {
    ChunkReader reader(payload, length);
    uint32_t count = 0;
    if (!reader.word(count)) return;
    for (uint32_t i = 0; i < count; ++i) {
        chunk next{};
        if (!next_chunk(reader, next)) {
            diag_logger()->warnf(
                "diag: dropped a malformed buffer after %u of %u chunks, %d bytes left", i, count,
                reader.bytesLeft());
            return;
        }
        if (!invoke_callback(next)) return;
    }
}

}  // namespace

void log_to_device(unsigned char* payload, int length, int mode) {
    if (mode == DIAG_MODE_CALLBACK) {
        deliver_to_callbacks(payload, length);
    } else if (mode != DIAG_MODE_USB) {
        qsprintf("diag: Incorrect logging mode\n");
    }
}

void reset_clients() {
    StaticMutexLock guard(client_mutex);
    for (diag_client& client : client_tbl) {
        client.registered = -1;
        client.callback = nullptr;
        client.context = nullptr;
    }
}

void register_client(int proc, diag_callback callback, void* context) {
    StaticMutexLock guard(client_mutex);
    client_tbl[proc].context = context;
    client_tbl[proc].callback = callback;
    client_tbl[proc].registered = 1;
}

}  // namespace tavrik_diag_lsm
