#include "diag_lsm/diag_lsm_pkt.h"

// The version-2 accessors abort in every build type.
#undef NDEBUG
#include <assert.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag_lsm/device.h"
#include "diag_lsm/diag_bytes.h"
#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/diagsvc_malloc.h"
#include "diag_lsm/src/StaticMutex.h"
#include "diag_lsm/src/ioctl_records.h"

inline namespace tavrik_diag_lsm {

#define ASSERT_V2(pkt_ptr)                                                                         \
    do {                                                                                           \
        if ((pkt_ptr) == nullptr)                                                                  \
            __assert_fail("pkt_ptr != ((void *)0)", "src/diag_lsm_pkt", __LINE__, __func__);       \
        if (diagpkt_get_cmd_code(pkt_ptr) != DIAG_CMD_SUBSYSTEM_V2)                                \
            __assert_fail("pkt_ptr->command_code == 128", "src/diag_lsm_pkt", __LINE__, __func__); \
    } while (0)

std::atomic<int> gPkt_commit_fail{0};

namespace {

using Byte = unsigned char;

constexpr uint16_t kNoTableCode = 255;
constexpr unsigned kSubsystemHeader = 4;
constexpr unsigned kSubsystemV2Header = 12;
constexpr unsigned kMaxErrorResponse = 17;

// In front of a packet from diagpkt_alloc(). Two guard bytes follow the packet.
struct response_header {
    uint32_t type;
    uint32_t cleared_on_commit[2];
    uint32_t magic;
    uint32_t allocated_length;
    uint32_t length;
};
static_assert(sizeof(response_header) == 24, "the packet starts at byte 24");
constexpr uint32_t kHeaderMagic = 0xDEADD00D;
constexpr unsigned kGuardSize = 2;

// In front of a packet from diagpkt_delay_alloc().
struct delayed_header {
    uint32_t length;
    uint32_t type;
};
static_assert(sizeof(delayed_header) == 8, "the packet starts at byte 8");

#if defined(__arm__)
static_assert(sizeof(diagpkt_user_entry) == 8, "layout of the driver's clients");
static_assert(sizeof(diagpkt_user_table_desc) == 16, "layout of the driver's clients");
#endif

// Guards the slots and the copies in them; taken alone. Never held while a handler runs.
StaticMutex gUserTbl_mutex;
diagpkt_user_table_desc* diagpkt_user_table[DIAGPKT_TABLE_SLOTS] TAVRIK_GUARDED_BY(gUserTbl_mutex);

bool is_subsystem(Byte cmd_code) {
    return cmd_code == DIAG_CMD_SUBSYSTEM || cmd_code == DIAG_CMD_SUBSYSTEM_V2;
}

response_header* header_of(void* pkt) {
    return reinterpret_cast<response_header*>(static_cast<Byte*>(pkt) - sizeof(response_header));
}

void put_guard(void* pkt, unsigned length) {
    Byte* end = static_cast<Byte*>(pkt) + length;
    end[0] = 0xDE;
    end[1] = 0xAD;
}

// --- Registration ---------------------------------------------------------------------------

int free_slot() TAVRIK_REQUIRES(gUserTbl_mutex) {
    for (int i = 0; i < DIAGPKT_TABLE_SLOTS; ++i) {
        if (!diagpkt_user_table[i]) return i;
    }
    return -1;
}

// False if there is no memory. A table without a free slot is not kept.
bool keep_table(const diagpkt_user_table_desc& table) {
    StaticMutexLock guard(gUserTbl_mutex);
    const int slot = free_slot();
    if (slot < 0) return true;
    void* copy = malloc(sizeof table);
    if (!copy) return false;
    memcpy(copy, &table, sizeof table);
    diagpkt_user_table[slot] = static_cast<diagpkt_user_table_desc*>(copy);
    return true;
}

void fill_records(registration_record* records, const diagpkt_user_table_desc& table) {
    for (unsigned i = 0; i < table.count; ++i) {
        const diagpkt_user_entry& entry = table.entries[i];
        records[i] = {table.cmd_code, table.subsys_id, entry.lowest, entry.highest, 1, 0,
                      {0, 0},         gdwClientID};
    }
}

void announce(registration_record* records, unsigned count) {
    registration_request request{};
    snprintf(request.sync_name, sizeof request.sync_name, "%s%d", "DIAG_SYNC_EVENT_PKT_",
             gdwClientID.load());
    request.count = count;
    request.records = records;
    errno = 0;
    if (diag_device_ioctl(fd, DIAG_IOCTL_REGISTER, &request) == 0) {
        qsprintf("diagpkt_tbl_reg: DeviceIOControl failed, error: %d\n", errno);
    }
}

// --- Look-up --------------------------------------------------------------------------------

struct request_key {
    uint16_t table_code;
    uint16_t subsys_id;
    uint16_t code;
};

bool classify(const void* pkt, unsigned length, request_key& key) {
    if (!pkt || length < 1) return false;
    const Byte cmd_code = diagpkt_get_cmd_code(pkt);
    if (!is_subsystem(cmd_code)) {
        key = {kNoTableCode, kNoTableCode, cmd_code};
        return true;
    }
    if (length < kSubsystemHeader) return false;
    const uint16_t table_code =
        cmd_code == DIAG_CMD_SUBSYSTEM_V2 ? DIAG_CMD_SUBSYSTEM_V2 : kNoTableCode;
    key = {table_code, diagpkt_subsys_get_id(pkt), diagpkt_subsys_get_cmd_code(pkt)};
    return true;
}

bool in_range(const diagpkt_user_entry& entry, uint16_t code) {
    return entry.lowest <= code && code <= entry.highest;
}

diagpkt_handler handler_in(const diagpkt_user_table_desc& table, uint16_t code) {
    for (unsigned i = 0; i < table.count; ++i) {
        const diagpkt_user_entry& entry = table.entries[i];
        if (in_range(entry, code) && entry.handler) return entry.handler;
    }
    return nullptr;
}

diagpkt_handler find_handler(const request_key& key) {
    StaticMutexLock guard(gUserTbl_mutex);
    for (const diagpkt_user_table_desc* table : diagpkt_user_table) {
        if (!table || table->subsys_id != key.subsys_id || table->cmd_code != key.table_code) {
            continue;
        }
        const diagpkt_handler handler = handler_in(*table, key.code);
        if (handler) return handler;
    }
    return nullptr;
}

bool holds(const diagpkt_user_table_desc& table, uint16_t code) {
    for (unsigned i = 0; i < table.count; ++i) {
        if (in_range(table.entries[i], code)) return true;
    }
    return false;
}

// The flag of the table that holds the code, else that of the subsystem's last table.
uint16_t delay_flag_of(Byte id, uint16_t code) {
    StaticMutexLock guard(gUserTbl_mutex);
    uint16_t flag = 0;
    for (const diagpkt_user_table_desc* table : diagpkt_user_table) {
        if (!table || table->subsys_id != id) continue;
        flag = table->delay_flag;
        if (holds(*table, code)) break;
    }
    return flag;
}

bool diagpkt_get_delayed_rsp_id_lsm(void* id) {
    if (fd == -1 || !id) return false;
    uint32_t bytes_filled = 0;
    delayed_rsp_id_request request = {id, 2, &bytes_filled};
    if (diag_device_ioctl(fd, DIAG_IOCTL_DELAYED_RSP_ID, &request) == 0 && bytes_filled == 2)
        return true;
    qsprintf(" diagpkt_get_delayed_rsp_id_lsm: DeviceIOControl failed.");
    return false;
}

void put_subsystem(void* pkt, Byte id, uint16_t code) {
    Byte* bytes = static_cast<Byte*>(pkt);
    bytes[1] = id;
    diag_put_u16(bytes + 2, code);
}

void count_failed_write(const char* where, int written) {
    qsprintf("Diag_LSM_Pkt: Write failed in %s, bytes written: %d, error: %d\n", where, written,
             errno);
    ++gPkt_commit_fail;
}

void write_response(const void* pkt, unsigned length) {
    Byte* copy = static_cast<Byte*>(DiagSvc_Malloc(length + 4, DIAGSVC_POOL_PACKETS));
    if (!copy) {
        qsprintf(" diagpkt_commit: Could not allocate memory\n");
        return;
    }
    diag_put_u32(copy, DIAG_TYPE_PKT_RESPONSE);
    memcpy(copy + 4, pkt, length);
    const int result = diag_send_data(copy, static_cast<int>(length + 4));
    if (result != 0) count_failed_write("diagpkt_commit", result);
    DiagSvc_Free(copy, DIAGSVC_POOL_PACKETS);
}

}  // namespace

unsigned char diagpkt_get_cmd_code(const void* pkt) {
    return pkt ? static_cast<const Byte*>(pkt)[0] : 0;
}

void diagpkt_set_cmd_code(void* pkt, unsigned char code) {
    if (pkt) static_cast<Byte*>(pkt)[0] = code;
}

unsigned char diagpkt_subsys_get_id(const void* pkt) {
    if (!pkt) return 0;
    return is_subsystem(diagpkt_get_cmd_code(pkt)) ? static_cast<const Byte*>(pkt)[1] : 255;
}

uint16_t diagpkt_subsys_get_cmd_code(const void* pkt) {
    if (!pkt) return 0;
    if (!is_subsystem(diagpkt_get_cmd_code(pkt))) return 65535;
    return diag_get_u16(static_cast<const Byte*>(pkt) + 2);
}

uint32_t diagpkt_subsys_get_status(const void* pkt) {
    ASSERT_V2(pkt);
    return diag_get_u32(static_cast<const Byte*>(pkt) + 4);
}

void diagpkt_subsys_set_status(void* pkt, uint32_t status) {
    ASSERT_V2(pkt);
    diag_put_u32(static_cast<Byte*>(pkt) + 4, status);
}

uint16_t diagpkt_subsys_get_delayed_rsp_id(const void* pkt) {
    ASSERT_V2(pkt);
    return diag_get_u16(static_cast<const Byte*>(pkt) + 8);
}

void diagpkt_subsys_reset_delayed_rsp_id(void* pkt) {
    ASSERT_V2(pkt);
    diag_put_u16(static_cast<Byte*>(pkt) + 8, 0);
}

void diagpkt_subsys_set_rsp_cnt(void* pkt, uint16_t count) {
    ASSERT_V2(pkt);
    diag_put_u16(static_cast<Byte*>(pkt) + 10, count);
}

void* diagpkt_alloc(unsigned char code, unsigned int length) {
    constexpr unsigned kOverhead = sizeof(response_header) + kGuardSize;
    if (fd == -1 || length < 1 || length > UINT32_MAX - kOverhead) return nullptr;
    void* block = DiagSvc_Malloc(length + kOverhead, DIAGSVC_POOL_PACKETS);
    if (!block) return nullptr;
    *static_cast<response_header*>(block) = {
        DIAG_TYPE_PKT_RESPONSE, {0, 0}, kHeaderMagic, length, length};
    void* pkt = static_cast<Byte*>(block) + sizeof(response_header);
    put_guard(pkt, length);
    diagpkt_set_cmd_code(pkt, code);
    return pkt;
}

void* diagpkt_subsys_alloc(unsigned char id, uint16_t code, unsigned int length) {
    if (length < kSubsystemHeader) return nullptr;
    void* pkt = diagpkt_alloc(DIAG_CMD_SUBSYSTEM, length);
    if (pkt) put_subsystem(pkt, id, code);
    return pkt;
}

void* diagpkt_subsys_alloc_v2(unsigned char id, uint16_t code, unsigned int length) {
    if (length < kSubsystemV2Header) return nullptr;
    void* pkt = diagpkt_alloc(DIAG_CMD_SUBSYSTEM_V2, length);
    if (!pkt) return nullptr;
    put_subsystem(pkt, id, code);
    diagpkt_subsys_set_status(pkt, 0);
    diagpkt_subsys_reset_delayed_rsp_id(pkt);
    if (delay_flag_of(id, code) && !diagpkt_get_delayed_rsp_id_lsm(static_cast<Byte*>(pkt) + 8)) {
        diagpkt_free(pkt);
        return nullptr;
    }
    diagpkt_subsys_set_rsp_cnt(pkt, 0);
    return pkt;
}

void* diagpkt_delay_alloc(unsigned char code, unsigned int length) {
    if (fd == -1 || length < 1 || length > UINT32_MAX - sizeof(delayed_header)) return nullptr;
    void* block = DiagSvc_Malloc(length + static_cast<unsigned>(sizeof(delayed_header)),
                                 DIAGSVC_POOL_GENERAL);
    if (!block) return nullptr;
    *static_cast<delayed_header*>(block) = {length, DIAG_TYPE_DELAYED_RSP};
    void* pkt = static_cast<Byte*>(block) + sizeof(delayed_header);
    diagpkt_set_cmd_code(pkt, code);
    return pkt;
}

void* diagpkt_subsys_alloc_v2_delay(unsigned char id, uint16_t code, uint16_t delayed_rsp_id,
                                    unsigned int length) {
    if (length < kSubsystemV2Header) return nullptr;
    void* pkt = diagpkt_delay_alloc(DIAG_CMD_SUBSYSTEM_V2, length);
    if (!pkt) return nullptr;
    put_subsystem(pkt, id, code);
    diag_put_u16(static_cast<Byte*>(pkt) + 8, delayed_rsp_id);
    diagpkt_subsys_set_status(pkt, 0);
    diagpkt_subsys_set_rsp_cnt(pkt, 1);
    return pkt;
}

void diagpkt_shorten(void* pkt, unsigned int length) {
    if (!pkt) return;
    response_header* header = header_of(pkt);
    if (length >= header->allocated_length) {
        qsprintf(" diagpkt_shorten: diagpkt_shorten Failed");
        return;
    }
    header->length = length;
    put_guard(pkt, length);
}

void diagpkt_commit(void* pkt) {
    if (!pkt) return;
    response_header* header = header_of(pkt);
    header->cleared_on_commit[0] = 0;
    header->cleared_on_commit[1] = 0;
    if (header->length != 0 && fd != -1) write_response(pkt, header->length);
    diagpkt_free(pkt);
}

void diagpkt_delay_commit(void* pkt) {
    if (!pkt) return;
    Byte* block = static_cast<Byte*>(pkt) - sizeof(delayed_header);
    const uint32_t length = reinterpret_cast<const delayed_header*>(block)->length;
    if (length != 0 && fd != -1) {
        const int result = diag_send_data(block + 4, static_cast<int>(length + 4));
        if (result != 0) count_failed_write("diagpkt_delay_commit", result);
    }
    DiagSvc_Free(block, DIAGSVC_POOL_GENERAL);
}

void diagpkt_free(void* pkt) {
    if (pkt) DiagSvc_Free(header_of(pkt), DIAGSVC_POOL_PACKETS);
}

void* diagpkt_err_rsp(unsigned char code, const void* req, unsigned int req_length) {
    const unsigned length = req_length < kMaxErrorResponse ? req_length + 1 : kMaxErrorResponse;
    void* pkt = diagpkt_alloc(code, length);
    if (!pkt) return nullptr;
    if (req) {
        memcpy(static_cast<Byte*>(pkt) + 1, req, length - 1);
    } else if (req_length != 0) {
        qsprintf("Non-0 request length (%d) and NULL request pointer!",
                 static_cast<int>(req_length));
    }
    return pkt;
}

void diagpkt_tbl_reg(const diagpkt_user_table_desc* table) {
    if (fd == -1) {
        qsprintf(" diagpkt_tbl_reg: Registration failed.");
        return;
    }
    if (!table) return;
    registration_record* records =
        static_cast<registration_record*>(malloc(table->count * sizeof(registration_record)));
    if (!records) return;
    if (keep_table(*table)) {
        fill_records(records, *table);
        announce(records, table->count);
    } else {
        qsprintf("diagpkt_tbl_reg: malloc failed.");
    }
    free(records);
}

void diagpkt_LSM_process_request(void* pkt, uint16_t length) {
    request_key key{};
    if (!classify(pkt, length, key)) return;
    const diagpkt_handler handler = find_handler(key);
    if (!handler) {
        qsprintf(" diagpkt_LSM_process_request: Did not find  match in user table \n");
        return;
    }
    diagpkt_commit(handler(pkt, length));
}

int Diag_LSM_Pkt_Init(void) { return 1; }

int Diag_LSM_Pkt_DeInit(void) {
    int result = 1;
    errno = 0;
    if (diag_device_ioctl(fd, DIAG_IOCTL_WITHDRAW, &gdwClientID) == 0) {
        qsprintf(" Diag_LSM_Pkt_DeInit: DeviceIOControl failed, Error = %d\n.", errno);
        result = 0;
    }
    StaticMutexLock guard(gUserTbl_mutex);
    for (diagpkt_user_table_desc*& table : diagpkt_user_table) {
        if (!table) break;
        free(table);
        table = nullptr;
    }
    return result;
}

}  // namespace tavrik_diag_lsm
