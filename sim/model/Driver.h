// The character device driver in front of the ADSP: what open, write and ioctl on the node do, and
// which buffers read will return when.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "sim/Scenario.h"
#include "sim/model/Adsp.h"
#include "sim/model/Decoder.h"
#include "sim/model/Delivery.h"
#include "sim/model/OpenFlags.h"
#include "sim/model/Replay.h"
#include "sim/model/Trace.h"

namespace diagsim {

// No locks and no descriptors: the owner serialises all calls, and takes what is due() to the
// client. Every call writes its own trace line.
class Driver {
  public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;

    // What the client's call returns; with a negative value, `error` is its errno.
    struct Result {
        long value = 0;
        int error = 0;
        bool taken = false;  // the driver has done what was asked for, whatever it says
    };

    // `trace` outlives the driver.
    Driver(const Scenario& scenario, Trace& trace);

    // Begins a session of a client whose open() had these flags and returns `fd`: the masks are on
    // their way, the logging mode is what the last client left (at first 1). The value is `fd`, or
    // negative: refused.
    Result open(int flags, int fd, Time now);
    Result refuseOpen(int flags, int error, const std::string& reason);

    // Ends the session; what was not delivered is dropped. The logging mode stays.
    void close();

    // A read of a descriptor that was opened without the right to.
    Result refuseRead();

    // Whether writes wait, before they are taken and after, while something stands unread.
    bool writesBlock() const { return scenario_.write.blocksUntilRead && mayWrite(flags_); }
    bool writesLinger() const { return scenario_.write.returnsAfterRead || replay_; }

    // Whether the answers come from a capture. Then a write waits as if it blocked, and lingers if
    // the recorded one saw a read: the recorded client had read so far.
    bool replays() const { return replay_.has_value(); }
    // Lets everything that is queued be due by now.
    void hasten(Time now);

    void tellThatWriteWaits(size_t unread, Time now);
    // A write that was given up while it waited.
    Result abandonWrite(const Bytes& data, int error);

    // The node's write and ioctl.
    Result write(const Bytes& data, Time now);
    Result ioctl(unsigned long request, void* argument, Time now);

    // Puts a buffer into the queue, behind everything that is due now.
    void enqueue(Outgoing outgoing, Time due);

    // Makes the periodic log packets and stray frames whose time has come.
    void producePeriodic(Time now);

    // The first of the queue when its time has come, else null. Drops what the present logging mode
    // does not let out. Valid until the next call.
    const Outgoing* due(Time now);

    // Removes what due() returned.
    void pop() { queue_.erase(queue_.begin()); }

    // Whether this buffer may join so many that the client has not read.
    bool hasRoom(const Outgoing& outgoing, size_t unread) const;

    // Counts a buffer for which there is no room, and returns what the trace says of it. Nothing:
    // it is not lost, but waits for room.
    std::optional<std::string> lose(const Outgoing& outgoing);

    // Writes the lines of a buffer that was delivered, or was not: then `suffix` says why.
    void trace(const Outgoing& outgoing, const std::string& suffix);

    // When there is something to do next; nothing: not before a call.
    std::optional<Time> nextDue() const;

    // From now on every write and ioctl fails with ENODEV. What comes back is in logging mode 1.
    void vanish();

    // A log packet as the ADSP would send it now.
    Bytes logPacket() { return adsp_.logPacket(); }

  private:
    Result refuse(const std::string& call, int error, const std::string& reason);
    Result succeed(const std::string& call, long value);
    // Whether a signal interrupts this call, being one of the first `count`.
    static bool interrupts(int& calls, int count);

    Result callbackData(const std::string& call, const Bytes& payload, Time now);
    Result remoteRequest(const std::string& call, const Bytes& payload, uint32_t processor);
    Result localRequest(const std::string& call, const Bytes& payload, Time now);
    const Fault& pickFault(const std::string& key);
    Result endWrite(const std::string& call, const Fault& fault);
    void restartLogs(Time now);
    void restartStrays(Time now);
    void dropQueue();
    bool isLimited(const Outgoing& outgoing) const;

    // The same three from a capture.
    Result replayOpen(int flags, int fd, Time now);
    Result replayWrite(const std::string& call, const Bytes& data, Time now);
    Result replayIoctl(unsigned long request, void* argument, Time now);
    const Replay::Recorded* findRecorded(CapturedCall::Kind kind, uint32_t argument,
                                         const Bytes& data, const std::string& call, Time now);

    Result registerTables(void* argument);
    Result switchMode(void* argument, Time now);
    Result setMode(const std::string& call, int mode, Time now);
    Result delayedResponseId(void* argument);
    Result deinitialise(Time now);
    Result remoteMask(void* argument);
    Result voteRealTime(void* argument);
    Result realTimeStatus(void* argument);
    // Stores a record at the argument.
    template <typename Record>
    Result answerIoctl(unsigned long request, void* argument, const Record& record, long result);

    const Scenario scenario_;
    Trace& trace_;
    Adsp adsp_;
    Decoder decoder_;
    std::optional<Replay> replay_{};
    int replayed_ = 0;  // requests that were written
    bool differed_ = false;

    int flags_ = 0;  // the client's
    int mode_ = 1;
    bool gone_ = false;
    std::multimap<Time, Outgoing> queue_{};  // equal times stay in the order of insertion
    size_t lost_ = 0;                        // since open
    std::optional<Time> nextLog_{};
    std::optional<Time> nextStray_{};
    std::map<std::string, int> occurrences_{};  // of each request, and of "any"
    int interruptedOpens_ = 0;
    int interruptedWrites_ = 0;
    std::map<unsigned long, int> interruptedIoctls_{};  // by number
    uint16_t delayedResponses_ = 0;
};

}  // namespace diagsim
