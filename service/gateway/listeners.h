// The two TCP listeners and the loop around their selectors: binds a port, runs its selector, and
// after a failed run destroys it and binds again, within a budget. The listen callback decides what
// happens to a connection.
#pragma once

#include <cstdint>
#include <span>

#include "service/inventory/status_report.h"
#include "sock/selector.h"

namespace stewardry {

constexpr std::uint16_t kHttpsPort = 664;
constexpr std::uint16_t kKvmPort = 22;

// The value of a rebind count at which its server ends.
constexpr std::int32_t kRebindBudget = 20;

// The callback that serves the listener of a port. The table must outlive the servers.
struct PortCallback {
  std::uint32_t port;
  SelectorCallback callback;
};
void SetPortCallbacks(std::span<const PortCallback> callbacks);

// Binds a listener on any local IPv4 address and adds it to the selector, which calls its callback
// with SELECTOR_ADD. Returns false after a logged failure, with nothing left open.
bool BindListener(Selector* selector, std::uint32_t port);

// Runs the HTTPS server. Ends the process when the rebind budget is used up. Returns only after a
// stop request, without a log line and with its sockets closed.
void RunServer();

// Asks the server thread to exit and wakes it. The request stays for the rest of the process: the
// thread finishes its current step, then begins and logs nothing more. The control handler's
// thread.
void AskServerToStop();
bool ServerStops();
// Returns the mark that ends the server thread's reports.
ReportMark ServerMark();

// Runs the KVM server, as a thread entry; the parameter is not used. Returns 0 when its budget is
// used up, or when another server has taken the port while this one had no listener. Started by
// StartKVMServer.
std::uint32_t RunKVMServer(void* parameter);

// Makes sure that port 22 has a listener: starts a server on a new thread, whose handle is not
// kept, unless a server has a listener or is about to bind one. The reader thread.
//
// A server may run without a listener: a second viewer costs it the listener while it serves the
// first one. It then stays as it is, the new server binds, and the old one ends with its last
// connection. So there is at most one listener on the port, a command of the firmware always finds
// or creates it, and only the thread that listens outlives its last connection.
void StartKVMServer();

// Marks port 22 as free. The listen callback calls it after it has closed the listener.
void LeaveKVMPort();

}  // namespace stewardry
