// The far end behind a mailbox: a minimal firmware that serves the stream. It does the server's
// work for the peers, within the lab link's frames and as cheaply: the bytes of a request are
// received where they are sent from, and all answers to a request are sent in one write.
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "bench/relay/ends.h"
#include "bench/relay/stream.h"
#include "lablink/lab_link.h"
#include "service/mailbox/control_codes.h"
#include "service/mailbox/dispatcher.h"
#include "service/mailbox/messages.h"
#include "service/mailbox/records.h"

namespace relay {

namespace {

using stewardry::ControlCodeFor;
using stewardry::Operation;

constexpr std::uint32_t kReadVersion = ControlCodeFor(Operation::kGetTavrinVersion).code;
constexpr std::uint32_t kReadStatus = ControlCodeFor(Operation::kGetOrrinStatus).code;
constexpr std::uint32_t kNewConnection = ControlCodeFor(Operation::kSendIPCompleteInfomartion).code;
constexpr std::uint32_t kDashBytes = ControlCodeFor(Operation::kWriteDASHPacket).code;
constexpr std::uint32_t kKvmBytes = ControlCodeFor(Operation::kWriteKVMPacket).code;
constexpr std::uint32_t kGone = ControlCodeFor(Operation::kSendCloseSocketcmd).code;
constexpr std::uint32_t kRegion = ControlCodeFor(Operation::kInitializeKeyboardMousePointers).code;

constexpr std::uint16_t kKvmPort = 22;

// What follows a frame's payload: the command code and one byte.
using Trailer = std::uint8_t[2];
constexpr Trailer kDashData = {stewardry::ORRIN_TAVRIN_CMD_DASH_DATA, 0};
constexpr Trailer kKvmData = {stewardry::ORRIN_TAVRIN_CMD_KVM_DATA, 0};
constexpr Trailer kKvmOn = {stewardry::ORRIN_TAVRIN_CMD_KVM_ENABLE_STATUS, 0};
constexpr Trailer kKvmPeer = {stewardry::ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO, 0};
constexpr std::uint64_t kAnyPeer = 0;  // address and port
// Whole pages: a TCP stream goes on in the page where the frame before ended, and a copy that
// begins a few bytes into a page is many times slower.
constexpr std::size_t kLongestPayload = (lablink::kMaxFrame - sizeof(Trailer)) / kPage * kPage;
constexpr std::uint32_t kGeneralFailure = 31;     // ERROR_GEN_FAILURE
constexpr std::uint64_t kSomeAddress[] = {1, 0};  // replaced by the mailbox end
constexpr std::uint8_t kUp = 1;  // the status of a firmware that needs no new reports

// What a mailbox end sends. The first bytes of each message are received into a page, in one call
// with the short messages around it; the rest of a long body is received where it is wanted.
class Inlet {
 public:
  explicit Inlet(int sock) : sock_(sock) {}

  // Takes the next `size` bytes. Returns false at the end of the stream.
  bool Take(void* target, std::size_t size) {
    auto* at = static_cast<std::byte*>(target);
    while (size > 0) {
      if (begin_ == end_ && size >= page_.Size()) return ReceiveAll(sock_, at, size);
      if (begin_ == end_ && !Fill()) return false;
      const std::size_t part = std::min(size, end_ - begin_);
      std::memcpy(at, page_.Data() + begin_, part);
      begin_ += part;
      at += part;
      size -= part;
    }
    return true;
  }

 private:
  bool Fill() {
    ssize_t n;
    do {
      n = ::recv(sock_, page_.Data(), page_.Size(), 0);
    } while (n < 0 && errno == EINTR);
    begin_ = 0;
    end_ = n > 0 ? static_cast<std::size_t>(n) : 0;
    return n > 0;
  }

  const int sock_;
  PageBuffer page_{kPage};
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// The messages that answer one request, gathered until Flush.
class Answer {
 public:
  explicit Answer(int sock) : sock_(sock) {}

  // Requires `body` to stay unchanged until Flush.
  void Complete(std::uint64_t id, const void* body, std::size_t size) {
    PutHead(lablink::kComplete, id, size);
    Put(body, size);
  }
  void Fail(std::uint64_t id, std::uint32_t error) { PutHead(lablink::kComplete, id, 0, error); }
  void Frame(const Trailer& trailer, const void* payload, std::size_t size) {
    PutHead(lablink::kFrame, 0, size + sizeof trailer);
    Put(payload, size);
    Put(trailer, sizeof trailer);
  }
  // Sends the payload in as many frames as it takes.
  void Frames(const Trailer& trailer, const std::byte* payload, std::size_t size) {
    while (size > 0) {
      const std::size_t part = std::min(size, kLongestPayload);
      Frame(trailer, payload, part);
      payload += part;
      size -= part;
    }
  }

  bool Flush() {
    iovec* at = parts_.data();
    while (count_ > 0) {
      msghdr message{};
      message.msg_iov = at;
      message.msg_iovlen = count_;
      const ssize_t n = ::sendmsg(sock_, &message, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return false;
      Drop(&at, static_cast<std::size_t>(n));
    }
    heads_ = 0;
    return true;
  }

 private:
  // A completion, and the frames of the longest answer.
  static constexpr std::size_t kHeads = 2 + (kPicture + kLongestPayload - 1) / kLongestPayload;

  void PutHead(std::uint32_t kind, std::uint64_t id, std::size_t length, std::uint32_t word = 0) {
    head_[heads_] = lablink::MakeHead(kind, id, word, length);
    Put(&head_[heads_++], sizeof(lablink::Head));
  }
  void Put(const void* data, std::size_t size) {
    if (size > 0) parts_.at(count_++) = {const_cast<void*>(data), size};
  }
  void Drop(iovec** at, std::size_t sent) {
    for (; count_ > 0 && sent >= (*at)->iov_len; --count_, ++*at) sent -= (*at)->iov_len;
    if (count_ == 0) return;
    (*at)->iov_base = static_cast<std::byte*>((*at)->iov_base) + sent;
    (*at)->iov_len -= sent;
  }

  const int sock_;
  std::array<lablink::Head, kHeads> head_{};
  std::array<iovec, 3 * kHeads> parts_{};
  std::size_t heads_ = 0;
  std::size_t count_ = 0;
};

// The stream of the latest connection that the service has announced on a port.
class Stream {
 public:
  // Requires `trailer` to outlive the stream.
  explicit Stream(const Trailer& trailer) : trailer_(trailer) {}
  void Begin() {
    started_ = false;
    filled_ = 0;
    taken_ = 0;
  }
  // Returns where the next request's bytes go; null if they don't fit.
  std::byte* Room(std::size_t size) {
    return filled_ + size <= room_.Size() ? room_.Data() + filled_ : nullptr;
  }
  // Counts `size` bytes that were put there, and adds the frames they cause to the answer.
  void Take(std::size_t size, Answer* answer) {
    filled_ += size;
    if (!started_ && !TakeHead()) return;
    if (head_.roundSize == 0) {
      TakeSink(answer);
    } else if (filled_ >= head_.roundSize) {
      answer->Frames(trailer_, room_.Data(), head_.total != 0 ? head_.total : head_.roundSize);
      filled_ = 0;  // the client sends the next round behind this one
    }
  }

 private:
  bool TakeHead() {
    if (filled_ < sizeof head_) return false;
    std::memcpy(&head_, room_.Data(), sizeof head_);
    filled_ -= sizeof head_;
    std::memmove(room_.Data(), room_.Data() + sizeof head_, filled_);
    started_ = head_.roundSize <= kChunk && (head_.roundSize == 0 || head_.total <= kPicture);
    return started_;
  }
  void TakeSink(Answer* answer) {
    const bool before = taken_ < head_.total;
    taken_ += filled_;
    filled_ = 0;
    if (before && taken_ >= head_.total) answer->Frame(trailer_, &taken_, sizeof taken_);
  }

  const Trailer& trailer_;
  PageBuffer room_{kPicture};
  StreamHead head_{};
  bool started_ = false;
  std::size_t filled_ = 0;
  std::uint64_t taken_ = 0;
};

// One mailbox end, from its connect to its close.
class Mailbox {
 public:
  Mailbox(Descriptor sock, bool withInput)
      : sock_(std::move(sock)), withInput_(withInput), inlet_(sock_.Get()), answer_(sock_.Get()) {
    version_.provisionStatus = stewardry::kProvisioned;
    std::strcpy(version_.version, "bench");
  }

  void Serve() {
    EnableKvm();
    if (!answer_.Flush()) return;
    lablink::Head head;
    while (inlet_.Take(&head, sizeof head) && lablink::IsMessage(head)) {
      if (!(head.kind == lablink::kRequest ? ServeRequest(head) : Skip(head.length))) return;
    }
  }

 private:
  static constexpr std::uint32_t kOutputSize = sizeof(std::uint32_t);

  // The bytes of the stream are received where they are sent from.
  bool ServeRequest(const lablink::Head& head) {
    if (head.length < kOutputSize) return false;
    const std::size_t size = head.length - kOutputSize;
    Stream* stream = StreamOf(head.word);
    std::byte* room = stream != nullptr ? stream->Room(size) : unread_.Data();
    std::uint32_t outputSize;  // the answers' sizes are known without it
    if (room == nullptr || !inlet_.Take(&outputSize, sizeof outputSize)) return false;
    if (!inlet_.Take(room, size)) return false;
    if (stream != nullptr) {
      answer_.Complete(head.id, nullptr, 0);
      stream->Take(size, &answer_);
    } else {
      AnswerQuestion(head);
    }
    return answer_.Flush();
  }
  Stream* StreamOf(std::uint32_t code) {
    return code == kDashBytes ? &dash_ : code == kKvmBytes ? &kvm_ : nullptr;
  }
  void EnableKvm() {
    answer_.Frame(kKvmOn, nullptr, 0);
    answer_.Frame(kKvmPeer, &kAnyPeer,
                  sizeof kAnyPeer);  // without it a viewer waits for its address
  }
  void AnswerQuestion(const lablink::Head& head) {
    if (head.word == kNewConnection) (AnnouncesKvm() ? kvm_ : dash_).Begin();
    if (head.word == kReadVersion) return answer_.Complete(head.id, &version_, sizeof version_);
    if (head.word == kRegion && !withInput_) return answer_.Fail(head.id, kGeneralFailure);
    if (head.word == kRegion) return answer_.Complete(head.id, kSomeAddress, sizeof kSomeAddress);
    answer_.Complete(head.id, &kUp, head.word == kReadStatus ? sizeof kUp : 0);
    // A session's end turns KVM off.
    if (head.word == kGone && *reinterpret_cast<std::uint16_t*>(unread_.Data()) == kKvmPort)
      EnableKvm();
  }
  // Returns whether the request announces a connection to port 22.
  bool AnnouncesKvm() {
    stewardry::IPInfo info;
    std::memcpy(&info, unread_.Data(), sizeof info);
    return info.localPort == kKvmPort;
  }
  bool Skip(std::size_t size) {
    return size <= unread_.Size() && inlet_.Take(unread_.Data(), size);
  }

  const Descriptor sock_;
  const bool withInput_;
  Inlet inlet_;
  Answer answer_;
  Stream dash_{kDashData};
  Stream kvm_{kKvmData};
  PageBuffer unread_{lablink::kMaxBody};
  stewardry::TavrinVersionInfo version_{};
};

}  // namespace

int RunFirmware(const std::string& unixPath, bool withInput) {
  const Descriptor listener = ListenUnix(unixPath);
  if (!listener) return 1;
  for (;;) {
    Descriptor sock = Accept(listener);
    if (sock) Mailbox(std::move(sock), withInput).Serve();
  }
}

}  // namespace relay
