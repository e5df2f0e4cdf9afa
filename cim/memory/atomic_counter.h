// The reference counts of instances, messages and class objects.
#pragma once

#include <atomic>
#include <cstdint>

namespace stewardry::cim {

// Each gives the new value. Sequentially consistent, so that all that a thread did to an object
// before it gave its reference back is seen by the thread that gives the last one back.
inline std::uint64_t Atomic_Inc(std::atomic<std::uint64_t>* counter) {
  return counter->fetch_add(1, std::memory_order_seq_cst) + 1;
}
inline std::uint64_t Atomic_Dec(std::atomic<std::uint64_t>* counter) {
  return counter->fetch_sub(1, std::memory_order_seq_cst) - 1;
}

}  // namespace stewardry::cim
