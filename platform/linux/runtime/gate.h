// The gate that every call of platform/linux passes: a test can trace the calls and make one fail.
// Disarmed, as in production, it costs one relaxed load. A call that can fail begins with
// `if (gate::Fails("Name")) return failure;` (or Enter where the error is the result); one that
// can't begins with gate::Note("Name").
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace platform::gate {

// An "error" for DeviceIoControl and ReadFile: the call gives true, as a driver that finishes a
// request at once makes it.
constexpr std::uint32_t kFinishAtOnce = 0xFFFFFFFF;

// An "error" for any call: the calling thread, which platform::CreateThread made, is ended in it.
constexpr std::uint32_t kEndThread = 0xFFFFFFFE;

// Written by Arm and Disarm, read by every call. Relaxed: a test arms the gate before the threads
// that it wants to see, and what they record is under the gate's own lock.
extern std::atomic<bool> gArmed;

std::uint32_t EnterArmed(const char* call, const std::string& arguments);
[[gnu::format(printf, 1, 2)]] std::string Arguments(const char* format, ...);

// Passes a call. 0 lets it go ahead; any other value is the error it shall fail with, which is also
// the thread's last error then.
inline std::uint32_t Enter(const char* call) {
  return gArmed.load(std::memory_order_relaxed) ? EnterArmed(call, {}) : 0;
}
template <class... Args>
std::uint32_t Enter(const char* call, const char* format, Args... args) {
  return gArmed.load(std::memory_order_relaxed) ? EnterArmed(call, Arguments(format, args...)) : 0;
}
template <class... Args>
bool Fails(const char* call, Args... args) {
  return Enter(call, args...) != 0;
}

// Records a call that can't fail. It doesn't count for FailNth.
void NoteArmed(const char* call);
inline void Note(const char* call) {
  if (gArmed.load(std::memory_order_relaxed)) NoteArmed(call);
}

// Records a wait of so many milliseconds as "Name(milliseconds)". True if a test wants it over at
// once, which it says with FailNext or FailEvery of those words and kFinishAtOnce. It doesn't count
// for FailNth.
bool SkipsArmed(const char* call, std::uint32_t milliseconds);
inline bool Skips(const char* call, std::uint32_t milliseconds) {
  return gArmed.load(std::memory_order_relaxed) && SkipsArmed(call, milliseconds);
}

// For tests. Arm starts a fresh trace with nothing set to fail; Disarm lets every call pass again.
void Arm();
void Disarm();
// The n-th call (1 is the next) from now fails with `error`.
void FailNth(std::uint64_t n, std::uint32_t error);
// The next call of that name fails, after `skip` that pass; or each one from now on.
void FailNext(const char* call, std::uint32_t error, std::uint64_t skip = 0);
void FailEvery(const char* call, std::uint32_t error);
// Calls that could have failed since Arm or FailNth, whichever was later, and their names in order.
std::uint64_t Calls();
std::vector<std::string> CallNames();
// The call that FailNth hit, with its arguments; empty if it wasn't reached.
std::string Hit();
// One "Name(arguments)" for each call since Arm, in their order over all threads.
std::vector<std::string> Trace();

}  // namespace platform::gate
