// The numbered reports of the library, one function each. The selector's six arrive through
// Selector_SetReport, since the socket core does not depend on the log.
#pragma once

#include <cstdint>

namespace stewardry::cim {

// Connects the selectors' reports (events 20053 to 20058) with the log. Call before a selector
// runs.
void LibLog_ReportSelectors();

// `file` and `line` name the place of the report; the library's own reports leave them empty.
// Events 20003 and 20004: a message could not be prepared for sending.
void LibLog_CloneNotAllocated(const char* file, std::uint32_t line, std::uint32_t tag);
void LibLog_CloneFailed(const char* file, std::uint32_t line, std::uint32_t tag,
                        std::uint32_t error);
// Event 20066.
void LibLog_OutOfMemory(const char* file, std::uint32_t line);
// Event 30031.
void LibLog_Base64DecFailed(const char* file, std::uint32_t line);
// Event 30032: the message's own address lies in no shipped page.
void LibLog_FixPointerFailed(const char* file, std::uint32_t line);
// Events 30088, 30090, 30093: the field table of the head, of the request, of the message itself.
void LibLog_RestoreFailedFirst(const char* file, std::uint32_t line);
void LibLog_RestoreFailedSecond(const char* file, std::uint32_t line, std::uint32_t tag);
void LibLog_RestoreFailedThird(const char* file, std::uint32_t line);
// Event 30089.
void LibLog_InvalidTag(const char* file, std::uint32_t line, std::uint32_t tag);
// Events 30091 and 30092: a required text, the packed bytes of a required instance.
void LibLog_PointerMissing(const char* file, std::uint32_t line);
void LibLog_PackedMissing(const char* file, std::uint32_t line);
// Events 30094 and 30095: packed bytes, a text, in no shipped page.
void LibLog_FixPackedFailed(const char* file, std::uint32_t line);
void LibLog_FixTextFailed(const char* file, std::uint32_t line);
// Event 30096.
void LibLog_UnpackFailed(const char* file, std::uint32_t line);

}  // namespace stewardry::cim
