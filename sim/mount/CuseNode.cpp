#include "sim/mount/CuseNode.h"

#define FUSE_USE_VERSION 35
#include <fcntl.h>
#include <fuse3/cuse_lowlevel.h>
#include <fuse3/fuse_lowlevel.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

#include "sim/Device.h"
#include "sim/model/IoctlRecords.h"
#include "sim/mount/CuseCalls.h"

namespace diagsim {
namespace {

// Room for the largest read of a client; without it the kernel cuts reads at a page.
constexpr unsigned kMaxTransfer = 128 * 1024;

struct Client {
    explicit Client(int descriptor) : fd(descriptor), calls(descriptor) {}
    const int fd;
    CuseCalls calls;
};

// What the calls work on, all of which come on the thread of the session's loop.
struct Server {
    const std::function<void()>& ready;
    fuse_session* session = nullptr;
    bool made = false;
    std::unique_ptr<Client> client{};  // the model lets in one at a time

    void closeClient() {
        if (!client) return;
        const int fd = client->fd;
        client.reset();
        Device::instance().close(fd);
    }
};

Server& serverOf(fuse_req_t request) { return *static_cast<Server*>(fuse_req_userdata(request)); }

void onInit(void*, fuse_conn_info* connection) {
    connection->max_read = kMaxTransfer;
    connection->max_write = kMaxTransfer;
}

void onInitDone(void* userdata) {
    Server& server = *static_cast<Server*>(userdata);
    // libfuse calls this also when the kernel has refused; then the connection is in error.
    pollfd connection{fuse_session_fd(server.session), 0, 0};
    server.made = poll(&connection, 1, 0) == 0;
    if (server.made) server.ready();
}

void onOpen(fuse_req_t request, fuse_file_info* file) {
    Device& device = Device::instance();
    const int fd = device.open(static_cast<int>(file->flags));
    if (fd < 0) {
        fuse_reply_err(request, errno);
        return;
    }
    Server& server = serverOf(request);
    try {
        server.client = std::make_unique<Client>(fd);
    } catch (const std::system_error& error) {
        device.close(fd);
        fuse_reply_err(request, error.code().value());
        return;
    }
    // An open that was given up meanwhile gets no release.
    if (fuse_reply_open(request, file) != 0) server.closeClient();
}

void onRelease(fuse_req_t request, fuse_file_info*) {
    serverOf(request).closeClient();
    fuse_reply_err(request, 0);
}

void onRead(fuse_req_t request, size_t size, off_t, fuse_file_info* file) {
    serverOf(request).client->calls.read(request, size, (file->flags & O_NONBLOCK) == 0);
}

void onWrite(fuse_req_t request, const char* data, size_t size, off_t, fuse_file_info* file) {
    serverOf(request).client->calls.write(request, data, size, (file->flags & O_NONBLOCK) == 0);
}

// One ioctl on its way. The client's memory is reached through the kernel only: a call names what
// it wants to have read and written, and is then called again with that.
class Control {
  public:
    Control(fuse_req_t request, int fd, unsigned long number, void* argument, const void* in,
            size_t inSize, size_t outSize)
        : request_(request),
          fd_(fd),
          number_(number),
          argument_(argument),
          in_(in),
          inSize_(inSize),
          outSize_(outSize) {}

    void run() {
        switch (number_) {
            case kRegisterTables:
                return withInput(sizeof(TableRegistration));
            case kSwitchMode:
                if (reinterpret_cast<uintptr_t>(argument_) < kLowestPointer) break;
                return withInput(sizeof(LoggingMode));
            case kDelayedResponseId:
                return delayedResponseId();
            case kRemoteMask:
                return withOutput(sizeof(ProcessorMask));
            case kVoteRealTime:
                return withInput(sizeof(RealTimeVote));
            case kRealTimeStatus:
                return withOutput(sizeof(int));
            default:
                break;
        }
        finish(argument_, nullptr, 0);
    }

  private:
    void retry(const iovec& in, const iovec* out, size_t outCount) {
        fuse_reply_ioctl_retry(request_, &in, in.iov_len != 0 ? 1 : 0, out, outCount);
    }

    // The model refuses a null pointer by itself.
    void withInput(size_t size) {
        if (argument_ == nullptr) return finish(nullptr, nullptr, 0);
        if (inSize_ != size) return retry({argument_, size}, nullptr, 0);
        std::vector<char> record(static_cast<const char*>(in_),
                                 static_cast<const char*>(in_) + size);
        finish(record.data(), nullptr, 0);
    }

    void withOutput(size_t size) {
        if (argument_ == nullptr) return finish(nullptr, nullptr, 0);
        const iovec out{argument_, size};
        if (outSize_ != size) return retry({nullptr, 0}, &out, 1);
        std::vector<char> place(size);
        finish(place.data(), place.data(), place.size());
    }

    // The record holds pointers, so it takes a second round to reach what they lead to.
    void delayedResponseId() {
        DelayedResponseRecord record{};
        if (argument_ == nullptr) return finish(nullptr, nullptr, 0);
        if (inSize_ != sizeof record) return retry({argument_, sizeof record}, nullptr, 0);
        std::memcpy(&record, in_, sizeof record);
        uint8_t places[sizeof(DelayedResponseNumber) + sizeof(uint32_t)] = {};
        const bool complete = record.id != nullptr && record.count != nullptr &&
                              record.size == sizeof(DelayedResponseNumber);
        if (!complete) return finish(&record, nullptr, 0);
        const iovec out[] = {{record.id, record.size}, {record.count, sizeof(uint32_t)}};
        if (outSize_ != sizeof places) return retry({argument_, sizeof record}, out, 2);
        uint32_t count = 0;
        record.id = places;
        record.count = &count;
        finish(&record, places, sizeof places,
               [&] { std::memcpy(places + sizeof(DelayedResponseNumber), &count, sizeof count); });
    }

    void finish(void* argument, const void* out, size_t size,
                const std::function<void()>& collect = {}) {
        const int result = Device::instance().ioctl(fd_, number_, argument);
        if (result < 0) {
            fuse_reply_err(request_, errno);
            return;
        }
        if (collect) collect();
        fuse_reply_ioctl(request_, result, out, size);
    }

    const fuse_req_t request_;
    const int fd_;
    const unsigned long number_;
    void* const argument_;
    const void* const in_;
    const size_t inSize_;
    const size_t outSize_;
};

void onIoctl(fuse_req_t request, int number, void* argument, fuse_file_info*, unsigned flags,
             const void* in, size_t inSize, size_t outSize) {
    if ((flags & FUSE_IOCTL_COMPAT) != 0) {
        // A client of another word size has records of another layout.
        fuse_reply_err(request, ENOTTY);
        return;
    }
    Control(request, serverOf(request).client->fd, static_cast<unsigned>(number), argument, in,
            inSize, outSize)
        .run();
}

constexpr cuse_lowlevel_ops operations() {
    cuse_lowlevel_ops ops{};
    ops.init = onInit;
    ops.init_done = onInitDone;
    ops.open = onOpen;
    ops.read = onRead;
    ops.write = onWrite;
    ops.release = onRelease;
    ops.ioctl = onIoctl;
    return ops;
}

// What libfuse would tell less plainly, or not at all.
void checkBeforehand(const std::string& path) {
    if (access(path.c_str(), F_OK) == 0) throw CuseError(path + " is there already");
    const UniqueFd control(::open("/dev/cuse", O_RDWR | O_CLOEXEC));
    if (control.get() >= 0) return;
    const std::string reason = std::strerror(errno);
    const char* const hint = errno == EACCES || errno == EPERM
                                 ? "diagsimd must be root"
                                 : "the kernel's driver is missing, try: modprobe cuse";
    throw CuseError("cannot open /dev/cuse: " + reason + " (" + hint + ')');
}

}  // namespace

void serveCuseNode(const std::string& name, const std::function<void()>& ready) {
    checkBeforehand("/dev/" + name);
    const std::string nodeName = "DEVNAME=" + name;
    const char* information[] = {nodeName.c_str()};
    cuse_info info{};
    info.dev_info_argc = 1;
    info.dev_info_argv = information;
    info.flags = CUSE_UNRESTRICTED_IOCTL;

    static const cuse_lowlevel_ops ops = operations();
    Server server{ready};
    char program[] = "diagsimd";
    char foreground[] = "-f";
    char singleThread[] = "-s";
    char* arguments[] = {program, foreground, singleThread, nullptr};
    int multithreaded = 0;
    fuse_session* const session =
        cuse_lowlevel_setup(3, arguments, &info, &ops, &multithreaded, &server);
    if (session == nullptr) throw CuseError("cannot set the node up");
    server.session = session;
    const int result = fuse_session_loop(session);
    // Its reads are answered while there is a session to answer through.
    server.closeClient();
    cuse_lowlevel_teardown(session);
    if (!server.made) throw CuseError("the kernel refuses to make /dev/" + name);
    if (result < 0) throw CuseError(std::string("lost the kernel: ") + std::strerror(-result));
}

}  // namespace diagsim
