#include "sim/model/Gate.h"

#include <poll.h>
#include <sys/eventfd.h>

namespace diagsim {

Gate::Gate() : event_(aboveStandardStreams(UniqueFd(eventfd(0, EFD_CLOEXEC)))) {}

void Gate::open() { eventfd_write(event_.get(), 1); }

bool Gate::isOpen() const {
    pollfd event{event_.get(), POLLIN, 0};
    return poll(&event, 1, 0) == 1;
}

bool Gate::wait() const {
    eventfd_t count;
    return Libc::read(event_.get(), &count, sizeof count) == sizeof count;
}

}  // namespace diagsim
