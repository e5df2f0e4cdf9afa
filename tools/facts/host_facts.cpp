#include "tools/facts/host_facts.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/clock.h"
#include "platform/device.h"
#include "platform/error.h"
#include "platform/service_manager.h"
#include "service/diagnostics/deaf_entry.h"
#include "service/mailbox/device.h"
#include "tools/logs/log_time.h"

namespace stewardry::tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPatience = std::chrono::seconds(2);
constexpr std::size_t kMostEvents = 50;

// One question on a thread of its own. The thread shares the state, so that it may be abandoned
// while it waits for its answer.
template <typename T>
class Probe {
 public:
  // `ask` returns false with the last error set.
  Probe(const char* source, std::function<bool(T*)> ask) : source_(source) {
    auto state = state_;
    try {
      std::thread([state, ask = std::move(ask)] {
        T value{};
        const bool ok = ask(&value);
        const std::uint32_t error = ok ? 0 : platform::LastError();
        const std::lock_guard lock(state->mutex);
        if (ok) state->value = std::move(value);
        state->error = error;
        state->isDone = true;
        state->changed.notify_all();
      }).detach();
    } catch (const std::system_error&) {
      const std::lock_guard lock(state_->mutex);
      state_->isDone = true;
      state_->error = platform::kErrorNotEnoughMemory;
    }
  }

  Fact<T> Take(Clock::time_point deadline) {
    std::unique_lock lock(state_->mutex);
    const bool isDone =
        state_->changed.wait_until(lock, deadline, [this] { return state_->isDone; });
    if (!isDone)
      return {{}, source_, std::string("the ") + source_ + " did not answer within 2 s", 0};
    if (!state_->value) return {{}, source_, ReasonOf(state_->error), state_->error};
    return {std::move(state_->value), source_, "", 0};
  }

 private:
  struct State {
    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    bool isDone = false;
    std::uint32_t error = 0;
    std::optional<T> value;
  };
  std::string source_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

bool CountInterfaces(std::uint32_t* count) {
  const platform::DeviceInfoList list = platform::SetupDiGetClassDevsA(kMailboxInterfaceClass);
  if (!list) return false;
  platform::DeviceInterfaceData data{};
  data.cbSize = sizeof data;
  for (*count = 0;
       platform::SetupDiEnumDeviceInterfaces(list, kMailboxInterfaceClass, *count, &data);)
    ++*count;
  return platform::LastError() == platform::kErrorNoMoreItems;
}

bool ListOwnedSockets(std::vector<OwnedSocket>* sockets) {
  std::vector<platform::SocketView> views;
  if (!platform::ViewSockets({kDashPort, kKvmPort}, &views)) return false;
  for (const platform::SocketView& view : views) {
    platform::ProcessView process;
    if (view.processId != 0) (void)platform::ViewProcess(view.processId, &process);  // then no name
    sockets->push_back({view, process.name});
  }
  return true;
}

// A folder that cannot be listed has no files that can be seen.
bool ListLogFiles(std::vector<LogFileView>* files) {
  LogReader reader(LogFolder());
  *files = reader.Files();
  if (!files->empty() || reader.Unread().empty()) return true;
  platform::SetLastError(reader.Unread()[0].error);
  return false;
}

}  // namespace

std::uint32_t HostFacts::ServiceProcess() const {
  if (service.value && service.value->processId != 0) return service.value->processId;
  return processes.value && !processes.value->empty() ? processes.value->front().processId : 0;
}

HostFacts GatherHostFacts() {
  const Clock::time_point deadline = Clock::now() + kPatience;
  Probe<platform::ServiceView> service(
      "service manager", [](auto* view) { return platform::ViewService(kServiceName, view); });
  Probe<platform::ServiceView> driver(
      "service manager", [](auto* view) { return platform::ViewService(kDriverName, view); });
  Probe<std::vector<platform::ProcessView>> processes(
      "process list", [](auto* found) { return platform::FindProcesses("quillonsvc", found); });
  Probe<std::uint32_t> interfaces("device list", CountInterfaces);
  Probe<std::vector<OwnedSocket>> sockets("socket table", ListOwnedSockets);
  Probe<std::vector<platform::EventView>> events("event log", [](auto* found) {
    return platform::ViewEvents(kServiceName, kMostEvents, found);
  });
  Probe<std::vector<LogFileView>> logFiles("log folder", ListLogFiles);
  HostFacts facts;
  facts.localOffset = LocalOffset();
  facts.now = LocalSecondsNow() - facts.localOffset;
  facts.service = service.Take(deadline);
  facts.driver = driver.Take(deadline);
  facts.processes = processes.Take(deadline);
  facts.deviceInterfaces = interfaces.Take(deadline);
  facts.sockets = sockets.Take(deadline);
  facts.events = events.Take(deadline);
  facts.logFiles = logFiles.Take(deadline);
  return facts;
}

}  // namespace stewardry::tools
