#include "diag_lsm/src/reader.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>

#include "diag_lsm/device.h"
#include "diag_lsm/diag_bytes.h"
#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/diag_lsm_pkt.h"
#include "diag_lsm/src/StaticMutex.h"
#include "diag_lsm/src/callbacks.h"
#include "diag_lsm/src/masks.h"
#include "diag_lsm/src/memory_device.h"
#include "diag_lsm/src/services.h"

inline namespace tavrik_diag_lsm {

pthread_t read_thread_hdl;
std::atomic<int> num_bytes_read{0};
std::atomic<int> in_read{0};

namespace {

constexpr int kSignalNumber = SIGUSR2;

// Used by the reader thread only.
unsigned char read_buffer[100000];

// Guards the flags below; taken alone.
StaticMutex reader_mutex;
StaticCondition reader_cond;  // notified when one of the flags becomes true
bool reader_begun TAVRIK_GUARDED_BY(reader_mutex) = false;
bool reader_ended TAVRIK_GUARDED_BY(reader_mutex) = false;
bool reader_stop TAVRIK_GUARDED_BY(reader_mutex) = false;

// Does nothing: installing it makes the signal interrupt the read.
void dummy_handler(int) {}

// The kernel may deliver a signal of the process, such as an alarm, to any thread. On this one it
// would end the read, and with it the session. Faults of this thread itself cannot be blocked.
void refuse_other_signals() {
    sigset_t set;
    sigfillset(&set);
    for (const int own : {kSignalNumber, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&set, own);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void accept_signal() {
    refuse_other_signals();
    struct sigaction action {};
    action.sa_handler = dummy_handler;  // no SA_RESTART: the read is to return
    sigemptyset(&action.sa_mask);
    sigaction(kSignalNumber, &action, nullptr);

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, kSignalNumber);
    if (pthread_sigmask(SIG_UNBLOCK, &set, nullptr) != 0) {
        qsprintf("diag: Failed to unbock signal for read thread\n");
    }
}

bool must_stop() {
    StaticMutexLock guard(reader_mutex);
    return reader_stop;
}

// The pause after `empty_reads` consecutive empty reads, in microseconds. A few empty reads must
// not delay the answer behind them. A device that is gone returns them for ever; that must not use
// up the processor.
long pause_after(int empty_reads) {
    constexpr int kAtOnce = 10;
    constexpr int kSteps = 7;
    constexpr long kShortest = 100;
    constexpr long kLongest = 10000;
    if (empty_reads <= kAtOnce) return 0;
    const int step = std::min((empty_reads - kAtOnce - 1) / 10, kSteps);
    return std::min(kShortest << step, kLongest);
}

void pause_reader(long microseconds) {
    if (microseconds == 0) return;
    StaticMutexLock guard(reader_mutex);
    const StaticDeadline deadline(microseconds);
    while (!reader_stop && reader_cond.waitUntil(reader_mutex, deadline)) {
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
    const int count = diag_device_read(fd, read_buffer, sizeof read_buffer);
    in_read = 0;
    num_bytes_read = count;
    return count;
}

void read_until_end() {
    int empty_reads = 0;
    while (!must_stop()) {
        memory_device_flush();
        const int count = read_once();
        if (count < 0) return;
        // Too short for a data type. The buffer still holds the previous one, perhaps a type 16.
        if (count < 4) {
            empty_reads = std::min(empty_reads + 1, 1000);
            pause_reader(pause_after(empty_reads));
            continue;
        }
        empty_reads = 0;
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

// On a busy machine, a new thread may take longer to start than the masks have to arrive.
void await_begin() {
    StaticMutexLock guard(reader_mutex);
    while (!reader_begun)
        reader_cond.wait(reader_mutex);
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
    // A signal between the reader's check of the flag and its read is lost, so repeat it.
    do {
        pthread_kill(read_thread_hdl, kSignalNumber);
    } while (!wait_for_reader_end(5000));
}

}  // namespace

void block_signal() {
    sigset_t set;
    if (sigemptyset(&set) != 0 || sigaddset(&set, kSignalNumber) != 0) {
        qsprintf("diag: Failed to initialize block set\n");
    }
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
        qsprintf("diag: Failed to block signal for main thread\n");
    }
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
    return false;
}

int join_reader(bool end_announced) {
    constexpr long kGrace = 1000000;
    if (!read_thread_hdl) return ESRCH;
    if (pthread_equal(read_thread_hdl, pthread_self())) return EDEADLK;
    if (!end_announced || !wait_for_reader_end(kGrace)) force_reader_end();
    const int error = pthread_join(read_thread_hdl, nullptr);
    if (error == 0) read_thread_hdl = 0;
    return error;
}

}  // namespace tavrik_diag_lsm
