#include "server/SystemErrorMessages.h"

#include "server/Errors.h"

namespace tavrik {

SystemErrorMessages* SystemErrorMessages::Instance() {
    static SystemErrorMessages* const instance = new SystemErrorMessages;
    return instance;
}

void SystemErrorMessages::add(int code, const std::string& text) { Instance()->post({code, text}); }

void SystemErrorMessages::add(int code, const char* text) { add(code, std::string(text)); }

void SystemErrorMessages::add(int code) {
    add(code, Errors::toAscii(static_cast<unsigned int>(code)));
}

void SystemErrorMessages::recordOnly(const error_message_t* message) {
    SystemErrorMessages* const self = Instance();
    { LockGuard meetingPoint(self->lock); }
    self->mirror(*message);
}

bool SystemErrorMessages::hasMessages() {
    SystemErrorMessages* const self = Instance();
    LockGuard guard(self->queueLock);
    return self->queue.getCount() != 0;
}

error_message_t* SystemErrorMessages::nextMessage() {
    SystemErrorMessages* const self = Instance();
    LockGuard guard(self->queueLock);
    return self->queue.next();
}

void SystemErrorMessages::lockMessages() { Instance()->lock.lock(); }

void SystemErrorMessages::unlockMessages() { Instance()->lock.unlock(); }

void SystemErrorMessages::post(const error_message_t& message) {
    {
        LockGuard guard(lock);
        LockGuard queueGuard(queueLock);
        queue.add(message);
    }
    // Not the queued entry: its slot may be used again by now.
    mirror(message);
}

void SystemErrorMessages::mirror(const error_message_t&) {}

}  // namespace tavrik
