// Command-packet service: packet accessors, response packets, and tables of command handlers.
//
// Multi-byte packet fields are little-endian and may stand at any address. Unless a function says
// otherwise it may be called on any thread and takes no lock that outlasts the call. Failures leave
// no trace outside the library.
#pragma once

#include <atomic>
#include <cstdint>

inline namespace tavrik_diag_lsm {

constexpr unsigned char DIAG_CMD_SUBSYSTEM = 0x4B;
constexpr unsigned char DIAG_CMD_SUBSYSTEM_V2 = 0x80;

// A handler gets the request packet and its length in bytes, on the reader thread, and returns a
// response made by a diagpkt_*alloc function, which is then committed for it, or null.
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

// Responses whose write failed, since the process began.
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

// Response packets of `length` bytes with the code, and the header fields, filled in; the rest is
// not cleared. Null while the driver handle is closed, when `length` cannot hold the header, and
// when memory ran out. Given back by diagpkt_commit() or diagpkt_free().
void* diagpkt_alloc(unsigned char code, unsigned int length);
void* diagpkt_subsys_alloc(unsigned char id, uint16_t code, unsigned int length);
// Takes a delayed-response id from the driver when the table that serves (id, code) asks for one,
// and returns null when the driver has none.
void* diagpkt_subsys_alloc_v2(unsigned char id, uint16_t code, unsigned int length);

// A later part of a delayed response. Given back by diagpkt_delay_commit().
void* diagpkt_subsys_alloc_v2_delay(unsigned char id, uint16_t code, uint16_t delayed_rsp_id,
                                    unsigned int length);
void* diagpkt_delay_alloc(unsigned char code, unsigned int length);

// Makes a packet of diagpkt_alloc() shorter; one that would not become shorter stays as it is.
void diagpkt_shorten(void* pkt, unsigned int length);

// Write the packet to the driver, when the handle is open and the length not 0, and give it back.
// Null is ignored. A failed write is counted in gPkt_commit_fail.
void diagpkt_commit(void* pkt);
void diagpkt_delay_commit(void* pkt);

// Gives a packet of diagpkt_alloc() back unsent; null is ignored.
void diagpkt_free(void* pkt);

// An error response: `code` and the first bytes of the request, 17 bytes at most. Null as
// diagpkt_alloc().
void* diagpkt_err_rsp(unsigned char code, const void* req, unsigned int req_length);

// Announces a table to the driver and keeps a copy of the descriptor; the entries are not copied
// and must stay. With all 128 slots taken it is announced all the same, but never consulted.
void diagpkt_tbl_reg(const diagpkt_user_table_desc* table);

// Serves one command packet: calls the first handler that fits and commits its response. Called on
// the reader thread. A packet shorter than its header is ignored.
void diagpkt_LSM_process_request(void* pkt, uint16_t length);

// Returns 1; there is nothing to set up.
int Diag_LSM_Pkt_Init(void);
// Withdraws this process's registrations from the driver and forgets its tables. Returns 1, or 0
// when the driver refused.
int Diag_LSM_Pkt_DeInit(void);

}  // namespace tavrik_diag_lsm
