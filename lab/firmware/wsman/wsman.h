// The firmware's WS-Management service (DSP0226): Identify, Get, Put, Enumerate, Pull, Release,
// Subscribe, Renew, Unsubscribe and methods, on the instances of the repository; and the events of
// a subscription.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/model/host_model.h"
#include "lab/firmware/model/indications.h"
#include "lab/firmware/model/repository.h"
#include "lab/firmware/wsman/enumeration.h"
#include "lab/firmware/wsman/eventing.h"

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
  // Answers the body of a POST on /wsman. Whatever the bytes are, the result is an envelope. A user
  // who may not change anything may identify, get and enumerate.
  WsmanAnswer Answer(std::string_view envelope, const Inventory& inventory,
                     const FirmwareView& firmware, bool mayChange, WsmanClock::time_point now);
  // Brings the objects up to date, and makes events of what has changed. Ends a subscription that
  // has expired.
  void Observe(const Inventory& inventory, const FirmwareView& firmware,
               WsmanClock::time_point now);
  // Makes an event of it.
  void Report(Alert alert);
  EventSource& Events() { return events_; }
  Repository& Objects() { return repository_; }
  // Returns true if objects may have changed since the last call.
  bool TakeChange() { return std::exchange(hasChanged_, false); }

 private:
  friend struct WsmanRequest;

  Repository repository_;
  EnumerationContexts contexts_;
  EventSource events_;
  // What the objects show now.
  std::optional<Reports> shownReports_;
  FirmwareView shownView_;
  std::optional<SubscriptionView> shownSubscription_;
  bool hasChanged_ = false;
};

}  // namespace orrin
