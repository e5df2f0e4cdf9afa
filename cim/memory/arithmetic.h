// Arithmetic with a contract of its own: sizes that may come from outside, and reference counts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "cim/memory/result.h"

namespace stewardry::cim {

// The result on overflow: arithmetic overflow, error 534, as a failed result of facility 7
// ([MS-ERREF] 2.1 and 2.2).
constexpr Result kSizeOverflow = 0x80070216;
// The size stored on overflow. No block of that size is ever requested.
constexpr std::size_t kNoSize = 0xFFFFFFFF;

// Stores a + b and returns RESULT_OK; on overflow stores kNoSize and returns kSizeOverflow.
inline Result Size_Add(std::size_t a, std::size_t b, std::size_t* sum) {
  if (!__builtin_add_overflow(a, b, sum)) return RESULT_OK;
  *sum = kNoSize;
  return kSizeOverflow;
}

// Stores a * b and returns RESULT_OK; on overflow stores kNoSize and returns kSizeOverflow.
inline Result Size_Mul(std::size_t a, std::size_t b, std::size_t* product) {
  if (!__builtin_mul_overflow(a, b, product)) return RESULT_OK;
  *product = kNoSize;
  return kSizeOverflow;
}

// Return the new value. Sequentially consistent: the thread that drops the last reference sees
// everything that other threads did to the object before they dropped theirs.
inline std::uint64_t Atomic_Inc(std::atomic<std::uint64_t>* counter) {
  return counter->fetch_add(1, std::memory_order_seq_cst) + 1;
}
inline std::uint64_t Atomic_Dec(std::atomic<std::uint64_t>* counter) {
  return counter->fetch_sub(1, std::memory_order_seq_cst) - 1;
}

}  // namespace stewardry::cim
