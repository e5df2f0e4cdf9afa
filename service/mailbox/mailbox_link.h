// The state of the mailbox room, one record of the process.
#pragma once

#include <chrono>
#include <span>

#include "platform/device.h"
#include "service/mailbox/dispatcher.h"
#include "service/mailbox/records.h"
#include "service/mailbox/shared_record.h"
#include "service/mailbox/slot_mark.h"

namespace stewardry {

struct MailboxLink {
  // Written by the service main before it starts the threads that read them; the start orders them.
  platform::DeviceHandle gRequestDevice;  // the requests of all threads; stays open in a run
  std::span<const FirmwareCommand> gCommands;

  // The reader thread's own.
  platform::DeviceHandle gInterruptDevice;
  // From the reader's end to the restart of a deaf service.
  std::chrono::seconds restartPause{60};

  // Written by each status report, on whichever thread runs it; read by any thread.
  SharedRecord<TavrinVersionInfo> gTavrinVersionInfo;

  // Lent by the reader thread, set by the control handler's thread.
  StopMark<platform::CompletionPort> gReaderStop;
};

extern platform::ProcessLifetime<MailboxLink> gMailboxLink;

}  // namespace stewardry
