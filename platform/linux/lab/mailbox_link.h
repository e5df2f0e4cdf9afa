// The mailbox driver's stand-in: one connection to a firmware over the lab link, shared by all
// handles that this process opens on a device interface. The threads that wait receive the
// firmware's messages themselves: a thread that waits for its request, else the thread that waits
// for a frame, else the link's own thread, the backstop. So neither an answer nor a frame needs a
// thread between the firmware and the thread that waits for it.
//
// Invariants:
// 1. WaitLock guards everything but the descriptors, the sender and what the read lock guards.
// 2. The read lock guards the receiver and the placed read. It is taken before WaitLock, and held
//    only while messages are received and served, which does not block.
// 3. A registered request or read is completed exactly once: by the firmware, by a cancel, by the
//    close of its handle, or by the end of the link.
// 4. A request's record, buffers and event are touched only while it is registered, so the caller
//    may release them once it is complete.
// 5. Nothing blocks on a firmware that doesn't read (link_sender.h).
// 6. A thread that leaves bytes unread passes them on: to a waiting thread, or to the backstop,
//    which reads them after a millisecond unless another thread has done so.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "lablink/messages.h"
#include "platform/device.h"
#include "platform/linux/lab/link_receiver.h"
#include "platform/linux/lab/link_sender.h"
#include "platform/linux/lab/link_wait.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/event_state.h"

namespace platform {

class MailboxLink;

// What the stand-in keeps in a RequestRecord.
struct RecordState {
  EventState* event;
  std::uint64_t id;
  std::uint32_t error;  // kErrorIoPending while it runs
  std::uint32_t bytes;
};
// Both sides are constants. NOLINTNEXTLINE(misc-redundant-expression)
static_assert(sizeof(RecordState) <= sizeof(RequestRecord) &&
              alignof(RecordState) <= alignof(RequestRecord));

inline RecordState& StateOf(RequestRecord* record) {
  assert(record != nullptr);
  return *reinterpret_cast<RecordState*>(record->raw);
}

// The finished reads of the handles bound to a completion port, in the order of their finish.
struct PortState {
  struct Finished {
    RequestRecord* record;  // null for what was posted
    std::uint32_t bytes;
    std::uint32_t error;
    std::uint64_t postedKey = 0;
  };
  std::condition_variable& changed = SleepingPlace();
  std::deque<Finished> queue;
  std::uint64_t key = 0;
  std::weak_ptr<MailboxLink> link;  // of the handle that is bound to it
};

class MailboxLink final : public Completer, public std::enable_shared_from_this<MailboxLink> {
 public:
  // Returns the link to the firmware that listens on the Unix socket `path`, the same one while any
  // handle uses it. Null, with the last error set, if the socket has no listener.
  static std::shared_ptr<MailboxLink> Open(const std::string& path);

  // Takes ownership of the connected socket.
  explicit MailboxLink(int descriptor);
  MailboxLink(const MailboxLink&) = delete;
  MailboxLink& operator=(const MailboxLink&) = delete;
  ~MailboxLink();

  // Reports a handle that was opened.
  void OpenHandle(std::uint64_t handle, std::uint32_t mode);
  // Drops what the handle has in flight, without touching its records, and reports its close.
  void CloseHandle(std::uint64_t handle);

  // Starts a request. Returns false if the device is gone.
  bool Request(std::uint64_t handle, std::uint32_t code, const void* input, std::uint32_t inputSize,
               void* output, std::uint32_t outputSize, RequestRecord* record);
  // Arms a read; a waiting frame completes it at once. Returns false if the device is gone.
  bool Read(std::uint64_t handle, void* buffer, std::uint32_t size, RequestRecord* record,
            PortState* port);
  // Cancels the request or read of `record`, or with null all of the handle's. Returns false if
  // none ran.
  bool Cancel(std::uint64_t handle, RequestRecord* record);
  // Like WaitTurn, with the link's work done meanwhile by the thread that waits: for a request, or
  // for a finished read of a completion port.
  bool RequestTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
                   Deadline deadline) override;
  bool ReadTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
                Deadline deadline);
  // Makes the thread in ReadTurn check its port: something was posted to it.
  void WakeReader() { readWait_.Wake(); }

 private:
  struct Pending {
    std::uint64_t handle;
    std::uint32_t code;
    void* output;
    std::uint32_t outputSize;
    RequestRecord* record;
  };
  struct Armed {
    std::uint64_t handle;
    void* buffer;
    std::uint32_t size;
    RequestRecord* record;
    PortState* port;
  };

  // The threads to wake for what was completed. Declared before the guards of the locks, so that
  // they are woken once the locks are released.
  struct Notices {
    explicit Notices(MailboxLink* of) : link(of) {}
    Notices(const Notices&) = delete;
    Notices& operator=(const Notices&) = delete;
    ~Notices() {
      if (request) link->requestWait_.Wake();
      if (read) link->readWait_.Wake();
    }
    MailboxLink* const link;
    Wakes wakes;
    bool any = false;
    bool request = false;
    bool read = false;
  };
  class WaitUse;

  bool Turn(LinkWait* wait, std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
            Deadline deadline);
  void PassOn();
  void RunBackstop();
  std::uint64_t Receipts();
  bool HasUnread();
  bool MustRead(std::uint64_t receiptsBefore);
  void AwaitRoomOrPause();
  void ReadOnce();
  bool ServeReceived(Notices* notices);
  bool ServeMessage(Notices* notices, const lablink::Message& message);
  bool PlaceBegunFrame();
  void CompleteRequest(Notices* notices, const lablink::Message& message);
  void FinishPlaced(Notices* notices, std::size_t size);
  void TakeFrame(Notices* notices, std::span<const std::uint8_t> frame);
  void FailRead(Notices* notices, std::uint32_t error);
  void FinishRequest(Notices* notices, RequestRecord* record, std::uint32_t error,
                     std::uint32_t bytes);
  void FinishRead(Notices* notices, const Armed& read, std::uint32_t error, std::uint32_t bytes);
  void DropPlaced();
  void SendMemory(const lablink::Message& message);
  void EndLink(Notices* notices);

  const Descriptor socket_;
  const Descriptor stop_;  // an eventfd: ends the backstop's pause
  // In the order in which they are served.
  LinkWait requestWait_{socket_.Value()};
  LinkWait readWait_{socket_.Value()};
  LinkWait backstopWait_{socket_.Value()};
  LinkSender sender_{socket_.Value(), backstopWait_.WakeDescriptor()};

  std::mutex readLock_;
  LinkReceiver receiver_;
  // The read whose buffer the receiver fills. Without one, and with a placed frame, the read was
  // cancelled, and the frame goes to the rescue buffer.
  std::optional<Armed> placed_;
  std::vector<std::uint8_t> rescue_;

  bool unread_ = false;         // the last thread that received has left bytes
  bool backstopWoken_ = false;  // until it has found nothing unread
  std::uint64_t receipts_ = 0;  // calls of ReadOnce
  bool gone_ = false;
  std::map<std::uint64_t, Pending> pending_;
  std::deque<Armed> armed_;
  std::deque<std::vector<std::uint8_t>> waitingFrames_;
  std::uint64_t nextRequest_ = 1;
  std::uint64_t readsArmed_ = 0;

  std::atomic<bool> stopping_{false};  // written by the destructor, read by the backstop
  std::thread thread_;
};

}  // namespace platform
