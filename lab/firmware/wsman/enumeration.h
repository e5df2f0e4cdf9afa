// Enumeration contexts of WS-Enumeration: copies of the instances that are left to pull.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <string>

#include "lab/firmware/model/objects.h"

namespace orrin {

using WsmanClock = std::chrono::steady_clock;

inline constexpr std::chrono::seconds kContextLife{60};  // from the last pull
inline constexpr std::size_t kMostContexts = 32;

enum class EnumerationMode { kObject, kReference, kObjectAndReference };

struct Enumeration {
  std::deque<Object> left;
  EnumerationMode mode = EnumerationMode::kObject;
  const cim::ClassDef* asClass = nullptr;  // properties to show, null: all
  WsmanClock::time_point expires{};
};

// One thread.
class EnumerationContexts {
 public:
  // Returns the context's name. Throws Fault if there are as many as there may be.
  std::string Keep(Enumeration enumeration, WsmanClock::time_point now);
  // Removes the context and returns it. Throws Fault for one that is unknown or has expired.
  Enumeration Take(const std::string& name, WsmanClock::time_point now);

 private:
  void RemoveExpired(WsmanClock::time_point now);

  std::map<std::string, Enumeration> contexts_;
};

}  // namespace orrin
