// Subscriptions of WS-Eventing as WS-Management uses it (DSP0226, clause 10): push delivery of one
// indication after another. The host posts the events, to one listener at a time: a Subscribe for
// another listener is refused while a subscription lasts. A subscription ends with the firmware.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "lab/firmware/core/bytes.h"
#include "lab/firmware/core/records.h"
#include "lab/firmware/model/host_model.h"
#include "lab/firmware/wsman/enumeration.h"
#include "lab/firmware/wsman/envelope.h"

namespace orrin {

inline constexpr std::chrono::seconds kUsualSubscription{600};  // if the request names no time
inline constexpr std::chrono::hours kLongestSubscription{24};   // a longer one is shortened
// The host drops a longer event.
inline constexpr std::size_t kMostOfAnEvent = 4095;

struct Subscription {
  std::string id;
  const FilterRow* filter = nullptr;
  std::string destination;  // the URL in the request
  std::string headers;      // the reference parameters of the listener, as XML
  SubscriptionRecord record{};
  std::string start;  // a date-time in its fixed form
  std::chrono::seconds life{};
  WsmanClock::time_point expires{};

  void Extend(std::chrono::seconds forSeconds, WsmanClock::time_point now);
  bool Wants(const cim::ClassDef* indication) const;
  SubscriptionView View() const;
};

// Returns the subscription that a Subscribe request asks for. Throws Fault.
Subscription ReadSubscribe(const Envelope& request, WsmanClock::time_point now);
// Returns the time that a Subscribe or Renew asks for, bounded. Throws Fault for a text that is no
// duration.
std::chrono::seconds ReadExpires(const xmlNode* parent);

// Return the bodies of the answers.
std::string SubscribeAnswer(const Subscription& subscription);
std::string RenewAnswer(const Subscription& subscription);
// Returns the envelope that carries an indication to the listener.
std::string EventEnvelope(const Subscription& subscription, const cim::Instance* indication);

// A firmware command that is to be sent to the host.
struct HostCommand {
  std::uint8_t code;
  Bytes payload;
};

// The subscription, if there is one, and the commands that it makes for the host, which may be
// away. One thread.
class EventSource {
 public:
  // Begins a subscription, or replaces that of the same listener. Throws Fault while there is one
  // of another listener.
  const Subscription& Begin(Subscription made);
  // Throw Fault for an unknown identifier.
  const Subscription& Renew(const std::string& id, std::chrono::seconds life,
                            WsmanClock::time_point now);
  void End(const std::string& id);
  void RemoveExpired(WsmanClock::time_point now);

  // Returns what the objects show of the subscription.
  std::optional<SubscriptionView> View() const;
  // Makes an event, if there is a subscriber who wants it.
  void Add(const cim::Instance* indication);

  // The host's service is ready, for the first time or again: it knows no subscription.
  void HandleHostReady();
  // Returns the next command, once the host is ready: a subscription or an event.
  std::optional<HostCommand> TakeCommand();
  // Returns the milliseconds until the subscription ends, or -1.
  int MillisecondsLeft(WsmanClock::time_point now) const;

 private:
  bool IsFor(const std::string& id) const { return subscription_ && subscription_->id == id; }
  HostCommand SubscribeCommand() const;
  void Remove();

  std::optional<Subscription> subscription_;
  std::deque<HostCommand> commands_;
};

}  // namespace orrin
