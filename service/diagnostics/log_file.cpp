// The bounded log file.
#include "service/diagnostics/log_file.h"

#include <cstring>
#include <new>
#include <string>

#include "platform/process.h"

namespace stewardry {

std::atomic<bool> gLogFolderIsSafe{true};

bool LogFile::SetPath(const char* path) {
  const std::size_t size = std::strlen(path) + 1;
  path_.reset(new (std::nothrow) char[size]);
  if (!path_) return false;
  std::memcpy(path_.get(), path, size);
  return true;
}

bool LogFile::Open(const char* mode, int* errorNumber) {
  stream_ = platform::OpenStream(path_.get(), mode, errorNumber);
  return static_cast<bool>(stream_);
}

void LogFile::Rotate() {
  if (!stream_ || platform::SeekToEnd(stream_) <= static_cast<std::int64_t>(maxSize_)) return;
  (void)platform::FlushStream(stream_);  // each line was flushed when it was written
  stream_.Reset();
  std::string backup = path_.get();
  backup.back() = '_';
  // If the rename fails, emptying the file below still bounds it.
  (void)platform::RemoveFile(backup.c_str());
  (void)platform::RenameFile(path_.get(), backup.c_str());
  (void)platform::OpenStream(path_.get(), "w+t");
  Reopen();
}

void LogFile::Reopen() {
  stream_ = platform::OpenStream(path_.get(), "a+t");
  reopenDue_ = !stream_;
}

void LogFile::Write(const char* text, std::size_t size) {
  if (reopenDue_) Reopen();
  Rotate();
  if (!stream_) return platform::OutputDebugStringA(text);
  // A disk that takes no more loses the line: the log never reports on itself.
  (void)platform::WriteStream(stream_, text, size);
  (void)platform::FlushStream(stream_);
}

std::uint32_t PrivateMegabytes() {
  return static_cast<std::uint32_t>(platform::GetPrivateUsage() >> 20);
}

bool ReadVerLine(char* line, std::size_t size) {
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
