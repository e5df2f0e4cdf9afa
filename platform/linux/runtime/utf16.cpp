// Both directions go character by character through one table of sequences.
#include "platform/linux/runtime/utf16.h"

#include <cstddef>
#include <cstdint>

namespace platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

// Sequences by their first byte: its fixed bits, the bytes that follow, and the smallest character
// that may be written so.
struct Sequence {
  std::uint8_t mask;
  std::uint8_t lead;
  std::size_t following;
  char32_t smallest;
};
constexpr Sequence kSequences[] = {
    {0x80, 0x00, 0, 0}, {0xE0, 0xC0, 1, 0x80}, {0xF0, 0xE0, 2, 0x800}, {0xF8, 0xF0, 3, 0x10000}};

char32_t Checked(char32_t character, const Sequence& sequence) {
  const bool surrogate = IsHighSurrogate(character) || IsLowSurrogate(character);
  const bool valid = character >= sequence.smallest && character <= 0x10FFFF && !surrogate;
  return valid ? character : kReplacement;
}

// Reads the rest of a sequence, whose first byte stood before *at, and moves *at behind what
// belongs to it.
char32_t ReadFollowing(std::string_view text, std::size_t* at, char32_t character,
                       const Sequence& sequence) {
  for (std::size_t i = 0; i < sequence.following; ++i) {
    if (*at >= text.size()) return kReplacement;
    const auto byte = static_cast<std::uint8_t>(text[*at]);
    if ((byte & 0xC0) != 0x80) return kReplacement;
    character = character << 6 | (byte & 0x3F);
    ++*at;
  }
  return Checked(character, sequence);
}

char32_t ReadCharacter(std::string_view text, std::size_t* at) {
  const auto byte = static_cast<std::uint8_t>(text[(*at)++]);
  for (const Sequence& sequence : kSequences) {
    if ((byte & sequence.mask) != sequence.lead) continue;
    const auto bits = static_cast<std::uint8_t>(~sequence.mask);
    return ReadFollowing(text, at, byte & bits, sequence);
  }
  return kReplacement;
}

char32_t ReadCharacter(std::u16string_view text, std::size_t* at) {
  const char32_t unit = text[(*at)++];
  if (!IsHighSurrogate(unit)) return IsLowSurrogate(unit) ? kReplacement : unit;
  if (*at >= text.size() || !IsLowSurrogate(text[*at])) return kReplacement;
  const char32_t low = text[(*at)++];
  return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
}

void Append(char32_t character, std::u16string* text) {
  if (character < 0x10000) return text->push_back(static_cast<char16_t>(character));
  character -= 0x10000;
  text->push_back(static_cast<char16_t>(0xD800 + (character >> 10)));
  text->push_back(static_cast<char16_t>(0xDC00 + (character & 0x3FF)));
}

void Append(char32_t character, std::string* text) {
  std::size_t following = 0;
  while (following < 3 && character >= kSequences[following + 1].smallest) ++following;
  std::size_t shift = following * 6;
  text->push_back(static_cast<char>(kSequences[following].lead | character >> shift));
  while (shift > 0) {
    shift -= 6;
    text->push_back(static_cast<char>(0x80 | (character >> shift & 0x3F)));
  }
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string wide;
  for (std::size_t at = 0; at < text.size();) Append(ReadCharacter(text, &at), &wide);
  return wide;
}

std::string Utf16ToUtf8(std::u16string_view text) {
  std::string narrow;
  for (std::size_t at = 0; at < text.size();) Append(ReadCharacter(text, &at), &narrow);
  return narrow;
}

}  // namespace platform
