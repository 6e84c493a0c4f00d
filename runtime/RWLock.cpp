#include "runtime/RWLock.h"

namespace tavrik {

void RWLock::awaitReadLock() {
    LockGuard guard(lock);
    _readLock();
}

void RWLock::writeLock() {
    LockGuard guard(lock);
    _writeLock();
}

void RWLock::readUnlockForWriters() {
    LockGuard guard(lock);
    _readUnlock(true);
}

void RWLock::writeUnlock() {
    LockGuard guard(lock);
    _writeUnlock(true);
}

bool RWLock::tryWriteLock() {
    LockGuard guard(lock);
    if (!takeIfFree()) return false;
    countWriters(1);
    return true;
}

void RWLock::promoteToWriteLock() {
    LockGuard guard(lock);
    _readUnlock(false);
    _writeLock();
}

void RWLock::demoteToReadLock() {
    LockGuard guard(lock);
    _writeUnlock(false);
    _readLock();
}

void RWLock::readerWait() {
    LockGuard guard(lock);
    _readUnlock(true);
    publicWait();
    _readLock();
}

void RWLock::readerWait(int milliseconds) {
    LockGuard guard(lock);
    _readUnlock(true);
    publicWait(milliseconds);
    _readLock();
}

void RWLock::writerWait() {
    LockGuard guard(lock);
    _writeUnlock(true);
    publicWait();
    _writeLock();
}

void RWLock::writerWait(int milliseconds) {
    LockGuard guard(lock);
    _writeUnlock(true);
    publicWait(milliseconds);
    _writeLock();
}

void RWLock::notify() {
    LockGuard guard(lock);
    publicNotify();
}

void RWLock::notifyAll() {
    LockGuard guard(lock);
    publicNotifyAll();
}

unsigned RWLock::waitersForTesting() {
    LockGuard guard(lock);
    unsigned count = publicWaiters;
    for (const PrivateWaiter* waiter = privateWaiters; waiter != nullptr; waiter = waiter->next)
        ++count;
    return count;
}

bool RWLock::takeIfFree() {
    uint32_t now = state.load(std::memory_order_relaxed);
    while ((now & (kReaders | kWriteLocked)) == 0) {
        if (exchange(now, now | kWriteLocked)) return true;
    }
    return false;
}

void RWLock::countWriters(int difference) {
    writers = static_cast<uint16_t>(writers + difference);
    if (writers != 0) {
        state.fetch_or(kWriters, std::memory_order_acq_rel);
    } else {
        state.fetch_and(~kWriters, std::memory_order_acq_rel);
    }
}

void RWLock::_readLock() {
    state.fetch_add(1, std::memory_order_acq_rel);
    while (isWriteLocked())
        privateWait();
}

void RWLock::_writeLock() {
    countWriters(1);
    while (!takeIfFree())
        privateWait();
}

void RWLock::_readUnlock(bool notify) {
    uint32_t now = state.load(std::memory_order_relaxed);
    while ((now & kReaders) != 0 && !exchange(now, now - 1)) {
    }
    // Waiting readers count as readers, so only writers can be waiting now, and one is enough.
    if (notify && !isRead() && writers != 0) privateNotify();
}

void RWLock::_writeUnlock(bool notify) {
    if (writers != 0) countWriters(-1);
    state.fetch_and(~kWriteLocked, std::memory_order_acq_rel);
    if (notify && (isRead() || writers != 0)) privateNotifyAll();
}

void RWLock::privateWait() {
    PrivateWaiter self;
    PrivateWaiter** link = &privateWaiters;
    while (*link != nullptr)
        link = &(*link)->next;
    *link = &self;
    while (!self.granted)
        lock.wait();
    for (link = &privateWaiters; *link != &self;)
        link = &(*link)->next;
    *link = self.next;
}

void RWLock::privateNotify() {
    PrivateWaiter* waiter = privateWaiters;
    while (waiter != nullptr && waiter->granted)
        waiter = waiter->next;
    if (waiter == nullptr) return;
    waiter->granted = true;
    lock.notifyAll();
}

void RWLock::privateNotifyAll() {
    if (privateWaiters == nullptr) return;
    for (PrivateWaiter* waiter = privateWaiters; waiter != nullptr; waiter = waiter->next)
        waiter->granted = true;
    lock.notifyAll();
}

void RWLock::publicWait() {
    ++publicWaiters;
    while (publicWakeups == 0)
        lock.wait();
    --publicWaiters;
    --publicWakeups;
}

void RWLock::publicWait(int milliseconds) {
    if (publicWakeups != 0) {
        --publicWakeups;
        return;
    }
    ++publicWaiters;
    lock.wait(milliseconds);
    --publicWaiters;
    if (publicWakeups != 0) --publicWakeups;
}

void RWLock::publicNotify() {
    if (publicWaiters == 0) return;
    ++publicWakeups;
    lock.notifyAll();
}

void RWLock::publicNotifyAll() {
    if (publicWaiters == 0) return;
    publicWakeups = publicWaiters;
    lock.notifyAll();
}

}  // namespace tavrik
