#include "lab/firmware/firmware.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <utility>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/firmware_actions.h"

namespace orrin {
namespace {

// winerror.h.
constexpr std::uint32_t kErrorInvalidFunction = 1;
constexpr std::uint32_t kErrorInvalidParameter = 87;
constexpr std::uint32_t kErrorNoSystemResources = 1450;

// The number of reads that the service keeps outstanding. With the last of them the mailbox is
// ready.
constexpr std::uint64_t kReadsOfService = 10;
// Bounds of bulk output: bytes that the link has not taken, and frames for which the host has armed
// no read.
constexpr std::size_t kMaxLinkQueue = std::size_t{1} << 20;
constexpr std::uint64_t kMaxFramesAhead = 32;
// What a silent firmware holds before it refuses more.
constexpr std::size_t kMaxHeldRequests = 4096;
constexpr std::size_t kMaxHeldBytes = std::size_t{64} << 20;
constexpr std::size_t kMaxShownBytes = 1024;

struct Request {
  std::uint64_t id;
  std::uint32_t code;
  std::uint32_t outputSize;
  Bytes input;
};

// Requests that end with an error.
struct Failure {
  std::uint32_t error;
  std::optional<std::uint64_t> countLeft;  // nothing: all, until it is removed
};

enum class PeekOwner : std::uint8_t { kPrompt, kConsole };

unsigned long long Printed(std::uint64_t number) { return number; }

}  // namespace

struct FirmwareState final : DashOutput, KvmOutput {
  FirmwareState(Trace& firmwareTrace, LinkWriter& linkWriter, const TlsContext& tls)
      : trace(firmwareTrace), link(linkWriter), context(firmwareTrace, tls, *this, *this) {}

  // DashOutput, KvmOutput.
  void SendDashBytes(ByteView bytes) override;
  void SendKvmBytes(ByteView bytes) override;
  void PokeInput(std::uint32_t offset, ByteView bytes) override;
  void PeekInput(std::uint32_t offset, std::uint32_t count) override;
  void SendCommand(std::uint8_t code) override;
  bool HasRoom() const override;
  void AddNote(const std::string& words) override { trace.AddNote(words); }

  void SendFrame(ByteView frame, const std::string& words);
  bool Peek(PeekOwner owner, std::uint64_t region, std::uint32_t offset, std::uint32_t count);
  bool HasMailbox() const { return context.facts.view.hasHost; }
  bool IsSilent(std::uint32_t code) const { return silentAll || silent.contains(code); }

  Trace& trace;
  LinkWriter& link;

  std::uint64_t readsArmed = 0;
  std::uint64_t readsSpent = 0;
  bool reportedArmed = false;

  bool silentAll = false;
  std::set<std::uint32_t> silent;
  std::deque<Request> held;
  std::size_t heldBytes = 0;
  std::map<std::uint32_t, Failure> failures;
  std::optional<Failure> failureOfAll;

  std::deque<PeekOwner> peeks;  // answers come in the order of the requests
  ActionContext context;
};

namespace {

void ResetReads(FirmwareState& state) {
  state.readsArmed = state.readsSpent = 0;
  state.reportedArmed = false;
}

void ForgetHeld(FirmwareState& state) {
  state.held.clear();
  state.heldBytes = 0;
}

// --- requests ---

void Complete(FirmwareState& state, const Request& request, std::uint32_t error, ByteView output) {
  const std::size_t count = std::min<std::size_t>(output.size(), request.outputSize);
  state.link.Send(lablink::kComplete, request.id, error, output.first(count));
}

// Returns the error that a request of this operation ends with, or 0, and counts it off.
std::uint32_t NextFailure(FirmwareState& state, std::uint32_t code) {
  const auto one = state.failures.find(code);
  const bool isOfOne = one != state.failures.end();
  if (!isOfOne && !state.failureOfAll) return 0;
  Failure& failure = isOfOne ? one->second : *state.failureOfAll;
  const std::uint32_t error = failure.error;
  if (!failure.countLeft || --*failure.countLeft > 0) return error;
  if (isOfOne) {
    state.failures.erase(one);
  } else {
    state.failureOfAll.reset();
  }
  return error;
}

void Serve(FirmwareState& state, const Request& request) {
  const Operation* operation = FindOperation(request.code);
  if (operation == nullptr) return Complete(state, request, kErrorInvalidFunction, {});
  if (!FitsInput(*operation, request.input)) {
    return Complete(state, request, kErrorInvalidParameter, {});
  }
  if (const std::uint32_t error = NextFailure(state, request.code); error != 0) {
    state.trace.AddNote(Format("%s fails with error %u, as set", operation->name, error));
    return Complete(state, request, error, {});
  }
  const Action* action = FindAction(request.code);
  const bool answers = action != nullptr && action->answer != nullptr;
  const Bytes answer = answers ? action->answer(state.context, request.input) : Bytes();
  Complete(state, request, 0, answer);
  if (action != nullptr && action->act != nullptr) action->act(state.context, request.input);
}

void AnswerHeld(FirmwareState& state) {
  std::deque<Request> held = std::exchange(state.held, {});
  state.heldBytes = 0;
  for (Request& request : held) {
    if (!state.IsSilent(request.code)) {
      Serve(state, request);
      continue;
    }
    state.heldBytes += request.input.size();
    state.held.push_back(std::move(request));
  }
}

// Sends what a subscription causes, once the host can take it.
void SendEvents(FirmwareState& state) {
  ActionContext& context = state.context;
  context.wsman.Observe(context.inventory, context.facts.view, WsmanClock::now());
  while (state.HasMailbox() && state.reportedArmed && state.HasRoom()) {
    const auto command = context.wsman.Events().TakeCommand();
    if (!command) return;
    if (command->code == kIndicationEvent && command->payload.size() > kMostOfAnEvent) {
      state.trace.AddNote(Format("an event of %zu bytes is longer than the host takes: dropped",
                                 command->payload.size()));
      continue;
    }
    const Bytes frame = MakeFrame(command->code, command->payload);
    state.SendFrame(frame, DescribeFrame(frame));
  }
}

// --- messages of the mailbox end ---

bool HandleRequest(FirmwareState& state, const LinkMessage& message) {
  Request request{message.head.id, message.head.word, 0, {}};
  if (message.body.size() < sizeof request.outputSize) return false;
  std::memcpy(&request.outputSize, message.body.data(), sizeof request.outputSize);
  const ByteView input = message.body.subspan(sizeof request.outputSize);
  request.input.assign(input.begin(), input.end());
  state.trace.HostToFirmware(
      DescribeRequest(state.context, request.code, request.input, request.outputSize));
  if (!state.IsSilent(request.code)) {
    Serve(state, request);
    return true;
  }
  if (state.held.size() >= kMaxHeldRequests || state.heldBytes + input.size() > kMaxHeldBytes) {
    state.trace.AddNote("too many requests are held; this one is refused");
    Complete(state, request, kErrorNoSystemResources, {});
    return true;
  }
  state.trace.AddNote(Format("request %llu is held unanswered", Printed(request.id)));
  state.heldBytes += input.size();
  state.held.push_back(std::move(request));
  return true;
}

bool HandleOpenOrClose(FirmwareState& state, const LinkMessage& message) {
  const bool opens = message.head.kind == lablink::kOpen;
  const bool isRequestHandle = message.head.word == 1;
  state.trace.HostToFirmware(Format("%s of the %s handle, number %llu", opens ? "OPEN" : "CLOSE",
                                    isRequestHandle ? "request" : "interrupt",
                                    Printed(message.head.id)));
  if (!isRequestHandle) {
    ResetReads(state);
  } else if (opens) {
    state.context.kvm.HandleHostArrival();  // a new process has a new region
  } else {
    ForgetHeld(state);
  }
  return true;
}

bool HandleRead(FirmwareState& state, const LinkMessage&) {
  ++state.readsArmed;
  if (state.readsArmed != kReadsOfService || state.reportedArmed) return true;
  state.reportedArmed = true;
  state.trace.HostToFirmware(Format("ten reads armed (%llu)", Printed(kReadsOfService)));
  state.context.wsman.Events().HandleHostReady();
  state.context.wsman.Report(Alert::kHostReady);
  return true;
}

bool HandleCancel(FirmwareState& state, const LinkMessage& message) {
  const std::uint64_t id = message.head.id;
  const auto request = std::find_if(state.held.begin(), state.held.end(),
                                    [id](const Request& held) { return held.id == id; });
  if (request == state.held.end()) {
    state.trace.HostToFirmware(Format("CANCEL of request %llu, which is not held", Printed(id)));
    return true;
  }
  state.trace.HostToFirmware(Format("CANCEL of request %llu, which was held", Printed(id)));
  state.heldBytes -= request->input.size();
  state.held.erase(request);
  return true;
}

bool HandleMemory(FirmwareState& state, const LinkMessage& message) {
  PeekOwner owner = PeekOwner::kPrompt;
  if (!state.peeks.empty()) {
    owner = state.peeks.front();
    state.peeks.pop_front();
  }
  if (owner == PeekOwner::kConsole) {
    state.context.kvm.HandleInputMemory(message.body);
    return true;
  }
  const ByteView shown = message.body.first(std::min(message.body.size(), kMaxShownBytes));
  state.trace.HostToFirmware(
      Format("memory of region %llu at offset %u, %zu bytes: ", Printed(message.head.id),
             message.head.word, message.body.size()) +
      HexFromBytes(shown) + (shown.size() < message.body.size() ? " ..." : ""));
  return true;
}

struct MessageRow {
  lablink::Kind kind;
  bool (*handle)(FirmwareState& state, const LinkMessage& message);  // false: malformed
};

constexpr MessageRow kMessages[] = {
    {lablink::kOpen, HandleOpenOrClose}, {lablink::kClose, HandleOpenOrClose},
    {lablink::kRequest, HandleRequest},  {lablink::kCancel, HandleCancel},
    {lablink::kRead, HandleRead},        {lablink::kMemory, HandleMemory},
};

}  // namespace

// --- output ---

void FirmwareState::SendFrame(ByteView frame, const std::string& words) {
  if (!HasMailbox()) return trace.AddNote("no mailbox end is connected; not sent: " + words);
  if (frame.size() > lablink::kMaxFrame) {
    return trace.AddNote("longer than a frame can be; not sent: " + words);
  }
  ++readsSpent;
  link.Send(lablink::kFrame, 0, 0, frame);
  trace.FirmwareToHost(words);
}

void FirmwareState::SendDashBytes(ByteView bytes) {
  const Bytes frame = MakeFrame(kDashData, bytes);
  SendFrame(frame, DescribeFrame(frame) + ", " + context.toPeer.Describe(bytes));
}

void FirmwareState::SendKvmBytes(ByteView bytes) {
  const Bytes frame = MakeFrame(kKvmData, bytes);
  SendFrame(frame, DescribeFrame(frame));
}

void FirmwareState::SendCommand(std::uint8_t code) {
  const Bytes frame = MakeFrame(code, {});
  context.NoteCommand(code);
  SendFrame(frame, DescribeFrame(frame));
  if (code != kKvmEnableStatus) return;
  // A console that enables KVM is the one that may open the screen.
  TrustRecord trusted{};
  std::copy(std::begin(context.console.remoteAddress), std::end(context.console.remoteAddress),
            trusted.address);
  const Bytes trust = MakeFrame(kKvmIpPortInfo, BytesOf(trusted));
  SendFrame(trust, DescribeFrame(trust));
}

// Adds no line to the trace: the console has one for each event.
void FirmwareState::PokeInput(std::uint32_t offset, ByteView bytes) {
  if (HasMailbox()) link.Send(lablink::kPoke, lablink::kKeyboardMouseRegion, offset, bytes);
}

void FirmwareState::PeekInput(std::uint32_t offset, std::uint32_t count) {
  // Without a mailbox end the console is without a host as well.
  (void)Peek(PeekOwner::kConsole, lablink::kKeyboardMouseRegion, offset, count);
}

bool FirmwareState::Peek(PeekOwner owner, std::uint64_t region, std::uint32_t offset,
                         std::uint32_t count) {
  if (!HasMailbox()) return false;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&count);
  link.Send(lablink::kPeek, region, offset, {bytes, sizeof count});
  peeks.push_back(owner);
  return true;
}

// The reads of a mailbox end that reports none do not count.
bool FirmwareState::HasRoom() const {
  const bool readsKeepUp = readsArmed == 0 || readsSpent < readsArmed + kMaxFramesAhead;
  return link.Pending() < kMaxLinkQueue && readsKeepUp;
}

std::uint32_t RegionSize(std::uint64_t region) {
  if (region == lablink::kKeyboardMouseRegion) return lablink::kKeyboardMouseRegionSize;
  if (region == lablink::kLogRegion) return lablink::kLogRegionSize;
  return 0;
}

// --- the firmware ---

Firmware::Firmware(Trace& trace, LinkWriter& link, const TlsContext& tls)
    : state_(std::make_unique<FirmwareState>(trace, link, tls)) {}

Firmware::~Firmware() = default;

void Firmware::HandleMailboxArrival() {
  assert(!state_->HasMailbox());
  state_->context.facts.view.hasHost = true;
  ResetReads(*state_);
  state_->context.kvm.HandleHostArrival();
  state_->trace.AddNote("a mailbox end has connected");
}

void Firmware::HandleMailboxLoss(const std::string& why) {
  assert(state_->HasMailbox());
  state_->context.facts.view.hasHost = false;
  state_->context.wsman.Report(Alert::kHostGone);
  ForgetHeld(*state_);
  state_->context.dash.reset();
  state_->context.kvm.HandleHostLoss();
  state_->context.facts.view.isKvmEnabled = false;
  state_->peeks.clear();
  state_->link.Clear();
  state_->trace.AddNote("the mailbox end has disconnected: " + why);
}

bool Firmware::HandleMessage(const LinkMessage& message) {
  for (const MessageRow& row : kMessages) {
    if (row.kind == message.head.kind) return row.handle(*state_, message);
  }
  state_->trace.HostToFirmware(Format("message of unknown kind %u, %u bytes: ignored",
                                      message.head.kind, message.head.length));
  return true;
}

void Firmware::Pump() {
  DashSession* dash = state_->context.dash.get();
  if (dash != nullptr && dash->IsWaitingForRoom() && state_->HasRoom()) dash->Pump();
  if (state_->HasMailbox()) state_->context.kvm.Pump();
  SendEvents(*state_);
}

int Firmware::MillisecondsLeft() const {
  return Sooner(state_->context.kvm.MillisecondsLeft(),
                state_->context.wsman.Events().MillisecondsLeft(WsmanClock::now()));
}

FirmwareFacts& Firmware::Facts() { return state_->context.facts; }

void Firmware::SetBattery(std::optional<std::uint16_t> percent) {
  auto& shown = state_->context.facts.view.batteryPercent;
  const bool wasLow = shown && *shown <= kLowBattery;
  shown = percent;
  if (percent && *percent <= kLowBattery && !wasLow)
    state_->context.wsman.Report(Alert::kBatteryLow);
}

const Inventory& Firmware::Reported() const { return state_->context.inventory; }
WsmanService& Firmware::Wsman() { return state_->context.wsman; }
HttpUsers& Firmware::Users() { return state_->context.users; }
KvmConsole& Firmware::Kvm() { return state_->context.kvm; }

void Firmware::SendCommandFrame(std::uint8_t code, ByteView payload) {
  state_->context.NoteCommand(code);
  SendRawFrame(MakeFrame(code, payload));
}

void Firmware::SendRawFrame(ByteView frame) { state_->SendFrame(frame, DescribeFrame(frame)); }

bool Firmware::FailRead(std::uint32_t error) {
  if (!state_->HasMailbox()) return false;
  ++state_->readsSpent;
  state_->link.Send(lablink::kFailRead, 0, error, {});
  state_->trace.FirmwareToHost(Format("the oldest read fails with error %u", error));
  return true;
}

bool Firmware::Poke(std::uint64_t region, std::uint32_t offset, ByteView bytes) {
  assert(bytes.size() <= RegionSize(region) && offset <= RegionSize(region) - bytes.size());
  if (!state_->HasMailbox()) return false;
  state_->link.Send(lablink::kPoke, region, offset, bytes);
  state_->trace.FirmwareToHost(
      Format("%zu bytes into region %llu at offset %u", bytes.size(), Printed(region), offset));
  return true;
}

bool Firmware::Peek(std::uint64_t region, std::uint32_t offset, std::uint32_t count) {
  assert(count <= RegionSize(region) && offset <= RegionSize(region) - count);
  return state_->Peek(PeekOwner::kPrompt, region, offset, count);
}

void Firmware::SetSilence(const Operation* operation, bool on) {
  if (operation == nullptr) {
    state_->silentAll = on;
    if (!on) state_->silent.clear();
  } else if (on) {
    state_->silent.insert(operation->code);
  } else {
    state_->silent.erase(operation->code);
  }
  if (!on) AnswerHeld(*state_);
}

void Firmware::SetFailure(const Operation* operation, std::uint32_t error,
                          std::optional<std::uint64_t> count) {
  const bool removes = error == 0 || count == 0u;
  if (operation == nullptr) {
    state_->failureOfAll.reset();
    if (removes) return state_->failures.clear();
    state_->failureOfAll = Failure{error, count};
    return;
  }
  state_->failures.erase(operation->code);
  if (!removes) state_->failures[operation->code] = Failure{error, count};
}

}  // namespace orrin
