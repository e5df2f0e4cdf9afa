// The KVM session's state and its door. Nothing enables KVM yet, so the door refuses everybody.
#pragma once

#include <atomic>
#include <cstdint>

#include "sock/selector.h"

namespace stewardry {

constexpr std::uint32_t kKvmPort = 22;

// 1: the firmware has enabled KVM. Relaxed: each reader only compares it.
extern std::atomic<std::uint8_t> gKvmEnabled;

// The only peer allowed, address in sin_addr form (0: any), and the port given with it. Written by
// the reader thread and at start-up, read by the KVM server thread; relaxed, each stands for
// itself.
extern std::atomic<std::uint32_t> gKvmTrustedIP;
extern std::atomic<std::uint32_t> gKvmTrustedPort;

// Set once the shared keyboard and mouse region has been obtained. Relaxed: only compared.
extern std::atomic<std::uint8_t> gKeyboardMouseReady;

// The selector callback of the listener on port 22. Non-zero keeps the listener.
std::uint8_t ListenKVMCallback(Selector* selector, Handler* handler, std::uint32_t mask,
                               std::uint64_t currentTimeUsec);

}  // namespace stewardry
