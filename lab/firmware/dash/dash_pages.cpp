#include "lab/firmware/dash/dash_pages.h"

#include <string_view>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::string_view kBytesPath = "/bytes/";

HttpResponse InventoryPage(HttpRequest&, const PageFacts& facts, Role) {
  HttpResponse response;
  response.contentType = "application/json";
  response.body = InventoryJson(facts.inventory) + "\n";
  return response;
}

HttpResponse EchoPage(HttpRequest& request, const PageFacts&, Role) {
  HttpResponse response;
  if (const std::string* type = request.Field("content-type"); type != nullptr)
    response.contentType = *type;
  response.body = std::move(request.body);
  return response;
}

HttpResponse WsmanPage(HttpRequest& request, const PageFacts& facts, Role role) {
  WsmanAnswer answer = facts.wsman.Answer(request.body, facts.inventory, facts.firmware,
                                          role == Role::kAdministrator, WsmanClock::now());
  HttpResponse response;
  response.status = answer.status;
  response.contentType = "application/soap+xml;charset=UTF-8";
  response.body = std::move(answer.envelope);
  response.command = answer.command;
  response.note = std::move(answer.note);
  return response;
}

HttpResponse BytesPage(HttpRequest& request, const PageFacts&, Role) {
  const auto count =
      ParseNumber(std::string_view(request.target).substr(kBytesPath.size()), kMaxPattern);
  if (!count) return Refusal(404);
  HttpResponse response;
  response.contentType = "application/octet-stream";
  response.patternLength = *count;
  return response;
}

struct Page {
  std::string_view path;
  bool isPrefix;
  std::string_view method;  // HEAD is served where GET is
  HttpResponse (*answer)(HttpRequest& request, const PageFacts& facts, Role role);
};

constexpr Page kPages[] = {
    {"/", false, "GET", InventoryPage},
    {"/wsman", false, "POST", WsmanPage},
    {"/echo", false, "POST", EchoPage},
    {kBytesPath, true, "GET", BytesPage},
};

bool Offers(const Page& page, std::string_view method) {
  return method == page.method || (method == "HEAD" && page.method == "GET");
}

HttpResponse Unauthorized(const HttpRequest& request, const PageFacts& facts, bool isStale) {
  HttpResponse refused = Refusal(401);
  for (std::string& challenge : facts.users.Challenges(isStale, HttpClock::now()))
    refused.fields.emplace_back("WWW-Authenticate", std::move(challenge));
  if (isStale)
    refused.note = ", a nonce that has expired or was used before";
  else if (request.Field("authorization") != nullptr)
    refused.note = ", wrong credentials";
  return refused;
}

}  // namespace

HttpResponse AnswerPage(HttpRequest& request, const PageFacts& facts) {
  const HttpUsers::Verdict verdict = facts.users.Identify(request, HttpClock::now());
  if (!verdict.role) return Unauthorized(request, facts, verdict.isStale);
  request.target.resize(std::min(request.target.find('?'), request.target.size()));
  for (const Page& page : kPages) {
    const bool here =
        page.isPrefix ? request.target.starts_with(page.path) : request.target == page.path;
    if (!here) continue;
    if (Offers(page, request.method)) return page.answer(request, facts, *verdict.role);
    HttpResponse refused = Refusal(405);
    refused.fields.emplace_back("Allow", page.method == "GET" ? "GET, HEAD" : "POST");
    return refused;
  }
  return Refusal(404);
}

HttpResponse Refusal(int status) {
  HttpResponse response;
  response.status = status;
  response.contentType = "text/plain";
  response.body = Format("%d\n", status);
  return response;
}

}  // namespace orrin
