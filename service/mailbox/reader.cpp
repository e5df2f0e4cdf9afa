// The reader thread.
//
// Invariants:
// 1. Slot i is buffer[i] with ov[i]; the index is their only association.
// 2. A frame is handled completely before its slot is armed again and before the next completion
//    is taken, so frames are handled strictly one at a time.
// 3. No buffer goes while a read into it is in flight: on every way out the reads are cancelled
//    and waited for first.
// 4. A reader that was asked to stop handles no frame, arms no slot and writes no line any more, as
//    if it had been ended there.
#include "service/mailbox/reader.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

#include "platform/device.h"
#include "platform/error.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/device.h"
#include "service/mailbox/dispatcher.h"
#include "service/mailbox/slot_mark.h"

namespace stewardry {

namespace {

constexpr std::size_t kSlots = 10;
constexpr std::uint64_t kCompletionKey = 1;
constexpr std::uint64_t kStopKey = 2;
constexpr std::size_t kPage = 4096;

StopMark<platform::CompletionPort> gReaderStop;

// A frame's room. Page-aligned: a copy to or from a buffer that begins a few bytes into a page is
// many times slower on common processors.
struct alignas(kPage) FrameBuffer {
  std::uint8_t bytes[kFrameSize];
};

// The ten slots, the port and the handle that they are read from. Its end is the thread's end: it
// cancels what is in flight, closes the handle and the port and frees the buffers.
class ReadSlots {
 public:
  ReadSlots() = default;
  ReadSlots(const ReadSlots&) = delete;
  ReadSlots& operator=(const ReadSlots&) = delete;
  ~ReadSlots();

  bool Open();
  bool ArmAll();
  // Takes one completion, dispatches its frame and arms its slot again.
  bool Turn();

 private:
  // Anything other than a pending read is a failure, also one that finishes at once.
  bool Arm(std::size_t slot);
  // The place of a record in ov_; kSlots for none.
  std::size_t SlotOf(const platform::RequestRecord* record) const {
    return record != nullptr ? static_cast<std::size_t>(record - ov_) : kSlots;
  }
  std::ptrdiff_t InFlight() const { return std::count(inFlight_, inFlight_ + kSlots, true); }

  std::unique_ptr<FrameBuffer> buffer_[kSlots];
  platform::RequestRecord ov_[kSlots]{};
  bool inFlight_[kSlots]{};
  platform::CompletionPort port_;
};

ReadSlots::~ReadSlots() {
  const platform::StayInThread stay;
  gReaderStop.TakeBack();
  if (InFlight() > 0) (void)platform::CancelIoEx(*gInterruptDevice, nullptr);  // or they finished
  while (InFlight() > 0) {
    std::uint32_t bytes;
    std::uint64_t key = kCompletionKey;
    platform::RequestRecord* record = nullptr;
    (void)platform::GetQueuedCompletionStatus(port_, &bytes, &key,
                                              &record);  // aborted, most likely
    if (SlotOf(record) < kSlots) {
      inFlight_[SlotOf(record)] = false;
    } else if (key != kStopKey) {
      break;  // the port itself has failed
    }
  }
  gInterruptDevice->Reset(platform::InvalidHandleValue());
}

bool ReadSlots::Open() {
  OpenOrrinDevice(kInterruptMode);
  if (!*gInterruptDevice) {
    LogInfo("Cannot open device %d", platform::LastError());
    return false;
  }
  port_ = platform::CreateIoCompletionPort(*gInterruptDevice, kCompletionKey);
  if (!port_) {
    LogInfo("Cannot open completion port %d", platform::LastError());
    return false;
  }
  gReaderStop.Lend(&port_);
  return true;
}

bool ReadSlots::Arm(std::size_t slot) {
  const bool finished =
      platform::ReadFile(*gInterruptDevice, buffer_[slot]->bytes, kFrameSize, &ov_[slot]);
  inFlight_[slot] = !finished && platform::LastError() == platform::kErrorIoPending;
  return inFlight_[slot];
}

bool ReadSlots::ArmAll() {
  for (std::size_t slot = 0; slot < kSlots; ++slot) {
    buffer_[slot].reset(new (std::nothrow) FrameBuffer);
    if (!buffer_[slot]) {
      LogInfo("buffer allocation failed");
      return false;
    }
    if (Arm(slot)) continue;
    LogInfo("Asynchronous Read command failed %u", platform::LastError());
    return false;
  }
  return true;
}

bool ReadSlots::Turn() {
  std::uint32_t nobytesret = 0;
  std::uint64_t key = 0;
  platform::RequestRecord* completedOv = nullptr;
  const bool taken = platform::GetQueuedCompletionStatus(port_, &nobytesret, &key, &completedOv);
  const std::size_t slot = SlotOf(completedOv);
  if (slot < kSlots) inFlight_[slot] = false;
  if (gReaderStop.IsSet()) return false;
  if (!taken || slot >= kSlots) {
    LogInfo("GetQueuedCompletionStatus failed %d", platform::LastError());
    return false;
  }
  if (nobytesret > 0) Processread(nobytesret, buffer_[slot]->bytes);
  if (gReaderStop.IsSet()) return false;
  if (Arm(slot)) return true;
  LogInfo("Asynchronous read command failed %u", platform::LastError());
  return false;
}

void ReadFrames() {
  ReadSlots slots;
  if (!slots.Open() || !slots.ArmAll()) return;
  LogInfo("intThreadFunction before Processread");
  while (!gReaderStop.IsSet() && slots.Turn()) {
  }
}

}  // namespace

void AskReaderToStop() {
  gReaderStop.Ask([](const platform::CompletionPort* port) {
    (void)platform::PostQueuedCompletionStatus(*port, kStopKey);  // or it is ended from outside
  });
}

std::uint32_t intThreadFunction(void*) {
  ReadFrames();
  if (gReaderStop.IsSet()) return 0;
  LogInfo("%s ln: %d Before RunServer bstatus %d", "intThreadFunction", 658, 0);
  return 0;
}

}  // namespace stewardry
