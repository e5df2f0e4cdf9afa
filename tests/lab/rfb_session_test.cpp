#include "lab/firmware/rfb_session.h"

#include <gtest/gtest.h>

#include <utility>

#include "lab/firmware/big_endian.h"

namespace orrin {
namespace {

struct KeyOrPointer {
  std::uint32_t first;  // keysym or buttons
  int x;                // of a key: pressed
  int y;
  friend bool operator==(const KeyOrPointer&, const KeyOrPointer&) = default;
};

class RecordedViewer : public RfbOutput {
 public:
  void SendRfbBytes(ByteView bytes) override {
    EXPECT_LE(bytes.size(), kMaxRfbPiece);
    seen.insert(seen.end(), bytes.begin(), bytes.end());
    room--;
  }
  bool HasRoom() const override { return room > 0; }
  void TakeKey(std::uint32_t keysym, bool pressed) override {
    input.push_back({keysym, pressed, -1});
  }
  void TakePointer(std::uint8_t buttons, std::uint16_t x, std::uint16_t y) override {
    input.push_back({buttons, x, y});
  }
  void CloseViewer() override { closes++; }
  void Say(const std::string&) override {}

  Bytes seen;
  std::vector<KeyOrPointer> input;
  int room = 1 << 20;
  int closes = 0;
};

constexpr std::string_view kVersion38 = "RFB 003.008\n";
const Bytes kWholeScreen = {3, 0, 0, 0, 0, 0, 1, 64, 0, 200};

class RfbSessionTest : public ::testing::Test {
 protected:
  void Say(const Bytes& bytes) { session.Receive(bytes); }
  void Open() {
    session.Receive(ViewOf(kVersion38));
    Say({1});
    Say({1});
    EXPECT_TRUE(session.IsOpen());
    viewer.seen.clear();
  }
  // The area of the only update seen since, and its pixels in `format`.
  Area TakeUpdate(const PixelFormat& format = kNativeFormat) {
    const Bytes bytes = std::exchange(viewer.seen, {});
    if (bytes.size() < 16) return {};
    const ByteView view(bytes);
    const Area area = {ReadBig16(view.subspan(4)), ReadBig16(view.subspan(6)),
                       ReadBig16(view.subspan(8)), ReadBig16(view.subspan(10))};
    Bytes expected = {0, 0, 0, 1};
    for (const int number : {area.x, area.y, area.width, area.height}) {
      AppendBig16(static_cast<std::uint16_t>(number), &expected);
    }
    AppendBig32(0, &expected);
    for (int y = area.y; y < area.y + area.height; y++) {
      for (int x = area.x; x < area.x + area.width; x++) {
        const auto place = static_cast<std::size_t>(y * Picture::kWidth + x);
        AppendPixel(format, picture.Shown()[place], &expected);
      }
    }
    EXPECT_TRUE(bytes == expected);
    return area;
  }

  Picture picture;
  RecordedViewer viewer;
  RfbSession session{picture, viewer};
};

TEST_F(RfbSessionTest, EachVersionHasItsOwnHandshake) {
  struct Case {
    std::string_view version;
    Bytes choice;  // of the security type
    Bytes afterVersion;
    Bytes afterChoice;  // before ServerInit
  };
  const Case cases[] = {
      {"RFB 003.008\n", {1}, {1, 1}, {0, 0, 0, 0}}, {"RFB 003.889\n", {1}, {1, 1}, {0, 0, 0, 0}},
      {"RFB 004.001\n", {1}, {1, 1}, {0, 0, 0, 0}}, {"RFB 003.007\n", {1}, {1, 1}, {}},
      {"RFB 003.003\n", {}, {0, 0, 0, 1}, {}},      {"RFB 003.005\n", {}, {0, 0, 0, 1}, {}},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(std::string(one.version));
    RecordedViewer own;
    RfbSession other(picture, own);
    EXPECT_EQ(TextOf(std::exchange(own.seen, {})), "RFB 003.008\n");
    other.Receive(ViewOf(one.version));
    EXPECT_EQ(std::exchange(own.seen, {}), one.afterVersion);
    other.Receive(one.choice);
    EXPECT_EQ(std::exchange(own.seen, {}), one.afterChoice);
    other.Receive(Bytes{0});
    EXPECT_TRUE(other.IsOpen());
    ASSERT_GE(own.seen.size(), 24u);
    const Bytes init = {1, 64, 0, 200, 32, 24, 0, 1, 0, 255, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0};
    EXPECT_EQ(Bytes(own.seen.begin(), own.seen.begin() + 20), init);
    EXPECT_EQ(own.seen.size(), 24 + ReadBig32(ByteView(own.seen).subspan(20)));
  }
}

TEST_F(RfbSessionTest, HostileBytesCloseItOnceAndNothingAfterCounts) {
  const Bytes key = {4, 1, 0, 0, 0, 0, 0, 'a'};
  const auto hello = [](std::initializer_list<Bytes> rest) {
    Bytes all = {1, 1};
    all.insert(all.begin(), kVersion38.begin(), kVersion38.end());
    for (const Bytes& part : rest) all.insert(all.end(), part.begin(), part.end());
    return all;
  };
  const Bytes colourMap = {0, 0, 0, 0, 8, 8, 0, 0, 0, 7, 0, 7, 0, 3, 0, 3, 6, 0, 0, 0};
  const Bytes noMax = {0, 0, 0, 0, 32, 24, 0, 1, 0, 0, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0};
  const Bytes gappedMax = {0, 0, 0, 0, 32, 24, 0, 1, 0, 5, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0};
  const Bytes farShift = {0, 0, 0, 0, 32, 24, 0, 1, 0, 255, 0, 255, 0, 255, 25, 8, 0, 0, 0, 0};
  const Bytes oddBits = {0, 0, 0, 0, 24, 24, 0, 1, 0, 255, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0};
  const std::string_view badVersions[] = {"RFB 003,008\n", "RFB 00x.008\n", "SSH-2.0-Open",
                                          "RFB 003.008\r"};
  std::vector<Bytes> cases = {hello({{1}}),
                              hello({colourMap}),
                              hello({noMax}),
                              hello({gappedMax}),
                              hello({farShift}),
                              hello({oddBits}),
                              hello({{6, 0, 0, 0, 0, 0x10, 0, 1}}),
                              hello({{6, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}}),
                              hello({{255}})};
  for (const auto version : badVersions) cases.emplace_back(version.begin(), version.end());
  Bytes otherSecurity(kVersion38.begin(), kVersion38.end());
  otherSecurity.push_back(2);
  cases.push_back(otherSecurity);
  for (const Bytes& bytes : cases) {
    for (const std::size_t piece : {bytes.size(), std::size_t{1}}) {
      RecordedViewer own;
      RfbSession other(picture, own);
      for (std::size_t at = 0; at < bytes.size(); at += piece) {
        other.Receive(ByteView(bytes).subspan(at, std::min(piece, bytes.size() - at)));
      }
      EXPECT_EQ(own.closes, 1);
      own.seen.clear();
      other.Receive(key);
      other.Receive(kWholeScreen);
      other.Pump();
      EXPECT_TRUE(own.input.empty() && own.seen.empty());
      EXPECT_EQ(own.closes, 1);
    }
  }
}

TEST_F(RfbSessionTest, RefusedSecurityTypeIsExplained) {
  session.Receive(ViewOf(kVersion38));
  viewer.seen.clear();
  Say({2});
  ASSERT_GT(viewer.seen.size(), 8u);
  EXPECT_EQ(ReadBig32(viewer.seen), 1u);
  EXPECT_EQ(ReadBig32(ByteView(viewer.seen).subspan(4)), viewer.seen.size() - 8);
}

TEST_F(RfbSessionTest, TornStreamIsTheSameStream) {
  Bytes all(kVersion38.begin(), kVersion38.end());
  const Bytes parts[] = {{1, 1},
                         {2, 0, 0, 3, 0, 0, 0, 7, 255, 255, 255, 33, 4, 4, 4, 4},  // encodings
                         {4, 1, 0, 0, 0, 0, 0xFF, 0xE3},
                         {6, 0, 0, 0, 0, 0, 0, 5, 4, 1, 0, 0, 0},  // cut text that looks like a key
                         {5, 3, 1, 63, 0, 199},
                         {4, 0, 9, 9, 0x01, 0, 0x20, 0xAC}};
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  const std::vector<KeyOrPointer> expected = {{0xFFE3, 1, -1}, {3, 319, 199}, {0x010020AC, 0, -1}};
  for (std::size_t piece = 1; piece <= all.size(); piece++) {
    RecordedViewer own;
    RfbSession other(picture, own);
    for (std::size_t at = 0; at < all.size(); at += piece) {
      other.Receive(ByteView(all).subspan(at, std::min(piece, all.size() - at)));
    }
    EXPECT_EQ(own.input, expected) << piece;
    EXPECT_EQ(own.closes, 0);
  }
}

TEST_F(RfbSessionTest, IncrementalUpdateBringsOnlyWhatChanged) {
  Open();
  Bytes incremental = kWholeScreen;
  incremental[1] = 1;
  picture.SetCounter(7);
  Say(kWholeScreen);
  EXPECT_EQ(TakeUpdate(), Picture::kWhole);
  Say(incremental);
  EXPECT_TRUE(viewer.seen.empty());  // nothing has changed yet
  picture.SetKey('A', true);
  session.Pump();
  const Area digits = TakeUpdate();
  EXPECT_FALSE(digits.IsEmpty());
  EXPECT_LT(digits.width * digits.height, Picture::kWidth * Picture::kHeight / 4);
  picture.SetKey('B', true);
  session.Pump();
  EXPECT_TRUE(viewer.seen.empty());  // one wish, one update
  // What was outside the wished area is still owed.
  Say({3, 1, 0, 0, 0, 0, 0, 10, 0, 10});
  EXPECT_TRUE(viewer.seen.empty());
  Say(incremental);
  EXPECT_EQ(Hull(TakeUpdate(), digits), digits);
}

TEST_F(RfbSessionTest, AreaOutsideTheScreenIsCut) {
  Open();
  Say({3, 0, 1, 54, 0, 190, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(TakeUpdate(), (Area{310, 190, 10, 10}));
  Say({3, 0, 1, 64, 0, 0, 0, 1, 0, 1});
  Say({3, 0, 0, 0, 0, 0, 0, 0, 0, 9});
  EXPECT_TRUE(viewer.seen.empty());
}

TEST_F(RfbSessionTest, PixelsComeInTheViewersFormat) {
  const PixelFormat formats[] = {
      {32, 24, true, {255, 16}, {255, 8}, {255, 0}},
      {32, 24, false, {255, 0}, {255, 8}, {255, 24}},
      {16, 16, false, {31, 11}, {63, 5}, {31, 0}},
      {16, 15, true, {31, 10}, {31, 5}, {31, 0}},
      {8, 8, false, {7, 0}, {7, 3}, {3, 6}},
      {32, 30, false, {1023, 20}, {1023, 10}, {1023, 0}},
  };
  Open();
  for (const PixelFormat& format : formats) {
    Bytes message = {0, 0, 0, 0};
    AppendPixelFormat(format, &message);
    Say(message);
    Say({3, 0, 0, 0, 0, 150, 1, 64, 0, 50});
    EXPECT_EQ(TakeUpdate(format), (Area{0, 150, 320, 50}));
  }
  EXPECT_EQ(viewer.closes, 0);
}

TEST(PixelFormat, ColoursAreRoundedAndPlacedByteByByte) {
  struct Case {
    PixelFormat format;
    std::uint32_t colour;
    Bytes pixel;
  };
  const Case cases[] = {
      {kNativeFormat, 0x123456, {0x56, 0x34, 0x12, 0}},
      {{32, 24, true, {255, 16}, {255, 8}, {255, 0}}, 0x123456, {0, 0x12, 0x34, 0x56}},
      {{16, 16, false, {31, 11}, {63, 5}, {31, 0}}, 0xFF8000, {0x00, 0xFC}},
      {{16, 16, true, {31, 11}, {63, 5}, {31, 0}}, 0xFF8000, {0xFC, 0x00}},
      {{8, 8, false, {7, 0}, {7, 3}, {3, 6}}, 0xFFFFFF, {0xFF}},
      {{8, 8, false, {7, 0}, {7, 3}, {3, 6}}, 0x130000, {0x01}},
      {{8, 8, false, {7, 0}, {7, 3}, {3, 6}}, 0x120000, {0x00}},
  };
  for (const Case& one : cases) {
    Bytes pixel;
    AppendPixel(one.format, one.colour, &pixel);
    EXPECT_EQ(pixel, one.pixel);
  }
}

TEST_F(RfbSessionTest, ViewerThatAsksWithoutReadingCostsOneUpdate) {
  Open();
  viewer.room = 3;
  for (int i = 0; i < 100; i++) Say(kWholeScreen);
  EXPECT_EQ(viewer.seen.size(), 3 * kMaxRfbPiece);
  EXPECT_TRUE(session.IsWaitingForRoom());
  // The screen of the moment of the update, though it changes meanwhile.
  Picture before = picture;
  picture.SetCounter(99);
  constexpr std::size_t kUpdate = 16 + 320 * 200 * 4;
  while (viewer.seen.size() < kUpdate) {
    viewer.room = 1;
    session.Pump();
  }
  viewer.room = 1 << 20;
  std::swap(picture, before);
  const Bytes both = viewer.seen;
  viewer.seen.assign(both.begin(), both.begin() + kUpdate);
  EXPECT_EQ(TakeUpdate(), Picture::kWhole);
  std::swap(picture, before);
  session.Pump();
  EXPECT_EQ(TakeUpdate(), Picture::kWhole);  // the other 99 wishes
  session.Pump();
  EXPECT_TRUE(viewer.seen.empty());
}

}  // namespace
}  // namespace orrin
