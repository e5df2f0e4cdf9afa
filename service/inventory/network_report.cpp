#include "service/inventory/network_report.h"

#include <algorithm>
#include <cassert>
#include <iterator>

#include "service/inventory/adapters.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/reports.h"
#include "service/mailbox/messages.h"

namespace stewardry {

void SendIpReport(ReportLines* lines) {
  assert(lines != nullptr);
  // Fixed log texts; their wording must not change.
  lines->Write("Netwrok Addrress 0x%x", gReports->gIPInfo.Load().ipAddress);
  lines->Write("Size of %d", sizeof(IPInfo));
  gReports->gIPInfo.Update([](IPInfo& record) {
    record.remotePort = 0;
    record.endMarker = kEndMarker;
    record.remoteAddress = 0;
  });
  const IPInfo record = gReports->gIPInfo.Load();
  if (record.ipAddress != kLoopbackAddress) SendIPCompleteInfomartion(&record);
}

void SendAdapterReport(ReportLines* lines) {
  assert(lines != nullptr);
  NetworkOsInformation scratch{};
  NetworkInfo& record = scratch.network;
  lines->Write("Getting value from GetNetworkinformation");
  // A failure is in the WMI log, and the record is sent with what it has.
  (void)GetNetworkinformation(&record);
  std::fill(std::begin(record.reserved), std::end(record.reserved), std::uint8_t{0});
  lines->Write("Network Name: %ls", TextOf(record.Name));
  lines->Write("Network Speed: %llu", record.Speed);
  record.endMarker = kEndMarker;
  WriteNwInfo(&record);
}

}  // namespace stewardry
