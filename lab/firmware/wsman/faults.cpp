#include "lab/firmware/wsman/faults.h"

#include <array>

namespace orrin {

namespace {

constexpr char kAddressingFault[] = "http://schemas.xmlsoap.org/ws/2004/08/addressing/fault";
constexpr char kWsmanFault[] = "http://schemas.dmtf.org/wbem/wsman/1/wsman/fault";
constexpr char kEnumerationFault[] = "http://schemas.xmlsoap.org/ws/2004/09/enumeration/fault";
constexpr char kEventingFault[] = "http://schemas.xmlsoap.org/ws/2004/08/eventing/fault";
constexpr char kSender[] = "s:Sender", kReceiver[] = "s:Receiver";

// In the order of FaultCode. The reasons are ours; the standards leave them open.
constexpr std::array kKinds = {
    FaultKind{kSender, "wsa:ActionNotSupported", kAddressingFault,
              "The resource has no such action.", 400},
    FaultKind{kSender, "wsa:DestinationUnreachable", kAddressingFault,
              "No resource has this URI and these selectors.", 400},
    FaultKind{kSender, "wsa:MessageInformationHeaderRequired", kAddressingFault,
              "A required header is missing.", 400},
    FaultKind{kSender, "wsa:InvalidMessageInformationHeader", kAddressingFault,
              "A header is not valid.", 400},
    FaultKind{"s:MustUnderstand", nullptr, kWsmanFault,
              "A header that must be understood is not understood.", 500},
    FaultKind{kSender, "wsman:AccessDenied", kWsmanFault, "The user may only read.", 403},
    FaultKind{kSender, "wsman:EncodingLimit", kWsmanFault, "A limit of the envelope is exceeded.",
              400},
    FaultKind{kReceiver, "wsman:InternalError", kWsmanFault, "The firmware failed.", 500},
    FaultKind{kSender, "wsman:InvalidParameter", kWsmanFault,
              "A parameter or a property is not valid.", 400},
    FaultKind{kSender, "wsman:InvalidSelectors", kWsmanFault, "The selectors are not valid.", 400},
    FaultKind{kSender, "wsman:QuotaLimit", kWsmanFault,
              "The firmware has as many of these as it can have.", 500},
    FaultKind{kSender, "wsman:SchemaValidationError", kWsmanFault,
              "The envelope does not have the form of a request.", 400},
    FaultKind{kSender, "wsman:UnsupportedFeature", kWsmanFault, "The firmware does not offer this.",
              400},
    FaultKind{kSender, "wsen:CannotProcessFilter", kEnumerationFault, "The filter is not valid.",
              400},
    FaultKind{kSender, "wsen:FilterDialectRequestedUnavailable", kEnumerationFault,
              "The firmware has no filter of this dialect.", 400},
    FaultKind{kReceiver, "wsen:InvalidEnumerationContext", kEnumerationFault,
              "The enumeration context is unknown or has expired.", 500},
    FaultKind{kSender, "wsman:EventDeliverToUnusable", kWsmanFault,
              "Events cannot be delivered to this address.", 400},
    FaultKind{kSender, "wse:InvalidExpirationTime", kEventingFault,
              "The expiration time is not valid.", 400},
    FaultKind{kSender, "wse:UnsupportedExpirationType", kEventingFault,
              "Only durations are offered as expiration times.", 400},
    FaultKind{kSender, "wse:DeliveryModeRequestedUnavailable", kEventingFault,
              "Only push delivery is offered.", 400},
    FaultKind{kSender, "wse:FilteringNotSupported", kEventingFault,
              "The events of a class or a filter collection cannot be filtered further.", 400},
    FaultKind{kSender, "wse:InvalidMessage", kEventingFault, "The subscription is unknown.", 400},
    FaultKind{kReceiver, "wse:UnableToRenew", kEventingFault,
              "The subscription is unknown or has ended.", 500},
};
static_assert(kKinds.size() == static_cast<std::size_t>(FaultCode::kUnableToRenew) + 1);

}  // namespace

const FaultKind& KindOf(FaultCode code) { return kKinds[static_cast<std::size_t>(code)]; }

}  // namespace orrin
