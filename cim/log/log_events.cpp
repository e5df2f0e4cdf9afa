// Event numbers, levels and words.
#include "cim/log/log_events.h"

#include "cim/log/log.h"
#include "sock/selector.h"

namespace stewardry::cim {

namespace {

void ReportSelector(SelectorEvent event, const Selector* selector, std::uint32_t detail,
                    const Handler* handler) {
  struct Row {
    SelectorEvent event;
    const char16_t* format;
  };
  // One that doesn't need detail or handler doesn't print them.
  constexpr Row kRows[] = {
      {SelectorEvent::kInitialTime, u"Selector_Run: %p Error on initial PAL_Time"},
      {SelectorEvent::kSetSockEvents,
       u"Selector_Run: %p error %d on _SetSockEvents for handler: %p"},
      {SelectorEvent::kEmptyList, u"Selector_Run: %p Empty List"},
      {SelectorEvent::kWait, u"Selector_Run: %p, Error on WaitForMultipleObjectsEx: %d"},
      {SelectorEvent::kTimeInPass, u"Selector_Run: %p Error on PAL_Time"},
      {SelectorEvent::kGetSockEvents,
       u"Selector_Run: %p error %d on _GetSockEvents for handler: %p"},
  };
  for (const Row& row : kRows)
    if (row.event == event)
      LibLog_Event(LIBLOG_ERROR, static_cast<std::int32_t>(event), "", 0, row.format, selector,
                   detail, handler);
}

}  // namespace

void LibLog_ReportSelectors() { Selector_SetReport(ReportSelector); }

void LibLog_CloneNotAllocated(const char* file, std::uint32_t line, std::uint32_t tag) {
  LibLog_Event(LIBLOG_ERROR, 20003, file, line,
               u"MessagePackCloneForBinarySending, cannot allocate message %d", tag);
}

void LibLog_CloneFailed(const char* file, std::uint32_t line, std::uint32_t tag,
                        std::uint32_t error) {
  LibLog_Event(LIBLOG_ERROR, 20004, file, line,
               u"MessagePackCloneForBinarySending, cannot clone message tag: %d, error: %d", tag,
               error);
}

void LibLog_OutOfMemory(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_ERROR, 20066, file, line, u"out of memory");
}

void LibLog_Base64DecFailed(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30031, file, line, u"Base64Dec failed");
}

void LibLog_FixPointerFailed(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30032, file, line, u"batch fix pointer failed\n");
}

void LibLog_RestoreFailedFirst(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30088, file, line, u"restore msg failed first time\n");
}

void LibLog_InvalidTag(const char* file, std::uint32_t line, std::uint32_t tag) {
  LibLog_Event(LIBLOG_WARNING, 30089, file, line, u"restore msg failed for invalid tag: %d\n", tag);
}

void LibLog_RestoreFailedSecond(const char* file, std::uint32_t line, std::uint32_t tag) {
  LibLog_Event(LIBLOG_WARNING, 30090, file, line, u"restore msg failed second time for tag: %d",
               tag);
}

void LibLog_PointerMissing(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30091, file, line,
               u"restore msg failed since pointer is null for mft_pointer");
}

void LibLog_PackedMissing(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30092, file, line,
               u"restore msg failed since there is no ptrPacked for mft_instance");
}

void LibLog_RestoreFailedThird(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30093, file, line, u"restore msg failed third time for tag\n");
}

void LibLog_FixPackedFailed(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30094, file, line,
               u"restore msg failed while fixing batch pointers for mft_instance\n");
}

void LibLog_FixTextFailed(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30095, file, line,
               u"restore msg failed while fixing batch pointers for mft_pointer");
}

void LibLog_UnpackFailed(const char* file, std::uint32_t line) {
  LibLog_Event(LIBLOG_WARNING, 30096, file, line,
               u"restore msg failed while unpacking instance for mft_instance");
}

}  // namespace stewardry::cim
