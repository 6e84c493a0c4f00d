#include "sim/model/OpenFlags.h"

#include <fcntl.h>

namespace diagsim {
namespace {

struct Named {
    int flag;
    const char* name;
};

constexpr Named kNamed[] = {
    {O_CREAT, "O_CREAT"}, {O_EXCL, "O_EXCL"},       {O_NOCTTY, "O_NOCTTY"},
    {O_TRUNC, "O_TRUNC"}, {O_APPEND, "O_APPEND"},   {O_NONBLOCK, "O_NONBLOCK"},
    {O_SYNC, "O_SYNC"},   {O_CLOEXEC, "O_CLOEXEC"},
};

}  // namespace

bool mayRead(int flags) {
    const int access = flags & O_ACCMODE;
    return access == O_RDONLY || access == O_RDWR;
}

bool mayWrite(int flags) {
    const int access = flags & O_ACCMODE;
    return access == O_WRONLY || access == O_RDWR;
}

std::string accessName(int flags) {
    switch (flags & O_ACCMODE) {
        case O_RDONLY:
            return "O_RDONLY";
        case O_WRONLY:
            return "O_WRONLY";
        case O_RDWR:
            return "O_RDWR";
        default:
            return "O_ACCMODE";  // ioctls only
    }
}

std::string openFlagsName(int flags) {
    std::string name = accessName(flags);
    for (const Named& named : kNamed) {
        if ((flags & named.flag) == named.flag) name += std::string("|") + named.name;
    }
    return name;
}

}  // namespace diagsim
