// COM and WMI: a thread must have opened COM before it makes a locator, as on Windows, and three
// classes are answered. Failures that a test injects come out as HRESULTs: a Windows error in the
// form 0x8007xxxx, a value that is an HRESULT already as it is.
#include "platform/wmi.h"

#include <sys/utsname.h>

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/linux/gate.h"
#include "platform/linux/interfaces.h"
#include "platform/linux/lab_folder.h"
#include "platform/linux/utf16.h"

namespace platform {

namespace {

constexpr HResult kOk = 0;
constexpr HResult kFalse = 1;  // S_FALSE; WBEM_S_FALSE

constexpr HResult Code(std::uint32_t value) { return static_cast<HResult>(value); }
constexpr HResult kPointer = Code(0x80004003);           // E_POINTER
constexpr HResult kNotInitialized = Code(0x800401F0);    // CO_E_NOTINITIALIZED
constexpr HResult kNotFound = Code(0x80041002);          // WBEM_E_NOT_FOUND
constexpr HResult kInvalidNamespace = Code(0x8004100E);  // WBEM_E_INVALID_NAMESPACE
constexpr HResult kInvalidClass = Code(0x80041010);      // WBEM_E_INVALID_CLASS
constexpr HResult kInvalidQuery = Code(0x80041017);      // WBEM_E_INVALID_QUERY

// How often this thread has opened COM and not yet ended it.
thread_local std::uint32_t tComDepth = 0;

template <class... Args>
HResult Pass(const char* call, Args... args) {
  const std::uint32_t error = gate::Enter(call, args...);
  if (error == 0 || Failed(Code(error))) return Code(error);
  return Code(0x80070000 | (error & 0xFFFF));  // HRESULT_FROM_WIN32
}

// What a handle points to.
struct Unknown {
  virtual ~Unknown() = default;
};

struct Property {
  std::u16string name;
  WbemValue value;
};
using Row = std::vector<Property>;

struct Enumerator final : Unknown {
  std::vector<Row> rows;
  std::size_t next = 0;
};
struct Object final : Unknown {
  Row row;
};

RawHandle Hand(std::unique_ptr<Unknown> object) { return object.release(); }

template <class Kind>
Kind& Behind(RawHandle raw) {
  return static_cast<Kind&>(*static_cast<Unknown*>(raw));
}

Property Text(const char16_t* name, std::string_view text) {
  WbemValue value;
  value.kind = WbemValue::kText;
  value.text = Utf8ToUtf16(text);
  return {name, std::move(value)};
}

Property Number(const char16_t* name, std::uint32_t number) {
  WbemValue value;
  value.kind = WbemValue::kNumber;
  value.number = number;
  return {name, std::move(value)};
}

constexpr std::uint32_t kOsTypeLinux = 36;  // CIM_OperatingSystem.OSType

// PRETTY_NAME of os-release, whose values may stand in quotes.
std::string PrettyName() {
  constexpr std::string_view kKey = "PRETTY_NAME=";
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      if (line.compare(0, kKey.size(), kKey) != 0) continue;
      std::string name = line.substr(kKey.size());
      if (name.size() >= 2 && (name.front() == '"' || name.front() == '\'') &&
          name.back() == name.front())
        name = name.substr(1, name.size() - 2);
      return name;
    }
  }
  return "Linux";
}

std::vector<Row> OperatingSystem() {
  utsname system{};
  ::uname(&system);
  const bool wide = std::string_view(system.machine).find("64") != std::string_view::npos;
  return {{Text(u"Caption", PrettyName()), Number(u"OSType", kOsTypeLinux),
           Text(u"OSArchitecture", wide ? "64-bit" : "32-bit"), Text(u"Version", system.release)}};
}

constexpr std::uint32_t kStatusEnabled = 3;      // CIM_LogicalDevice.StatusInfo
constexpr std::uint32_t kNetConnected = 2;       // NetConnectionStatus
constexpr std::uint32_t kMediaDisconnected = 7;  // NetConnectionStatus

std::string HardwareAddressText(const std::vector<std::uint8_t>& address) {
  std::string text;
  for (const std::uint8_t byte : address) {
    char part[4];
    std::snprintf(part, sizeof part, text.empty() ? "%02X" : ":%02X", byte);
    text += part;
  }
  return text;
}

std::vector<Row> NetworkAdapters() {
  std::vector<Row> rows;
  for (const Interface& interface : ListInterfaces()) {
    if (interface.loopback) continue;
    Row row = {Text(u"Name", interface.name), Text(u"DeviceID", std::to_string(interface.index)),
               Number(u"StatusInfo", kStatusEnabled),
               Number(u"NetConnectionStatus", interface.up ? kNetConnected : kMediaDisconnected)};
    if (interface.hardwareAddress.empty()) {
      row.push_back({u"MACAddress", {}});
    } else {
      row.push_back(Text(u"MACAddress", HardwareAddressText(interface.hardwareAddress)));
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

// The numbers in the lab's `chassis.txt`, or the one that the machine's firmware gives.
std::vector<std::uint32_t> ChassisTypes() {
  std::ifstream file(LabPath("chassis.txt"));
  if (!file) file = std::ifstream("/sys/class/dmi/id/chassis_type");
  std::vector<std::uint32_t> types;
  for (std::uint32_t type; file >> type;) types.push_back(type);
  return types;
}

std::vector<Row> SystemEnclosure() {
  WbemValue types;  // stays null on a machine whose firmware says nothing
  types.numbers = ChassisTypes();
  if (!types.numbers.empty()) types.kind = WbemValue::kNumbers;
  return {{{u"ChassisTypes", types}}};
}

struct WmiClass {
  std::u16string_view name;
  std::vector<Row> (*rows)();
};
constexpr WmiClass kClasses[] = {
    {u"Win32_OperatingSystem", OperatingSystem},
    {u"Win32_NetworkAdapter", NetworkAdapters},
    {u"Win32_SystemEnclosure", SystemEnclosure},
};

HResult RowsOf(std::u16string_view query, std::vector<Row>* rows) {
  constexpr std::u16string_view kSelect = u"SELECT * FROM ";
  if (query.substr(0, kSelect.size()) != kSelect) return kInvalidQuery;
  for (const WmiClass& known : kClasses) {
    if (known.name != query.substr(kSelect.size())) continue;
    *rows = known.rows();
    return kOk;
  }
  return kInvalidClass;
}

}  // namespace

void ReleaseUnknown(RawHandle raw) {
  gate::Note("Release");
  std::unique_ptr<Unknown>(static_cast<Unknown*>(raw)).reset();
}

HResult CoInitializeEx() {
  if (const HResult failure = Pass("CoInitializeEx")) return failure;
  return tComDepth++ == 0 ? kOk : kFalse;
}

HResult CoInitializeSecurity() {
  if (const HResult failure = Pass("CoInitializeSecurity")) return failure;
  return tComDepth > 0 ? kOk : kNotInitialized;
}

void CoUninitialize() {
  gate::Note("CoUninitialize");
  if (tComDepth > 0) --tComDepth;
}

HResult CreateWbemLocator(WbemLocator* locator) {
  if (const HResult failure = Pass("CoCreateInstance")) return failure;
  if (tComDepth == 0) return kNotInitialized;
  locator->Reset(Hand(std::make_unique<Unknown>()));
  return kOk;
}

HResult ConnectServer(const WbemLocator& locator, const char16_t* wmiNamespace,
                      WbemServices* services) {
  const std::string place = Utf16ToUtf8(wmiNamespace);
  if (const HResult failure = Pass("ConnectServer", "%s", place.c_str())) return failure;
  if (!locator) return kPointer;
  if (place != "ROOT\\CIMV2") return kInvalidNamespace;
  services->Reset(Hand(std::make_unique<Unknown>()));
  return kOk;
}

HResult CoSetProxyBlanket(const WbemServices& services) {
  if (const HResult failure = Pass("CoSetProxyBlanket")) return failure;
  return services ? kOk : kPointer;
}

HResult ExecQuery(const WbemServices& services, const char16_t* query, WbemEnumerator* rows) {
  if (const HResult failure = Pass("ExecQuery", "%s", Utf16ToUtf8(query).c_str())) return failure;
  if (!services) return kPointer;
  auto found = std::make_unique<Enumerator>();
  if (const HResult failure = RowsOf(query, &found->rows)) return failure;
  rows->Reset(Hand(std::move(found)));
  return kOk;
}

HResult NextObject(const WbemEnumerator& rows, WbemObject* row) {
  row->Reset();
  if (const HResult failure = Pass("Next")) return failure;
  if (!rows) return kPointer;
  auto& state = Behind<Enumerator>(rows.Raw());
  if (state.next >= state.rows.size()) return kFalse;
  auto object = std::make_unique<Object>();
  object->row = state.rows[state.next++];
  row->Reset(Hand(std::move(object)));
  return kOk;
}

HResult GetProperty(const WbemObject& row, const char16_t* name, WbemValue* value) {
  *value = {};
  if (const HResult failure = Pass("Get", "%s", Utf16ToUtf8(name).c_str())) return failure;
  if (!row) return kPointer;
  for (const Property& property : Behind<Object>(row.Raw()).row) {
    if (property.name != name) continue;
    *value = property.value;
    return kOk;
  }
  return kNotFound;
}

}  // namespace platform
