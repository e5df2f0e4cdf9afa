#include "lab/firmware/prompt/prompt.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace orrin {
namespace {

constexpr std::size_t kMaxScript = std::size_t{16} << 20;
// A frame of the greatest size in hexadecimal with blanks, and the word before it.
constexpr std::size_t kMaxLine = 3 * lablink::kMaxFrame + 64;
constexpr std::size_t kMaxQueue = 1024;

}  // namespace

bool Prompt::LoadScript(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  if (!file || !(content << file.rdbuf() || file.eof())) return false;
  const std::string text = content.str();
  if (text.size() > kMaxScript) return false;
  HandleInput(text);
  EndInput();
  return true;
}

void Prompt::HandleInput(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = std::min(bytes.find('\n'), bytes.size());
    if (partialLine_.size() + end > kMaxLine) isTooLong_ = true;
    if (!isTooLong_) partialLine_.append(bytes.substr(0, end));
    const bool isComplete = end < bytes.size();
    bytes.remove_prefix(isComplete ? end + 1 : end);
    if (isComplete) EndInput();
  }
}

void Prompt::EndInput() {
  if (isTooLong_) {
    context_.trace.AddNote("a command line was too long and is ignored");
  } else if (!partialLine_.empty()) {
    lines_.push_back(partialLine_);
  }
  partialLine_.clear();
  isTooLong_ = false;
}

bool Prompt::HasRoom() const { return lines_.size() < kMaxQueue; }

void Prompt::Run() {
  while (!context_.quits && !context_.drops && !IsHeld() && !lines_.empty()) {
    const std::string line = std::move(lines_.front());
    lines_.pop_front();
    RunLine(context_, line);
  }
}

bool Prompt::IsHeld() {
  if (!context_.heldUntil) return false;
  const std::string& awaited = context_.awaited;
  const bool found = !awaited.empty() && context_.trace.FindNext(awaited);
  if (!found && PromptClock::now() < *context_.heldUntil) return true;
  if (!found && !awaited.empty()) context_.trace.AddNote("gave up waiting for \"" + awaited + "\"");
  context_.heldUntil.reset();
  context_.awaited.clear();
  return false;
}

int Prompt::MillisecondsLeft() const {
  if (context_.drops) return 0;
  if (!context_.heldUntil) return lines_.empty() ? -1 : 0;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*context_.heldUntil - PromptClock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace orrin
