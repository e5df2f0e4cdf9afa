// What the firmware does with each operation: how it reads in the trace, what it changes, what it
// answers. Inputs have passed FitsInput when an action or an answer runs.
#include <cstring>

#include "lab/firmware/core/describe.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/firmware.h"

namespace orrin {
namespace {

constexpr std::uint32_t kProvisioned = 2;
constexpr std::uint32_t kNotProvisioned = 1;
// Any address but zero: the mailbox end puts the real one in its place.
constexpr std::uint64_t kSomeAddress = 0x1000;

// REQUIRES: four bytes.
std::uint32_t U32(ByteView input) { return *ReadRecord<std::uint32_t>(input); }
std::uint16_t U16(ByteView input) { return *ReadRecord<std::uint16_t>(input); }

}  // namespace

const Firmware::Action Firmware::kActions[] = {
    {kWriteDashPacket, &Firmware::DescribeDash, &Firmware::ActOnDash, nullptr},
    {kWriteTavrinStatus, &Firmware::DescribeStatus, &Firmware::ActOnStatus, nullptr},
    {kUserPresence, &Firmware::DescribePresence, &Firmware::ActOnPresence, nullptr},
    {kGetTavrinVersion, nullptr, nullptr, &Firmware::AnswerVersion},
    {kSendSystemBooted, &Firmware::DescribeBooted, &Firmware::ActOnBooted, nullptr},
    {kWriteOsInfo, &Firmware::DescribeOs, &Firmware::ActOnOs, nullptr},
    {kSendIpInfo, &Firmware::DescribeIp, &Firmware::ActOnIp, nullptr},
    {kSendCloseSocket, &Firmware::DescribeClose, &Firmware::ActOnClose, nullptr},
    {kWriteNwInfo, &Firmware::DescribeNetwork, &Firmware::ActOnNetwork, nullptr},
    {kWriteKvmPacket, &Firmware::DescribeKvm, &Firmware::ActOnKvm, nullptr},
    {kWriteLogBuffer, nullptr, nullptr, &Firmware::AnswerRegion},
    {kDeAllocateLogBuffer, nullptr, nullptr, &Firmware::AnswerRegion},
    {kInitializePointers, nullptr, nullptr, &Firmware::AnswerInputRegion},
    {kDeAllocateKvmBuffers, nullptr, &Firmware::ActOnReturnedBuffers, &Firmware::AnswerRegion},
    {kGetOrrinStatus, nullptr, nullptr, &Firmware::AnswerStatus},
    {kSetS5Status, &Firmware::DescribeS5, nullptr, nullptr},
    {kUnnamedFunction002, nullptr, nullptr, &Firmware::AnswerEcho},
};

const Firmware::Action* Firmware::FindAction(std::uint32_t code) {
  for (const Action& action : kActions) {
    if (action.code == code) return &action;
  }
  return nullptr;
}

std::string Firmware::DescribeRequest(const Request& request) {
  const Operation* operation = FindOperation(request.code);
  if (!operation) {
    return Format("unknown control code 0x%08x, input %zu bytes, output %u bytes", request.code,
                  request.input.size(), request.outputSize);
  }
  std::string words = operation->name;
  if (!FitsInput(*operation, request.input)) {
    words += Format(": wrong input size, %zu bytes", request.input.size());
    if (operation->rule == InputRule::kExact) words += Format(" for %u", operation->inputSize);
    return words;
  }
  const Action* action = FindAction(request.code);
  if (action && action->describe) words += ": " + (this->*action->describe)(request.input);
  if (request.outputSize < operation->outputSize) {
    words +=
        Format(": wrong output size, %u bytes for %u", request.outputSize, operation->outputSize);
  }
  return words;
}

std::string Firmware::DescribeStatus(ByteView input) { return DescribeServiceStatus(U32(input)); }
std::string Firmware::DescribeBooted(ByteView input) { return DescribeNetworkStatus(U32(input)); }
std::string Firmware::DescribePresence(ByteView input) { return DescribeUserPresence(U32(input)); }

std::string Firmware::DescribeS5(ByteView input) {
  return Format("the host is going to S5 (%u)", U16(input));
}

std::string Firmware::DescribeOs(ByteView input) { return Describe(*ReadRecord<OsRecord>(input)); }

std::string Firmware::DescribeNetwork(ByteView input) {
  return Describe(*ReadRecord<NetworkRecord>(input));
}

std::string Firmware::DescribeIp(ByteView input) { return Describe(*ReadRecord<IpRecord>(input)); }

std::string Firmware::DescribeClose(ByteView input) { return DescribeClosedPort(U16(input)); }

std::string Firmware::DescribeDash(ByteView input) {
  return Format("%zu bytes, ", input.size()) + fromPeer_.Describe(input);
}

std::string Firmware::DescribeKvm(ByteView input) { return Format("%zu bytes", input.size()); }

void Firmware::ActOnStatus(ByteView input) {
  inventory_.serviceStatus = U32(input);
  inventory_.reports.serviceStatus++;
}

void Firmware::ActOnBooted(ByteView input) {
  inventory_.networkStatus = U32(input);
  inventory_.reports.networkStatus++;
}

void Firmware::ActOnPresence(ByteView input) {
  inventory_.userPresence = U32(input);
  inventory_.reports.userPresence++;
}

void Firmware::ActOnOs(ByteView input) {
  inventory_.os = ReadRecord<OsRecord>(input);
  inventory_.reports.os++;
}

void Firmware::ActOnNetwork(ByteView input) {
  inventory_.network = ReadRecord<NetworkRecord>(input);
  inventory_.reports.network++;
}

void Firmware::ActOnIp(ByteView input) {
  const auto record = ReadRecord<IpRecord>(input);
  if (record->localPort == kDashPort) return BeginDash();
  if (record->localPort == kKvmPort) return kvm_.Begin();
  inventory_.ip = record;
  inventory_.reports.ip++;
}

void Firmware::ActOnClose(ByteView input) {
  if (U16(input) == kDashPort) EndDash("the host says that it has gone");
  if (U16(input) == kKvmPort) kvm_.End("the host says that it has gone");
}

void Firmware::ActOnDash(ByteView input) {
  if (!dash_) return trace_.Note("DASH: no connection was announced; the bytes are dropped");
  dash_->Receive(input);
}

void Firmware::ActOnKvm(ByteView input) { kvm_.Receive(input); }

void Firmware::ActOnReturnedBuffers(ByteView) { kvm_.RegionReturned(); }

void Firmware::BeginDash() {
  if (dash_) EndDash("another connection takes its place");
  fromPeer_ = toPeer_ = TlsRecordWatch();
  dash_ = std::make_unique<DashSession>(tls_, PageFacts{inventory_, facts_.version}, *this);
}

void Firmware::EndDash(const std::string& why) {
  if (dash_) trace_.Note("DASH: session ended, " + why);
  dash_.reset();
}

Bytes Firmware::AnswerVersion(ByteView) {
  VersionRecord record{};
  // One byte less: the text ends with a zero.
  std::memcpy(record.version, facts_.version.data(),
              std::min(facts_.version.size(), sizeof(record.version) - 1));
  record.provisionStatus = facts_.isProvisioned ? kProvisioned : kNotProvisioned;
  record.kvmStatus = facts_.kvmStatus;
  return BytesOf(record);
}

Bytes Firmware::AnswerStatus(ByteView) { return {facts_.orrinStatus}; }

Bytes Firmware::AnswerRegion(ByteView) { return BytesOf(RegionRecord{kSomeAddress, 0}); }

// Rings that the host hasn't seen yet are emptied before it has their address.
Bytes Firmware::AnswerInputRegion(ByteView) {
  kvm_.RegionWanted();
  return BytesOf(RegionRecord{kvm_.Withholds() ? 0 : kSomeAddress, 0});
}

Bytes Firmware::AnswerEcho(ByteView input) { return {input.begin(), input.end()}; }

}  // namespace orrin
