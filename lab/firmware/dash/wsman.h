// WS-Management as far as this firmware goes: Identify, and the power state change of
// CIM_PowerManagementService (DSP0226, DSP1027). Envelopes aren't parsed as XML but searched for a
// few elements; the search sees no comment, no CDATA and nothing past its bound.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lab/firmware/dash/http_response.h"

namespace orrin {

// The text of the first element of that local name, entities left as they are; nothing when there
// is no such element or when it has child elements first. Looks at the first 65536 bytes only.
std::optional<std::string> ElementText(std::string_view xml, std::string_view localName);
// Whether there is such an element at all.
bool HasElement(std::string_view xml, std::string_view localName);

// The firmware command for a PowerState of CIM_PowerManagementService; nothing for a state that
// this firmware doesn't offer.
std::optional<std::uint8_t> CommandForPowerState(std::uint32_t powerState);

// The answer to a POST on /wsman. `version` is the firmware's version text.
HttpResponse AnswerWsman(std::string_view envelope, std::string_view version);

}  // namespace orrin
