// The dispatcher of firmware commands. It walks one table, which service/host composes from the
// handlers of all rooms. It makes no platform call, so a test can dispatch frames of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace stewardry {

// The firmware's commands.
enum FirmwareCommandCode : std::uint8_t {
  ORRIN_TAVRIN_CMD_DASH_DATA = 0x08,
  ORRIN_TAVRIN_CMD_KVM_DATA = 0x09,
  ORRIN_TAVRIN_CMD_SOFTWARE_UPGRADE = 0x0A,
  ORRIN_TAVRIN_CMD_INDICATION_SUBSCRIBE = 0x0B,
  ORRIN_TAVRIN_CMD_INDICATION_EVENT = 0x0C,
  ORRIN_TAVRIN_CMD_SLEEP = 0x13,
  ORRIN_TAVRIN_CMD_REBOOT = 0x15,
  ORRIN_TAVRIN_CMD_SHUTDOWN = 0x16,
  ORRIN_TAVRIN_CMD_HIBERNATE = 0x17,
  ORRIN_TAVRIN_CMD_REBOOT_NONDASH = 0x21,
  ORRIN_TAVRIN_CMD_VNC_SOC_CLOSE = 0x23,
  ORRIN_TAVRIN_CMD_S0i3_RESUME = 0x25,
  ORRIN_TAVRIN_CMD_KVM_ENABLE_STATUS = 0x26,
  ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO = 0x27,
};

// Handles one payload, which is valid until the handler returns. The handler cuts or refuses a
// payload that is longer than its own field.
using FirmwareHandler = void (*)(const std::uint8_t* payload, std::uint32_t length);

struct FirmwareCommand {
  std::uint8_t code;
  const char* name;
  const char* arrivalLine;  // null: nothing is logged
  bool needsPayload;        // an empty payload stops the command before its handler
  FirmwareHandler handler;  // null: the command is only logged
};

// Sets the table that Processread walks. Requires that the table outlives the reader thread, which
// has not started yet.
void SetFirmwareCommands(std::span<const FirmwareCommand> commands);

// Dispatches one frame of `byteCount` bytes: payload, command code, one byte without a meaning.
// Logs and drops a code that is not in the table, and a frame too short for a code. Runs the
// handler on the calling thread, the reader thread.
void Processread(std::uint32_t byteCount, const std::uint8_t* buffer);

}  // namespace stewardry
