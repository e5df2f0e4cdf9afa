// The commands that the firmware sends to the host, one frame each. A frame is the payload, then
// the command code, then one byte that is not read.
#pragma once

#include <cstdint>
#include <string>

#include "lab/firmware/core/bytes.h"
#include "lablink/lab_link.h"

namespace orrin {

enum CommandCode : std::uint8_t {
  kDashData = 0x08,
  kKvmData = 0x09,
  kSoftwareUpgrade = 0x0A,
  kIndicationSubscribe = 0x0B,
  kIndicationEvent = 0x0C,
  kSleep = 0x13,
  kReboot = 0x15,
  kShutdown = 0x16,
  kHibernate = 0x17,
  kRebootNondash = 0x21,
  kVncSocketClose = 0x23,
  kS0i3Resume = 0x25,
  kKvmEnableStatus = 0x26,
  kKvmIpPortInfo = 0x27,
};

constexpr std::size_t kMaxPayload = lablink::kMaxFrame - 2;

// Returns the frame of a command. A payload above kMaxPayload makes a frame that cannot be sent.
Bytes MakeFrame(std::uint8_t code, ByteView payload);
// Returns "DASH_DATA"; "unknown command 0x22" for a code that is not a CommandCode.
std::string CommandName(std::uint8_t code);
// Returns the frame's command name and payload size, or that it is too short to hold a command.
std::string DescribeFrame(ByteView frame);

}  // namespace orrin
