#include "runtime/RWLock.h"

namespace tavrik {

void RWLock::readLock() {
    LockGuard guard(lock);
    _readLock();
}

void RWLock::writeLock() {
    LockGuard guard(lock);
    _writeLock();
}

void RWLock::readUnlock() {
    LockGuard guard(lock);
    _readUnlock(true);
}

void RWLock::writeUnlock() {
    LockGuard guard(lock);
    _writeUnlock(true);
}

bool RWLock::tryReadLock() {
    LockGuard guard(lock);
    if (writeLocked) return false;
    ++readers;
    return true;
}

bool RWLock::tryWriteLock() {
    LockGuard guard(lock);
    if (readers != 0 || writeLocked) return false;
    writeLocked = true;
    ++writers;
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

void RWLock::_readLock() {
    ++readers;
    while (writeLocked)
        privateWait();
}

void RWLock::_writeLock() {
    ++writers;
    while (readers != 0 || writeLocked)
        privateWait();
    writeLocked = true;
}

void RWLock::_readUnlock(bool notify) {
    if (readers != 0) --readers;
    // Waiting readers count as readers, so only writers can be waiting now, and one is enough.
    if (notify && readers == 0 && writers != 0) privateNotify();
}

void RWLock::_writeUnlock(bool notify) {
    if (writers != 0) --writers;
    writeLocked = false;
    if (notify && (readers != 0 || writers != 0)) privateNotifyAll();
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
