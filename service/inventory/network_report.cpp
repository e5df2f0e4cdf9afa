// The two network messages, in the order of their lines and sends.
#include "service/inventory/network_report.h"

#include <algorithm>
#include <iterator>

#include "service/inventory/adapters.h"
#include "service/inventory/ip_config.h"
#include "service/mailbox/messages.h"

namespace stewardry {

void SendIpReport(ReportLines* lines) {
  lines->Write("Netwrok Addrress 0x%x", gIPInfo.Load().ipAddress);
  lines->Write("Size of %d", sizeof(IPInfo));
  gIPInfo.Update([](IPInfo& record) {
    record.remotePort = 0;
    record.endMarker = kEndMarker;
    record.remoteAddress = 0;
  });
  const IPInfo record = gIPInfo.Load();
  if (record.ipAddress != kLoopbackAddress) SendIPCompleteInfomartion(&record);
}

void SendAdapterReport(ReportLines* lines) {
  NetworkOsInformation scratch{};
  NetworkInfo& record = scratch.network;
  lines->Write("Getting value from GetNetworkinformation");
  // A failure is in the WMI log, and the record goes out with what it has.
  (void)GetNetworkinformation(&record);
  std::fill(std::begin(record.reserved), std::end(record.reserved), std::uint8_t{0});
  lines->Write("Network Name: %ls", TextOf(record.Name));
  lines->Write("Network Speed: %llu", record.Speed);
  record.endMarker = kEndMarker;
  WriteNwInfo(&record);
}

}  // namespace stewardry
