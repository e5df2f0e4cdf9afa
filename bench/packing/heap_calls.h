// How often the heap was asked, by anybody in the program.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace bench {

std::uint64_t HeapCalls();

// Tells a benchmark's calls for each iteration as its counter "heap_calls".
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
