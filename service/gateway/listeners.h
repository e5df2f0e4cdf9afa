// The two TCP listeners and the loop around their selectors: binding a port, running its selector,
// and destroying and binding anew, within a budget, when a run fails. What happens when a peer
// knocks is the listen callback's affair.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "service/inventory/status_report.h"
#include "sock/selector.h"

namespace stewardry {

constexpr std::uint32_t kHttpsPort = 664;

// Rebinds so far, plus one. Each is written by its server's threads; they never go down. Relaxed:
// only the count matters.
extern std::atomic<std::int32_t> gHttpsRebindCount;
extern std::atomic<std::int32_t> gKvmRebindCount;
constexpr std::int32_t kRebindBudget = 20;

// Which callback serves the listener of a port. The table must outlive the servers.
struct PortCallback {
  std::uint32_t port;
  SelectorCallback callback;
};
void SetPortCallbacks(std::span<const PortCallback> callbacks);

// Binds a listener on any local IPv4 address into the selector, which makes the first call of its
// callback, with SELECTOR_ADD. True on success; after a logged failure nothing stays open.
bool BindListener(Selector* selector, std::uint32_t port);

// The HTTPS server. When the rebind budget is spent it ends the process; it returns only when it
// was asked to stop, without a line and with its sockets closed.
void RunServer();

// Asks the server thread to leave and wakes it. It begins nothing new from then on, and writes
// nothing once the step that it is in has ended. For the rest of the process; the control handler's
// thread.
void AskServerToStop();
bool ServerStops();
// What the server thread's reports look at.
ReportMark ServerMark();

// The KVM server, a thread entry; the parameter is not used. Result 0 when its budget is spent, or
// when another server has taken the port while this one had no listener. Started by StartKVMServer.
std::uint32_t RunKVMServer(void* parameter);

// Sees to a listener on port 22: starts a server on a new thread, whose handle isn't kept, unless
// one has a listener already or is about to bind one. The reader thread.
//
// A server may run without a listener, while it serves a connection whose listener a second viewer
// has knocked away. It stays as it is then, the new one binds, and the old one ends with its last
// connection. So there is at most one listener on the port, a command of the firmware always finds
// or makes it, and no thread outlives its last connection but the one that listens.
void StartKVMServer();

// The listener on port 22 has been closed. Called by its listen callback, after the close.
void LeaveKVMPort();

}  // namespace stewardry
