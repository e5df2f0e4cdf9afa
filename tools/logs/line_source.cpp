#include "tools/logs/line_source.h"

#include <algorithm>
#include <utility>

#include "platform/error.h"

namespace stewardry::tools {

namespace {

constexpr std::size_t kPart = 65'536;
// How far a bisection looks for a line with a time. What has none for longer counts as older than
// every line: an unused stretch of a sparse file, or trash.
constexpr std::int64_t kMostUntimedBytes = 1 << 18;

}  // namespace

LineSource::LineSource(Log log, platform::SharedFile file, std::int64_t begin, std::int64_t end)
    : log_(log), file_(std::move(file)), next_(begin), end_(end) {}

void LineSource::Extend(std::int64_t end) {
  if (end < end_) {
    next_ = 0;
    buffer_.clear();
    used_ = 0;
  }
  end_ = end;
}

// Reads the next part behind what is in the buffer. Returns false if there is nothing more.
bool LineSource::Fill() {
  if (next_ >= end_ || error_ != 0) return false;
  buffer_.erase(0, std::exchange(used_, 0));
  const std::size_t old = buffer_.size();
  const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(end_ - next_, kPart));
  buffer_.resize(old + wanted);
  std::size_t read = 0;
  if (!platform::ReadAt(file_, next_, buffer_.data() + old, wanted, &read))
    error_ = platform::LastError();
  buffer_.resize(old + read);
  next_ += static_cast<std::int64_t>(read);
  return read > 0;
}

bool LineSource::Next(LogLine* line, bool takeCutLine) {
  std::size_t searched = used_;
  for (;;) {
    const std::size_t lineEnd = buffer_.find('\n', searched);
    const std::size_t length = std::min(lineEnd, buffer_.size()) - used_;
    const bool isWhole = lineEnd != std::string::npos && length <= kLongestLine;
    const bool isPiece = !isWhole && length > kLongestLine;
    if (!isWhole && !isPiece) {
      const std::size_t kept = buffer_.size() - used_;
      if (Fill()) {
        searched = used_ + kept;
        continue;
      }
      if (!takeCutLine || buffer_.size() == used_) return false;
    }
    const std::size_t taken = isPiece ? kLongestLine : std::min(length, kLongestLine);
    *line = ParseLogLine(log_, std::string_view(buffer_).substr(used_, taken));
    used_ += taken + (isWhole ? 1 : 0);
    if (line->hasOwnTime) lastTime_ = line->time;
    line->time = lastTime_;
    return true;
  }
}

std::int64_t NextLineStart(const platform::SharedFile& file, std::int64_t offset,
                           std::int64_t end) {
  if (offset <= 0) return 0;
  // The line starts at `offset` itself if the byte before is a line end.
  std::string part(kPart, '\0');
  for (std::int64_t at = offset - 1; at < end;) {
    std::size_t read = 0;
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(end - at, kPart));
    if (!platform::ReadAt(file, at, part.data(), wanted, &read) || read == 0) return end;
    const std::size_t found = std::string_view(part).substr(0, read).find('\n');
    if (found != std::string_view::npos) return at + static_cast<std::int64_t>(found) + 1;
    if (at - offset > kMostUntimedBytes) return at;  // trash without line ends: any place will do
    at += static_cast<std::int64_t>(read);
  }
  return end;
}

namespace {

// Returns whether the first line with a time at or after `offset` is older than `since`, or has no
// such line near.
bool IsOlder(Log log, const platform::SharedFile& file, std::int64_t offset, std::int64_t end,
             std::int64_t since) {
  std::string part(kPart, '\0');
  const std::int64_t last = std::min(end, offset + kMostUntimedBytes);
  std::string_view rest;
  for (std::int64_t at = NextLineStart(file, offset, end); at < last;) {
    std::size_t read = 0;
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(last - at, kPart));
    if (!platform::ReadAt(file, at, part.data(), wanted, &read) || read == 0) return true;
    rest = std::string_view(part).substr(0, read);
    for (std::size_t lineEnd; (lineEnd = rest.find('\n')) != std::string_view::npos;) {
      const LogLine line = ParseLogLine(log, rest.substr(0, lineEnd));
      if (line.hasOwnTime) return line.time < since;
      rest.remove_prefix(lineEnd + 1);
    }
    // A line that the part has cut is read again, unless it fills the part.
    at += static_cast<std::int64_t>(rest.size() < read ? read - rest.size() : read);
    if (rest.size() == 0 && read < wanted) return true;
  }
  return true;
}

}  // namespace

std::int64_t FindFirstLine(Log log, const platform::SharedFile& file, std::int64_t begin,
                           std::int64_t end, std::int64_t since) {
  // From the end back in growing steps, so that the newest stretch is searched before older ones.
  std::int64_t newer = end;
  std::int64_t older = begin;
  for (std::int64_t step = kPart; newer > begin; step *= 2) {
    const std::int64_t at = std::max(begin, end - step);
    if (IsOlder(log, file, at, end, since)) {
      older = at;
      break;
    }
    newer = at;
  }
  if (newer <= begin) return begin;
  // The line at `older` is older (or it is the front), the one at `newer` is not.
  while (newer - older > static_cast<std::int64_t>(kPart)) {
    const std::int64_t middle = older + (newer - older) / 2;
    (IsOlder(log, file, middle, end, since) ? older : newer) = middle;
  }
  return NextLineStart(file, older, end);
}

}  // namespace stewardry::tools
