// The answers to the tray and the software upgrade tool. Other threads write what they show; it is
// read here without a lock, as an atomic or a SharedRecord.
#include "service/host/pipe_threads.h"

#include "service/actions/pipe_exchange.h"
#include "service/actions/upgrade.h"
#include "service/diagnostics/format.h"
#include "service/inventory/reports.h"
#include "service/inventory/status_report.h"
#include "service/kvm/kvm_state.h"
#include "service/mailbox/mailbox_link.h"
#include "service/mailbox/messages.h"

namespace stewardry {

namespace {

constexpr std::uint32_t kWlanAuthenticationFailed = 1200;  // a value of KVMStatus

void SetAnswer(AnswerText text, const char* words) {
  FormatTo(text.data(), text.size(), "%s", words);
}

bool IsRunning() { return gReports->gTavrinRunning.load(std::memory_order_relaxed) == 1; }

void AnswerRunning(AnswerText text) { SetAnswer(text, IsRunning() ? "ON" : "OFF"); }
void AnswerProvisioning(AnswerText text) {
  SetAnswer(text, IsProvisioned() ? "Completed" : "Not Completed");
}
void AnswerFirmwareVersion(AnswerText text) {
  SetAnswer(text, TextOf(gMailboxLink->gTavrinVersionInfo.Load().version).c_str());
}
void AnswerKvmSession(AnswerText text) {
  SetAnswer(text, TextOf(gKvm->gKvmSessionStatus.Load().text).c_str());
}
void AnswerServiceVersion(AnswerText text) { SetAnswer(text, kServiceVersion); }
void AnswerNotAvailable(AnswerText text) { SetAnswer(text, "N/A"); }
void AnswerServiceState(AnswerText text) {
  SetAnswer(text, IsRunning() ? "Service Started" : "Service Ended");
}

template <std::uint32_t IPInfo::*Address>
void AnswerAddress(AnswerText text) {
  FormatTo(text.data(), text.size(), "%x", gReports->gIPInfo.Load().*Address);
}

void AnswerUpgradeNotice(AnswerText text) {
  if (!TakeUpgradeNotice(text.first<kUpgradeNoticeSize + 1>())) AnswerNotAvailable(text);
}

void AnswerWlanFault(AnswerText text) {
  const bool failed =
      gMailboxLink->gTavrinVersionInfo.Load().KVMStatus == kWlanAuthenticationFailed;
  SetAnswer(text, failed ? "WLAN firmware authentication failed" : "N/A");
}

constexpr PipeCommand kTrayCommands[] = {
    {1, AnswerRunning},
    {2, AnswerProvisioning},
    {3, AnswerFirmwareVersion},
    {4, AnswerKvmSession},
    {5, AnswerServiceVersion},
    {6, AnswerNotAvailable},
    {7, AnswerServiceState},
    {8, AnswerAddress<&IPInfo::ipAddress>},
    {9, AnswerAddress<&IPInfo::subnetMask>},
    {10, AnswerAddress<&IPInfo::gatewayAddress>},
    {11, AnswerAddress<&IPInfo::dnsAddress>},
};
constexpr PipeCommand kUpgradeCommands[] = {{6, AnswerUpgradeNotice}};
constexpr PipeCommand kTrayUiCommands[] = {{20, AnswerWlanFault}};

}  // namespace

std::uint32_t TrayPipeThread(void*) {
  return ServeQuestions({R"(\\.\pipe\TrayPipe)", kTrayCommands});
}

std::uint32_t SoftwareUpgradePipeThread(void*) {
  return ServeQuestions({R"(\\.\pipe\SoftwareUpgradePipe)", kUpgradeCommands});
}

std::uint32_t ServiceToTrayUIThread(void*) {
  return ServeQuestions({R"(\\.\pipe\ServiceToTrayUI)", kTrayUiCommands});
}

}  // namespace stewardry
