// The pages of the firmware's HTTP server: the answer to each method and path.
#pragma once

#include <string>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/dash/http_request.h"
#include "lab/firmware/dash/http_response.h"
#include "lab/firmware/dash/http_users.h"
#include "lab/firmware/wsman/wsman.h"

namespace orrin {

// The longest answer of GET /bytes/N.
constexpr std::uint64_t kMaxPattern = std::uint64_t{64} << 20;

// What the pages show. All outlive the session.
struct PageFacts {
  const Inventory& inventory;
  const FirmwareView& firmware;
  WsmanService& wsman;
  HttpUsers& users;
};

// Returns the answer to a whole request. May move the body out of `request`.
HttpResponse AnswerPage(HttpRequest& request, const PageFacts& facts);
// Returns the answer that refuses a request with the given status.
HttpResponse Refusal(int status);

}  // namespace orrin
