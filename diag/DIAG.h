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
// The first use connects the session: it opens the driver client, switches the driver to callback
// delivery and configures the target with four requests. One request is outstanding at a time; the
// others wait in a queue. Every received frame that is not a log packet answers the outstanding
// request. Log packets go to the listener of their log code, and the target's log mask follows the
// listeners. The session disconnects when an unregistration leaves no listener and no request. A
// failed connection stays failed for the rest of the process.
//
// Threads: the "reader" is the driver client's thread. onDIAGData() runs on it, and so do
// onResponse() and onLog(). "Callers" are all other threads. Callers may use the public operations
// at any time. The reader must not use them.
//
// Ownership: a singleton, never destroyed. Listeners belong to their owners. An exception from a
// listener ends the process: nothing on the reader catches it.
//
// Process: a forked child has no reader and must not use the session, connected or not. The node's
// descriptor is closed on exec. A child that does not call exec shares it with its parent, and the
// driver ends the session only when both have closed it. Connecting replaces the handler of SIGUSR2
// (signal 12) and blocks that signal in the calling thread for good; threads and programs that this
// thread starts later inherit the blocked signal. A SIGUSR2 from outside ends the reader, and no
// more answers arrive.
//
// Locks: a thread holds no mutex while it waits for the target or for the reader's end, or while it
// is inside a call into the driver. Flags keep others out: `sending` (a request is being written),
// `maskBusy` (a log mask is being exchanged) and `moving` (connecting or disconnecting).
class DIAG {
  public:
    // Receives the answer to one request at a time. Must live until awaitResponse() returns.
    class ResponseListener {
      public:
        ResponseListener();
        virtual ~ResponseListener();
        ResponseListener(const ResponseListener&) = delete;
        ResponseListener& operator=(const ResponseListener&) = delete;

        // `rsp` is an unescaped frame of `len` bytes, including check bytes, if any, and the end
        // flag. Returns true if it is the expected answer. Called on the reader with the session's
        // requestLock held. Must not call the session or throw.
        virtual bool onResponse(const unsigned char* rsp, int len) = 0;

        // The result of onResponse(); false before.
        std::atomic<bool> accepted;

      protected:
        // True if a frame of `len` bytes has `count` bytes before its end flag.
        static bool holds(int len, int count) { return len > count; }

      private:
        friend class DIAG;
        using Deadline = std::chrono::steady_clock::time_point;
        enum class Event { kAnswered, kCalledToSend, kTimedOut };

        void reset() TAVRIK_EXCLUDES(lock);
        void handOver(bool result) TAVRIK_EXCLUDES(lock);
        // Wakes the waiting thread to send the due request. False if no thread waits.
        bool callToSend() TAVRIK_EXCLUDES(lock);
        Event wait(Deadline deadline) TAVRIK_EXCLUDES(lock);

        Lock lock;                             // taken after the session's requestLock
        bool done TAVRIK_GUARDED_BY(lock);     // the answer has come, accepted or not
        bool waiting TAVRIK_GUARDED_BY(lock);  // a thread is in wait()
        bool called TAVRIK_GUARDED_BY(lock);   // that thread is to send the due request
    };

    // Receives the log packets of one log code.
    class LogListener {
      public:
        virtual ~LogListener() = default;

        // `record` is a log record: length, log code and time stamp (12 bytes), then the payload.
        // At least 92 bytes are readable; zeros follow a shorter record. Valid during the call.
        // Called on the reader with listenerLock held. Must not register or unregister log
        // listeners, enable or look up triggers, walk or change the metrics, or throw.
        virtual void onLog(const unsigned char* record) = 0;
    };

    // The session, created by the first call. Any thread.
    static DIAG* instance();

    DIAG(const DIAG&) = delete;
    DIAG& operator=(const DIAG&) = delete;

    // Connects the session if needed; this may take four times 250 ms. False, with an error logged,
    // if that fails or has failed before.
    bool connect() TAVRIK_EXCLUDES(connectLock);

    // Sends a raw packet of `length` bytes, or queues a copy while another request is outstanding.
    // Returns true if it was sent or queued; the caller then calls awaitResponse() with the same
    // listener. `listener` is null if nobody wants the answer. Returns false if the session is not
    // connected, the driver refuses, or `data` is null. The caller must not be canceled between the
    // two calls.
    bool sendRequest(unsigned char* data, int length, ResponseListener* listener)
        TAVRIK_EXCLUDES(requestLock, connectLock);

    // Waits up to 250 ms for the answer to the request sent with `listener`. True if it came and
    // was accepted; logs nothing. Then withdraws the listener, which is not called again; the
    // request keeps its place in the queue. May send due requests. A cancellation point, which also
    // withdraws the listener.
    bool awaitResponse(ResponseListener& listener) TAVRIK_EXCLUDES(requestLock);

    // Registers `listener` for `logCode` and sends the new log mask of its equipment id. False if
    // the session is not connected, the listener is null, or the code has a listener. Also false if
    // the target does not accept the mask (error logged); the listener stays registered then.
    bool registerLogListener(unsigned short logCode, LogListener* listener)
        TAVRIK_EXCLUDES(listenerLock);

    // Unregisters `listener` from `logCode`, sends the log mask, and disconnects an idle session.
    // False if the session is not connected (the listener is unregistered nevertheless), if the
    // code has another listener or none, or if the target does not accept the mask. The listener's
    // onLog() does not run after the return.
    bool unregisterLogListener(unsigned short logCode, LogListener* listener)
        TAVRIK_EXCLUDES(listenerLock);

    // Disconnects if no listener is registered, no request is queued and no mask is being
    // exchanged.
    void disconnectIfIdle() TAVRIK_EXCLUDES(listenerLock, requestLock, connectLock);

    // The driver client's callback; `context` is the session. Cuts framed data into frames, in
    // place, and dispatches them. Drops malformed frames with a warning. Returns 0.
    static int onDIAGData(unsigned char* buf, int len, void* context);
    void onDIAGData(unsigned char* buf, int len);

    // Clears listeners, queue and failure, as in a new process. Call only while the driver client
    // is closed and nobody uses the session.
    void resetForTesting() TAVRIK_EXCLUDES(listenerLock, requestLock);
    bool hasLogListenerForTesting(unsigned short logCode) TAVRIK_EXCLUDES(listenerLock);

  private:
    // One queued request with a copy of its bytes.
    class Request {
      public:
        // Copies the bytes. Has none if `bytes` is null, `count` is below 1 or there is no memory.
        Request(const unsigned char* bytes, int count, ResponseListener* receiver);
        Request(Request&& other) noexcept;
        Request& operator=(Request other) noexcept;
        ~Request();

        bool hasBytes() const { return data != nullptr; }

        // Moves the bytes to the returned request, which is to be sent. This request is
        // outstanding.
        Request takeForSending();

        // Passes the bytes to the driver client and frees them. Returns the driver's result, 0 on
        // success. Traces `format` with address, length and result.
        int send(const char* format);

        ResponseListener* listener;  // not owned; null when nobody waits any more
        bool outstanding = false;    // the driver has it, or is being given it

      private:
        unsigned char* data;
        int length;
    };

    // Withdraws a listener at the end of a scope, also if an exception or a cancellation ends it.
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
    // Sends the four set-up requests and awaits their answers. False if a mandatory one fails
    // (error logged).
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
    // Appends a request to the queue, and sends it if it is due. False if it cannot be queued or
    // the driver refuses it; it is not in the queue then.
    bool enqueue(const unsigned char* data, int length, ResponseListener* listener)
        TAVRIK_REQUIRES(requestLock);
    // True if the front request has not been sent and no thread is sending.
    bool isDue() const TAVRIK_REQUIRES(requestLock);
    // Sends the front request with `sending` set and the lock released. Removes it if the driver
    // refuses. Returns the driver's result. `format` is for Request::send().
    int sendFront(const char* format) TAVRIK_REQUIRES(requestLock);
    // Removes the front request.
    void finishFront() TAVRIK_REQUIRES(requestLock);
    // Sends the front request if it is due.
    void sendDue() TAVRIK_REQUIRES(requestLock);
    // Gets the due request sent, and the next one if the driver refuses it: by a caller that waits
    // for an answer, else on this thread. A write may block until the reader has read, so the
    // reader should not be the one that writes.
    void sendDueOrDelegate() TAVRIK_REQUIRES(requestLock);
    // Wakes a waiting caller to send the due request. False if no caller waits.
    bool delegate() TAVRIK_REQUIRES(requestLock);
    void withdraw(ResponseListener& listener) TAVRIK_EXCLUDES(requestLock);

    bool insertListener(unsigned short logCode, LogListener* listener)
        TAVRIK_REQUIRES(listenerLock);
    bool eraseListener(unsigned short logCode, LogListener* listener) TAVRIK_REQUIRES(listenerLock);
    void waitWhileMaskBusy() TAVRIK_REQUIRES(listenerLock);
    // Sends the log mask of the equipment id in bits 15..12 and awaits the answer, with the lock
    // released and maskBusy set. True if the target accepts it; logs failures.
    bool updateLogMask(unsigned short equipmentIdBits) TAVRIK_REQUIRES(listenerLock);
    void setMaskBits(unsigned short equipmentIdBits, unsigned char* request, int length)
        TAVRIK_REQUIRES(listenerLock);
    bool exchangeLogMask(unsigned char* request, int length);

    void onFrame(unsigned char* frame, int length);
    void onLogFrame(const unsigned char* frame, int length) TAVRIK_EXCLUDES(listenerLock);
    void onResponseFrame(const unsigned char* frame, int length) TAVRIK_EXCLUDES(requestLock);

    // Disconnects if idle. False if it must be called again, after the write in progress: its
    // request is answered already.
    bool tryDisconnectIfIdle() TAVRIK_EXCLUDES(listenerLock, requestLock, connectLock);

    static DIAG* theInstance;
    static Logger* logger;  // constant once theInstance is set

    // Lock order: listenerLock, requestLock, connectLock (all three in disconnectIfIdle() only);
    // an ADSPPM's lock may be taken under listenerLock, a ResponseListener's under requestLock.
    Lock listenerLock TAVRIK_ACQUIRED_BEFORE(requestLock);
    Lock requestLock TAVRIK_ACQUIRED_BEFORE(connectLock);
    Lock connectLock;

    // True if the driver takes the logging mode by address. Used by the thread that set `moving`.
    bool switchModeByPointer;

    // Written under connectLock, read anywhere. `connected` is true from the last set-up answer
    // until a disconnect begins. It is cleared under all three locks: a thread that holds one of
    // them and reads true may rely on it while it holds that lock.
    std::atomic<bool> inError;
    std::atomic<bool> connected;

    bool moving TAVRIK_GUARDED_BY(connectLock);

    std::map<unsigned short, LogListener*> logListeners TAVRIK_GUARDED_BY(listenerLock);
    bool maskBusy TAVRIK_GUARDED_BY(listenerLock);

    // Only the front request can be outstanding.
    std::deque<Request> requests TAVRIK_GUARDED_BY(requestLock);
    // Number of requests that have left the queue.
    unsigned long finished TAVRIK_GUARDED_BY(requestLock) = 0;
    // A thread is inside the driver's write. It sends what becomes due meanwhile.
    bool sending TAVRIK_GUARDED_BY(requestLock) = false;
    // A waiting caller has been woken to send the front request, which is due.
    bool delegated TAVRIK_GUARDED_BY(requestLock) = false;

    // Highest item number by equipment id. Written by the reader while connecting, constant while
    // connected.
    uint32_t logItemRanges[16];
};

}  // namespace tavrik
