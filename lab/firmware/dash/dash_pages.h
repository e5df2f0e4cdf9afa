// What the firmware's HTTP server offers: which method on which path gives which answer.
#pragma once

#include <string>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/dash/http_request.h"
#include "lab/firmware/dash/http_response.h"

namespace orrin {

// The longest answer of GET /bytes/N.
constexpr std::uint64_t kMaxPattern = std::uint64_t{64} << 20;

// What the pages tell about; both belong to the firmware.
struct PageFacts {
  const Inventory& inventory;
  const std::string& version;
};

// The answer to a whole request. May move the body out of `request`.
HttpResponse AnswerPage(HttpRequest& request, const PageFacts& facts);
// The answer that refuses a request with the given status.
HttpResponse Refusal(int status);

}  // namespace orrin
