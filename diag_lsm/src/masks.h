// Synchronisation with the three masks that the driver sends to every new client.
#pragma once

inline namespace tavrik_diag_lsm {

// Notes in diag_sync_mask that the masks of `bit` (1, 2 or 4) have come. Reader thread.
void update_sync_mask(int bit);

// Waits until all masks have come since the process began: 21 checks, a millisecond apart at most.
// False when they have not come by then.
bool do_mask_sync(void);

}  // namespace tavrik_diag_lsm
