#pragma once

#include <sys/time.h>

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "diag/DIAG.h"
#include "log/Logger.h"
#include "runtime/Lock.h"

namespace tavrik {

// The ADSP power manager as a source of metrics. Registers listeners for events of its performance
// monitor, starts and stops collection over DIAG, and decodes the ADSP's log packets into
// time-stamped values.
//
// Event ids: 1 to 255 are events of the performance monitor; each distinct one with a listener
// takes one of four slots. -1 to -7 are values that every log packet carries (-2 is the core
// clock); they take none. The next start sends the registrations to the ADSP. So does a change of
// the trigger "_RunLevel", if it is enabled and the registrations changed the request: it restarts
// collection.
//
// Threads: the "reader" is DIAG's thread; onLog() and all listeners run on it. "Callers" are all
// other threads. They may use the public operations at any time.
//
// Ownership: a singleton, never destroyed. Listeners belong to their owners.
//
// Process: the same rules hold as for DIAG (see DIAG.h): a forked child must not use the object,
// and a start takes over SIGUSR2.
//
// Locks: `lock` is held for short steps and while listeners run, never while DIAG is called. Flags
// keep others out: `busy` (a start or a stop exchanges requests) blocks all operations of callers;
// `stopping` (until the end of a stop) blocks the next start or stop.
class ADSPPM : public DIAG::LogListener {
  public:
    // Receives the values of one event.
    class Listener {
      public:
        virtual ~Listener() = default;

        // `time` is the moment of the measurement in seconds since the Unix epoch. `value` is the
        // ADSP's number divided by 1,000,000 for id -1 and by 1,000 for id -2; for the others it is
        // what their counter gained since the previous packet, times 1,000, per second (infinite or
        // not a number when no time passed). Called on the reader with the ADSPPM's lock held: must
        // return soon, must not call the ADSPPM, and must not enable or look up triggers nor walk
        // or change the metrics (setting a trigger's value is allowed). Must not throw.
        virtual void onADSPPMInput(int eventId, double time, long double value) = 0;
    };

    // The singleton; made on the first call, which may come from any thread.
    static ADSPPM* instance();

    ADSPPM(const ADSPPM&) = delete;
    ADSPPM& operator=(const ADSPPM&) = delete;

    // Adds `listener`, which is not null, for `eventId`; the ADSP reports every `period` or more
    // often, if another registration asks for that. `name` appears in the refusal's text. False
    // when all four slots are taken (warning logged, server message LIMITREACHED posted) and after
    // a failed start or stop (nothing logged); `error` then holds the text. False for a null
    // listener, too.
    bool registerListener(Listener* listener, int eventId, const std::string& name,
                          unsigned int period, std::string& error) TAVRIK_EXCLUDES(lock);

    // Removes one registration of `listener` for `eventId`, the one of the smallest period. Always
    // true. The listener is not running and is not called again for it once this returns.
    bool unregisterListener(Listener* listener, int eventId) TAVRIK_EXCLUDES(lock);

    // Starts collection: three exchanges of up to 250 ms with the ADSP, a fourth if it fails, and
    // DIAG's connection. False when not idle or nobody is registered (nothing logged), or when the
    // ADSP did not acknowledge (error logged); after that every start and registration fails.
    bool startMetricCollection() TAVRIK_EXCLUDES(lock);

    // Stops collection: two exchanges of up to 250 ms. False when not collecting, or when the ADSP
    // did not acknowledge (traced); after that every start and registration fails.
    bool stopMetricCollection() TAVRIK_EXCLUDES(lock);

    // DIAG::LogListener: decodes one log packet and calls the listeners. The first packet behind
    // the accepted answer to a start primes the decoder; values are delivered once the start
    // succeeded.
    void onLog(const unsigned char* record) override TAVRIK_EXCLUDES(lock);

    // Converts an ADSP time stamp to seconds since the Unix epoch, with the present time shift.
    double convertTimeStamp(unsigned int low, unsigned int high) const;

    // Sets the time shift from one loopback. Assumes that the ADSP took its time stamp halfway
    // between the host times of the request and the response.
    void updateTimeShift(unsigned int low, unsigned int high, const timeval* sent,
                         const timeval* received);

    // Returns to the idle state. Call only while nobody uses the object.
    void resetForTesting() TAVRIK_EXCLUDES(lock);

  private:
    using Listeners = std::multimap<unsigned int, Listener*>;  // by period
    struct Registrations {
        Listeners byPeriod{};
        // The same, by listener and then as in byPeriod.
        std::multimap<std::pair<Listener*, unsigned int>, Listeners::iterator> byListener{};
    };
    enum State { kIdle = 0, kCollecting = 1, kFailed = 2 };

    ADSPPM();
    ~ADSPPM() override;
    static void createInstance();
    void subscribeToRunLevel();

    bool takeSlot(int eventId) TAVRIK_REQUIRES(lock);
    void freeSlot(int eventId) TAVRIK_REQUIRES(lock);
    void add(Registrations& registered, unsigned int period, Listener* listener)
        TAVRIK_REQUIRES(lock);
    // Removes the listener's registration of the smallest period and stores that. False if there is
    // none.
    bool remove(Registrations& registered, Listener* listener, unsigned int& period)
        TAVRIK_REQUIRES(lock);
    unsigned int smallestPeriod() const TAVRIK_REQUIRES(lock);
    unsigned int period() const TAVRIK_REQUIRES(lock);
    void setPeriod(unsigned int period) TAVRIK_REQUIRES(lock);

    // The exchanges with the ADSP; called with `busy` set and `lock` free.
    void measureTimeShift();
    bool exchangeStart(unsigned char* request);
    bool exchangeStop();

    void deliver(int eventId, double time, long double value) TAVRIK_REQUIRES(lock);
    void deliverSlots(const unsigned char* record, double time, double factor)
        TAVRIK_REQUIRES(lock);
    void deliverCounter(int eventId, const unsigned char* record, int offset, double time,
                        double factor) TAVRIK_REQUIRES(lock);
    void deliverAll(const unsigned char* record, double time) TAVRIK_REQUIRES(lock);

    static ADSPPM* theInstance;
    static Logger* logger;  // constant once theInstance is set

    // Seconds to add to an ADSP time stamp. Written by starts, read anywhere.
    std::atomic<double> timeShift;
    // The configuration response of the running start was accepted. Set by the reader.
    std::atomic<bool> startAccepted;
    // The configuration request differs from the last accepted one. Written under `lock`, read
    // anywhere.
    std::atomic<bool> changed_;

    // Guards the state below. Taken after DIAG's listenerLock and the subscriber set's lock of
    // "_RunLevel"; nothing but what a listener takes is taken under it.
    Lock lock;
    int state TAVRIK_GUARDED_BY(lock);
    bool busy TAVRIK_GUARDED_BY(lock);
    bool stopping TAVRIK_GUARDED_BY(lock);
    std::string errorText TAVRIK_GUARDED_BY(lock);            // of the last failed start
    unsigned char configRequest[20] TAVRIK_GUARDED_BY(lock);  // the next start's
    unsigned char lastLog[92] TAVRIK_GUARDED_BY(lock);        // log code 0: there is none
    double lastLogTime TAVRIK_GUARDED_BY(lock);
    std::map<int, Registrations> listeners TAVRIK_GUARDED_BY(lock);  // empty entries may stay
    std::multiset<unsigned int> periods TAVRIK_GUARDED_BY(lock);     // of all registrations
};

}  // namespace tavrik
