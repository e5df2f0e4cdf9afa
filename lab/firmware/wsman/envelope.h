// SOAP envelopes of WS-Management requests and answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/firmware/wsman/faults.h"
#include "lab/firmware/wsman/xml.h"

namespace orrin {

// The longest request. DSP0226 requires at least 32 KiB; an answer has the size that the request
// asks for, at most this.
inline constexpr std::size_t kMostOfARequest = 512 << 10;
inline constexpr std::size_t kMostOfAnAnswer = 512 << 10;
inline constexpr std::size_t kLeastOfAnAnswer = 8 << 10;  // a smaller request is a fault

// One selector: a text, or an endpoint reference.
struct Selector {
  std::string name;
  const xmlNode* value;
};

// A request, taken apart. Nodes are the document's.
struct Envelope {
  Document document;
  bool isIdentify = false;  // has no headers
  std::string action, messageId, resourceUri;
  std::string subscription;  // the identifier of the one that the request is for, or empty
  std::vector<Selector> selectors;
  std::size_t mostBytes = kMostOfAnAnswer;  // of the answer
  const xmlNode* body = nullptr;            // the first element in the body, or null
};

// Reads the selectors of a SelectorSet, which may be null. Throws Fault for one without a name and
// for two of one name.
std::vector<Selector> SelectorsIn(const xmlNode* set);

// Takes an envelope apart. Throws Fault for what is no valid request. *envelope has what was read
// so far then, for the answer's headers.
void ReadEnvelope(std::string_view bytes, Envelope* envelope);

// Returns an answer's envelope. `body` is the content of its body.
std::string AnswerEnvelope(const Envelope& request, std::string_view action, std::string_view body);
// Returns the envelope that reports a fault.
std::string FaultEnvelope(const Envelope& request, const Fault& fault);
// Returns a new "uuid:..." text.
std::string NewMessageId();

}  // namespace orrin
