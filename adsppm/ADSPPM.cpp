#include "adsppm/ADSPPM.h"

#include <pthread.h>

#include <cstdint>
#include <cstring>

#include "diag_lsm/diag_bytes.h"
#include "diag_lsm/diag_lsm_pkt.h"
#include "runtime/SelfDestructingObject.h"
#include "server/Errors.h"
#include "server/SystemErrorMessages.h"
#include "trigger/TavrikConstants.h"
#include "trigger/TriggerRegistry.h"

namespace tavrik {

namespace {

using Byte = unsigned char;

constexpr unsigned short kLogCode = 0x1645;
constexpr unsigned int kNoPeriod = 0xFFFFFFFF;

// Seconds from the Unix epoch to 6 January 1980, the ADSP's epoch until a loopback measures it.
constexpr double kInitialTimeShift = 315964800.0;

constexpr Byte kLoopbackSubsystem = 0x12;
constexpr uint16_t kLoopbackCommand = 0x002A;
constexpr Byte kPowerSubsystem = 0x0C;
constexpr uint16_t kConfigCommand = 0x0404;
constexpr uint32_t kConfigStart = 1;
constexpr uint32_t kConfigStop = 2;
constexpr uint32_t kConfigAccepted = 1;

constexpr int kLoopbackLength = 5;
constexpr int kConfigLength = 20;
constexpr int kConfigSlots = 12;  // offset in the configuration request
constexpr int kConfigPeriod = 16;
constexpr int kSlots = 4;

// Offsets in a log record.
constexpr int kRecordCode = 2;
constexpr int kRecordTimeLow = 4;
constexpr int kRecordTimeHigh = 8;
constexpr int kRecordVersion = 12;
constexpr int kRecordSlotIds = 16;
constexpr int kRecordSlotCounters = 20;
constexpr int kRecordValue1 = 36;
constexpr int kRecordCoreClock = 40;
constexpr int kRecordCounters = 44;  // of ids -3 to -7, 8 bytes each
constexpr int kFirstCounterId = -3;
constexpr int kLastCounterId = -7;

pthread_once_t createControl = PTHREAD_ONCE_INIT;

void putSubsystemHeader(Byte* request, Byte subsystem, uint16_t command) {
    diagpkt_set_cmd_code(request, DIAG_CMD_SUBSYSTEM);
    request[1] = subsystem;
    diag_put_u16(request + 2, command);
}

void buildConfigRequest(Byte* request, uint32_t command) {
    memset(request, 0, kConfigLength);
    putSubsystemHeader(request, kPowerSubsystem, kConfigCommand);
    diag_put_u32(request + 4, command);
    request[8] = 1;
    diag_put_u32(request + kConfigPeriod, kNoPeriod);
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1000000.0;
}

// The upper 48 bits count units of 1250 microseconds. Of the lower 16, only eight count.
double convert(unsigned int low, unsigned int high, double shift) {
    const uint64_t stamp = static_cast<uint64_t>(high) << 32 | low;
    const uint64_t microseconds = (stamp >> 16) * 1250 + ((low & 0xFF) * 25) / 1000;
    return static_cast<double>(static_cast<int64_t>(microseconds)) / 1000000.0 + shift;
}

class LoopbackCmdRspListener : public DIAG::ResponseListener {
  public:
    LoopbackCmdRspListener(unsigned int* lowWord, unsigned int* highWord, timeval* responseTime)
        : low(lowWord), high(highWord), received(responseTime) {}

    bool onResponse(const unsigned char* rsp, int len) override {
        if (!holds(len, 12)) return false;
        if (rsp[1] != kLoopbackSubsystem || diag_get_u16(rsp + 2) != kLoopbackCommand) return false;
        gettimeofday(received, nullptr);
        *low = diag_get_u32(rsp + 4);
        *high = diag_get_u32(rsp + 8);
        return true;
    }

  private:
    unsigned int* low;
    unsigned int* high;
    timeval* received;
};

class ADSPPMConfigRspListener : public DIAG::ResponseListener {
  public:
    // Sets `*noted`, unless null, as soon as the response is accepted.
    explicit ADSPPMConfigRspListener(std::atomic<bool>* noted) : note(noted) {}

    bool onResponse(const unsigned char* rsp, int len) override {
        if (!holds(len, 8)) return false;
        if (rsp[1] != kPowerSubsystem || diag_get_u16(rsp + 2) != kConfigCommand) return false;
        if (diag_get_u32(rsp + 4) != kConfigAccepted) return false;
        if (note) *note = true;
        return true;
    }

  private:
    std::atomic<bool>* note;
};

}  // namespace

ADSPPM* ADSPPM::theInstance = nullptr;
Logger* ADSPPM::logger = nullptr;

ADSPPM* ADSPPM::instance() {
    pthread_once(&createControl, createInstance);
    return theInstance;
}

void ADSPPM::createInstance() {
    logger = Logger::getLogger("ADSPPM");
    theInstance = new ADSPPM;
}

ADSPPM::ADSPPM()
    : timeShift(kInitialTimeShift),
      startAccepted(false),
      changed_(false),
      state(kIdle),
      busy(false),
      stopping(false),
      lastLog{},
      lastLogTime(0.0) {
    buildConfigRequest(configRequest, kConfigStart);
    subscribeToRunLevel();
}

ADSPPM::~ADSPPM() = default;

// The listener is never deleted: triggers live for ever.
void ADSPPM::subscribeToRunLevel() {
    // Inherits the interface of the count twice; the overrides merge it.
    class TriggerListener : public Trigger::Listener, public SelfDestructingObject {
      public:
        explicit TriggerListener(ADSPPM* creator) : owner(creator) {}

        void reserve() override { SelfDestructingObject::reserve(); }
        bool release() override { return SelfDestructingObject::release(); }

        void onTriggerValueChange(Trigger*) override {
            const bool changed = owner->changed_;
            logger->tracef("ADSPPM: onTriggerValueChange() changed_=%d", changed ? 1 : 0);
            if (!changed) return;
            logger->debugf("ADSPPM: updating metric configuration");
            owner->stopMetricCollection();
            owner->startMetricCollection();
        }

      private:
        ADSPPM* const owner;
    };
    TriggerListener* const listener = new TriggerListener(this);
    listener->reserve();
    TriggerRegistry::getTrigger(TavrikConstants::TRIGGER_RUN_LEVEL)->subscribe(listener);
}

// --- Registration ---------------------------------------------------------------------------

bool ADSPPM::registerListener(Listener* listener, int eventId, const std::string& name,
                              unsigned int period, std::string& error) {
    logger->tracef("ADSPPM::registerListener(%p,%d,%d)", static_cast<void*>(listener), eventId,
                   static_cast<int>(period));
    if (!listener) return false;
    LockGuard guard(lock);
    while (busy)
        lock.wait();
    if (state == kFailed) {
        error = errorText;
        return false;
    }
    const bool needsSlot = eventId >= 1 && listeners[eventId].byPeriod.empty();
    if (needsSlot && !takeSlot(eventId)) {
        guard.unlock();
        const std::string text =
            "Cannot add event " + name + " to ADSP PMU, the event limit has been reached.";
        logger->warnf("ADSPPM::registerListener: %s", text.c_str());
        SystemErrorMessages::add(Errors::kLimitReached, text);
        error = text;
        return false;
    }
    add(listeners[eventId], period, listener);
    if (period < this->period()) setPeriod(period);
    if (needsSlot) changed_ = true;
    return true;
}

bool ADSPPM::unregisterListener(Listener* listener, int eventId) {
    logger->tracef("ADSPPM::unregisterListener(%p,%d)", static_cast<void*>(listener), eventId);
    LockGuard guard(lock);
    while (busy)
        lock.wait();
    Registrations& registered = listeners[eventId];
    unsigned int period = 0;
    if (!remove(registered, listener, period)) return true;
    const Listeners& left = registered.byPeriod;
    // Without a period, a registration keeps its slot and does not count for the minimum.
    if (period == kNoPeriod) return true;
    if (eventId >= 1 && left.empty()) freeSlot(eventId);
    if (!left.empty() && period >= left.begin()->first) return true;
    const unsigned int smallest = smallestPeriod();
    if (smallest != this->period()) setPeriod(smallest);
    return true;
}

// Only the id's low byte goes to the ADSP.
bool ADSPPM::takeSlot(int eventId) {
    for (int slot = 0; slot < kSlots; ++slot) {
        if (configRequest[kConfigSlots + slot] != 0) continue;
        configRequest[kConfigSlots + slot] = static_cast<Byte>(eventId);
        return true;
    }
    return false;
}

// Keeps the slots packed from the first on.
void ADSPPM::freeSlot(int eventId) {
    changed_ = true;
    Byte* const first = configRequest + kConfigSlots;
    int slot = 0;
    while (slot < kSlots && first[slot] != eventId)
        ++slot;
    if (slot == kSlots) return;
    for (; slot < kSlots - 1; ++slot) {
        first[slot] = first[slot + 1];
        if (first[slot] == 0) break;
    }
    first[kSlots - 1] = 0;
}

void ADSPPM::add(Registrations& registered, unsigned int period, Listener* listener) {
    const auto added = registered.byPeriod.emplace(period, listener);
    registered.byListener.emplace(std::make_pair(listener, period), added);
    periods.insert(period);
}

bool ADSPPM::remove(Registrations& registered, Listener* listener, unsigned int& period) {
    const auto found = registered.byListener.lower_bound({listener, 0});
    if (found == registered.byListener.end() || found->first.first != listener) return false;
    period = found->first.second;
    registered.byPeriod.erase(found->second);
    registered.byListener.erase(found);
    periods.erase(periods.find(period));
    return true;
}

unsigned int ADSPPM::smallestPeriod() const {
    return periods.empty() ? kNoPeriod : *periods.begin();
}

unsigned int ADSPPM::period() const { return diag_get_u32(configRequest + kConfigPeriod); }

void ADSPPM::setPeriod(unsigned int period) {
    diag_put_u32(configRequest + kConfigPeriod, period);
    changed_ = true;
}

// --- Start and stop -------------------------------------------------------------------------

bool ADSPPM::startMetricCollection() {
    logger->tracef("ADSPPM::startMetricCollection()");
    LockGuard guard(lock);
    while (busy || stopping)
        lock.wait();
    if (state != kIdle || period() == kNoPeriod) return false;

    startAccepted = false;
    BusyFlag starting(busy, lock);
    Byte request[kConfigLength];
    memcpy(request, configRequest, sizeof request);
    bool started = false;
    {
        LockRelease released(lock);
        started = exchangeStart(request);
    }
    startAccepted = false;
    if (!started) {
        state = kFailed;
        errorText = "Failed to start ADSP PMU.";
        return false;
    }
    changed_ = false;
    state = kCollecting;
    return true;
}

// A failed loopback keeps the time shift; collection does not depend on it.
void ADSPPM::measureTimeShift() {
    Byte request[kLoopbackLength] = {};
    putSubsystemHeader(request, kLoopbackSubsystem, kLoopbackCommand);
    unsigned int low = 0;
    unsigned int high = 0;
    timeval sent{};
    timeval received{};
    LoopbackCmdRspListener listener(&low, &high, &received);
    gettimeofday(&sent, nullptr);
    if (!DIAG::instance()->sendRequest(request, sizeof request, &listener)) {
        logger->errorf("ADSPPM::startMetricCollection() ADSPLoopbackReq send failed");
        return;
    }
    if (!DIAG::instance()->awaitResponse(listener)) {
        logger->errorf("ADSPPM::startMetricCollection() ADSPLoopbackReq timeout");
        return;
    }
    updateTimeShift(low, high, &sent, &received);
}

bool ADSPPM::exchangeStart(unsigned char* request) {
    measureTimeShift();
    DIAG* const diag = DIAG::instance();
    diag->registerLogListener(kLogCode, this);
    ADSPPMConfigRspListener listener(&startAccepted);
    if (!diag->sendRequest(request, kConfigLength, &listener)) {
        logger->errorf("ADSPPM::startMetricCollection() ADSPPMConfigReq send failed");
    } else if (diag->awaitResponse(listener)) {
        return true;
    } else {
        logger->errorf("ADSPPM::startMetricCollection() ADSPPMConfigReq timeout");
    }
    diag->unregisterLogListener(kLogCode, this);
    return false;
}

bool ADSPPM::stopMetricCollection() {
    logger->tracef("ADSPPM::stopMetricCollection()");
    LockGuard guard(lock);
    while (busy || stopping)
        lock.wait();
    if (state != kCollecting) return false;

    state = kIdle;
    BusyFlag stop(stopping, lock);
    bool stopped = false;
    {
        BusyFlag exchanging(busy, lock);
        LockRelease released(lock);
        stopped = exchangeStop();
    }
    if (!stopped) state = kFailed;
    {
        LockRelease released(lock);
        DIAG::instance()->unregisterLogListener(kLogCode, this);
    }
    memset(lastLog, 0, sizeof lastLog);
    return stopped;
}

bool ADSPPM::exchangeStop() {
    Byte request[kConfigLength];
    buildConfigRequest(request, kConfigStop);
    ADSPPMConfigRspListener listener(nullptr);
    if (!DIAG::instance()->sendRequest(request, kConfigLength, &listener)) {
        logger->tracef("ADSPPM::stopMetricCollection() ADSPPMConfigReq send failed");
        return false;
    }
    if (DIAG::instance()->awaitResponse(listener)) return true;
    logger->tracef("ADSPPM::stopMetricCollection() ADSPPMConfigReq timeout");
    return false;
}

void ADSPPM::resetForTesting() {
    LockGuard guard(lock);
    state = kIdle;
}

// --- Decoding -------------------------------------------------------------------------------

double ADSPPM::convertTimeStamp(unsigned int low, unsigned int high) const {
    return convert(low, high, timeShift);
}

void ADSPPM::updateTimeShift(unsigned int low, unsigned int high, const timeval* sent,
                             const timeval* received) {
    const double sentTime = seconds(*sent);
    const double roundTrip = seconds(*received) - sentTime;
    const double midpoint = sentTime + roundTrip * 0.5;
    timeShift = kInitialTimeShift + (midpoint - convert(low, high, kInitialTimeShift));
}

void ADSPPM::onLog(const unsigned char* record) {
    if (!record) return;
    LockGuard guard(lock);
    // The start was accepted, but has not returned: its write may block until this thread has read
    // more. Do not wait for it. Nothing is delivered before it succeeds.
    const bool starting = busy && startAccepted;
    if ((state != kCollecting && !starting) || record[kRecordVersion] != 1) return;
    const double time = convertTimeStamp(diag_get_u32(record + kRecordTimeLow),
                                         diag_get_u32(record + kRecordTimeHigh));
    if (!starting && diag_get_u16(lastLog + kRecordCode) != 0) deliverAll(record, time);
    memcpy(lastLog, record, sizeof lastLog);
    lastLogTime = time;
}

void ADSPPM::deliverAll(const unsigned char* record, double time) {
    const double factor = 1000.0 / (time - lastLogTime);
    deliverSlots(record, time, factor);
    deliver(-1, time, diag_get_u32(record + kRecordValue1) / 1000000.0);
    deliver(-2, time, diag_get_u32(record + kRecordCoreClock) / 1000.0);
    for (int id = kFirstCounterId; id >= kLastCounterId; --id) {
        deliverCounter(id, record, kRecordCounters + 8 * (kFirstCounterId - id), time, factor);
    }
}

// Compares with the same slot of the previous packet, whatever event it counted.
void ADSPPM::deliverSlots(const unsigned char* record, double time, double factor) {
    for (int slot = 0; slot < kSlots; ++slot) {
        const int id = record[kRecordSlotIds + slot];
        if (id == 0) continue;
        const int offset = kRecordSlotCounters + 4 * slot;
        const uint32_t gained = diag_get_u32(record + offset) - diag_get_u32(lastLog + offset);
        deliver(id, time, static_cast<double>(gained) * factor);
    }
}

void ADSPPM::deliverCounter(int eventId, const unsigned char* record, int offset, double time,
                            double factor) {
    const uint64_t gained = diag_get_u64(record + offset) - diag_get_u64(lastLog + offset);
    deliver(eventId, time, static_cast<double>(gained) * factor);
}

void ADSPPM::deliver(int eventId, double time, long double value) {
    for (const auto& entry : listeners[eventId].byPeriod) {
        entry.second->onADSPPMInput(eventId, time, value);
    }
}

}  // namespace tavrik
