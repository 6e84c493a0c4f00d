#include "diag_lsm/diagsvc_malloc.h"

#include <cstdlib>

#include "diag_lsm/src/StaticMutex.h"

inline namespace tavrik_diag_lsm {

namespace {

constexpr int kBlocksPerPool = 10;
constexpr unsigned int kBlockSize = 2000;

struct pool_block {
    void* memory;
    bool in_use;
};

// Guards everything below.
StaticMutex gaDiagSvcMalloc_mutex;
pool_block gaDiagSvcMalloc[kBlocksPerPool] TAVRIK_GUARDED_BY(gaDiagSvcMalloc_mutex);
pool_block gaDiagSvcPktMalloc[kBlocksPerPool] TAVRIK_GUARDED_BY(gaDiagSvcMalloc_mutex);
bool gnDiagSvcMalloc_Initialized TAVRIK_GUARDED_BY(gaDiagSvcMalloc_mutex) = false;

pool_block* pool_of(int pool) TAVRIK_REQUIRES(gaDiagSvcMalloc_mutex) {
    if (pool == DIAGSVC_POOL_GENERAL) return gaDiagSvcMalloc;
    if (pool == DIAGSVC_POOL_PACKETS) return gaDiagSvcPktMalloc;
    return nullptr;
}

void free_idle_blocks(pool_block* blocks) {
    for (int i = 0; i < kBlocksPerPool; ++i) {
        if (blocks[i].in_use) continue;
        free(blocks[i].memory);
        blocks[i].memory = nullptr;
    }
}

// A block that was in use when the pools were last closed may still stand in its slot.
bool fill_blocks(pool_block* blocks) {
    for (int i = 0; i < kBlocksPerPool; ++i) {
        if (!blocks[i].memory) blocks[i].memory = malloc(kBlockSize);
        if (!blocks[i].memory) return false;
    }
    return true;
}

pool_block* block_at(pool_block* blocks, const void* memory) {
    for (int i = 0; i < kBlocksPerPool; ++i) {
        if (blocks[i].memory == memory) return &blocks[i];
    }
    return nullptr;
}

}  // namespace

int DiagSvc_Malloc_Init(void) {
    StaticMutexLock guard(gaDiagSvcMalloc_mutex);
    if (gnDiagSvcMalloc_Initialized) return 1;
    if (!fill_blocks(gaDiagSvcMalloc) || !fill_blocks(gaDiagSvcPktMalloc)) {
        free_idle_blocks(gaDiagSvcMalloc);
        free_idle_blocks(gaDiagSvcPktMalloc);
        return 0;
    }
    gnDiagSvcMalloc_Initialized = true;
    return 1;
}

void DiagSvc_Malloc_Exit(void) {
    StaticMutexLock guard(gaDiagSvcMalloc_mutex);
    free_idle_blocks(gaDiagSvcMalloc);
    free_idle_blocks(gaDiagSvcPktMalloc);
    gnDiagSvcMalloc_Initialized = false;
}

void* DiagSvc_Malloc(unsigned int size, int pool) {
    {
        StaticMutexLock guard(gaDiagSvcMalloc_mutex);
        pool_block* blocks = pool_of(pool);
        if (!blocks || !gnDiagSvcMalloc_Initialized) return nullptr;
        for (int i = 0; size <= kBlockSize && i < kBlocksPerPool; ++i) {
            if (blocks[i].in_use) continue;
            blocks[i].in_use = true;
            return blocks[i].memory;
        }
    }
    return malloc(size);
}

void DiagSvc_Free(void* p, int pool) {
    if (!p) return;
    StaticMutexLock guard(gaDiagSvcMalloc_mutex);
    pool_block* blocks = pool_of(pool);
    pool_block* block = blocks ? block_at(blocks, p) : nullptr;
    if (block) block->in_use = false;
    if (gnDiagSvcMalloc_Initialized) {
        if (!block) free(p);
        return;
    }
    if (!block) return;
    free(block->memory);
    block->memory = nullptr;
}

}  // namespace tavrik_diag_lsm
