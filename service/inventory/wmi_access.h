// The way to the rows of a WMI class, which every reader of the inventory takes. The order of the
// steps and the lines they log on failure exist here once; the readers differ in the query, in
// their name in one message, and in what they do with a row.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/wmi.h"

namespace stewardry {

struct WmiQuery {
  const char16_t* text;  // WQL
  // The reader's name in the message of a failed CoInitializeSecurity. Null makes the access
  // silent, and then it also goes without the proxy blanket.
  const char* reader;
};

// Called with each row in WMI's order; false ends the walk.
using WmiRowReader = std::function<bool(const platform::WbemObject& row)>;

// Opens COM on this thread, connects to ROOT\CIMV2, runs the query, gives the rows to readRow, and
// releases everything, COM included, on every way out. 0 when the query ran (rows or none), 1 when
// a step before it failed, which is then in the WMI log. Any thread.
std::uint32_t ReadWmiRows(const WmiQuery& query, const WmiRowReader& readRow);

// A text property, empty if it is missing or no text; a number property, 0 likewise.
std::u16string WmiText(const platform::WbemObject& row, const char16_t* name);
std::uint32_t WmiNumber(const platform::WbemObject& row, const char16_t* name);

// The length of a text property in bytes, as the log gives it.
inline std::size_t ByteLength(const std::u16string& text) { return text.size() * sizeof(char16_t); }

}  // namespace stewardry
