// The one wait loop of the tests.
#pragma once

#include <chrono>
#include <thread>

// Calls `ready` until it returns true. Returns false after a minute, which only a fault takes: the
// bound ends a hung test and is no expectation. Makes no call that the gate of the platform traces.
template <class Ready>
bool Eventually(Ready ready) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > end) return ready();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}
