#include "sim/Device.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "sim/model/Mutex.h"
#include "sim/model/Node.h"

namespace diagsim {
namespace {

// What a test delivers; its line tells it from what the device does by itself.
Outgoing fromTest(Outgoing outgoing, const char* title, const Bytes& bytes) {
    outgoing.who = "test";
    outgoing.line = describe(title, bytes);
    return outgoing;
}

// Makes a call leave errno as a system call does: its own on failure, the caller's on success.
template <typename Call>
long asSystemCall(Call call) {
    const int before = errno;
    const Driver::Result result = call();
    errno = result.value < 0 ? result.error : before;
    return result.value;
}

}  // namespace

struct Device::State {
    std::atomic<bool> plugged{false};
    Node node{};

    std::atomic<bool> anyRedirection{false};  // written under the mutex
    mutable Mutex mutex{};
    std::unordered_map<std::string, std::string> redirections DIAGSIM_GUARDED_BY(mutex){};
};

Device::Device() : state_(new State) {}

Device& Device::instance() {
    static Device* const device = new Device;
    return *device;
}

// --- for tests ---

void Device::plug(const Scenario& scenario) {
    state_->node.plug(scenario);
    state_->plugged.store(true, std::memory_order_release);
}

void Device::unplug() { state_->plugged.store(false, std::memory_order_release); }

bool Device::isOpen() const { return state_->node.isOpen(); }

std::vector<std::string> Device::trace(size_t first) const { return state_->node.trace(first); }

size_t Device::traceLength() const { return state_->node.traceLength(); }

bool Device::waitForTrace(const std::string& text, int count, int timeoutMs) const {
    return state_->node.waitForTrace(text, count, timeoutMs);
}

void Device::keepTrace(bool on) { state_->node.keepTrace(on); }

void Device::traceTo(const std::string& path) { state_->node.traceTo(path); }

void Device::deliver(const Bytes& buffer) {
    state_->node.inject(fromTest(wholeBuffer(buffer), "buffer", buffer));
}

void Device::deliverFrame(const Bytes& payload) {
    state_->node.inject(fromTest(frameBuffer(payload), "frame", payload));
}

Bytes Device::logPacket() { return state_->node.logPacket(); }

void Device::redirect(const std::string& path, const std::string& to) {
    MutexLock lock(state_->mutex);
    if (to.empty()) {
        state_->redirections.erase(path);
    } else {
        state_->redirections[path] = to;
    }
    state_->anyRedirection.store(!state_->redirections.empty(), std::memory_order_release);
}

// --- for mounts ---

bool Device::isNode(const char* path) { return path != nullptr && std::strcmp(path, kPath) == 0; }

bool Device::plugged() const { return state_->plugged.load(std::memory_order_acquire); }

std::string Device::redirected(const char* path) const {
    if (path == nullptr || !state_->anyRedirection.load(std::memory_order_acquire)) return {};
    MutexLock lock(state_->mutex);
    const auto found = state_->redirections.find(path);
    return found == state_->redirections.end() ? std::string() : found->second;
}

bool Device::owns(int fd) const { return state_->node.owns(fd); }

int Device::open(int flags) {
    return static_cast<int>(asSystemCall([&] { return state_->node.open(flags); }));
}

int Device::close(int fd) {
    return static_cast<int>(asSystemCall([&] { return state_->node.close(fd); }));
}

ssize_t Device::read(int fd, void* data, size_t length) {
    return asSystemCall([&] { return state_->node.read(fd, data, length); });
}

ssize_t Device::write(int fd, const void* data, size_t length) {
    const auto* const bytes = static_cast<const uint8_t*>(data);
    return asSystemCall([&] { return state_->node.write(fd, Bytes(bytes, bytes + length)); });
}

int Device::ioctl(int fd, unsigned long request, void* argument) {
    return static_cast<int>(
        asSystemCall([&] { return state_->node.ioctl(fd, request, argument); }));
}

std::shared_ptr<Gate> Device::advance(int fd, PendingWrite& write) {
    return state_->node.advance(fd, write);
}

void Device::abandon(PendingWrite& write, int error) { state_->node.abandon(write, error); }

unsigned Device::beginRead() { return state_->node.beginRead(); }

void Device::endRead(unsigned client, bool received) { state_->node.endRead(client, received); }

}  // namespace diagsim
