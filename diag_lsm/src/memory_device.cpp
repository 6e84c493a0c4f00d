#include "diag_lsm/src/memory_device.h"

#include <cstring>

#include "diag_lsm/src/StaticMutex.h"

inline namespace tavrik_diag_lsm {

std::atomic<int> flush_log{0};
std::atomic<int> curr_read{0};

namespace {

constexpr int kPoolCount = 2;
constexpr int kBuffersPerPool = 3;

struct pool_buffer {
    unsigned char* data;
    unsigned used;
};

struct memory_pool {
    StaticMutex mutex;  // guards what follows; taken alone
    StaticCondition data_ready;
    StaticCondition room;
    bool full TAVRIK_GUARDED_BY(mutex) = false;
    bool stopped TAVRIK_GUARDED_BY(mutex) = false;
    pool_buffer* buffers TAVRIK_GUARDED_BY(mutex) = nullptr;
};

// Buffers of the two pools alternate in this area.
unsigned char static_buffer[kPoolCount * kBuffersPerPool][MEMORY_DEVICE_BUFFER_SIZE];
pool_buffer pool0_buffers[kBuffersPerPool];
pool_buffer pool1_buffers[kBuffersPerPool];
memory_pool pools[kPoolCount];

// Guards flush_log's changes and the two flags; taken alone.
StaticMutex stop_mutex;
StaticCondition stop_cond;
int write_in_progress TAVRIK_GUARDED_BY(stop_mutex) = 0;
bool flush_stopped TAVRIK_GUARDED_BY(stop_mutex) = false;
// Only changed while no reader runs.
bool buffer_init = false;

void init_buffers() {
    if (buffer_init) return;
    for (int i = 0; i < kBuffersPerPool; ++i) {
        pool0_buffers[i].data = static_buffer[2 * i];
        pool1_buffers[i].data = static_buffer[2 * i + 1];
    }
    buffer_init = true;
}

void empty(memory_pool& pool) TAVRIK_REQUIRES(pool.mutex) {
    for (int i = 0; i < kBuffersPerPool; ++i)
        pool.buffers[i].used = 0;
    pool.full = false;
}

pool_buffer* buffer_with_room(memory_pool& pool, unsigned length) TAVRIK_REQUIRES(pool.mutex) {
    for (int i = 0; i < kBuffersPerPool; ++i) {
        if (length <= MEMORY_DEVICE_BUFFER_SIZE - pool.buffers[i].used) return &pool.buffers[i];
    }
    return nullptr;
}

void hand_over(memory_pool& pool) TAVRIK_REQUIRES(pool.mutex) {
    pool.full = true;
    pool.data_ready.notifyAll();
    curr_read = 1 - curr_read;
}

// False when no buffer had room and the pool went to the writer instead.
bool append_to(memory_pool& pool, const unsigned char* payload, unsigned length)
    TAVRIK_REQUIRES(pool.mutex) {
    pool_buffer* buffer = buffer_with_room(pool, length);
    if (!buffer) {
        hand_over(pool);
        return false;
    }
    memcpy(buffer->data + buffer->used, payload, length);
    buffer->used += length;
    if (buffer->used > MEMORY_DEVICE_THRESHOLD) hand_over(pool);
    return true;
}

}  // namespace

void memory_device_reset(void) {
    init_buffers();
    for (int i = 0; i < kPoolCount; ++i) {
        StaticMutexLock guard(pools[i].mutex);
        pools[i].buffers = i == 0 ? pool0_buffers : pool1_buffers;
        pools[i].stopped = false;
        empty(pools[i]);
    }
    curr_read = 0;
    StaticMutexLock guard(stop_mutex);
    flush_stopped = false;
}

void memory_device_append(const unsigned char* payload, unsigned length) {
    if (length > MEMORY_DEVICE_BUFFER_SIZE) return;
    for (;;) {
        memory_pool& pool = pools[curr_read];
        StaticMutexLock guard(pool.mutex);
        while (pool.full && !pool.stopped)
            pool.room.wait(pool.mutex);
        if (pool.stopped || append_to(pool, payload, length)) return;
    }
}

void memory_device_flush(void) {
    while (flush_log) {
        {
            StaticMutexLock guard(stop_mutex);
            while (write_in_progress && !flush_stopped) {
                stop_cond.waitUntil(stop_mutex, StaticDeadline(1000000));
            }
            if (flush_stopped) return;
        }
        {
            memory_pool& pool = pools[curr_read];
            StaticMutexLock guard(pool.mutex);
            if (!pool.full) hand_over(pool);
        }
        StaticMutexLock guard(stop_mutex);
        while (flush_log && !flush_stopped)
            stop_cond.wait(stop_mutex);
    }
}

void memory_device_stop(void) {
    for (memory_pool& pool : pools) {
        StaticMutexLock guard(pool.mutex);
        pool.stopped = true;
        pool.room.notifyAll();
        pool.data_ready.notifyAll();
    }
    StaticMutexLock guard(stop_mutex);
    flush_stopped = true;
    stop_cond.notifyAll();
}

bool memory_device_take(int index,
                        void (*sink)(const unsigned char* data, unsigned length, void* context),
                        void* context) {
    memory_pool& pool = pools[index];
    StaticMutexLock guard(pool.mutex);
    while (!pool.full && !pool.stopped)
        pool.data_ready.wait(pool.mutex);
    if (!pool.full) return false;
    for (int i = 0; i < kBuffersPerPool; ++i) {
        if (pool.buffers[i].used) sink(pool.buffers[i].data, pool.buffers[i].used, context);
    }
    empty(pool);
    pool.room.notifyAll();
    return true;
}

void memory_device_set_flush(int on) {
    StaticMutexLock guard(stop_mutex);
    flush_log = on;
    stop_cond.notifyAll();
}

void memory_device_set_write_in_progress(int on) {
    StaticMutexLock guard(stop_mutex);
    write_in_progress = on;
    stop_cond.notifyAll();
}

}  // namespace tavrik_diag_lsm
