#include "diag_lsm/diag_lsm.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "diag_lsm/device.h"
#include "diag_lsm/diag_bytes.h"
#include "diag_lsm/diag_lsm_pkt.h"
#include "diag_lsm/diagsvc_malloc.h"
#include "diag_lsm/src/CancellationDisabled.h"
#include "diag_lsm/src/callbacks.h"
#include "diag_lsm/src/masks.h"
#include "diag_lsm/src/memory_device.h"
#include "diag_lsm/src/reader.h"
#include "diag_lsm/src/services.h"

inline namespace tavrik_diag_lsm {

// The driver reads the int at the address of these.
static_assert(sizeof(std::atomic<int>) == sizeof(int), "the driver reads an int");

std::atomic<int> fd{-1};
std::atomic<int> logging_mode{DIAG_MODE_USB};
std::atomic<int> gdwClientID{0};

namespace {

constexpr int kMaxRequestLength = 65536;

// State of socket output, which this build never opens.
struct {
    bool initialized;
    int tokens[DIAG_PROCESSORS];
    diag_callback callback;
    void* data;
    int handles[2];
} socket_state;

void diag_socket_init() {
    if (socket_state.initialized) {
        qsprintf("diag: In %s, Socket info already initialized\n", "diag_socket_init");
        return;
    }
    socket_state = {true, {}, nullptr, nullptr, {-1, -1}};
}

bool open_device() {
    const int handle = diag_device_open();
    if (handle < 0) {
        qsprintf(" Diag_LSM_Init: Failed to open handle to diag driver, error = %d", errno);
        return false;
    }
    fd = handle;
    reset_clients();
    memory_device_reset();
    block_signal();
    diag_socket_init();
    if (start_reader()) return true;
    qsprintf("Diag_LSM.c: Failed to create read thread");
    return false;
}

bool init_services() { return Diag_LSM_Log_Init() && Diag_LSM_Msg_Init() && Diag_LSM_Event_Init(); }

bool is_remote_present(int proc) {
    uint16_t mask = 0;
    diag_has_remote_device(&mask);
    return (proc & mask) == proc;
}

}  // namespace

// Both disable cancellation: a thread canceled half-way would leave a session that nobody can use
// or end.

int Diag_LSM_Init(unsigned char*) {
    const CancellationDisabled uncancelled;
    if (fd == -1 && !open_device()) return 0;
    gdwClientID = getpid();
    if (!DiagSvc_Malloc_Init()) {
        qsprintf(" Diag_LSM_Init: DiagSvc_Malloc_Init() Failed");
        Diag_LSM_DeInit();
        return 0;
    }
    if (!init_services()) {
        Diag_LSM_DeInit();
        return 0;
    }
    return do_mask_sync() ? 1 : 0;
}

int Diag_LSM_DeInit(void) {
    const CancellationDisabled uncancelled;
    socket_state.initialized = false;
    DiagSvc_Malloc_Exit();
    int result = Diag_LSM_Pkt_DeInit();
    if (result) result = Diag_LSM_Msg_DeInit();
    if (fd == -1) return result;

    const int announced = diag_device_ioctl(fd, DIAG_IOCTL_DEINIT, 0UL);
    if (announced != 1) {
        qsprintf(" Diag_LSM_DeInit: DeviceIOControl failed. ret: %d, error: %d\n", announced,
                 errno);
        result = 0;
    }
    const int error = join_reader(announced == 1);
    if (error != 0) {
        qsprintf("diag: In %s, Error trying to join with thread: %d\n", "Diag_LSM_DeInit", error);
        result = 0;
    }
    // This is the reader, which still reads from the descriptor.
    if (error == EDEADLK) return result;

    // Clear `fd` first: after close() the number may belong to another file.
    const int closed = diag_device_close(fd.exchange(-1));
    if (closed < 0) {
        qsprintf("diag: In %s, error closing file, ret: %d, errno: %d\n", "Diag_LSM_DeInit", closed,
                 errno);
        result = 0;
    }
    return result;
}

void diag_register_callback(diag_callback callback, void* context) {
    if (!callback) {
        qsprintf("diag: Unable to register callback\n");
        return;
    }
    register_client(0, callback, context);
}

int diag_register_remote_callback(diag_callback callback, int proc, void* context) {
    if (!callback) {
        qsprintf("diag: Unable to register callback\n");
        return -1;
    }
    if (proc < 1 || proc >= DIAG_PROCESSORS) {
        qsprintf("diag: Invalid processor ID\n");
        return -1;
    }
    if (!is_remote_present(proc)) {
        qsprintf("diag: Cannot register callback. Processor not supported, requested: %d\n", proc);
        return -1;
    }
    register_client(proc, callback, context);
    return 0;
}

int diag_callback_send_data(int proc, unsigned char* buf, int len) {
    if (proc < 0 || proc >= DIAG_PROCESSORS) {
        qsprintf("diag: Invalid processor ID\n");
        return -1;
    }
    if (len < 1 || len > kMaxRequestLength) {
        qsprintf("diag: Invalid length %d in %s", len, "diag_callback_send_data");
        return -1;
    }
    if (!buf) {
        qsprintf("diag: Invalid buffer in %s", "diag_callback_send_data");
        return -1;
    }
    // The longest request of the session itself has 8,208 bytes. A longer one comes from the heap:
    // it would overrun the stack of a small thread.
    unsigned char on_stack[8216];
    const bool fits = static_cast<size_t>(len) + 8 <= sizeof on_stack;
    const std::unique_ptr<unsigned char[]> on_heap(
        fits ? nullptr : new (std::nothrow) unsigned char[static_cast<size_t>(len) + 8]);
    unsigned char* const buffer = fits ? on_stack : on_heap.get();
    if (!buffer) return -1;
    int header = 4;
    diag_put_u32(buffer, DIAG_TYPE_CALLBACK_DATA);
    if (proc != 0) {
        if (!is_remote_present(proc)) {
            qsprintf("diag: Processor not supported, requested: %d\n", proc);
            return -1;
        }
        diag_put_u32(buffer + header, static_cast<uint32_t>(token_list[proc]));
        header += 4;
    }
    memcpy(buffer + header, buf, static_cast<size_t>(len));
    return diag_send_data(buffer, header + len);
}

int diag_send_data(unsigned char* buf, int len) {
    constexpr int kDciSent = 1001;
    constexpr int kDciFailed = 1006;
    errno = 0;
    const int result = diag_device_write(fd, buf, static_cast<size_t>(len));
    if (len >= 4 && diag_get_u32(buf) == DIAG_TYPE_DCI) {
        if (result == kDciSent) return result;
        qsprintf(" DCI send data failed, bytes written: %d, error: %d\n", result, errno);
        return kDciFailed;
    }
    if (result != 0) {
        qsprintf(" Send data failed, bytes written: %d, error: %d\n", result, errno);
    }
    return result;
}

int diag_has_remote_device(uint16_t* mask) {
    return diag_device_ioctl(fd, DIAG_IOCTL_REMOTE_DEVICES, mask);
}

int diag_vote_md_real_time(int mode) {
    if (mode != 0 && mode != 1) {
        qsprintf("diag: invalid mode change request\n");
        return -1;
    }
    struct {
        uint16_t proc;
        uint8_t vote;
        uint8_t unused;
    } vote = {2, static_cast<uint8_t>(mode), 0};
    static_assert(sizeof vote == 4, "the driver reads four bytes");
    return diag_device_ioctl(fd, DIAG_IOCTL_VOTE_REAL_TIME, &vote);
}

int diag_get_real_time_status(int* status) {
    if (!status) {
        qsprintf("diag: invalid pointer in %s\n", "diag_get_real_time_status");
        return -1;
    }
    return diag_device_ioctl(fd, DIAG_IOCTL_REAL_TIME_STATUS, status);
}

int diag_get_max_channels(void) { return 2; }

}  // namespace tavrik_diag_lsm
