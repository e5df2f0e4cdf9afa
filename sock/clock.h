// The clock on which every deadline runs: microseconds since 1970-01-01 00:00:00 UTC. It is
// wall-clock time, so a step of the system clock moves every deadline.
#pragma once

#include <cstdint>

#include "sock/result.h"

namespace stewardry {

// Stores the current time. Always true; callers test it all the same. Any thread.
bool PAL_Time(std::uint64_t* microseconds);

// The same with a status: RESULT_OK.
Result PAL_TimeStatus(std::uint64_t* microseconds);

}  // namespace stewardry
