// COM and WMI, one call each. HRESULTs are Windows': negative means failure. On Linux the classes
// Win32_OperatingSystem, Win32_NetworkAdapter and Win32_SystemEnclosure are answered from
// os-release, uname, sysfs and DMI.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/handle.h"

namespace platform {

using HResult = std::int32_t;
inline bool Failed(HResult result) { return result < 0; }

void ReleaseUnknown(RawHandle raw);
using WbemLocator = Owned<struct WbemLocatorTag, ReleaseUnknown>;
using WbemServices = Owned<struct WbemServicesTag, ReleaseUnknown>;
using WbemEnumerator = Owned<struct WbemEnumeratorTag, ReleaseUnknown>;
using WbemObject = Owned<struct WbemObjectTag, ReleaseUnknown>;

HResult CoInitializeEx();  // COINIT_MULTITHREADED
// Default authentication level, RPC_C_IMP_LEVEL_IMPERSONATE, EOAC_NONE.
HResult CoInitializeSecurity();
void CoUninitialize();

// CoCreateInstance of WbemLocator, CLSCTX_INPROC_SERVER, IWbemLocator.
HResult CreateWbemLocator(WbemLocator* locator);
// IWbemLocator::ConnectServer to `wmiNamespace`, all other arguments null or 0.
HResult ConnectServer(const WbemLocator& locator, const char16_t* wmiNamespace,
                      WbemServices* services);
// RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, RPC_C_AUTHN_LEVEL_CALL, impersonate, EOAC_NONE.
HResult CoSetProxyBlanket(const WbemServices& services);
// ExecQuery("WQL", query, WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY).
HResult ExecQuery(const WbemServices& services, const char16_t* query, WbemEnumerator* rows);
// IEnumWbemClassObject::Next(WBEM_INFINITE, 1): 0 and the row, or non-zero (1 at the end) and none.
HResult NextObject(const WbemEnumerator& rows, WbemObject* row);

// A VARIANT in the four shapes that the service reads. A property that is null or whose type is
// none of these is kNull.
struct WbemValue {
  enum Kind { kNull, kText, kNumber, kNumbers };
  Kind kind = kNull;
  std::u16string text;                 // VT_BSTR, SysStringLen units
  std::uint32_t number = 0;            // VT_I4 and the smaller integers, low bits
  std::vector<std::uint32_t> numbers;  // VT_ARRAY | VT_I4
};
// IWbemClassObject::Get(name, 0, &value, 0, 0). On failure *value is kNull.
HResult GetProperty(const WbemObject& row, const char16_t* name, WbemValue* value);

}  // namespace platform
