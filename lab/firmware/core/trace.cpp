#include "lab/firmware/core/trace.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::size_t kMaxHeld = 256 * 1024;
constexpr std::size_t kMaxUnsearched = 4096;

std::string TimeStamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  localtime_r(&now.tv_sec, &parts);
  return Format("%02d:%02d:%02d.%03ld", parts.tm_hour, parts.tm_min, parts.tm_sec,
                now.tv_nsec / 1000000);
}

// Returns false once the reader has closed its end. Waits for a non-blocking descriptor.
bool WriteAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd ready{descriptor, POLLOUT, 0};
      (void)poll(&ready, 1, -1);  // an interrupted wait leads to another try
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

Trace::Trace(int descriptor) : descriptor_(descriptor) { assert(descriptor >= 0); }

void Trace::HostToFirmware(std::string_view words) { AddEvent("host > firmware", words); }
void Trace::FirmwareToHost(std::string_view words) { AddEvent("firmware > host", words); }
void Trace::AddNote(std::string_view words) { AddEvent("orrin", words); }
void Trace::AddPlain(std::string_view words) { AddLine(words); }

void Trace::AddEvent(std::string_view direction, std::string_view words) {
  std::string line = TimeStamp() + " ";
  line.append(direction).append("  ").append(words);
  AddLine(line);
  unsearched_.push_back(std::move(line));
  if (unsearched_.size() > kMaxUnsearched) unsearched_.pop_front();
}

void Trace::AddLine(std::string_view line) {
  held_.append(line).push_back('\n');
  if (held_.size() > kMaxHeld) Flush();
}

void Trace::Flush() {
  if (held_.empty()) return;
  if (!isClosed_) isClosed_ = !WriteAll(descriptor_, held_);
  held_.clear();
}

bool Trace::FindNext(std::string_view text) {
  while (!unsearched_.empty()) {
    const bool found = unsearched_.front().find(text) != std::string::npos;
    unsearched_.pop_front();
    if (found) return true;
  }
  return false;
}

}  // namespace orrin
