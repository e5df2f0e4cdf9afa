// The run-time part of -fstack-protector-strong. GCC's own library takes its random number from
// advapi32, in a constructor, before the process has restricted its DLL search. The value here
// comes from kernel32 alone: from the sources that Windows' own compiler uses for its cookie.
//
// Invariant: the value changes once, while no function that checks its stack is active.
#include <cstdint>

#include "platform/windows/runtime/windows_api.h"

// The compiler prescribes both names.
extern "C" {
std::uintptr_t __stack_chk_guard = 0x00002B992DDFA232;

// Ends the process by Windows' fast fail: no handler runs, and an error report is written.
[[noreturn]] void __stack_chk_fail() {
  asm volatile("int $0x29" : : "c"(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE));
  __builtin_unreachable();
}
}

namespace {

// 101 is the priority of a program's first constructor. The lowest byte is 0, so that an overlong
// text can't write the value.
[[gnu::constructor(101), gnu::no_stack_protector]] void ChooseStackGuard() {
  FILETIME time;
  ::GetSystemTimeAsFileTime(&time);
  LARGE_INTEGER counter;
  ::QueryPerformanceCounter(&counter);
  const std::uint64_t sources[] = {
      std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime,
      static_cast<std::uint64_t>(counter.QuadPart),
      std::uint64_t{::GetCurrentProcessId()} << 32 | ::GetCurrentThreadId(), ::GetTickCount64(),
      reinterpret_cast<std::uintptr_t>(&time)};
  std::uint64_t guard = 0;
  for (const std::uint64_t source : sources)
    guard = (guard ^ source) * 0x9E3779B97F4A7C15;  // spreads each source over the high bits
  __stack_chk_guard = guard & ~std::uint64_t{0xFF};
}

}  // namespace
