#include "lab/firmware/wsman/methods.h"

#include "lab/firmware/core/frames.h"
#include "lab/firmware/wsman/faults.h"

namespace orrin {

using namespace stewardry::cim;

namespace {

// Return codes of both methods (DSP1027, DSP1076).
constexpr std::uint32_t kDone = 0, kNotSupported = 1, kErrorOccurred = 2;
constexpr std::uint16_t kStateEnabled = 2;

struct PowerMapping {
  std::uint32_t powerState;
  std::uint8_t command;
};

// PowerState values of CIM_PowerManagementService. The mailbox has no command for Off - Hard (6),
// its cycles (9, 13, 16) and diagnostic interrupts (11, 17).
constexpr PowerMapping kPowerMappings[] = {
    {4, kSleep},      // Sleep - Deep
    {5, kReboot},     // Power Cycle (Off - Soft)
    {7, kHibernate},  // Hibernate (Off - Soft)
    {8, kShutdown},   // Off - Soft
    {10, kReboot},    // Master Bus Reset
    {12, kShutdown},  // Off - Soft Graceful
    {14, kReboot},    // Master Bus Reset Graceful
    {15, kReboot},    // Power Cycle (Off - Soft Graceful)
};

std::uint16_t RequiredNumber(const Instance* in, const char16_t* name) {
  const auto parameter = PropertyOf(in, name);
  if (!parameter || parameter->IsNull())
    throw Fault{FaultCode::kInvalidParameter, "MissingValues", Utf8(name) + " is missing."};
  return parameter->value.uint16;
}

std::optional<std::uint8_t> ChangePower(const Instance* in, std::uint32_t* result) {
  const auto command = CommandForPowerState(RequiredNumber(in, u"PowerState"));
  *result = command ? kDone : kErrorOccurred;
  return command;
}

// The host is asked to enable KVM. It has no command that disables it.
std::optional<std::uint8_t> EnableKvm(const Instance* in, std::uint32_t* result) {
  const bool enables = RequiredNumber(in, u"RequestedState") == kStateEnabled;
  *result = enables ? kDone : kNotSupported;
  return enables ? std::optional<std::uint8_t>(kKvmEnableStatus) : std::nullopt;
}

struct MethodRow {
  const char16_t* className;
  const char16_t* name;
  std::optional<std::uint8_t> (*run)(const Instance* in, std::uint32_t* result);
};
constexpr MethodRow kMethods[] = {
    {u"CIM_PowerManagementService", u"RequestPowerStateChange", ChangePower},
    {u"CIM_KVMRedirectionSAP", u"RequestStateChange", EnableKvm},
};

}  // namespace

std::optional<std::uint8_t> CommandForPowerState(std::uint32_t powerState) {
  for (const PowerMapping& mapping : kPowerMappings) {
    if (mapping.powerState == powerState) return mapping.command;
  }
  return std::nullopt;
}

std::optional<std::uint8_t> RunMethod(const Instance* target, const MethodDef& method,
                                      const Instance* in, Instance* out) {
  for (const MethodRow& row : kMethods) {
    if (!Name_Equal(row.name, method.name) || !IsOfClass(target->def, row.className)) continue;
    CimValue result{};
    const auto command = row.run(in, &result.uint32);
    if (Instance_StorePropertyAt(out, 0, &result, CIM_UINT32, 0) != stewardry::RESULT_OK)
      throw Fault{FaultCode::kInternalError};
    return command;
  }
  throw Fault{FaultCode::kActionNotSupported};
}

}  // namespace orrin
