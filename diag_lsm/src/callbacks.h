// The callbacks of the processors, and the delivery of user-space data to them.
#pragma once

inline namespace tavrik_diag_lsm {

// A type-32 payload in delivery mode `mode`: in callback mode each of its chunks goes to the
// callback of its processor; other modes are not served. The delivery of a payload ends at its
// first malformed chunk (warning logged) and at a processor without a callback. Reader thread.
void log_to_device(unsigned char* payload, int length, int mode);

// Forgets all callbacks. Any thread.
void reset_clients(void);

// Makes `callback` that of processor `proc` (0 to 9). Any thread.
void register_client(int proc, int (*callback)(unsigned char* data, int len, void* context),
                     void* context);

}  // namespace tavrik_diag_lsm
