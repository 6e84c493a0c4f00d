// Client library for the diag driver behind /dev/diag.
//
// One client per process: free functions over module-level state. Diag_LSM_Init() opens the device
// and starts the reader thread, which dispatches what the driver delivers by data type. In callback
// mode, user-space data goes to the registered callbacks. Diag_LSM_Init() and Diag_LSM_DeInit()
// must not run at the same time, nor on the reader thread. Diag_LSM_DeInit() must not run while
// another thread sends. All other functions may be called on any thread at any time.
//
// Threads: Diag_LSM_Init() starts the reader thread. All callbacks and command handlers run on it.
// Signal 12 (SIGUSR2) is blocked in the thread that calls Diag_LSM_Init() and interrupts the
// reader's read. The reader blocks all other signals sent to the process.
//
// Stopping: Diag_LSM_DeInit() asks the driver to de-initialise. The driver answers with a type-16
// buffer, which ends the reader. If the driver refuses, or sends nothing within a second,
// Diag_LSM_DeInit() sets a stop flag and sends signal 12 until the reader has ended. It closes the
// descriptor last.
//
// Functions return their failures. Diagnostic texts go to qsprintf(), which discards them. The only
// log lines are warnings of the logger "DIAG" about malformed data that the library drops.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// Used like global names. The inline namespace keeps their symbols apart from a program's own.
inline namespace tavrik_diag_lsm {

// Data types: the first word of what is read from the driver and written to it.
constexpr uint32_t DIAG_TYPE_MSG_MASKS = 1;
constexpr uint32_t DIAG_TYPE_LOG_MASKS = 2;
constexpr uint32_t DIAG_TYPE_PKT_RESPONSE = 3;
constexpr uint32_t DIAG_TYPE_EVENT_MASKS = 4;  // read
constexpr uint32_t DIAG_TYPE_DELAYED_RSP = 4;  // written
constexpr uint32_t DIAG_TYPE_COMMAND = 8;
constexpr uint32_t DIAG_TYPE_DEINIT = 16;
constexpr uint32_t DIAG_TYPE_USER_SPACE_DATA = 32;
constexpr uint32_t DIAG_TYPE_DCI = 64;
constexpr uint32_t DIAG_TYPE_CALLBACK_DATA = 128;
constexpr uint32_t DIAG_TYPE_DCI_LOG_MASKS = 256;
constexpr uint32_t DIAG_TYPE_DCI_EVENT_MASKS = 512;

// Numbers of the driver's ioctls.
constexpr unsigned long DIAG_IOCTL_REGISTER = 0;
constexpr unsigned long DIAG_IOCTL_WITHDRAW = 1;
constexpr unsigned long DIAG_IOCTL_SWITCH_LOGGING = 7;
constexpr unsigned long DIAG_IOCTL_DELAYED_RSP_ID = 8;
constexpr unsigned long DIAG_IOCTL_DEINIT = 9;
constexpr unsigned long DIAG_IOCTL_REMOTE_DEVICES = 32;
constexpr unsigned long DIAG_IOCTL_VOTE_REAL_TIME = 33;
constexpr unsigned long DIAG_IOCTL_REAL_TIME_STATUS = 34;

// Values of logging_mode.
constexpr int DIAG_MODE_USB = 1;
constexpr int DIAG_MODE_MEMORY_DEVICE = 2;
constexpr int DIAG_MODE_CALLBACK = 6;

constexpr int DIAG_PROCESSORS = 10;

// Gets framed data that may be changed in place; returns a negative value on failure. Called on the
// reader thread.
typedef int (*diag_callback)(unsigned char* data, int len, void* context);

struct diag_client {
    int unused;
    std::atomic<int> registered;  // -1 after initialisation, 1 once a callback is registered
    std::atomic<diag_callback> callback;
    std::atomic<void*> context;
};

// Handle of the device; -1 while closed.
extern std::atomic<int> fd;
// Delivery mode; the reader reads it for every type-32 buffer. A caller that changes it must also
// tell the driver, with DIAG_IOCTL_SWITCH_LOGGING.
extern std::atomic<int> logging_mode;
extern diag_client client_tbl[DIAG_PROCESSORS];  // by processor; 0 is the local one
extern const int token_list[DIAG_PROCESSORS];    // on the wire: processor i is -i
extern pthread_t read_thread_hdl;                // of the last reader; valid while `fd` is open
// Masks received since the process began: bit 1 message, bit 2 log, bit 4 event masks.
extern std::atomic<int> diag_sync_mask;
extern std::atomic<int> gdwClientID;     // the process id
extern std::atomic<int> num_bytes_read;  // result of the reader's last read
extern std::atomic<int> in_read;         // 1 while the reader is inside read

// Opens the device, starts the reader and waits, for about 21 ms at most, for the driver's three
// masks. Returns 1. Returns 0 on failure; the device may be open and the reader running then. If
// the device is open already, skips the opening and the start of the reader. The argument is not
// used.
int Diag_LSM_Init(unsigned char* unused);

// Withdraws the command registrations, ends and joins the reader, and closes the device. Returns 1
// if every step succeeded, else 0. May be called without Diag_LSM_Init().
int Diag_LSM_DeInit(void);

// Registers the callback of the local processor. `context` is handed to it.
void diag_register_callback(diag_callback callback, void* context);

// The same for processor 1..9, which the driver must report present. Returns 0, or -1.
int diag_register_remote_callback(diag_callback callback, int proc, void* context);

// Sends a request of `len` bytes (1 to 65536) to processor `proc` (0 to 9). Returns 0 on success,
// -1 on a bad argument or an absent processor, else the result of the driver's write. Takes no
// lock: the caller serialises its sends.
int diag_callback_send_data(int proc, unsigned char* buf, int len);

// Writes one buffer, data type first, to the driver. Returns 0 on success, else the write's result;
// for DCI data 1001 on success and 1006 on failure.
int diag_send_data(unsigned char* buf, int len);

// Stores the driver's mask of remote processors. Returns the ioctl's result.
int diag_has_remote_device(uint16_t* mask);

// Votes for (1) or against (0) real-time mode. Returns the ioctl's result, -1 for another vote.
int diag_vote_md_real_time(int mode);
// Stores the real-time status. Returns the ioctl's result, -1 for null.
int diag_get_real_time_status(int* status);
int diag_get_max_channels(void);

// Wake lock of this process, through /sys/power. One name per process: a second init under the same
// name does nothing, under another name it is refused. Names are cut at 24 characters.
void diag_wakelock_init(const char* name);
void diag_wakelock_acquire(void);
void diag_wakelock_release(void);
void diag_wakelock_destroy(void);
int diag_is_wakelock_init(void);

// Formats a diagnostic text into one 256-byte buffer and discards it. Returns the length of the
// whole text.
int qsprintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tavrik_diag_lsm
