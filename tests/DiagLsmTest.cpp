// The driver client: reader, callbacks, sends, packet service, pools, wake lock, memory device.
#include <cstdio>
#include <fstream>

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>

#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/diag_lsm_pkt.h"
#include "diag_lsm/diagsvc_malloc.h"
#include "diag_lsm/src/memory_device.h"
#include "tests/SimSupport.h"
#include "tests/Support.h"

namespace {

struct Inbox : Collector<Bytes> {
    static int callback(unsigned char* data, int len, void* context) {
        static_cast<Inbox*>(context)->put(Bytes(data, data + len));
        return -1;  // delivery goes on all the same
    }
};

Bytes words(const std::vector<uint32_t>& values, const Bytes& rest = {}) {
    Bytes bytes;
    for (uint32_t value : values)
        diagsim::appendWord(bytes, value, 4);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

class DiagLsm : public SimTest {
  protected:
    void TearDown() override {
        if (fd != -1) Diag_LSM_DeInit();
        SimTest::TearDown();
    }
    void open(const std::string& scenario = "{}", int mode = DIAG_MODE_CALLBACK) {
        plug(scenario);
        ASSERT_EQ(Diag_LSM_Init(nullptr), 1);
        logging_mode = mode;
        ASSERT_GE(ioctl(fd, DIAG_IOCTL_SWITCH_LOGGING, &logging_mode), 0);
    }
    void openMemoryDevice() { open("{}", DIAG_MODE_MEMORY_DEVICE); }
    // Returns when the reader has handled a buffer, and with it those before.
    void passABuffer() {
        inbox.take();
        diag_register_callback(Inbox::callback, &inbox);
        device().deliver(words({32, 1, 1}, {1}));
        EXPECT_EQ(inbox.waitFor(1), std::vector<Bytes>{{1}});
    }

    Inbox inbox;
};

}  // namespace

TEST_F(DiagLsm, OpensAndCloses) {
    open();
    EXPECT_EQ(gdwClientID, getpid());
    EXPECT_EQ(diag_sync_mask, 7);
    EXPECT_EQ(client_tbl[0].registered, -1);
    EXPECT_EQ(Diag_LSM_Pkt_Init(), 1);
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_TRUE(sigismember(&blocked, SIGUSR2));
    const long before = openDescriptors();
    EXPECT_EQ(Diag_LSM_Init(nullptr), 1) << "already open";
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(Diag_LSM_DeInit(), 1);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(lines("host").back(), "host    close => 0 (left in callback mode)");
    EXPECT_EQ(Diag_LSM_DeInit(), 1) << "harmless when closed";
}

TEST_F(DiagLsm, ANewSessionHasNoCallbacks) {
    open();
    diag_register_callback(Inbox::callback, &inbox);
    EXPECT_EQ(Diag_LSM_DeInit(), 1);
    open();
    EXPECT_EQ(client_tbl[0].registered, -1);
}

TEST_F(DiagLsm, DeInitReturnsTheDriversResult) {
    for (const char* refused : {R"({"deinit": {"result": 0}})", R"({"withdraw": {"result": 0}})"}) {
        open(refused);
        EXPECT_EQ(Diag_LSM_DeInit(), 0) << refused;
    }
}

TEST_F(DiagLsm, TheDeviceIsNeverAStandardStream) {
    for (const int stream : {0, 1, 2}) {
        const int kept = dup(stream);
        close(stream);
        EXPECT_EQ(Diag_LSM_Init(nullptr), 1);
        EXPECT_GT(fd, 2);
        EXPECT_EQ(fcntl(stream, F_GETFD), -1) << "still closed";
        EXPECT_EQ(Diag_LSM_DeInit(), 1);
        dup2(kept, stream);
        close(kept);
    }
}

TEST_F(DiagLsm, EmptyReadsDoNotDelayTheNextBuffer) {
    long fastest = kPatienceMs;
    for (int attempt = 0; attempt < 10 && fastest >= 50; ++attempt) {
        const Stopwatch watch;
        open(R"({"empty_reads": 50})");
        passABuffer();
        fastest = std::min(fastest, watch.milliseconds());
        Diag_LSM_DeInit();
    }
    EXPECT_LT(fastest, 50);
}

// The kernel may deliver a signal to the process, such as SIGALRM, on any thread.
TEST_F(DiagLsm, SignalsDoNotEndTheReader) {
    open();
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    for (int i = 0; i < 100; ++i)
        pthread_kill(read_thread_hdl, SIGALRM);
    passABuffer();
}

TEST_F(DiagLsm, CallbacksNeedAFunctionAndAProcessor) {
    open(R"({"remote_mask": 2})");
    for (const int absent : {0, 10, 3, 4})
        EXPECT_EQ(diag_register_remote_callback(Inbox::callback, absent, nullptr), -1) << absent;
    EXPECT_EQ(diag_register_remote_callback(nullptr, 2, nullptr), -1);
    diag_register_callback(nullptr, nullptr);
    EXPECT_EQ(client_tbl[0].registered, -1);
}

TEST_F(DiagLsm, ChunksReachTheirProcessorsCallback) {
    open(R"({"remote_mask": 3})");
    Inbox local, remote;
    EXPECT_EQ(diag_register_remote_callback(Inbox::callback, 2, &remote), 0);
    // Processor 0 has no callback yet, which drops the rest of the buffer.
    device().deliver(words({32, 2, 1}, {9, 0xFE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 8}));
    device().deliver(words({32, 1, 0xFFFFFFFE, 1}, {1}));
    remote.waitFor(1);
    diag_register_callback(Inbox::callback, &local);
    EXPECT_EQ(client_tbl[0].registered, 1);
    Bytes buffer = words({32, 3, 2}, {1, 2});
    diagsim::append(buffer, words({0xFFFFFFFE, 3}, {3, 4, 5}));
    diagsim::appendWord(buffer, 0, 4);  // an empty chunk
    device().deliver(buffer);
    EXPECT_EQ(local.waitFor(2), (std::vector<Bytes>{{1, 2}, {}}));
    EXPECT_EQ(remote.waitFor(2), (std::vector<Bytes>{{1}, {3, 4, 5}}));
}

TEST_F(DiagLsm, ARequestFollowsItsDataType) {
    open(R"({"remote_mask": 2})");
    Bytes request = {0x4B, 0x12, 0x2A, 0x00, 0x00};
    EXPECT_EQ(diag_callback_send_data(0, request.data(), 5), 0);
    EXPECT_TRUE(seen("loopback request, 5 bytes: 4B 12 2A 00 00 => 0"));
    const size_t before = device().trace().size();
    EXPECT_EQ(diag_callback_send_data(10, request.data(), 5), -1);
    EXPECT_EQ(diag_callback_send_data(-1, request.data(), 5), -1);
    EXPECT_EQ(diag_callback_send_data(0, request.data(), 0), -1);
    EXPECT_EQ(diag_callback_send_data(0, request.data(), 65537), -1);
    EXPECT_EQ(diag_callback_send_data(0, nullptr, 5), -1);
    EXPECT_LE(device().trace().size(), before + 1) << "nothing but a response";
    EXPECT_EQ(diag_callback_send_data(3, request.data(), 5), -1) << "processor 3 needs two bits";
    EXPECT_EQ(diag_callback_send_data(2, request.data(), 5), 0);
    Bytes longest(65536, 0x55);
    EXPECT_EQ(diag_callback_send_data(0, longest.data(), 65536), 0);
    unsigned char dci[8] = {64};
    EXPECT_EQ(diag_send_data(dci, sizeof dci), 1006);
}

TEST_F(DiagLsm, RealTimeVotesReachTheDriver) {
    open();
    EXPECT_EQ(diag_vote_md_real_time(1), 0);
    EXPECT_EQ(diag_vote_md_real_time(2), -1);
    int status = -1;
    EXPECT_GE(diag_get_real_time_status(&status), 0);
    EXPECT_EQ(diag_get_real_time_status(nullptr), -1);
}

// --- Packet service ---------------------------------------------------------------------------

namespace {

void* answer(void* request, unsigned length) {
    const unsigned char code = diagpkt_get_cmd_code(request);
    if (code == DIAG_CMD_SUBSYSTEM_V2) {
        return diagpkt_subsys_alloc_v2(diagpkt_subsys_get_id(request),
                                       diagpkt_subsys_get_cmd_code(request), 12);
    }
    return diagpkt_err_rsp(code, request, length);
}
void* silent(void*, unsigned) { return nullptr; }

const diagpkt_user_entry kPlainEntries[] = {{10, 10, nullptr}, {10, 12, answer}};
const diagpkt_user_entry kSubsystemEntries[] = {{0x100, 0x1FF, answer}};
const diagpkt_user_entry kLaterEntries[] = {{0x200, 0x2FF, answer}};
const diagpkt_user_entry kSilentEntries[] = {{0, 0xFFFF, silent}};
const diagpkt_user_table_desc kTables[] = {
    {0, 255, 255, 2, 0, kPlainEntries},   {0, 255, 7, 1, 0, kSubsystemEntries},
    {1, 128, 8, 1, 0, kSubsystemEntries}, {0, 128, 8, 1, 0, kLaterEntries},
    {0, 255, 7, 1, 0, kSilentEntries},
};

// A session with kTables.
class PacketService : public DiagLsm {
  protected:
    void SetUp() override {
        DiagLsm::SetUp();
        const diagpkt_user_table_desc early = {0, 255, 255, 1, 0, kSilentEntries};
        diagpkt_tbl_reg(&early);  // ignored: the device is closed
        EXPECT_EQ(diagpkt_alloc(1, 10), nullptr);
        open();
        for (const auto& table : kTables)
            diagpkt_tbl_reg(&table);
        EXPECT_TRUE(seen("ioctl 0", 5));
    }
};

}  // namespace

TEST_F(PacketService, CommandsReachTheFirstMatchingHandler) {
    device().deliver(words({8}, {10}));  // the first entry has no handler
    EXPECT_TRUE(seen("0A 0A =>"));
    device().deliver(words({8}, {11, 1, 2}));  // the second entry of the first table
    EXPECT_TRUE(seen("0B 0B 01 02"));
    device().deliver(words({8}, {75, 7, 0x23, 0x01}));
    EXPECT_TRUE(seen("4B 4B 07 23 01"));
    device().deliver(words({8}, {128, 8, 0x23, 0x01}));  // delayed; the driver gives the id
    EXPECT_TRUE(seen("ioctl 8"));
    EXPECT_TRUE(seen("80 08 23 01 00 00 00 00"));
}

TEST_F(PacketService, CommandsWithoutAHandlerGetNoResponse) {
    const size_t before = lines("host").size();
    device().deliver(words({8}, {75, 7, 0x23, 0x02}));  // the handler returns nothing
    device().deliver(words({8}, {75, 9, 0x23, 0x01}));  // no table
    device().deliver(words({8}, {75, 8, 0x23, 0x01}));  // a version-2 table only
    device().deliver(words({8}, {128, 8}));             // truncated
    device().deliver(words({8}, {13}));
    device().deliver(words({8}, {12}));
    EXPECT_TRUE(seen("0C 0C"));
    EXPECT_EQ(lines("host").size(), before + 1);
    EXPECT_EQ(gPkt_commit_fail, 0);
}

TEST_F(PacketService, TablesLastOneSessionAndHaveLimitedSlots) {
    Diag_LSM_DeInit();
    open();
    for (int i = 0; i < DIAGPKT_TABLE_SLOTS; ++i)
        diagpkt_tbl_reg(&kTables[4]);
    diagpkt_tbl_reg(&kTables[0]);
    EXPECT_TRUE(seen("ioctl 0", DIAGPKT_TABLE_SLOTS + 1)) << "announced even without a slot";
    device().deliver(words({8}, {12}));
    passABuffer();
    EXPECT_TRUE(lines("0C 0C").empty())
        << "a table survived its session, or was kept without a slot";
}

TEST_F(DiagLsm, PacketsAreBuiltShortenedAndCommitted) {
    open();
    const Bytes request(40, 0x33);
    auto* const error = static_cast<unsigned char*>(diagpkt_err_rsp(19, request.data(), 40));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(Bytes(error, error + 19)[16], 0x33);
    EXPECT_EQ(error[17], 0xDE) << "the guard follows 17 bytes";
    EXPECT_EQ(error[18], 0xAD);
    diagpkt_shorten(error, 3);
    diagpkt_commit(error);
    EXPECT_TRUE(seen("13 33 33 =>"));
    void* const empty = diagpkt_err_rsp(19, request.data(), 17);
    const size_t before = lines("host").size();
    diagpkt_shorten(empty, 0);
    diagpkt_commit(empty);
    EXPECT_EQ(lines("host").size(), before) << "an empty packet was sent";
}

TEST_F(DiagLsm, PacketSizesAreChecked) {
    open();
    EXPECT_EQ(diagpkt_alloc(1, 0xFFFFFFFF - 20), nullptr) << "the size wraps around";
    EXPECT_EQ(diagpkt_subsys_alloc(1, 2, 3), nullptr) << "no room for the header";
    EXPECT_EQ(diagpkt_delay_alloc(1, 0xFFFFFFFC), nullptr);
    diagpkt_delay_commit(diagpkt_subsys_alloc_v2_delay(5, 0x0102, 0x0304, 12));
    EXPECT_TRUE(seen("80 05 02 01 00 00 00 00 04 03 01 00 =>"));
    Diag_LSM_DeInit();
    diagpkt_commit(nullptr);
    diagpkt_free(nullptr);
}

TEST(DiagPkt, AccessorsRejectForeignPackets) {
    unsigned char log[4] = {16, 1, 2, 3};
    EXPECT_EQ(diagpkt_subsys_get_id(log), 255);
    EXPECT_EQ(diagpkt_subsys_get_cmd_code(log), 65535);
    EXPECT_EQ(diagpkt_subsys_get_id(nullptr), 0);
    EXPECT_EQ(diagpkt_subsys_get_cmd_code(nullptr), 0);
    EXPECT_EQ(diagpkt_get_cmd_code(nullptr), 0);
    EXPECT_DEATH(diagpkt_subsys_set_status(log, 1),
                 "src/diag_lsm_pkt.*diagpkt_subsys_set_status.*pkt_ptr->command_code == 128");
    EXPECT_DEATH(diagpkt_subsys_get_delayed_rsp_id(nullptr), "pkt_ptr != \\(\\(void \\*\\)0\\)");
}

TEST(DiagSvcMalloc, BlocksComeFromThePoolUntilItIsEmpty) {
    EXPECT_EQ(DiagSvc_Malloc(10, 1), nullptr) << "not initialised";
    ASSERT_EQ(DiagSvc_Malloc_Init(), 1);
    EXPECT_EQ(DiagSvc_Malloc(10, 0), nullptr);
    EXPECT_EQ(DiagSvc_Malloc(10, 3), nullptr);
    void* first = DiagSvc_Malloc(2000, 1);
    DiagSvc_Free(first, 1);
    EXPECT_EQ(DiagSvc_Malloc(1, 1), first) << "the freed block is reused";
    std::vector<void*> blocks;
    for (int i = 0; i < 10; ++i)
        blocks.push_back(DiagSvc_Malloc(2000, 1));  // one more than the pool has
    void* large = DiagSvc_Malloc(2001, 2);
    memset(large, 1, 2001);
    DiagSvc_Free(large, 2);
    DiagSvc_Free(blocks.back(), 1);
    blocks.pop_back();

    DiagSvc_Malloc_Exit();  // blocks in use outlive the pool
    memset(first, 2, 2000);
    DiagSvc_Free(first, 1);
    ASSERT_EQ(DiagSvc_Malloc_Init(), 1);
    for (void* block : blocks)
        DiagSvc_Free(block, 1);
    DiagSvc_Malloc_Exit();
}

// --- Wake lock and memory device --------------------------------------------------------------

TEST(WakeLock, WritesItsNameToBothFiles) {
    const std::string lockFile = testing::TempDir() + "wake_lock";
    const std::string unlockFile = testing::TempDir() + "wake_unlock";
    std::ofstream(lockFile).close();
    std::ofstream(unlockFile).close();
    device().redirect("/sys/power/wake_lock", lockFile);
    device().redirect("/sys/power/wake_unlock", unlockFile);
    diag_wakelock_acquire();  // not initialised: does nothing
    diag_wakelock_init("");
    EXPECT_EQ(diag_is_wakelock_init(), 0);
    diag_wakelock_init("a name of more than twenty-four");
    diag_wakelock_init("another");
    EXPECT_EQ(diag_is_wakelock_init(), 1);
    diag_wakelock_acquire();
    diag_wakelock_release();
    diag_wakelock_destroy();
    EXPECT_EQ(diag_is_wakelock_init(), 0);
    for (const std::string& name : {lockFile, unlockFile}) {
        std::string text;
        std::getline(std::ifstream(name), text);
        EXPECT_EQ(text, "a name of more than twen");
        std::remove(name.c_str());
    }
}

namespace {

size_t takePool(int pool) {
    size_t total = 0;
    const bool taken = memory_device_take(
        pool,
        [](const unsigned char*, unsigned length, void* sum) {
            *static_cast<size_t*>(sum) += length;
        },
        &total);
    return taken ? total : 0;
}

}  // namespace

constexpr size_t kPayload = 99996;
static const Bytes kBuffer = words({32}, Bytes(kPayload, 0x11));

TEST_F(DiagLsm, TheMemoryDeviceAlternatesItsPools) {
    const Bytes half = words({32}, Bytes(71680, 0x22));
    openMemoryDevice();
    device().deliver(half);
    device().deliver(half);
    EXPECT_EQ(takePool(0), 2u * 71680) << "two payloads fit in one buffer";
    // Each of a pool's three buffers takes one payload; the fourth payload goes to the other pool.
    for (int i = 0; i < 10; ++i)
        device().deliver(kBuffer);
    for (int pool : {1, 0, 1})
        EXPECT_EQ(takePool(pool), 3 * kPayload) << pool;
    memory_device_set_write_in_progress(1);
    memory_device_set_flush(1);  // the reader hands over buffers until DeInit
    device().deliver(kBuffer);   // wakes the reader, which drops this payload
    memory_device_set_write_in_progress(0);
    EXPECT_EQ(takePool(0), kPayload);
    std::thread writer([] { EXPECT_EQ(takePool(1), 0u); });
    EXPECT_EQ(Diag_LSM_DeInit(), 1);
    writer.join();
    memory_device_set_flush(0);
}

TEST_F(DiagLsm, AFlushEndsWhenFlushingIsTurnedOff) {
    memory_device_reset();
    memory_device_set_flush(1);
    std::thread flusher(memory_device_flush);
    EXPECT_EQ(takePool(0), 0u) << "handed over as it is";
    memory_device_set_flush(0);
    flusher.join();
}

TEST_F(DiagLsm, AFullMemoryDeviceDoesNotBlockDeInit) {
    openMemoryDevice();
    memory_device_append(kBuffer.data(), 1000);  // DeInit discards it
    EXPECT_EQ(Diag_LSM_DeInit(), 1);
    openMemoryDevice();
    for (int i = 0; i < 10; ++i)
        device().deliver(kBuffer);
    EXPECT_EQ(takePool(0), 3 * kPayload) << "a new session starts with empty pools";
    // Both pools are full and nobody takes them: DeInit must end the waiting reader.
    EXPECT_EQ(Diag_LSM_DeInit(), 1);
    EXPECT_EQ(takePool(0) + takePool(1), 6 * kPayload);
    logging_mode = DIAG_MODE_USB;
}
