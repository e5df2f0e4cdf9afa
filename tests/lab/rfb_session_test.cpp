// The bytes of a viewer as a stranger on the network may send them; the pixels are compared end to
// end, with two foreign viewers.
#include "lab/firmware/rfb_session.h"

#include <gtest/gtest.h>

#include <utility>

namespace orrin {
namespace {

class RecordedViewer : public RfbOutput {
 public:
  void SendRfbBytes(ByteView bytes) override {
    seen.insert(seen.end(), bytes.begin(), bytes.end());
  }
  bool HasRoom() const override { return true; }
  void TakeKey(std::uint32_t keysym, bool pressed) override {
    input.push_back({keysym, pressed, 0});
  }
  void TakePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) override {
    input.push_back({buttons, x, y});
  }
  void CloseViewer() override { closes++; }
  void Say(const std::string&) override {}

  Bytes seen;
  std::vector<std::vector<std::uint32_t>> input;  // keysym and state, or buttons and place
  int closes = 0;
  Picture picture;
  RfbSession session{picture, *this};
};

constexpr std::string_view k38 = "RFB 003.008\n";

Bytes Joined(std::string_view version, std::initializer_list<Bytes> parts) {
  Bytes all(version.begin(), version.end());
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

void Receive(RfbSession* session, const Bytes& bytes, std::size_t piece) {
  for (std::size_t at = 0; at < bytes.size(); at += piece)
    session->Receive(ByteView(bytes).subspan(at, std::min(piece, bytes.size() - at)));
}

TEST(RfbSession, TornStreamOfEachVersionIsTheSameStream) {
  struct Row {
    std::string_view version;
    Bytes choice;  // of the security type, and the shared flag
    Bytes reply;
  };
  const Row rows[] = {{k38, {1, 1}, {1, 1, 0, 0, 0, 0}},
                      {"RFB 003.007\n", {1, 1}, {1, 1}},
                      {"RFB 003.003\n", {1}, {0, 0, 0, 1}}};
  for (const Row& row : rows) {
    const Bytes all = Joined(
        row.version, {row.choice,
                      {2, 0, 0, 3, 0, 0, 0, 7, 255, 255, 255, 33, 4, 4, 4, 4},  // encodings
                      {4, 1, 0, 0, 0, 0, 0xFF, 0xE3},
                      {6, 0, 0, 0, 0, 0, 0, 5, 4, 1, 0, 0, 0},  // cut text that looks like a key
                      {5, 3, 1, 63, 0, 199},
                      {4, 0, 9, 9, 0x01, 0, 0x20, 0xAC}});
    const Bytes reply = Joined(k38, {row.reply, {1, 64, 0, 200, 32, 24, 0, 1}});
    for (std::size_t piece = 1; piece <= all.size(); piece++) {
      SCOPED_TRACE(std::string(row.version) + std::to_string(piece));
      RecordedViewer viewer;
      Receive(&viewer.session, all, piece);
      viewer.seen.resize(reply.size());
      EXPECT_EQ(viewer.seen, reply);
      EXPECT_EQ(viewer.input, (std::vector<std::vector<std::uint32_t>>{
                                  {0xFFE3, 1, 0}, {3, 319, 199}, {0x010020AC, 0, 0}}));
      EXPECT_EQ(viewer.closes, 0);
    }
  }
}

TEST(RfbSession, HostileBytesCloseItOnceAndNothingAfterCounts) {
  struct Row {
    std::string_view version;
    Bytes rest;
  };
  const Row rows[] = {
      {"RFB 003,008\n", {}},
      {"RFB 00x.008\n", {}},
      {k38, {2}},          // another security type
      {k38, {1, 1, 255}},  // no message
      // Pixel formats: colour map, no maximum, maximum of other bits, shift too far, 24 bits.
      {k38, {1, 1, 0, 0, 0, 0, 8, 8, 0, 0, 0, 7, 0, 7, 0, 3, 0, 3, 6, 0, 0, 0}},
      {k38, {1, 1, 0, 0, 0, 0, 32, 24, 0, 1, 0, 0, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0}},
      {k38, {1, 1, 0, 0, 0, 0, 32, 24, 0, 1, 0, 5, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0}},
      {k38, {1, 1, 0, 0, 0, 0, 32, 24, 0, 1, 0, 255, 0, 255, 0, 255, 25, 8, 0, 0, 0, 0}},
      {k38, {1, 1, 0, 0, 0, 0, 24, 24, 0, 1, 0, 255, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0}},
      // A cut text beyond the bound.
      {k38, {1, 1, 6, 0, 0, 0, 0, 0x10, 0, 1}},
  };
  for (const Row& row : rows) {
    const Bytes bytes = Joined(row.version, {row.rest});
    SCOPED_TRACE(testing::PrintToString(bytes));
    RecordedViewer viewer;
    Receive(&viewer.session, bytes, 1);
    EXPECT_EQ(viewer.closes, 1);
    viewer.seen.clear();
    viewer.session.Receive(Bytes{4, 1, 0, 0, 0, 0, 0, 'a'});
    viewer.session.Receive(Bytes{3, 0, 0, 0, 0, 0, 1, 64, 0, 200});  // asks for the screen
    viewer.session.Pump();
    EXPECT_TRUE(viewer.input.empty() && viewer.seen.empty());
    EXPECT_EQ(viewer.closes, 1);
  }
}

}  // namespace
}  // namespace orrin
