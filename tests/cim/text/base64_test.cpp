#include "cim/text/base64.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace stewardry::cim {
namespace {

using std::string_view_literals::operator""sv;
using Codec = int (*)(const std::uint8_t*, std::size_t, Base64Sink, void*);

struct Passed {
  int result = 0;
  std::string bytes;
  std::vector<std::size_t> chunks;
  std::size_t failAt = 0;  // the number of the chunk that is refused
};

int Collect(const std::uint8_t* chunk, std::size_t length, void* data) {
  auto* passed = static_cast<Passed*>(data);
  passed->chunks.push_back(length);
  passed->bytes.append(reinterpret_cast<const char*>(chunk), length);
  return passed->chunks.size() == passed->failAt ? 1 : 0;
}

Passed Pass(Codec codec, std::string_view input, std::size_t failAt = 0) {
  // A block of the input's own size, so that a sanitizer reports a read beyond it.
  const std::vector<std::uint8_t> exact(input.begin(), input.end());
  Passed passed;
  passed.failAt = failAt;
  passed.result = codec(exact.data(), exact.size(), Collect, &passed);
  return passed;
}

struct Pair {
  std::string_view text, bytes;
};

TEST(Base64Test, TextsOfTheStandardPassBothWays) {
  // RFC 4648, section 10, and both ends of the alphabet.
  const Pair rows[] = {{"Zg==", "f"},
                       {"Zm9vYmFy", "foobar"},
                       {"++++////", "\xFB\xEF\xBE\xFF\xFF\xFF"},
                       {"ABCDEFGHIJKL", "\0\x10\x83\x10Q\x87 \x92\x8B"sv}};
  for (const Pair& row : rows) {
    const Passed encoded = Pass(Base64Enc, row.bytes), decoded = Pass(Base64Dec, row.text);
    EXPECT_EQ(encoded.bytes, row.text);
    EXPECT_EQ(decoded.result, static_cast<int>(row.bytes.size()));
    EXPECT_EQ(decoded.bytes, row.bytes);
  }
}

TEST(Base64Test, OddTextsAreDecodedLenientlyOrRefused) {
  // The top bit is ignored, a pad does not end the input, and pads may be anywhere.
  const Pair rows[] = {{"\xD9WJj", "abc"},   {"YQ==YQ==", "aa"},     {"YQ=A", "a\0"sv},
                       {"=AAA", "\0\0\0"sv}, {"A=AA", "\x04\0\0"sv}, {"====", "\x04"}};
  for (const Pair& row : rows) EXPECT_EQ(Pass(Base64Dec, row.text).bytes, row.bytes) << row.text;
  EXPECT_EQ(Pass(Base64Dec, "YQ==YQ==").result, 2);  // the length of the last chunk
  for (const std::string_view text : {"YWJ"sv, "YWJjY"sv, "YW!j"sv, "YWJjYW-j"sv, "YWJ\0"sv}) {
    const Passed refused = Pass(Base64Dec, text);
    EXPECT_EQ(refused.result, -1) << text;
    EXPECT_EQ(refused.bytes, "") << text;
  }
}

TEST(Base64Test, LongInputsLeaveInFullChunks) {
  for (const std::size_t length : {382u, 383u, 384u, 385u, 509u, 510u, 511u, 512u, 1021u, 5000u}) {
    SCOPED_TRACE(length);
    std::string bytes;
    for (std::size_t i = 0; i < length; ++i) bytes += static_cast<char>(i * 167 + 13);
    const Passed encoded = Pass(Base64Enc, bytes), decoded = Pass(Base64Dec, encoded.bytes);
    EXPECT_EQ(encoded.chunks.front(), std::min<std::size_t>(encoded.bytes.size(), 512));
    EXPECT_EQ(decoded.bytes, bytes);
    EXPECT_EQ(decoded.chunks.front(), std::min<std::size_t>(length, 510));
    EXPECT_EQ(decoded.result, static_cast<int>(decoded.chunks.back()));
    // The middle of a text is checked like its ends.
    std::string bad = encoded.bytes;
    bad[length / 2] = '*';
    EXPECT_EQ(Pass(Base64Dec, bad).result, -1);
  }
}

TEST(Base64Test, FailedSinkIsNotCalledAgain) {
  for (const Codec codec : {Codec{Base64Enc}, Codec{Base64Dec}})
    for (const std::size_t failAt : {1u, 2u, 3u}) {
      const Passed passed = Pass(codec, std::string(codec == Base64Enc ? 773 : 1368, 'Q'), failAt);
      EXPECT_EQ(passed.result, -1);
      EXPECT_EQ(passed.chunks.size(), failAt);
    }
}

}  // namespace
}  // namespace stewardry::cim
