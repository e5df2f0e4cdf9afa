#include "lab/firmware/core/inventory.h"

#include <cinttypes>

#include "lab/firmware/core/describe.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

// Builds one JSON object member by member.
class JsonObject {
 public:
  JsonObject& AddRaw(const char* name, const std::string& value) {
    text_ += text_.empty() ? "{" : ",";
    text_ += JsonText(name) + ":" + value;
    return *this;
  }
  JsonObject& AddText(const char* name, const std::string& value) {
    return AddRaw(name, JsonText(value));
  }
  JsonObject& AddNumber(const char* name, std::uint64_t value) {
    return AddRaw(name, Format("%" PRIu64, value));
  }
  std::string Finished() const { return text_ + "}"; }

 private:
  std::string text_;
};

constexpr char kNull[] = "null";

std::string OsJson(const OsRecord& os) {
  return JsonObject()
      .AddText("caption", Utf8Field(os.caption))
      .AddText("architecture", Utf8Field(os.architecture))
      .AddText("version", Utf8Field(os.version))
      .AddText("hostName", AsciiField(os.hostName))
      .AddText("domainName", AsciiField(os.domainName))
      .AddNumber("osType", os.osType)
      .Finished();
}

std::string NetworkJson(const NetworkRecord& network) {
  return JsonObject()
      .AddText("name", Utf8Field(network.name))
      .AddNumber("speed", network.speed)
      .AddText("macAddress", Utf8Field(network.macAddress))
      .AddText("deviceId", Utf8Field(network.deviceId))
      .AddNumber("statusInfo", network.statusInfo)
      .AddNumber("addressOrigin", network.addressOrigin)
      .AddRaw("connected", IsNoNetwork(network) ? "false" : "true")
      .Finished();
}

std::string IpJson(const IpRecord& ip) {
  return JsonObject()
      .AddText("address", DottedAddress(ip.ipAddress))
      .AddText("subnetMask", DottedAddress(ip.subnetMask))
      .AddText("gateway", DottedAddress(ip.gatewayAddress))
      .AddText("dns", DottedAddress(ip.dnsAddress))
      .AddText("macAddress", HardwareAddress(ip.macAddress))
      .AddNumber("port", ip.localPort)
      .Finished();
}

std::string ReportsJson(const Reports& reports) {
  return JsonObject()
      .AddNumber("serviceStatus", reports.serviceStatus)
      .AddNumber("os", reports.os)
      .AddNumber("network", reports.network)
      .AddNumber("ip", reports.ip)
      .AddNumber("networkStatus", reports.networkStatus)
      .AddNumber("userPresence", reports.userPresence)
      .Finished();
}

std::string NumberOrNull(const std::optional<std::uint32_t>& value) {
  return value ? Format("%u", *value) : kNull;
}

}  // namespace

std::string InventoryJson(const Inventory& inventory) {
  const auto& [serviceStatus, os, network, ip, networkStatus, userPresence, reports] = inventory;
  return JsonObject()
      .AddRaw("os", os ? OsJson(*os) : kNull)
      .AddRaw("network", network ? NetworkJson(*network) : kNull)
      .AddRaw("ip", ip ? IpJson(*ip) : kNull)
      .AddRaw("serviceStatus", NumberOrNull(serviceStatus))
      .AddRaw("networkStatus", NumberOrNull(networkStatus))
      .AddRaw("userPresence", NumberOrNull(userPresence))
      .AddRaw("serviceVersion", os ? JsonText(AsciiField(os->serviceVersion)) : kNull)
      .AddRaw("reports", ReportsJson(reports))
      .Finished();
}

}  // namespace orrin
