// Packed bytes as text, for the tests of the packed form: "01 00 'Fan' --". Two digits are a byte,
// letters in quotes are 16-bit units, and -- is filler: a writer zeroes it, a reader ignores it.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cim/packing/packing.h"
#include "tests/cim/instance/owned_instance.h"

namespace stewardry::cim::packed_bytes {

// The head of a "Fan", and with one property "V" up to its type: 40 bytes.
inline const std::string kHead = "57 99 2B 46  01 00 00 00  04 00 00 00 'Fan' 00 00  00 00 00 00 ";
inline const std::string kOne = kHead + "01 00 00 00  00 00 00 00  02 00 00 00 'V' 00 00 ";
inline const std::string kTail = " E3 74 F4 76";

constexpr int kFiller = -1;

inline std::vector<int> Parse(const std::string& text) {
  std::vector<int> bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      while (text[++i] != '\'') bytes.insert(bytes.end(), {text[i], 0});
    } else if (text[i] == '-') {
      bytes.push_back(kFiller), ++i;
    } else if (std::isxdigit(static_cast<unsigned char>(text[i])) != 0) {
      bytes.push_back(std::stoi(text.substr(i++, 2), nullptr, 16));
    }
  }
  return bytes;
}

// A writer that owns its block, filled with arbitrary content first. With an instance it holds the
// packed form.
struct Writer : PackBuf {
  explicit Writer(const Instance* instance = nullptr) {
    EXPECT_EQ(PackBuf_Init(this, 0), RESULT_OK);
    std::memset(data, 0xA5, capacity);
    if (instance == nullptr) return;
    EXPECT_EQ(Instance_Pack(instance, false, nullptr, nullptr, this), RESULT_OK);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() { PackBuf_Destroy(this); }
};

inline void ExpectBytes(const PackBuf& packed, const std::string& text) {
  SCOPED_TRACE(text);
  const std::vector<int> expected = Parse(text);
  ASSERT_EQ(packed.size, expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i)
    EXPECT_EQ(packed.data[i], expected[i] == kFiller ? 0 : expected[i]) << "byte " << i;
}

// Bytes for a reader, in a block of exactly that size. Filler is not zero: a reader that uses it
// fails.
class Bytes {
 public:
  explicit Bytes(const std::string& text) {
    for (const int each : Parse(text)) bytes_.push_back(static_cast<std::uint8_t>(each));
    bytes_.shrink_to_fit();
  }
  explicit Bytes(const PackBuf& packed) : bytes_(packed.data, packed.data + packed.size) {}
  PackBuf Reader() { return {bytes_.data(), static_cast<std::uint32_t>(bytes_.size()), 0, 0}; }
  std::vector<std::uint8_t>& Get() { return bytes_; }

 private:
  std::vector<std::uint8_t> bytes_;
};

}  // namespace stewardry::cim::packed_bytes
