// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

namespace platform {

class Descriptor {
 public:
  // Takes the descriptor over. A negative one, a failed call's, is none.
  explicit Descriptor(int value) : value_(value) {}
  ~Descriptor() {
    if (value_ >= 0) ::close(value_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Value() const { return value_; }

 private:
  const int value_;
};

}  // namespace platform
