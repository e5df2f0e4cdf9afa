// A fresh state record for a test.
#pragma once

#include <memory>

#include "platform/handle.h"

namespace stewardry {

// Destroys a room's record and constructs it again. Requires that no thread uses it.
template <class State>
void Renew(platform::ProcessLifetime<State>* state) {
  std::destroy_at(&**state);
  std::construct_at(&**state);
}

}  // namespace stewardry
