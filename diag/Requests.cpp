// The request queue: what sends, waits and hands answers over.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "diag/DIAG.h"
#include "diag_lsm/diag_lsm.h"

namespace tavrik {

namespace {

constexpr std::chrono::milliseconds kResponseTimeout{250};

}  // namespace

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
    // Under the lock: the waiter may destroy this listener as soon as it sees `done`.
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
    if (std::exchange(called, false)) return Event::kCalledToSend;
    return done ? Event::kAnswered : Event::kTimedOut;
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

// --- Sending and waiting --------------------------------------------------------------------

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
        // Another thread may have disconnected.
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
    // The answer may arrive before the write returns and remove the request from the queue.
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
        while (listener.wait(deadline) == Event::kCalledToSend) {
            LockGuard guard(requestLock);
            sendDue();
            sendDueOrDelegate();
        }
    }
    // Read last, so that an answer at the last moment counts.
    return listener.accepted;
}

void DIAG::withdraw(ResponseListener& listener) {
    LockGuard guard(requestLock);
    for (Request& request : requests) {
        if (request.listener == &listener) request.listener = nullptr;
    }
    // This caller may have been woken to send, and leaves.
    sendDueOrDelegate();
}

void DIAG::onResponseFrame(const unsigned char* frame, int length) {
    LockGuard guard(requestLock);
    // The frame answers the front request, so a delegated one must be on its way first. Its sender
    // wakes within its own time-out.
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
