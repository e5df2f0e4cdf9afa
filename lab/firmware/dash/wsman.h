// WS-Management: Identify, and the power state change of CIM_PowerManagementService (DSP0226,
// DSP1027). Envelopes are not parsed as XML but searched for a few elements; the search ignores
// comments, CDATA and everything past its bound.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lab/firmware/dash/http_response.h"

namespace orrin {

// Returns the text of the first element of that local name, entities unchanged, or nothing if there
// is no such element or it has a child element. Searches the first 65536 bytes.
std::optional<std::string> ElementText(std::string_view xml, std::string_view localName);
// Returns true if there is such an element.
bool HasElement(std::string_view xml, std::string_view localName);

// Returns the firmware command for a PowerState of CIM_PowerManagementService, or nothing for a
// state that this firmware does not offer.
std::optional<std::uint8_t> CommandForPowerState(std::uint32_t powerState);

// Returns the answer to a POST on /wsman. `version` is the firmware's version text.
HttpResponse AnswerWsman(std::string_view envelope, std::string_view version);

}  // namespace orrin
