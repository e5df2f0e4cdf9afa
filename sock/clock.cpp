#include "sock/clock.h"

#include <cassert>

#include "platform/clock.h"

namespace stewardry {

namespace {

// 1970-01-01 as a count of 100-nanosecond units since 1601-01-01 (FILETIME).
constexpr std::uint64_t kUnixEpochAsFileTime = 116444736000000000ULL;
static_assert(kUnixEpochAsFileTime == 0x19DB1DED53E8000);

}  // namespace

bool PAL_Time(std::uint64_t* microseconds) {
  assert(microseconds != nullptr);
  *microseconds = (platform::GetSystemTimeAsFileTime() - kUnixEpochAsFileTime) / 10;
  return true;
}

Result PAL_TimeStatus(std::uint64_t* microseconds) {
  PAL_Time(microseconds);
  return RESULT_OK;
}

}  // namespace stewardry
