#include "service/mailbox/dispatcher.h"

#include <cassert>

#include "service/diagnostics/service_log.h"
#include "service/mailbox/mailbox_link.h"

namespace stewardry {

namespace {

constexpr std::uint32_t kTrailer = 2;  // the command code and the last byte

const FirmwareCommand* FindCommand(std::uint8_t code) {
  for (const FirmwareCommand& command : gMailboxLink->gCommands)
    if (command.code == code) return &command;
  return nullptr;
}

}  // namespace

void SetFirmwareCommands(std::span<const FirmwareCommand> commands) {
  assert(!commands.empty());
  gMailboxLink->gCommands = commands;
}

void Processread(std::uint32_t byteCount, const std::uint8_t* buffer) {
  assert(!gMailboxLink->gCommands.empty() && (buffer != nullptr || byteCount == 0));
  if (byteCount < kTrailer) {
    // A firmware that sends such frames is faulty, so they are logged.
    LogInfo("Frame of %d bytes carries no command", byteCount);
    return;
  }
  const std::uint32_t length = byteCount - kTrailer;
  const FirmwareCommand* command = FindCommand(buffer[length]);
  if (command == nullptr) {
    LogInfo("Unknown Command received 0x%x", buffer[length]);
    return;
  }
  if (command->arrivalLine != nullptr) LogInfo("%s", command->arrivalLine);
  if (command->needsPayload && length == 0) return;
  if (command->handler != nullptr) command->handler(buffer, length);
}

}  // namespace stewardry
