// The stand-ins for Windows' facts of its host: interfaces and addresses, WMI, and texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "lablink/messages.h"
#include "platform/linux/runtime/utf16.h"
#include "platform/network.h"
#include "platform/wmi.h"
#include "tests/own_network.h"

namespace platform {
namespace {

TEST(LinuxNetwork, OwnNamespaceHasItsLoopbackInterfaceOnly) {
  if (!EnterOwnNetwork()) GTEST_SKIP() << "this user may not create a network namespace";
  std::uint32_t flags = 7;
  EXPECT_TRUE(InternetGetConnectedState(&flags)) << "the loopback interface is up";
  EXPECT_EQ(flags, kInternetConnectionLan);
  std::vector<char> block(1 << 16);
  auto size = static_cast<std::uint32_t>(block.size());
  ASSERT_EQ(GetAdaptersAddresses(0xA6, block.data(), &size), 0U);
  const auto list = ReadAdaptersAddresses(block.data());
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].operStatus, kIfOperStatusUp);
  EXPECT_EQ(list[0].unicast, std::vector<std::uint32_t>{0x0100007F});
  EXPECT_EQ(list[0].prefixLength, 8);
  EXPECT_TRUE(list[0].physicalAddress.empty());
}

TEST(LinuxWmi, InvalidUseFails) {
  WbemLocator locator;
  EXPECT_TRUE(Failed(CreateWbemLocator(&locator))) << "COM is not open";
  ASSERT_EQ(CoInitializeEx(), 0);
  EXPECT_EQ(CoInitializeEx(), 1) << "COM is open already on this thread";
  ASSERT_EQ(CreateWbemLocator(&locator), 0);
  WbemServices services;
  EXPECT_TRUE(Failed(ConnectServer(locator, u"ROOT\\Elsewhere", &services)));
  ASSERT_EQ(ConnectServer(locator, u"ROOT\\CIMV2", &services), 0);
  WbemEnumerator rows;
  EXPECT_TRUE(Failed(ExecQuery(services, u"SELECT * FROM Win32_Unheard", &rows)));
  EXPECT_TRUE(Failed(ExecQuery(services, u"DELETE", &rows)));
  ASSERT_EQ(ExecQuery(services, u"SELECT * FROM Win32_OperatingSystem", &rows), 0);
  WbemObject row;
  ASSERT_EQ(NextObject(rows, &row), 0);
  WbemValue value;
  EXPECT_TRUE(Failed(GetProperty(row, u"Unheard", &value)));
  EXPECT_EQ(NextObject(rows, &row), 1) << "one operating system";
  EXPECT_FALSE(row);
}

TEST(LinuxUtf16, OnlyInvalidTextIsReplaced) {
  EXPECT_EQ(Utf8ToUtf16("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), u"\u00e9\u20ac\U0001F600");
  EXPECT_EQ(Utf16ToUtf8(u"\u00e9\u20ac\U0001F600"), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  for (const char* narrow : {
           "a\xE2\x82",          // truncated
           "a\x80",              // a continuation byte alone
           "a\xC0\x80",          // overlong
           "a\xED\xA0\x80",      // a surrogate
           "a\xF4\x90\x80\x80",  // after the last character
       })
    EXPECT_EQ(Utf8ToUtf16(narrow), u"a\uFFFD");
  EXPECT_EQ(Utf8ToUtf16("\xE2z\xFF"), u"\uFFFDz\uFFFD");
  const char16_t lone[] = {0xD800, u'-', 0xDC00, 0};
  EXPECT_EQ(Utf16ToUtf8(lone), "\xEF\xBF\xBD-\xEF\xBF\xBD");
}

// Feeds a stream in pieces of that size. Returns "kind:length" of each message.
std::string Cut(const std::string& stream, std::size_t piece, lablink::MessageReader* reader) {
  std::string messages;
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    const std::size_t size = std::min(piece, stream.size() - at);
    std::memcpy(reader->Room().data(), stream.data() + at, size);
    reader->Filled(size);
    lablink::Message message;
    lablink::Parsed result;
    while ((result = reader->Next(&message)) == lablink::Parsed::kMessage)
      messages +=
          std::to_string(message.head.kind) + ":" + std::to_string(message.body.size()) + " ";
    if (result == lablink::Parsed::kMalformed) return messages + "malformed";
  }
  return messages;
}

TEST(LabLinkReader, StreamIsCutWhateverItsPieces) {
  std::string stream;
  lablink::AppendMessage(&stream, lablink::kFrame, 0, 0, std::string("ab"));
  lablink::AppendMessage(&stream, lablink::kRead, 1, 4);
  lablink::AppendMessage(&stream, lablink::kPoke, 0, 0, std::string(lablink::kMaxBody, 'x'));
  lablink::MessageReader reader;
  for (const std::size_t piece : std::vector<std::size_t>{1, 23, 24, 27, 4096, stream.size()})
    EXPECT_EQ(Cut(stream, piece, &reader), "18:2 5:0 20:262152 ") << piece;
}

TEST(LabLinkReader, WrongHeadEndsTheStreamWithoutItsBody) {
  std::string good, bad;
  lablink::AppendMessage(&good, lablink::kRead, 1, 4);
  for (const lablink::Head& wrong :
       {lablink::Head{lablink::kMagic + 1, lablink::kRead, 1, 4, 0},
        lablink::MakeHead(lablink::kPoke, 0, 0, lablink::kMaxBody + 1)}) {
    bad.assign(reinterpret_cast<const char*>(&wrong), sizeof wrong);
    lablink::MessageReader reader;
    EXPECT_EQ(Cut(good + bad + good, 1, &reader), "5:0 malformed");
    EXPECT_EQ(Cut(good, 1, &reader), "malformed");
    reader.Clear();
    EXPECT_EQ(Cut(good, 1, &reader), "5:0 ");
  }
}

}  // namespace
}  // namespace platform
