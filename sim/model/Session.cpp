#include "sim/model/Session.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace diagsim {
namespace {

// Room for a burst of small buffers, and for a message that fills the largest read.
constexpr int kSendBuffer = 1 << 20;

constexpr size_t kLongestStray = 1024;

timespec timeLeft(Session::Time until) {
    using std::chrono::nanoseconds;
    const auto left =
        std::max(nanoseconds(until - std::chrono::steady_clock::now()), nanoseconds::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds.count());
    result.tv_nsec = static_cast<long>((left - seconds).count());
    return result;
}

}  // namespace

std::unique_ptr<Session> Session::create(int flags) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return nullptr;
    auto session = std::make_unique<Session>();
    // The lowest free number is the client's, as open() gives it.
    session->client_.reset(ends[0]);
    session->device_ = aboveStandardStreams(UniqueFd(ends[1]));
    session->wake_ = aboveStandardStreams(UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    if (session->wake_.get() < 0) return nullptr;
    setsockopt(session->device_.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    fcntl(ends[0], F_SETFD, flags & O_CLOEXEC ? FD_CLOEXEC : 0);
    fcntl(ends[0], F_SETFL, flags & (O_NONBLOCK | O_APPEND));
    return session;
}

bool Session::start(std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int error = 0;
    try {
        thread_ = std::thread([body = std::move(body)] {
            pthread_setname_np(pthread_self(), "diagsim");
            // The default slack of 50 microseconds would be most of an immediate answer's time.
            prctl(PR_SET_TIMERSLACK, 1000);
            body();
        });
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return error == 0;
}

void Session::join() {
    if (thread_.joinable()) thread_.join();
}

int Session::close() { return client_.reset(); }

bool Session::isRead() const {
    // The kernel closes a file when the last call that uses it has ended.
    pollfd end{device_.get(), 0, 0};
    return device_.get() >= 0 && poll(&end, 1, 0) == 0;
}

void Session::wake() {
    // The cancellation of a client's thread must not act in a destructor.
    int before;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    eventfd_write(wake_.get(), 1);
    pthread_setcancelstate(before, nullptr);
}

void Session::wait(const Wait& wait) {
    const int events = (watchesStrays_ ? POLLIN : 0) | (wait.room ? POLLOUT : 0);
    // Without an event to wait for, a hang-up would be reported again and again.
    pollfd fds[] = {{wake_.get(), POLLIN, 0},
                    {events != 0 ? device_.get() : -1, static_cast<short>(events), 0}};
    const timespec left = wait.until ? timeLeft(*wait.until) : timespec{};
    // A device that is behind would use up its time slices, and its client wait for the processor.
    const bool behind = wait.until && left.tv_sec == 0 && left.tv_nsec == 0;
    if (behind) sched_yield();
    ppoll(fds, 2, wait.until ? &left : nullptr, nullptr);
    eventfd_t count;
    if (fds[0].revents != 0) eventfd_read(wake_.get(), &count);
    // An error, too: it stays until it is received.
    mayHaveStray_ = (fds[1].revents & ~POLLOUT) != 0;
}

std::optional<Bytes> Session::takeStray() {
    if (!mayHaveStray_) return std::nullopt;
    Bytes stray(kLongestStray);
    const ssize_t length = recv(device_.get(), stray.data(), stray.size(), MSG_DONTWAIT);
    if (length == 0) watchesStrays_ = false;
    if (length <= 0) return std::nullopt;
    stray.resize(static_cast<size_t>(length));
    return stray;
}

Session::Sent Session::send(const Bytes& buffer) {
    if (device_.get() < 0) return Sent::kLost;
    const ssize_t sent =
        ::send(device_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) ++sent_;
    if (sent >= 0) return Sent::kYes;
    return errno == EAGAIN || errno == ENOBUFS ? Sent::kBlocked : Sent::kLost;
}

void Session::failRead() {
    // A socket that closes with unread data resets its peer.
    ::send(client_.get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    device_.reset();
}

void Session::hangUp() { device_.reset(); }

}  // namespace diagsim
