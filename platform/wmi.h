// COM and WMI, one call each. HRESULTs are Windows': negative means failure. On Linux the classes
// Win32_OperatingSystem, Win32_NetworkAdapter, Win32_SystemEnclosure and Win32_Battery are answered
// from os-release, uname, sysfs and DMI.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

using HResult = std::int32_t;
inline bool Failed(HResult result) { return result < 0; }
// HRESULT_FROM_WIN32 of an error that isn't 0.
constexpr HResult HResultFromWin32(std::uint32_t error) {
  return static_cast<HResult>(0x80070000 | (error & 0xFFFF));
}

constexpr HResult HResultOf(std::uint32_t bits) { return static_cast<HResult>(bits); }
constexpr HResult kNoInterface = HResultOf(0x80004002);           // E_NOINTERFACE
constexpr HResult kPointer = HResultOf(0x80004003);               // E_POINTER
constexpr HResult kTooLate = HResultOf(0x80010119);               // RPC_E_TOO_LATE
constexpr HResult kNotInitialized = HResultOf(0x800401F0);        // CO_E_NOTINITIALIZED
constexpr HResult kWbemNotFound = HResultOf(0x80041002);          // WBEM_E_NOT_FOUND
constexpr HResult kWbemInvalidNamespace = HResultOf(0x8004100E);  // WBEM_E_INVALID_NAMESPACE
constexpr HResult kWbemInvalidClass = HResultOf(0x80041010);      // WBEM_E_INVALID_CLASS
constexpr HResult kWbemInvalidQuery = HResultOf(0x80041017);      // WBEM_E_INVALID_QUERY

void ReleaseUnknown(RawHandle raw);
using WbemLocator = Owned<struct WbemLocatorTag, ReleaseUnknown>;
using WbemServices = Owned<struct WbemServicesTag, ReleaseUnknown>;
using WbemEnumerator = Owned<struct WbemEnumeratorTag, ReleaseUnknown>;
using WbemObject = Owned<struct WbemObjectTag, ReleaseUnknown>;

HResult CoInitializeEx();  // COINIT_MULTITHREADED
// Default authentication level, RPC_C_IMP_LEVEL_IMPERSONATE, EOAC_NONE, for the whole process.
// kTooLate if the process has its values already, which last for as long as any thread has COM
// open.
HResult CoInitializeSecurity();
void CoUninitialize();
// Keeps COM's multithreaded apartment alive for the process's life, so that the libraries which an
// access has loaded stay when it ends COM on its thread. The cookie isn't kept.
HResult CoIncrementMTAUsage();

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

constexpr std::uint16_t kVtNull = 1;        // VT_NULL
constexpr std::uint16_t kVtI4 = 3;          // VT_I4
constexpr std::uint16_t kVtBstr = 8;        // VT_BSTR
constexpr std::uint16_t kVtArray = 0x2000;  // VT_ARRAY

// A VARIANT as it lies in memory, for records that carry it as it is. A value that lies elsewhere
// (a text, an array) keeps its type and has zero for its address, which would mean nothing to a
// reader and tell where this process has its memory.
struct RawVariant {
  std::uint16_t type;  // VARTYPE: 0 (VT_EMPTY), kVtNull, kVtI4, ...
  std::uint16_t reserved[3];
  std::uint64_t value;
  std::uint64_t second;  // used by records only
};
static_assert(sizeof(RawVariant) == 24);
// The same Get. On failure *value is empty, all zero.
HResult GetRawProperty(const WbemObject& row, const char16_t* name, RawVariant* value);

// Another reference to an object that somebody else owns.
WbemObject ShareObject(RawHandle object);

// Unknwn.h, Wbemcli.h.
inline constexpr Guid kIidUnknown = {0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr Guid kIidWbemObjectSink = {
    0x7C857801, 0x7381, 0x11CF, {0x88, 0x4D, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24}};

constexpr std::int32_t kWbemStatusComplete = 0;  // WBEM_STATUS_COMPLETE
constexpr std::int32_t kWbemStatusProgress = 2;  // WBEM_STATUS_PROGRESS

// IWbemObjectSink: takes the rows of an asynchronous query. WMI calls it through its table of
// functions, so their order and their arguments are Windows', and no destructor stands among them.
class ObjectSink {
 public:
  // 0 and another reference for IUnknown and IWbemObjectSink; kNoInterface and null for any other.
  virtual HResult QueryInterface(const Guid& interfaceId, void** object) = 0;
  // Give the new count. The last Release ends the object.
  virtual std::uint32_t AddRef() = 0;
  virtual std::uint32_t Release() = 0;
  // `count` rows, which stay WMI's; called again and again, on threads of WMI's.
  virtual HResult Indicate(std::int32_t count, RawHandle* rows) = 0;
  // kWbemStatusComplete is the last call, with the query's result; `text` (a BSTR) and `object` may
  // be null and stay WMI's.
  virtual HResult SetStatus(std::int32_t flags, HResult result, char16_t* text,
                            RawHandle object) = 0;

 protected:
  ~ObjectSink() = default;
};

// ExecQueryAsync("WQL", query, WBEM_FLAG_SEND_STATUS, null, sink): the sink is called from then on,
// perhaps before this returns; it gets a reference of WMI's own for as long.
HResult ExecQueryAsync(const WbemServices& services, const char16_t* query, ObjectSink* sink);

}  // namespace platform
