// The mount as a character device: what the kernel's CUSE driver passes on goes to the model.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace diagsim {

// The node cannot be made; what() is one line that says why.
class CuseError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Makes /dev/<name> and serves it with Device::instance(), which is plugged in, until SIGTERM,
// SIGINT or SIGHUP; then the node is gone. Calls `ready` when the node is there. Throws CuseError.
// Changes the working directory to /. Once per process.
void serveCuseNode(const std::string& name, const std::function<void()>& ready);

}  // namespace diagsim
