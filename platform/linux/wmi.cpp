// COM and WMI: a thread must have opened COM before it creates a locator, as on Windows, and the
// classes of kClasses are answered. A failure that a test injects becomes an HRESULT: a Windows
// error gets the form 0x8007xxxx, a value that is an HRESULT already stays.
#include "platform/wmi.h"

#include <sys/utsname.h>

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/error.h"
#include "platform/linux/hostfacts/batteries.h"
#include "platform/linux/hostfacts/interfaces.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/utf16.h"
#include "platform/thread.h"

namespace platform {

namespace {

constexpr HResult kOk = 0;
constexpr HResult kFalse = 1;  // S_FALSE; WBEM_S_FALSE

// How many times this thread has opened COM and not yet closed it.
thread_local std::uint32_t tComDepth = 0;

// COM in the whole process: how many times it is open, and whether its security has been set since.
struct ProcessCom {
  std::mutex lock;  // guards all below; held for a few instructions
  std::uint32_t depth = 0;
  bool isSecured = false;

  void Open() {
    std::lock_guard guard(lock);
    ++depth;
  }
  void Close() {
    std::lock_guard guard(lock);
    assert(depth > 0);
    if (--depth == 0) isSecured = false;
  }
  HResult Secure() {
    std::lock_guard guard(lock);
    return std::exchange(isSecured, true) ? kTooLate : kOk;
  }
};
ProcessLifetime<ProcessCom> gCom;  // threads use it while the process exits

template <class... Args>
HResult Pass(const char* call, Args... args) {
  const std::uint32_t error = gate::Enter(call, args...);
  if (error == 0 || Failed(HResultOf(error))) return HResultOf(error);
  return HResultFromWin32(error);
}

// What a handle points to. Releasing the last reference deletes it.
struct Unknown {
  virtual ~Unknown() = default;
  // Acquire and release: the thread that deletes it sees every other's use of it.
  std::atomic<std::uint32_t> references{1};
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

RawHandle HandleOf(std::unique_ptr<Unknown> object) { return object.release(); }

template <class Kind>
Kind& ObjectOf(RawHandle raw) {
  assert(raw != nullptr);
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

// Returns PRETTY_NAME of os-release, without the quotes that its values may have.
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

constexpr std::uint32_t kOnLinePower = 2;  // Win32_Battery.Availability: running
constexpr std::uint32_t kOnBattery = 3;    // warning: no line power

// Returns the numbers in the lab's `chassis.txt`, or the one of the machine's firmware.
std::vector<std::uint32_t> ChassisTypes() {
  std::ifstream file(LabPath("chassis.txt"));
  if (!file) file = std::ifstream("/sys/class/dmi/id/chassis_type");
  std::vector<std::uint32_t> types;
  for (std::uint32_t type; file >> type;) types.push_back(type);
  return types;
}

std::vector<Row> SystemEnclosure() {
  WbemValue types;  // stays null on a machine whose firmware has none
  types.numbers = ChassisTypes();
  if (!types.numbers.empty()) types.kind = WbemValue::kNumbers;
  return {{{u"ChassisTypes", types}}};
}

std::vector<Row> Batteries() {
  std::vector<Row> rows;
  for (const BatteryFacts& battery : ListBatteries())
    rows.push_back({Text(u"Name", battery.name),
                    Number(u"Availability", battery.online ? kOnLinePower : kOnBattery),
                    Number(u"BatteryStatus", BatteryStatusOf(battery)),
                    Number(u"Chemistry", ChemistryNumber(battery.chemistry)),
                    Number(u"ExpectedLife", MinutesLeft(battery, battery.fullMilliwattHours)),
                    Number(u"EstimatedRunTime", MinutesLeft(battery, battery.milliwattHours)),
                    Text(u"Status", "OK"), Number(u"StatusInfo", kStatusEnabled),
                    Number(u"TimeToFullCharge", MinutesToFull(battery))});
  return rows;
}

struct WmiClass {
  std::u16string_view name;
  std::vector<Row> (*rows)();
};
constexpr WmiClass kClasses[] = {
    {u"Win32_OperatingSystem", OperatingSystem},
    {u"Win32_NetworkAdapter", NetworkAdapters},
    {u"Win32_SystemEnclosure", SystemEnclosure},
    {u"Win32_Battery", Batteries},
};

HResult RowsOf(std::u16string_view query, std::vector<Row>* rows) {
  constexpr std::u16string_view kSelect = u"SELECT * FROM ";
  if (query.substr(0, kSelect.size()) != kSelect) return kWbemInvalidQuery;
  for (const WmiClass& known : kClasses) {
    if (known.name != query.substr(kSelect.size())) continue;
    *rows = known.rows();
    return kOk;
  }
  return kWbemInvalidClass;
}

// The types of WbemValue's kinds, in their order.
constexpr std::uint16_t kTypeOfKind[] = {kVtNull, kVtBstr, kVtI4, kVtArray | kVtI4};
static_assert(std::size(kTypeOfKind) == WbemValue::kNumbers + 1);

// An asynchronous query under way. It holds a reference to its sink.
struct AsyncQuery {
  explicit AsyncQuery(ObjectSink* to) : sink(to) { sink->AddRef(); }
  AsyncQuery(const AsyncQuery&) = delete;
  AsyncQuery& operator=(const AsyncQuery&) = delete;
  ~AsyncQuery() { sink->Release(); }
  ObjectSink* sink;
  HResult result = kOk;
  std::vector<Row> rows;
};

std::uint32_t Deliver(void* parameter) {
  const std::unique_ptr<AsyncQuery> query(static_cast<AsyncQuery*>(parameter));
  for (Row& row : query->rows) {
    auto object = std::make_unique<Object>();
    object->row = std::move(row);
    const WbemObject owner(HandleOf(std::move(object)));
    RawHandle raw = owner.Raw();
    (void)query->sink->Indicate(1, &raw);  // WMI continues whatever the sink returns
  }
  (void)query->sink->SetStatus(kWbemStatusComplete, query->result, nullptr, nullptr);
  return 0;
}

}  // namespace

void ReleaseUnknown(RawHandle raw) {
  gate::Note("Release");
  std::unique_ptr<Unknown> object(static_cast<Unknown*>(raw));
  if (object->references.fetch_sub(1, std::memory_order_acq_rel) > 1) (void)object.release();
}

HResult CoInitializeEx() {
  if (const HResult failure = Pass("CoInitializeEx")) return failure;
  gCom->Open();
  return tComDepth++ == 0 ? kOk : kFalse;
}

HResult CoInitializeSecurity() {
  if (const HResult failure = Pass("CoInitializeSecurity")) return failure;
  return tComDepth > 0 ? gCom->Secure() : kNotInitialized;
}

HResult CoIncrementMTAUsage() { return Pass("CoIncrementMTAUsage"); }

void CoUninitialize() {
  gate::Note("CoUninitialize");
  if (tComDepth == 0) return;
  --tComDepth;
  gCom->Close();
}

HResult CreateWbemLocator(WbemLocator* locator) {
  if (const HResult failure = Pass("CoCreateInstance")) return failure;
  if (tComDepth == 0) return kNotInitialized;
  locator->Reset(HandleOf(std::make_unique<Unknown>()));
  return kOk;
}

HResult ConnectServer(const WbemLocator& locator, const char16_t* wmiNamespace,
                      WbemServices* services) {
  const std::string place = Utf16ToUtf8(wmiNamespace);
  if (const HResult failure = Pass("ConnectServer", "%s", place.c_str())) return failure;
  if (!locator) return kPointer;
  if (place != "ROOT\\CIMV2") return kWbemInvalidNamespace;
  services->Reset(HandleOf(std::make_unique<Unknown>()));
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
  rows->Reset(HandleOf(std::move(found)));
  return kOk;
}

HResult NextObject(const WbemEnumerator& rows, WbemObject* row) {
  row->Reset();
  if (const HResult failure = Pass("Next")) return failure;
  if (!rows) return kPointer;
  auto& state = ObjectOf<Enumerator>(rows.Raw());
  if (state.next >= state.rows.size()) return kFalse;
  auto object = std::make_unique<Object>();
  object->row = state.rows[state.next++];
  row->Reset(HandleOf(std::move(object)));
  return kOk;
}

HResult GetProperty(const WbemObject& row, const char16_t* name, WbemValue* value) {
  *value = {};
  if (const HResult failure = Pass("Get", "%s", Utf16ToUtf8(name).c_str())) return failure;
  if (!row) return kPointer;
  for (const Property& property : ObjectOf<Object>(row.Raw()).row) {
    if (property.name != name) continue;
    *value = property.value;
    return kOk;
  }
  return kWbemNotFound;
}

HResult GetRawProperty(const WbemObject& row, const char16_t* name, RawVariant* value) {
  *value = {};
  WbemValue read;
  const HResult result = GetProperty(row, name, &read);
  if (Failed(result)) return result;
  value->type = kTypeOfKind[read.kind];
  if (read.kind == WbemValue::kNumber) value->value = read.number;
  return result;
}

WbemObject ShareObject(RawHandle object) {
  gate::Note("AddRef");
  if (object != nullptr)
    static_cast<Unknown*>(object)->references.fetch_add(1, std::memory_order_relaxed);
  return WbemObject(object);
}

// The query's own errors go to the status call, as in WMI.
HResult ExecQueryAsync(const WbemServices& services, const char16_t* query, ObjectSink* sink) {
  if (const HResult failure = Pass("ExecQueryAsync", "%s", Utf16ToUtf8(query).c_str()))
    return failure;
  if (!services || sink == nullptr) return kPointer;
  auto running = std::make_unique<AsyncQuery>(sink);
  running->result = RowsOf(query, &running->rows);
  if (!CreateThread(Deliver, running.get())) return HResultFromWin32(LastError());
  (void)running.release();  // the thread owns it
  return kOk;
}

}  // namespace platform
