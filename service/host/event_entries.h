// Entries of the Windows event log.
#pragma once

#include <cstdint>

#include "service/diagnostics/deaf_entry.h"  // kServiceName

namespace stewardry {

// Writes one entry: `text` for information, "<text> failed with <last error>" for an error, cut at
// 127 characters. A failure is ignored. Any thread.
void ReportServiceEvent(const char* text, std::uint16_t eventType);

}  // namespace stewardry
