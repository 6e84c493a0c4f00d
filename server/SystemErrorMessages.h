#pragma once

#include <string>

#include "runtime/Lock.h"
#include "server/CircularQueue.h"

namespace tavrik {

// One message of the server: an Errors code and a text for people.
struct error_message_t {
    int code = 0;
    std::string text;
};

// The process-wide queue of noteworthy failures for a client of the server to read. Keeps the
// newest 100 messages and drops older ones silently.
//
// Threads: every operation may be called on any thread, before main and while the process exits.
// Ownership: one object, created on first use and never destroyed.
class SystemErrorMessages {
  public:
    // Never null.
    static SystemErrorMessages* Instance();

    // Post a message; without a text it gets that of the code, Errors::toAscii(code). Wait while a
    // reader is between lockMessages() and unlockMessages(): do not post there, nor while holding a
    // lock that such a reader takes.
    static void add(int code, const std::string& text) EXCLUDES(Instance()->lock);
    static void add(int code, const char* text) EXCLUDES(Instance()->lock);
    static void add(int code) EXCLUDES(Instance()->lock);

    // Shows a message to the channel's subscribers without queueing it; waits as add() does.
    static void recordOnly(const error_message_t* message) EXCLUDES(Instance()->lock);

    // Whether there is a message, and the oldest one, taken out of the queue (null when there is
    // none). Between lockMessages() and unlockMessages() the returned message stays as it is until
    // unlockMessages(), and nobody posts; otherwise a thread that posts may overwrite it at once.
    static bool hasMessages();
    static error_message_t* nextMessage();

    // Keep the queue for one reader. Not recursive.
    static void lockMessages() ACQUIRE(Instance()->lock);
    static void unlockMessages() RELEASE(Instance()->lock);

  private:
    SystemErrorMessages() = default;

    void post(const error_message_t& message) EXCLUDES(lock, queueLock);

    // Publishes a message on the posting thread, with no lock held. There is no channel yet, so
    // nothing is published.
    void mirror(const error_message_t& message) EXCLUDES(lock, queueLock);

    // Lock order: lock, then queueLock. Nothing else is taken under either of them.

    // Keeps posters away from a reader; a poster holds it while it changes the queue. Guards no
    // field by itself.
    Lock lock ACQUIRED_BEFORE(queueLock);

    // Guards the queue. A lock of its own, because hasMessages() and nextMessage() are called both
    // with `lock` held and without.
    Lock queueLock;

    CircularQueue<error_message_t> queue GUARDED_BY(queueLock){100};
};

}  // namespace tavrik
