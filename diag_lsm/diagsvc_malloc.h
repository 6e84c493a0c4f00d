// Block pools of the driver client: small packets without a trip to the heap.
//
// Two pools of ten blocks of 2000 bytes each. All functions may be called on any thread.
#pragma once

inline namespace tavrik_diag_lsm {

constexpr int DIAGSVC_POOL_GENERAL = 1;
constexpr int DIAGSVC_POOL_PACKETS = 2;

// Makes the pools; does nothing when they are there already. Returns 1, or 0 when memory ran out
// (then nothing is kept).
int DiagSvc_Malloc_Init(void);

// Frees every block that nobody has in use; a block in use is freed by its own DiagSvc_Free.
void DiagSvc_Malloc_Exit(void);

// `size` bytes from `pool`: one of its free blocks when size is at most 2000, else from the heap.
// Null for another pool, before DiagSvc_Malloc_Init(), and when memory ran out.
void* DiagSvc_Malloc(unsigned int size, int pool);

// Gives back what DiagSvc_Malloc returned for the same pool. Does nothing for null, nor for memory
// from the heap once the pools are gone.
void DiagSvc_Free(void* p, int pool);

}  // namespace tavrik_diag_lsm
