#include "lab/firmware/core/trace.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::size_t kMaxHeld = 256 * 1024;
constexpr std::size_t kMaxUnseen = 4096;

std::string TimeStamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  localtime_r(&now.tv_sec, &parts);
  return Format("%02d:%02d:%02d.%03ld", parts.tm_hour, parts.tm_min, parts.tm_sec,
                now.tv_nsec / 1000000);
}

// False when the reader has gone. A descriptor in non-blocking mode is waited for.
bool WriteAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd ready{descriptor, POLLOUT, 0};
      (void)poll(&ready, 1, -1);  // an interrupted wait only leads to another try
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

Trace::Trace(int descriptor) : descriptor_(descriptor) {}

void Trace::HostToFirmware(std::string_view words) { Event("host > firmware", words); }
void Trace::FirmwareToHost(std::string_view words) { Event("firmware > host", words); }
void Trace::Note(std::string_view words) { Event("orrin", words); }
void Trace::Plain(std::string_view words) { Hold(words); }

void Trace::Event(std::string_view direction, std::string_view words) {
  std::string line = TimeStamp() + " ";
  line.append(direction).append("  ").append(words);
  Hold(line);
  unseen_.push_back(std::move(line));
  if (unseen_.size() > kMaxUnseen) unseen_.pop_front();
}

void Trace::Hold(std::string_view line) {
  held_.append(line).push_back('\n');
  if (held_.size() > kMaxHeld) Flush();
}

void Trace::Flush() {
  if (held_.empty()) return;
  if (!readerGone_) readerGone_ = !WriteAll(descriptor_, held_);
  held_.clear();
}

bool Trace::TakeSeen(std::string_view text) {
  while (!unseen_.empty()) {
    const bool found = unseen_.front().find(text) != std::string::npos;
    unseen_.pop_front();
    if (found) return true;
  }
  return false;
}

}  // namespace orrin
