// The mailbox driver's stand-in: one connection to a firmware over the lab link, shared by all
// handles that this process opens on a device interface. One thread at a time leads the link: it
// receives the firmware's messages and completes requests and reads with them. A thread that waits
// for a read leads, so a frame reaches it without another thread between them. While none waits,
// the link's own thread, the backstop, leads.
//
// Invariants:
// 1. WaitLock guards everything but the descriptors, the sender and the reader. The reader belongs
//    to the leader, and WaitLock hands it from one leader to the next.
// 2. A registered request or read is completed exactly once: by the firmware, by a cancel, by the
//    close of its handle, or by the end of the link.
// 3. A request's record, buffers and event are touched only while it is registered, so the caller
//    may release them once it is complete.
// 4. Nothing blocks on a firmware that doesn't read (link_sender.h).
// 5. When the link has had no leader for a millisecond the backstop leads, so that no message stays
//    unread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "lablink/messages.h"
#include "platform/device.h"
#include "platform/linux/lab/link_sender.h"
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

class MailboxLink {
 public:
  // Returns the link to the firmware that listens on the Unix socket `path`, the same one while any
  // handle uses it. Null, with the last error set, if the socket has no listener.
  static std::shared_ptr<MailboxLink> Open(const std::string& path);

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
  // Blocks, with WaitLock released meanwhile, until the port has a finished read. Requires `lock`
  // to hold WaitLock. Leaves the thread if it was terminated.
  void AwaitFinished(PortState* port, std::unique_lock<std::mutex>* lock);
  // Makes the leader check its port: something was posted to it.
  void WakeLeader();

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

  class Leading;

  void RunBackstop();
  bool LeadOnce();
  void AwaitCall();
  void CallBackstop();
  bool AwaitReadable(int endDescriptor);
  bool TakeBatch();
  bool TakeMessages(Wakes* wakes);
  bool TakeMessage(Wakes* wakes, const lablink::Message& message);
  void CompleteRequest(Wakes* wakes, const lablink::Message& message);
  void TakeFrame(Wakes* wakes, std::span<const std::uint8_t> frame);
  void FailRead(Wakes* wakes, std::uint32_t error);
  void SendMemory(const lablink::Message& message);
  void EndLink(Wakes* wakes);

  const Descriptor socket_;
  const Descriptor stop_;   // an eventfd: ends the backstop
  const Descriptor bell_;   // an eventfd: the outbox holds something, or WakeLeader
  const Descriptor timer_;  // a timerfd: calls the backstop
  LinkSender sender_{socket_.Value(), bell_.Value()};
  lablink::MessageReader reader_;  // the leader's

  bool led_ = false;
  bool backstopCalled_ = false;
  std::condition_variable* follower_ = nullptr;  // where a thread waits that should lead instead
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
