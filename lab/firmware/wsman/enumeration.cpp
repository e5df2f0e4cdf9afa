#include "lab/firmware/wsman/enumeration.h"

#include <utility>

#include "lab/firmware/wsman/envelope.h"
#include "lab/firmware/wsman/faults.h"

namespace orrin {

void EnumerationContexts::RemoveExpired(WsmanClock::time_point now) {
  std::erase_if(contexts_, [now](const auto& context) { return context.second.expires <= now; });
}

std::string EnumerationContexts::Keep(Enumeration enumeration, WsmanClock::time_point now) {
  RemoveExpired(now);
  if (contexts_.size() == kMostContexts) throw Fault{FaultCode::kQuotaLimit};
  enumeration.expires = now + kContextLife;
  std::string name = NewMessageId();
  contexts_[name] = std::move(enumeration);
  return name;
}

Enumeration EnumerationContexts::Take(const std::string& name, WsmanClock::time_point now) {
  RemoveExpired(now);
  auto taken = contexts_.extract(name);
  if (taken.empty()) throw Fault{FaultCode::kInvalidContext};
  return std::move(taken.mapped());
}

}  // namespace orrin
