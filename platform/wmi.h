// COM and WMI. Results are HRESULTs: negative is a failure, which leaves an output empty. On Linux
// the classes Win32_OperatingSystem, Win32_NetworkAdapter, Win32_SystemEnclosure and Win32_Battery
// come from os-release, uname, sysfs and DMI.
#pragma once

#include <cassert>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

using HResult = std::int32_t;
inline bool Failed(HResult result) { return result < 0; }
// Returns HRESULT_FROM_WIN32 of an error other than 0.
constexpr HResult HResultFromWin32(std::uint32_t error) {
  assert(error != 0);
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

// Opens COM for the calling thread, multithreaded. CoUninitialize ends it.
HResult CoInitializeEx();
// Sets the security of the process: default authentication level, RPC_C_IMP_LEVEL_IMPERSONATE.
// Returns kTooLate if it is set already; it lasts as long as any thread has COM open.
HResult CoInitializeSecurity();
void CoUninitialize();
// Keeps the multithreaded apartment until the process exits, so that the libraries of an access
// stay loaded when its thread ends COM.
HResult CoIncrementMTAUsage();

// Creates the WMI locator.
HResult CreateWbemLocator(WbemLocator* locator);
// Connects to a local namespace as the calling user.
HResult ConnectServer(const WbemLocator& locator, const char16_t* wmiNamespace,
                      WbemServices* services);
// Sets the authentication of a connection: RPC_C_AUTHN_WINNT per call, impersonation.
HResult CoSetProxyBlanket(const WbemServices& services);
// Starts a WQL query, forward-only.
HResult ExecQuery(const WbemServices& services, const char16_t* query, WbemEnumerator* rows);
// Blocks until the next row is there and stores it. Returns WBEM_S_FALSE at the end.
HResult NextObject(const WbemEnumerator& rows, WbemObject* row);

// A VARIANT in the shapes that the service reads. kNull is null or any other type.
struct WbemValue {
  enum Kind { kNull, kText, kNumber, kNumbers };
  Kind kind = kNull;
  std::u16string text;                 // VT_BSTR, SysStringLen units
  std::uint32_t number = 0;            // VT_I4 and the smaller integers, low bits
  std::vector<std::uint32_t> numbers;  // VT_ARRAY | VT_I4
};
// Stores a property of a row; kNull on failure.
HResult GetProperty(const WbemObject& row, const char16_t* name, WbemValue* value);

constexpr std::uint16_t kVtNull = 1;        // VT_NULL
constexpr std::uint16_t kVtI4 = 3;          // VT_I4
constexpr std::uint16_t kVtBstr = 8;        // VT_BSTR
constexpr std::uint16_t kVtArray = 0x2000;  // VT_ARRAY

// A VARIANT in its own layout, for records that carry it. A value behind an address (a text, an
// array) has its type and zeroes, because the address must not leave the process.
struct RawVariant {
  std::uint16_t type;  // VARTYPE: 0 (VT_EMPTY), kVtNull, kVtI4, ...
  std::uint16_t reserved[3];
  std::uint64_t value;
  std::uint64_t second;  // used by records only
};
static_assert(sizeof(RawVariant) == 24);
// Stores a property of a row; zeroes on failure.
HResult GetRawProperty(const WbemObject& row, const char16_t* name, RawVariant* value);

// Adds a reference to an object and returns its owner. The caller keeps its own reference.
WbemObject ShareObject(RawHandle object);

// Unknwn.h, Wbemcli.h.
inline constexpr Guid kIidUnknown = {0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr Guid kIidWbemObjectSink = {
    0x7C857801, 0x7381, 0x11CF, {0x88, 0x4D, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24}};

constexpr std::int32_t kWbemStatusComplete = 0;  // WBEM_STATUS_COMPLETE
constexpr std::int32_t kWbemStatusProgress = 2;  // WBEM_STATUS_PROGRESS

// IWbemObjectSink, which receives the rows of an asynchronous query on threads of WMI. WMI calls it
// through its virtual table: order and arguments must not change, and there is no virtual
// destructor.
class ObjectSink {
 public:
  // Stores another reference for IUnknown and IWbemObjectSink; returns kNoInterface and stores null
  // for any other interface.
  virtual HResult QueryInterface(const Guid& interfaceId, void** object) = 0;
  // Return the new count. The last Release deletes the object.
  virtual std::uint32_t AddRef() = 0;
  virtual std::uint32_t Release() = 0;
  // Receives `count` rows, which WMI keeps.
  virtual HResult Indicate(std::int32_t count, RawHandle* rows) = 0;
  // Receives the query's progress; kWbemStatusComplete is the last call and has its result. `text`
  // (a BSTR) and `object` may be null, and WMI keeps them.
  virtual HResult SetStatus(std::int32_t flags, HResult result, char16_t* text,
                            RawHandle object) = 0;

 protected:
  ~ObjectSink() = default;
};

// Starts an asynchronous WQL query with status reports. WMI may call the sink before this returns,
// and holds a reference to it until the last call.
HResult ExecQueryAsync(const WbemServices& services, const char16_t* query, ObjectSink* sink);

}  // namespace platform
