// The clock of every deadline: microseconds since 1970-01-01 00:00:00 UTC. It is wall-clock time,
// so a step of the system clock moves every deadline.
#pragma once

#include <cstdint>

#include "sock/result.h"

namespace stewardry {

// Stores the current time in *microseconds. Returns true; callers still check the result. Any
// thread.
bool PAL_Time(std::uint64_t* microseconds);

// Stores the current time in *microseconds. Returns RESULT_OK. Any thread.
Result PAL_TimeStatus(std::uint64_t* microseconds);

}  // namespace stewardry
