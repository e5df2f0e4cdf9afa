#include "lab/local/served_pipe.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <string_view>

namespace lab {

bool ServedPipe::Ask(const std::string& question, Deadline deadline, std::string* answer,
                     std::string* problem) {
  constexpr std::string_view kEnd = "\r\n";
  assert(question.find('\0') == std::string::npos);
  std::string received;
  if (!Exchange(question, deadline, &received, problem)) return false;
  if (!received.ends_with(kEnd)) {
    *problem = received.empty() ? "the service closed the pipe without an answer"
                                : "an answer without its end: " + received;
    return false;
  }
  *answer = received.substr(0, received.size() - kEnd.size());
  return true;
}

int MillisecondsTo(Deadline deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<long long>(left.count(), 0, 24 * 3600 * 1000));
}

bool ReadNumber(const std::string& word, long* number) {
  char* end = nullptr;
  const long value = std::strtol(word.c_str(), &end, 10);
  if (word.empty() || *end != 0 || value < 1 || value > 1'000'000) return false;
  *number = value;
  return true;
}

bool TakeSeconds(Words* words, long* seconds) {
  const auto at = std::find(words->begin(), words->end(), "--seconds");
  if (at == words->end()) return true;
  if (at + 1 == words->end() || !ReadNumber(at[1], seconds)) return false;
  words->erase(at, at + 2);
  return true;
}

}  // namespace lab
