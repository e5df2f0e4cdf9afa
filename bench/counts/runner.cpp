// Runs every benchmark once. Prints the compiler and the library, which instruction counts depend
// on, and for each benchmark the heap calls of its counted turns. Under callgrind the counted turns
// of each are a dump that has its name.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "bench/packing/heap_calls.h"

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(name)
#endif

#ifdef _WIN32
// There the heap is not counted, and the log lies in the current folder.
namespace bench {
std::uint64_t HeapCalls() { return 0; }
struct LabFolder {};
}  // namespace bench
const char* gnu_get_libc_version() { return "none"; }
#else
#include <gnu/libc-version.h>

#include "bench/lab_folder.h"
#endif

namespace benchmark {

namespace {
std::vector<Row*>& Rows() {
  static std::vector<Row*> rows;
  return rows;
}
}  // namespace

Row::Row(Function function) : function_(function) { Rows().push_back(this); }

Row* Row::Name(const char* name) {
  name_ = name;
  return this;
}

void Row::Run() const {
  State state(name_);
  function_(state);
}

bool State::Mark() {
  if (turn_ == kWarmUp) {
    heapCallsBefore_ = bench::HeapCalls();
    CALLGRIND_ZERO_STATS;
    return true;
  }
  CALLGRIND_DUMP_STATS_AT(name_.c_str());
  std::printf("%s: %llu heap calls\n", name_.c_str(),
              static_cast<unsigned long long>(bench::HeapCalls() - heapCallsBefore_));
  return false;
}

void State::SkipWithError(const char* why) {
  std::fprintf(stderr, "%s: %s\n", name_.c_str(), why);
  std::exit(1);
}

}  // namespace benchmark

int main() {
  [[maybe_unused]] const bench::LabFolder folder;
  std::printf("compiler %s, C library %s, %zu turns\n", __VERSION__, gnu_get_libc_version(),
              benchmark::kCounted);
  for (const benchmark::Row* row : benchmark::Rows()) row->Run();
  return 0;
}
