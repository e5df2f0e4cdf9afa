#include "service/mailbox/messages.h"

#include <cassert>
#include <cstring>

#include "service/diagnostics/service_log.h"
#include "service/mailbox/mailbox_link.h"
#include "service/mailbox/request.h"

namespace stewardry {

namespace {

// Copies the text up to its terminator, or up to the field's last byte.
void CopyVersion(TavrinVersionInfo* target, const char* text) {
  assert(text != nullptr);
  std::size_t n = 0;
  while (n < sizeof target->version - 1 && text[n] != 0) ++n;
  std::memcpy(target->version, text, n);
  target->version[n] = 0;
}

std::uint32_t WritePacket(Operation operation, packet* data) {
  assert(data->sendBuffer != nullptr || data->sendSize == 0);
  RequestOutcome outcome;
  const std::uint32_t result = RunRequest(operation, data->sendBuffer, data->sendSize,
                                          data->replyBuffer, data->replySize, &outcome);
  data->replySize = outcome.bytes;
  return result;
}

}  // namespace

bool IsProvisioned() {
  return gMailboxLink->gTavrinVersionInfo.Load().provisionStatus == kProvisioned;
}

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
  const std::uint32_t result = ReadRecord<Operation::kGetOrrinStatus>(&answer, &outcome);
  if (outcome.completed && outcome.bytes == sizeof answer) *status = answer;
  return result;
}

void GetTavrinVersion(SharedRecord<TavrinVersionInfo>* target) {
  RequestOutcome outcome;
  TavrinVersionInfo answer{};
  (void)ReadRecord<Operation::kGetTavrinVersion>(&answer, &outcome);  // the outcome includes it
  if (!outcome.completed) return;
  if (outcome.bytes < sizeof answer)
    return LogInfo("GetTavrinVersion answer of %d bytes is too short", outcome.bytes);
  answer.version[sizeof answer.version - 1] = 0;  // in case the text has no terminator
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
  return SendRecord<Operation::kWriteTavrinStatus>(value);
}

void WriteOsInfo(const OperationSysSInfo* info) {
  LogInfo("OperationSysSInfo size:%zd", sizeof *info);
  (void)SendRecord<Operation::kWriteOsInfo>(*info);
}

void WriteNwInfo(const NetworkInfo* info) {
  LogInfo("NetworkInfo %zd", sizeof *info);
  (void)SendRecord<Operation::kWriteNwInfo>(*info);
}

void SendIPCompleteInfomartion(const IPInfo* info) {
  (void)SendRecord<Operation::kSendIPCompleteInfomartion>(*info);
}

void SendNetworkStatus(std::uint32_t status) {
  (void)SendRecord<Operation::kSendSystemBooted>(status);
}

void SendCloseSocketcmd(std::uint16_t port) {
  (void)SendRecord<Operation::kSendCloseSocketcmd>(port);
}

void WriteFanInfo(const std::uint32_t* info) {
  LogInfo("FanInfo size:%zd", sizeof *info);
  (void)SendRecord<Operation::kWriteFanInfo>(*info);
}

void WriteSensorInfo(const SensorInfo* info) {
  LogInfo("SensorInfo size:%zd", sizeof *info);
  (void)SendRecord<Operation::kWriteSensorInfo>(*info);
}

std::uint32_t DeAllocateKVM_KB_MB_Buffers() {
  RequestOutcome outcome;
  std::uint64_t unread = 0;
  return ReadRecord<Operation::kDeAllocateKVM_KB_MB_Buffers>(&unread, &outcome);
}

std::uint32_t SetS5Status() {
  const std::uint16_t goingToS5 = 2;
  std::uint32_t returned;
  const std::uint32_t result = SendPlainRecord<Operation::kSetS5Status>(goingToS5, &returned);
  if (result != 0) LogInfo("Error calling IOCTL: IOCTL_CORVANE_SET_S5_STATUS");
  return result;
}

}  // namespace stewardry
