#pragma once

namespace tavrik {

// A unit of work.
class Runnable {
  public:
    virtual ~Runnable() = default;
    virtual void run() = 0;
};

}  // namespace tavrik
