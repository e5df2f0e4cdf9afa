// Names and URIs of WS-Management (DSP0226), its CIM binding (DSP0227) and mapping (DSP0230), and
// of the standards that they build on.
#pragma once

namespace orrin::uri {

inline constexpr char kSoap[] = "http://www.w3.org/2003/05/soap-envelope";
inline constexpr char kAddressing[] = "http://schemas.xmlsoap.org/ws/2004/08/addressing";
inline constexpr char kAnonymous[] =
    "http://schemas.xmlsoap.org/ws/2004/08/addressing/role/anonymous";
inline constexpr char kTransfer[] = "http://schemas.xmlsoap.org/ws/2004/09/transfer";
inline constexpr char kEnumeration[] = "http://schemas.xmlsoap.org/ws/2004/09/enumeration";
inline constexpr char kEventing[] = "http://schemas.xmlsoap.org/ws/2004/08/eventing";
inline constexpr char kPush[] = "http://schemas.xmlsoap.org/ws/2004/08/eventing/DeliveryModes/Push";
inline constexpr char kWsman[] = "http://schemas.dmtf.org/wbem/wsman/1/wsman.xsd";
inline constexpr char kFaultDetail[] = "http://schemas.dmtf.org/wbem/wsman/1/wsman/faultDetail/";
inline constexpr char kSelectorFilter[] =
    "http://schemas.dmtf.org/wbem/wsman/1/wsman/SelectorFilter";
inline constexpr char kCimBinding[] = "http://schemas.dmtf.org/wbem/wsman/1/cimbinding.xsd";
inline constexpr char kIdentity[] =
    "http://schemas.dmtf.org/wbem/wsman/identity/1/wsmanidentity.xsd";
inline constexpr char kCimCommon[] = "http://schemas.dmtf.org/wbem/wscim/1/common";
inline constexpr char kXmlSchemaInstance[] = "http://www.w3.org/2001/XMLSchema-instance";
// A class' URI is this and its name.
inline constexpr char kCimSchema[] = "http://schemas.dmtf.org/wbem/wscim/1/cim-schema/2/";
// All classes at once.
inline constexpr char kAllClasses[] = "http://schemas.dmtf.org/wbem/wscim/1/*";
// The operations on classes that Debian's wsl and other clients use; no standard of DMTF has them.
inline constexpr char kIntrinsic[] = "http://schemas.openwsman.org/wbem/wscim/1/intrinsic";

}  // namespace orrin::uri
