#include "lab/firmware/core/operations.h"

#include <cstring>

#include "lab/firmware/core/records.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr auto kExact = InputRule::kExact;
constexpr auto kAny = InputRule::kAny;
constexpr auto kLength = InputRule::kLengthAtOffset;

// Fixed names; their spelling must not change.
constexpr Operation kOperations[] = {
    {kWriteDashPacket, "WriteDASHPacket", kAny, 0, 0, 0},
    {kWriteTavrinStatus, "WriteTavrinStatus", kExact, 4, 0, 0},
    {kBatteryRecord, "BatteryRecord", kExact, 52, 0, 0},
    {kBatteryCritical, "BatteryCritical", kExact, 200, 0, 0},
    {kBatteryDrained, "BatteryDrained", kExact, 200, 0, 0},
    {kUserPresence, "UserPresence", kExact, 4, 0, 0},
    {kGetTavrinVersion, "GetTavrinVersion", kExact, 0, 0, sizeof(VersionRecord)},
    {kSendSystemBooted, "SendSystemBooted", kExact, 4, 0, 0},
    {kWriteOsInfo, "WriteOsInfo", kExact, sizeof(OsRecord), 0, 0},
    {kSendIpInfo, "SendIPCompleteInfomartion", kExact, sizeof(IpRecord), 0, 0},
    {kSendCloseSocket, "SendCloseSocketcmd", kExact, 2, 0, 0},
    {kWriteNwInfo, "WriteNwInfo", kExact, sizeof(NetworkRecord), 0, 0},
    {kWriteKvmPacket, "WriteKVMPacket", kAny, 0, 0, 0},
    {kWriteFanInfo, "WriteFanInfo", kExact, 4, 0, 0},
    {kWriteSensorInfo, "WriteSensorInfo", kExact, 32, 0, 0},
    {kWriteLogBuffer, "WriteLogBuffer", kExact, 0, 0, 8},
    {kDeAllocateLogBuffer, "DeAllocateLogBuffer", kExact, 0, 0, 8},
    {kInitializePointers, "InitializeKeyboardMousePointers", kExact, 0, 0, sizeof(RegionRecord)},
    {kDeAllocateKvmBuffers, "DeAllocateKVM_KB_MB_Buffers", kExact, 0, 0, 8},
    {kGetOrrinStatus, "GetOrrinStatus", kExact, 0, 0, 1},
    {kUnnamedFunction917, "Function917", kExact, 0, 0, 0},
    {kSetS5Status, "IOCTL_CORVANE_SET_S5_STATUS", kExact, 2, 0, 0},
    // Function002 is answered with its own input.
    {kUnnamedFunction002, "Function002", kLength, 16, 40, 0},
    {kUnnamedFunction007, "Function007", kLength, 8, 16, 0},
};

constexpr bool CodesAreUnique() {
  for (const Operation& one : kOperations) {
    int seen = 0;
    for (const Operation& other : kOperations) seen += one.code == other.code;
    if (seen != 1) return false;
  }
  return true;
}
static_assert(CodesAreUnique());

bool FitsOwnLength(const Operation& operation, ByteView input) {
  if (input.empty()) return true;
  std::uint32_t length = 0;
  if (input.size() < operation.inputSize + sizeof length) return false;
  std::memcpy(&length, input.data() + operation.inputSize, sizeof length);
  return input.size() == std::uint64_t{length} + operation.lengthExtra;
}

}  // namespace

const Operation* FindOperation(std::uint32_t code) {
  for (const Operation& operation : kOperations) {
    if (operation.code == code) return &operation;
  }
  return nullptr;
}

const Operation* FindOperation(std::string_view name) {
  for (const Operation& operation : kOperations) {
    if (SameIgnoringCase(operation.name, name)) return &operation;
  }
  return nullptr;
}

bool FitsInput(const Operation& operation, ByteView input) {
  switch (operation.rule) {
    case InputRule::kExact:
      return input.size() == operation.inputSize;
    case InputRule::kAny:
      return true;
    case InputRule::kLengthAtOffset:
      return FitsOwnLength(operation, input);
  }
  return false;
}

}  // namespace orrin
