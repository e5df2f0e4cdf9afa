// The two messages that a status report and a change of the wireless network have in common: the IP
// record and the adapter record. They differ only in where their lines go.
#pragma once

#include <span>
#include <string_view>

#include "service/diagnostics/format.h"

namespace stewardry {

// Receives the lines of a report.
class ReportLines {
 public:
  virtual ~ReportLines() = default;
  template <class... Args>
  void Write(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
    const FormatArg list[] = {FormatArg(args)..., FormatArg()};
    WriteLine(format.text, std::span(list, sizeof...(Args)));
  }

 private:
  virtual void WriteLine(std::string_view format, std::span<const FormatArg> args) = 0;
};

// Makes gIPInfo a report (no peer, end marker set) and sends it, unless its address is the loopback
// address, which means nothing to the firmware. Any thread.
void SendIpReport(ReportLines* lines);

// Reads the connected adapter and sends its record, which is zero but for the end marker if there
// is none or WMI failed. Any thread.
void SendAdapterReport(ReportLines* lines);

}  // namespace stewardry
