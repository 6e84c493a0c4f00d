// The callbacks of the processors, and how user-space data reaches them.
#pragma once

inline namespace tavrik_diag_lsm {

// Delivers a type-32 payload. In callback mode, passes each chunk to the callback of its processor;
// in other modes, discards the payload. Stops at the first malformed chunk (warning logged) and at
// a processor without a callback. Despite its name, it neither logs nor writes to a device. Reader
// thread.
void log_to_device(unsigned char* payload, int length, int mode);

// Forgets all callbacks. Any thread.
void reset_clients(void);

// Makes `callback` that of processor `proc` (0 to 9). Any thread.
void register_client(int proc, int (*callback)(unsigned char* data, int len, void* context),
                     void* context);

}  // namespace tavrik_diag_lsm
