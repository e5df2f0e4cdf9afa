#include "service/gateway/listeners.h"

#include <cassert>

#include "platform/process.h"
#include "platform/thread.h"
#include "service/diagnostics/deaf_entry.h"
#include "service/diagnostics/service_log.h"
#include "service/gateway/connection.h"
#include "service/gateway/gateway_state.h"

namespace stewardry {

platform::ProcessLifetime<GatewayState> gGateway;

namespace {

constexpr std::uint64_t kRunMicroseconds = 10'000'000;

SelectorCallback CallbackOf(std::uint32_t port) {
  for (const PortCallback& row : gGateway->portCallbacks)
    if (row.port == port) return row.callback;
  return nullptr;
}

// The log lines and numbers in which the two servers differ. Fixed log texts; their wording must
// not change.
struct ServerKind {
  std::uint16_t port;
  const char* failureLine;
  const char* proceedLine;
  std::atomic<std::int32_t>* rebindCount;
  std::atomic<bool>* portTaken;  // null: no other server ever binds the port
  StopMark<Selector>* stop;      // null: the server ends with the process

  bool Stops() const { return stop != nullptr && stop->IsSet(); }
};

const ServerKind kHttpsServer = {kHttpsPort,
                                 "HTTPS binding failed",
                                 "After HTTPS port binding, proceed to selector run",
                                 &gGateway->gHttpsRebindCount,
                                 nullptr,
                                 &gGateway->serverStop};
const ServerKind kKvmServer = {kKvmPort,
                               "VNC binding failed",
                               "After KVM port binding, proceeding to selector run",
                               &gGateway->gKvmRebindCount,
                               &gGateway->kvmPortTaken,
                               nullptr};

// Returns true if the calling server is the one that binds from now on.
bool TakePort(const ServerKind& server) {
  return server.portTaken == nullptr ||
         !server.portTaken->exchange(true, std::memory_order_acq_rel);
}

void LeavePort(const ServerKind& server) {
  if (server.portTaken != nullptr) server.portTaken->store(false, std::memory_order_release);
}

// Destroys the selector on every way out, also when the thread is ended within a run. Lends it to
// the thread that asks its server to stop.
class OwnedSelector {
 public:
  explicit OwnedSelector(const ServerKind& server) : stop_(server.stop) {
    (void)Selector_Init(&selector_);  // without one the bind and run fail
    if (stop_ != nullptr && selector_.state != nullptr) stop_->Lend(&selector_);
  }
  OwnedSelector(const OwnedSelector&) = delete;
  OwnedSelector& operator=(const OwnedSelector&) = delete;
  ~OwnedSelector() {
    const platform::StayInThread stay;
    if (stop_ != nullptr) stop_->TakeBack();
    Selector_Destroy(&selector_);
  }
  Selector* Get() { return &selector_; }

 private:
  StopMark<Selector>* stop_;
  Selector selector_;
};

// Binds once and runs the selector until a run fails or the server is to stop.
void ServeOnce(const ServerKind& server) {
  OwnedSelector sel(server);
  if (!BindListener(sel.Get(), server.port)) {
    LogInfo("%s", server.failureLine);
    LeavePort(server);
  }
  LogInfo("%s", server.proceedLine);
  Result result;
  do {
    result = Selector_Run(sel.Get(), kRunMicroseconds, false);
  } while (!server.Stops() && (result == RESULT_OK || result == RESULT_TIME_OUT));
  if (server.Stops()) return;
  LogInfo("Selector run failed");
  LogInfo("Should not reach here. Distroy selector and rebind.");
}

// Returns true if no other server has the port.
bool IsPortFree(const ServerKind& server) {
  return server.portTaken == nullptr || !server.portTaken->load(std::memory_order_acquire);
}

// Serves until the budget is used up, another server has the port, or the server is to stop.
// Returns true if the port is left without a listener for good.
bool Serve(const ServerKind& server) {
  while (!server.Stops()) {
    ServeOnce(server);
    if (server.Stops()) return false;
    if (server.rebindCount->load(std::memory_order_relaxed) >= kRebindBudget)
      return IsPortFree(server);
    if (!TakePort(server)) return false;
    server.rebindCount->fetch_add(1, std::memory_order_relaxed);
  }
  return false;
}

}  // namespace

void SetPortCallbacks(std::span<const PortCallback> callbacks) {
  assert(!callbacks.empty());
  gGateway->portCallbacks = callbacks;
}

bool BindListener(Selector* selector, std::uint32_t port) {
  assert(port <= 0xFFFF);
  LogInfo("Checking");
  Addr address;
  Addr_InitAny(&address, static_cast<std::uint16_t>(port));
  Sock created = kInvalidSock;
  if (Sock_CreateListener(&created, address) != RESULT_OK) {
    LogInfo("Sock create failed for %d", port);
    return false;
  }
  UniqueSock listener(created);
  if (Sock_SetBlocking(listener.Get(), false) != RESULT_OK) {
    LogInfo("Set blocking failed for %d", port);
    return false;
  }
  LogInfo("Listen socket address %I64x", listener.Get());
  const SelectorCallback callback = CallbackOf(port);
  if (callback == nullptr) {
    LogInfo("Unhandled port used %d", port);
    return false;
  }
  if (AddHandler(selector, &listener, SELECTOR_READ | SELECTOR_EXCEPTION, callback) == nullptr) {
    LogInfo("Add handler failed for %d", port);
    return false;
  }
  LogInfo("Bind to port %d successful", port);
  return true;
}

void RunServer() {
  const bool deaf = Serve(kHttpsServer);
  if (ServerStops()) return;
  if (deaf) ReportDeafness(Deafness::kDashGone);
  platform::ExitProcess(0);
}

// A posted call stays listed until a run takes it, so it also ends a run that begins later.
void AskServerToStop() {
  gGateway->serverStop.Ask([](Selector* selector) {
    PostedCall& call = gGateway->stopCall;
    call.callback = [](void* running, void*) {
      Selector_StopRunning(static_cast<Selector*>(running));
    };
    call.callbackData = selector;
    Selector_Post(selector, &call, [](void*) {});
  });
}

bool ServerStops() { return gGateway->serverStop.IsSet(); }

ReportMark ServerMark() { return {&gGateway->serverStop.Word(), 0}; }

std::uint32_t RunKVMServer(void*) {
  // The process goes on whatever RestartWhenDeaf says: DASH is served, and a restart would end its
  // console for a viewer that the firmware's next enable admits.
  if (Serve(kKvmServer) && !ServerStops()) ReportDeafness(Deafness::kKvmBudget);
  return 0;
}

void StartKVMServer() {
  if (!TakePort(kKvmServer)) return;
  const platform::Thread server = platform::CreateThread(RunKVMServer, nullptr);
  if (!server) LeavePort(kKvmServer);  // the firmware's next command tries again
}

void LeaveKVMPort() { LeavePort(kKvmServer); }

}  // namespace stewardry
