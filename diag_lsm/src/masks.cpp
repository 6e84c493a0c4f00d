#include "diag_lsm/src/masks.h"

#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/src/StaticMutex.h"

inline namespace tavrik_diag_lsm {

std::atomic<int> diag_sync_mask{0};

namespace {

constexpr int kAllMasks = 7;

// Guards changes of diag_sync_mask; taken alone.
StaticMutex mask_sync_mutex;
StaticCondition mask_sync_cond;

}  // namespace

void update_sync_mask(int bit) {
    StaticMutexLock guard(mask_sync_mutex);
    diag_sync_mask |= bit;
    mask_sync_cond.notifyAll();
}

// Waits for one check interval; returns early once the masks are complete.
void wait_for_masks() {
    StaticMutexLock guard(mask_sync_mutex);
    const StaticDeadline deadline(1000);
    while (diag_sync_mask != kAllMasks && mask_sync_cond.waitUntil(mask_sync_mutex, deadline)) {
    }
}

bool do_mask_sync() {
    constexpr int kMaxChecks = 21;
    for (int check = 0; check < kMaxChecks; ++check) {
        if (diag_sync_mask == kAllMasks) return true;
        wait_for_masks();
    }
    qsprintf("diag: In %s, mask sync error, count: %d\n", "do_mask_sync", kMaxChecks);
    return false;
}

}  // namespace tavrik_diag_lsm
