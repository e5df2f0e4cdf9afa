// Compares a batch with its alternatives: allocates 1000 objects of 8 to 128 bytes, writes the
// first word of each, and frees all at once. An item is an object.
#include <benchmark/benchmark.h>
#include <google/protobuf/arena.h>
#include <obstack.h>

#include <cstdint>
#include <cstdlib>
#include <memory_resource>
#include <random>
#include <vector>

#include "cim/memory/batch.h"

#define obstack_chunk_alloc std::malloc
#define obstack_chunk_free std::free

namespace {

std::vector<std::uint32_t> Sizes() {
  std::mt19937 generator(42);
  std::uniform_int_distribution<std::uint32_t> size(8, 128);
  std::vector<std::uint32_t> sizes(1000);
  for (std::uint32_t& each : sizes) each = size(generator);
  return sizes;
}

// Calls `allocate` with each size in turn.
template <class Allocate>
void Fill(const std::vector<std::uint32_t>& sizes, Allocate allocate) {
  for (const std::uint32_t size : sizes) {
    void* object = allocate(size);
    *static_cast<std::uint64_t*>(object) = size;
    benchmark::DoNotOptimize(object);
  }
}

template <class Round>
void Time(benchmark::State& state, Round round) {
  const std::vector<std::uint32_t> sizes = Sizes();
  for (auto _ : state) round(sizes);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(sizes.size()));
}

void InBatch(benchmark::State& state) {
  Time(state, [](const auto& sizes) {
    stewardry::cim::Batch batch;
    stewardry::cim::Batch_Init(&batch, stewardry::cim::kNoPageLimit);
    Fill(sizes, [&](std::size_t size) { return stewardry::cim::Batch_Alloc(&batch, size); });
    stewardry::cim::Batch_Destroy(&batch);
  });
}

void WithMalloc(benchmark::State& state) {
  std::vector<void*> objects(1000);
  Time(state, [&](const auto& sizes) {
    std::size_t count = 0;
    Fill(sizes, [&](std::size_t size) { return objects[count++] = std::malloc(size); });
    for (void* object : objects) std::free(object);
  });
}

void InObstack(benchmark::State& state) {
  Time(state, [](const auto& sizes) {
    obstack stack;
    obstack_begin(&stack, 1024 - 16);
    obstack_alignment_mask(&stack) = 7;
    Fill(sizes, [&](std::uint32_t size) { return obstack_alloc(&stack, size); });
    obstack_free(&stack, nullptr);
  });
}

void InProtobufArena(benchmark::State& state) {
  Time(state, [](const auto& sizes) {
    google::protobuf::Arena arena;
    Fill(sizes, [&](std::size_t size) {
      return google::protobuf::Arena::CreateArray<char>(&arena, size);
    });
  });
}

void InMonotonicBuffer(benchmark::State& state) {
  Time(state, [](const auto& sizes) {
    std::pmr::monotonic_buffer_resource buffer(1024, std::pmr::new_delete_resource());
    Fill(sizes, [&](std::size_t size) { return buffer.allocate(size, 8); });
  });
}

// The lower bound: a pointer advanced through preallocated memory.
void InOneBlock(benchmark::State& state) {
  std::vector<std::uint64_t> room(1000 * 128 / 8);
  Time(state, [&](const auto& sizes) {
    auto* next = reinterpret_cast<std::uint8_t*>(room.data());
    Fill(sizes, [&](std::size_t size) {
      void* object = next;
      next += (size + 7) & ~std::size_t{7};
      return object;
    });
  });
}

BENCHMARK(InBatch)->Name("arena/batch");
BENCHMARK(WithMalloc)->Name("arena/malloc");
BENCHMARK(InObstack)->Name("arena/obstack");
BENCHMARK(InProtobufArena)->Name("arena/protobuf");
BENCHMARK(InMonotonicBuffer)->Name("arena/pmr");
BENCHMARK(InOneBlock)->Name("arena/floor");

}  // namespace
