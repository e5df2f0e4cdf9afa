// The bytes of a viewer as any peer on the network may send them. The end-to-end tests compare the
// pixels, with two independent viewers.
#include "lab/firmware/kvm/rfb_session.h"

#include <gtest/gtest.h>

namespace orrin {
namespace {

class RecordedViewer : public RfbOutput {
 public:
  void SendRfbBytes(ByteView bytes) override {
    seen.insert(seen.end(), bytes.begin(), bytes.end());
  }
  bool HasRoom() const override { return true; }
  void HandleKey(std::uint32_t, bool) override { ++inputs; }
  void HandlePointer(std::uint8_t, std::uint16_t, std::uint16_t) override { ++inputs; }
  void CloseViewer() override { ++closes; }
  void AddNote(const std::string&) override {}

  Bytes seen;
  int inputs = 0, closes = 0;
  Picture picture;
  RfbSession session{picture, *this};
};

constexpr std::string_view k38 = "RFB 003.008\n";

TEST(RfbSession, HostileBytesCloseTheSessionOnce) {
  struct Row {
    std::string_view version;
    Bytes rest;
  };
  const Row rows[] = {
      {"RFB 003,008\n", {}},
      {k38, {2}},          // another security type
      {k38, {1, 1, 255}},  // no message
      // Pixel formats: colour map, no maximum, shift too far.
      {k38, {1, 1, 0, 0, 0, 0, 8, 8, 0, 0, 0, 7, 0, 7, 0, 3, 0, 3, 6, 0, 0, 0}},
      {k38, {1, 1, 0, 0, 0, 0, 32, 24, 0, 1, 0, 0, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0}},
      {k38, {1, 1, 0, 0, 0, 0, 32, 24, 0, 1, 0, 255, 0, 255, 0, 255, 25, 8, 0, 0, 0, 0}},
      // A cut text beyond the bound.
      {k38, {1, 1, 6, 0, 0, 0, 0, 0x10, 0, 1}},
  };
  for (const Row& row : rows) {
    Bytes bytes(row.version.begin(), row.version.end());
    bytes.insert(bytes.end(), row.rest.begin(), row.rest.end());
    SCOPED_TRACE(testing::PrintToString(bytes));
    RecordedViewer viewer;
    for (const std::uint8_t& byte : bytes) viewer.session.Receive(ByteView(&byte, 1));
    EXPECT_EQ(viewer.closes, 1);
    viewer.seen.clear();
    viewer.session.Receive(Bytes{4, 1, 0, 0, 0, 0, 0, 'a'});
    viewer.session.Receive(Bytes{3, 0, 0, 0, 0, 0, 1, 64, 0, 200});  // requests the screen
    viewer.session.Pump();
    EXPECT_TRUE(viewer.inputs == 0 && viewer.seen.empty());
    EXPECT_EQ(viewer.closes, 1);
  }
}

}  // namespace
}  // namespace orrin
