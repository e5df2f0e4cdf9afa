// The firmware's own vocabulary: the commands that it leaves for the host, one frame each. A frame
// is the payload, then the command code, then one byte that nobody reads.
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

// The frame of a command. REQUIRES: payload.size() <= kMaxPayload.
Bytes MakeFrame(std::uint8_t code, ByteView payload);
// "DASH_DATA"; "unknown command 0x22" for a code outside the vocabulary.
std::string CommandName(std::uint8_t code);
// A frame in words: name and payload size; a frame of under two bytes is said as such.
std::string DescribeFrame(ByteView frame);

}  // namespace orrin
