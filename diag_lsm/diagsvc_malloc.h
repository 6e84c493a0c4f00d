// Block pools of the driver client, which spare small packets the heap.
//
// Two pools of ten blocks of 2000 bytes each. All functions may be called on any thread.
#pragma once

inline namespace tavrik_diag_lsm {

constexpr int DIAGSVC_POOL_GENERAL = 1;
constexpr int DIAGSVC_POOL_PACKETS = 2;

// Allocates the pools, unless they are allocated already. Returns 1, or 0 if there is no memory.
int DiagSvc_Malloc_Init(void);

// Frees the unused blocks. DiagSvc_Free() frees the used ones.
void DiagSvc_Malloc_Exit(void);

// Returns `size` bytes: a free block of `pool` if `size` is at most 2000 and there is one, else
// memory from the heap. Returns null for an unknown pool, before DiagSvc_Malloc_Init(), and if
// there is no memory.
void* DiagSvc_Malloc(unsigned int size, int pool);

// Releases memory from DiagSvc_Malloc() of the same pool. Does nothing for null, nor for heap
// memory after DiagSvc_Malloc_Exit().
void DiagSvc_Free(void* p, int pool);

}  // namespace tavrik_diag_lsm
