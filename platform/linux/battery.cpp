// Battery devices: one for each battery of the list, under a path with its name. A handle belongs
// to the slot: each call finds the battery in it again.
#include "platform/battery.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/hostfacts/batteries.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

constexpr std::uint32_t kTag = 1;  // of whatever battery is in its slot

struct Slot {
  std::string name;
};

std::optional<BatteryFacts> FindBattery(const std::string& name) {
  for (BatteryFacts& battery : ListBatteries())
    if (battery.name == name) return std::move(battery);
  return std::nullopt;
}

BatteryInformation Describe(const BatteryFacts& facts) {
  BatteryInformation information{};
  if (facts.feedsMachine) information.capabilities |= kBatterySystemBattery;
  if (facts.shortTerm) information.capabilities |= kBatteryIsShortTerm;
  information.technology = 1;
  std::copy_n(facts.chemistry.begin(),
              std::min(facts.chemistry.size(), sizeof information.chemistry),
              information.chemistry);
  information.designedCapacity = facts.designedMilliwattHours;
  information.fullChargedCapacity = facts.fullMilliwattHours;
  information.cycleCount = facts.cycles;
  return information;
}

BatteryStatus StatusOf(const BatteryFacts& facts) {
  BatteryStatus status{0, facts.milliwattHours, facts.millivolts, facts.milliwatts};
  if (facts.online) status.powerState |= kBatteryPowerOnLine;
  if (facts.charging) status.powerState |= kBatteryCharging;
  if (facts.milliwatts < 0) status.powerState |= kBatteryDischarging;
  return status;
}

template <class Record>
bool CopyOut(const Record& record, void* output, std::uint32_t outputSize,
             std::uint32_t* returned) {
  if (outputSize < sizeof record) return Fail(kErrorInsufficientBuffer);
  std::memcpy(output, &record, sizeof record);
  *returned = sizeof record;
  return true;
}

// Returns whether the input is of the wanted size and begins with the tag, as that of every request
// but the one for the tag.
bool HasTag(const void* input, std::uint32_t inputSize, std::uint32_t wantedSize) {
  std::uint32_t tag = kBatteryTagInvalid;
  if (inputSize == wantedSize) std::memcpy(&tag, input, sizeof tag);
  return tag == kTag;
}

}  // namespace

void CloseBattery(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<Slot*>(raw);
}

BatteryHandle OpenBattery(const char* path) {
  if (gate::Fails("CreateFileA", "%s", path)) return BatteryHandle(InvalidHandleValue());
  const std::size_t prefix = sizeof kBatteryPathPrefix - 1;
  if (std::strncmp(path, kBatteryPathPrefix, prefix) != 0 || !FindBattery(path + prefix))
    return Fail(kErrorFileNotFound, BatteryHandle(InvalidHandleValue()));
  return BatteryHandle(new Slot{path + prefix});
}

bool BatteryIoControl(const BatteryHandle& battery, std::uint32_t code, const void* input,
                      std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                      std::uint32_t* returned) {
  *returned = 0;
  if (gate::Fails("DeviceIoControl", "0x%X, in %u, out %u", code, inputSize, outputSize))
    return false;
  if (!battery) return Fail(kErrorInvalidHandle);
  const auto facts = FindBattery(static_cast<Slot*>(battery.Raw())->name);
  if (!facts || !facts->present) return Fail(kErrorFileNotFound);
  if (code == kIoctlBatteryQueryTag) return CopyOut(kTag, output, outputSize, returned);
  if (code == kIoctlBatteryQueryInformation &&
      HasTag(input, inputSize, sizeof(BatteryQueryInformation)))
    return CopyOut(Describe(*facts), output, outputSize, returned);
  if (code == kIoctlBatteryQueryStatus && HasTag(input, inputSize, sizeof(BatteryWaitStatus)))
    return CopyOut(StatusOf(*facts), output, outputSize, returned);
  return Fail(kErrorInvalidParameter);
}

}  // namespace platform
