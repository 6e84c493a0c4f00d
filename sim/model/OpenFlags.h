// The flags of open().
#pragma once

#include <string>

namespace diagsim {

// What the access mode in `flags` allows.
bool mayRead(int flags);
bool mayWrite(int flags);

// "O_RDWR".
std::string accessName(int flags);

// "O_RDWR|O_CLOEXEC". Leaves out O_LARGEFILE, which is the kernel's own, and flags that mean
// nothing on a character device.
std::string openFlagsName(int flags);

}  // namespace diagsim
