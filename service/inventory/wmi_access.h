// The access to the rows of a WMI class. The order of its steps and the lines that they log on
// failure exist only here; its callers differ in the query, in their name in one message, and in
// what they do with a row.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/wmi.h"

namespace stewardry {

struct WmiQuery {
  const char16_t* text;  // WQL
  // The caller's name in the message of a failed CoInitializeSecurity. Null makes the access
  // silent, and then it also leaves out the proxy blanket.
  const char* reader;
};

// Called with each row in WMI's order. Returns false to end the walk.
using WmiRowReader = std::function<bool(const platform::WbemObject& row)>;

// Opens COM on this thread, connects to ROOT\CIMV2, runs the query, calls readRow with the rows,
// and releases everything, COM included, on every way out. Returns true if the query ran, with rows
// or none; false after a failed step, which is in the WMI log. Any thread.
bool ReadWmiRows(const WmiQuery& query, const WmiRowReader& readRow);

// Return a text or number property: empty or 0 if it is missing or of another kind.
std::u16string WmiText(const platform::WbemObject& row, const char16_t* name);
std::uint32_t WmiNumber(const platform::WbemObject& row, const char16_t* name);

// Returns the length of a text property in bytes, as the log shows it.
inline std::size_t ByteLength(const std::u16string& text) { return text.size() * sizeof(char16_t); }

}  // namespace stewardry
