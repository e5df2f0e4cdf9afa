// The report by which the firmware learns that the service is up, what the host runs, and where it
// is on the network. It goes out at start-up, whenever an accept finds that the firmware has been
// down, and after a resume.
#pragma once

#include <atomic>
#include <cstdint>

#include "service/mailbox/records.h"

namespace stewardry {

// 1 once the firmware has given a real version text; 0 again at stop. Shown by the tray pipe, which
// looks at nothing else because of it, so every access is relaxed.
extern std::atomic<std::uint32_t> gTavrinRunning;

// By what a report learns that nobody wants it any more: the word has another value than the one
// that it had for this report.
struct ReportMark {
  const std::atomic<std::uint32_t>* word;
  std::uint32_t value;
  // Relaxed: it publishes nothing else.
  bool Holds() const { return word->load(std::memory_order_relaxed) == value; }
};

// Sends the report and gives 0. `mark` is null or a const ReportMark, which is looked at before
// each step and in the wait for a network: the report ends there once it doesn't hold. The routine
// can be a thread's entry (platform::ThreadEntry). It waits, without a bound, until the host has a
// network connection. Failures are logged where they happen, and the report goes on with its next
// step. Sock_Start must have run. Reports of several threads may overlap.
std::uint32_t SendSystemInfo(void* mark);

// The report after the firmware was found to have been down.
void ResendSystemInfo(const ReportMark* mark = nullptr);

// Fills the WMI texts and OSType of *record, which the caller has zeroed. 0, or 1 on a WMI failure,
// which leaves them as they were. Any thread.
std::uint32_t GetOSinformation(OperationSysSInfo* record);

}  // namespace stewardry
