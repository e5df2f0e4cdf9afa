#include "lab/firmware/wsman/envelope.h"

#include <openssl/rand.h>

#include <algorithm>
#include <iterator>
#include <set>

#include "cim/value/datetime.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/model/objects.h"
#include "lab/firmware/wsman/names.h"

namespace orrin {

namespace {

constexpr std::size_t kMaxMessageId = 256;
constexpr std::size_t kMaxUri = 2048;

std::string ShortText(const xmlNode* header, std::size_t bound) {
  std::string text = TextOf(header);
  if (text.empty() || text.size() > bound)
    throw Fault{FaultCode::kInvalidHeader, "", NameOf(header) + " is empty or too long."};
  return text;
}

void ReadAction(const xmlNode* header, Envelope* envelope) {
  envelope->action = ShortText(header, kMaxUri);
}
void ReadMessageId(const xmlNode* header, Envelope* envelope) {
  envelope->messageId = ShortText(header, kMaxMessageId);
}
void ReadResourceUri(const xmlNode* header, Envelope* envelope) {
  envelope->resourceUri = ShortText(header, kMaxUri);
}
void ReadSelectors(const xmlNode* header, Envelope* envelope) {
  envelope->selectors = SelectorsIn(header);
}
void ReadSubscription(const xmlNode* header, Envelope* envelope) {
  envelope->subscription = ShortText(header, kMaxMessageId);
}

void ReadMaxEnvelopeSize(const xmlNode* header, Envelope* envelope) {
  const auto size = ParseNumber(TextOf(header), UINT32_MAX);
  if (!size) throw Fault{FaultCode::kInvalidHeader, "", "MaxEnvelopeSize is no number."};
  if (*size < kLeastOfAnAnswer)
    throw Fault{FaultCode::kEncodingLimit, "MinimumEnvelopeLimit", "8192 bytes are the least."};
  envelope->mostBytes = std::min<std::size_t>(kMostOfAnAnswer, static_cast<std::size_t>(*size));
}

// Every answer is made at once, so any time is enough.
void CheckOperationTimeout(const xmlNode* header, Envelope*) {
  stewardry::cim::CimDatetime time;
  std::uint64_t ignored = 0;
  if (stewardry::cim::Datetime_ParseSchema(Utf16(TextOf(header)).c_str(), &time) != 0 ||
      stewardry::cim::Datetime_IntervalToMicroseconds(&time, &ignored) != 0)
    throw Fault{FaultCode::kInvalidHeader, "", "OperationTimeout is no duration."};
}

// An answer goes back over the connection that the request came on.
void CheckReplyTo(const xmlNode* header, Envelope*) {
  if (TextOf(Child(header, uri::kAddressing, "Address")) != uri::kAnonymous)
    throw Fault{FaultCode::kUnsupportedFeature, "AddressingMode",
                "Only the anonymous ReplyTo is offered."};
}

void Ignore(const xmlNode*, Envelope*) {}

void RefuseFragments(const xmlNode*, Envelope*) {
  throw Fault{FaultCode::kUnsupportedFeature, "FragmentLevelAccess"};
}

struct HeaderRow {
  const char* nameSpace;
  const char* name;
  void (*read)(const xmlNode* header, Envelope* envelope);
};
constexpr HeaderRow kHeaders[] = {
    {uri::kAddressing, "Action", ReadAction},
    {uri::kAddressing, "MessageID", ReadMessageId},
    {uri::kAddressing, "To", Ignore},  // the firmware has one place, which the request has reached
    {uri::kAddressing, "ReplyTo", CheckReplyTo},
    {uri::kAddressing, "FaultTo", CheckReplyTo},
    {uri::kAddressing, "From", Ignore},
    {uri::kAddressing, "RelatesTo", Ignore},
    {uri::kWsman, "ResourceURI", ReadResourceUri},
    {uri::kWsman, "SelectorSet", ReadSelectors},
    {uri::kWsman, "MaxEnvelopeSize", ReadMaxEnvelopeSize},
    {uri::kWsman, "OperationTimeout", CheckOperationTimeout},
    {uri::kWsman, "FragmentTransfer", RefuseFragments},
    {uri::kEventing, "Identifier", ReadSubscription},
};

bool MustBeUnderstood(const xmlNode* header) {
  const auto value = Attribute(header, uri::kSoap, "mustUnderstand");
  return value && (*value == "true" || *value == "1");
}

void ReadHeaders(const xmlNode* headers, Envelope* envelope) {
  std::set<std::string> seen;
  for (const xmlNode* header : Children(headers)) {
    const auto row = std::find_if(std::begin(kHeaders), std::end(kHeaders), [&](const auto& known) {
      return Is(header, known.nameSpace, known.name);
    });
    if (row == std::end(kHeaders)) {
      if (MustBeUnderstood(header))
        throw Fault{FaultCode::kNotUnderstood, "", NameOf(header) + " is not understood."};
      continue;
    }
    if (!seen.insert(row->name).second)
      throw Fault{FaultCode::kInvalidHeader, "", NameOf(header) + " stands twice."};
    row->read(header, envelope);
  }
}

void Require(const std::string& value, const char* header) {
  if (value.empty())
    throw Fault{FaultCode::kHeaderRequired, "", std::string(header) + " is missing."};
}

std::string Headers(const Envelope& request, std::string_view action) {
  XmlWriter writer;
  writer.Begin("s:Header").Element("wsa:To", uri::kAnonymous).Element("wsa:Action", action);
  writer.Element("wsa:MessageID", NewMessageId());
  if (!request.messageId.empty()) writer.Element("wsa:RelatesTo", request.messageId);
  return writer.End().Written();
}

}  // namespace

std::vector<Selector> SelectorsIn(const xmlNode* set) {
  std::vector<Selector> selectors;
  std::set<std::string> names;
  for (const xmlNode* element : Children(set)) {
    const auto name = Attribute(element, nullptr, "Name");
    if (!Is(element, uri::kWsman, "Selector") || !name || name->empty())
      throw Fault{FaultCode::kInvalidSelectors, "InsufficientSelectors", "A selector has no name."};
    if (!names.insert(LowerCase(*name)).second)
      throw Fault{FaultCode::kInvalidSelectors, "DuplicateSelectors",
                  "Selector " + *name + " stands twice."};
    selectors.push_back({*name, element});
  }
  return selectors;
}

void ReadEnvelope(std::string_view bytes, Envelope* envelope) {
  if (bytes.size() > kMostOfARequest)
    throw Fault{FaultCode::kEncodingLimit, "ServiceEnvelopeLimit",
                Format("A request has at most %zu bytes.", kMostOfARequest)};
  std::string problem;
  envelope->document = ParseDocument(bytes, &problem);
  const xmlNode* const root =
      envelope->document == nullptr ? nullptr : xmlDocGetRootElement(envelope->document.get());
  if (root == nullptr) throw Fault{FaultCode::kSchemaValidation, "", "Not XML: " + problem};
  const xmlNode* const body = Child(root, uri::kSoap, "Body");
  if (!Is(root, uri::kSoap, "Envelope") || body == nullptr)
    throw Fault{FaultCode::kSchemaValidation, "", "No SOAP 1.2 envelope with a body."};
  envelope->body = FirstChild(body);
  envelope->isIdentify = Is(envelope->body, uri::kIdentity, "Identify");
  ReadHeaders(Child(root, uri::kSoap, "Header"), envelope);
  if (envelope->isIdentify) return;
  Require(envelope->action, "Action");
  Require(envelope->messageId, "MessageID");
  Require(envelope->resourceUri, "ResourceURI");
}

std::string NewMessageId() {
  std::uint8_t bytes[16] = {};
  (void)RAND_bytes(bytes, sizeof bytes);  // a failure makes an id that is not unique
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // RFC 9562: version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  std::string text = "uuid:";
  for (std::size_t i = 0; i < sizeof bytes; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += Format("%02x", bytes[i]);
  }
  return text;
}

std::string AnswerEnvelope(const Envelope& request, std::string_view action,
                           std::string_view body) {
  XmlWriter writer;
  writer.Begin("s:Envelope")
      .With("xmlns:s", uri::kSoap)
      .With("xmlns:wsa", uri::kAddressing)
      .With("xmlns:wsman", uri::kWsman)
      .With("xmlns:wsen", uri::kEnumeration)
      .With("xmlns:wse", uri::kEventing)
      .With("xmlns:cim", uri::kCimCommon)
      .With("xmlns:xsi", uri::kXmlSchemaInstance);
  if (request.isIdentify) {
    writer.Begin("s:Header").End();
  } else {
    writer.Raw(Headers(request, action));
  }
  writer.Begin("s:Body").Raw(body).End().End();
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + writer.Written() + "\n";
}

std::string FaultEnvelope(const Envelope& request, const Fault& fault) {
  const FaultKind& kind = KindOf(fault.code);
  XmlWriter writer;
  writer.Begin("s:Fault").Begin("s:Code").Element("s:Value", kind.soapCode);
  if (kind.subcode != nullptr) writer.Begin("s:Subcode").Element("s:Value", kind.subcode).End();
  writer.End().Begin("s:Reason").Begin("s:Text").With("xml:lang", "en");
  writer.Text(fault.words.empty() ? kind.reason : fault.words).End().End();
  if (!fault.detail.empty())
    writer.Begin("s:Detail").Element("wsman:FaultDetail", uri::kFaultDetail + fault.detail).End();
  return AnswerEnvelope(request, kind.action, writer.End().Written());
}

}  // namespace orrin
