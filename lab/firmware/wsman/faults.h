// The faults of SOAP 1.2, WS-Addressing, WS-Enumeration, WS-Eventing and WS-Management (DSP0226,
// clause 14) that the firmware answers with.
#pragma once

#include <string>

namespace orrin {

enum class FaultCode {
  kActionNotSupported,
  kDestinationUnreachable,
  kHeaderRequired,
  kInvalidHeader,
  kNotUnderstood,
  kAccessDenied,
  kEncodingLimit,
  kInternalError,
  kInvalidParameter,
  kInvalidSelectors,
  kQuotaLimit,
  kSchemaValidation,
  kUnsupportedFeature,
  kCannotProcessFilter,
  kFilterDialectUnavailable,
  kInvalidContext,
  kEventDeliverToUnusable,
  kInvalidExpiration,
  kUnsupportedExpirationType,
  kDeliveryModeUnavailable,
  kFilteringUnsupported,
  kInvalidMessage,
  kUnableToRenew,
};

// A request that cannot be carried out. Thrown by the handlers of requests, and caught in one
// place, which makes the answer of it.
struct Fault {
  FaultCode code;
  std::string detail = {};  // the last part of a fault detail's URI, or empty
  std::string words = {};   // for people, or empty for the standard's sentence
};

// One row of the table of faults.
struct FaultKind {
  const char* soapCode;  // "s:Sender" or "s:Receiver"
  const char* subcode;   // with its prefix, or null
  const char* action;    // of the answer
  const char* reason;
  int httpStatus;
};
const FaultKind& KindOf(FaultCode code);

}  // namespace orrin
