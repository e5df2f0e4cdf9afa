// The lab link's mailbox end.
#include "platform/linux/mailbox_link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/error.h"

namespace platform {

namespace {

constexpr std::size_t kPage = 4096;
constexpr int kHoldReadsMs = 1;

// Copies that begin a few bytes into a page are many times slower, so bodies are page-aligned.
std::byte* AllocateBody() {
  const std::size_t size = (lablink::kMaxBody + kPage - 1) / kPage * kPage;
  return static_cast<std::byte*>(std::aligned_alloc(kPage, size));
}

int Dial(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  path.copy(address.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
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

void FinishRecord(RequestRecord* record, std::uint32_t error, std::uint32_t bytes) {
  RecordState& state = StateOf(record);
  state.error = error;
  state.bytes = bytes;
  if (state.event != nullptr) SignalLocked(*state.event);
}

void FinishRead(PortState* port, RequestRecord* record, std::uint32_t error, std::uint32_t bytes) {
  FinishRecord(record, error, bytes);
  if (port == nullptr) return;
  port->queue.push_back({record, bytes, error});
  port->changed.notify_one();
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
  const int fd = Dial(path);
  if (fd < 0) return SetLastError(kErrorFileNotFound), nullptr;
  link = std::make_shared<MailboxLink>(fd);
  (*links)[path] = link;
  return link;
}

MailboxLink::MailboxLink(int descriptor)
    : descriptor_(descriptor),
      stopDescriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      body_(AllocateBody(), std::free),
      thread_([this] { Run(); }) {}

MailboxLink::~MailboxLink() {
  {
    std::lock_guard guard(sendLock_);
    stopping_ = true;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] ssize_t written = ::write(stopDescriptor_, &one, sizeof one);
  thread_.join();
  ::close(stopDescriptor_);
  ::close(descriptor_);
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
    std::lock_guard guard(WaitLock());
    if (gone_) return SetLastError(kErrorDeviceNotConnected), false;
    count = ++readsArmed_;
    StateOf(record).id = count;
    StateOf(record).error = kErrorIoPending;
    armed_.push_back({handle, buffer, size, record, port});
    if (!waitingFrames_.empty()) {
      const std::vector<std::byte> frame = std::move(waitingFrames_.front());
      waitingFrames_.pop_front();
      TakeFrame(frame);
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
    std::lock_guard guard(WaitLock());
    auto wanted = [&](std::uint64_t owner, const RequestRecord* candidate) {
      return owner == handle && (record == nullptr || record == candidate);
    };
    std::erase_if(pending_, [&](const auto& entry) {
      if (!wanted(entry.second.handle, entry.second.record)) return false;
      FinishRecord(entry.second.record, kErrorOperationAborted, 0);
      cancelled.push_back(entry.first);
      return true;
    });
    std::erase_if(armed_, [&](const Armed& read) {
      if (!wanted(read.handle, read.record)) return false;
      FinishRead(read.port, read.record, kErrorOperationAborted, 0);
      return found = true;
    });
  }
  for (std::uint64_t id : cancelled) Send(lablink::kCancel, id, 0);
  return found || !cancelled.empty();
}

void MailboxLink::Run() {
  lablink::Head head;
  while (ReadExactly(&head, sizeof head)) {
    if (head.magic != lablink::kMagic || head.length > lablink::kMaxBody) break;
    if (!ReadExactly(body_.get(), head.length) || !TakeMessage(head)) break;
  }
  EndLink();
}

bool MailboxLink::ReadExactly(void* data, std::size_t size) {
  auto* at = static_cast<std::byte*>(data);
  while (size > 0) {
    const ssize_t n = ::recv(descriptor_, at, size, MSG_DONTWAIT);
    if (n > 0) {
      at += n;
      size -= static_cast<std::size_t>(n);
      continue;
    }
    if (n == 0) return false;
    if (errno == EINTR) continue;
    if ((errno != EAGAIN && errno != EWOULDBLOCK) || !AwaitReadable()) return false;
  }
  return true;
}

// Waits for the firmware's next bytes, sending what the outbox holds meanwhile. False to stop.
bool MailboxLink::AwaitReadable() {
  for (;;) {
    short events = POLLIN;
    int timeoutMs;
    {
      std::lock_guard guard(sendLock_);
      if (stopping_) return false;
      if (!outbox_.empty()) events |= POLLOUT;
      timeoutMs = holdReads_ ? kHoldReadsMs : -1;
    }
    pollfd fds[2] = {{descriptor_, events, 0}, {stopDescriptor_, POLLIN, 0}};
    const int ready = ::poll(fds, 2, timeoutMs);
    if (ready < 0 && errno != EINTR) return false;
    if (ready == 0) HoldReads(false);
    if (fds[1].revents != 0) {
      std::uint64_t count;
      [[maybe_unused]] ssize_t n = ::read(stopDescriptor_, &count, sizeof count);
    }
    if ((fds[0].revents & POLLOUT) != 0) FlushOutbox();
    if ((fds[0].revents & ~POLLOUT) != 0) return true;
  }
}

bool MailboxLink::TakeMessage(const lablink::Head& head) {
  switch (head.kind) {
    case lablink::kComplete:
      return Complete(head), true;
    case lablink::kFrame: {
      if (head.length > lablink::kMaxFrame) return false;
      HoldReads(true);
      std::lock_guard guard(WaitLock());
      return TakeFrame({body_.get(), head.length}), true;
    }
    case lablink::kFailRead:
      return FailRead(head.word), true;
    case lablink::kPoke:
      return Poke(head), true;
    case lablink::kPeek:
      return Peek(head), true;
    default:
      return false;
  }
}

void MailboxLink::Complete(const lablink::Head& head) {
  std::lock_guard guard(WaitLock());
  auto found = pending_.find(head.id);
  if (found == pending_.end()) return;  // cancelled meanwhile
  const Pending request = found->second;
  pending_.erase(found);
  const std::uint32_t bytes = std::min(head.length, request.outputSize);
  if (bytes > 0) {
    std::memcpy(request.output, body_.get(), bytes);
    PlaceRegionAddress(request.code, request.output, bytes);
  }
  FinishRecord(request.record, head.word, bytes);
}

// Under WaitLock.
void MailboxLink::TakeFrame(std::span<const std::byte> frame) {
  if (armed_.empty()) {
    waitingFrames_.emplace_back(frame.begin(), frame.end());
    return;
  }
  const Armed read = armed_.front();
  armed_.pop_front();
  if (frame.size() > read.size) return FinishRead(read.port, read.record, kErrorMoreData, 0);
  if (!frame.empty()) std::memcpy(read.buffer, frame.data(), frame.size());
  FinishRead(read.port, read.record, 0, static_cast<std::uint32_t>(frame.size()));
}

void MailboxLink::FailRead(std::uint32_t error) {
  std::lock_guard guard(WaitLock());
  if (armed_.empty()) return;
  const Armed read = armed_.front();
  armed_.pop_front();
  FinishRead(read.port, read.record, error, 0);
}

void MailboxLink::Poke(const lablink::Head& head) {
  const std::span<std::byte> region = SharedRegion(head.id);
  if (head.word > region.size() || head.length > region.size() - head.word) return;
  // Byte by byte as atomics: the service's pumps read the region at the same time.
  for (std::uint32_t i = 0; i < head.length; ++i)
    std::atomic_ref(region[head.word + i]).store(body_.get()[i], std::memory_order_release);
}

void MailboxLink::Peek(const lablink::Head& head) {
  const std::span<std::byte> region = SharedRegion(head.id);
  std::uint32_t count = 0;
  if (head.length < sizeof count) return;
  std::memcpy(&count, body_.get(), sizeof count);
  if (head.word > region.size()) count = 0;
  count = std::min<std::uint32_t>(count, static_cast<std::uint32_t>(region.size()) - head.word);
  std::vector<std::byte> bytes(count);
  for (std::uint32_t i = 0; i < count; ++i)
    bytes[i] = std::atomic_ref(region[head.word + i]).load(std::memory_order_acquire);
  const iovec body[] = {{bytes.data(), bytes.size()}};
  Send(lablink::kMemory, head.id, head.word, body);
}

// The device has gone: what is in flight fails, and so does what comes later.
void MailboxLink::EndLink() {
  std::lock_guard guard(WaitLock());
  gone_ = true;
  for (auto& [id, request] : pending_) FinishRecord(request.record, kErrorDeviceNotConnected, 0);
  pending_.clear();
  for (const Armed& read : armed_) FinishRead(read.port, read.record, kErrorDeviceNotConnected, 0);
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
  if (outbox_.size() == before) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] ssize_t written = ::write(stopDescriptor_, &one, sizeof one);
}

void MailboxLink::FlushOutbox() {
  std::lock_guard guard(sendLock_);
  const ssize_t n =
      ::send(descriptor_, outbox_.data(), outbox_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n > 0) outbox_.erase(0, static_cast<std::size_t>(n));
}

}  // namespace platform
