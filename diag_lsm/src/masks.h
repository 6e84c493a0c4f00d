// Waiting for the three masks that the driver sends to every new client.
#pragma once

inline namespace tavrik_diag_lsm {

// Records in diag_sync_mask that the masks of `bit` (1, 2 or 4) have arrived. Reader thread.
void update_sync_mask(int bit);

// Waits for the masks: checks 21 times, at most a millisecond apart. Returns false if masks are
// missing then. Masks of an earlier session of this process count.
bool do_mask_sync(void);

}  // namespace tavrik_diag_lsm
