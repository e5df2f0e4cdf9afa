#include "lab/firmware/core/inventory.h"

#include <cinttypes>

#include "lab/firmware/core/describe.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

// Builds one JSON object member by member.
class JsonObject {
 public:
  JsonObject& Raw(const char* name, const std::string& value) {
    text_ += text_.empty() ? "{" : ",";
    text_ += JsonText(name) + ":" + value;
    return *this;
  }
  JsonObject& Text(const char* name, const std::string& value) {
    return Raw(name, JsonText(value));
  }
  JsonObject& Number(const char* name, std::uint64_t value) {
    return Raw(name, Format("%" PRIu64, value));
  }
  std::string Done() const { return text_ + "}"; }

 private:
  std::string text_;
};

constexpr char kNull[] = "null";

std::string OsJson(const OsRecord& os) {
  return JsonObject()
      .Text("caption", Utf8Field(os.caption))
      .Text("architecture", Utf8Field(os.architecture))
      .Text("version", Utf8Field(os.version))
      .Text("hostName", AsciiField(os.hostName))
      .Text("domainName", AsciiField(os.domainName))
      .Number("osType", os.osType)
      .Done();
}

std::string NetworkJson(const NetworkRecord& network) {
  return JsonObject()
      .Text("name", Utf8Field(network.name))
      .Number("speed", network.speed)
      .Text("macAddress", Utf8Field(network.macAddress))
      .Text("deviceId", Utf8Field(network.deviceId))
      .Number("statusInfo", network.statusInfo)
      .Number("addressOrigin", network.addressOrigin)
      .Raw("connected", IsNoNetwork(network) ? "false" : "true")
      .Done();
}

std::string IpJson(const IpRecord& ip) {
  return JsonObject()
      .Text("address", DottedAddress(ip.ipAddress))
      .Text("subnetMask", DottedAddress(ip.subnetMask))
      .Text("gateway", DottedAddress(ip.gatewayAddress))
      .Text("dns", DottedAddress(ip.dnsAddress))
      .Text("macAddress", HardwareAddress(ip.macAddress))
      .Number("port", ip.localPort)
      .Done();
}

std::string ReportsJson(const Reports& reports) {
  return JsonObject()
      .Number("serviceStatus", reports.serviceStatus)
      .Number("os", reports.os)
      .Number("network", reports.network)
      .Number("ip", reports.ip)
      .Number("networkStatus", reports.networkStatus)
      .Number("userPresence", reports.userPresence)
      .Done();
}

std::string NumberOrNull(const std::optional<std::uint32_t>& value) {
  return value ? Format("%u", *value) : kNull;
}

}  // namespace

std::string InventoryJson(const Inventory& inventory) {
  const auto& [serviceStatus, os, network, ip, networkStatus, userPresence, reports] = inventory;
  return JsonObject()
      .Raw("os", os ? OsJson(*os) : kNull)
      .Raw("network", network ? NetworkJson(*network) : kNull)
      .Raw("ip", ip ? IpJson(*ip) : kNull)
      .Raw("serviceStatus", NumberOrNull(serviceStatus))
      .Raw("networkStatus", NumberOrNull(networkStatus))
      .Raw("userPresence", NumberOrNull(userPresence))
      .Raw("serviceVersion", os ? JsonText(AsciiField(os->serviceVersion)) : kNull)
      .Raw("reports", ReportsJson(reports))
      .Done();
}

}  // namespace orrin
