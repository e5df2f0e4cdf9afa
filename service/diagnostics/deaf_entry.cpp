#include "service/diagnostics/deaf_entry.h"

#include <cstdint>
#include <iterator>

#include "platform/service_manager.h"
#include "service/diagnostics/log_file.h"

namespace stewardry {

namespace {

struct Entry {
  Deafness cause;
  std::uint32_t eventId;  // of the executable's message table
  const char* text;
};

constexpr Entry kEntries[] = {
    {Deafness::kKvmBudget, 0x80020010,
     "Port 22 has used up its rebinds: no KVM viewer is served until the firmware enables KVM "
     "again, and then until the next refused connection. DASH is served as before. Find out in "
     "tavrinLog.log which connections were refused, then restart the service: "
     "sc stop QuillonSvc, sc start QuillonSvc."},
    {Deafness::kReaderEnded, 0x80020011,
     "The thread that reads the mailbox device has ended: replies and commands of the firmware no "
     "longer arrive. The last lines of tavrinLog.log give the reason. Check the driver with "
     "sc query Tavrin-MailBoxDrv, then restart the service: sc stop QuillonSvc, "
     "sc start QuillonSvc."},
    {Deafness::kDeviceGone, 0x80020012,
     "The mailbox device went away: the firmware and its consoles can no longer be reached. Bring "
     "the device back (Device Manager, or a restart of the computer), then restart the service: "
     "sc stop QuillonSvc, sc start QuillonSvc."},
    {Deafness::kDashGone, 0x80020013,
     "Port 664 has used up its rebinds: the process ends, and no console is served until the "
     "service runs again. See in tavrinLog.log whether another program has the port (netstat "
     "-abno) or the firmware is not provisioned, then start the service: sc start QuillonSvc."}};

constexpr bool EachCauseHasItsRow() {
  for (std::size_t i = 0; i < std::size(kEntries); ++i)
    if (kEntries[i].cause != static_cast<Deafness>(i)) return false;
  return std::size(kEntries) == kDeafnessKinds;
}
static_assert(EachCauseHasItsRow());

constexpr std::chrono::steady_clock::duration kPause = std::chrono::hours(1);

}  // namespace

void ReportDeafness(Deafness cause, std::chrono::steady_clock::time_point now) {
  const Entry& entry = kEntries[static_cast<std::size_t>(cause)];
  auto& written = gLogs->deafEntries[static_cast<std::size_t>(cause)];
  const std::int64_t tick = now.time_since_epoch().count();
  auto last = written.load(std::memory_order_relaxed);
  if (last != 0 && tick - last < kPause.count()) return;
  // Of two threads with the same cause one writes.
  if (!written.compare_exchange_strong(last, tick, std::memory_order_relaxed)) return;
  const platform::EventSource source = platform::RegisterEventSourceA(kServiceName);
  if (!source) return;
  const char* const strings[] = {kServiceName, entry.text};
  // A lost entry does no harm: the log has the reason.
  (void)platform::ReportEventA(source, platform::kEventWarning, entry.eventId, strings);
}

}  // namespace stewardry
