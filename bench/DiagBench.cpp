#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <thread>
#include <vector>

#include "adsppm/ADSPPM.h"
#include "bench/Bench.h"
#include "diag/DIAG.h"
#include "diag_lsm/device.h"
#include "diag_lsm/diag_lsm.h"
#include "sim/Device.h"

namespace {

using Bytes = std::vector<unsigned char>;
using State = benchmark::State;
using tavrik::DIAG;

// --- A device that does nothing but answer ----------------------------------------------------

// The least device that a session can be connected to: write() sends the answer before it returns.
class PlainDevice {
  public:
    static PlainDevice& instance() {
        static PlainDevice device;
        return device;
    }

    std::atomic<bool> plugged{false};

    int open() {
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
        for (const int type : {DIAG_TYPE_MSG_MASKS, DIAG_TYPE_LOG_MASKS, DIAG_TYPE_EVENT_MASKS})
            send(Bytes{static_cast<unsigned char>(type), 0, 0, 0});
        return ends[0];
    }

    // A request whose answer is the same bytes, but for those of the set-up.
    int answer(const unsigned char* request, size_t size) {
        Bytes packet(request + 4, request + size);
        if (packet[0] == 0x7D) packet = {0x7D, 5, 1, 0};
        if (packet[0] == 0x60) packet = {0x60, 0, 0, 0};
        if (packet[0] == 0x73) packet.resize(12 + 64);
        packet.push_back(0x7E);
        Bytes buffer{DIAG_TYPE_USER_SPACE_DATA,
                     0,
                     0,
                     0,
                     1,
                     0,
                     0,
                     0,
                     static_cast<unsigned char>(packet.size() + (request[4] == 0x7D)),
                     0,
                     0,
                     0};
        if (request[4] == 0x7D) {
            packet[0] = 0x5D;
            packet.insert(packet.begin(), 0x7D);
        }
        if (packet[0] == 0x73) std::fill(packet.begin() + 8, packet.end() - 1, 0);
        buffer.insert(buffer.end(), packet.begin(), packet.end());
        send(buffer);
        return 0;
    }

    int control(unsigned long request) {
        if (request != DIAG_IOCTL_DEINIT) return 1;
        send(Bytes{DIAG_TYPE_DEINIT, 0, 0, 0});
        return 1;
    }

    int close() {
        ::close(ends[1]);
        return ::close(ends[0]);
    }

  private:
    void send(const Bytes& buffer) const {
        if (::write(ends[1], buffer.data(), buffer.size()) < 0) abort();
    }

    int ends[2] = {-1, -1};
};

PlainDevice& plain() { return PlainDevice::instance(); }

}  // namespace

// The calls on the node. The session's own definitions stay in their archive.
inline namespace tavrik_diag_lsm {

int diag_device_open(void) {
    return plain().plugged ? plain().open() : open("/dev/diag", O_RDWR | O_CLOEXEC);
}
int diag_device_read(int handle, unsigned char* buffer, size_t size) {
    return static_cast<int>(read(handle, buffer, size));
}
int diag_device_write(int handle, const unsigned char* buffer, size_t size) {
    return plain().plugged ? plain().answer(buffer, size)
                           : static_cast<int>(write(handle, buffer, size));
}
int diag_device_ioctl(int handle, unsigned long request, void* argument) {
    return plain().plugged ? plain().control(request) : ioctl(handle, request, argument);
}
int diag_device_ioctl(int handle, unsigned long request, unsigned long argument) {
    return plain().plugged ? plain().control(request) : ioctl(handle, request, argument);
}
int diag_device_close(int handle) { return plain().plugged ? plain().close() : close(handle); }

}  // namespace tavrik_diag_lsm

namespace {

// --- Frames -----------------------------------------------------------------------------------

constexpr unsigned short kCode = 0x1645;

struct Ignore : DIAG::LogListener {
    void onLog(const unsigned char* record) override { benchmark::DoNotOptimize(record); }
};

struct Accept : DIAG::ResponseListener {
    bool onResponse(const unsigned char*, int) override { return true; }
};

// A session with a listener of log packets, for a scope.
class Session {
  public:
    explicit Session(bool simulated) {
        plain().plugged = !simulated;
        if (simulated) {
            diagsim::Device::instance().plug(diagsim::Scenario::parse("{}", "bench"));
            diagsim::Device::instance().keepTrace(false);
        }
        connected = DIAG::instance()->registerLogListener(kCode, &listener);
    }
    ~Session() { DIAG::instance()->unregisterLogListener(kCode, &listener); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool connected = false;

  private:
    Ignore listener;
};

// Log packets of `length` bytes, framed, with `escapes` in a hundred bytes escaped.
Bytes frames(int count, int length, int escapes) {
    Bytes all;
    for (int i = 0; i < count; ++i) {
        const size_t begin = all.size();
        all.resize(begin + static_cast<size_t>(length), 0x11);
        const int record = length - 4;
        const unsigned char head[] = {0x10,
                                      0,
                                      static_cast<unsigned char>(record),
                                      static_cast<unsigned char>(record >> 8),
                                      static_cast<unsigned char>(record),
                                      static_cast<unsigned char>(record >> 8),
                                      0x45,
                                      0x16};
        std::copy(std::begin(head), std::end(head), all.begin() + static_cast<long>(begin));
        Bytes escaped;
        int share = 0;
        for (size_t at = begin; at < all.size(); ++at) {
            share += at > begin + 16 ? escapes : 0;
            if (share >= 100) {
                escaped.push_back(0x7D);
                share -= 100;
            }
            escaped.push_back(all[at] == 0x7E || all[at] == 0x7D ? 0x11 : all[at]);
        }
        all.resize(begin);
        all.insert(all.end(), escaped.begin(), escaped.end());
        all.push_back(0x7E);
    }
    return all;
}

// Unescaping works in place, so data with escapes is put there anew each time, on both sides.
void cut(State& state, const Bytes& data, bool restore) {
    const Session session(false);
    if (!session.connected) return state.SkipWithError("not connected");
    Bytes work(data);
    for (auto _ : state) {
        if (restore) memcpy(work.data(), data.data(), data.size());
        DIAG::onDIAGData(work.data(), static_cast<int>(work.size()), DIAG::instance());
    }
}

void copyBytes(State& state, const Bytes& data, bool) {
    Bytes work(data);
    for (auto _ : state) {
        memcpy(work.data(), data.data(), data.size());
        benchmark::ClobberMemory();
    }
}

void moveByteByByte(State& state, const Bytes& data, bool) {
    Bytes work(data);
    for (auto _ : state) {
        memcpy(work.data(), data.data(), data.size());
        unsigned char* out = work.data();
        for (const unsigned char* in = out, *end = in + work.size(); in != end;) {
            const unsigned char byte = *in++;
            *out++ = byte == 0x7D ? *in++ ^ 0x20 : byte;
        }
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
}

// --- Registrations ----------------------------------------------------------------------------

// Each listener for two events, one of them its own; unregistered the other way round.
void registerAndUnregister(State& state) {
    struct Listener : tavrik::ADSPPM::Listener {
        void onADSPPMInput(int, double, long double) override {}
    };
    tavrik::ADSPPM& adsppm = *tavrik::ADSPPM::instance();
    std::vector<Listener> listeners(static_cast<size_t>(state.range(0)));
    std::string error;
    for (auto _ : state) {
        int own = -10;
        for (Listener& each : listeners) {
            adsppm.registerListener(&each, -2, "bench", 100, error);
            adsppm.registerListener(&each, own--, "bench", 100, error);
        }
        for (auto each = listeners.rbegin(); each != listeners.rend(); ++each) {
            adsppm.unregisterListener(&*each, -2);
            adsppm.unregisterListener(&*each, ++own);
        }
    }
}

// --- Round trip -------------------------------------------------------------------------------

void roundTrip(State& state, bool simulated) {
    const bench::OneCore pinned;
    const Session session(simulated);
    if (!session.connected) return state.SkipWithError("not connected");
    Accept answer;
    unsigned char request[] = {0x4B, 0x12, 0x2A, 0x00, 0x00};
    for (auto _ : state) {
        DIAG::instance()->sendRequest(request, sizeof request, &answer);
        if (!DIAG::instance()->awaitResponse(answer)) state.SkipWithError("no answer");
    }
}

void pingPong(State& state) {
    const bench::OneCore pinned;
    int ends[2];
    socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
    const auto transferred = [](ssize_t count) { return count > 0; };
    std::thread other([&] {
        char bytes[64];
        while (transferred(read(ends[1], bytes, sizeof bytes)) &&
               transferred(write(ends[1], bytes, 20))) {
        }
    });
    char bytes[64] = {};
    for (auto _ : state) {
        if (!transferred(write(ends[0], bytes, 9)) ||
            !transferred(read(ends[0], bytes, sizeof bytes)))
            state.SkipWithError("no answer");
    }
    shutdown(ends[0], SHUT_RDWR);
    other.join();
    close(ends[0]);
    close(ends[1]);
}

const bool registered = [] {
    const auto addFrames = [](const std::string& name, const Bytes& data, auto code) {
        bench::add(name, [=](State& state) { code(state, data, false); });
    };
    for (const auto& [count, length] : {std::pair<int, int>{1, 4096}, {1, 60000}, {40, 108}}) {
        for (const int escapes : {0, 1, 10, 50}) {
            if (length != 4096 && escapes != 0 && (length != 108 || escapes != 10)) continue;
            const Bytes data = frames(count, length, escapes);
            const std::string piece = "frames of " + std::to_string(length) + " B, " +
                                      std::to_string(escapes) + " % escapes";
            bench::add(piece + "/tavrik",
                       [data = data, escapes](State& state) { cut(state, data, escapes != 0); });
            addFrames(piece + "/memcpy", data, copyBytes);
            if (escapes != 0) addFrames(piece + "/byte by byte", data, moveByteByByte);
        }
    }
    bench::addGrowth("register listeners and unregister them", registerAndUnregister);
    bench::add("round trip, answer inside write/tavrik",
               [](State& state) { roundTrip(state, false); });
    bench::add("round trip, answer inside write/ping-pong", pingPong);
    bench::add("round trip, simulated device/tavrik", [](State& state) { roundTrip(state, true); });
    bench::add("round trip, simulated device/ping-pong", pingPong);
    return true;
}();

}  // namespace
