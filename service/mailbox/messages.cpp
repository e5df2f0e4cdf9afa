// The messages to the firmware.
#include "service/mailbox/messages.h"

#include <cstring>

#include "service/diagnostics/service_log.h"
#include "service/mailbox/request.h"

namespace stewardry {

SharedRecord<TavrinVersionInfo> gTavrinVersionInfo;

namespace {

std::uint32_t ReportedSize(Operation operation) { return ControlCodeFor(operation).inputSize; }

// Copies the firmware's text up to its end, or to the field's last byte if it has none.
void CopyVersion(TavrinVersionInfo* target, const char* text) {
  std::size_t n = 0;
  while (n < sizeof target->version - 1 && text[n] != 0) ++n;
  std::memcpy(target->version, text, n);
  target->version[n] = 0;
}

std::uint32_t WritePacket(Operation operation, packet* data) {
  RequestOutcome outcome;
  // The reply room is the packet's own: null and 0 on both relays.
  const std::uint32_t result = RunRequest(operation, data->sendBuffer, data->sendSize,
                                          data->replyBuffer, data->replySize, &outcome);
  data->replySize = outcome.bytes;
  return result;
}

}  // namespace

bool IsProvisioned() { return gTavrinVersionInfo.Load().provisionStatus == kProvisioned; }

void SetVersionText(SharedRecord<TavrinVersionInfo>* record, const char* text) {
  record->Update([&](TavrinVersionInfo& info) { CopyVersion(&info, text); });
}

std::uint32_t WriteDASHPacket(packet* data) {
  return WritePacket(Operation::kWriteDASHPacket, data);
}

std::uint32_t WriteKVMPacket(packet* data) { return WritePacket(Operation::kWriteKVMPacket, data); }

std::uint32_t GetOrrinStatus(std::uint8_t* status) {
  RequestOutcome outcome;
  std::uint8_t answer = 0;
  const std::uint32_t result = AskForRecord(Operation::kGetOrrinStatus, &answer, &outcome);
  if (outcome.completed && outcome.bytes == sizeof answer) *status = answer;
  return result;
}

void GetTavrinVersion(SharedRecord<TavrinVersionInfo>* target) {
  RequestOutcome outcome;
  TavrinVersionInfo answer{};
  AskForRecord(Operation::kGetTavrinVersion, &answer, &outcome);
  if (!outcome.completed) return;
  if (outcome.bytes < sizeof answer)
    return LogInfo("GetTavrinVersion answer of %d bytes is too short", outcome.bytes);
  answer.version[sizeof answer.version - 1] = 0;  // a text without an end stops at its field
  LogInfo("Read data is %s", PrintableText(answer.version));
  target->Update([&](TavrinVersionInfo& info) {
    CopyVersion(&info, answer.version);
    info.provisionStatus = answer.provisionStatus;
    info.KVMStatus = answer.KVMStatus;
  });
  LogInfo("Read prov status  is %d", answer.provisionStatus);
  LogInfo("uECAbsent %x", answer.uECAbsent);
  LogInfo("Dummy (Unused) %x", answer.dummy);
  LogInfo("KVMStatus %x", answer.KVMStatus);
}

std::uint32_t WriteTavrinStatus(const std::uint32_t* status) {
  const std::uint32_t value = *status;
  LogInfo("Value %d Size %d", value, sizeof value);
  return SendRecord(Operation::kWriteTavrinStatus, &value);
}

void WriteOsInfo(const OperationSysSInfo* info) {
  LogInfo("OperationSysSInfo size:%zd", ReportedSize(Operation::kWriteOsInfo));
  SendRecord(Operation::kWriteOsInfo, info);
}

void WriteNwInfo(const NetworkInfo* info) {
  LogInfo("NetworkInfo %zd", ReportedSize(Operation::kWriteNwInfo));
  SendRecord(Operation::kWriteNwInfo, info);
}

void SendIPCompleteInfomartion(const IPInfo* info) {
  SendRecord(Operation::kSendIPCompleteInfomartion, info);
}

void SendNetworkStatus(std::uint32_t status) { SendRecord(Operation::kSendSystemBooted, &status); }

void SendCloseSocketcmd(std::uint16_t port) { SendRecord(Operation::kSendCloseSocketcmd, &port); }

void WriteFanInfo(const std::uint32_t* info) {
  LogInfo("FanInfo size:%zd", ReportedSize(Operation::kWriteFanInfo));
  SendRecord(Operation::kWriteFanInfo, info);
}

void WriteSensorInfo(const SensorInfo* info) {
  LogInfo("SensorInfo size:%zd", ReportedSize(Operation::kWriteSensorInfo));
  SendRecord(Operation::kWriteSensorInfo, info);
}

std::uint32_t DeAllocateKVM_KB_MB_Buffers() {
  RequestOutcome outcome;
  std::uint64_t unread = 0;
  return AskForRecord(Operation::kDeAllocateKVM_KB_MB_Buffers, &unread, &outcome);
}

std::uint32_t SetS5Status() {
  const std::uint16_t goingToS5 = 2;
  std::uint32_t returned;
  const std::uint32_t result =
      RunPlainCall(Operation::kSetS5Status, &goingToS5, sizeof goingToS5, &returned);
  if (result != 0) LogInfo("Error calling IOCTL: IOCTL_CORVANE_SET_S5_STATUS");
  return result;
}

}  // namespace stewardry
