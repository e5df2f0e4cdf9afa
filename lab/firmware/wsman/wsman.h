// The firmware's WS-Management service (DSP0226): Identify, Get, Put, Enumerate, Pull, Release,
// Subscribe, Renew, Unsubscribe and methods, on the instances of the repository; and the events of
// a subscription.
#pragma once

#include <cstdint>
#include <deque>
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

// A firmware command that is to be sent to the host.
struct HostCommand {
  std::uint8_t code;
  Bytes payload;
};

// One thread.
class WsmanService {
 public:
  // Answers the body of a POST on /wsman. Whatever the bytes are, the result is an envelope. A user
  // who may not change anything may identify, get and enumerate.
  WsmanAnswer Answer(std::string_view envelope, const Inventory& inventory,
                     const FirmwareView& firmware, bool mayChange, WsmanClock::time_point now);
  // Brings the objects up to date, and makes events of what has changed; ends a subscription that
  // has expired.
  void Observe(const Inventory& inventory, const FirmwareView& firmware,
               WsmanClock::time_point now);
  // Makes an event.
  void Report(Alert alert);
  // The host's service is ready, for the first time or again: it knows no subscription.
  void HandleHostReady();
  // Returns the next command for the host, once it is ready: a subscription or an event.
  std::optional<HostCommand> TakeCommand();
  // Returns the milliseconds until the subscription ends, or -1.
  int MillisecondsLeft(WsmanClock::time_point now) const;

  Repository& Objects() { return repository_; }
  // Returns true if objects may have changed since the last call.
  bool TakeChange() { return std::exchange(hasChanged_, false); }

 private:
  friend struct WsmanRequest;

  void Subscribe(Subscription subscription);
  void EndSubscription();
  void AddEvent(const cim::Instance* indication);
  void SendSubscription();
  void ShowSubscribed();

  Repository repository_;
  EnumerationContexts contexts_;
  std::optional<Subscription> subscription_;
  std::deque<HostCommand> commands_;  // for the host, which may be away
  // What the objects show now.
  std::optional<Reports> shownReports_;
  FirmwareView shownView_;
  bool hasChanged_ = false;
};

}  // namespace orrin
