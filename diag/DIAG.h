#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>

#include "log/Logger.h"
#include "runtime/Lock.h"

namespace tavrik {

// The process's session with the platform's DIAG service.
//
// It connects when first used: opens the driver client, switches the driver to callback delivery
// and configures the target with four requests. Requests go out one at a time, in the order in
// which they were sent; every received frame that is no log packet answers the oldest one. Log
// packets go to the listener of their log code, and the target's log mask is kept in step with the
// listeners. When an unregistration leaves no listener and no request, the session disconnects. A
// connection that failed stays failed for the rest of the process.
//
// Threads: "callers" are any threads but the reader; the "reader" is the driver client's thread, on
// which onDIAGData() and with it every onResponse() and onLog() runs. Public operations may be
// called by callers at any time, none on the reader.
//
// Ownership: a singleton, never destroyed. Listeners belong to their owners. An exception that
// leaves one ends the process: nothing on the reader catches it.
//
// Process: a forked child has no reader. It must not use the session, connected or not. The node's
// descriptor is closed on exec; a child that does not call exec shares it with its parent, and the
// driver ends the session only when both have closed it. Connecting replaces the handler of SIGUSR2
// (signal 12) and blocks that signal in the calling thread, for good, and so in every thread and
// program that this thread starts later. A SIGUSR2 from outside ends the reader: no answer arrives
// after that.
//
// Locks: a thread that waits for the target or for the reader's end, or is inside a call into the
// driver, holds no mutex. A flag keeps the others out meanwhile: `sending` (a request is being
// written), `maskBusy` (a log mask is under way) and `moving` (connecting or disconnecting).
class DIAG {
  public:
    // Receives the answer to one request at a time. Lives until awaitResponse() has returned.
    class ResponseListener {
      public:
        ResponseListener();
        virtual ~ResponseListener();
        ResponseListener(const ResponseListener&) = delete;
        ResponseListener& operator=(const ResponseListener&) = delete;

        // `rsp` is an unescaped frame of `len` bytes, any check bytes and the end flag included.
        // Returns whether it is the answer hoped for. Called on the reader with the session's
        // requestLock held: must not call the session, and must not throw.
        virtual bool onResponse(const unsigned char* rsp, int len) = 0;

        // What onResponse() returned; false before that.
        std::atomic<bool> accepted;

      protected:
        // Whether a frame of `len` bytes holds `count` bytes in front of its end flag.
        static bool holds(int len, int count) { return len > count; }

      private:
        friend class DIAG;
        using Deadline = std::chrono::steady_clock::time_point;
        enum class Event { answered, calledToSend, timedOut };

        void reset() TAVRIK_EXCLUDES(lock);
        void handOver(bool result) TAVRIK_EXCLUDES(lock);
        // Calls the waiter to send the request that is due. False when nobody waits.
        bool callToSend() TAVRIK_EXCLUDES(lock);
        Event wait(Deadline deadline) TAVRIK_EXCLUDES(lock);

        Lock lock;                             // taken after the session's requestLock
        bool done TAVRIK_GUARDED_BY(lock);     // the answer has come, accepted or not
        bool waiting TAVRIK_GUARDED_BY(lock);  // a thread is in wait()
        bool called TAVRIK_GUARDED_BY(lock);   // ... and is to send
    };

    // Receives the log packets of one log code.
    class LogListener {
      public:
        virtual ~LogListener() = default;

        // `record` is a log record (length, log code, time stamp: 12 bytes, then the payload) with
        // at least 92 readable bytes, zeros behind a shorter record; valid during the call. Called
        // on the reader with listenerLock held: must not register or unregister log listeners, nor
        // enable or look up triggers, nor walk or change the metrics. Must not throw.
        virtual void onLog(const unsigned char* record) = 0;
    };

    // The session; made on the first call, which may come from any thread.
    static DIAG* instance();

    DIAG(const DIAG&) = delete;
    DIAG& operator=(const DIAG&) = delete;

    // Connects the session if needed (may take four times 250 ms). False, with an error logged,
    // when it cannot be or has failed before.
    bool connect() TAVRIK_EXCLUDES(connectLock);

    // Sends `length` raw packet bytes, or queues a copy while another request is outstanding. True
    // when sent or queued: the caller then calls awaitResponse() with the same listener, which may
    // be null where nobody cares. False when the session is not connected, the driver refused or
    // `data` is null. Between the two calls the caller must not be canceled.
    bool sendRequest(unsigned char* data, int length, ResponseListener* listener)
        TAVRIK_EXCLUDES(requestLock, connectLock);

    // Waits up to 250 ms for the answer to the request sent with `listener`, and takes the listener
    // back whatever happened: it hears nothing afterwards. The request itself keeps its place in
    // the queue. True when an answer came and was accepted; logs nothing. May send requests that
    // are due. A cancellation point: a canceled caller's listener is taken back, too.
    bool awaitResponse(ResponseListener& listener) TAVRIK_EXCLUDES(requestLock);

    // Makes `listener` the one for `logCode` and sends the new log mask of its equipment id. False
    // when not connected, when the code has a listener already, and when the mask was not accepted
    // (error logged; the listener stays registered then).
    bool registerLogListener(unsigned short logCode, LogListener* listener)
        TAVRIK_EXCLUDES(listenerLock);

    // Takes `listener` from `logCode`, sends the log mask and disconnects if nothing is in use any
    // more. False when not connected (the listener is taken away all the same), when the code has
    // another listener or none, and when the mask was not accepted. No onLog() runs once it
    // returns.
    bool unregisterLogListener(unsigned short logCode, LogListener* listener)
        TAVRIK_EXCLUDES(listenerLock);

    // Disconnects when no listener is registered, no request queued and no mask under way.
    void disconnectIfIdle() TAVRIK_EXCLUDES(listenerLock, requestLock, connectLock);

    // Callback of the driver client; `context` is the session. Takes a buffer of framed data apart,
    // rewriting it in place. Malformed frames are dropped with a warning. Returns 0.
    static int onDIAGData(unsigned char* buf, int len, void* context);
    void onDIAGData(unsigned char* buf, int len);

    // Forget the listeners, the queue and a failure, as if the process had just begun. Called while
    // the driver client is closed and nobody uses the session.
    void resetForTesting() TAVRIK_EXCLUDES(listenerLock, requestLock);
    bool hasLogListenerForTesting(unsigned short logCode) TAVRIK_EXCLUDES(listenerLock);

  private:
    // One queued request with a copy of its bytes.
    class Request {
      public:
        // Without bytes when there are none to copy, or no memory.
        Request(const unsigned char* bytes, int count, ResponseListener* receiver);
        Request(Request&& other) noexcept;
        Request& operator=(Request other) noexcept;
        ~Request();

        bool hasBytes() const { return data != nullptr; }

        // Gives the bytes to who hands them to the driver; from then on the request is outstanding.
        Request takeForSending();

        // Hands the bytes to the driver client and frees them. Traces `format` with their address,
        // their number and the driver's result, which is 0 when the driver took them; returns it.
        int send(const char* format);

        ResponseListener* listener;  // not owned; null when nobody waits any more
        bool outstanding = false;    // the driver has it, or is being given it

      private:
        unsigned char* data;
        int length;
    };

    // Takes a listener back from the queue at the end of a scope, however that is left.
    class Withdrawal {
      public:
        Withdrawal(DIAG& owner, ResponseListener* waiter) : session(owner), listener(waiter) {}
        ~Withdrawal() {
            if (listener) session.withdraw(*listener);
        }
        Withdrawal(const Withdrawal&) = delete;
        Withdrawal& operator=(const Withdrawal&) = delete;

        void cancel() { listener = nullptr; }

      private:
        DIAG& session;
        ResponseListener* listener;
    };

    DIAG();
    static void createInstance();

    bool openSession();
    void switchLoggingMode(int mode, bool retryOtherForm);
    // The four set-up requests, each awaited. False when one failed for good (error logged).
    bool configureTarget();
    bool silenceMessages();
    bool silenceEvents();
    bool disableLogs();
    bool retrieveRanges();
    bool sendSetupRequest(unsigned char* data, int length, ResponseListener* listener)
        TAVRIK_EXCLUDES(requestLock);
    bool setup(const char* name, unsigned char* data, int length, ResponseListener& listener,
               bool mustBeSent = true);

    static void traceSend(const unsigned char* data, int length, const ResponseListener* listener,
                          const char* outcome);
    // Puts a request into the queue, and sends it where it is due. False when it cannot be queued
    // or the driver refused it; then it is not in the queue.
    bool enqueue(const unsigned char* data, int length, ResponseListener* listener)
        TAVRIK_REQUIRES(requestLock);
    // Whether the front request has not been sent and nobody is sending.
    bool isDue() const TAVRIK_REQUIRES(requestLock);
    // Hands the front request to the driver, with `sending` set and the lock free meanwhile.
    // Returns the driver's result; what the driver refused has left the queue. `format` is for
    // Request::send().
    int sendFront(const char* format) TAVRIK_REQUIRES(requestLock);
    // Removes the front request.
    void finishFront() TAVRIK_REQUIRES(requestLock);
    // Sends the front request if it is due.
    void sendDue() TAVRIK_REQUIRES(requestLock);
    // Has a due request sent, and the next one where the driver refuses it: by a caller that waits
    // for an answer or, without one, here. A write may block until the reader has read, so the
    // reader writes only where nobody waits.
    void sendDueOrDelegate() TAVRIK_REQUIRES(requestLock);
    // Calls a waiting caller to send the due request. False when nobody waits.
    bool delegate() TAVRIK_REQUIRES(requestLock);
    void withdraw(ResponseListener& listener) TAVRIK_EXCLUDES(requestLock);

    bool insertListener(unsigned short logCode, LogListener* listener)
        TAVRIK_REQUIRES(listenerLock);
    bool eraseListener(unsigned short logCode, LogListener* listener) TAVRIK_REQUIRES(listenerLock);
    void waitWhileMaskBusy() TAVRIK_REQUIRES(listenerLock);
    // Sends the log mask of the equipment id in bits 15..12 and awaits the answer. Gives the lock
    // up meanwhile, with maskBusy set. True when the target accepted it; failures are logged.
    bool updateLogMask(unsigned short equipmentIdBits) TAVRIK_REQUIRES(listenerLock);
    void setMaskBits(unsigned short equipmentIdBits, unsigned char* request, int length)
        TAVRIK_REQUIRES(listenerLock);
    bool exchangeLogMask(unsigned char* request, int length);

    void onFrame(unsigned char* frame, int length);
    void onLogFrame(const unsigned char* frame, int length) TAVRIK_EXCLUDES(listenerLock);
    void onResponseFrame(const unsigned char* frame, int length) TAVRIK_EXCLUDES(requestLock);

    // Disconnects if idle. False when that cannot be told yet: a write has not returned although
    // its request is answered.
    bool tryDisconnectIfIdle() TAVRIK_EXCLUDES(listenerLock, requestLock, connectLock);

    static DIAG* theInstance;
    static Logger* logger;  // constant once theInstance is set

    // Lock order: listenerLock, requestLock, connectLock (all three in disconnectIfIdle() only);
    // an ADSPPM's lock may be taken under listenerLock, a ResponseListener's under requestLock.
    Lock listenerLock TAVRIK_ACQUIRED_BEFORE(requestLock);
    Lock requestLock TAVRIK_ACQUIRED_BEFORE(connectLock);
    Lock connectLock;

    // Whether the driver takes the logging mode by address. Used by whoever set `moving`.
    bool switchModeByPointer;

    // Written under connectLock, read anywhere. `connected` is true from the last set-up answer to
    // the beginning of a disconnect; it is cleared under all three locks, so whoever sees it true
    // under one of them may rely on it while holding that one.
    std::atomic<bool> inError;
    std::atomic<bool> connected;

    bool moving TAVRIK_GUARDED_BY(connectLock);

    std::map<unsigned short, LogListener*> logListeners TAVRIK_GUARDED_BY(listenerLock);
    bool maskBusy TAVRIK_GUARDED_BY(listenerLock);

    // Only the front one can be outstanding at the target.
    std::deque<Request> requests TAVRIK_GUARDED_BY(requestLock);
    // Counts the requests that have left the queue.
    unsigned long finished TAVRIK_GUARDED_BY(requestLock) = 0;
    // A thread is inside the driver's write. Who finishes it sends what became due meanwhile.
    bool sending TAVRIK_GUARDED_BY(requestLock) = false;
    // The front request is due, and a caller that waits has been called to send it.
    bool delegated TAVRIK_GUARDED_BY(requestLock) = false;

    // Highest item number by equipment id. Written by the reader while connecting, constant while
    // connected.
    uint32_t logItemRanges[16];
};

}  // namespace tavrik
