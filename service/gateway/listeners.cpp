// Listeners and server loops.
#include "service/gateway/listeners.h"

#include <memory>
#include <new>
#include <utility>

#include "platform/process.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/slot_mark.h"

namespace stewardry {

std::atomic<std::int32_t> gHttpsRebindCount{1};
std::atomic<std::int32_t> gKvmRebindCount{1};

namespace {

// Written once before any server runs, which orders it.
std::span<const PortCallback> gPortCallbacks;

// A KVM server has a listener on port 22 or is about to bind one. Whoever sets it binds; cleared
// when the listener has been closed or the bind has failed. Acquire and release: who takes the port
// finds it free.
std::atomic<bool> gKvmPortTaken{false};

StopMark<Selector> gServerStop;

constexpr std::uint64_t kRunMicroseconds = 10'000'000;

SelectorCallback CallbackOf(std::uint32_t port) {
  for (const PortCallback& row : gPortCallbacks)
    if (row.port == port) return row.callback;
  return nullptr;
}

// A listening socket until its handler owns it.
class Listener {
 public:
  explicit Listener(Sock sock) : sock_(sock) {}
  Listener(const Listener&) = delete;
  Listener& operator=(Listener&& other) noexcept {
    std::swap(sock_, other.sock_);
    return *this;
  }
  ~Listener() {
    if (sock_ != kInvalidSock) (void)Sock_Close(sock_);  // a failed bind leaves nothing open
  }
  Sock Release() {
    const Sock sock = sock_;
    sock_ = kInvalidSock;
    return sock;
  }

 private:
  Sock sock_;
};

// The words and numbers in which the two servers differ.
struct ServerKind {
  std::uint32_t port;
  const char* failureLine;
  const char* proceedLine;
  std::atomic<std::int32_t>* rebindCount;
  std::atomic<bool>* portTaken;  // null: nobody else ever wants the port
  StopMark<Selector>* stop;      // null: the server ends with the process

  bool Stops() const { return stop != nullptr && stop->IsSet(); }
};

const ServerKind kHttpsServer = {kHttpsPort,
                                 "HTTPS binding failed",
                                 "After HTTPS port binding, proceed to selector run",
                                 &gHttpsRebindCount,
                                 nullptr,
                                 &gServerStop};
const ServerKind kKvmServer = {22,
                               "VNC binding failed",
                               "After KVM port binding, proceeding to selector run",
                               &gKvmRebindCount,
                               &gKvmPortTaken,
                               nullptr};

// True if the calling server is the one that binds from now on.
bool TakePort(const ServerKind& server) {
  return server.portTaken == nullptr ||
         !server.portTaken->exchange(true, std::memory_order_acq_rel);
}

void LeavePort(const ServerKind& server) {
  if (server.portTaken != nullptr) server.portTaken->store(false, std::memory_order_release);
}

// Destroys the selector on every way out, also when the thread is ended within a run. Lends it to
// whoever asks its server to stop.
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

// One bind and the runs on it, until a run fails or the server is to stop.
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

// Binds anew until the budget is spent, the port is another server's, or the server is to stop.
void Serve(const ServerKind& server) {
  while (!server.Stops()) {
    ServeOnce(server);
    if (server.Stops()) return;
    if (server.rebindCount->load(std::memory_order_relaxed) >= kRebindBudget) return;
    if (!TakePort(server)) return;
    server.rebindCount->fetch_add(1, std::memory_order_relaxed);
  }
}

}  // namespace

void SetPortCallbacks(std::span<const PortCallback> callbacks) { gPortCallbacks = callbacks; }

bool BindListener(Selector* selector, std::uint32_t port) {
  LogInfo("Checking");
  Addr address;
  Addr_InitAny(&address, static_cast<std::uint16_t>(port));
  Sock sock;
  if (Sock_CreateListener(&sock, address) != RESULT_OK) {
    LogInfo("Sock create failed for %d", port);
    return false;
  }
  Listener listener(sock);
  if (Sock_SetBlocking(sock, false) != RESULT_OK) {
    LogInfo("Set blocking failed for %d", port);
    return false;
  }
  std::unique_ptr<Handler> handler(new (std::nothrow) Handler{});
  LogInfo("Listen socket address %I64x", sock);
  const SelectorCallback callback = CallbackOf(port);
  if (callback == nullptr) {
    LogInfo("Unhandled port used %d", port);
    return false;
  }
  if (!handler) {
    LogInfo("Add handler failed for %d", port);
    return false;
  }
  handler->eventMask = SELECTOR_READ | SELECTOR_EXCEPTION;
  handler->callback = callback;
  // From the add on handler and socket are the selector's, even if the thread is ended within the
  // add's first call.
  handler->sock = listener.Release();
  Handler* added = handler.release();
  if (Selector_AddHandler(selector, added) != RESULT_OK) {
    listener = Listener(added->sock);
    handler.reset(added);
    LogInfo("Add handler failed for %d", port);
    return false;
  }
  LogInfo("Bind to port %d successful", port);
  return true;
}

void RunServer() {
  Serve(kHttpsServer);
  if (!ServerStops()) platform::ExitProcess(0);
}

// A posted call stays listed until a run takes it, so it also ends a run that hasn't begun.
void AskServerToStop() {
  static PostedCall call{};
  gServerStop.Ask([](Selector* selector) {
    call.callback = [](void* running, void*) {
      Selector_StopRunning(static_cast<Selector*>(running));
    };
    call.callbackData = selector;
    Selector_Post(selector, &call, [](void*) {});
  });
}

bool ServerStops() { return gServerStop.IsSet(); }

ReportMark ServerMark() { return {&gServerStop.Word(), 0}; }

std::uint32_t RunKVMServer(void*) {
  Serve(kKvmServer);
  return 0;
}

void StartKVMServer() {
  if (!TakePort(kKvmServer)) return;
  const platform::Thread server = platform::CreateThread(RunKVMServer, nullptr);
  if (!server) LeavePort(kKvmServer);  // the firmware's next command tries again
}

void LeaveKVMPort() { LeavePort(kKvmServer); }

}  // namespace stewardry
