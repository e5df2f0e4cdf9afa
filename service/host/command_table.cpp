#include "service/host/command_table.h"

#include <cassert>
#include <iterator>
#include "service/actions/actions_state.h"
#include "service/actions/indications.h"
#include "service/actions/power_actions.h"
#include "service/actions/upgrade.h"
#include "service/gateway/dash_relay.h"
#include "service/gateway/listeners.h"
#include "service/host/resume.h"
#include "service/host/service_control.h"
#include "service/kvm/relay.h"
#include "service/kvm/session.h"
#include "service/mailbox/dispatcher.h"

namespace stewardry {

namespace {

// Stores a power option. Its action follows the next DASH reply.
template <std::uint8_t Option>
void NotePowerOption(const std::uint8_t*, std::uint32_t) {
  gActions->gPowerOption.store(Option, std::memory_order_relaxed);
}

void HandleRebootNonDash(const std::uint8_t*, std::uint32_t) { RebootNonDash(); }
void HandleResume(const std::uint8_t*, std::uint32_t) { ResumeReport(); }
void HandleVncClose(const std::uint8_t*, std::uint32_t) { FinishKVMSession(); }

// Code, name, line on arrival, whether an empty payload stops it, handler.
constexpr FirmwareCommand kCommands[] = {
    {ORRIN_TAVRIN_CMD_DASH_DATA, "DASH_DATA", nullptr, true, WriteDASHRXdata},
    {ORRIN_TAVRIN_CMD_KVM_DATA, "KVM_DATA", nullptr, true, WriteKVMRXdata},
    {ORRIN_TAVRIN_CMD_SOFTWARE_UPGRADE, "SOFTWARE_UPGRADE", "Software upgrade command received",
     true, SoftwareUpgradeCommand},
    {ORRIN_TAVRIN_CMD_INDICATION_SUBSCRIBE, "INDICATION_SUBSCRIBE",
     "Indication subscribe command received", false, IndicationSubscribe},
    {ORRIN_TAVRIN_CMD_INDICATION_EVENT, "INDICATION_EVENT", "Indication event command received",
     true, IndicationEvent},
    {ORRIN_TAVRIN_CMD_SLEEP, "SLEEP", "Sleep Command received", false,
     NotePowerOption<kPowerSleep>},
    {ORRIN_TAVRIN_CMD_REBOOT, "REBOOT", "Reboot Command received", false,
     NotePowerOption<kPowerReboot>},
    {ORRIN_TAVRIN_CMD_SHUTDOWN, "SHUTDOWN", "Shutdown Command received", false,
     NotePowerOption<kPowerShutdown>},
    {ORRIN_TAVRIN_CMD_HIBERNATE, "HIBERNATE", "Hibernate Command received", false,
     NotePowerOption<kPowerHibernate>},
    {ORRIN_TAVRIN_CMD_REBOOT_NONDASH, "REBOOT_NONDASH", "Reboot_Command_Nondash received", false,
     HandleRebootNonDash},
    {ORRIN_TAVRIN_CMD_VNC_SOC_CLOSE, "VNC_SOC_CLOSE", "ORRIN_TAVRIN_CMD_VNC_SOC_CLOSE received",
     false, HandleVncClose},
    {ORRIN_TAVRIN_CMD_S0i3_RESUME, "S0i3_RESUME",
     "ORRIN_TAVRIN_CMD_S0i3_RESUME send data to ORRIN upon resume from S0i3", false, HandleResume},
    {ORRIN_TAVRIN_CMD_KVM_ENABLE_STATUS, "KVM_ENABLE_STATUS",
     "ORRIN_TAVRIN_CMD_KVM_ENABLE_STATUS says that KVM is now enabled", false, SetKVMEnabled},
    {ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO, "KVM_IP_PORT_INFO",
     "ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO gives IP and Port to trust for KVM", true, SetKVMIPAndPort},
};

constexpr bool CodesAscend() {
  for (std::size_t i = 1; i < std::size(kCommands); ++i)
    if (kCommands[i - 1].code >= kCommands[i].code) return false;
  return true;
}
static_assert(CodesAscend() && std::size(kCommands) == 14);

constexpr PortCallback kPortCallbacks[] = {{kHttpsPort, ListenHTTPSCallback},
                                           {kKvmPort, ListenKVMCallback}};

}  // namespace

void ComposeService() {
  assert(!gServiceControl->gServiceThreads[kReaderThread]);
  SetFirmwareCommands(kCommands);
  SetPortCallbacks(kPortCallbacks);
}

}  // namespace stewardry
