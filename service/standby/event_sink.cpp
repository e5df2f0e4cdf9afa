#include "service/standby/event_sink.h"

#include <cassert>
#include <cstring>

#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/wmi_access.h"

namespace stewardry {

namespace {

constexpr platform::HResult kNoError = 0;  // WBEM_S_NO_ERROR, S_OK

bool IsSame(const platform::Guid& a, const platform::Guid& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

platform::HResult EventSink::QueryInterface(const platform::Guid& interfaceId, void** object) {
  if (object == nullptr) return platform::kPointer;
  *object = nullptr;
  if (!IsSame(interfaceId, platform::kIidUnknown) &&
      !IsSame(interfaceId, platform::kIidWbemObjectSink))
    return platform::kNoInterface;
  AddRef();
  *object = static_cast<platform::ObjectSink*>(this);
  return kNoError;
}

std::uint32_t EventSink::AddRef() {
  return references_.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint32_t EventSink::Release() {
  const std::uint32_t before = references_.fetch_sub(1, std::memory_order_acq_rel);
  assert(before > 0);
  if (before == 1) delete this;
  return before - 1;
}

platform::HResult EventSink::Indicate(std::int32_t count, platform::RawHandle* rows) {
  for (std::int32_t i = 0; rows != nullptr && i < count; ++i) {
    WmiInfo("Event occurred");
    const platform::WbemObject row = platform::ShareObject(rows[i]);
    LogInfo("Battery %d", row ? WmiNumber(row, u"BatteryStatus") : 0);
  }
  return kNoError;
}

platform::HResult EventSink::SetStatus(std::int32_t flags, platform::HResult result, char16_t*,
                                       platform::RawHandle) {
  if (flags == platform::kWbemStatusComplete) {
    LogInfo("Call complete. hResult = 0x%X", result);
    done_.store(true, std::memory_order_release);
  } else if (flags == platform::kWbemStatusProgress) {
    LogInfo("Call in progress.");
  }
  return kNoError;
}

}  // namespace stewardry
