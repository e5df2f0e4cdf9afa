// The mailbox driver's stand-in: one connection to a firmware over the lab link, shared by all
// handles that this process opens on a device interface. A thread of the link takes what the
// firmware sends and finishes requests and reads with it.
//
// Invariants:
// 1. Everything but the descriptor and the outgoing side is guarded by WaitLock.
// 2. A request or read that was registered is finished exactly once: by the firmware, by a cancel,
//    by the close of its handle, or by the end of the link.
// 3. A request's record, buffers and event are touched only while it is registered, so the caller
//    may release them once it is finished.
// 4. Nothing blocks on a firmware that doesn't read: what the socket can't take waits in the
//    outbox, and the link's thread sends it on.
#pragma once

#include <sys/uio.h>

#include <array>
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

#include "platform/device.h"
#include "platform/linux/event_state.h"
#include "platform/linux/lab_link.h"

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
    RequestRecord* record;
    std::uint32_t bytes;
    std::uint32_t error;
  };
  std::condition_variable changed;
  std::deque<Finished> queue;
  std::uint64_t key = 0;
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

  void Run();
  bool ReadExactly(void* data, std::size_t size);
  bool AwaitReadable();
  bool TakeMessage(const lablink::Head& head);
  void Complete(const lablink::Head& head);
  void TakeFrame(std::span<const std::byte> frame);
  void FailRead(std::uint32_t error);
  void Poke(const lablink::Head& head);
  void Peek(const lablink::Head& head);
  void EndLink();

  using Parts = std::array<iovec, 5>;

  void TellRead(std::uint64_t count, std::uint32_t size);
  void HoldReads(bool hold);
  void Send(std::uint32_t kind, std::uint64_t id, std::uint32_t word,
            std::span<const iovec> body = {});
  void SendParts(Parts parts, std::size_t count);
  void KeepRest(std::span<const iovec> parts, std::size_t sent);
  void FlushOutbox();

  const int descriptor_;
  const int stopDescriptor_;  // an eventfd: ends the thread, or tells it of an outbox
  std::unique_ptr<std::byte, void (*)(void*)> body_;  // of the message being read; page-aligned

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
  bool stopping_ = false;   // guarded by sendLock_
  std::thread thread_;
};

// The shared regions of this process, page-aligned; they live until it ends.
std::span<std::byte> SharedRegion(std::uint64_t region);

}  // namespace platform
