// Event entries about a service that runs and can no longer be reached. A stop and a preshutdown
// write none.
#pragma once

#include <chrono>
#include <cstddef>

namespace stewardry {

// The name under which the service is registered, reports events, is controlled and has settings.
inline constexpr char kServiceName[] = "QuillonSvc";

// The KVM listener is gone with its budget; the reader has ended, because its device went away or
// for another reason; the DASH listener is gone with its budget.
enum class Deafness { kKvmBudget, kReaderEnded, kDeviceGone, kDashGone };
constexpr std::size_t kDeafnessKinds = 4;

// Writes one warning with the remedy, at most one an hour for each cause in a process. A failure
// is ignored. Any thread.
void ReportDeafness(Deafness cause,
                    std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

}  // namespace stewardry
