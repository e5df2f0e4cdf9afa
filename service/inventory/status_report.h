// The status report: it shows the firmware that the service is up, what the host runs, and where it
// is on the network. It is sent at start-up, whenever an accept finds that the firmware has been
// down, and after a resume.
#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>

#include "service/mailbox/records.h"

namespace stewardry {

// The version text in the banner, the report and the tray's answers. It is the project's version in
// the uppermost CMakeLists.txt, as the executable's resources are.
inline constexpr char kServiceVersion[] = STEWARDRY_VERSION;

// Cancels a report: it is wanted while the word has the value that it had at the report's start.
struct ReportMark {
  const std::atomic<std::uint32_t>* word;
  std::uint32_t value;
  // Relaxed: it publishes nothing else.
  bool Holds() const {
    assert(word != nullptr);
    return word->load(std::memory_order_relaxed) == value;
  }
};

// Sends the report and returns 0; can be a thread's entry (platform::ThreadEntry). `mark` is null
// or a const ReportMark: the report ends at the next step, or in the wait for a network, once it
// does not hold. Blocks until the host has a network connection, without a time-out. Failures are
// logged where they happen, and the report goes on with its next step. Requires Sock_Start. Any
// thread; reports may overlap.
std::uint32_t SendSystemInfo(void* mark);

// Logs that the firmware has been down, and sends the report as SendSystemInfo does.
void ResendSystemInfo(const ReportMark* mark = nullptr);

// Fills the WMI texts and OSType of *record, which the caller has zeroed. Returns 0, or 1 on a WMI
// failure, which leaves them as they were. Any thread.
std::uint32_t GetOSinformation(OperationSysSInfo* record);

// Writes the chassis types of WMI to the service log, for its reader alone: "Laptop" or "Desktop
// detected" for each. A failing step ends it without a line. Any thread that has not opened COM in
// another mode; start-up calls it once.
void DetectChassis();

}  // namespace stewardry
