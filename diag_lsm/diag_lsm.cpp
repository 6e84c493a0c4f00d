#include "diag_lsm/diag_lsm.h"

#include <alloca.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "diag_lsm/diag_bytes.h"
#include "diag_lsm/diag_lsm_pkt.h"
#include "diag_lsm/diagsvc_malloc.h"
#include "diag_lsm/src/StaticMutex.h"
#include "diag_lsm/src/memory_device.h"
#include "diag_lsm/src/services.h"
#include "log/Logger.h"

inline namespace tavrik_diag_lsm {

// The address of these goes to the driver, which takes it for one of an int.
static_assert(sizeof(std::atomic<int>) == sizeof(int), "the driver reads an int");

#define UNREGISTERED                    \
    {                                   \
        0, {-1}, {nullptr}, { nullptr } \
    }

std::atomic<int> fd{-1};
std::atomic<int> logging_mode{DIAG_MODE_USB};
diag_client client_tbl[DIAG_PROCESSORS] = {UNREGISTERED, UNREGISTERED, UNREGISTERED, UNREGISTERED,
                                           UNREGISTERED, UNREGISTERED, UNREGISTERED, UNREGISTERED,
                                           UNREGISTERED, UNREGISTERED};
const int token_list[DIAG_PROCESSORS] = {0, -1, -2, -3, -4, -5, -6, -7, -8, -9};
pthread_t read_thread_hdl;
std::atomic<int> diag_sync_mask{0};
std::atomic<int> gdwClientID{0};
std::atomic<int> num_bytes_read{0};
std::atomic<int> in_read{0};

namespace {

constexpr int signal_number = SIGUSR2;
constexpr int max_request_length = 65536;
constexpr int all_masks = 7;

// Touched by the reader thread only, and by nobody while none runs.
unsigned char read_buffer[100000];

// Guards the reader's begin and end; taken alone.
StaticMutex reader_mutex;
StaticCondition reader_cond;  // notified when one of the flags becomes true
bool reader_begun TAVRIK_GUARDED_BY(reader_mutex) = false;
bool reader_ended TAVRIK_GUARDED_BY(reader_mutex) = true;
bool reader_stop TAVRIK_GUARDED_BY(reader_mutex) = false;

// Guards changes of diag_sync_mask; taken alone.
StaticMutex mask_sync_mutex;
StaticCondition mask_sync_cond;

// Guards changes of client_tbl, so that a callback is called with its own context; taken alone, and
// never held during a call.
StaticMutex client_mutex;

// Guards the sink's buffer; innermost.
StaticMutex diagnostics_mutex;
char diagnostics[256] TAVRIK_GUARDED_BY(diagnostics_mutex);

// Tokens and callback of socket output, which this build never opens.
struct {
    bool initialized;
    int tokens[DIAG_PROCESSORS];
    diag_callback callback;
    void* data;
    int handles[2];
} socket_state;

tavrik::Logger* diag_logger() {
    static tavrik::Logger* const logger = tavrik::Logger::getLogger("DIAG");
    return logger;
}

void update_sync_mask(int bit) {
    StaticMutexLock guard(mask_sync_mutex);
    diag_sync_mask |= bit;
    mask_sync_cond.notifyAll();
}

// One check interval, cut short once the masks are complete.
void wait_for_masks() {
    StaticMutexLock guard(mask_sync_mutex);
    const StaticDeadline deadline(1000);
    while (diag_sync_mask != all_masks && mask_sync_cond.waitUntil(mask_sync_mutex, deadline)) {
    }
}

// The masks of an earlier session count: the driver's are the same for every client.
bool do_mask_sync() {
    constexpr int max_checks = 21;
    for (int check = 0; check < max_checks; ++check) {
        if (diag_sync_mask == all_masks) return true;
        wait_for_masks();
    }
    qsprintf("diag: In %s, mask sync error, count: %d\n", "do_mask_sync", max_checks);
    return false;
}

void diag_socket_init() {
    if (socket_state.initialized) {
        qsprintf("diag: In %s, Socket info already initialized\n", "diag_socket_init");
        return;
    }
    socket_state = {true, {}, nullptr, nullptr, {-1, -1}};
}

// --- Reader thread --------------------------------------------------------------------------

// Its only job is to interrupt the read; anything more would not be safe in a signal handler.
void dummy_handler(int) {}

// A signal of the process (an alarm, a child's end) that the kernel hands to this thread would end
// its read for good. What a thread brings upon itself cannot be put off.
void refuse_other_signals() {
    sigset_t set;
    sigfillset(&set);
    for (const int own : {signal_number, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&set, own);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void accept_signal() {
    refuse_other_signals();
    struct sigaction action {};
    action.sa_handler = dummy_handler;  // no SA_RESTART: the read is to return
    sigemptyset(&action.sa_mask);
    sigaction(signal_number, &action, nullptr);

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal_number);
    if (pthread_sigmask(SIG_UNBLOCK, &set, nullptr) != 0) {
        qsprintf("diag: Failed to unbock signal for read thread\n");
    }
}

bool must_stop() {
    StaticMutexLock guard(reader_mutex);
    return reader_stop;
}

// A device that has gone reads as empty for ever; do not spin on it.
void pause_reader() {
    StaticMutexLock guard(reader_mutex);
    const StaticDeadline deadline(10000);
    while (!reader_stop && reader_cond.waitUntil(reader_mutex, deadline)) {
    }
}

// Walks the chunks of one type-32 buffer; every step looks whether its bytes are there.
class ChunkReader {
  public:
    ChunkReader(unsigned char* data, int length) : at(data), left(length) {}

    bool word(uint32_t& value) {
        if (left < 4) return false;
        value = diag_get_u32(at);
        skip(4);
        return true;
    }

    bool data(uint32_t length, unsigned char*& bytes) {
        if (length > static_cast<uint32_t>(left)) return false;
        bytes = at;
        skip(static_cast<int>(length));
        return true;
    }

    int bytesLeft() const { return left; }

  private:
    void skip(int count) {
        at += count;
        left -= count;
    }

    unsigned char* at;
    int left;
};

struct chunk {
    int proc;
    unsigned char* data;
    uint32_t length;
};

int processor_of(int token) {
    for (int proc = 0; proc < DIAG_PROCESSORS; ++proc) {
        if (token_list[proc] == token) return proc;
    }
    return -1;
}

bool next_chunk(ChunkReader& reader, chunk& next) {
    uint32_t word = 0;
    if (!reader.word(word)) return false;
    next.proc = 0;
    const int token = static_cast<int32_t>(word);
    if (token < 0) {
        next.proc = processor_of(token);
        if (next.proc < 0) {
            qsprintf("diag: Invalid token in %s, CALLBACK MODE", "log_to_device");
            return false;
        }
        if (!reader.word(word)) return false;
    }
    next.length = word;
    return reader.data(word, next.data);
}

// False when nobody is there to call.
bool invoke_callback(const chunk& received) {
    diag_callback callback = nullptr;
    void* context = nullptr;
    {
        StaticMutexLock guard(client_mutex);
        callback = client_tbl[received.proc].callback;
        context = client_tbl[received.proc].context;
    }
    if (!callback) {
        qsprintf("diag: no callback function registered for proc %d", received.proc);
        return false;
    }
    const int result = callback(received.data, static_cast<int>(received.length), context);
    if (result < 0) qsprintf("diag: failed to invoke callback funtion %d\n", result);
    return true;
}

void deliver_to_callbacks(unsigned char* payload, int length) {
    ChunkReader reader(payload, length);
    uint32_t count = 0;
    if (!reader.word(count)) return;
    for (uint32_t i = 0; i < count; ++i) {
        chunk next{};
        if (!next_chunk(reader, next)) {
            diag_logger()->warnf(
                "diag: dropped a malformed buffer after %u of %u chunks, %d bytes left", i, count,
                reader.bytesLeft());
            return;
        }
        if (!invoke_callback(next)) return;
    }
}

void log_to_device(unsigned char* payload, int length, int mode) {
    if (mode == DIAG_MODE_CALLBACK) {
        deliver_to_callbacks(payload, length);
    } else if (mode != DIAG_MODE_USB) {
        qsprintf("diag: Incorrect logging mode\n");
    }
}

void process_user_space_data(unsigned char* payload, int length) {
    const int mode = logging_mode;
    if (mode == DIAG_MODE_MEMORY_DEVICE) {
        memory_device_append(payload, static_cast<unsigned>(length));
    } else {
        log_to_device(payload, length, mode);
    }
}

void dispatch(uint32_t type, unsigned char* payload, int length) {
    switch (type) {
        case DIAG_TYPE_MSG_MASKS:
            diag_update_msg_masks(payload, length);
            return update_sync_mask(1);
        case DIAG_TYPE_LOG_MASKS:
            diag_update_log_masks(payload);
            return update_sync_mask(2);
        case DIAG_TYPE_EVENT_MASKS:
            diag_update_event_masks(payload);
            return update_sync_mask(4);
        case DIAG_TYPE_COMMAND:
            return diagpkt_LSM_process_request(payload, static_cast<uint16_t>(length & 0xFFFF));
        case DIAG_TYPE_USER_SPACE_DATA:
            return process_user_space_data(payload, length);
        case DIAG_TYPE_DCI:
            return diag_process_dci_data(payload, length);
        case DIAG_TYPE_DCI_LOG_MASKS:
            return diag_update_dci_log_masks(payload, length);
        case DIAG_TYPE_DCI_EVENT_MASKS:
            return diag_update_dci_event_masks(payload, length);
        default:
            return;
    }
}

int read_once() {
    in_read = 1;
    const int count = static_cast<int>(read(fd, read_buffer, sizeof read_buffer));
    in_read = 0;
    num_bytes_read = count;
    return count;
}

void read_until_end() {
    while (!must_stop()) {
        memory_device_flush();
        const int count = read_once();
        if (count < 0) return;
        if (count == 0) {
            pause_reader();
            continue;
        }
        // Behind a shorter read the buffer still holds the previous one, a type 16 perhaps.
        if (count < 4) continue;
        const uint32_t type = diag_get_u32(read_buffer);
        if (type == DIAG_TYPE_DEINIT) return;
        if (flush_log) continue;
        dispatch(type, read_buffer + 4, count - 4);
    }
}

void tell_begin() {
    StaticMutexLock guard(reader_mutex);
    reader_begun = true;
    reader_cond.notifyAll();
}

void* CreateWaitThread(void*) {
    accept_signal();
    tell_begin();
    read_until_end();
    StaticMutexLock guard(reader_mutex);
    reader_ended = true;
    reader_cond.notifyAll();
    return nullptr;
}

// --- Start and end of the reader ------------------------------------------------------------

void block_signal() {
    sigset_t set;
    if (sigemptyset(&set) != 0 || sigaddset(&set, signal_number) != 0) {
        qsprintf("diag: Failed to initialize block set\n");
    }
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
        qsprintf("diag: Failed to block signal for main thread\n");
    }
}

// The time in which the masks have to come is the driver's; a busy machine may need more than that
// to let a new thread begin.
void await_begin() {
    StaticMutexLock guard(reader_mutex);
    while (!reader_begun)
        reader_cond.wait(reader_mutex);
}

bool start_reader() {
    {
        StaticMutexLock guard(reader_mutex);
        reader_begun = false;
        reader_ended = false;
        reader_stop = false;
    }
    if (pthread_create(&read_thread_hdl, nullptr, CreateWaitThread, nullptr) == 0) {
        await_begin();
        return true;
    }
    read_thread_hdl = 0;
    StaticMutexLock guard(reader_mutex);
    reader_ended = true;
    return false;
}

// True when the reader reported its end in time.
bool wait_for_reader_end(long microseconds) {
    StaticMutexLock guard(reader_mutex);
    const StaticDeadline deadline(microseconds);
    while (!reader_ended && reader_cond.waitUntil(reader_mutex, deadline)) {
    }
    return reader_ended;
}

void force_reader_end() {
    {
        StaticMutexLock guard(reader_mutex);
        reader_stop = true;
        reader_cond.notifyAll();
    }
    memory_device_stop();
    // A signal that falls between the reader's look at the flag and its read is lost: repeat it.
    do {
        pthread_kill(read_thread_hdl, signal_number);
    } while (!wait_for_reader_end(5000));
}

// Returns what pthread_join returned.
int join_reader(bool end_announced) {
    constexpr long grace = 1000000;
    if (!read_thread_hdl) return ESRCH;
    if (pthread_equal(read_thread_hdl, pthread_self())) return EDEADLK;
    if (!end_announced || !wait_for_reader_end(grace)) force_reader_end();
    const int error = pthread_join(read_thread_hdl, nullptr);
    if (error == 0) read_thread_hdl = 0;
    return error;
}

void reset_clients() {
    StaticMutexLock guard(client_mutex);
    for (diag_client& client : client_tbl) {
        client.registered = -1;
        client.callback = nullptr;
        client.context = nullptr;
    }
}

bool open_device() {
    const int handle = open("/dev/diag", O_RDWR | O_CLOEXEC);
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

void register_client(int proc, diag_callback callback, void* context) {
    StaticMutexLock guard(client_mutex);
    client_tbl[proc].context = context;
    client_tbl[proc].callback = callback;
    client_tbl[proc].registered = 1;
}

bool is_remote_present(int proc) {
    uint16_t mask = 0;
    diag_has_remote_device(&mask);
    return (proc & mask) == proc;
}

}  // namespace

int Diag_LSM_Init(unsigned char*) {
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
    socket_state.initialized = false;
    DiagSvc_Malloc_Exit();
    int result = Diag_LSM_Pkt_DeInit();
    if (result) result = Diag_LSM_Msg_DeInit();
    if (fd == -1) return result;

    const int announced = ioctl(fd, DIAG_IOCTL_DEINIT, 0UL);
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
    // The reader itself got here: it still reads from the descriptor.
    if (error == EDEADLK) return result;

    // Closed to everybody else before the number can stand for another file.
    const int closed = close(fd.exchange(-1));
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
    if (len < 1 || len > max_request_length) {
        qsprintf("diag: Invalid length %d in %s", len, "diag_callback_send_data");
        return -1;
    }
    if (!buf) {
        qsprintf("diag: Invalid buffer in %s", "diag_callback_send_data");
        return -1;
    }
    unsigned char* buffer = static_cast<unsigned char*>(alloca(len + 8));
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
    constexpr int dci_sent = 1001;
    constexpr int dci_failed = 1006;
    errno = 0;
    const int result = static_cast<int>(write(fd, buf, static_cast<size_t>(len)));
    if (len >= 4 && diag_get_u32(buf) == DIAG_TYPE_DCI) {
        if (result == dci_sent) return result;
        qsprintf(" DCI send data failed, bytes written: %d, error: %d\n", result, errno);
        return dci_failed;
    }
    if (result != 0) {
        qsprintf(" Send data failed, bytes written: %d, error: %d\n", result, errno);
    }
    return result;
}

int diag_has_remote_device(uint16_t* mask) { return ioctl(fd, DIAG_IOCTL_REMOTE_DEVICES, mask); }

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
    return ioctl(fd, DIAG_IOCTL_VOTE_REAL_TIME, &vote);
}

int diag_get_real_time_status(int* status) {
    if (!status) {
        qsprintf("diag: invalid pointer in %s\n", "diag_get_real_time_status");
        return -1;
    }
    return ioctl(fd, DIAG_IOCTL_REAL_TIME_STATUS, status);
}

int diag_get_max_channels(void) { return 2; }

int qsprintf(const char* fmt, ...) {
    diag_logger();
    StaticMutexLock guard(diagnostics_mutex);
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(diagnostics, sizeof diagnostics, fmt, args);
    va_end(args);
    return length;
}

}  // namespace tavrik_diag_lsm
