#include "lab/firmware/dash/wsman.h"

#include <algorithm>
#include <cassert>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::size_t kSearchBound = 65536;
constexpr std::size_t kMaxMessageId = 256;

constexpr char kAddressing[] = "http://schemas.xmlsoap.org/ws/2004/08/addressing";
constexpr char kIdentity[] = "http://schemas.dmtf.org/wbem/wsman/identity/1/wsmanidentity.xsd";
constexpr char kPowerService[] =
    "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/CIM_PowerManagementService";
constexpr char kPowerMethod[] = "/RequestPowerStateChange";

constexpr char kSoapType[] = "application/soap+xml;charset=UTF-8";
constexpr char kEnvelopeStart[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"";
constexpr char kEnvelopeEnd[] = "</s:Body></s:Envelope>\n";

// ReturnValue of RequestPowerStateChange (DSP1027, return codes of the method).
constexpr int kPowerDone = 0;
constexpr int kPowerErrorOccurred = 2;

struct PowerMapping {
  std::uint32_t powerState;
  std::uint8_t command;
};

// PowerState values of CIM_PowerManagementService. The mailbox has no command for Off - Hard (6),
// its cycles (9, 13, 16) and diagnostic interrupts (11, 17).
constexpr PowerMapping kPowerMappings[] = {
    {4, kSleep},      // Sleep - Deep
    {5, kReboot},     // Power Cycle (Off - Soft)
    {7, kHibernate},  // Hibernate (Off - Soft)
    {8, kShutdown},   // Off - Soft
    {10, kReboot},    // Master Bus Reset
    {12, kShutdown},  // Off - Soft Graceful
    {14, kReboot},    // Master Bus Reset Graceful
    {15, kReboot},    // Power Cycle (Off - Soft Graceful)
};

struct Tag {
  std::string_view localName;
  bool opens = false;
  bool isEmpty = false;
};

// Iterates over the tags of a document. Skips comments, CDATA and declarations.
class TagWalk {
 public:
  explicit TagWalk(std::string_view xml) : rest_(xml.substr(0, kSearchBound)) {}

  bool Next(Tag* tag) {
    while (Find("<")) {
      if (Starts("<!--")) {
        if (!Skip("-->")) return false;
      } else if (Starts("<![CDATA[")) {
        if (!Skip("]]>")) return false;
      } else if (Starts("<?") || Starts("<!")) {
        if (!Skip(">")) return false;
      } else {
        return Read(tag);
      }
    }
    return false;
  }
  // Returns the text between the last tag and the next one.
  std::optional<std::string_view> Text() const {
    const std::size_t end = rest_.find('<');
    if (end == std::string_view::npos) return std::nullopt;
    return rest_.substr(0, end);
  }

 private:
  bool Starts(std::string_view text) const { return rest_.starts_with(text); }
  bool Find(std::string_view text) {
    rest_.remove_prefix(std::min(rest_.find(text), rest_.size()));
    return !rest_.empty();
  }
  bool Skip(std::string_view end) {
    if (!Find(end)) return false;
    rest_.remove_prefix(end.size());
    return true;
  }
  bool Read(Tag* tag);

  std::string_view rest_;
};

// Returns the offset of the '>' that ends the tag. One in a quoted attribute value does not.
std::size_t TagEnd(std::string_view text) {
  char quote = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return i;
    }
  }
  return std::string_view::npos;
}

bool TagWalk::Read(Tag* tag) {
  assert(Starts("<"));
  const std::size_t end = TagEnd(rest_);
  if (end == std::string_view::npos) return false;
  std::string_view inner = rest_.substr(1, end - 1);
  rest_.remove_prefix(end + 1);
  tag->opens = !inner.starts_with('/');
  tag->isEmpty = inner.ends_with('/');
  if (!tag->opens) inner.remove_prefix(1);
  if (tag->isEmpty) inner.remove_suffix(1);
  inner = TakeWord(&inner);
  const std::size_t colon = inner.find(':');
  if (colon != std::string_view::npos) inner.remove_prefix(colon + 1);
  tag->localName = inner;
  return true;
}

HttpResponse Soap(int status, const std::string& envelope) {
  HttpResponse response;
  response.status = status;
  response.contentType = kSoapType;
  response.body = envelope;
  return response;
}

// Returns the header block of a reply: its action, and the message it relates to.
std::string ReplyHeader(std::string_view request, std::string_view action) {
  std::string header = "<s:Header><a:Action>" + std::string(action) + "</a:Action>";
  const auto id = ElementText(request, "MessageID");
  // The text is still escaped: it cannot contain a tag.
  if (id && id->size() <= kMaxMessageId) header += "<a:RelatesTo>" + *id + "</a:RelatesTo>";
  return header + "</s:Header>";
}

HttpResponse AnswerIdentify(std::string_view version) {
  return Soap(200, Format("%s xmlns:i=\"%s\"><s:Header/><s:Body><i:IdentifyResponse>"
                          "<i:ProtocolVersion>http://schemas.dmtf.org/wbem/wsman/1/wsman.xsd"
                          "</i:ProtocolVersion><i:ProductVendor>Corvane</i:ProductVendor>"
                          "<i:ProductVersion>%s</i:ProductVersion></i:IdentifyResponse>%s",
                          kEnvelopeStart, kIdentity, XmlText(version).c_str(), kEnvelopeEnd));
}

HttpResponse AnswerPower(std::string_view envelope) {
  const auto text = ElementText(envelope, "PowerState");
  const auto state = text ? ParseNumber(Trimmed(*text), UINT16_MAX) : std::nullopt;
  const auto command =
      state ? CommandForPowerState(static_cast<std::uint32_t>(*state)) : std::nullopt;
  const std::string action = std::string(kPowerService) + kPowerMethod + "Response";
  HttpResponse response = Soap(
      200, Format("%s xmlns:a=\"%s\" xmlns:p=\"%s\">%s<s:Body>"
                  "<p:RequestPowerStateChange_OUTPUT><p:ReturnValue>%d</p:ReturnValue>"
                  "</p:RequestPowerStateChange_OUTPUT>%s",
                  kEnvelopeStart, kAddressing, kPowerService, ReplyHeader(envelope, action).c_str(),
                  command ? kPowerDone : kPowerErrorOccurred, kEnvelopeEnd));
  response.command = command;
  return response;
}

// The HTTP binding of SOAP 1.2 assigns status 400 to a fault of the sender.
HttpResponse AnswerNotSupported(std::string_view envelope) {
  const std::string action = std::string(kAddressing) + "/fault";
  return Soap(
      400,
      Format("%s xmlns:a=\"%s\">%s<s:Body><s:Fault><s:Code><s:Value>s:Sender</s:Value>"
             "<s:Subcode><s:Value>a:ActionNotSupported</s:Value></s:Subcode></s:Code>"
             "<s:Reason><s:Text xml:lang=\"en\">This firmware has no such action.</s:Text>"
             "</s:Reason></s:Fault>%s",
             kEnvelopeStart, kAddressing, ReplyHeader(envelope, action).c_str(), kEnvelopeEnd));
}

}  // namespace

std::optional<std::string> ElementText(std::string_view xml, std::string_view localName) {
  TagWalk walk(xml);
  Tag tag;
  while (walk.Next(&tag)) {
    if (!tag.opens || tag.localName != localName) continue;
    if (tag.isEmpty) return std::string();
    const auto text = walk.Text();
    if (!text) return std::nullopt;
    const std::string found(*text);
    const bool ends = walk.Next(&tag) && !tag.opens && tag.localName == localName;
    return ends ? std::optional(found) : std::nullopt;
  }
  return std::nullopt;
}

bool HasElement(std::string_view xml, std::string_view localName) {
  TagWalk walk(xml);
  Tag tag;
  while (walk.Next(&tag)) {
    if (tag.opens && tag.localName == localName) return true;
  }
  return false;
}

std::optional<std::uint8_t> CommandForPowerState(std::uint32_t powerState) {
  for (const PowerMapping& mapping : kPowerMappings) {
    if (mapping.powerState == powerState) return mapping.command;
  }
  return std::nullopt;
}

HttpResponse AnswerWsman(std::string_view envelope, std::string_view version) {
  const bool identity = envelope.substr(0, kSearchBound).find(kIdentity) != std::string_view::npos;
  if (identity && HasElement(envelope, "Identify")) return AnswerIdentify(version);
  const auto action = ElementText(envelope, "Action");
  const std::string powerAction = std::string(kPowerService) + kPowerMethod;
  if (action && Trimmed(*action) == powerAction) return AnswerPower(envelope);
  return AnswerNotSupported(envelope);
}

}  // namespace orrin
