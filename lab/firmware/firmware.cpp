#include "lab/firmware/firmware.h"

#include <cstring>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

// winerror.h.
constexpr std::uint32_t kErrorInvalidFunction = 1;
constexpr std::uint32_t kErrorInvalidParameter = 87;
constexpr std::uint32_t kErrorNoSystemResources = 1450;

// The service keeps so many reads outstanding; with the last of them the mailbox is ready.
constexpr std::uint64_t kReadsOfService = 10;
// Bulk output stops at so much that the link hasn't taken, and at so many frames that no read of
// the host has taken.
constexpr std::size_t kMaxLinkQueue = std::size_t{1} << 20;
constexpr std::uint64_t kMaxFramesAhead = 32;
// What a silent firmware keeps before it refuses more.
constexpr std::size_t kMaxHeldRequests = 4096;
constexpr std::size_t kMaxHeldBytes = std::size_t{64} << 20;
constexpr std::size_t kMaxShownBytes = 1024;

}  // namespace

Firmware::Firmware(Trace& trace, LinkWriter& link, const TlsContext& tls)
    : trace_(trace), link_(link), tls_(tls), kvm_(*this) {}

void Firmware::MailboxArrived() {
  hasMailbox_ = true;
  readsArmed_ = readsSpent_ = 0;
  saidArmed_ = false;
  kvm_.HostArrived();
  trace_.Note("a mailbox end has connected");
}

void Firmware::MailboxLeft(const std::string& why) {
  hasMailbox_ = false;
  held_.clear();
  heldBytes_ = 0;
  dash_.reset();
  kvm_.HostLeft();
  peeks_.clear();
  link_.Clear();
  trace_.Note("the mailbox end has gone: " + why);
}

bool Firmware::Take(const LinkMessage& message) {
  switch (message.head.kind) {
    case lablink::kOpen:
    case lablink::kClose:
      TakeHandle(message.head);
      return true;
    case lablink::kRequest:
      return TakeRequest(message);
    case lablink::kCancel:
      TakeCancel(message.head);
      return true;
    case lablink::kRead:
      TakeRead(message.head);
      return true;
    case lablink::kMemory:
      TakeMemory(message);
      return true;
    default:
      trace_.HostToFirmware(Format("message of unknown kind %u, %u bytes: passed over",
                                   message.head.kind, message.head.length));
      return true;
  }
}

void Firmware::TakeHandle(const lablink::Head& head) {
  const bool opens = head.kind == lablink::kOpen;
  const bool isRequestHandle = head.word == 1;
  trace_.HostToFirmware(Format("%s of the %s handle, number %llu", opens ? "OPEN" : "CLOSE",
                               isRequestHandle ? "request" : "interrupt",
                               static_cast<unsigned long long>(head.id)));
  if (isRequestHandle) {
    // A new process behind an old link has a new region too.
    if (opens) kvm_.HostArrived();
    // Nobody waits any longer for what that handle asked.
    if (!opens) held_.clear();
    if (!opens) heldBytes_ = 0;
    return;
  }
  readsArmed_ = readsSpent_ = 0;
  saidArmed_ = false;
}

void Firmware::TakeRead(const lablink::Head&) {
  readsArmed_++;
  if (readsArmed_ != kReadsOfService || saidArmed_) return;
  saidArmed_ = true;
  trace_.HostToFirmware(
      Format("ten reads armed (%llu)", static_cast<unsigned long long>(kReadsOfService)));
}

void Firmware::TakeCancel(const lablink::Head& head) {
  const auto id = static_cast<unsigned long long>(head.id);
  for (auto request = held_.begin(); request != held_.end(); ++request) {
    if (request->id != head.id) continue;
    trace_.HostToFirmware(Format("CANCEL of request %llu, which was held", id));
    heldBytes_ -= request->input.size();
    held_.erase(request);
    return;
  }
  trace_.HostToFirmware(Format("CANCEL of request %llu, which isn't held", id));
}

void Firmware::TakeMemory(const LinkMessage& message) {
  const bool isForConsole = !peeks_.empty() && peeks_.front();
  if (!peeks_.empty()) peeks_.pop_front();
  if (isForConsole) return kvm_.InputMemory(message.body);
  const ByteView shown = message.body.first(std::min(message.body.size(), kMaxShownBytes));
  trace_.HostToFirmware(Format("memory of region %llu at offset %u, %zu bytes: ",
                               static_cast<unsigned long long>(message.head.id), message.head.word,
                               message.body.size()) +
                        HexFromBytes(shown) + (shown.size() < message.body.size() ? " ..." : ""));
}

bool Firmware::TakeRequest(const LinkMessage& message) {
  Request request{message.head.id, message.head.word, 0, {}};
  if (message.body.size() < sizeof(request.outputSize)) return false;
  std::memcpy(&request.outputSize, message.body.data(), sizeof(request.outputSize));
  const ByteView input = message.body.subspan(sizeof(request.outputSize));
  request.input.assign(input.begin(), input.end());
  trace_.HostToFirmware(DescribeRequest(request));
  if (!IsSilent(request.code)) {
    Serve(request);
    return true;
  }
  if (held_.size() >= kMaxHeldRequests || heldBytes_ + input.size() > kMaxHeldBytes) {
    trace_.Note("too many requests are held; this one is refused");
    Complete(request, kErrorNoSystemResources, {});
    return true;
  }
  trace_.Note(
      Format("request %llu is held unanswered", static_cast<unsigned long long>(request.id)));
  heldBytes_ += input.size();
  held_.push_back(std::move(request));
  return true;
}

bool Firmware::IsSilent(std::uint32_t code) const { return silentAll_ || silent_.contains(code); }

void Firmware::Serve(const Request& request) {
  const Operation* operation = FindOperation(request.code);
  if (!operation) return Complete(request, kErrorInvalidFunction, {});
  if (!FitsInput(*operation, request.input)) return Complete(request, kErrorInvalidParameter, {});
  if (const std::uint32_t error = TakeFailure(request.code)) {
    trace_.Note(Format("%s fails with error %u, as told", operation->name, error));
    return Complete(request, error, {});
  }
  const Action* action = FindAction(request.code);
  const bool answers = action && action->answer;
  Complete(request, 0, answers ? (this->*action->answer)(request.input) : Bytes());
  if (action && action->act) (this->*action->act)(request.input);
}

void Firmware::Complete(const Request& request, std::uint32_t error, ByteView output) {
  const std::size_t count = std::min<std::size_t>(output.size(), request.outputSize);
  link_.Send(lablink::kComplete, request.id, error, output.first(count));
}

std::uint32_t Firmware::TakeFailure(std::uint32_t code) {
  const auto one = failures_.find(code);
  Failure* failure = one != failures_.end() ? &one->second
                     : failureOfAll_        ? &*failureOfAll_
                                            : nullptr;
  if (!failure) return 0;
  const std::uint32_t error = failure->error;
  if (!failure->countLeft || --*failure->countLeft > 0) return error;
  if (one != failures_.end()) {
    failures_.erase(one);
  } else {
    failureOfAll_.reset();
  }
  return error;
}

void Firmware::SetSilence(const Operation* operation, bool on) {
  if (operation) {
    on ? (void)silent_.insert(operation->code) : (void)silent_.erase(operation->code);
  } else {
    silentAll_ = on;
    if (!on) silent_.clear();
  }
  if (!on) AnswerHeld();
}

void Firmware::AnswerHeld() {
  std::deque<Request> held = std::exchange(held_, {});
  heldBytes_ = 0;
  for (Request& request : held) {
    if (!IsSilent(request.code)) {
      Serve(request);
      continue;
    }
    heldBytes_ += request.input.size();
    held_.push_back(std::move(request));
  }
}

void Firmware::SetFailure(const Operation* operation, std::uint32_t error,
                          std::optional<std::uint64_t> count) {
  const bool takesBack = error == 0 || count == 0u;
  if (!operation) {
    failureOfAll_.reset();
    if (takesBack) return failures_.clear();
    failureOfAll_ = Failure{error, count};
    return;
  }
  failures_.erase(operation->code);
  if (!takesBack) failures_[operation->code] = Failure{error, count};
}

bool Firmware::SendFrame(ByteView frame, const std::string& words) {
  if (!hasMailbox_) {
    trace_.Note("no mailbox end is connected; not sent: " + words);
    return false;
  }
  if (frame.size() > lablink::kMaxFrame) {
    trace_.Note("longer than a frame can be; not sent: " + words);
    return false;
  }
  readsSpent_++;
  link_.Send(lablink::kFrame, 0, 0, frame);
  trace_.FirmwareToHost(words);
  return true;
}

bool Firmware::SendCommandFrame(std::uint8_t code, ByteView payload) {
  const Bytes frame = MakeFrame(code, payload);
  return SendFrame(frame, DescribeFrame(frame));
}

bool Firmware::SendRawFrame(ByteView frame) { return SendFrame(frame, DescribeFrame(frame)); }

bool Firmware::FailRead(std::uint32_t error) {
  if (!hasMailbox_) return false;
  readsSpent_++;
  link_.Send(lablink::kFailRead, 0, error, {});
  trace_.FirmwareToHost(Format("the oldest read fails with error %u", error));
  return true;
}

bool Firmware::Poke(std::uint64_t region, std::uint32_t offset, ByteView bytes) {
  if (!hasMailbox_) return false;
  link_.Send(lablink::kPoke, region, offset, bytes);
  trace_.FirmwareToHost(Format("%zu bytes into region %llu at offset %u", bytes.size(),
                               static_cast<unsigned long long>(region), offset));
  return true;
}

bool Firmware::Peek(std::uint64_t region, std::uint32_t offset, std::uint32_t count) {
  if (!hasMailbox_) return false;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&count);
  link_.Send(lablink::kPeek, region, offset, {bytes, sizeof(count)});
  peeks_.push_back(false);
  return true;
}

void Firmware::SendKvmBytes(ByteView bytes) {
  const Bytes frame = MakeFrame(kKvmData, bytes);
  (void)SendFrame(frame, DescribeFrame(frame));
}

// Input goes into the rings at the rate of its events: the console says what it was, once, and the
// words of the messages would only repeat it.
void Firmware::PokeInput(std::uint32_t offset, ByteView bytes) {
  if (hasMailbox_) link_.Send(lablink::kPoke, lablink::kKeyboardMouseRegion, offset, bytes);
}

void Firmware::PeekInput(std::uint32_t offset, std::uint32_t count) {
  if (Peek(lablink::kKeyboardMouseRegion, offset, count)) peeks_.back() = true;
}

void Firmware::SendDashBytes(ByteView bytes) {
  const Bytes frame = MakeFrame(kDashData, bytes);
  (void)SendFrame(frame, DescribeFrame(frame) + ", " + toPeer_.Describe(bytes));
}

// Without a mailbox end there is no session either, so nothing is lost unsaid.
void Firmware::SendCommand(std::uint8_t code) { (void)SendCommandFrame(code, {}); }

// A mailbox end that tells nothing of its reads isn't held back by them.
bool Firmware::HasRoom() const {
  const bool readsKeepUp = readsArmed_ == 0 || readsSpent_ < readsArmed_ + kMaxFramesAhead;
  return link_.Pending() < kMaxLinkQueue && readsKeepUp;
}

void Firmware::Say(const std::string& words) { trace_.Note(words); }

void Firmware::Pump() {
  if (dash_ && dash_->IsWaitingForRoom() && HasRoom()) dash_->Pump();
  if (hasMailbox_) kvm_.Pump();
}

}  // namespace orrin
