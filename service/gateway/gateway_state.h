// The state of the gateway: one record of the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "platform/handle.h"
#include "service/gateway/listeners.h"
#include "service/mailbox/slot_mark.h"
#include "sock/selector.h"

namespace stewardry {

// The current HTTPS connection. The server thread writes, the reader thread reads; dash_relay.h has
// the invariants.
struct DashSlot {
  // 0 before the first connection, 1 open, 2 closed. Stored with release after the socket, loaded
  // with acquire before it; sequentially consistent against gHttpsSlotMark.
  std::atomic<std::uint16_t> gHttpsSocketState{0};
  // 0 when there is no connection. Relaxed.
  std::atomic<Sock> gHttpsSocket{0};
  // Only the server thread uses it. Null when there is no connection.
  Handler* gHttpsHandler = nullptr;
  // Held by the reader thread around each write to gHttpsSocket.
  SlotMark gHttpsSlotMark;
};
constexpr std::uint16_t kHttpsOpen = 1;
constexpr std::uint16_t kHttpsClosed = 2;

struct GatewayState {
  DashSlot dash;

  // Rebinds so far, plus one. Each is written by its server's threads and never goes down. Relaxed:
  // only the count matters.
  std::atomic<std::int32_t> gHttpsRebindCount{1};
  std::atomic<std::int32_t> gKvmRebindCount{1};

  // A KVM server has a listener on port 22 or is about to bind one. The thread that sets it binds;
  // cleared after the listener's close or a failed bind. Acquire and release: the thread that takes
  // the port finds it free.
  std::atomic<bool> kvmPortTaken{false};

  // Set by the control handler's thread, read by the server thread.
  StopMark<Selector> serverStop;
  PostedCall stopCall{};  // posted once

  // Written once before any server runs; the start of the servers orders it.
  std::span<const PortCallback> portCallbacks;
};
extern platform::ProcessLifetime<GatewayState> gGateway;

}  // namespace stewardry
