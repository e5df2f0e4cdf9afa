#include "cim/log/log.h"

#include <array>
#include <atomic>
#include <cassert>
#include <cstdio>

#include "cim/log/log_events.h"
#include "cim/text/number_text.h"
#include "cim/text/print.h"
#include "cim/text/text.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/thread.h"
#include "text/letter_case.h"

namespace stewardry::cim {

namespace {

// Written by the operations that attach, detach and set the level; read by every thread that logs.
struct LogState {
  // Relaxed: no other data depends on it.
  std::atomic<std::int32_t> LibLogLevel{LIBLOG_INFO};
  // Null while no stream is attached. Release and acquire: a thread that reads a stream may write
  // to it.
  std::atomic<std::FILE*> LibLogStream{nullptr};
};
constinit LogState gLibLog;

constexpr std::array<const char*, 6> kLevelNames = {"FATAL", "ERROR", "WARNING",
                                                    "INFO",  "DEBUG", "VERBOSE"};

bool IsEmpty(const char* text) { return text == nullptr || *text == 0; }

// Returns the stream for a line of that level; null if the line is not to be written.
std::FILE* StreamFor(std::int32_t level) {
  std::FILE* stream = gLibLog.LibLogStream.load(std::memory_order_acquire);
  return level > gLibLog.LibLogLevel.load(std::memory_order_relaxed) ? nullptr : stream;
}

void PutHead(std::FILE* stream, std::int32_t level, const char* file, std::uint32_t line) {
  const platform::LocalTime now = platform::GetLocalTime();
  char time[128];
  (void)Print_ToBuffer(time, sizeof time, "%02u/%02u/%02u %02u:%02u:%02u", now.year, now.month,
                       now.day, now.hour, now.minute, now.second);
  // Write failures are ignored: there is no other log to report them to.
  (void)PrintW_ToStream(stream, u"%s ", time);
  (void)PrintW_ToStream(stream, u"[%u,%lu] ", platform::GetCurrentProcessId(),
                        static_cast<unsigned long>(platform::GetCurrentThreadId()));
  const bool isKnown = level >= 0 && level < static_cast<std::int32_t>(kLevelNames.size());
  (void)PrintW_ToStream(stream, u"%s: ", isKnown ? LibLog_LevelName(level) : "");
  if (!IsEmpty(file)) (void)PrintW_ToStream(stream, u"%s(%u): ", file, line);
}

void PutBody(std::FILE* stream, const char16_t* format, va_list arguments) {
  (void)PrintW_ToStreamV(stream, format, arguments);
  (void)PrintW_ToStream(stream, u"\n");
}

}  // namespace

int LibLog_Attach(const char16_t* path) {
  if (path == nullptr || *path == 0 || LibLog_IsAttached()) return 1;
  std::FILE* stream = platform::OpenAppendStream(path);
  if (stream == nullptr) return 1;
  gLibLog.LibLogStream.store(stream, std::memory_order_release);
  LibLog_ReportSelectors();
  return 0;
}

int LibLog_AttachDescriptor(int) { return 1; }

int LibLog_AttachStderr() {
  gLibLog.LibLogStream.store(stderr, std::memory_order_release);
  LibLog_ReportSelectors();
  return 0;
}

int LibLog_Detach() {
  if (!LibLog_IsAttached() || LibLog_IsStderr()) return 0;
  std::FILE* stream = gLibLog.LibLogStream.exchange(nullptr, std::memory_order_acq_rel);
  (void)std::fclose(stream);  // a write failure is ignored, as above
  return 0;
}

bool LibLog_IsAttached() { return gLibLog.LibLogStream.load(std::memory_order_acquire) != nullptr; }

bool LibLog_IsStderr() { return gLibLog.LibLogStream.load(std::memory_order_acquire) == stderr; }

int LibLog_SetLevel(std::int32_t level) {
  gLibLog.LibLogLevel.store(level, std::memory_order_relaxed);
  return 0;
}

std::int32_t LibLog_GetLevel() { return gLibLog.LibLogLevel.load(std::memory_order_relaxed); }

const char* LibLog_LevelName(std::int32_t level) {
  assert(level >= 0 && level < static_cast<std::int32_t>(kLevelNames.size()));
  return kLevelNames[static_cast<std::size_t>(level)];
}

int LibLog_SetLevelText(const char16_t* level) {
  char narrow[20];
  if (level == nullptr || Text_CopyToNarrow(narrow, level, sizeof narrow) >= sizeof narrow)
    return -1;
  return LibLog_SetLevelNarrowText(narrow);
}

int LibLog_SetLevelNarrowText(const char* level) {
  if (level == nullptr) return -1;
  for (std::size_t i = 0; i < kLevelNames.size(); ++i) {
    if (!EqualIgnoringCase(level, kLevelNames[i]) &&
        !EqualIgnoringCase(level, SmallNumberTexts[i].text))
      continue;
    return LibLog_SetLevel(static_cast<std::int32_t>(i));
  }
  return -1;
}

void LibLog_Event(std::int32_t level, std::int32_t eventId, const char* file, std::uint32_t line,
                  const char16_t* format, ...) {
  if (static_cast<std::uint32_t>(level) >= kLevelNames.size() || StreamFor(level) == nullptr)
    return;
  char16_t whole[1024];
  (void)PrintW_ToBuffer(whole, std::size(whole), u"EventId=%d Priority=%s ", eventId,
                        LibLog_LevelName(level));
  (void)Text_Cat(whole, format, std::size(whole));  // a longer format is cut
  va_list arguments;
  va_start(arguments, format);
  (void)LibLog_VPut(level, file, line, whole, arguments);
  va_end(arguments);
}

int LibLog_VPut(std::int32_t level, const char* file, std::uint32_t line, const char16_t* format,
                va_list arguments) {
  std::FILE* stream = StreamFor(level);
  if (stream == nullptr) return 0;
  PutHead(stream, level, IsEmpty(file) ? "null" : file, line);
  PutBody(stream, format, arguments);
  (void)std::fflush(stream);
  return 1;
}

int LibLog_Put(std::int32_t level, const char* file, std::uint32_t line, const char16_t* format,
               ...) {
  std::FILE* stream = StreamFor(level);
  if (stream == nullptr) return 0;
  PutHead(stream, level, file, line);
  va_list arguments;
  va_start(arguments, format);
  PutBody(stream, format, arguments);
  va_end(arguments);
  return 1;
}

void LibLog_Raw(const char16_t* format, ...) {
  std::FILE* stream = gLibLog.LibLogStream.load(std::memory_order_acquire);
  if (stream == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  PutBody(stream, format, arguments);
  va_end(arguments);
  (void)std::fflush(stream);
}

// The six differ in their level alone, and variable arguments can only be passed on as a list.
#define STEWARDRY_LOG_LEVEL(Name, level)                \
  void LibLog_##Name(const char16_t* format, ...) {     \
    va_list arguments;                                  \
    va_start(arguments, format);                        \
    (void)LibLog_VPut(level, "", 0, format, arguments); \
    va_end(arguments);                                  \
  }
STEWARDRY_LOG_LEVEL(Fatal, LIBLOG_FATAL)
STEWARDRY_LOG_LEVEL(Error, LIBLOG_ERROR)
STEWARDRY_LOG_LEVEL(Warning, LIBLOG_WARNING)
STEWARDRY_LOG_LEVEL(Info, LIBLOG_INFO)
STEWARDRY_LOG_LEVEL(Debug, LIBLOG_DEBUG)
STEWARDRY_LOG_LEVEL(Verbose, LIBLOG_VERBOSE)
#undef STEWARDRY_LOG_LEVEL

}  // namespace stewardry::cim
