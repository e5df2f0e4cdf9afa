// The mailbox device: enumeration of the lab's sockets and batteries, handles, requests, completion
// ports.
#include "platform/device.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/battery.h"
#include "platform/linux/hostfacts/batteries.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/lab/mailbox_link.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

// The paths of the interfaces present when the list was created, in the order of their names.
struct ListState {
  std::vector<std::string> paths;
};

struct DeviceState {
  std::shared_ptr<MailboxLink> link;
  std::uint64_t number = 0;
  PortState* port = nullptr;
};

PortState& StateOf(const CompletionPort& port) {
  assert(port);
  return *static_cast<PortState*>(port.Raw());
}

const std::vector<std::string>& PathsOf(const DeviceInfoList& list) {
  assert(list);
  return static_cast<ListState*>(list.Raw())->paths;
}

DeviceState& StateOf(const DeviceHandle& device) {
  assert(device);
  return *static_cast<DeviceState*>(device.Raw());
}

bool IsSocket(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

std::vector<std::string> MailboxPaths() {
  std::vector<std::string> paths;
  const std::string folder = LabPath("mailbox");
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
  if (!dir) return paths;
  while (const dirent* entry = ::readdir(dir.get()))
    if (IsSocket(folder + "/" + entry->d_name))
      paths.push_back(std::string(kMailboxPathPrefix) + entry->d_name);
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::vector<std::string> BatteryPaths() {
  std::vector<std::string> paths;
  for (const BatteryFacts& battery : ListBatteries())
    paths.push_back(kBatteryPathPrefix + battery.name);
  return paths;
}

bool IsBatteryClass(const Guid& interfaceClass) {
  return std::memcmp(&interfaceClass, &kBatteryInterfaceClass, sizeof interfaceClass) == 0;
}

}  // namespace

void CloseDeviceInfoList(RawHandle raw) {
  gate::Note("SetupDiDestroyDeviceInfoList");
  delete static_cast<ListState*>(raw);
}

DeviceInfoList SetupDiGetClassDevsA(const Guid& interfaceClass) {
  if (gate::Fails("SetupDiGetClassDevsA")) return DeviceInfoList(InvalidHandleValue());
  return DeviceInfoList(
      new ListState{IsBatteryClass(interfaceClass) ? BatteryPaths() : MailboxPaths()});
}

bool SetupDiEnumDeviceInterfaces(const DeviceInfoList& list, const Guid& interfaceClass,
                                 std::uint32_t index, DeviceInterfaceData* data) {
  if (gate::Fails("SetupDiEnumDeviceInterfaces", "%u", index)) return false;
  const std::vector<std::string>& paths = PathsOf(list);
  if (data->cbSize != sizeof *data) return Fail(kErrorInvalidParameter);
  if (index >= paths.size()) return Fail(kErrorNoMoreItems);
  data->interfaceClass = interfaceClass;
  data->reserved = index;
  return true;
}

bool SetupDiGetDeviceInterfaceDetailA(const DeviceInfoList& list, const DeviceInterfaceData& data,
                                      DeviceInterfaceDetail* detail, std::uint32_t size,
                                      std::uint32_t* required) {
  if (gate::Fails("SetupDiGetDeviceInterfaceDetailA", "%s", detail == nullptr ? "size" : "path"))
    return false;
  const std::string& path = PathsOf(list).at(data.reserved);
  const auto needed =
      static_cast<std::uint32_t>(offsetof(DeviceInterfaceDetail, devicePath) + path.size() + 1);
  if (required != nullptr) *required = needed;
  if (detail == nullptr || size < needed) return Fail(kErrorInsufficientBuffer);
  if (detail->cbSize != sizeof *detail) return Fail(kErrorInvalidParameter);
  std::memcpy(reinterpret_cast<char*>(detail) + offsetof(DeviceInterfaceDetail, devicePath),
              path.c_str(), path.size() + 1);
  return true;
}

void CloseDevice(RawHandle raw) {
  gate::Note("CloseHandle");
  std::unique_ptr<DeviceState> device(static_cast<DeviceState*>(raw));
  device->link->CloseHandle(device->number);
}

DeviceHandle OpenDevice(const char* path, std::uint32_t mode) {
  if (gate::Fails("CreateFileA", "%s", path)) return DeviceHandle(InvalidHandleValue());
  static std::atomic<std::uint64_t> opened{0};  // relaxed: only makes the numbers distinct
  const std::size_t prefix = sizeof kMailboxPathPrefix - 1;
  if (std::strncmp(path, kMailboxPathPrefix, prefix) != 0)
    return Fail(kErrorPathNotFound, DeviceHandle(InvalidHandleValue()));
  auto device = std::make_unique<DeviceState>();
  device->link = MailboxLink::Open(LabPath("mailbox/") + (path + prefix));
  if (!device->link) return DeviceHandle(InvalidHandleValue());
  device->number = opened.fetch_add(1, std::memory_order_relaxed) + 1;
  device->link->OpenHandle(device->number, mode);
  return DeviceHandle(device.release());
}

void SetRequestEvent(RequestRecord* record, const Event& event) {
  StateOf(record).event = event ? &StateOf(event) : nullptr;
}

namespace {

// A plain call: starts a request of its own and waits for it.
bool CallPlain(const DeviceHandle& device, std::uint32_t code, const void* input,
               std::uint32_t inputSize, void* output, std::uint32_t outputSize,
               std::uint32_t* returned) {
  RequestRecord record{};
  EventState finished;
  StateOf(&record).event = &finished;
  DeviceState& state = StateOf(device);
  if (!state.link->Request(state.number, code, input, inputSize, output, outputSize, &record))
    return false;
  {
    // A terminated thread leaves the wait below, and the record with it: it cancels its request
    // first.
    struct Canceller {
      DeviceState& device;
      RequestRecord* record;
      ~Canceller() { (void)device.link->Cancel(device.number, record); }  // false: it has finished
    } canceller{state, &record};
    EventWait wait(&finished);
    wait.Until(DeadlineAfter(kInfinite), [&] { return finished.signalled; });
  }
  if (returned != nullptr) *returned = StateOf(&record).bytes;
  return StateOf(&record).error == 0 || Fail(StateOf(&record).error);
}

}  // namespace

bool DeviceIoControl(const DeviceHandle& device, std::uint32_t code, const void* input,
                     std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                     std::uint32_t* returned, RequestRecord* record) {
  const std::uint32_t verdict =
      gate::Enter("DeviceIoControl", "0x%X, in %u, out %u", code, inputSize, outputSize);
  if (verdict == gate::kFinishAtOnce) return true;
  if (verdict != 0) return false;
  if (!device) return Fail(kErrorInvalidHandle);
  if (record == nullptr)
    return CallPlain(device, code, input, inputSize, output, outputSize, returned);
  DeviceState& state = StateOf(device);
  if (state.link->Request(state.number, code, input, inputSize, output, outputSize, record))
    SetLastError(kErrorIoPending);
  return false;
}

bool GetOverlappedResult(const DeviceHandle& device, RequestRecord* record, std::uint32_t* returned,
                         bool wait) {
  if (gate::Fails("GetOverlappedResult")) return false;
  (void)device;  // the record alone has the state of the request
  RecordState& state = StateOf(record);
  if (wait && state.event != nullptr)
    EventWait(state.event).Until(DeadlineAfter(kInfinite), [&] {
      return state.error != kErrorIoPending;
    });
  std::lock_guard guard(WaitLock());
  *returned = state.bytes;
  return state.error == 0 || Fail(state.error);
}

bool ReadFile(const DeviceHandle& device, void* buffer, std::uint32_t size, RequestRecord* record) {
  const std::uint32_t verdict = gate::Enter("ReadFile", "%u", size);
  if (verdict == gate::kFinishAtOnce) return true;
  if (verdict != 0) return false;
  if (!device) return Fail(kErrorInvalidHandle);
  DeviceState& state = StateOf(device);
  if (state.link->Read(state.number, buffer, size, record, state.port))
    SetLastError(kErrorIoPending);
  return false;
}

bool CancelIoEx(const DeviceHandle& device, RequestRecord* record) {
  if (gate::Fails("CancelIoEx")) return false;
  if (!device) return Fail(kErrorInvalidHandle);
  DeviceState& state = StateOf(device);
  if (state.link->Cancel(state.number, record)) return true;
  return Fail(kErrorNotFound);  // nothing was in flight
}

void CloseCompletionPort(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<PortState*>(raw);
}

CompletionPort CreateIoCompletionPort(const DeviceHandle& device, std::uint64_t key) {
  if (gate::Fails("CreateIoCompletionPort")) return CompletionPort();
  if (!device) return Fail(kErrorInvalidHandle, CompletionPort());
  auto port = std::make_unique<PortState>();
  port->key = key;
  port->link = StateOf(device).link;
  StateOf(device).port = port.get();
  return CompletionPort(port.release());
}

bool GetQueuedCompletionStatus(const CompletionPort& port, std::uint32_t* bytes, std::uint64_t* key,
                               RequestRecord** record) {
  *record = nullptr;
  if (gate::Fails("GetQueuedCompletionStatus")) return false;
  PortState& state = StateOf(port);
  // Declared before the lock: if the link is destroyed here, it waits for a thread that needs the
  // lock.
  const std::shared_ptr<MailboxLink> link = state.link.lock();
  std::unique_lock lock(WaitLock());
  WaitUntil(
      lock, state.changed, DeadlineAfter(kInfinite), [&] { return !state.queue.empty(); },
      [&](auto&... arguments) {
        return link ? link->ReadTurn(arguments...) : WaitTurn(arguments...);
      });
  const PortState::Finished finished = state.queue.front();
  state.queue.pop_front();
  *bytes = finished.bytes;
  *key = finished.record != nullptr ? state.key : finished.postedKey;
  *record = finished.record;
  return finished.error == 0 || Fail(finished.error);
}

bool PostQueuedCompletionStatus(const CompletionPort& port, std::uint64_t key) {
  if (gate::Fails("PostQueuedCompletionStatus")) return false;
  PortState& state = StateOf(port);
  const std::shared_ptr<MailboxLink> link = state.link.lock();
  {
    Wakes wakes;
    std::lock_guard guard(WaitLock());
    state.queue.push_back({nullptr, 0, 0, key});
    wakes.Add(state.changed);
  }
  if (link) link->WakeReader();
  return true;
}

}  // namespace platform
