#include "lab/firmware/firmware_actions.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>

#include "lab/firmware/core/describe.h"
#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/operations.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::uint32_t kProvisioned = 2;
constexpr std::uint32_t kNotProvisioned = 1;
// Any address but zero: the mailbox end replaces it by the real one.
constexpr std::uint64_t kSomeAddress = 0x1000;

// Reads an input whose size FitsInput has checked.
template <class Record>
Record Input(ByteView input) {
  const auto record = ReadRecord<Record>(input);
  assert(record);
  return *record;
}

std::uint32_t U32(ByteView input) { return Input<std::uint32_t>(input); }
std::uint16_t U16(ByteView input) { return Input<std::uint16_t>(input); }

// --- descriptions ---

std::string DescribeStatus(ActionContext&, ByteView input) {
  return DescribeServiceStatus(U32(input));
}

std::string DescribeBooted(ActionContext&, ByteView input) {
  return DescribeNetworkStatus(U32(input));
}

std::string DescribePresence(ActionContext&, ByteView input) {
  return DescribeUserPresence(U32(input));
}

std::string DescribeS5(ActionContext&, ByteView input) {
  return Format("the host is going to S5 (%u)", U16(input));
}

template <class Record>
std::string DescribeRecord(ActionContext&, ByteView input) {
  return Describe(Input<Record>(input));
}

std::string DescribeClose(ActionContext&, ByteView input) { return DescribeClosedPort(U16(input)); }

std::string DescribeDash(ActionContext& context, ByteView input) {
  return Format("%zu bytes, ", input.size()) + context.fromPeer.Describe(input);
}

std::string DescribeKvm(ActionContext&, ByteView input) {
  return Format("%zu bytes", input.size());
}

// --- effects ---

void StoreStatus(ActionContext& context, ByteView input) {
  context.inventory.serviceStatus = U32(input);
  ++context.inventory.reports.serviceStatus;
}

void StoreBooted(ActionContext& context, ByteView input) {
  context.inventory.networkStatus = U32(input);
  ++context.inventory.reports.networkStatus;
}

void StorePresence(ActionContext& context, ByteView input) {
  context.inventory.userPresence = U32(input);
  ++context.inventory.reports.userPresence;
}

void ReportS5(ActionContext& context, ByteView) { context.wsman.Report(Alert::kHostGoesToS5); }

void StoreOs(ActionContext& context, ByteView input) {
  context.inventory.os = Input<OsRecord>(input);
  ++context.inventory.reports.os;
}

void StoreNetwork(ActionContext& context, ByteView input) {
  context.inventory.network = Input<NetworkRecord>(input);
  ++context.inventory.reports.network;
}

void EndDash(ActionContext& context, const char* why) {
  if (context.dash != nullptr) context.trace.AddNote(std::string("DASH: session ended, ") + why);
  context.dash.reset();
}

void BeginDash(ActionContext& context) {
  assert(context.tls.IsGood());
  EndDash(context, "another connection replaces it");
  context.fromPeer = context.toPeer = TlsRecordWatch();
  context.dash = std::make_unique<DashSession>(
      context.tls, PageFacts{context.inventory, context.facts.view, context.wsman, context.users},
      context.dashOutput);
}

void HandleIp(ActionContext& context, ByteView input) {
  const auto record = Input<IpRecord>(input);
  if (record.localPort == kDashPort) {
    context.console = record;
    return BeginDash(context);
  }
  if (record.localPort == kKvmPort) return context.kvm.Begin();
  context.inventory.ip = record;
  ++context.inventory.reports.ip;
}

void HandleClose(ActionContext& context, ByteView input) {
  constexpr char kReason[] = "the host reports the connection's end";
  if (U16(input) == kDashPort) EndDash(context, kReason);
  if (U16(input) == kKvmPort) context.kvm.End(kReason);
}

void ReceiveDash(ActionContext& context, ByteView input) {
  if (context.dash != nullptr) return context.dash->Receive(input);
  context.trace.AddNote("DASH: no connection was announced; the bytes are dropped");
}

void ReceiveKvm(ActionContext& context, ByteView input) { context.kvm.Receive(input); }

void HandleReturnedBuffers(ActionContext& context, ByteView) { context.kvm.HandleRegionReturn(); }

// --- answers ---

Bytes AnswerVersion(ActionContext& context, ByteView) {
  const FirmwareFacts& facts = context.facts;
  VersionRecord record{};
  // One byte less, for the terminating zero.
  std::memcpy(record.version, facts.view.version.data(),
              std::min(facts.view.version.size(), sizeof record.version - 1));
  record.provisionStatus = facts.isProvisioned ? kProvisioned : kNotProvisioned;
  record.kvmStatus = facts.kvmStatus;
  return BytesOf(record);
}

Bytes AnswerStatus(ActionContext& context, ByteView) { return {context.facts.orrinStatus}; }

Bytes AnswerRegion(ActionContext&, ByteView) { return BytesOf(RegionRecord{kSomeAddress, 0}); }

Bytes AnswerInputRegion(ActionContext& context, ByteView) {
  context.kvm.HandleRegionRequest();  // empties the rings before the host has their address
  return BytesOf(RegionRecord{context.kvm.WithholdsRegion() ? 0 : kSomeAddress, 0});
}

Bytes AnswerEcho(ActionContext&, ByteView input) { return {input.begin(), input.end()}; }

constexpr Action kActions[] = {
    {kWriteDashPacket, DescribeDash, ReceiveDash, nullptr},
    {kWriteTavrinStatus, DescribeStatus, StoreStatus, nullptr},
    {kUserPresence, DescribePresence, StorePresence, nullptr},
    {kGetTavrinVersion, nullptr, nullptr, AnswerVersion},
    {kSendSystemBooted, DescribeBooted, StoreBooted, nullptr},
    {kWriteOsInfo, DescribeRecord<OsRecord>, StoreOs, nullptr},
    {kSendIpInfo, DescribeRecord<IpRecord>, HandleIp, nullptr},
    {kSendCloseSocket, DescribeClose, HandleClose, nullptr},
    {kWriteNwInfo, DescribeRecord<NetworkRecord>, StoreNetwork, nullptr},
    {kWriteKvmPacket, DescribeKvm, ReceiveKvm, nullptr},
    {kWriteLogBuffer, nullptr, nullptr, AnswerRegion},
    {kDeAllocateLogBuffer, nullptr, nullptr, AnswerRegion},
    {kInitializePointers, nullptr, nullptr, AnswerInputRegion},
    {kDeAllocateKvmBuffers, nullptr, HandleReturnedBuffers, AnswerRegion},
    {kGetOrrinStatus, nullptr, nullptr, AnswerStatus},
    {kSetS5Status, DescribeS5, ReportS5, nullptr},
    {kUnnamedFunction002, nullptr, nullptr, AnswerEcho},
};

constexpr std::uint8_t kPowerCommands[] = {kReboot, kShutdown, kHibernate, kSleep, kRebootNondash};

}  // namespace

void ActionContext::NoteCommand(std::uint8_t code) {
  if (code == kKvmEnableStatus) facts.view.isKvmEnabled = true;
  const auto isCode = [code](std::uint8_t power) { return power == code; };
  if (std::any_of(std::begin(kPowerCommands), std::end(kPowerCommands), isCode))
    wsman.Report(Alert::kPowerCommand);
}

const Action* FindAction(std::uint32_t code) {
  for (const Action& action : kActions) {
    if (action.code == code) return &action;
  }
  return nullptr;
}

std::string DescribeRequest(ActionContext& context, std::uint32_t code, ByteView input,
                            std::uint32_t outputSize) {
  const Operation* operation = FindOperation(code);
  if (operation == nullptr) {
    return Format("unknown control code 0x%08x, input %zu bytes, output %u bytes", code,
                  input.size(), outputSize);
  }
  std::string words = operation->name;
  if (!FitsInput(*operation, input)) {
    words += Format(": wrong input size, %zu bytes", input.size());
    if (operation->rule == InputRule::kExact) words += Format(" for %u", operation->inputSize);
    return words;
  }
  const Action* action = FindAction(code);
  if (action != nullptr && action->describe != nullptr) {
    words += ": " + action->describe(context, input);
  }
  if (outputSize < operation->outputSize) {
    words += Format(": wrong output size, %u bytes for %u", outputSize, operation->outputSize);
  }
  return words;
}

}  // namespace orrin
