// Entries of the Windows event log.
#pragma once

#include <cstdint>

namespace stewardry {

// The name under which the service is registered, reports events and is controlled.
inline constexpr char kServiceName[] = "QuillonSvc";

constexpr std::uint16_t kEventError = 1;        // EVENTLOG_ERROR_TYPE
constexpr std::uint16_t kEventInformation = 4;  // EVENTLOG_INFORMATION_TYPE

// Writes one entry: `text` for information, "<text> failed with <last error>" for an error, cut at
// 127 characters. A failure is ignored. Any thread.
void ReportServiceEvent(const char* text, std::uint16_t eventType);

}  // namespace stewardry
