#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>

#include "runtime/Lock.h"
#include "server/CircularQueue.h"

namespace tavrik {

class Channel;
class MarkerBuffer;

// One message of the server: an Errors code and a text for people.
struct error_message_t {
    int code = 0;
    std::string text;
};

// The process-wide queue of noteworthy failures, for clients of the server. Keeps the newest 100
// messages and drops older ones.
//
// Also publishes each message on the channel "serverMessages", as a marker buffer with one entry:
// the time, 0, the text. The first use of this class creates the channel with the ChannelStore's
// factory for the type "basic". Without such a factory, messages are only queued.
//
// Threads: any thread may call any operation, also before main and while the process exits.
// Messages are published on the posting thread, with no mutex of this class held, while other
// posters wait. The channel and its factory may post; messages of the factory are only queued.
// Deadlocks if one of them waits for another thread that posts.
//
// Ownership: one object, created on first use, never destroyed. It holds a reference on its
// channel.
class SystemErrorMessages {
  public:
    // Never null.
    static SystemErrorMessages* Instance();

    // Post a message. Without a text, it gets the text of the code, Errors::toAscii(code). Wait
    // while a reader is between lockMessages() and unlockMessages(). Deadlock if called there, or
    // with a lock held that such a reader or the channel takes.
    static void add(int code, const std::string& text) TAVRIK_EXCLUDES(Instance()->lock);
    static void add(int code, const char* text) TAVRIK_EXCLUDES(Instance()->lock);
    static void add(int code) TAVRIK_EXCLUDES(Instance()->lock);

    // Publishes a message without queueing it. Waits as add() does. Ignores null.
    static void recordOnly(const error_message_t* message) TAVRIK_EXCLUDES(Instance()->lock);

    // hasMessages() returns whether the queue has messages; nextMessage() removes and returns the
    // oldest one, or null. Between lockMessages() and unlockMessages(), nobody posts and the
    // message stays valid. Otherwise a posting thread may overwrite it at once.
    static bool hasMessages();
    static error_message_t* nextMessage();

    // Reserve the queue for one reader. Not recursive.
    static void lockMessages() TAVRIK_ACQUIRE(Instance()->lock);
    static void unlockMessages() TAVRIK_RELEASE(Instance()->lock);

  private:
    // Exclusive use of the channel for a scope. May be nested on one thread.
    class Turn;

    SystemErrorMessages() = default;

    void setUpOnce() TAVRIK_EXCLUDES(turnLock);
    // Makes the channel, on the thread that has the turn.
    void setUpChannel();

    void post(const error_message_t& message) TAVRIK_EXCLUDES(lock, queueLock, turnLock);

    // Publishes a message on the posting thread, with no lock held; the message must outlive the
    // call. Nothing without a channel.
    void mirror(const error_message_t& message) TAVRIK_EXCLUDES(lock, queueLock, turnLock);

    // Lock order: lock, then queueLock. Nothing else is taken under any of the three.

    // Keeps posters away from a reader; a poster holds it while it changes the queue. Guards no
    // field by itself.
    Lock lock TAVRIK_ACQUIRED_BEFORE(queueLock);

    // Guards the queue. A lock of its own, because hasMessages() and nextMessage() are called both
    // with `lock` held and without.
    Lock queueLock;

    CircularQueue<error_message_t> queue TAVRIK_GUARDED_BY(queueLock){100};

    // Guards whose turn it is. Waited on for the turn, and free while somebody has it.
    Lock turnLock;
    pthread_t turnOwner TAVRIK_GUARDED_BY(turnLock){};
    int turns TAVRIK_GUARDED_BY(turnLock) = 0;  // of turnOwner, nested in each other

    // Set, by whoever has the turn, when it begins to make the channel.
    std::atomic<bool> setUpBegun{false};

    // Touched only by the thread that has the turn. The buffer comes and stays with the channel.
    Channel* channel = nullptr;
    std::unique_ptr<MarkerBuffer> buffer;
};

}  // namespace tavrik
