// Little-endian fields at any address: packets stand at odd offsets, so no field is read through a
// pointer of its own type. None of these functions checks a length: the caller has.
#pragma once

#include <cstdint>

inline namespace tavrik_diag_lsm {

inline uint16_t diag_get_u16(const unsigned char* at) {
    return static_cast<uint16_t>(at[0] | at[1] << 8);
}

inline uint32_t diag_get_u32(const unsigned char* at) {
    return diag_get_u16(at) | static_cast<uint32_t>(diag_get_u16(at + 2)) << 16;
}

inline uint64_t diag_get_u64(const unsigned char* at) {
    return diag_get_u32(at) | static_cast<uint64_t>(diag_get_u32(at + 4)) << 32;
}

inline void diag_put_u16(unsigned char* at, uint16_t value) {
    at[0] = static_cast<unsigned char>(value);
    at[1] = static_cast<unsigned char>(value >> 8);
}

inline void diag_put_u32(unsigned char* at, uint32_t value) {
    diag_put_u16(at, static_cast<uint16_t>(value));
    diag_put_u16(at + 2, static_cast<uint16_t>(value >> 16));
}

}  // namespace tavrik_diag_lsm
