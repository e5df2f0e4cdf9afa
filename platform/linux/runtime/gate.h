// The gate that every call of platform/linux passes: a test can trace the calls and make one fail.
// Disarmed, as in production, it costs one relaxed load. A call that can fail begins with
// `if (gate::Fails("Name")) return failure;` (or Enter where the error is the result). A call that
// can't fail begins with gate::Note("Name").
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace platform::gate {

// An "error" for DeviceIoControl and ReadFile: the call returns true, as for a driver that finishes
// a request at once.
constexpr std::uint32_t kFinishAtOnce = 0xFFFFFFFF;

// An "error" for any call: ends the calling thread, which platform::CreateThread has started.
constexpr std::uint32_t kEndThread = 0xFFFFFFFE;

// Returns the switch that Arm and Disarm write and every call reads. Relaxed: a test arms the gate
// before it starts the threads to be traced, and the gate's own lock guards what they record.
inline std::atomic<bool>& Switch() {
  static constinit std::atomic<bool> armed{false};
  return armed;
}
inline bool IsArmed() { return Switch().load(std::memory_order_relaxed); }

std::uint32_t EnterArmed(const char* call, const std::string& arguments);
[[gnu::format(printf, 1, 2)]] std::string Arguments(const char* format, ...);

// Passes a call. Returns 0 if it may go ahead, else the error to fail with, which it has also set
// as the thread's last error.
inline std::uint32_t Enter(const char* call) { return IsArmed() ? EnterArmed(call, {}) : 0; }
template <class... Args>
std::uint32_t Enter(const char* call, const char* format, Args... args) {
  return IsArmed() ? EnterArmed(call, Arguments(format, args...)) : 0;
}
template <class... Args>
bool Fails(const char* call, Args... args) {
  return Enter(call, args...) != 0;
}

// Records a call that can't fail. FailNth doesn't count it.
void NoteArmed(const char* call);
inline void Note(const char* call) {
  if (IsArmed()) NoteArmed(call);
}

// Records a wait as "Name(milliseconds)". Returns true if a test has set that text to kFinishAtOnce
// with FailNext or FailEvery: the wait is then over at once. FailNth doesn't count it.
bool SkipsArmed(const char* call, std::uint32_t milliseconds);
inline bool Skips(const char* call, std::uint32_t milliseconds) {
  return IsArmed() && SkipsArmed(call, milliseconds);
}

// For tests. Arm starts a new trace with nothing set to fail; Disarm lets every call pass again.
void Arm();
void Disarm();
// Makes the n-th call from now (1 is the next) fail with `error`.
void FailNth(std::uint64_t n, std::uint32_t error);
// Makes the next call of that name fail, after `skip` that pass, or each one from now on.
void FailNext(const char* call, std::uint32_t error, std::uint64_t skip = 0);
void FailEvery(const char* call, std::uint32_t error);
// Return how many calls could have failed since Arm or FailNth, whichever was later, and their
// names in order.
std::uint64_t Calls();
std::vector<std::string> CallNames();
// Returns the call that FailNth made fail, with its arguments; empty if it wasn't reached.
std::string Hit();
// Returns one "Name(arguments)" for each call since Arm, in order over all threads.
std::vector<std::string> Trace();

}  // namespace platform::gate
