// Stands in for google-benchmark where turns are counted and not timed: each benchmark runs a fixed
// number of turns, so that callgrind or a heap counter gives the same figure in each run. It has
// what the benchmarks use that are built against it, and needs nothing, so it is built for Windows
// too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace benchmark {

// Turns whose cost is not counted: they fill what later turns find filled.
constexpr std::size_t kWarmUp = 20;
constexpr std::size_t kCounted = 100;

class State {
 public:
  explicit State(const std::string& name) : name_(name) {}
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  struct [[maybe_unused]] Turn {};
  class Iterator {
   public:
    explicit Iterator(State* state) : state_(state) {}
    Turn operator*() const { return {}; }
    void operator++() { ++state_->turn_; }
    bool operator!=(const Iterator&) const {
      if (state_->turn_ != kWarmUp && state_->turn_ != kWarmUp + kCounted) return true;
      return state_->Mark();
    }

   private:
    State* state_;
  };
  Iterator begin() { return Iterator(this); }
  Iterator end() { return Iterator(this); }

  std::size_t iterations() const { return turn_; }
  int thread_index() const { return 0; }
  void SetItemsProcessed(std::size_t) {}
  // Ends the program: a benchmark that does something else has no cost.
  [[noreturn]] void SkipWithError(const char* why);

  std::map<std::string, double> counters;

 private:
  // Begins or ends the count. Returns false at the end.
  bool Mark();

  const std::string name_;
  std::size_t turn_ = 0;
  std::uint64_t heapCallsBefore_ = 0;
};

// A benchmark, known from its construction to the end of the program.
class Row {
 public:
  using Function = void (*)(State&);
  explicit Row(Function function);
  Row* Name(const char* name);
  void Run() const;

 private:
  const Function function_;
  std::string name_;
};

template <class Value>
void DoNotOptimize(Value& value) {
  asm volatile("" : "+m,r"(value) : : "memory");
}
inline void ClobberMemory() { asm volatile("" : : : "memory"); }

}  // namespace benchmark

#define BENCHMARK(function) \
  [[maybe_unused]] static ::benchmark::Row* const gRow##function = (new ::benchmark::Row(function))
