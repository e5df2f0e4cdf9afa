#include "platform/linux/lab/mailbox_link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/handle.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/lab/shared_region.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

constexpr int kHoldReadsMs = 1;
constexpr long kBackstopNanoseconds = 1'000'000;

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

void FinishRead(Wakes* wakes, PortState* port, RequestRecord* record, std::uint32_t error,
                std::uint32_t bytes) {
  FinishRecord(wakes, record, error, bytes);
  if (port == nullptr) return;
  port->queue.push_back({record, bytes, error});
  wakes->Add(port->changed);
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
      bell_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      thread_([this] { RunBackstop(); }) {}

MailboxLink::~MailboxLink() {
  stopping_.store(true, std::memory_order_release);
  SignalDescriptor(stop_.Value());
  thread_.join();
}

void MailboxLink::OpenHandle(std::uint64_t handle, std::uint32_t mode) {
  sender_.Send(lablink::kOpen, handle, mode);
}

void MailboxLink::CloseHandle(std::uint64_t handle) {
  {
    std::lock_guard guard(WaitLock());
    std::erase_if(pending_, [&](const auto& entry) { return entry.second.handle == handle; });
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
    Wakes wakes;
    std::lock_guard guard(WaitLock());
    if (gone_) return Fail(kErrorDeviceNotConnected);
    count = ++readsArmed_;
    Register(record, count);
    armed_.push_back({handle, buffer, size, record, port});
    if (!waitingFrames_.empty()) {
      const std::vector<std::uint8_t> frame = std::move(waitingFrames_.front());
      waitingFrames_.pop_front();
      TakeFrame(&wakes, frame);
    }
  }
  sender_.SendRead(count, size);
  return true;
}

bool MailboxLink::Cancel(std::uint64_t handle, RequestRecord* record) {
  std::vector<std::uint64_t> cancelled;
  bool found = false;
  {
    Wakes wakes;
    std::lock_guard guard(WaitLock());
    auto wanted = [&](std::uint64_t owner, const RequestRecord* candidate) {
      return owner == handle && (record == nullptr || record == candidate);
    };
    std::erase_if(pending_, [&](const auto& entry) {
      if (!wanted(entry.second.handle, entry.second.record)) return false;
      FinishRecord(&wakes, entry.second.record, kErrorOperationAborted, 0);
      cancelled.push_back(entry.first);
      return true;
    });
    std::erase_if(armed_, [&](const Armed& read) {
      if (!wanted(read.handle, read.record)) return false;
      FinishRead(&wakes, read.port, read.record, kErrorOperationAborted, 0);
      return found = true;
    });
  }
  for (std::uint64_t id : cancelled) sender_.Send(lablink::kCancel, id, 0);
  return found || !cancelled.empty();
}

// Makes the calling thread the leader while it lives, with WaitLock released meanwhile. At its end
// it schedules the backstop, in case no other leader follows.
class MailboxLink::Leading {
 public:
  Leading(MailboxLink* link, std::unique_lock<std::mutex>* lock) : link_(link), lock_(lock) {
    assert(lock_->owns_lock() && !link_->led_);
    link_->led_ = true;
    lock_->unlock();
  }
  Leading(const Leading&) = delete;
  Leading& operator=(const Leading&) = delete;
  ~Leading() {
    lock_->lock();
    link_->led_ = false;
    link_->CallBackstop();
  }

 private:
  MailboxLink* const link_;
  std::unique_lock<std::mutex>* const lock_;
};

// Under WaitLock. One start of the timer serves all leaders of a millisecond.
void MailboxLink::CallBackstop() {
  if (backstopCalled_) return;
  backstopCalled_ = true;
  const itimerspec soon{{0, 0}, {0, kBackstopNanoseconds}};
  ::timerfd_settime(timer_.Value(), 0, &soon, nullptr);
}

void MailboxLink::AwaitFinished(PortState* port, std::unique_lock<std::mutex>* lock) {
  assert(lock->owns_lock() && lock->mutex() == &WaitLock());
  while (port->queue.empty()) {
    if (led_ || gone_) {
      follower_ = &port->changed;
      WaitTurn(*lock, port->changed, Deadline::max());
      continue;
    }
    Leading leading(this, lock);
    if (AwaitReadable(EndDescriptor())) {
      (void)TakeBatch();  // the link's end completes the reads too
    } else {
      LeaveIfEnded();
    }
  }
}

void MailboxLink::WakeLeader() { SignalDescriptor(bell_.Value()); }

void MailboxLink::RunBackstop() {
  while (!stopping_.load(std::memory_order_acquire)) {
    while (LeadOnce()) {
    }
    AwaitCall();
  }
}

// Takes one batch as the backstop. Returns false when another thread should lead, or none.
bool MailboxLink::LeadOnce() {
  Wakes wakes;
  std::unique_lock lock(WaitLock());
  if (led_ || gone_) return false;
  {
    Leading leading(this, &lock);
    if (!AwaitReadable(stop_.Value()) || !TakeBatch()) return false;
  }
  if (follower_ == nullptr) return true;
  wakes.Add(*std::exchange(follower_, nullptr));
  return false;
}

// Blocks until the link may have been without a leader for a while, or until the stop.
void MailboxLink::AwaitCall() {
  pollfd fds[2] = {{timer_.Value(), POLLIN, 0}, {stop_.Value(), POLLIN, 0}};
  ::poll(fds, 2, -1);
  ResetDescriptor(timer_.Value());
  std::lock_guard guard(WaitLock());
  backstopCalled_ = false;
}

// Blocks the leader until bytes of the firmware or the bell arrive, and flushes the outbox
// meanwhile. Returns false when `endDescriptor` became readable instead.
bool MailboxLink::AwaitReadable(int endDescriptor) {
  for (;;) {
    const LinkSender::Demand demand = sender_.CurrentDemand();
    const short events = static_cast<short>(POLLIN | (demand.room ? POLLOUT : 0));
    pollfd fds[3] = {
        {socket_.Value(), events, 0}, {bell_.Value(), POLLIN, 0}, {endDescriptor, POLLIN, 0}};
    const int ready = ::poll(fds, 3, demand.holdsReads ? kHoldReadsMs : -1);
    if (ready < 0) continue;  // interrupted
    if (ready == 0) sender_.HoldReads(false);
    if (fds[2].revents != 0) return false;
    if ((fds[0].revents & POLLOUT) != 0) sender_.Flush();
    if (fds[1].revents != 0) ResetDescriptor(bell_.Value());
    if (fds[1].revents != 0 || (fds[0].revents & ~POLLOUT) != 0) return true;
  }
}

// The leader's: receives what has arrived and serves its messages. The threads that they concern
// are woken once all have been served. Returns false when the link has ended.
bool MailboxLink::TakeBatch() {
  const std::span<std::uint8_t> room = reader_.Room();
  const ssize_t n = ::recv(socket_.Value(), room.data(), room.size(), MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  Wakes wakes;
  if (n > 0) reader_.Filled(static_cast<std::size_t>(n));
  if (n > 0 && TakeMessages(&wakes)) return true;
  EndLink(&wakes);
  return false;
}

// Returns false for a stream that isn't one of the lab link.
bool MailboxLink::TakeMessages(Wakes* wakes) {
  lablink::Message message;
  lablink::Parsed result;
  while ((result = reader_.Next(&message)) == lablink::Parsed::kMessage)
    if (!TakeMessage(wakes, message)) return false;
  return result == lablink::Parsed::kNeedMore;
}

bool MailboxLink::TakeMessage(Wakes* wakes, const lablink::Message& message) {
  const lablink::Head& head = message.head;
  switch (head.kind) {
    case lablink::kComplete:
      CompleteRequest(wakes, message);
      return true;
    case lablink::kFrame: {
      if (head.length > lablink::kMaxFrame) return false;
      sender_.HoldReads(true);
      std::lock_guard guard(WaitLock());
      TakeFrame(wakes, message.body);
      return true;
    }
    case lablink::kFailRead:
      FailRead(wakes, head.word);
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

void MailboxLink::CompleteRequest(Wakes* wakes, const lablink::Message& message) {
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
  FinishRecord(wakes, request.record, message.head.word, bytes);
}

// Under WaitLock.
void MailboxLink::TakeFrame(Wakes* wakes, std::span<const std::uint8_t> frame) {
  if (armed_.empty()) {
    waitingFrames_.emplace_back(frame.begin(), frame.end());
    return;
  }
  const Armed read = armed_.front();
  armed_.pop_front();
  if (frame.size() > read.size) return FinishRead(wakes, read.port, read.record, kErrorMoreData, 0);
  if (!frame.empty()) std::memcpy(read.buffer, frame.data(), frame.size());
  FinishRead(wakes, read.port, read.record, 0, static_cast<std::uint32_t>(frame.size()));
}

void MailboxLink::FailRead(Wakes* wakes, std::uint32_t error) {
  std::lock_guard guard(WaitLock());
  if (armed_.empty()) return;
  const Armed read = armed_.front();
  armed_.pop_front();
  FinishRead(wakes, read.port, read.record, error, 0);
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

// The device is gone: what is in flight fails, and so does every later request and read.
void MailboxLink::EndLink(Wakes* wakes) {
  std::lock_guard guard(WaitLock());
  gone_ = true;
  for (auto& [id, request] : pending_)
    FinishRecord(wakes, request.record, kErrorDeviceNotConnected, 0);
  pending_.clear();
  for (const Armed& read : armed_)
    FinishRead(wakes, read.port, read.record, kErrorDeviceNotConnected, 0);
  armed_.clear();
}

}  // namespace platform
