#include "service/host/event_entries.h"

#include "platform/error.h"
#include "platform/service_manager.h"
#include "service/diagnostics/format.h"

namespace stewardry {

void ReportServiceEvent(const char* text, std::uint16_t eventType) {
  // The strings are the whole content of an entry. The executable's message table shows them as
  // they are and explains them: without a table the Event Viewer says "description not found"
  // instead.
  constexpr std::uint32_t kEventId = 0xC0020001;
  const platform::EventSource source = platform::RegisterEventSourceA(kServiceName);
  if (!source) return;
  char Buffer[128] = "";
  if (eventType == platform::kEventInformation) FormatTo(Buffer, sizeof Buffer, "%s", text);
  if (eventType == platform::kEventError)
    FormatTo(Buffer, sizeof Buffer, "%s failed with %d", text, platform::LastError());
  const char* const strings[] = {kServiceName, Buffer};
  (void)platform::ReportEventA(source, eventType, kEventId, strings);  // a lost entry does no harm
}

}  // namespace stewardry
