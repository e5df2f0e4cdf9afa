// The mailbox driver's stand-in: one connection to a firmware over the lab link, shared by all
// handles that this process opens on a device interface. One thread at a time leads the link: it
// takes what the firmware sends and finishes requests and reads with it. A thread that waits for a
// read leads, so a frame reaches it without another thread between them; while none waits the
// link's own thread, the backstop, leads.
//
// Invariants:
// 1. Everything but the descriptors, the outgoing side and the inbox is guarded by WaitLock. The
//    inbox is the leader's, and WaitLock hands it from one leader to the next.
// 2. A request or read that was registered is finished exactly once: by the firmware, by a cancel,
//    by the close of its handle, or by the end of the link.
// 3. A request's record, buffers and event are touched only while it is registered, so the caller
//    may release them once it is finished.
// 4. Nothing blocks on a firmware that doesn't read: what the socket can't take waits in the
//    outbox, and the leader sends it on.
// 5. When nobody has led for a millisecond the backstop does, so nothing that comes is left lying.
#pragma once

#include <sys/uio.h>

#include <array>
#include <atomic>
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

#include "lablink/lab_link.h"
#include "platform/device.h"
#include "platform/linux/runtime/event_state.h"

namespace platform {

// What the stand-in keeps in a RequestRecord.
struct RecordState {
  EventState* event;
  std::uint64_t id;
  std::uint32_t error;  // kErrorIoPending while it runs
  std::uint32_t bytes;
};
static_assert(sizeof(RecordState) <= sizeof(RequestRecord));

inline RecordState& StateOf(RequestRecord* record) {
  return *reinterpret_cast<RecordState*>(record->raw);
}

// Finished reads of the handles bound to it, in the order of their finish.
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
  std::weak_ptr<class MailboxLink> link;  // of the handle that is bound to it
};

class MailboxLink {
 public:
  // The link to the firmware that listens on the Unix socket `path`; one for each path while a
  // handle is open. Null, with the last error set, if nobody listens.
  static std::shared_ptr<MailboxLink> Open(const std::string& path);

  explicit MailboxLink(int descriptor);
  MailboxLink(const MailboxLink&) = delete;
  MailboxLink& operator=(const MailboxLink&) = delete;
  ~MailboxLink();

  void TellOpen(std::uint64_t handle, std::uint32_t mode);
  // Aborts what the handle has in flight, without touching its records, and tells the firmware.
  void TellClose(std::uint64_t handle);

  // Starts a request; false when the device has gone.
  bool Request(std::uint64_t handle, std::uint32_t code, const void* input, std::uint32_t inputSize,
               void* output, std::uint32_t outputSize, RequestRecord* record);
  // Arms a read; a frame that waits finishes it at once. False when the device has gone.
  bool Read(std::uint64_t handle, void* buffer, std::uint32_t size, RequestRecord* record,
            PortState* port);
  // Ends the request or read of `record`, or with null all of the handle's. False if none ran.
  bool Cancel(std::uint64_t handle, RequestRecord* record);
  // Waits, under WaitLock, which is given back meanwhile, until the port has a finished read.
  // Leaves the thread if it was terminated.
  void AwaitFinished(PortState* port, std::unique_lock<std::mutex>* lock);
  // Lets the leader look at its port: something was posted to it.
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
  using Body = std::span<const std::byte>;

  void Run();
  bool LeadOnce();
  void AwaitCall();
  void CallBackstop();
  bool AwaitReadable(int endDescriptor);
  bool TakeBatch();
  bool TakeMessage(Wakes* wakes, const lablink::Head& head, Body body);
  void Complete(Wakes* wakes, const lablink::Head& head, Body body);
  void TakeFrame(Wakes* wakes, Body frame);
  void FailRead(Wakes* wakes, std::uint32_t error);
  void Poke(const lablink::Head& head, Body body);
  void Peek(const lablink::Head& head, Body input);
  void EndLink(Wakes* wakes);

  using Parts = std::array<iovec, 5>;

  void TellRead(std::uint64_t count, std::uint32_t size);
  void HoldReads(bool hold);
  void Send(std::uint32_t kind, std::uint64_t id, std::uint32_t word,
            std::span<const iovec> body = {});
  void SendParts(Parts parts, std::size_t count);
  void KeepRest(std::span<const iovec> parts, std::size_t sent);
  void FlushOutbox();

  const int descriptor_;
  const int stopDescriptor_;                           // an eventfd: ends the backstop
  const int outboxDescriptor_;                         // an eventfd: an outbox, or WakeLeader
  const int timerDescriptor_;                          // a timerfd: calls the backstop
  std::unique_ptr<std::byte, void (*)(void*)> inbox_;  // page-aligned; the leader's
  std::size_t filled_ = 0;                             // bytes in it; the leader's

  bool led_ = false;
  bool backstopCalled_ = false;
  std::condition_variable* follower_ = nullptr;  // where a thread waits that would rather lead
  bool gone_ = false;
  std::map<std::uint64_t, Pending> pending_;
  std::deque<Armed> armed_;
  std::deque<std::vector<std::byte>> waitingFrames_;
  std::uint64_t nextRequest_ = 1;
  std::uint64_t readsArmed_ = 0;

  std::mutex sendLock_;     // never held together with WaitLock
  std::string outbox_;      // guarded by sendLock_
  std::string held_;        // guarded by sendLock_: reads that the firmware isn't told of yet
  bool holdReads_ = false;  // guarded by sendLock_
  std::atomic<bool> stopping_{false};  // written by the destructor, read by the backstop
  std::thread thread_;
};

// The shared regions of this process, page-aligned; they live until it ends.
std::span<std::byte> SharedRegion(std::uint64_t region);

}  // namespace platform
