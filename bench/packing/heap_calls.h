// Counts the heap allocations of the whole program.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace bench {

// Returns the calls of malloc and realloc so far.
std::uint64_t HeapCalls();

// Reports the calls of each iteration of a benchmark as its counter "heap_calls".
class CountsHeapCalls {
 public:
  explicit CountsHeapCalls(benchmark::State* state) : state_(state), before_(HeapCalls()) {}
  CountsHeapCalls(const CountsHeapCalls&) = delete;
  CountsHeapCalls& operator=(const CountsHeapCalls&) = delete;
  ~CountsHeapCalls() {
    state_->counters["heap_calls"] =
        static_cast<double>(HeapCalls() - before_) / static_cast<double>(state_->iterations());
  }

 private:
  benchmark::State* state_;
  std::uint64_t before_;
};

}  // namespace bench
