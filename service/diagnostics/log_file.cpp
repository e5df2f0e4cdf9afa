#include "service/diagnostics/log_file.h"

#include <cassert>
#include <cstring>
#include <new>
#include <utility>

#include "platform/process.h"

namespace stewardry {

platform::ProcessLifetime<LogState> gLogs;

namespace {

constexpr std::uint32_t kTrustedTexts = 63;  // between two reads of a file's size

}  // namespace

bool LogFile::SetPath(const char* path) {
  assert(path != nullptr);
  const std::size_t size = std::strlen(path) + 1;
  backup_.reset(new (std::nothrow) char[size]);
  path_.reset(backup_ ? new (std::nothrow) char[size] : nullptr);
  if (!path_) return false;
  std::memcpy(path_.get(), path, size);
  std::memcpy(backup_.get(), path, size);
  if (size > 1) backup_[size - 2] = '_';
  return true;
}

bool LogFile::Open(const char* mode, int* errorNumber) {
  assert(path_ != nullptr);
  trustedTexts_ = 0;
  stream_ = platform::OpenStream(path_.get(), mode, errorNumber);
  return static_cast<bool>(stream_);
}

std::int64_t LogFile::Size() {
  if (trustedTexts_ > 0) {
    --trustedTexts_;
    return size_;
  }
  size_ = platform::SeekToEnd(stream_);
  if (size_ >= 0) trustedTexts_ = kTrustedTexts;
  return size_;
}

void LogFile::Rotate() {
  if (!stream_ || Size() <= static_cast<std::int64_t>(maxSize_)) return;
  reopenDue_ = true;  // before the close: if the thread is ended here, the next line reopens
  stream_.Reset();
  // If the rename fails, emptying the file below still bounds it.
  (void)platform::RemoveFile(backup_.get());
  (void)platform::RenameFile(path_.get(), backup_.get());
  (void)platform::OpenStream(path_.get(), "w+t");
  Reopen();
}

void LogFile::Reopen() {
  trustedTexts_ = 0;
  stream_ = platform::OpenStream(path_.get(), "a+t");
  reopenDue_ = !stream_;
}

void LogFile::Write(const char* text, std::size_t size) {
  if (reopenDue_) Reopen();
  Rotate();
  if (!stream_) return platform::OutputDebugStringA(text);
  // On a full disk the line is lost: the log reports no failure of its own. A thread that is ended
  // within the write leaves a size that is not trusted.
  const std::uint32_t trusted = std::exchange(trustedTexts_, 0);
  const std::int64_t grown = platform::WriteStream(stream_, text, size);
  if (grown < 0) return;
  size_ += grown;
  trustedTexts_ = trusted;
}

std::uint32_t PrivateMegabytes() {
  return static_cast<std::uint32_t>(platform::GetPrivateUsage() >> 20);
}

bool ReadVerLine(char* line, std::size_t size) {
  assert(size > 0);
  line[0] = 0;
  const platform::CommandPipe pipe = platform::OpenCommandPipe("ver");
  if (!pipe) return false;
  while (platform::ReadLine(pipe, line, size)) {
  }
  const std::size_t length = std::strlen(line);
  if (length > 0) line[length - 1] = 0;
  return true;
}

}  // namespace stewardry
