#include "diag/DIAG.h"

#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "diag/FrameCutter.h"
#include "diag_lsm/device.h"
#include "diag_lsm/diag_bytes.h"
#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/diag_lsm_pkt.h"

namespace tavrik {

namespace {

using Byte = unsigned char;

constexpr Byte kLogPacketCommand = 0x10;
constexpr Byte kEventReportCommand = 0x60;
constexpr Byte kLogConfigCommand = 0x73;
constexpr Byte kMessageConfigCommand = 0x7D;

constexpr uint32_t kLogDisable = 0;
constexpr uint32_t kLogRetrieveRanges = 1;
constexpr uint32_t kLogSetMask = 3;

constexpr std::chrono::milliseconds kResponseTimeout{250};

constexpr int kLogHeaderLength = 8;     // of a frame: up to and including the log code
constexpr int kLogRecordOffset = 4;     // in a frame
constexpr int kCheckBytes = 2;          // in front of the flag, where the target sends them
constexpr int kReadableLogRecord = 92;  // decoders do not check lengths
constexpr int kMaskHeaderLength = 16;
constexpr uint32_t kMaxMaskItems = 65536;
constexpr int kRangesLength = 64;  // bytes of the ranges in their response

pthread_once_t createControl = PTHREAD_ONCE_INIT;

const char* text(bool result) { return result ? "true" : "false"; }

// The caller has looked whether 12 bytes are there.
bool isLogConfigurationDone(const Byte* rsp, uint32_t operation) {
    return diag_get_u32(rsp + 4) == operation && diag_get_u32(rsp + 8) == 0;
}

}  // namespace

DIAG* DIAG::theInstance = nullptr;
Logger* DIAG::logger = nullptr;

// --- ResponseListener and Request -----------------------------------------------------------

DIAG::ResponseListener::ResponseListener()
    : accepted(false), done(false), waiting(false), called(false) {}

DIAG::ResponseListener::~ResponseListener() = default;

void DIAG::ResponseListener::reset() {
    LockGuard guard(lock);
    accepted = false;
    done = false;
    called = false;
}

void DIAG::ResponseListener::handOver(bool result) {
    LockGuard guard(lock);
    accepted = result;
    done = true;
    // Inside the lock: the waiter may destroy this listener once it has seen `done`.
    lock.notify();
}

bool DIAG::ResponseListener::callToSend() {
    LockGuard guard(lock);
    if (!waiting) return false;
    called = true;
    lock.notify();
    return true;
}

DIAG::ResponseListener::Event DIAG::ResponseListener::wait(Deadline deadline) {
    using std::chrono::milliseconds;
    LockGuard guard(lock);
    waiting = true;
    while (!done && !called) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Deadline::clock::now());
        if (left.count() <= 0) break;
        lock.wait(static_cast<int>(left.count()));
    }
    waiting = false;
    if (std::exchange(called, false)) return Event::calledToSend;
    return done ? Event::answered : Event::timedOut;
}

DIAG::Request::Request(const unsigned char* bytes, int count, ResponseListener* receiver)
    : listener(receiver), data(nullptr), length(count) {
    if (!bytes || count < 1) return;
    data = static_cast<unsigned char*>(malloc(static_cast<size_t>(count)));
    if (data) memcpy(data, bytes, static_cast<size_t>(count));
}

DIAG::Request::Request(Request&& other) noexcept
    : listener(other.listener),
      outstanding(other.outstanding),
      data(std::exchange(other.data, nullptr)),
      length(other.length) {}

DIAG::Request& DIAG::Request::operator=(Request other) noexcept {
    std::swap(listener, other.listener);
    std::swap(outstanding, other.outstanding);
    std::swap(data, other.data);
    std::swap(length, other.length);
    return *this;
}

DIAG::Request::~Request() { free(data); }

DIAG::Request DIAG::Request::takeForSending() {
    outstanding = true;
    Request taken(nullptr, length, nullptr);
    taken.data = std::exchange(data, nullptr);
    return taken;
}

int DIAG::Request::send(const char* format) {
    const int result = diag_callback_send_data(0, data, length);
    logger->tracef(format, static_cast<void*>(data), length, result);
    free(data);
    data = nullptr;
    return result;
}

// --- Instance -------------------------------------------------------------------------------

DIAG* DIAG::instance() {
    pthread_once(&createControl, createInstance);
    return theInstance;
}

void DIAG::createInstance() {
    logger = Logger::getLogger("DIAG");
    theInstance = new DIAG;
}

DIAG::DIAG()
    : switchModeByPointer(true),
      inError(false),
      connected(false),
      moving(false),
      maskBusy(false),
      logItemRanges{} {
    logger->tracef("DIAG::DIAG");
}

// --- Connection -----------------------------------------------------------------------------

bool DIAG::connect() {
    if (connected) return true;
    LockGuard guard(connectLock);
    while (moving)
        connectLock.wait();
    if (connected) return true;
    if (inError) {
        logger->errorf("DIAG::connect() => false [already in error]");
        return false;
    }
    BusyFlag connecting(moving, connectLock);
    bool opened = false;
    {
        LockRelease released(connectLock);
        opened = openSession();
    }
    inError = !opened;
    connected = opened;
    return opened;
}

bool DIAG::openSession() {
    if (!Diag_LSM_Init(nullptr)) {
        logger->errorf("DIAG::connect() => false [Diag_LSM_Init failed]");
        return false;
    }
    diag_register_callback(onDIAGData, this);
    switchLoggingMode(DIAG_MODE_CALLBACK, true);
    return configureTarget();
}

// Drivers differ in whether they take the mode's address or the mode itself. The form that a driver
// refuses is not tried first again.
void DIAG::switchLoggingMode(int mode, bool retryOtherForm) {
    logging_mode = mode;
    const auto tell = [this, mode] {
        return switchModeByPointer ? diag_device_ioctl(fd, DIAG_IOCTL_SWITCH_LOGGING, &logging_mode)
                                   : diag_device_ioctl(fd, DIAG_IOCTL_SWITCH_LOGGING,
                                                       static_cast<unsigned long>(mode));
    };
    if (tell() >= 0 || !retryOtherForm) return;
    switchModeByPointer = !switchModeByPointer;
    tell();
}

bool DIAG::configureTarget() {
    return silenceMessages() && silenceEvents() && disableLogs() && retrieveRanges();
}

bool DIAG::silenceMessages() {
    class ExtendedMsgCfgRspListener : public ResponseListener {
      public:
        bool onResponse(const unsigned char* rsp, int len) override {
            return holds(len, 3) && rsp[1] == 5 && rsp[2] == 1;
        }
    };
    Byte request[8] = {0, 5};
    diagpkt_set_cmd_code(request, kMessageConfigCommand);
    ExtendedMsgCfgRspListener listener;
    return setup("extendedMsgCfgSetAllMasksReq", request, sizeof request, listener);
}

bool DIAG::silenceEvents() {
    class EventRepCtrlRspListener : public ResponseListener {
      public:
        bool onResponse(const unsigned char* rsp, int len) override {
            return holds(len, 3) && diag_get_u16(rsp + 1) == 0;
        }
    };
    Byte request[2] = {};
    diagpkt_set_cmd_code(request, kEventReportCommand);
    EventRepCtrlRspListener listener;
    return setup("eventReportCtrlReq", request, sizeof request, listener, false);
}

bool DIAG::disableLogs() {
    class LoggingCfgDisableRspListener : public ResponseListener {
      public:
        bool onResponse(const unsigned char* rsp, int len) override {
            return holds(len, 12) && isLogConfigurationDone(rsp, kLogDisable);
        }
    };
    Byte request[12] = {};
    diagpkt_set_cmd_code(request, kLogConfigCommand);
    diag_put_u32(request + 4, kLogDisable);
    LoggingCfgDisableRspListener listener;
    return setup("loggingCfgDisableReq", request, sizeof request, listener);
}

bool DIAG::retrieveRanges() {
    class LoggingCfgRetrieveRangesRspListener : public ResponseListener {
      public:
        explicit LoggingCfgRetrieveRangesRspListener(uint32_t* target) : ranges(target) {}
        bool onResponse(const unsigned char* rsp, int len) override {
            if (!holds(len, 12 + kRangesLength)) return false;
            if (!isLogConfigurationDone(rsp, kLogRetrieveRanges)) return false;
            for (int id = 0; id < kRangesLength / 4; ++id) {
                ranges[id] = diag_get_u32(rsp + 12 + 4 * id);
            }
            return true;
        }

      private:
        uint32_t* ranges;
    };
    Byte request[12] = {};
    diagpkt_set_cmd_code(request, kLogConfigCommand);
    diag_put_u32(request + 4, kLogRetrieveRanges);
    LoggingCfgRetrieveRangesRspListener listener(logItemRanges);
    return setup("loggingCfgRetrieveRangesReq", request, sizeof request, listener);
}

bool DIAG::setup(const char* name, unsigned char* data, int length, ResponseListener& listener,
                 bool mustBeSent) {
    if (!sendSetupRequest(data, length, &listener)) {
        if (!mustBeSent) {
            logger->warnf("%s send failed", name);
            return true;
        }
        logger->errorf("%s send failed", name);
        return false;
    }
    if (awaitResponse(listener)) return true;
    logger->errorf("%s response timeout", name);
    return false;
}

bool DIAG::sendSetupRequest(unsigned char* data, int length, ResponseListener* listener) {
    traceSend(data, length, listener, "");
    LockGuard guard(requestLock);
    const bool sent = enqueue(data, length, listener);
    guard.unlock();
    traceSend(data, length, listener, sent ? " => true" : " => false");
    return sent;
}

void DIAG::disconnectIfIdle() {
    while (!tryDisconnectIfIdle()) {
        LockGuard guard(requestLock);
        while (sending)
            requestLock.wait();
    }
}

bool DIAG::tryDisconnectIfIdle() {
    LockGuard listenersGuard(listenerLock);
    LockGuard requestsGuard(requestLock);
    LockGuard guard(connectLock);
    if (!logListeners.empty() || !requests.empty() || maskBusy || moving) return true;
    if (sending) return false;
    logger->tracef("DIAG::disconnectIfIdle() => disconnect");
    BusyFlag disconnecting(moving, connectLock);
    connected = false;
    requestsGuard.unlock();
    listenersGuard.unlock();
    // Without a lock: Diag_LSM_DeInit() joins the reader, which may need them to finish.
    LockRelease released(connectLock);
    switchLoggingMode(DIAG_MODE_USB, false);
    Diag_LSM_DeInit();
    return true;
}

// --- Requests -------------------------------------------------------------------------------

void DIAG::traceSend(const unsigned char* data, int length, const ResponseListener* listener,
                     const char* outcome) {
    logger->tracef("DIAG::sendRequest(%p,%d,%p)%s", static_cast<const void*>(data), length,
                   static_cast<const void*>(listener), outcome);
}

bool DIAG::sendRequest(unsigned char* data, int length, ResponseListener* listener) {
    traceSend(data, length, listener, "");
    bool sent = false;
    Withdrawal onUnwinding(*this, listener);
    while (data && connect()) {
        LockGuard guard(requestLock);
        // Another thread may have disconnected since.
        if (!connected) continue;
        sent = enqueue(data, length, listener);
        break;
    }
    traceSend(data, length, listener, sent ? " => true" : " => false");
    onUnwinding.cancel();
    return sent;
}

bool DIAG::enqueue(const unsigned char* data, int length, ResponseListener* listener) {
    if (listener) listener->reset();
    const bool due = requests.empty() && !sending;
    if (!due) traceSend(data, length, listener, " => queue");
    Request request(data, length, listener);
    if (!due && !request.hasBytes()) return false;
    requests.push_back(std::move(request));
    if (!due) return true;
    const bool sent = sendFront("diag_callback_send_data(%p,%d) => %d") == 0;
    sendDueOrDelegate();
    return sent;
}

bool DIAG::isDue() const { return !sending && !requests.empty() && !requests.front().outstanding; }

int DIAG::sendFront(const char* format) {
    if (std::exchange(delegated, false)) requestLock.notifyAll();
    // Its place in the queue may be gone when the write returns: the answer may come before.
    Request taken = requests.front().takeForSending();
    const unsigned long finishedBefore = finished;
    int result = 0;
    {
        BusyFlag busy(sending, requestLock);
        LockRelease released(requestLock);
        result = taken.send(format);
    }
    if (result != 0 && finished == finishedBefore) finishFront();
    return result;
}

void DIAG::finishFront() {
    requests.pop_front();
    ++finished;
}

void DIAG::sendDue() {
    if (isDue()) sendFront("DIAG::Request::send() [%p,%d] => %d");
}

void DIAG::sendDueOrDelegate() {
    while (isDue()) {
        if (delegate()) return;
        sendDue();
    }
}

bool DIAG::delegate() {
    for (const Request& request : requests) {
        if (!request.listener || !request.listener->callToSend()) continue;
        delegated = true;
        return true;
    }
    return false;
}

bool DIAG::awaitResponse(ResponseListener& listener) {
    using Event = ResponseListener::Event;
    {
        Withdrawal onLeaving(*this, &listener);
        const auto deadline = ResponseListener::Deadline::clock::now() + kResponseTimeout;
        while (listener.wait(deadline) == Event::calledToSend) {
            LockGuard guard(requestLock);
            sendDue();
            sendDueOrDelegate();
        }
    }
    // Last: an answer that came at the last moment counts.
    return listener.accepted;
}

void DIAG::withdraw(ResponseListener& listener) {
    LockGuard guard(requestLock);
    for (Request& request : requests) {
        if (request.listener == &listener) request.listener = nullptr;
    }
    // It may have been called to send, and leaves without.
    sendDueOrDelegate();
}

// --- Log listeners and masks ----------------------------------------------------------------

bool DIAG::registerLogListener(unsigned short logCode, LogListener* listener) {
    logger->tracef("DIAG::registerLogListener(%d,%p)", logCode, static_cast<void*>(listener));
    bool registered = false;
    while (listener && connect()) {
        LockGuard guard(listenerLock);
        waitWhileMaskBusy();
        // Another thread may have disconnected since; from the insertion on nobody can.
        if (!connected) continue;
        registered = insertListener(logCode, listener) && updateLogMask(logCode & 0xF000);
        break;
    }
    logger->tracef("DIAG::registerLogListener(%d,%p) => %s", logCode, static_cast<void*>(listener),
                   text(registered));
    return registered;
}

bool DIAG::unregisterLogListener(unsigned short logCode, LogListener* listener) {
    logger->tracef("DIAG::unregisterLogListener(%d,%p)", logCode, static_cast<void*>(listener));
    bool unregistered = false;
    for (;;) {
        const bool reachable = connect();
        LockGuard guard(listenerLock);
        waitWhileMaskBusy();
        if (reachable && !connected) continue;
        unregistered =
            eraseListener(logCode, listener) && reachable && updateLogMask(logCode & 0xF000);
        break;
    }
    disconnectIfIdle();
    logger->tracef("DIAG::unregisterLogListener(%d,%p) => %s", logCode,
                   static_cast<void*>(listener), text(unregistered));
    return unregistered;
}

bool DIAG::insertListener(unsigned short logCode, LogListener* listener) {
    return logListeners.emplace(logCode, listener).second;
}

bool DIAG::eraseListener(unsigned short logCode, LogListener* listener) {
    const auto found = logListeners.find(logCode);
    if (found == logListeners.end() || found->second != listener) return false;
    logListeners.erase(found);
    return true;
}

void DIAG::waitWhileMaskBusy() {
    while (maskBusy)
        listenerLock.wait();
}

bool DIAG::updateLogMask(unsigned short equipmentIdBits) {
    const unsigned equipmentId = equipmentIdBits >> 12;
    const uint32_t items = logItemRanges[equipmentId];
    const int length =
        items > kMaxMaskItems ? 0 : static_cast<int>((items + 7) >> 3) + kMaskHeaderLength;
    const std::unique_ptr<Byte, decltype(&free)> request(
        length ? static_cast<Byte*>(calloc(1, static_cast<size_t>(length))) : nullptr, &free);
    if (!request) {
        logger->errorf("loggingCfgSetReq failed to allocate message buffer");
        return false;
    }
    diagpkt_set_cmd_code(request.get(), kLogConfigCommand);
    diag_put_u32(request.get() + 4, kLogSetMask);
    diag_put_u32(request.get() + 8, equipmentId);
    diag_put_u32(request.get() + 12, items);
    setMaskBits(equipmentIdBits, request.get(), length);
    BusyFlag updating(maskBusy, listenerLock);
    LockRelease released(listenerLock);
    return exchangeLogMask(request.get(), length);
}

void DIAG::setMaskBits(unsigned short equipmentIdBits, unsigned char* request, int length) {
    const auto last = logListeners.upper_bound(equipmentIdBits | 0x0FFF);
    for (auto it = logListeners.lower_bound(equipmentIdBits); it != last; ++it) {
        const int at = kMaskHeaderLength + ((it->first >> 3) & 0x1FF);
        // The target has no item of a number beyond its range.
        if (at < length) request[at] = static_cast<Byte>(request[at] | 1 << (it->first & 7));
    }
}

bool DIAG::exchangeLogMask(unsigned char* request, int length) {
    class LoggingCfgRspListener : public ResponseListener {
      public:
        bool onResponse(const unsigned char* rsp, int len) override {
            return holds(len, 12) && isLogConfigurationDone(rsp, kLogSetMask);
        }
    };
    LoggingCfgRspListener listener;
    if (!sendRequest(request, length, &listener)) {
        logger->errorf("loggingCfgSetReq send failed");
        return false;
    }
    if (awaitResponse(listener)) return true;
    logger->errorf("loggingCfgSetReq response timeout");
    return false;
}

bool DIAG::hasLogListenerForTesting(unsigned short logCode) {
    LockGuard guard(listenerLock);
    return logListeners.count(logCode) != 0;
}

void DIAG::resetForTesting() {
    LockGuard listenersGuard(listenerLock);
    LockGuard requestsGuard(requestLock);
    logListeners.clear();
    requests.clear();
    connected = false;
    inError = false;
    switchModeByPointer = true;
}

// --- Received data --------------------------------------------------------------------------

int DIAG::onDIAGData(unsigned char* buf, int len, void* context) {
    static_cast<DIAG*>(context)->onDIAGData(buf, len);
    return 0;
}

void DIAG::onDIAGData(unsigned char* buf, int len) {
    if (!buf || len <= 0) return;
    FrameCutter cutter(buf, len);
    Frame frame{};
    while (cutter.next(frame))
        onFrame(frame.data, frame.length);
    if (cutter.bytesLeft() == 0) return;
    logger->warnf("DIAG::onDIAGData() dropped %d bytes without an end flag", cutter.bytesLeft());
}

void DIAG::onFrame(unsigned char* frame, int length) {
    if (frame[0] == kLogPacketCommand) {
        onLogFrame(frame, length);
    } else {
        onResponseFrame(frame, length);
    }
}

void DIAG::onLogFrame(const unsigned char* frame, int length) {
    if (length - 1 < kLogHeaderLength) {
        logger->warnf("DIAG::onDIAGData() dropped a log packet of %d bytes", length);
        return;
    }
    LockGuard guard(listenerLock);
    const auto found = logListeners.find(diag_get_u16(frame + 6));
    if (found == logListeners.end()) return;

    const Byte* const record = frame + kLogRecordOffset;
    const int following = length - kLogRecordOffset;
    const int claimed = diag_get_u16(record);
    if (claimed > following - 1) {
        logger->warnf("DIAG::onDIAGData() dropped a log record of %d bytes that claims %d",
                      following - 1, claimed);
        return;
    }
    // Where the frame holds more than check bytes behind it, the length field was never filled in.
    const bool honest = following - 1 - claimed <= kCheckBytes;
    const int held = honest ? claimed : following - 1;
    if (held >= kReadableLogRecord) {
        found->second->onLog(record);
        return;
    }
    Byte padded[kReadableLogRecord] = {};
    memcpy(padded, record, static_cast<size_t>(held));
    found->second->onLog(padded);
}

void DIAG::onResponseFrame(const unsigned char* frame, int length) {
    LockGuard guard(requestLock);
    // A frame answers the front request. One that is due must be on its way by then; who was called
    // to send it comes within its own time-out.
    while (delegated)
        requestLock.wait();
    // While another request's write has not returned, the front one may still be unsent.
    if (requests.empty() || !requests.front().outstanding) {
        logger->warnf("DIAG::onDIAGData() received unsolicited response: %d", frame[0]);
        return;
    }
    ResponseListener* const listener = requests.front().listener;
    if (listener) listener->handOver(listener->onResponse(frame, length));
    finishFront();
    sendDueOrDelegate();
}

}  // namespace tavrik
