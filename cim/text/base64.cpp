#include "cim/text/base64.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <string_view>

namespace stewardry::cim {
namespace {

constexpr std::size_t kBufferSize = 512;
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint32_t kPad = 64;  // the value of `=`
constexpr std::uint32_t kBad = 0xFFFFFFFF;

// The tables hold two characters at once, or one character at its place in a group, so that most of
// the work is a few loads without a branch.
using PairTable = std::array<std::uint16_t, 4096>;
using ValueTable = std::array<std::uint32_t, 256>;

// Two characters of the alphabet by their twelve bits, the first in the upper byte.
constexpr PairTable MakePairs() {
  PairTable pairs{};
  for (std::uint32_t i = 0; i < pairs.size(); ++i) {
    pairs[i] = static_cast<std::uint16_t>((static_cast<std::uint32_t>(kAlphabet[i >> 6]) << 8) |
                                          static_cast<std::uint32_t>(kAlphabet[i & 63]));
  }
  return pairs;
}

// The value of a character, whatever its top bit.
constexpr ValueTable MakeValues() {
  ValueTable values{};
  values.fill(kBad);
  for (const std::uint32_t top : {0u, 128u}) {
    for (std::uint32_t i = 0; i < kAlphabet.size(); ++i)
      values[static_cast<std::uint8_t>(kAlphabet[i]) + top] = i;
    values['=' + top] = kPad;
  }
  return values;
}

// The same values, shifted to the place of the character in a group's 24 bits. A character that
// DecodeGroup must handle, `=` included, has the top bit.
constexpr std::uint32_t kSlow = 0x80000000;

constexpr ValueTable MakePlaced(int place) {
  ValueTable placed = MakeValues();
  for (std::uint32_t& value : placed) value = value < kPad ? value << (18 - 6 * place) : kSlow;
  return placed;
}

constexpr PairTable kPairs = MakePairs();
constexpr ValueTable kValues = MakeValues();
constexpr std::array<ValueTable, 4> kPlaced = {MakePlaced(0), MakePlaced(1), MakePlaced(2),
                                               MakePlaced(3)};
static_assert(kAlphabet.size() == kPad);

// Collects output for the sink.
class Chunk {
 public:
  Chunk(Base64Sink sink, void* data) : sink_(sink), data_(data) {}

  std::size_t Held() const { return held_; }
  std::size_t Room() const { return kBufferSize - held_; }
  std::uint8_t* Next() { return buffer_ + held_; }
  void CountStored(std::size_t count) {
    assert(count <= Room());
    held_ += count;
  }
  void Put(std::uint32_t byte) {
    assert(Room() > 0);
    buffer_[held_++] = static_cast<std::uint8_t>(byte);
  }

  // Passes the collected bytes to the sink; returns false if the sink fails.
  bool Flush() {
    const std::size_t length = held_;
    held_ = 0;
    return sink_(buffer_, length, data_) == 0;
  }

 private:
  Base64Sink sink_;
  void* data_;
  std::size_t held_ = 0;
  std::uint8_t buffer_[kBufferSize];
};

// Written in full, in the form that compilers turn into one load or store.
std::uint64_t LoadBigEndian(const std::uint8_t* in) {
  return (std::uint64_t{in[0]} << 56) | (std::uint64_t{in[1]} << 48) |
         (std::uint64_t{in[2]} << 40) | (std::uint64_t{in[3]} << 32) |
         (std::uint64_t{in[4]} << 24) | (std::uint64_t{in[5]} << 16) | (std::uint64_t{in[6]} << 8) |
         in[7];
}

void StoreBigEndian(std::uint64_t bits, std::uint8_t* out) {
  out[0] = static_cast<std::uint8_t>(bits >> 56);
  out[1] = static_cast<std::uint8_t>(bits >> 48);
  out[2] = static_cast<std::uint8_t>(bits >> 40);
  out[3] = static_cast<std::uint8_t>(bits >> 32);
  out[4] = static_cast<std::uint8_t>(bits >> 24);
  out[5] = static_cast<std::uint8_t>(bits >> 16);
  out[6] = static_cast<std::uint8_t>(bits >> 8);
  out[7] = static_cast<std::uint8_t>(bits);
}

void StoreBigEndian(std::uint32_t bits, std::uint8_t* out) {
  out[0] = static_cast<std::uint8_t>(bits >> 24);
  out[1] = static_cast<std::uint8_t>(bits >> 16);
  out[2] = static_cast<std::uint8_t>(bits >> 8);
  out[3] = static_cast<std::uint8_t>(bits);
}

std::uint32_t PlacedGroup(const std::uint8_t* in) {
  return kPlaced[0][in[0]] | kPlaced[1][in[1]] | kPlaced[2][in[2]] | kPlaced[3][in[3]];
}

// Decodes up to `groups` plain groups of four into `out`, which has three bytes for each; stops
// before the first that has a character outside the alphabet. Returns the number decoded. Each but
// the last is stored as four bytes, of which the next group overwrites one.
std::size_t DecodePlainGroups(const std::uint8_t* in, std::size_t groups, std::uint8_t* out) {
  std::size_t done = 0;
  for (; done + 1 < groups; ++done, in += 4, out += 3) {
    const std::uint32_t group = PlacedGroup(in);
    if ((group & kSlow) != 0) return done;
    StoreBigEndian(group << 8, out);
  }
  if (done == groups) return done;
  const std::uint32_t group = PlacedGroup(in);
  if ((group & kSlow) != 0) return done;
  out[0] = static_cast<std::uint8_t>(group >> 16);
  out[1] = static_cast<std::uint8_t>(group >> 8);
  out[2] = static_cast<std::uint8_t>(group);
  return done + 1;
}

// Decodes one group of any kind. Returns false for a bad character, and if the sink fails.
bool DecodeGroup(const std::uint8_t* in, Chunk* chunk) {
  const std::uint32_t a = kValues[in[0]];
  const std::uint32_t b = kValues[in[1]];
  const std::uint32_t c = kValues[in[2]];
  const std::uint32_t d = kValues[in[3]];
  if (a == kBad || b == kBad || c == kBad || d == kBad) return false;
  if (chunk->Room() < 3 && !chunk->Flush()) return false;
  chunk->Put((a << 2) | (b >> 4));
  if (c != kPad) chunk->Put(((b & 15) << 4) | (c >> 2));
  if (d != kPad) chunk->Put(((c & 3) << 6) | d);
  return true;
}

std::uint64_t Pair(std::uint64_t twelveBits) { return kPairs[twelveBits & 0xFFF]; }

// Encodes three bytes, passed as 24 bits, as four characters.
void EncodeGroup(std::uint32_t bits, std::uint8_t* out) {
  StoreBigEndian(static_cast<std::uint32_t>((Pair(bits >> 12) << 16) | Pair(bits)), out);
}

// Encodes `groups` whole groups of three bytes into four times as many characters. Two groups are
// loaded as eight bytes, of which the last two belong to a third group.
void EncodeGroups(const std::uint8_t* in, std::size_t groups, std::uint8_t* out) {
  for (; groups >= 3; groups -= 2, in += 6, out += 8) {
    const std::uint64_t bits = LoadBigEndian(in);
    StoreBigEndian((Pair(bits >> 52) << 48) | (Pair(bits >> 40) << 32) | (Pair(bits >> 28) << 16) |
                       Pair(bits >> 16),
                   out);
  }
  for (; groups > 0; --groups, in += 3, out += 4)
    EncodeGroup((std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2], out);
}

// Encodes the last one or two bytes of the input, padded.
void EncodeTail(const std::uint8_t* in, std::size_t length, std::uint8_t* out) {
  const std::uint32_t second = length == 2 ? in[1] : 0;
  EncodeGroup((std::uint32_t{in[0]} << 16) | (second << 8), out);
  if (length == 1) out[2] = '=';
  out[3] = '=';
}

}  // namespace

int Base64Dec(const std::uint8_t* bytes, std::size_t length, Base64Sink sink, void* data) {
  if (sink == nullptr || (bytes == nullptr && length != 0)) return -1;
  Chunk chunk(sink, data);
  std::size_t left = length;
  while (left >= 4) {
    const std::size_t fitting = std::min(left / 4, chunk.Room() / 3);
    const std::size_t plain = DecodePlainGroups(bytes, fitting, chunk.Next());
    chunk.CountStored(3 * plain);
    bytes += 4 * plain;
    left -= 4 * plain;
    if (left < 4) break;
    if (!DecodeGroup(bytes, &chunk)) return -1;  // a pad, a bad character or a full buffer
    bytes += 4;
    left -= 4;
  }
  if (left != 0) return -1;
  const std::size_t last = chunk.Held();
  if (last != 0 && !chunk.Flush()) return -1;
  return static_cast<int>(last);
}

int Base64Enc(const std::uint8_t* bytes, std::size_t length, Base64Sink sink, void* data) {
  if (sink == nullptr || (bytes == nullptr && length != 0)) return -1;
  Chunk chunk(sink, data);
  std::size_t left = length;
  while (left != 0) {
    if (chunk.Room() < 4 && !chunk.Flush()) return -1;
    const std::size_t groups = std::min(left / 3, chunk.Room() / 4);
    EncodeGroups(bytes, groups, chunk.Next());
    chunk.CountStored(4 * groups);
    bytes += 3 * groups;
    left -= 3 * groups;
    if (groups != 0 || left == 0) continue;
    EncodeTail(bytes, left, chunk.Next());
    chunk.CountStored(4);
    left = 0;
  }
  if (chunk.Held() != 0 && !chunk.Flush()) return -1;
  return 0;
}

}  // namespace stewardry::cim
