// The steps to WMI's rows. Everything is released before COM ends, on every way out.
#include "service/inventory/wmi_access.h"

#include <cassert>
#include <utility>

#include "service/diagnostics/wmi_log.h"

namespace stewardry {

namespace {

// Opens COM on this thread, and closes it with the scope.
class ComScope {
 public:
  ComScope() : result_(platform::CoInitializeEx()) {}
  ~ComScope() {
    if (!platform::Failed(result_)) platform::CoUninitialize();
  }
  ComScope(const ComScope&) = delete;
  ComScope& operator=(const ComScope&) = delete;
  platform::HResult Result() const { return result_; }

 private:
  platform::HResult result_;
};

// Returns true for success. Logs a failure as `format` with the code, unless the access is silent.
bool Passed(const WmiQuery& query, platform::HResult result,
            CheckedFormat<platform::HResult> format) {
  if (!platform::Failed(result)) return true;
  if (query.reader != nullptr) WmiInfo(format, result);
  return false;
}

bool SecureCom(const WmiQuery& query) {
  const platform::HResult result = platform::CoInitializeSecurity();
  // Too late: the process has values already. They are those of another access, which runs now or
  // was ended before it closed COM, since nothing else sets any.
  if (!platform::Failed(result) || result == platform::kTooLate) return true;
  if (query.reader != nullptr)
    WmiInfo("Failed to initialize security in %s(). Error code = 0x%x", query.reader, result);
  return false;
}

bool Connect(const WmiQuery& query, platform::WbemLocator* locator,
             platform::WbemServices* services) {
  if (!Passed(query, platform::CreateWbemLocator(locator),
              "Failed to create IWbemLocator object. Err code = 0x%x"))
    return false;
  if (!Passed(query, platform::ConnectServer(*locator, u"ROOT\\CIMV2", services),
              "Could not connect. Error code = 0x%x"))
    return false;
  if (query.reader == nullptr) return true;
  WmiInfo("Connected to ROOT\\CIMV2 WMI namespace");
  return Passed(query, platform::CoSetProxyBlanket(*services),
                "Could not set proxy blanket. Error code = 0x%x");
}

void WalkRows(const platform::WbemEnumerator& rows, const WmiRowReader& readRow) {
  for (;;) {
    platform::WbemObject row;
    if (platform::NextObject(rows, &row) != 0 || !row) return;
    if (!readRow(row)) return;
  }
}

bool RunQuery(const WmiQuery& query, const WmiRowReader& readRow) {
  ComScope com;  // declared first, so that nothing of WMI outlives it
  if (!Passed(query, com.Result(), "Failed to initialize COM library. Error code = 0x%x"))
    return false;
  if (!SecureCom(query)) return false;
  platform::WbemEnumerator rows;
  platform::WbemLocator locator;
  platform::WbemServices services;
  if (!Connect(query, &locator, &services)) return false;
  // Fixed log text for every query; its wording must not change.
  if (!Passed(query, platform::ExecQuery(services, query.text, &rows),
              "Query for operating system name failed. Error code = 0x%x"))
    return false;
  WalkRows(rows, readRow);
  return true;
}

}  // namespace

bool ReadWmiRows(const WmiQuery& query, const WmiRowReader& readRow) {
  assert(query.text != nullptr && readRow);
  if (!RunQuery(query, readRow)) return false;
  if (query.reader != nullptr) WmiInfo("closed here");
  return true;
}

std::u16string WmiText(const platform::WbemObject& row, const char16_t* name) {
  platform::WbemValue value;
  if (platform::Failed(platform::GetProperty(row, name, &value))) return {};
  return value.kind == platform::WbemValue::kText ? std::move(value.text) : std::u16string();
}

std::uint32_t WmiNumber(const platform::WbemObject& row, const char16_t* name) {
  platform::WbemValue value;
  if (platform::Failed(platform::GetProperty(row, name, &value))) return 0;
  return value.kind == platform::WbemValue::kNumber ? value.number : 0;
}

}  // namespace stewardry
