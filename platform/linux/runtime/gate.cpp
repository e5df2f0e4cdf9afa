// The gate's armed side: everything is under one lock, because a test needs order, not speed.
#include "platform/linux/runtime/gate.h"

#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>

#include "platform/error.h"
#include "platform/handle.h"
#include "platform/linux/runtime/wait.h"

namespace platform::gate {

namespace {

struct Rule {
  std::uint64_t skip = 0;
  std::uint32_t error = 0;
  bool every = false;
};

struct State {
  std::mutex lock;
  std::vector<std::string> trace;
  std::multimap<std::string, Rule> rules;
  std::uint64_t calls = 0;
  std::vector<std::string> names;  // of the counted calls
  std::uint64_t failAt = 0;
  std::uint32_t failWith = 0;
  std::string hit;
};

State& Gate() {
  static ProcessLifetime<State> state;
  return *state;
}

std::uint32_t RuleFor(State& gate, const std::string& call) {
  auto found = gate.rules.find(call);
  if (found == gate.rules.end()) return 0;
  Rule& rule = found->second;
  if (rule.skip > 0) {
    --rule.skip;
    return 0;
  }
  std::uint32_t error = rule.error;
  if (!rule.every) gate.rules.erase(found);
  return error;
}

std::uint32_t Verdict(State& gate, const std::string& call, const std::string& entry) {
  gate.names.push_back(call);
  if (++gate.calls == gate.failAt) {
    gate.hit = entry;
    return gate.failWith;
  }
  return RuleFor(gate, call);
}

}  // namespace

std::uint32_t EnterArmed(const char* call, const std::string& arguments) {
  std::string entry = std::string(call) + "(" + arguments + ")";
  std::uint32_t error;
  {
    State& gate = Gate();
    std::lock_guard guard(gate.lock);
    error = Verdict(gate, call, entry);
    gate.trace.push_back(std::move(entry));
  }
  if (error == kEndThread) throw ThreadEnd{};
  if (error != 0) SetLastError(error);
  return error;
}

void NoteArmed(const char* call) {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  gate.trace.push_back(std::string(call) + "()");
}

bool SkipsArmed(const char* call, std::uint32_t milliseconds) {
  std::string entry = std::string(call) + "(" + std::to_string(milliseconds) + ")";
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  const bool skips = RuleFor(gate, entry) == kFinishAtOnce;
  gate.trace.push_back(std::move(entry));
  return skips;
}

std::string Arguments(const char* format, ...) {
  char text[256];
  va_list list;
  va_start(list, format);
  [[maybe_unused]] const int length = std::vsnprintf(text, sizeof text, format, list);
  va_end(list);
  assert(length >= 0);
  return text;
}

void Arm() {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  gate.trace.clear();
  gate.rules.clear();
  gate.names.clear();
  gate.calls = gate.failAt = 0;
  gate.hit.clear();
  Switch().store(true, std::memory_order_relaxed);
}

void Disarm() { Switch().store(false, std::memory_order_relaxed); }

void FailNth(std::uint64_t n, std::uint32_t error) {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  gate.calls = 0;
  gate.names.clear();
  gate.failAt = n;
  gate.failWith = error;
  gate.hit.clear();
}

void FailNext(const char* call, std::uint32_t error, std::uint64_t skip) {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  gate.rules.emplace(call, Rule{skip, error, false});
}

void FailEvery(const char* call, std::uint32_t error) {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  gate.rules.emplace(call, Rule{0, error, true});
}

std::uint64_t Calls() {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  return gate.calls;
}

std::vector<std::string> CallNames() {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  return gate.names;
}

std::string Hit() {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  return gate.hit;
}

std::vector<std::string> Trace() {
  State& gate = Gate();
  std::lock_guard guard(gate.lock);
  return gate.trace;
}

}  // namespace platform::gate
