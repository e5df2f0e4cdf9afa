// The numbered reports of the library, one function each. The selector's six come through
// Selector_SetReport, since the socket core knows no log.
#pragma once

#include <cstdint>

namespace stewardry::cim {

// Connects the selectors' reports (events 20053 to 20058) with the log. Before any selector runs.
void LibLog_ReportSelectors();

// `file` and `line` say where the report was made; the library's own reports leave them empty.
// Events 20003 and 20004: a message that couldn't be made ready for sending.
void LibLog_CloneNotAllocated(const char* file, std::uint32_t line, std::uint32_t tag);
void LibLog_CloneFailed(const char* file, std::uint32_t line, std::uint32_t tag,
                        std::uint32_t error);
// 20066
void LibLog_OutOfMemory(const char* file, std::uint32_t line);
// 30031
void LibLog_Base64DecFailed(const char* file, std::uint32_t line);
// 30032: the message's own address lies in no shipped page.
void LibLog_FixPointerFailed(const char* file, std::uint32_t line);
// 30088, 30090, 30093: the head's table, the request's, the message's own.
void LibLog_RestoreFailedFirst(const char* file, std::uint32_t line);
void LibLog_RestoreFailedSecond(const char* file, std::uint32_t line, std::uint32_t tag);
void LibLog_RestoreFailedThird(const char* file, std::uint32_t line);
// 30089
void LibLog_InvalidTag(const char* file, std::uint32_t line, std::uint32_t tag);
// 30091, 30092: a required text, a required instance's packed bytes.
void LibLog_PointerMissing(const char* file, std::uint32_t line);
void LibLog_PackedMissing(const char* file, std::uint32_t line);
// 30094, 30095: packed bytes, a text, that lie in no shipped page.
void LibLog_FixPackedFailed(const char* file, std::uint32_t line);
void LibLog_FixTextFailed(const char* file, std::uint32_t line);
// 30096
void LibLog_UnpackFailed(const char* file, std::uint32_t line);

}  // namespace stewardry::cim
