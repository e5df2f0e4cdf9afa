// The lab link's mailbox end.
#include "platform/linux/lab/mailbox_link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/error.h"
#include "platform/linux/lab/lab_folder.h"

namespace platform {

namespace {

constexpr std::size_t kPage = 4096;
constexpr int kHoldReadsMs = 1;
constexpr long kBackstopNanoseconds = 1'000'000;

// Room for the longest message behind the start of any other. Page-aligned: copies that begin a few
// bytes into a page are many times slower.
constexpr std::size_t kInboxSize =
    (2 * (sizeof(lablink::Head) + lablink::kMaxBody) + kPage - 1) / kPage * kPage;

std::byte* AllocateInbox() {
  return static_cast<std::byte*>(std::aligned_alloc(kPage, kInboxSize));
}

void Drain(int descriptor) {
  std::uint64_t count;
  [[maybe_unused]] ssize_t n = ::read(descriptor, &count, sizeof count);
}

void Ring(int descriptor) {
  const std::uint64_t one = 1;
  [[maybe_unused]] ssize_t written = ::write(descriptor, &one, sizeof one);
}

// The control codes whose answer is the address of a shared region.
struct RegionCode {
  std::uint32_t code;
  std::uint64_t region;
};
constexpr RegionCode kRegionCodes[] = {{0x9C416450, lablink::kKeyboardMouseRegion},
                                       {0x9C416448, lablink::kLogRegion}};

// An answer with a non-zero first 8 bytes says that the region is there; its address is ours.
void PlaceRegionAddress(std::uint32_t code, void* output, std::uint32_t bytes) {
  for (const RegionCode& row : kRegionCodes) {
    std::uint64_t first = 0;
    if (row.code != code || bytes < sizeof first) continue;
    std::memcpy(&first, output, sizeof first);
    if (first == 0) return;
    first = reinterpret_cast<std::uint64_t>(SharedRegion(row.region).data());
    std::memcpy(output, &first, sizeof first);
  }
}

void FinishRecord(Wakes* wakes, RequestRecord* record, std::uint32_t error, std::uint32_t bytes) {
  RecordState& state = StateOf(record);
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

// The service reads and writes a region at the same time: an index, which is an aligned word, is
// moved whole, and what is moved first is seen first.
constexpr std::size_t kWord = sizeof(std::uint32_t);

std::size_t WholeWords(const std::byte* shared, std::size_t size) {
  return reinterpret_cast<std::uintptr_t>(shared) % kWord == 0 ? size / kWord * kWord : 0;
}

void StoreShared(std::span<std::byte> shared, std::span<const std::byte> from) {
  const std::size_t words = WholeWords(shared.data(), from.size());
  for (std::size_t i = 0; i < words; i += kWord) {
    std::uint32_t word;
    std::memcpy(&word, &from[i], kWord);
    std::atomic_ref(*reinterpret_cast<std::uint32_t*>(&shared[i]))
        .store(word, std::memory_order_release);
  }
  for (std::size_t i = words; i < from.size(); ++i)
    std::atomic_ref(shared[i]).store(from[i], std::memory_order_release);
}

void LoadShared(std::span<std::byte> to, std::span<std::byte> shared) {
  const std::size_t words = WholeWords(shared.data(), to.size());
  for (std::size_t i = 0; i < words; i += kWord) {
    const std::uint32_t word = std::atomic_ref(*reinterpret_cast<std::uint32_t*>(&shared[i]))
                                   .load(std::memory_order_acquire);
    std::memcpy(&to[i], &word, kWord);
  }
  for (std::size_t i = words; i < to.size(); ++i)
    to[i] = std::atomic_ref(shared[i]).load(std::memory_order_acquire);
}

}  // namespace

std::span<std::byte> SharedRegion(std::uint64_t region) {
  alignas(kPage) static std::byte keyboardMouse[lablink::kKeyboardMouseRegionSize];
  alignas(kPage) static std::byte log[lablink::kLogRegionSize];
  if (region == lablink::kKeyboardMouseRegion) return keyboardMouse;
  if (region == lablink::kLogRegion) return log;
  return {};
}

std::shared_ptr<MailboxLink> MailboxLink::Open(const std::string& path) {
  static std::mutex* lock = new std::mutex;
  static auto* links = new std::map<std::string, std::weak_ptr<MailboxLink>>;
  std::lock_guard guard(*lock);
  std::shared_ptr<MailboxLink> link = (*links)[path].lock();
  if (link) return link;
  const int fd = DialLabSocket(path);
  if (fd < 0) return SetLastError(kErrorFileNotFound), nullptr;
  link = std::make_shared<MailboxLink>(fd);
  (*links)[path] = link;
  return link;
}

MailboxLink::MailboxLink(int descriptor)
    : descriptor_(descriptor),
      stopDescriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      outboxDescriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timerDescriptor_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      inbox_(AllocateInbox(), std::free),
      thread_([this] { Run(); }) {}

MailboxLink::~MailboxLink() {
  stopping_.store(true, std::memory_order_release);
  Ring(stopDescriptor_);
  thread_.join();
  for (int each : {timerDescriptor_, outboxDescriptor_, stopDescriptor_, descriptor_})
    ::close(each);
}

void MailboxLink::TellOpen(std::uint64_t handle, std::uint32_t mode) {
  Send(lablink::kOpen, handle, mode);
}

void MailboxLink::TellClose(std::uint64_t handle) {
  {
    std::lock_guard guard(WaitLock());
    std::erase_if(pending_, [&](const auto& entry) { return entry.second.handle == handle; });
    std::erase_if(armed_, [&](const Armed& read) { return read.handle == handle; });
  }
  Send(lablink::kClose, handle, 0);
}

bool MailboxLink::Request(std::uint64_t handle, std::uint32_t code, const void* input,
                          std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                          RequestRecord* record) {
  std::uint64_t id;
  {
    std::lock_guard guard(WaitLock());
    if (gone_) return SetLastError(kErrorDeviceNotConnected), false;
    id = nextRequest_++;
    StateOf(record).id = id;
    StateOf(record).error = kErrorIoPending;
    pending_[id] = {handle, code, output, output != nullptr ? outputSize : 0, record};
  }
  const iovec body[] = {{&outputSize, sizeof outputSize}, {const_cast<void*>(input), inputSize}};
  Send(lablink::kRequest, id, code, body);
  return true;
}

bool MailboxLink::Read(std::uint64_t handle, void* buffer, std::uint32_t size,
                       RequestRecord* record, PortState* port) {
  std::uint64_t count;
  {
    Wakes wakes;
    std::lock_guard guard(WaitLock());
    if (gone_) return SetLastError(kErrorDeviceNotConnected), false;
    count = ++readsArmed_;
    StateOf(record).id = count;
    StateOf(record).error = kErrorIoPending;
    armed_.push_back({handle, buffer, size, record, port});
    if (!waitingFrames_.empty()) {
      const std::vector<std::byte> frame = std::move(waitingFrames_.front());
      waitingFrames_.pop_front();
      TakeFrame(&wakes, frame);
    }
  }
  TellRead(count, size);
  return true;
}

// Telling the firmware at once of each read armed anew would wake it for every frame, so in a run
// of frames the news travels with the next message, or a millisecond later.
void MailboxLink::TellRead(std::uint64_t count, std::uint32_t size) {
  const lablink::Head head{lablink::kMagic, lablink::kRead, count, size, 0};
  {
    std::lock_guard guard(sendLock_);
    if (holdReads_) {
      held_.append(reinterpret_cast<const char*>(&head), sizeof head);
      return;
    }
  }
  Send(lablink::kRead, count, size);
}

void MailboxLink::HoldReads(bool hold) {
  std::string due;
  {
    std::lock_guard guard(sendLock_);
    holdReads_ = hold;
    if (!hold) due.swap(held_);
  }
  if (!due.empty()) SendParts({{{due.data(), due.size()}}}, 1);
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
  for (std::uint64_t id : cancelled) Send(lablink::kCancel, id, 0);
  return found || !cancelled.empty();
}

// Leads from here to its end, without WaitLock; whoever leads reads the link. The backstop is told
// to look after the link if nobody leads for a while.
class MailboxLink::Leading {
 public:
  Leading(MailboxLink* link, std::unique_lock<std::mutex>* lock) : link_(link), lock_(lock) {
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

// Under WaitLock. One call of the timer serves for all leaders of a millisecond.
void MailboxLink::CallBackstop() {
  if (backstopCalled_) return;
  backstopCalled_ = true;
  const itimerspec soon{{0, 0}, {0, kBackstopNanoseconds}};
  ::timerfd_settime(timerDescriptor_, 0, &soon, nullptr);
}

void MailboxLink::AwaitFinished(PortState* port, std::unique_lock<std::mutex>* lock) {
  while (port->queue.empty()) {
    if (led_ || gone_) {
      follower_ = &port->changed;
      WaitTurn(*lock, port->changed, Deadline::max());
      continue;
    }
    Leading leading(this, lock);
    if (AwaitReadable(EndDescriptor())) {
      (void)TakeBatch();  // the link's end finishes the reads too
    } else {
      LeaveIfEnded();
    }
  }
}

void MailboxLink::WakeLeader() { Ring(outboxDescriptor_); }

void MailboxLink::Run() {
  while (!stopping_.load(std::memory_order_acquire)) {
    while (LeadOnce()) {
    }
    AwaitCall();
  }
}

// One batch as the backstop. False when somebody else should lead, or nobody.
bool MailboxLink::LeadOnce() {
  Wakes wakes;
  std::unique_lock lock(WaitLock());
  if (led_ || gone_) return false;
  {
    Leading leading(this, &lock);
    if (!AwaitReadable(stopDescriptor_) || !TakeBatch()) return false;
  }
  if (follower_ == nullptr) return true;
  wakes.Add(*std::exchange(follower_, nullptr));
  return false;
}

// Waits until nobody may have led for a while, or for the stop.
void MailboxLink::AwaitCall() {
  pollfd fds[2] = {{timerDescriptor_, POLLIN, 0}, {stopDescriptor_, POLLIN, 0}};
  ::poll(fds, 2, -1);
  Drain(timerDescriptor_);
  std::lock_guard guard(WaitLock());
  backstopCalled_ = false;
}

// The leader's wait for the firmware's next bytes or for a ring, sending what the outbox holds
// meanwhile. False when `endDescriptor` became readable instead.
bool MailboxLink::AwaitReadable(int endDescriptor) {
  for (;;) {
    short events = POLLIN;
    int timeoutMs;
    {
      std::lock_guard guard(sendLock_);
      if (!outbox_.empty()) events |= POLLOUT;
      timeoutMs = holdReads_ ? kHoldReadsMs : -1;
    }
    pollfd fds[3] = {
        {descriptor_, events, 0}, {outboxDescriptor_, POLLIN, 0}, {endDescriptor, POLLIN, 0}};
    const int ready = ::poll(fds, 3, timeoutMs);
    if (ready < 0) continue;  // interrupted
    if (ready == 0) HoldReads(false);
    if (fds[2].revents != 0) return false;
    if ((fds[0].revents & POLLOUT) != 0) FlushOutbox();
    if (fds[1].revents != 0) Drain(outboxDescriptor_);
    if (fds[1].revents != 0 || (fds[0].revents & ~POLLOUT) != 0) return true;
  }
}

// The leader's: takes what has come, and serves the messages that are whole. Who gets something is
// woken when all of them have been served. False when the link has ended.
bool MailboxLink::TakeBatch() {
  const ssize_t n = ::recv(descriptor_, inbox_.get() + filled_, kInboxSize - filled_, MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  Wakes wakes;
  if (n <= 0) return EndLink(&wakes), false;
  filled_ += static_cast<std::size_t>(n);
  std::size_t at = 0;
  lablink::Head head;
  while (filled_ - at >= sizeof head) {
    std::memcpy(&head, inbox_.get() + at, sizeof head);
    if (head.magic != lablink::kMagic || head.length > lablink::kMaxBody)
      return EndLink(&wakes), false;
    if (filled_ - at < sizeof head + head.length) break;
    const std::span<const std::byte> body(inbox_.get() + at + sizeof head, head.length);
    if (!TakeMessage(&wakes, head, body)) return EndLink(&wakes), false;
    at += sizeof head + head.length;
  }
  filled_ -= at;
  if (at > 0 && filled_ > 0) std::memmove(inbox_.get(), inbox_.get() + at, filled_);
  return true;
}

bool MailboxLink::TakeMessage(Wakes* wakes, const lablink::Head& head, Body body) {
  switch (head.kind) {
    case lablink::kComplete:
      return Complete(wakes, head, body), true;
    case lablink::kFrame: {
      if (head.length > lablink::kMaxFrame) return false;
      HoldReads(true);
      std::lock_guard guard(WaitLock());
      return TakeFrame(wakes, body), true;
    }
    case lablink::kFailRead:
      return FailRead(wakes, head.word), true;
    case lablink::kPoke:
      return Poke(head, body), true;
    case lablink::kPeek:
      return Peek(head, body), true;
    default:
      return false;
  }
}

void MailboxLink::Complete(Wakes* wakes, const lablink::Head& head, Body body) {
  std::lock_guard guard(WaitLock());
  auto found = pending_.find(head.id);
  if (found == pending_.end()) return;  // cancelled meanwhile
  const Pending request = found->second;
  pending_.erase(found);
  const std::uint32_t bytes = std::min(head.length, request.outputSize);
  if (bytes > 0) {
    std::memcpy(request.output, body.data(), bytes);
    PlaceRegionAddress(request.code, request.output, bytes);
  }
  FinishRecord(wakes, request.record, head.word, bytes);
}

// Under WaitLock.
void MailboxLink::TakeFrame(Wakes* wakes, std::span<const std::byte> frame) {
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

void MailboxLink::Poke(const lablink::Head& head, Body body) {
  const std::span<std::byte> region = SharedRegion(head.id);
  if (head.word > region.size() || head.length > region.size() - head.word) return;
  StoreShared(region.subspan(head.word, head.length), body);
}

void MailboxLink::Peek(const lablink::Head& head, Body input) {
  const std::span<std::byte> region = SharedRegion(head.id);
  std::uint32_t count = 0;
  if (head.length < sizeof count) return;
  std::memcpy(&count, input.data(), sizeof count);
  if (head.word > region.size()) count = 0;
  count = std::min<std::uint32_t>(count, static_cast<std::uint32_t>(region.size()) - head.word);
  std::vector<std::byte> bytes(count);
  LoadShared(bytes, region.subspan(head.word, count));
  const iovec body[] = {{bytes.data(), bytes.size()}};
  Send(lablink::kMemory, head.id, head.word, body);
}

// The device has gone: what is in flight fails, and so does what comes later.
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

void MailboxLink::Send(std::uint32_t kind, std::uint64_t id, std::uint32_t word,
                       std::span<const iovec> body) {
  lablink::Head head{lablink::kMagic, kind, id, word, 0};
  Parts parts{{{&head, sizeof head}}};
  std::size_t count = 1;
  for (const iovec& part : body) {
    if (part.iov_len == 0) continue;
    parts[count++] = part;
    head.length += static_cast<std::uint32_t>(part.iov_len);
  }
  SendParts(parts, count);
}

// Sends what the socket takes, behind the reads that were held; the rest goes to the outbox.
void MailboxLink::SendParts(Parts parts, std::size_t count) {
  std::lock_guard guard(sendLock_);
  std::string held;
  held.swap(held_);
  if (!held.empty()) {
    std::copy_backward(parts.begin(), parts.begin() + count, parts.begin() + count + 1);
    parts[0] = {held.data(), held.size()};
    ++count;
  }
  std::size_t sent = 0;
  if (outbox_.empty()) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    const ssize_t n = ::sendmsg(descriptor_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN && errno != EINTR) return;  // the link's end is seen by its thread
    sent = n > 0 ? static_cast<std::size_t>(n) : 0;
  }
  KeepRest({parts.data(), count}, sent);
}

// Under sendLock_: what follows the first `sent` bytes goes to the outbox.
void MailboxLink::KeepRest(std::span<const iovec> parts, std::size_t sent) {
  const std::size_t before = outbox_.size();
  for (const iovec& part : parts) {
    const std::size_t skip = std::min(sent, part.iov_len);
    sent -= skip;
    outbox_.append(static_cast<const char*>(part.iov_base) + skip, part.iov_len - skip);
  }
  if (outbox_.size() > before) Ring(outboxDescriptor_);
}

void MailboxLink::FlushOutbox() {
  std::lock_guard guard(sendLock_);
  const ssize_t n =
      ::send(descriptor_, outbox_.data(), outbox_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n > 0) outbox_.erase(0, static_cast<std::size_t>(n));
}

}  // namespace platform
