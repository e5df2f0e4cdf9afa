#include "lab/firmware/core/frames.h"

#include <algorithm>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

struct CommandWords {
  std::uint8_t code;
  const char* name;
};

constexpr CommandWords kCommands[] = {
    {kDashData, "DASH_DATA"},
    {kKvmData, "KVM_DATA"},
    {kSoftwareUpgrade, "SOFTWARE_UPGRADE"},
    {kIndicationSubscribe, "INDICATION_SUBSCRIBE"},
    {kIndicationEvent, "INDICATION_EVENT"},
    {kSleep, "SLEEP"},
    {kReboot, "REBOOT"},
    {kShutdown, "SHUTDOWN"},
    {kHibernate, "HIBERNATE"},
    {kRebootNondash, "REBOOT_NONDASH"},
    {kVncSocketClose, "VNC_SOC_CLOSE"},
    {kS0i3Resume, "S0i3_RESUME"},
    {kKvmEnableStatus, "KVM_ENABLE_STATUS"},
    {kKvmIpPortInfo, "KVM_IP_PORT_INFO"},
};

}  // namespace

Bytes MakeFrame(std::uint8_t code, ByteView payload) {
  Bytes frame(payload.size() + 2);
  std::copy(payload.begin(), payload.end(), frame.begin());
  frame[payload.size()] = code;
  return frame;
}

std::string CommandName(std::uint8_t code) {
  for (const CommandWords& command : kCommands) {
    if (command.code == code) return command.name;
  }
  return Format("unknown command 0x%02x", code);
}

std::string DescribeFrame(ByteView frame) {
  if (frame.size() < 2) return Format("frame of %zu bytes, too short for a command", frame.size());
  return CommandName(frame[frame.size() - 2]) + Format(", payload %zu bytes", frame.size() - 2);
}

}  // namespace orrin
