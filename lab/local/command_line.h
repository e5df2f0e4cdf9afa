// The words that the tray's and the upgrade tool's command lines have in common.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

namespace lab {

using Words = std::vector<std::string>;

// A whole number from 1 to 1000000 and nothing else; false leaves *number alone.
inline bool ReadNumber(const std::string& word, long* number) {
  char* end = nullptr;
  const long value = std::strtol(word.c_str(), &end, 10);
  if (word.empty() || *end != 0 || value < 1 || value > 1'000'000) return false;
  *number = value;
  return true;
}

// Takes "--seconds N" out of the words, if it stands there. False when N isn't a number.
inline bool TakeSeconds(Words* words, long* seconds) {
  for (std::size_t i = 0; i < words->size(); ++i) {
    if ((*words)[i] != "--seconds") continue;
    if (i + 1 == words->size() || !ReadNumber((*words)[i + 1], seconds)) return false;
    const auto at = words->begin() + static_cast<std::ptrdiff_t>(i);
    words->erase(at, at + 2);
    return true;
  }
  return true;
}

}  // namespace lab
