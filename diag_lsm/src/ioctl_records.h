// What two of the driver's ioctls get, in the layout of the process's own word size.
#pragma once

#include <cstdint>

inline namespace tavrik_diag_lsm {

// Handed to the driver, one per table entry.
struct registration_record {
    uint16_t cmd_code;
    uint16_t subsys_id;
    uint16_t lowest;
    uint16_t highest;
    uint16_t one;
    uint16_t unused;
    uint32_t zero[2];
    int32_t client_id;
};
static_assert(sizeof(registration_record) == 24, "layout of the driver");

struct registration_request {
    char sync_name[32];
    uint32_t count;
    registration_record* records;
};

struct delayed_rsp_id_request {
    void* id;
    uint32_t size;
    uint32_t* bytes_filled;
};

#if defined(__arm__)
static_assert(sizeof(registration_request) == 40, "layout of the driver");
static_assert(sizeof(delayed_rsp_id_request) == 12, "layout of the driver");
#endif

}  // namespace tavrik_diag_lsm
