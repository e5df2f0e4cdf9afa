#include "service/standby/firmware_log.h"

#include <atomic>
#include <cassert>
#include <cstring>
#include <iterator>

#include "platform/clock.h"
#include "platform/file.h"
#include "service/diagnostics/format.h"
#include "service/diagnostics/log_file.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/request.h"
#include "service/standby/standby_state.h"

namespace stewardry {

namespace {

// The driver's answer to either request.
struct Answer {
  std::uint64_t address = 0;
  RequestOutcome outcome;
  // True for an address at which the indexes are aligned words.
  bool IsAddress() const {
    return outcome.bytes == sizeof address && address % alignof(LogRing) == 0;
  }
};

// The open capture file. It reports no failure: what cannot be written is lost.
class CaptureFile {
 public:
  CaptureFile() : stream_(platform::OpenStream(kFirmwareLogPath, "a+")) {}
  explicit operator bool() const { return static_cast<bool>(stream_); }

  template <class... Args>
  void Write(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
    char text[160];  // the longest is an entry's 128 bytes and the line end
    const std::size_t length = FormatTo(text, sizeof text, format, args...);
    (void)platform::WriteStream(stream_, text, length);  // see above
  }

 private:
  platform::Stream stream_;
};

// A copy of both indexes, which the firmware goes on changing.
struct Indexes {
  std::uint32_t read;
  std::uint32_t write;
};

Indexes LoadIndexes(LogRing* ring) {
  // Acquire: the entries before the write index are read after it.
  return {std::atomic_ref(ring->readIndex).load(std::memory_order_relaxed),
          std::atomic_ref(ring->writeIndex).load(std::memory_order_acquire)};
}

// Release: the firmware may use an entry again once the read index has passed it.
void StoreReadIndex(LogRing* ring, std::uint32_t index) {
  assert(index < LogRing::kEntries);
  std::atomic_ref(ring->readIndex).store(index, std::memory_order_release);
}

struct TimeText {
  TimeText() {
    const platform::LocalTime t = platform::GetLocalTime();
    FormatTo(text, sizeof text, "%02u/%02u/%02u %02u:%02u:%02u", t.year, t.month, t.day, t.hour,
             t.minute, t.second);
  }
  char text[32];
};

// Copies the entry word by word, since the firmware may be writing it, and adds a terminator, since
// a line of 128 bytes has none.
void WriteEntry(LogRing* ring, std::uint32_t index, CaptureFile* file) {
  assert(index < LogRing::kEntries);
  LogRingEntry copy;
  LogRingEntry& entry = ring->entries[index];
  for (std::size_t i = 0; i < std::size(copy.words); ++i)
    copy.words[i] = std::atomic_ref(entry.words[i]).load(std::memory_order_relaxed);
  char line[sizeof copy + 1];
  std::memcpy(line, &copy, sizeof copy);
  line[sizeof copy] = 0;
  file->Write("%s\n", PrintableText(line));
}

void WriteEntries(LogRing* ring, std::uint32_t from, std::uint32_t end, CaptureFile* file) {
  for (std::uint32_t index = from; index < end; ++index) WriteEntry(ring, index, file);
}

void CopyNewLines(LogRing* ring, const Indexes& indexes, std::int32_t delta, CaptureFile* file) {
  if (delta == 0) {
    file->Write("No new data logged\n");
    return;
  }
  if (delta > 0) {
    const std::uint32_t end = indexes.read + static_cast<std::uint32_t>(delta);
    WriteEntries(ring, indexes.read, end, file);
    return StoreReadIndex(ring, end);
  }
  WriteEntries(ring, indexes.read, LogRing::kWriteIndexMax, file);
  WriteEntries(ring, 0, indexes.write, file);
  StoreReadIndex(ring, indexes.write);
}

void CaptureRing(LogRing* ring, CaptureFile* file) {
  Indexes indexes = LoadIndexes(ring);
  if (indexes.write > LogRing::kWriteIndexMax || indexes.read >= LogRing::kEntries) {
    file->Write("Read / write log buffer pointer is pointing to invalid address!!!\n");
    file->Write("Read pointer is 0x%x write pointer is 0x%x\n", indexes.read, indexes.write);
    return;
  }
  const auto delta =
      static_cast<std::int32_t>(indexes.write) - static_cast<std::int32_t>(indexes.read);
  file->Write("Starting log buffer capture at %s\n", TimeText().text);
  // The first capture starts at entry 0 and copies as many lines as were new before that. Both
  // indexes are valid, so these lines end no later than the write index.
  if (gStandby->gLogFirstCapture.exchange(0, std::memory_order_relaxed) != 0) {
    indexes.read = 0;
    StoreReadIndex(ring, 0);
  }
  file->Write("read pointer: %d\t write pointer: %d\n", indexes.read, indexes.write);
  CopyNewLines(ring, indexes, delta, file);
  file->Write("Ending log buffer capture at %s\n", TimeText().text);
}

// The first capture of a process starts with an empty file.
bool EmptyFileOnce() {
  if (gStandby->gLogFileCreated.load(std::memory_order_relaxed) != 0) return true;
  if (!platform::OpenStream(kFirmwareLogPath, "w")) return false;
  gStandby->gLogFileCreated.store(1, std::memory_order_relaxed);
  return true;
}

}  // namespace

std::uint32_t WriteLogBuffer() {
  Answer answer;
  const std::uint32_t result =
      ReadRecord<Operation::kWriteLogBuffer>(&answer.address, &answer.outcome);
  if (!answer.outcome.completed) return result;
  if (!answer.IsAddress()) LogInfo("Invalid log buffer address");
  gStandby->gLogBufferAddress.store(answer.IsAddress() ? answer.address : 0,
                                    std::memory_order_relaxed);
  return result;
}

// The answer is ignored, since a driver may leave the old address in it: the memory is freed.
std::uint32_t DeAllocateLogBuffer() {
  Answer answer;
  const std::uint32_t result =
      ReadRecord<Operation::kDeAllocateLogBuffer>(&answer.address, &answer.outcome);
  if (answer.outcome.completed) gStandby->gLogBufferAddress.store(0, std::memory_order_relaxed);
  return result;
}

void CaptureLogBuffer() {
  if (!gLogs->gLogFolderIsSafe.load(std::memory_order_relaxed) || !EmptyFileOnce()) return;
  CaptureFile file;
  if (!file) return;
  const std::uint64_t address = gStandby->gLogBufferAddress.load(std::memory_order_relaxed);
  if (address == 0) return file.Write("Log Buffer pointer returned NULL\n");
  CaptureRing(reinterpret_cast<LogRing*>(address), &file);
}

}  // namespace stewardry
