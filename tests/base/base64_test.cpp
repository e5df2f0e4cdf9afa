// Base64 both ways: the characters, the padding's leniency, the chunks and a sink that gives up.
#include "base/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace stewardry {
namespace {

using Codec = int (*)(const std::uint8_t*, std::size_t, Base64Sink, void*);

struct Collector {
  std::vector<std::size_t> chunks;
  std::string all;
  std::size_t failAt = 0;  // the number of the chunk that is refused
};

int Collect(const std::uint8_t* chunk, std::size_t length, void* data) {
  auto* collector = static_cast<Collector*>(data);
  collector->chunks.push_back(length);
  collector->all.append(reinterpret_cast<const char*>(chunk), length);
  return collector->chunks.size() == collector->failAt ? 1 : 0;
}

// The input is copied to a block of its own size, where a read beyond it is seen.
int Pass(Codec codec, std::string_view input, Collector* collector) {
  const std::vector<std::uint8_t> bytes(input.begin(), input.end());
  return codec(bytes.data(), bytes.size(), Collect, collector);
}

std::string Pattern(std::size_t length) {
  std::string bytes;
  for (std::size_t i = 0; i < length; ++i) bytes += static_cast<char>(i * 167 + 13);
  return bytes;
}

TEST(Base64Test, ATextOfTheStandardChangesOnItsWay) {
  // RFC 4648, section 10, and all 64 characters.
  const struct {
    std::string_view bytes, text;
  } kCases[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"abc", "YWJj"},
      {"\xFB\xEF\xBE\xFF\xFF\xFF", "++++////"},
      {std::string_view("\0\x10\x83\x10Q\x87 \x92\x8B", 9), "ABCDEFGHIJKL"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Collector encoded;
    EXPECT_EQ(Pass(Base64Enc, c.bytes, &encoded), 0);
    EXPECT_EQ(encoded.all, c.text);
    Collector decoded;
    EXPECT_EQ(Pass(Base64Dec, c.text, &decoded), static_cast<int>(c.bytes.size()));
    EXPECT_EQ(decoded.all, c.bytes);
  }
}

TEST(Base64Test, ALengthAroundTheBufferLosesOrDoublesBytes) {
  for (const std::size_t length :
       {381u, 382u, 383u, 384u, 385u, 509u, 510u, 511u, 512u, 513u, 1020u, 1021u, 1536u, 5000u}) {
    SCOPED_TRACE(length);
    const std::string bytes = Pattern(length);
    Collector encoded, decoded;
    ASSERT_EQ(Pass(Base64Enc, bytes, &encoded), 0);
    EXPECT_EQ(encoded.all.size(), (length + 2) / 3 * 4);
    for (std::size_t i = 0; i + 1 < encoded.chunks.size(); ++i) EXPECT_EQ(encoded.chunks[i], 512u);
    const int last = Pass(Base64Dec, encoded.all, &decoded);
    EXPECT_EQ(decoded.all, bytes);
    for (std::size_t i = 0; i + 1 < decoded.chunks.size(); ++i) EXPECT_EQ(decoded.chunks[i], 510u);
    EXPECT_EQ(last, static_cast<int>(decoded.chunks.back()));
  }
}

TEST(Base64Test, ACharacterIsTakenOrTurnedAwayWrongly) {
  const struct {
    std::string_view text;
    int result;
    std::string_view bytes;
  } kCases[] = {
      {"YWJ", -1, ""},  // ends inside a group
      {"YWJjY", -1, ""},
      {"YW!j", -1, ""},  // outside the alphabet
      {"YWJjYW-j", -1, ""},
      {std::string_view("YWJ\0", 4), -1, ""},
      {"\xD9WJj", 3, "abc"},                    // the top bit doesn't count
      {"YQ==YQ==", 2, "aa"},                    // a pad doesn't end the input
      {"YQ=A", 2, std::string_view("a\0", 2)},  // pads where they mean nothing
      {"=AAA", 3, std::string_view("\0\0\0", 3)},
      {"A=AA", 3, std::string_view("\x04\0\0", 3)},
      {"====", 1, "\x04"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    Collector collector;
    EXPECT_EQ(Pass(Base64Dec, c.text, &collector), c.result);
    EXPECT_EQ(collector.all, c.bytes);
  }
}

TEST(Base64Test, TheBulkOfALongTextIsCheckedLessThanItsEnds) {
  const std::string good(1200, 'Q');
  for (std::size_t at = 0; at < good.size(); at += 7) {
    std::string bad = good;
    bad[at] = '*';
    Collector collector;
    EXPECT_EQ(Pass(Base64Dec, bad, &collector), -1) << at;
    // A full chunk waits for the next good group before it leaves.
    const std::size_t group = at / 4;
    EXPECT_EQ(collector.chunks.size(), group == 0 ? 0u : (group - 1) / 170) << at;
  }
}

TEST(Base64Test, AFailingSinkIsCalledAgain) {
  for (const Codec codec : {Codec{Base64Enc}, Codec{Base64Dec}}) {
    for (const std::size_t failAt : {1u, 2u, 3u}) {
      Collector collector;
      collector.failAt = failAt;
      EXPECT_EQ(Pass(codec, std::string(codec == Base64Enc ? 768 + 5 : 1360 + 8, 'Q'), &collector),
                -1);
      EXPECT_EQ(collector.chunks.size(), failAt);
    }
    EXPECT_EQ(codec(nullptr, 1, Collect, nullptr), -1);
    EXPECT_EQ(codec(reinterpret_cast<const std::uint8_t*>("QQ=="), 4, nullptr, nullptr), -1);
    EXPECT_EQ(codec(nullptr, 0, Collect, nullptr), 0);
  }
}

}  // namespace
}  // namespace stewardry
