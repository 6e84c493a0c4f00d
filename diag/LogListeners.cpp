// The log listeners: their registration, the log masks, the packets.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "diag/DIAG.h"
#include "diag/src/packets.h"
#include "diag_lsm/diag_lsm_pkt.h"

namespace tavrik {

namespace {

constexpr int kLogHeaderLength = 8;     // of a frame: up to and including the log code
constexpr int kLogRecordOffset = 4;     // in a frame
constexpr int kCheckBytes = 2;          // in front of the flag, where the target sends them
constexpr int kReadableLogRecord = 92;  // decoders do not check lengths
constexpr int kMaskHeaderLength = 16;
constexpr uint32_t kMaxMaskItems = 65536;

const char* text(bool result) { return result ? "true" : "false"; }

}  // namespace

bool DIAG::registerLogListener(unsigned short logCode, LogListener* listener) {
    logger->tracef("DIAG::registerLogListener(%d,%p)", logCode, static_cast<void*>(listener));
    bool registered = false;
    while (listener && connect()) {
        LockGuard guard(listenerLock);
        waitWhileMaskBusy();
        // Another thread may have disconnected. After the insertion nobody can.
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
        // The target has no items beyond its range.
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
    // If more than check bytes follow the claimed length, the field was never filled in.
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

}  // namespace tavrik
