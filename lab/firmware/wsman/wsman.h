// The firmware's WS-Management service (DSP0226): Identify, Get, Put, Enumerate, Pull, Release and
// methods, on the instances of the repository.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/model/repository.h"
#include "lab/firmware/wsman/enumeration.h"

namespace orrin {

struct WsmanAnswer {
  int status = 200;  // of HTTP
  std::string envelope;
  // A firmware command that must reach the host before the first byte of the answer does.
  std::optional<std::uint8_t> command;
  std::string note;  // for the trace: the action, and the fault if it is one
};

// One thread.
class WsmanService {
 public:
  // Answers the body of a POST on /wsman. Whatever the bytes are, the result is an envelope.
  WsmanAnswer Answer(std::string_view envelope, const Inventory& inventory,
                     const std::string& version, WsmanClock::time_point now);
  Repository& Objects() { return repository_; }
  // The host was asked to enable KVM, or has gone.
  void SetKvmEnabled(bool isEnabled) { isKvmEnabled_ = isEnabled; }
  // Returns true if a request has been answered since the last call: objects may have changed.
  bool TakeChange() { return std::exchange(hasChanged_, false); }

 private:
  friend struct WsmanRequest;

  Repository repository_;
  EnumerationContexts contexts_;
  bool hasChanged_ = false;
  bool isKvmEnabled_ = false;
};

}  // namespace orrin
