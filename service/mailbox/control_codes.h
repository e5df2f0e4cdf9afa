// The control codes of the mailbox driver, with the sizes of their records, in one table. A change
// here is a change of the driver's interface.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "platform/device.h"

namespace stewardry {

// Bytes of one frame from the firmware, and of one relayed read to it, at most.
inline constexpr std::uint32_t kMaxFrameSize = 131072;

// In the order of kControlCodes.
enum class Operation : std::uint8_t {
  kWriteDASHPacket,
  kWriteTavrinStatus,
  kBatteryRecord,
  kBatteryCritical,
  kBatteryDrained,
  kUserPresence,
  kGetTavrinVersion,
  kSendSystemBooted,
  kWriteOsInfo,
  kSendIPCompleteInfomartion,
  kSendCloseSocketcmd,
  kWriteNwInfo,
  kWriteKVMPacket,
  kWriteFanInfo,
  kWriteSensorInfo,
  kWriteLogBuffer,
  kDeAllocateLogBuffer,
  kInitializeKeyboardMousePointers,
  kDeAllocateKVM_KB_MB_Buffers,
  kGetOrrinStatus,
  kUnnamed917,
  kSetS5Status,
  kUnnamed002,
  kUnnamed007,
};

enum class CallMode : std::uint8_t {
  kOverlapped,  // a request record and an event; the driver must pend the request
  kPlain,       // no request record: the call blocks in the driver
};

// The size comes with the request and not from the table.
constexpr std::uint32_t kSizeOfRequest = 0xFFFFFFFF;

// What a code is made of: device type, required access, function, transfer method.
enum : std::uint32_t {
  kMailboxType = 0x9C41,
  kSecondType = 0x9C42,
  kReadAccess = platform::kFileReadAccess,
  kWriteAccess = platform::kFileWriteAccess,
  kBuffered = platform::kMethodBuffered,
  kInDirect = platform::kMethodInDirect,
};
using platform::ControlCodeOf;

struct ControlCode {
  Operation operation;
  std::uint32_t code;
  std::uint32_t inputSize;   // bytes to the firmware
  std::uint32_t outputSize;  // bytes from it
  CallMode mode;
};

inline constexpr ControlCode kControlCodes[] = {
    {Operation::kWriteDASHPacket, ControlCodeOf(kMailboxType, kWriteAccess, 0x900, kBuffered),
     kSizeOfRequest, kSizeOfRequest, CallMode::kOverlapped},
    {Operation::kWriteTavrinStatus, ControlCodeOf(kMailboxType, kWriteAccess, 0x904, kBuffered), 4,
     0, CallMode::kOverlapped},
    {Operation::kBatteryRecord, ControlCodeOf(kMailboxType, kWriteAccess, 0x905, kBuffered), 52, 0,
     CallMode::kPlain},
    {Operation::kBatteryCritical, ControlCodeOf(kMailboxType, kWriteAccess, 0x906, kBuffered), 200,
     0, CallMode::kOverlapped},
    {Operation::kBatteryDrained, ControlCodeOf(kMailboxType, kWriteAccess, 0x907, kBuffered), 200,
     0, CallMode::kOverlapped},
    {Operation::kUserPresence, ControlCodeOf(kMailboxType, kWriteAccess, 0x908, kBuffered), 4, 0,
     CallMode::kOverlapped},
    {Operation::kGetTavrinVersion, ControlCodeOf(kMailboxType, kReadAccess, 0x909, kBuffered), 0,
     80, CallMode::kOverlapped},
    {Operation::kSendSystemBooted, ControlCodeOf(kMailboxType, kWriteAccess, 0x90A, kBuffered), 4,
     0, CallMode::kOverlapped},
    {Operation::kWriteOsInfo, ControlCodeOf(kMailboxType, kWriteAccess, 0x90B, kBuffered), 804, 0,
     CallMode::kOverlapped},
    {Operation::kSendIPCompleteInfomartion,
     ControlCodeOf(kMailboxType, kWriteAccess, 0x90C, kBuffered), 36, 0, CallMode::kOverlapped},
    {Operation::kSendCloseSocketcmd, ControlCodeOf(kMailboxType, kWriteAccess, 0x90D, kBuffered), 2,
     0, CallMode::kOverlapped},
    {Operation::kWriteNwInfo, ControlCodeOf(kMailboxType, kWriteAccess, 0x90E, kBuffered), 384, 0,
     CallMode::kOverlapped},
    {Operation::kWriteKVMPacket, ControlCodeOf(kMailboxType, kWriteAccess, 0x90F, kInDirect),
     kSizeOfRequest, 0, CallMode::kOverlapped},
    {Operation::kWriteFanInfo, ControlCodeOf(kMailboxType, kWriteAccess, 0x910, kBuffered), 4, 0,
     CallMode::kOverlapped},
    {Operation::kWriteSensorInfo, ControlCodeOf(kMailboxType, kWriteAccess, 0x911, kBuffered), 32,
     0, CallMode::kOverlapped},
    {Operation::kWriteLogBuffer, ControlCodeOf(kMailboxType, kReadAccess, 0x912, kBuffered), 0, 8,
     CallMode::kOverlapped},
    {Operation::kDeAllocateLogBuffer, ControlCodeOf(kMailboxType, kReadAccess, 0x913, kBuffered), 0,
     8, CallMode::kOverlapped},
    {Operation::kInitializeKeyboardMousePointers,
     ControlCodeOf(kMailboxType, kReadAccess, 0x914, kBuffered), 0, 16, CallMode::kOverlapped},
    {Operation::kDeAllocateKVM_KB_MB_Buffers,
     ControlCodeOf(kMailboxType, kReadAccess, 0x915, kBuffered), 0, 8, CallMode::kOverlapped},
    {Operation::kGetOrrinStatus, ControlCodeOf(kMailboxType, kReadAccess, 0x916, kBuffered), 0, 1,
     CallMode::kOverlapped},
    {Operation::kUnnamed917, ControlCodeOf(kMailboxType, kWriteAccess, 0x917, kBuffered), 0, 0,
     CallMode::kPlain},
    {Operation::kSetS5Status, ControlCodeOf(kMailboxType, kWriteAccess, 0x918, kBuffered), 2, 0,
     CallMode::kPlain},
    // The length of the record is its 32-bit field at offset 16, plus 40. A form without buffers
    // exists too.
    {Operation::kUnnamed002, ControlCodeOf(kSecondType, kReadAccess, 0x002, kBuffered),
     kSizeOfRequest, kSizeOfRequest, CallMode::kPlain},
    // The length of the record is its 32-bit field at offset 8, plus 16.
    {Operation::kUnnamed007, ControlCodeOf(kSecondType, kReadAccess, 0x007, kBuffered),
     kSizeOfRequest, 0, CallMode::kPlain},
};

// Returns the row of `operation`.
constexpr const ControlCode& ControlCodeFor(Operation operation) {
  assert(static_cast<std::size_t>(operation) < std::size(kControlCodes));
  return kControlCodes[static_cast<std::size_t>(operation)];
}

// Fixed name; a log line contains it.
inline constexpr std::uint32_t IOCTL_CORVANE_SET_S5_STATUS =
    ControlCodeFor(Operation::kSetS5Status).code;

namespace control_codes_check {
constexpr bool InOrder() {
  for (std::size_t i = 0; i < std::size(kControlCodes); ++i)
    if (static_cast<std::size_t>(kControlCodes[i].operation) != i) return false;
  return true;
}
static_assert(InOrder() &&
              std::size(kControlCodes) == static_cast<std::size_t>(Operation::kUnnamed007) + 1);
static_assert(ControlCodeFor(Operation::kWriteDASHPacket).code == 0x9C41A400);
static_assert(ControlCodeFor(Operation::kWriteKVMPacket).code == 0x9C41A43D);
static_assert(ControlCodeFor(Operation::kGetTavrinVersion).code == 0x9C416424);
static_assert(IOCTL_CORVANE_SET_S5_STATUS == 0x9C41A460);
static_assert(ControlCodeFor(Operation::kUnnamed002).code == 0x9C424008);
static_assert(ControlCodeFor(Operation::kUnnamed007).code == 0x9C42401C);
}  // namespace control_codes_check

}  // namespace stewardry
