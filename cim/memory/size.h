// Sums and products of sizes that may come from outside.
#pragma once

#include <cstddef>

#include "cim/memory/result.h"

namespace stewardry::cim {

// What the two below give on overflow: arithmetic overflow, error 534, as a failed result of
// facility 7 ([MS-ERREF] 2.1 and 2.2).
constexpr Result kSizeOverflow = 0x80070216;
// What they store then: no block of that size is ever asked for.
constexpr std::size_t kNoSize = 0xFFFFFFFF;

// *sum = a + b and 0, or kNoSize and kSizeOverflow.
inline Result Size_Add(std::size_t a, std::size_t b, std::size_t* sum) {
  if (!__builtin_add_overflow(a, b, sum)) return RESULT_OK;
  *sum = kNoSize;
  return kSizeOverflow;
}

// *product = a * b and 0, or kNoSize and kSizeOverflow.
inline Result Size_Mul(std::size_t a, std::size_t b, std::size_t* product) {
  if (!__builtin_mul_overflow(a, b, product)) return RESULT_OK;
  *product = kNoSize;
  return kSizeOverflow;
}

}  // namespace stewardry::cim
