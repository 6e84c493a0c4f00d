#include "sim/model/ErrnoName.h"

#include <cerrno>

namespace diagsim {
namespace {

struct Named {
    int number;
    const char* name;
};

constexpr Named kNamed[] = {
    {EACCES, "EACCES"}, {ENOENT, "ENOENT"}, {EBUSY, "EBUSY"},         {ENODEV, "ENODEV"},
    {EIO, "EIO"},       {EPERM, "EPERM"},   {EINVAL, "EINVAL"},       {ENOTTY, "ENOTTY"},
    {EFAULT, "EFAULT"}, {EAGAIN, "EAGAIN"}, {ENOMEM, "ENOMEM"},       {EINTR, "EINTR"},
    {EBADF, "EBADF"},   {ENXIO, "ENXIO"},   {ETIMEDOUT, "ETIMEDOUT"}, {ECONNRESET, "ECONNRESET"},
};

}  // namespace

std::string errnoName(int number) {
    for (const Named& named : kNamed) {
        if (named.number == number) return named.name;
    }
    return "errno " + std::to_string(number);
}

int errnoNumber(const std::string& name) {
    for (const Named& named : kNamed) {
        if (name == named.name) return named.number;
    }
    return 0;
}

std::string errnoNames() {
    std::string list;
    for (const Named& named : kNamed) {
        if (!list.empty()) list += ", ";
        list += named.name;
    }
    return list;
}

}  // namespace diagsim
