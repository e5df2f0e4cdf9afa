// The state behind a token: the user, by which tokens are distinguished.
#pragma once

#include <cstdint>

namespace platform {

struct TokenRecord {
  std::uint32_t userId;
};

}  // namespace platform
