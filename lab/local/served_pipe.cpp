// What both platforms share of a served pipe.
#include "lab/local/served_pipe.h"

#include <algorithm>
#include <string_view>

namespace lab {

bool ServedPipe::Ask(const std::string& question, Deadline deadline, std::string* answer,
                     std::string* problem) {
  constexpr std::string_view kEnd = "\r\n";
  std::string said;
  if (!Exchange(question, deadline, &said, problem)) return false;
  if (!said.ends_with(kEnd)) {
    *problem = said.empty() ? "the service hung up without an answer"
                            : "an answer without its end: " + said;
    return false;
  }
  *answer = said.substr(0, said.size() - kEnd.size());
  return true;
}

int MillisecondsTo(Deadline deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<long long>(left.count(), 0, 24 * 3600 * 1000));
}

}  // namespace lab
