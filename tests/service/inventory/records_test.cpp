// The records' bytes as the firmware reads them, told by hand.
#include "service/inventory/records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace stewardry {
namespace {

template <class Record>
std::string BytesOf(const Record& record) {
  return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

// A record of `size` zero bytes with the given bytes at the given offsets.
class Golden {
 public:
  explicit Golden(std::size_t size) : bytes_(size, '\0') {}
  Golden& At(std::size_t offset, const std::string& bytes) {
    bytes_.replace(offset, bytes.size(), bytes);
    return *this;
  }
  const std::string& Bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

TEST(Records, OperatingSystemFieldStandsElsewhere) {
  OperationSysSInfo record{};
  FillText(record.Caption, u"A\u00e9");
  FillText(record.OSArchitecture, u"B");
  FillText(record.Version, u"C");
  FillText(record.hostName, "host");
  FillText(record.domainName, "N/A");
  record.OSType = 0x1224;
  record.endMarker = kEndMarker;
  FillText(record.tavrinVersion, "1.0.0.533");
  const Golden golden = Golden(804)
                            .At(0, {'A', 0, '\xe9', 0})
                            .At(128, "B")
                            .At(256, "C")
                            .At(384, "host")
                            .At(640, "N/A")
                            .At(768, "\x24\x12")
                            .At(770, "\xff\xff")
                            .At(772, "1.0.0.533");
  EXPECT_EQ(BytesOf(record), golden.Bytes());
}

TEST(Records, NetworkFieldStandsElsewhere) {
  NetworkInfo record{};
  FillText(record.Name, u"N");
  record.Speed = 0x0807060504030201;
  FillText(record.MACAddress, u"M");
  FillText(record.DeviceID, u"D");
  record.StatusInfo = 3;
  record.endMarker = kEndMarker;
  record.addressOrigin = kAddressOriginDhcp;
  const Golden golden = Golden(384)
                            .At(0, "N")
                            .At(192, "\x01\x02\x03\x04\x05\x06\x07\x08")
                            .At(200, "M")
                            .At(248, "D")
                            .At(376, "\x03")
                            .At(378, "\xff\xff")
                            .At(380, "\x04");
  EXPECT_EQ(BytesOf(record), golden.Bytes());
}

TEST(Records, IpFieldStandsElsewhere) {
  IPInfo record{};
  std::memcpy(&record.ipAddress, "\xc0\xa8\x01\x05", 4);
  record.localPort = 623;
  std::memcpy(&record.gatewayAddress, "\xc0\xa8\x01\x01", 4);
  std::memcpy(&record.dnsAddress, "\xc0\xa8\x01\x02", 4);
  std::memcpy(&record.subnetMask, "\xff\xff\xff\x00", 4);
  std::memcpy(&record.remoteAddress, "\x0a\x00\x00\x09", 4);
  record.remotePort = 0x3412;
  std::memcpy(record.macAddress, "\x02\x03\x04\x05\x06\x07", 6);
  record.endMarker = kEndMarker;
  const Golden golden = Golden(36)
                            .At(0, "\xc0\xa8\x01\x05")
                            .At(4, "\x6f\x02")
                            .At(8, "\xc0\xa8\x01\x01")
                            .At(12, "\xc0\xa8\x01\x02")
                            .At(16, "\xff\xff\xff")
                            .At(20, {'\x0a', 0, 0, '\x09'})
                            .At(24, "\x12\x34")
                            .At(28, "\x02\x03\x04\x05\x06\x07")
                            .At(34, "\xff\xff");
  EXPECT_EQ(BytesOf(record), golden.Bytes());
}

TEST(Records, TextRunsOutOfItsFieldOrLeavesOldBytesBehind) {
  struct {
    char field[4];
    char next;
  } record = {{'o', 'l', 'd', '!'}, '#'};
  const struct {
    const char* text;
    std::string bytes;
  } kCases[] = {{"abcdefgh", "abcd"}, {"abcd", "abcd"}, {"a", {'a', 0, 0, 0}}, {"", {0, 0, 0, 0}}};
  for (const auto& testCase : kCases) {
    FillText(record.field, testCase.text);
    EXPECT_EQ(std::string(record.field, 4), testCase.bytes) << testCase.text;
    EXPECT_EQ(record.next, '#') << testCase.text;
    EXPECT_EQ(TextOf(record.field), std::string(testCase.text).substr(0, 4));
  }
}

}  // namespace
}  // namespace stewardry
