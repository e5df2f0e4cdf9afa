// The mailbox's control codes: what a host may request of the firmware, with the sizes of input and
// output. The table in operations.cpp is the only place that knows a name or a size.
#pragma once

#include <cstdint>
#include <string_view>

#include "lab/firmware/core/bytes.h"

namespace orrin {

// CTL_CODE values: device type 0x9C41 with the functions from 0x900, and two of type 0x9C42.
enum ControlCode : std::uint32_t {
  kWriteDashPacket = 0x9C41A400,
  kWriteTavrinStatus = 0x9C41A410,
  kBatteryRecord = 0x9C41A414,
  kBatteryCritical = 0x9C41A418,
  kBatteryDrained = 0x9C41A41C,
  kUserPresence = 0x9C41A420,
  kGetTavrinVersion = 0x9C416424,
  kSendSystemBooted = 0x9C41A428,
  kWriteOsInfo = 0x9C41A42C,
  kSendIpInfo = 0x9C41A430,
  kSendCloseSocket = 0x9C41A434,
  kWriteNwInfo = 0x9C41A438,
  kWriteKvmPacket = 0x9C41A43D,
  kWriteFanInfo = 0x9C41A440,
  kWriteSensorInfo = 0x9C41A444,
  kWriteLogBuffer = 0x9C416448,
  kDeAllocateLogBuffer = 0x9C41644C,
  kInitializePointers = 0x9C416450,
  kDeAllocateKvmBuffers = 0x9C416454,
  kGetOrrinStatus = 0x9C416458,
  kUnnamedFunction917 = 0x9C41A45C,
  kSetS5Status = 0x9C41A460,
  kUnnamedFunction002 = 0x9C424008,
  kUnnamedFunction007 = 0x9C42401C,
};

// The required length of an operation's input.
enum class InputRule : std::uint8_t {
  kExact,           // Operation::inputSize bytes
  kAny,             // a packet of any size
  kLengthAtOffset,  // u32 at Operation::inputSize, plus Operation::lengthExtra; or empty
};

struct Operation {
  std::uint32_t code;
  const char* name;
  InputRule rule;
  std::uint32_t inputSize;
  std::uint32_t lengthExtra;
  std::uint32_t outputSize;
};

// Returns null if no operation has that code.
const Operation* FindOperation(std::uint32_t code);
// Finds by name, case ignored. Returns null if there is none.
const Operation* FindOperation(std::string_view name);
// Returns true if the input has the length that the operation requires.
bool FitsInput(const Operation& operation, ByteView input);

}  // namespace orrin
