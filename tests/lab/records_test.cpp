#include "lab/firmware/records.h"

#include <gtest/gtest.h>

#include "lab/firmware/describe.h"
#include "lab/firmware/frames.h"
#include "lab/firmware/inventory.h"
#include "lab/firmware/operations.h"
#include "lab/firmware/text.h"
#include "lab/firmware/tls_records.h"

namespace orrin {
namespace {

// Writes text at an offset, each character followed by `width` - 1 zeros.
void Put(Bytes* bytes, std::size_t offset, std::string_view text, std::size_t width = 1) {
  for (std::size_t i = 0; i < text.size(); i++) {
    (*bytes)[offset + i * width] = static_cast<std::uint8_t>(text[i]);
  }
}

const char kAnnouncement[] =
    "c0 a8 01 17 98 02 00 00 c0 a8 01 01 08 08 04 04 ff ff ff 00 0a 01 02 03 d4 31 00 00 "
    "00 1a 2b 3c 4d 5e ff ff";

TEST(Records, AnnouncementReadsAsTheHostWroteIt) {
  const auto record = ReadRecord<IpRecord>(*BytesFromHex(kAnnouncement));
  ASSERT_TRUE(record);
  EXPECT_EQ(Describe(*record),
            "announces a DASH connection to port 664 from 10.1.2.3:54321; address 192.168.1.23, "
            "mask 255.255.255.0, gateway 192.168.1.1, DNS 8.8.4.4, MAC 00:1a:2b:3c:4d:5e");
  IpRecord report = *record;
  report.localPort = 623;
  report.endMarker = 0;
  EXPECT_TRUE(Describe(report).starts_with("report: address 192.168.1.23"));
  EXPECT_NE(Describe(report).find("end marker 0x0000"), std::string::npos);
}

TEST(Records, OperatingSystemReadsAsTheHostWroteIt) {
  Bytes bytes(804);
  Put(&bytes, 0, std::string(64, 'C'), 2);  // fills its field: there is no terminator
  Put(&bytes, 128, "64-bit", 2);
  Put(&bytes, 256, "10.0", 2);
  Put(&bytes, 384, "box\"\x1b");
  Put(&bytes, 640, "N/A");
  Put(&bytes, 768, "\x12\x01\xff\xff");
  Put(&bytes, 772, "1.0.0.533");
  const auto record = ReadRecord<OsRecord>(bytes);
  ASSERT_TRUE(record);
  EXPECT_EQ(Describe(*record), "\"" + std::string(64, 'C') +
                                   "\", architecture \"64-bit\", version \"10.0\", host \"box\"."
                                   "\", domain \"N/A\", type 274, service version \"1.0.0.533\"");
  Inventory inventory;
  inventory.os = record;
  const std::string json = InventoryJson(inventory);
  EXPECT_NE(json.find("\"hostName\":\"box\\\".\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"network\":null"), std::string::npos) << json;
}

TEST(Records, NetworkReadsAsTheHostWroteItAndEmptyIsNoNetwork) {
  Bytes bytes(384);
  EXPECT_EQ(Describe(*ReadRecord<NetworkRecord>(bytes)),
            "the host has no network yet, end marker 0x0000");
  Put(&bytes, 0, "eth0", 2);
  Put(&bytes, 192, std::string_view("\x00\xca\x9a\x3b\x00\x00\x00\x00", 8));
  Put(&bytes, 200, "00:1A:2B:3C:4D:5E", 2);
  Put(&bytes, 248, "3", 2);
  Put(&bytes, 376, std::string_view("\x02\x00\xff\xff\x04\x00\x00\x00", 8));
  EXPECT_EQ(Describe(*ReadRecord<NetworkRecord>(bytes)),
            "\"eth0\", 1000000000 bit/s, MAC 00:1A:2B:3C:4D:5E, device \"3\", status 2, "
            "address from DHCP (4)");
}

TEST(Records, AnyOtherSizeIsNoRecord) {
  EXPECT_FALSE(ReadRecord<IpRecord>(Bytes(35)));
  EXPECT_FALSE(ReadRecord<IpRecord>(Bytes(37)));
  EXPECT_FALSE(ReadRecord<OsRecord>({}));
}

TEST(Records, BrokenUtf16StaysReadable) {
  const char16_t field[] = {u'a', 0xD83D, 0xDE00, 0xDC00, 0xD800, u'b', 0x1b, 0xD801};
  EXPECT_EQ(Utf8Field(field),
            "a\xF0\x9F\x98\x80\xEF\xBF\xBD\xEF\xBF\xBD"
            "b.\xEF\xBF\xBD");
}

TEST(Operations, InputsOfAnotherSizeDontFit) {
  EXPECT_TRUE(FitsInput(*FindOperation(kSendIpInfo), Bytes(36)));
  EXPECT_FALSE(FitsInput(*FindOperation(kSendIpInfo), Bytes(35)));
  EXPECT_TRUE(FitsInput(*FindOperation(kWriteDashPacket), Bytes(131072)));
  const Operation& sized = *FindOperation(kUnnamedFunction007);
  Bytes record(20);
  record[8] = 4;
  EXPECT_TRUE(FitsInput(sized, record));
  record[8] = 5;
  EXPECT_FALSE(FitsInput(sized, record));
  EXPECT_FALSE(FitsInput(sized, Bytes(11)));
  EXPECT_TRUE(FitsInput(sized, {}));
  EXPECT_EQ(FindOperation(0x9C41A404u), nullptr);
  EXPECT_EQ(FindOperation("writeosinfo"), FindOperation(kWriteOsInfo));
}

TEST(Frames, EndWithTheCodeAndOneMoreByte) {
  EXPECT_EQ(HexFromBytes(MakeFrame(kDashData, ViewOf("ABCDE"))), "41 42 43 44 45 08 00");
  EXPECT_EQ(DescribeFrame(MakeFrame(kShutdown, {})), "SHUTDOWN, payload 0 bytes");
  EXPECT_EQ(DescribeFrame(Bytes{1}), "frame of 1 bytes, too short for a command");
}

TEST(TlsRecords, AreFollowedOverTornWrites) {
  const Bytes hello = *BytesFromHex("16 03 01 00 04 01 00 00 00 17 03 03 00 02 aa bb");
  EXPECT_EQ(TlsRecordWatch().Describe(hello), "TLS handshake (ClientHello), TLS application data");
  TlsRecordWatch watch;
  EXPECT_EQ(watch.Describe(ByteView(hello).first(3)), "TLS record continued");
  EXPECT_EQ(watch.Describe(ByteView(hello).subspan(3, 4)), "TLS handshake (ClientHello)");
  EXPECT_EQ(watch.Describe(ByteView(hello).subspan(7)), "TLS application data");
  EXPECT_EQ(watch.Describe(ViewOf("GET / HTTP/1.1")), "not TLS");
}

TEST(Text, NumbersAreWhollyNumbersWithinTheirBound) {
  EXPECT_EQ(Number("0xff", 255), 255u);
  EXPECT_EQ(Number("256", 255), std::nullopt);
  EXPECT_EQ(Number("18446744073709551616", UINT64_MAX), std::nullopt);
  EXPECT_EQ(Number("18446744073709551615", UINT64_MAX), UINT64_MAX);
  for (const char* bad : {"", "0x", "-1", "1 ", "a", "0xg"}) EXPECT_FALSE(Number(bad, 99)) << bad;
  EXPECT_FALSE(BytesFromHex("abc"));
  EXPECT_FALSE(BytesFromHex("a b"));
}

}  // namespace
}  // namespace orrin
