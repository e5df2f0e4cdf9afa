#include "platform/linux/lab/mailbox_link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <utility>

#include "platform/handle.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/lab/shared_region.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

constexpr int kHoldReadsMs = 1;
constexpr int kBackstopPauseMs = 1;

// The links of this process by their paths.
struct OpenLinks {
  std::mutex lock;
  std::map<std::string, std::weak_ptr<MailboxLink>> byPath;
};

void Register(RequestRecord* record, std::uint64_t id) {
  StateOf(record).id = id;
  StateOf(record).error = kErrorIoPending;
}

void FinishRecord(Wakes* wakes, RequestRecord* record, std::uint32_t error, std::uint32_t bytes) {
  RecordState& state = StateOf(record);
  assert(state.error == kErrorIoPending);  // invariant 2
  state.error = error;
  state.bytes = bytes;
  if (state.event != nullptr) SignalLocked(wakes, *state.event);
}

// Returns poll's form of the time left, rounded up; -1 if there is no deadline.
int MillisecondsUntil(Deadline deadline) {
  if (deadline == Deadline::max()) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
}

}  // namespace

std::shared_ptr<MailboxLink> MailboxLink::Open(const std::string& path) {
  static ProcessLifetime<OpenLinks> links;
  std::lock_guard guard(links->lock);
  std::shared_ptr<MailboxLink> link = links->byPath[path].lock();
  if (link) return link;
  const int fd = ConnectLabSocket(path);
  if (fd < 0) return Fail(kErrorFileNotFound, nullptr);
  link = std::make_shared<MailboxLink>(fd);
  links->byPath[path] = link;
  return link;
}

MailboxLink::MailboxLink(int descriptor)
    : socket_(descriptor),
      stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_([this] { RunBackstop(); }) {}

MailboxLink::~MailboxLink() {
  stopping_.store(true, std::memory_order_release);
  SignalDescriptor(stop_.Value());
  backstopWait_.Wake();
  thread_.join();
}

void MailboxLink::OpenHandle(std::uint64_t handle, std::uint32_t mode) {
  sender_.Send(lablink::kOpen, handle, mode);
}

void MailboxLink::CloseHandle(std::uint64_t handle) {
  {
    std::lock_guard reading(readLock_);
    std::lock_guard guard(WaitLock());
    std::erase_if(pending_, [&](const auto& entry) { return entry.second.handle == handle; });
    if (placed_ && placed_->handle == handle) DropPlaced();
    std::erase_if(armed_, [&](const Armed& read) { return read.handle == handle; });
  }
  sender_.Send(lablink::kClose, handle, 0);
}

bool MailboxLink::Request(std::uint64_t handle, std::uint32_t code, const void* input,
                          std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                          RequestRecord* record) {
  std::uint64_t id;
  {
    std::lock_guard guard(WaitLock());
    if (gone_) return Fail(kErrorDeviceNotConnected);
    id = nextRequest_++;
    Register(record, id);
    if (StateOf(record).event != nullptr) StateOf(record).event->completer = weak_from_this();
    pending_[id] = {handle, code, output, output != nullptr ? outputSize : 0, record};
  }
  const iovec body[] = {{&outputSize, sizeof outputSize}, {const_cast<void*>(input), inputSize}};
  sender_.Send(lablink::kRequest, id, code, body);
  return true;
}

bool MailboxLink::Read(std::uint64_t handle, void* buffer, std::uint32_t size,
                       RequestRecord* record, PortState* port) {
  std::uint64_t count;
  {
    Notices notices(this);
    std::lock_guard guard(WaitLock());
    if (gone_) return Fail(kErrorDeviceNotConnected);
    count = ++readsArmed_;
    Register(record, count);
    armed_.push_back({handle, buffer, size, record, port});
    if (!waitingFrames_.empty()) {
      const std::vector<std::uint8_t> frame = std::move(waitingFrames_.front());
      waitingFrames_.pop_front();
      TakeFrame(&notices, frame);
    }
  }
  sender_.SendRead(count, size);
  return true;
}

bool MailboxLink::Cancel(std::uint64_t handle, RequestRecord* record) {
  std::vector<std::uint64_t> cancelled;
  bool found = false;
  {
    Notices notices(this);
    std::lock_guard reading(readLock_);
    std::lock_guard guard(WaitLock());
    auto wanted = [&](std::uint64_t owner, const RequestRecord* candidate) {
      return owner == handle && (record == nullptr || record == candidate);
    };
    std::erase_if(pending_, [&](const auto& entry) {
      if (!wanted(entry.second.handle, entry.second.record)) return false;
      FinishRequest(&notices, entry.second.record, kErrorOperationAborted, 0);
      cancelled.push_back(entry.first);
      return true;
    });
    if (placed_ && wanted(placed_->handle, placed_->record)) {
      FinishRead(&notices, *placed_, kErrorOperationAborted, 0);
      DropPlaced();
      found = true;
    }
    std::erase_if(armed_, [&](const Armed& read) {
      if (!wanted(read.handle, read.record)) return false;
      FinishRead(&notices, read, kErrorOperationAborted, 0);
      return found = true;
    });
  }
  for (std::uint64_t id : cancelled) sender_.Send(lablink::kCancel, id, 0);
  return found || !cancelled.empty();
}

// Occupies a LinkWait while it lives, with WaitLock released meanwhile.
class MailboxLink::WaitUse {
 public:
  WaitUse(MailboxLink* link, LinkWait* wait, std::unique_lock<std::mutex>* lock)
      : link_(link), wait_(wait), lock_(lock) {
    assert(lock_->owns_lock() && !wait_->taken);
    wait_->taken = true;
    CurrentThread().wakeDescriptor = wait_->WakeDescriptor();
    lock_->unlock();
  }
  WaitUse(const WaitUse&) = delete;
  WaitUse& operator=(const WaitUse&) = delete;
  ~WaitUse() {
    lock_->lock();
    wait_->taken = false;
    CurrentThread().wakeDescriptor = -1;
    link_->PassOn();
  }

 private:
  MailboxLink* const link_;
  LinkWait* const wait_;
  std::unique_lock<std::mutex>* const lock_;
};

bool MailboxLink::RequestTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
                              Deadline deadline) {
  return Turn(&requestWait_, lock, wakeup, deadline);
}

bool MailboxLink::ReadTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
                           Deadline deadline) {
  return Turn(&readWait_, lock, wakeup, deadline);
}

// A second thread at one LinkWait waits like any other: the thread that serves its completion wakes
// it.
bool MailboxLink::Turn(LinkWait* wait, std::unique_lock<std::mutex>& lock,
                       std::condition_variable& wakeup, Deadline deadline) {
  assert(lock.owns_lock() && lock.mutex() == &WaitLock());
  if (gone_ || wait->taken) return WaitTurn(lock, wakeup, deadline);
  LeaveIfEndedLocked(CurrentThread());
  LinkWait::Woken woken{unread_, unread_};
  wait->asleep.store(!unread_, std::memory_order_relaxed);
  const bool holdsReads = wait == &readWait_ && sender_.HoldsReads();
  {
    const WaitUse use(this, wait, &lock);
    if (!woken.any) woken = wait->Sleep(holdsReads ? kHoldReadsMs : MillisecondsUntil(deadline));
    if (woken.readable) ReadOnce();
    if (!woken.any && holdsReads) sender_.HoldReads(false);
  }
  LeaveIfEndedLocked(CurrentThread());
  return woken.any || holdsReads;
}

// Under WaitLock: bytes that were left unread wake no thread by themselves.
void MailboxLink::PassOn() {
  if (!unread_) return;
  for (LinkWait* wait : {&requestWait_, &readWait_})
    if (wait->asleep.load(std::memory_order_relaxed)) return wait->Wake();
  if (!std::exchange(backstopWoken_, true)) backstopWait_.Wake();
}

// Bytes that arrive while every other thread works wake the backstop. A working thread is about to
// receive them in most cases, so the backstop pauses first.
void MailboxLink::RunBackstop() {
  while (!stopping_.load(std::memory_order_acquire)) {
    (void)backstopWait_.Sleep(-1);
    do {
      const std::uint64_t before = Receipts();
      AwaitRoomOrPause();
      if (MustRead(before)) ReadOnce();
    } while ((HasUnread() || sender_.HasOutbox()) && !stopping_.load(std::memory_order_acquire));
  }
}

// Returns whether bytes are left. If not, the next thread that leaves some wakes the backstop.
bool MailboxLink::HasUnread() {
  std::lock_guard guard(WaitLock());
  backstopWoken_ = unread_;
  return unread_;
}

std::uint64_t MailboxLink::Receipts() {
  std::lock_guard guard(WaitLock());
  return receipts_;
}

// Returns whether the backstop has to receive: no thread waits, and none has received since.
bool MailboxLink::MustRead(std::uint64_t receiptsBefore) {
  std::lock_guard guard(WaitLock());
  const bool isServed = requestWait_.asleep.load(std::memory_order_relaxed) ||
                        readWait_.asleep.load(std::memory_order_relaxed);
  return !gone_ && !isServed && receipts_ == receiptsBefore;
}

// Blocks for a millisecond, or until the socket has room for the outbox; for ever once the link has
// ended. The stop ends it early.
void MailboxLink::AwaitRoomOrPause() {
  const short roomEvent = sender_.HasOutbox() ? POLLOUT : 0;
  bool gone;
  {
    std::lock_guard guard(WaitLock());
    gone = gone_;
  }
  pollfd fds[2] = {{stop_.Value(), POLLIN, 0},
                   {roomEvent != 0 ? socket_.Value() : -1, roomEvent, 0}};
  ::poll(fds, 2, gone ? -1 : kBackstopPauseMs);
  if (fds[1].revents != 0) sender_.Flush();
}

// Receives until something is complete or nothing is left, and serves it. One long frame at a time:
// it is still in the processor's cache when its thread passes it on.
void MailboxLink::ReadOnce() {
  Notices notices(this);
  std::lock_guard reading(readLock_);
  if (gone_) return;  // it changes under both locks
  LinkReceiver::Result result;
  do {
    result = receiver_.Receive(socket_.Value());
    if (result == LinkReceiver::Result::kEnded || !ServeReceived(&notices)) {
      return EndLink(&notices);
    }
  } while (result == LinkReceiver::Result::kMore && receiver_.IsPlaced() && !notices.any);
  std::lock_guard guard(WaitLock());
  ++receipts_;
  unread_ = result == LinkReceiver::Result::kMore;
}

// Returns false for a stream that isn't one of the lab link.
bool MailboxLink::ServeReceived(Notices* notices) {
  if (receiver_.IsPlaced()) {
    const std::optional<std::size_t> size = receiver_.TakePlaced();
    if (!size) return true;
    FinishPlaced(notices, *size);
  }
  lablink::Message message;
  lablink::Parsed result;
  while ((result = receiver_.Next(&message)) == lablink::Parsed::kMessage)
    if (!ServeMessage(notices, message)) return false;
  return result == lablink::Parsed::kNeedMore && PlaceBegunFrame();
}

bool MailboxLink::ServeMessage(Notices* notices, const lablink::Message& message) {
  const lablink::Head& head = message.head;
  switch (head.kind) {
    case lablink::kComplete:
      CompleteRequest(notices, message);
      return true;
    case lablink::kFrame: {
      if (head.length > lablink::kMaxFrame) return false;
      sender_.HoldReads(true);
      std::lock_guard guard(WaitLock());
      TakeFrame(notices, message.body);
      return true;
    }
    case lablink::kFailRead:
      FailRead(notices, head.word);
      return true;
    case lablink::kPoke:
      StoreInRegion(head.id, head.word, std::as_bytes(message.body));
      return true;
    case lablink::kPeek:
      SendMemory(message);
      return true;
    default:
      return false;
  }
}

// A long frame is received in the buffer of the oldest armed read. Returns false if it is longer
// than any frame.
bool MailboxLink::PlaceBegunFrame() {
  const std::optional<lablink::Head> head = receiver_.LongFrame();
  if (!head) return true;
  if (head->length > lablink::kMaxFrame) return false;
  std::lock_guard guard(WaitLock());
  if (armed_.empty() || head->length > armed_.front().size) return true;  // TakeFrame decides
  placed_ = armed_.front();
  armed_.pop_front();
  receiver_.Place(static_cast<std::uint8_t*>(placed_->buffer));
  return true;
}

void MailboxLink::FinishPlaced(Notices* notices, std::size_t size) {
  sender_.HoldReads(true);
  std::lock_guard guard(WaitLock());
  if (!placed_) return TakeFrame(notices, std::span(rescue_).first(size));
  FinishRead(notices, *placed_, 0, static_cast<std::uint32_t>(size));
  placed_.reset();
}

// Under both locks: the placed read ends before its frame is complete.
void MailboxLink::DropPlaced() {
  rescue_.resize(lablink::kMaxFrame);
  receiver_.MovePlaced(rescue_.data());
  placed_.reset();
}

void MailboxLink::CompleteRequest(Notices* notices, const lablink::Message& message) {
  std::lock_guard guard(WaitLock());
  auto found = pending_.find(message.head.id);
  if (found == pending_.end()) return;  // cancelled meanwhile
  const Pending request = found->second;
  pending_.erase(found);
  const std::uint32_t bytes = std::min(message.head.length, request.outputSize);
  if (bytes > 0) {
    std::memcpy(request.output, message.body.data(), bytes);
    PlaceRegionAddress(request.code, request.output, bytes);
  }
  FinishRequest(notices, request.record, message.head.word, bytes);
}

// Under WaitLock.
void MailboxLink::TakeFrame(Notices* notices, std::span<const std::uint8_t> frame) {
  if (armed_.empty()) {
    waitingFrames_.emplace_back(frame.begin(), frame.end());
    return;
  }
  const Armed read = armed_.front();
  armed_.pop_front();
  if (frame.size() > read.size) return FinishRead(notices, read, kErrorMoreData, 0);
  if (!frame.empty()) std::memcpy(read.buffer, frame.data(), frame.size());
  FinishRead(notices, read, 0, static_cast<std::uint32_t>(frame.size()));
}

void MailboxLink::FailRead(Notices* notices, std::uint32_t error) {
  std::lock_guard guard(WaitLock());
  if (armed_.empty()) return;
  const Armed read = armed_.front();
  armed_.pop_front();
  FinishRead(notices, read, error, 0);
}

// Under WaitLock.
void MailboxLink::FinishRequest(Notices* notices, RequestRecord* record, std::uint32_t error,
                                std::uint32_t bytes) {
  FinishRecord(&notices->wakes, record, error, bytes);
  notices->any = true;
  notices->request = notices->request || requestWait_.asleep.load(std::memory_order_relaxed);
}

// Under WaitLock.
void MailboxLink::FinishRead(Notices* notices, const Armed& read, std::uint32_t error,
                             std::uint32_t bytes) {
  FinishRecord(&notices->wakes, read.record, error, bytes);
  notices->any = true;
  if (read.port == nullptr) return;
  read.port->queue.push_back({read.record, bytes, error});
  notices->wakes.Add(read.port->changed);
  notices->read = notices->read || readWait_.asleep.load(std::memory_order_relaxed);
}

void MailboxLink::SendMemory(const lablink::Message& message) {
  std::uint32_t count = 0;
  if (message.body.size() < sizeof count) return;
  std::memcpy(&count, message.body.data(), sizeof count);
  const lablink::Head& head = message.head;
  std::vector<std::byte> bytes = LoadFromRegion(head.id, head.word, count);
  const iovec body[] = {{bytes.data(), bytes.size()}};
  sender_.Send(lablink::kMemory, head.id, head.word, body);
}

// Under the read lock. The device is gone: what is in flight fails, and so does every later request
// and read.
void MailboxLink::EndLink(Notices* notices) {
  std::lock_guard guard(WaitLock());
  gone_ = true;
  unread_ = false;
  for (auto& [id, request] : pending_)
    FinishRequest(notices, request.record, kErrorDeviceNotConnected, 0);
  pending_.clear();
  if (placed_) armed_.push_front(*std::exchange(placed_, std::nullopt));
  for (const Armed& read : armed_) FinishRead(notices, read, kErrorDeviceNotConnected, 0);
  armed_.clear();
}

}  // namespace platform
