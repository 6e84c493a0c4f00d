// Command-packet service: packet accessors, response packets, and tables of command handlers.
//
// Multi-byte packet fields are little-endian and need no alignment. Unless stated otherwise, a
// function may be called on any thread and holds no lock when it returns. Failures are not logged.
#pragma once

#include <atomic>
#include <cstdint>

inline namespace tavrik_diag_lsm {

constexpr unsigned char DIAG_CMD_SUBSYSTEM = 0x4B;
constexpr unsigned char DIAG_CMD_SUBSYSTEM_V2 = 0x80;

// Called on the reader thread with the request packet and its length in bytes. Returns a response
// from a diagpkt_*alloc function, which the caller commits, or null.
typedef void* (*diagpkt_handler)(void* request, unsigned length);

// Serves the command codes lowest..highest, both included; a null handler serves none.
struct diagpkt_user_entry {
    uint16_t lowest;
    uint16_t highest;
    diagpkt_handler handler;
};

struct diagpkt_user_table_desc {
    uint16_t delay_flag;  // non-zero: this table's responses are delayed ones
    uint16_t cmd_code;    // 255 for a plain subsystem table, 128 for version 2
    uint16_t subsys_id;
    uint16_t count;  // of `entries`
    uint32_t word;   // passed through unchanged
    const diagpkt_user_entry* entries;
};

constexpr int DIAGPKT_TABLE_SLOTS = 128;

// Number of responses whose write failed.
extern std::atomic<int> gPkt_commit_fail;

// First byte of a packet; 0 for null.
unsigned char diagpkt_get_cmd_code(const void* pkt);
// Stores the first byte; nothing for null.
void diagpkt_set_cmd_code(void* pkt, unsigned char code);

// Subsystem id and subsystem command code of a command 0x4B or 0x80; 255 and 65535 for another
// command, 0 for null. The packet holds at least 4 bytes.
unsigned char diagpkt_subsys_get_id(const void* pkt);
uint16_t diagpkt_subsys_get_cmd_code(const void* pkt);

// Fields of a command 0x80 packet (12 bytes at least). A null packet or another command is a
// programming error: an assertion message and abort(), in every build type.
uint32_t diagpkt_subsys_get_status(const void* pkt);
void diagpkt_subsys_set_status(void* pkt, uint32_t status);
uint16_t diagpkt_subsys_get_delayed_rsp_id(const void* pkt);
void diagpkt_subsys_reset_delayed_rsp_id(void* pkt);
void diagpkt_subsys_set_rsp_cnt(void* pkt, uint16_t count);

// Return a response packet of `length` bytes with its code and header fields set; the other bytes
// are not initialised. Return null if the driver handle is closed, if `length` is too small for the
// header, or if there is no memory. Release the packet with diagpkt_commit() or diagpkt_free().
void* diagpkt_alloc(unsigned char code, unsigned int length);
void* diagpkt_subsys_alloc(unsigned char id, uint16_t code, unsigned int length);
// Gets a delayed-response id from the driver if the table that serves (id, code) asks for one.
// Returns null if the driver has none.
void* diagpkt_subsys_alloc_v2(unsigned char id, uint16_t code, unsigned int length);

// Return a later part of a delayed response. Release it with diagpkt_delay_commit().
void* diagpkt_subsys_alloc_v2_delay(unsigned char id, uint16_t code, uint16_t delayed_rsp_id,
                                    unsigned int length);
void* diagpkt_delay_alloc(unsigned char code, unsigned int length);

// Shortens a packet from diagpkt_alloc(). Does nothing unless `length` is less than its allocated
// length.
void diagpkt_shorten(void* pkt, unsigned int length);

// Write the packet to the driver, if the handle is open and the length is not 0, and release it.
// Ignore null. A failed write increments gPkt_commit_fail.
void diagpkt_commit(void* pkt);
void diagpkt_delay_commit(void* pkt);

// Releases a packet from diagpkt_alloc() without sending it. Ignores null.
void diagpkt_free(void* pkt);

// Returns an error response of at most 17 bytes: `code` and the first bytes of the request. Returns
// null where diagpkt_alloc() does.
void* diagpkt_err_rsp(unsigned char code, const void* req, unsigned int req_length);

// Registers a table with the driver and keeps a copy of the descriptor. The entries are not copied
// and must stay valid. If all 128 slots are taken, the table is registered but never consulted.
void diagpkt_tbl_reg(const diagpkt_user_table_desc* table);

// Passes a command packet to the first matching handler and commits its response. Ignores a packet
// that is shorter than its header. Reader thread.
void diagpkt_LSM_process_request(void* pkt, uint16_t length);

// Returns 1; there is nothing to set up.
int Diag_LSM_Pkt_Init(void);
// Withdraws this process's registrations from the driver and forgets its tables. Returns 1, or 0
// when the driver refused.
int Diag_LSM_Pkt_DeInit(void);

}  // namespace tavrik_diag_lsm
