// The session: its instance, its connection, and the frames that arrive.
#include "diag/DIAG.h"

#include <pthread.h>

#include "diag/FrameCutter.h"
#include "diag/src/packets.h"
#include "diag_lsm/device.h"
#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/diag_lsm_pkt.h"

namespace tavrik {

namespace {

constexpr int kRangesLength = 64;  // bytes of the ranges in their response

pthread_once_t createControl = PTHREAD_ONCE_INIT;

}  // namespace

DIAG* DIAG::theInstance = nullptr;
Logger* DIAG::logger = nullptr;

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

// Some drivers take the mode's address, others the mode itself. A form that the driver refused is
// not tried first again.
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
    // Without locks: Diag_LSM_DeInit() joins the reader, which may need them to finish.
    LockRelease released(connectLock);
    switchLoggingMode(DIAG_MODE_USB, false);
    Diag_LSM_DeInit();
    return true;
}

void DIAG::resetForTesting() {
    LockGuard listenersGuard(listenerLock);
    LockGuard requestsGuard(requestLock);
    logListeners.clear();
    requests.clear();
    delegated = false;
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

}  // namespace tavrik
