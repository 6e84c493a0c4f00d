#include "sim/mount/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace diagsim {

UniqueFd aboveStandardStreams(UniqueFd fd) {
    if (fd.get() < 0 || fd.get() > STDERR_FILENO) return fd;
    UniqueFd moved(fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return moved.get() < 0 ? std::move(fd) : std::move(moved);
}

}  // namespace diagsim
