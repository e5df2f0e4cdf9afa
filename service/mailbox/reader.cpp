// Invariants of the reader thread:
// 1. Slot i is buffer[i] with ov[i]; the index is their only association.
// 2. A frame is handled completely before its slot is armed again and before the next completion
//    is taken, so frames are handled strictly one at a time.
// 3. No buffer is freed while a read into it is in flight: on every way out the reads are cancelled
//    and awaited first.
// 4. A reader that was asked to stop handles no further frame, arms no slot and writes no line, as
//    if it had been ended there.
#include "service/mailbox/reader.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstddef>
#include <memory>
#include <new>

#include "platform/device.h"
#include "platform/error.h"
#include "platform/process.h"
#include "platform/settings.h"
#include "platform/thread.h"
#include "service/diagnostics/deaf_entry.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/control_codes.h"
#include "service/mailbox/device.h"
#include "service/mailbox/dispatcher.h"
#include "service/mailbox/mailbox_link.h"

namespace stewardry {

namespace {

constexpr std::size_t kSlots = 10;
constexpr std::uint64_t kCompletionKey = 1;
constexpr std::uint64_t kStopKey = 2;
constexpr std::uint32_t kRestartPollMs = 50;  // below the 150 ms that a stop waits for the thread

// Page-aligned: a copy to or from a buffer that begins a few bytes into a page is many times slower
// on common processors.
struct alignas(4096) FrameBuffer {
  std::uint8_t bytes[kMaxFrameSize];
};

// The ten slots and the completion port. The destructor runs on every way out of the thread: it
// cancels what is in flight, closes gInterruptDevice and the port, and frees the buffers.
class ReadSlots {
 public:
  ReadSlots() = default;
  ReadSlots(const ReadSlots&) = delete;
  ReadSlots& operator=(const ReadSlots&) = delete;
  ~ReadSlots();

  bool Open();
  bool ArmAll();
  // Takes one completion, dispatches its frame and arms its slot again. Returns false if the thread
  // must exit.
  bool HandleCompletion();
  // Returns the error of the read that failed; 0 if none has.
  std::uint32_t LastReadError() const { return lastError_; }

 private:
  // Starts the slot's read. Returns false unless the read is pending, also if it finished at once.
  bool Arm(std::size_t slot);
  // Returns the index of a record in ov_; kSlots for a null record.
  std::size_t SlotOf(const platform::RequestRecord* record) const {
    return record != nullptr ? static_cast<std::size_t>(record - ov_) : kSlots;
  }
  std::ptrdiff_t InFlight() const { return std::count(inFlight_, inFlight_ + kSlots, true); }

  std::unique_ptr<FrameBuffer> buffer_[kSlots];
  platform::RequestRecord ov_[kSlots]{};
  bool inFlight_[kSlots]{};
  platform::CompletionPort port_;
  std::uint32_t lastError_ = 0;
};

ReadSlots::~ReadSlots() {
  const platform::StayInThread stay;
  gMailboxLink->gReaderStop.TakeBack();
  // Fails if all reads have finished meanwhile.
  if (InFlight() > 0) (void)platform::CancelIoEx(gMailboxLink->gInterruptDevice, nullptr);
  while (InFlight() > 0) {
    std::uint32_t bytes;
    std::uint64_t key = kCompletionKey;
    platform::RequestRecord* record = nullptr;
    // Fails for a read that was cancelled; the record counts.
    (void)platform::GetQueuedCompletionStatus(port_, &bytes, &key, &record);
    if (SlotOf(record) < kSlots) {
      inFlight_[SlotOf(record)] = false;
    } else if (key != kStopKey) {
      break;  // the port itself has failed
    }
  }
  gMailboxLink->gInterruptDevice.Reset(platform::InvalidHandleValue());
}

bool ReadSlots::Open() {
  (void)OpenOrrinDevice(kInterruptMode);  // the handle shows a failure
  if (!gMailboxLink->gInterruptDevice) {
    LogInfo("Cannot open device %d", platform::LastError());
    return false;
  }
  port_ = platform::CreateIoCompletionPort(gMailboxLink->gInterruptDevice, kCompletionKey);
  if (!port_) {
    LogInfo("Cannot open completion port %d", platform::LastError());
    return false;
  }
  gMailboxLink->gReaderStop.Lend(&port_);
  return true;
}

bool ReadSlots::Arm(std::size_t slot) {
  assert(slot < kSlots && buffer_[slot] && !inFlight_[slot]);
  const bool finished = platform::ReadFile(gMailboxLink->gInterruptDevice, buffer_[slot]->bytes,
                                           kMaxFrameSize, &ov_[slot]);
  inFlight_[slot] = !finished && platform::LastError() == platform::kErrorIoPending;
  return inFlight_[slot];
}

bool ReadSlots::ArmAll() {
  assert(port_);
  for (std::size_t slot = 0; slot < kSlots; ++slot) {
    buffer_[slot].reset(new (std::nothrow) FrameBuffer);
    if (!buffer_[slot]) {
      LogInfo("buffer allocation failed");
      return false;
    }
    if (Arm(slot)) continue;
    lastError_ = platform::LastError();
    LogInfo("Asynchronous Read command failed %u", lastError_);
    return false;
  }
  return true;
}

bool ReadSlots::HandleCompletion() {
  const StopMark<platform::CompletionPort>& stop = gMailboxLink->gReaderStop;
  std::uint32_t nobytesret = 0;
  std::uint64_t key = 0;
  platform::RequestRecord* completedOv = nullptr;
  const bool taken = platform::GetQueuedCompletionStatus(port_, &nobytesret, &key, &completedOv);
  const std::size_t slot = SlotOf(completedOv);
  if (slot < kSlots) inFlight_[slot] = false;
  if (stop.IsSet()) return false;
  if (!taken || slot >= kSlots) {
    lastError_ = platform::LastError();
    LogInfo("GetQueuedCompletionStatus failed %d", lastError_);
    return false;
  }
  if (nobytesret > 0) Processread(nobytesret, buffer_[slot]->bytes);
  if (stop.IsSet()) return false;
  if (Arm(slot)) return true;
  lastError_ = platform::LastError();
  LogInfo("Asynchronous read command failed %u", lastError_);
  return false;
}

// Returns why it ended, unless the thread was asked to stop.
Deafness ReadFrames() {
  ReadSlots slots;
  if (slots.Open() && slots.ArmAll()) {
    LogInfo("intThreadFunction before Processread");
    while (!gMailboxLink->gReaderStop.IsSet() && slots.HandleCompletion()) {
    }
  }
  const bool gone = slots.LastReadError() == platform::kErrorDeviceNotConnected;
  return gone ? Deafness::kDeviceGone : Deafness::kReaderEnded;
}

// Without the log lines of OpenOrrinDevice, since it is called every 50 ms.
bool DeviceIsPresent() {
  const platform::DeviceInfoList list = platform::SetupDiGetClassDevsA(kMailboxInterfaceClass);
  platform::DeviceInterfaceData data{};
  data.cbSize = sizeof data;
  return list && platform::SetupDiEnumDeviceInterfaces(list, kMailboxInterfaceClass, 0, &data);
}

// The restart is left to the service manager, and is off unless an administrator sets it. A process
// of its own gives every room a fresh state; a reader that opened the device again in here would
// serve a firmware whose sessions, region and report the other rooms hold. No session is lost by
// it: without a reader no reply reaches a console. It is off because a process that ends is a
// failure for the service manager, the administrator's monitoring and a foreground run, and because
// the recovery actions may be spent on it.
//
// A restart while the device is away would find none and end again, every few seconds. So the
// process waits for the device, and a minute at least where the device is there and its reads fail.
void AwaitRestart() {
  if (platform::ReadSetting(kServiceName, "RestartWhenDeaf", 0) != 1) return;
  const auto earliest = std::chrono::steady_clock::now() + gMailboxLink->restartPause;
  while (!gMailboxLink->gReaderStop.IsSet()) {
    if (std::chrono::steady_clock::now() >= earliest && DeviceIsPresent())
      platform::ExitProcess(0);  // without reporting STOPPED, so that the service is restarted
    platform::Sleep(kRestartPollMs);
  }
}

}  // namespace

void AskReaderToStop() {
  gMailboxLink->gReaderStop.Ask([](const platform::CompletionPort* port) {
    // A reader that is not woken is ended from outside.
    (void)platform::PostQueuedCompletionStatus(*port, kStopKey);
  });
}

std::uint32_t intThreadFunction(void*) {
  const Deafness cause = ReadFrames();
  if (gMailboxLink->gReaderStop.IsSet()) return 0;
  // Fixed log text; the number is not a line of this file.
  LogInfo("%s ln: %d Before RunServer bstatus %d", "intThreadFunction", 658, 0);
  ReportDeafness(cause);
  AwaitRestart();
  return 0;
}

}  // namespace stewardry
