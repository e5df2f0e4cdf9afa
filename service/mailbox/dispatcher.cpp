// The dispatcher.
#include "service/mailbox/dispatcher.h"

#include "service/diagnostics/service_log.h"

namespace stewardry {

namespace {

// Written once before the reader thread starts, which orders it.
std::span<const FirmwareCommand> gCommands;

constexpr std::uint32_t kTrailer = 2;  // the command code and the last byte

const FirmwareCommand* FindCommand(std::uint8_t code) {
  for (const FirmwareCommand& command : gCommands)
    if (command.code == code) return &command;
  return nullptr;
}

}  // namespace

void SetFirmwareCommands(std::span<const FirmwareCommand> commands) { gCommands = commands; }

void Processread(std::uint32_t byteCount, const std::uint8_t* buffer) {
  if (byteCount < kTrailer) {
    // No code can stand in it. It is said in the log, since a firmware that sends such frames is
    // broken, and dropped.
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
