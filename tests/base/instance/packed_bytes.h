// Packed bytes written out by hand, for the tests of the packed form: "01 00 'Fan' --". Two digits
// are a byte, letters in quotes are units of 16 bits, and -- is filler, which has no value.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/instance/packing.h"

namespace stewardry::packed_bytes {

constexpr int kFiller = -1;

inline std::vector<int> Parse(const std::string& text) {
  std::vector<int> bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      while (text[++i] != '\'') bytes.insert(bytes.end(), {text[i], 0});
    } else if (text[i] == '-') {
      bytes.push_back(kFiller), ++i;
    } else if (std::isxdigit(static_cast<unsigned char>(text[i])) != 0) {
      bytes.push_back(static_cast<int>(std::strtol(text.substr(i++, 2).c_str(), nullptr, 16)));
    }
  }
  return bytes;
}

// The same for a reader, in a block of exactly that size. Its filler would break what reads it.
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

inline void ExpectBytes(const PackBuf& buffer, const std::string& text, const char* what) {
  const std::vector<int> expected = Parse(text);
  ASSERT_EQ(buffer.size, expected.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i] == kFiller) continue;
    EXPECT_EQ(buffer.data[i], expected[i]) << what << ", byte " << i;
  }
}

// A writer that frees its block.
struct Writer : PackBuf {
  Writer() { EXPECT_EQ(PackBuf_Init(this, 0), RESULT_OK); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() { PackBuf_Destroy(this); }
};

// A dynamic instance in a batch of its own.
class Made {
 public:
  explicit Made(const char16_t* className) {
    EXPECT_EQ(Instance_CreateDynamic(&instance_, className, FLAG_CLASS, nullptr), RESULT_OK);
  }
  Made(const Made&) = delete;
  Made& operator=(const Made&) = delete;
  ~Made() { EXPECT_EQ(Instance_Delete(instance_), RESULT_OK); }
  operator Instance*() const { return instance_; }  // stands where its instance would
  Made& With(const char16_t* name, std::uint32_t type, const CimValue& value,
             std::uint32_t flags = 0) {
    EXPECT_EQ(Instance_AddProperty(instance_, name, &value, type, flags), RESULT_OK);
    return *this;
  }

 private:
  Instance* instance_ = nullptr;
};

inline CimValue Number(std::uint64_t number) {
  CimValue value{};
  value.uint64 = number;
  return value;
}

inline CimValue Text(const char16_t* text) {
  CimValue value{};
  value.string = text;
  return value;
}

inline CimValue Nested(Instance* instance) {
  CimValue value{};
  value.instance = instance;
  return value;
}

template <class Element>
CimValue Array(Element* data, std::uint32_t count) {
  CimValue value{};
  value.array = {const_cast<void*>(static_cast<const void*>(data)), count, 0};
  return value;
}

}  // namespace stewardry::packed_bytes
